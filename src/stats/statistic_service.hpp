#pragma once

#include <netinet/in.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "catalog/catalog_writer_statistic.hpp"
#include "core/thread.hpp"
#include "media/packet_reader_statistic.hpp"
#include "net/packet_ring.hpp"
#include "net/refused_sources.hpp"
#include "stats/metrics_file.hpp"
#include "stats/report_snapshot.hpp"
#include "writer/media_buffer_pool_statistic.hpp"
#include "writer/media_writer_statistic.hpp"
#include "writer/writing_manager_statistic.hpp"

// The periodic statistics report: a thread that renders the counters of every pipeline component
// into one framed text, 86 characters a line, and logs it as one SYSTEM message at once when it
// starts and then every 5 seconds. The components count into the records held here: the service
// hands each its record when it builds the pipeline.
//
// There is one, `Instance`, for the process's lifetime. Threads: the main thread sets the report
// settings (`show_number`, `number`, `log_enabled`, the transfer settings) before it starts the
// thread, and starts and stops it; the components' threads write the records' counters; the
// report thread reads them without locks, so a report is a loose snapshot. The transfer settings
// are kept but the report is only ever logged.

namespace qm::stats {

// A byte count as digits, and from 1024 on with its size in binary units: "1536 (1.5KiB)".
std::string bytes_to_string(std::uint64_t bytes);

class StatisticService : public Thread {
public:
    static StatisticService Instance;

    // Seconds between two reports.
    static constexpr std::uint64_t PERIOD_SECONDS = 5;
    // Characters in every line of the report, without its line end.
    static constexpr std::size_t LINE_WIDTH = 86;

    StatisticService();
    // Stops the thread if it still runs.
    ~StatisticService() override;

    // Logs the thread's start, then one report at once and one every PERIOD_SECONDS until
    // `stop`.
    void run() override;
    // Ends the thread at once, also in the middle of its wait, and logs how the join went.
    // Returns 0 at once when the thread is not running.
    [[nodiscard]] int stop() override;

    // From now on, every period compares the count of datagrams the system dropped for the
    // socket `fd` with the last one and logs a WARNING, naming `receive_buffer` (bytes granted),
    // when it grew. Called by the main thread once its socket is open; the socket outlives the
    // thread.
    void watch_kernel_drops(int fd, std::uint64_t receive_buffer);
    // The same for datagrams the system could not put into `ring` (named by its size), and a
    // WARNING when packets that failed the ring's checks were discarded since the last report.
    // The ring outlives the thread.
    void watch_ring_drops(net::PacketRing& ring);

    // One period's work: the report (unless `log_enabled` is false), the kernel drop check, the
    // refused senders' WARNING, the metrics file (when `metrics_file` is set) and the status line
    // for the service manager (when it listens), all from one snapshot of the counters.
    void report_period();
    // The counters' values now, row by row, as the report shows them.
    ReportSnapshot snapshot() const;
    // The whole report; its last line has no line end (the log line adds it).
    void print(std::ostream& out) const;
    void print(std::ostream& out, const ReportSnapshot& values) const;
    // "STATUS=12 sessions, 345678 datagrams, 0 dropped by the system, 0 media bytes dropped".
    std::string status_line() const;

    // The framing: a title between asterisks, a text between "* " and "*", a run of one
    // character; each framed line is LINE_WIDTH characters unless its text is too long for the
    // frame, which then loses its right-hand side.
    static void print_section_header(std::ostream& out, std::string_view title);
    static void print_section_line(std::ostream& out, std::string_view text);
    static void print_spawned_symbol(std::ostream& out, char symbol);

    media::PacketReaderStatistic packet_reader{};
    writer::WritingManagerStatistic manager{};
    writer::MediaWriterStatistic writer{};
    writer::MediaBufferPoolStatistic pool{};
    // Counted by the catalogue writer; in the metrics file only while `catalog_metrics` is set.
    catalog::CatalogWriterStatistic catalog{};
    // Counted by the receiving thread when `allowed_sources` refuses a datagram's sender.
    net::RefusedSources refused_sources{};

    // The title shows `number` (the listening port) when `show_number` is set.
    bool show_number = false;
    std::uint64_t number = 0;
    bool log_enabled = true;
    bool transfer_enabled = false;
    // Where the metrics go every period; empty writes none.
    std::string metrics_file;
    // The recorder keeps a catalogue: its counters join the metrics file.
    bool catalog_metrics = false;
    std::string transfer_host = "127.0.0.1";
    std::uint16_t transfer_port = 0;
    sockaddr_in transfer_address{};

private:
    std::vector<ReportRow> manager_rows() const;
    std::vector<ReportRow> writer_rows() const;
    std::vector<ReportRow> packet_reader_rows() const;
    std::vector<ReportRow> metrics_only_rows() const;

    // The WARNINGs of `watch_kernel_drops` and `watch_ring_drops`, whether or not reports are
    // logged.
    void check_kernel_drops();
    void check_ring_discards(net::PacketRing& ring);
    // The WARNING for the datagrams refused since the last period, whose count it adds to
    // `m_refused_total`.
    void check_refused_sources();

    // Waits one period, or less when a stop is requested; false once it is.
    bool wait_period();

    // Wakes the thread from its wait at a stop; the wait itself is on the monotonic clock.
    std::mutex m_mutex;
    std::condition_variable m_wake;
    // Guarded by m_mutex: set by `stop`, read by the waiting thread.
    bool m_stopping = false;

    // Published by the main thread, the buffer size before the descriptor; -1 while none.
    std::atomic<int> m_drops_fd{-1};
    std::atomic<std::uint64_t> m_receive_buffer{0};
    // Published by the main thread when it receives through a ring; null while it does not.
    std::atomic<net::PacketRing*> m_ring{nullptr};
    // The report thread's own: the system's 32-bit count at the last check, the 64-bit total it
    // adds up to across its wraps (what the metrics file and the status line show), and the
    // metrics file once used.
    std::uint32_t m_drops_seen = 0;
    std::uint64_t m_drops_total = 0;
    // The report thread's own: datagrams refused by `allowed_sources` since the start.
    std::uint64_t m_refused_total = 0;
    std::unique_ptr<MetricsFile> m_metrics;
};

}  // namespace qm::stats
