#include "stats/statistic_service.hpp"

#include <arpa/inet.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <initializer_list>
#include <iomanip>
#include <optional>
#include <sstream>

#include "app/app_notify.hpp"
#include "log/logger.hpp"
#include "net/net_socket.hpp"

namespace qm::stats {
namespace {

// Longest title or text that still fits inside the frame.
constexpr std::size_t FRAMED_TEXT_MAX = 82;
constexpr std::string_view UNIT_LETTERS = "KMGTPEZY";

void print_rows(std::ostream& out, const std::vector<ReportRow>& rows) {
    for (const ReportRow& row : rows) {
        std::ostringstream text;
        text << row.label;
        if (row.bytes) {
            text << bytes_to_string(row.value);
        } else {
            text << row.value;
        }
        StatisticService::print_section_line(out, text.view());
    }
}

void print_empty_line(std::ostream& out) {
    StatisticService::print_section_line(out, " ");
}

}  // namespace

StatisticService StatisticService::Instance;

std::string bytes_to_string(std::uint64_t bytes) {
    std::ostringstream text;
    text << bytes;
    if (bytes <= 1023) {
        return text.str();
    }
    // The integer part of log2(bytes) / 10, from the bit width rather than a rounded logarithm.
    const std::size_t exponent = std::min<std::size_t>((std::bit_width(bytes) - 1) / 10, 8);
    const double scaled =
        static_cast<double>(bytes) / std::pow(1024.0, static_cast<double>(exponent));
    const auto whole = static_cast<std::uint64_t>(scaled);
    const int precision =
        whole <= 9 ? 3 : static_cast<int>(std::log10(static_cast<double>(whole))) + 3;
    text << " (" << std::setprecision(precision) << scaled << UNIT_LETTERS[exponent - 1] << "iB)";
    return text.str();
}

StatisticService::StatisticService() {
    set_name("qm-statistic");
    transfer_address.sin_family = AF_INET;
    transfer_address.sin_port = 0;
    transfer_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
}

// A destructor has no one to report to; `stop` has logged how the join went.
StatisticService::~StatisticService() {
    static_cast<void>(stop());
}

void StatisticService::run() {
    QM_LOG_THREAD_STARTED("STATISTIC_SERVICE");
    do {
        report_period();
    } while (wait_period());
}

bool StatisticService::wait_period() {
    std::unique_lock lock(m_mutex);
    m_wake.wait_for(lock, std::chrono::seconds(PERIOD_SECONDS), [this] { return m_stopping; });
    return !m_stopping;
}

int StatisticService::stop() {
    if (!is_running()) {
        return 0;
    }
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    const int result = Thread::stop();
    {
        std::lock_guard lock(m_mutex);
        m_stopping = false;
    }
    return QM_LOG_THREAD_STOPPED("STATISTIC_SERVICE", result);
}

void StatisticService::watch_kernel_drops(int fd, std::uint64_t receive_buffer) {
    m_receive_buffer.store(receive_buffer, std::memory_order_relaxed);
    m_ring.store(nullptr, std::memory_order_relaxed);
    m_drops_fd.store(fd, std::memory_order_release);
}

void StatisticService::watch_ring_drops(net::PacketRing& ring) {
    m_receive_buffer.store(ring.size(), std::memory_order_relaxed);
    m_drops_fd.store(-1, std::memory_order_relaxed);
    // Release: the ring's descriptor, written when it was opened, is seen with the pointer.
    m_ring.store(&ring, std::memory_order_release);
}

void StatisticService::check_kernel_drops() {
    net::PacketRing* ring = m_ring.load(std::memory_order_acquire);
    std::optional<std::uint32_t> drops;
    if (ring != nullptr) {
        // The ring's count restarts at every read; kept running here like the socket's.
        const std::optional<std::uint32_t> since = net::ring_drops(ring->fd());
        drops = since ? std::optional<std::uint32_t>(m_drops_seen + *since) : std::nullopt;
    } else {
        drops = net::kernel_drops(m_drops_fd.load(std::memory_order_acquire));
    }
    if (drops && *drops != m_drops_seen) {
        // The count is the system's 32-bit one; unsigned subtraction survives its wrap.
        QM_LOG_WARNING("STATISTIC_SERVICE: the system dropped "
                       << static_cast<std::uint32_t>(*drops - m_drops_seen)
                       << " datagrams since the last report: the receive buffer ("
                       << m_receive_buffer.load(std::memory_order_relaxed) << " bytes) overflowed");
        m_drops_total = net::accumulate_wrapping(m_drops_total, m_drops_seen, *drops);
        m_drops_seen = *drops;
    }
    if (ring != nullptr) {
        check_ring_discards(*ring);
    }
}

void StatisticService::check_ring_discards(net::PacketRing& ring) {
    const std::uint64_t discards = ring.take_discarded();
    if (discards != 0) {
        QM_LOG_WARNING("STATISTIC_SERVICE: the packet ring discarded "
                       << discards
                       << " packets since the last report: a broken IPv4 or UDP header or a "
                          "wrong UDP checksum");
    }
}

void StatisticService::check_refused_sources() {
    const net::RefusedSources::Refusals refusals = refused_sources.take();
    if (refusals.count == 0) {
        return;
    }
    m_refused_total += refusals.count;
    in_addr address{};
    address.s_addr = htonl(refusals.address);
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &address, text, sizeof text);
    QM_LOG_WARNING("STATISTIC_SERVICE: refused "
                   << refusals.count
                   << " datagrams from sources not in allowed_sources since the last report, the "
                      "last from "
                   << text << ':' << refusals.port);
}

void StatisticService::report_period() {
    const ReportSnapshot values = snapshot();
    if (log_enabled) {
        std::ostringstream report;
        print(report, values);
        QM_LOG_SYSTEM(report.view());
    }
    check_kernel_drops();
    check_refused_sources();
    if (!metrics_file.empty()) {
        if (!m_metrics) {
            m_metrics = std::make_unique<MetricsFile>(metrics_file);
        }
        m_metrics->write(values, {m_drops_total, MetricsFile::resident_bytes(), m_refused_total});
    }
    app::notify_service_manager(status_line());
}

std::string StatisticService::status_line() const {
    std::ostringstream status;
    status << "STATUS=" << manager.session.load() << " sessions, "
           << packet_reader.passed_elements.load() << " datagrams, " << m_drops_total
           << " dropped by the system, " << manager.session_media_dropped_bytes.load()
           << " media bytes dropped";
    return status.str();
}

void StatisticService::print(std::ostream& out) const {
    print(out, snapshot());
}

void StatisticService::print(std::ostream& out, const ReportSnapshot& values) const {
    if (show_number) {
        print_section_header(out, "quillmarwriter:" + std::to_string(number) + " statistic");
    } else {
        print_section_header(out, "quillmarwriter statistic");
    }
    print_empty_line(out);
    print_rows(out, values.manager);
    print_empty_line(out);
    print_section_header(out, "writer statistic");
    print_empty_line(out);
    print_rows(out, values.writer);
    print_empty_line(out);
    print_section_header(out, "packets statistic");
    print_empty_line(out);
    print_rows(out, values.packet_reader);
    print_empty_line(out);
    print_spawned_symbol(out, '*');
}

ReportSnapshot StatisticService::snapshot() const {
    return {manager_rows(), writer_rows(), packet_reader_rows(), metrics_only_rows()};
}

std::vector<ReportRow> StatisticService::manager_rows() const {
    return {
        {"session number.............................: ", manager.session.load(), false, "sessions",
         true},
        {"session number (zombie)....................: ", manager.session_zombie.load(), false,
         "zombie_sessions", true},
        {"session audit executions number............: ", manager.session_audit_executions.load(),
         false, "session_audit_executions_total"},
        {"session allocation errors number...........: ", manager.session_allocation_errors.load(),
         false, "session_allocation_errors_total"},
        {"session existing index errors number.......: ",
         manager.session_existing_index_errors.load(), false,
         "session_existing_index_errors_total"},
        {"session unknown index errors number........: ",
         manager.session_unknown_index_errors.load(), false, "session_unknown_index_errors_total"},
        {"session sequence break errors number.......: ",
         manager.session_sequence_break_errors.load(), false,
         "session_sequence_break_errors_total"},
        {"session lost packets number................: ", manager.session_lost_packets.load(),
         false, "session_lost_packets_total"},
        {"session media received bytes number........: ",
         manager.session_media_received_bytes.load(), true, "session_media_received_bytes_total"},
        {"session media buffered bytes number........: ",
         manager.session_media_buffered_bytes.load(), true, "session_media_buffered_bytes_total"},
        {"session media dropped  bytes number........: ",
         manager.session_media_dropped_bytes.load(), true, "session_media_dropped_bytes_total"},
    };
}

std::vector<ReportRow> StatisticService::writer_rows() const {
    return {
        {"buffer queue elements number...............: ", writer.elements.load(), false,
         "buffer_queue_elements", true},
        {"buffer queue passed elements number........: ", writer.passed_elements.load(), false,
         "buffer_queue_passed_elements_total"},
        {"buffer queue dropped elements number.......: ", writer.dropped_elements.load(), false,
         "buffer_queue_dropped_elements_total"},
        {"written bytes number.......................: ", writer.written_bytes.load(), true,
         "written_bytes_total"},
        {"written lost bytes number..................: ", writer.written_lost_bytes.load(), true,
         "written_lost_bytes_total"},
        {"buffer pool elements number................: ", pool.buffer_pool_elements.load(), false,
         "buffer_pool_elements", true},
        {"buffer pool acquire errors number..........: ", pool.buffer_pool_acquire_errors.load(),
         false, "buffer_pool_acquire_errors_total"},
        {"buffer pool release errors number..........: ", pool.buffer_pool_release_errors.load(),
         false, "buffer_pool_release_errors_total"},
        {"buffer null sessions errors number.........: ", writer.buffer_null_sessions_errors.load(),
         false, "buffer_null_sessions_errors_total"},
        {"directory check or create errors number....: ",
         writer.directory_check_or_create_errors.load(), false,
         "directory_check_or_create_errors_total"},
        {"file open errors number....................: ", writer.file_open_errors.load(), false,
         "file_open_errors_total"},
        {"file write errors number...................: ", writer.file_write_errors.load(), false,
         "file_write_errors_total"},
    };
}

std::vector<ReportRow> StatisticService::metrics_only_rows() const {
    std::vector<ReportRow> rows = {
        {"media bytes the system did not take (disk full, quota, I/O error)",
         writer.unwritten_bytes.load(), true, "unwritten_bytes_total"},
        {"media bytes cut off a file again after a write failed part-way",
         writer.repair_cut_bytes.load(), true, "repair_cut_bytes_total"},
        {"file headers written again because the buffer that carried one was lost",
         writer.repair_headers.load(), false, "repair_headers_total"},
        {"leg summaries (leg.json) the media writer failed to write",
         writer.leg_summary_errors.load(), false, "leg_summary_errors_total"},
    };
    if (catalog_metrics) {
        rows.insert(
            rows.end(),
            {
                {"closed legs written to the catalogue", catalog.rows_written.load(), false,
                 "catalog_rows_written_total"},
                {"attempts to reach or write the catalogue that failed",
                 catalog.write_failures.load(), false, "catalog_write_failures_total"},
                {"closed legs and removed directories waiting for the catalogue",
                 catalog.rows_waiting.load(), false, "catalog_rows_waiting", true},
                {"closed legs and removed directories that found the catalogue's queue full",
                 catalog.rows_overflowed.load(), false, "catalog_rows_overflowed_total"},
            });
    }
    return rows;
}

std::vector<ReportRow> StatisticService::packet_reader_rows() const {
    const media::PacketReaderStatistic& reader = packet_reader;
    return {
        {"packet queue elements number...............: ", reader.elements.load(), false,
         "packet_queue_elements", true},
        {"packet queue passed elements number........: ", reader.passed_elements.load(), false,
         "packet_queue_passed_elements_total"},
        {"packet queue dropped elements number.......: ", reader.dropped_elements.load(), false,
         "packet_queue_dropped_elements_total"},
        {"packet queue idle hits number..............: ", reader.idle_hits.load(), false,
         "packet_queue_idle_hits_total"},
        {"packet dropped  by min length..............: ",
         reader.packet_dropped_by_min_length.load(), false, "packet_dropped_by_min_length_total"},
        {"packet dropped  by max length..............: ",
         reader.packet_dropped_by_max_length.load(), false, "packet_dropped_by_max_length_total"},
        {"packet dropped  by failed allocation.......: ",
         reader.packet_dropped_by_failed_allocation.load(), false,
         "packet_dropped_by_failed_allocation_total"},
        {"packet rejected by bad marker..............: ",
         reader.packet_rejected_by_bad_marker.load(), false, "packet_rejected_by_bad_marker_total"},
        {"packet rejected by version.................: ", reader.packet_rejected_by_version.load(),
         false, "packet_rejected_by_version_total"},
        {"packet rejected by corrupted size..........: ",
         reader.packet_rejected_by_corrupted_size.load(), false,
         "packet_rejected_by_corrupted_size_total"},
        {"packet rejected by unknown type............: ",
         reader.packet_rejected_by_unknown_type.load(), false,
         "packet_rejected_by_unknown_type_total"},
        {"packet 'start' type number.................: ", reader.packet_start_type.load(), false,
         "packet_start_type_total"},
        {"packet 'term'  type number.................: ", reader.packet_term_type.load(), false,
         "packet_term_type_total"},
        {"packet 'data'  type number.................: ", reader.packet_data_type.load(), false,
         "packet_data_type_total"},
        {"packet 'ctrl'  type number.................: ", reader.packet_ctrl_type.load(), false,
         "packet_ctrl_type_total"},
    };
}

void StatisticService::print_section_header(std::ostream& out, std::string_view title) {
    const std::size_t length = title.size();
    if (length > FRAMED_TEXT_MAX) {
        out << "* " << title << '\n';
        return;
    }
    out << std::string((84 - length) / 2, '*') << ' ' << title << ' '
        << std::string((85 - length) / 2, '*') << '\n';
}

void StatisticService::print_section_line(std::ostream& out, std::string_view text) {
    const std::size_t length = text.size();
    if (length > FRAMED_TEXT_MAX) {
        out << "* " << text << '\n';
        return;
    }
    out << "* " << text << std::string(83 - length, ' ') << "*\n";
}

void StatisticService::print_spawned_symbol(std::ostream& out, char symbol) {
    out << std::string(LINE_WIDTH, symbol);
}

}  // namespace qm::stats
