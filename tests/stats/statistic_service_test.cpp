#include "stats/statistic_service.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "temp_directory.hpp"
#include "udp_loopback.hpp"

namespace qm::stats {
namespace {

using ::testing::ElementsAre;

std::string header(std::string_view title) {
    std::ostringstream out;
    StatisticService::print_section_header(out, title);
    return out.str();
}

std::string line(std::string_view text) {
    std::ostringstream out;
    StatisticService::print_section_line(out, text);
    return out.str();
}

TEST(StatisticFramingTest, TitleOf82CharactersHasOneAsteriskOnEachSide) {
    const std::string title(82, 't');
    EXPECT_EQ(header(title), "* " + title + " *\n");
}

TEST(StatisticFramingTest, TitleOf83CharactersLosesItsFrame) {
    const std::string title(83, 't');
    EXPECT_EQ(header(title), "* " + title + "\n");
}

TEST(StatisticFramingTest, HeaderIsCentredAndAlways86Wide) {
    EXPECT_EQ(header("writer statistic"),
              std::string(34, '*') + " writer statistic " + std::string(34, '*') + "\n");
    // An odd length puts the extra asterisk on the right.
    EXPECT_EQ(header("odd"), std::string(40, '*') + " odd " + std::string(41, '*') + "\n");
    for (std::size_t length = 0; length <= 82; ++length) {
        EXPECT_EQ(header(std::string(length, 'x')).size(), 87u) << length;
    }
}

TEST(StatisticFramingTest, LineIsPaddedTo86Characters) {
    EXPECT_EQ(line("a"), "* a" + std::string(82, ' ') + "*\n");
    EXPECT_EQ(line(std::string(82, 'v')), "* " + std::string(82, 'v') + " *\n");
}

TEST(StatisticFramingTest, LineLongerThan82CharactersLosesItsRightHandFrame) {
    const std::string text(83, 'v');
    EXPECT_EQ(line(text), "* " + text + "\n");
}

TEST(StatisticFramingTest, SpawnedSymbolIs86OfItWithoutALineEnd) {
    std::ostringstream out;
    StatisticService::print_spawned_symbol(out, '=');
    EXPECT_EQ(out.str(), std::string(86, '='));
}

TEST(BytesToStringTest, BelowOneKibibyteIsDigitsAlone) {
    EXPECT_EQ(bytes_to_string(0), "0");
    EXPECT_EQ(bytes_to_string(1023), "1023");
}

TEST(BytesToStringTest, FromOneKibibyteTheBinaryUnitFollows) {
    EXPECT_EQ(bytes_to_string(1024), "1024 (1KiB)");
    EXPECT_EQ(bytes_to_string(1536), "1536 (1.5KiB)");
    EXPECT_EQ(bytes_to_string(1048576), "1048576 (1MiB)");
    EXPECT_EQ(bytes_to_string(1048575), "1048575 (1024KiB)");
    EXPECT_EQ(bytes_to_string(5'000'000'000ULL), "5000000000 (4.66GiB)");
    // 117.737...: three digits before the point, so five significant digits.
    EXPECT_EQ(bytes_to_string(123'456'789), "123456789 (117.74MiB)");
    EXPECT_EQ(bytes_to_string(18'446'744'073'709'551'615ULL), "18446744073709551615 (16EiB)");
}

// Every counter set to a value of its own, byte counts in KiB, MiB and GiB.
// A distinct value in every counter the report shows, and one it does not show.
void set_every_counter(StatisticService& service) {
    writer::WritingManagerStatistic& manager = service.manager;
    manager.session = 12;
    manager.session_zombie = 3;
    manager.session_audit_executions = 4;
    manager.session_allocation_errors = 5;
    manager.session_existing_index_errors = 6;
    manager.session_unknown_index_errors = 7;
    manager.session_sequence_break_errors = 8;
    manager.session_lost_packets = 9;
    manager.session_media_received_bytes = 1536;
    manager.session_media_buffered_bytes = 3'145'728;
    manager.session_media_dropped_bytes = 512;
    service.writer.elements = 21;
    service.writer.passed_elements = 22;
    service.writer.dropped_elements = 23;
    service.writer.written_bytes = 5'368'709'120ULL;
    service.writer.written_lost_bytes = 0;
    service.pool.buffer_pool_elements = 3999;
    service.pool.buffer_pool_acquire_errors = 24;
    service.pool.buffer_pool_release_errors = 25;
    service.writer.buffer_null_sessions_errors = 26;
    service.writer.directory_check_or_create_errors = 27;
    service.writer.file_open_errors = 28;
    service.writer.file_write_errors = 29;
    service.writer.unwritten_bytes = 46;
    service.writer.repair_cut_bytes = 47;
    service.writer.repair_headers = 48;
    service.writer.leg_summary_errors = 50;
    service.catalog_metrics = true;
    service.catalog.rows_written = 51;
    service.catalog.write_failures = 52;
    service.catalog.rows_waiting = 53;
    service.catalog.rows_overflowed = 54;
    media::PacketReaderStatistic& reader = service.packet_reader;
    reader.elements = 31;
    reader.passed_elements = 32;
    reader.dropped_elements = 33;
    reader.idle_checks = 999;  // not shown
    reader.idle_hits = 34;
    reader.packet_dropped_by_min_length = 35;
    reader.packet_dropped_by_max_length = 36;
    reader.packet_dropped_by_failed_allocation = 37;
    reader.packet_rejected_by_bad_marker = 38;
    reader.packet_rejected_by_version = 39;
    reader.packet_rejected_by_corrupted_size = 40;
    reader.packet_rejected_by_unknown_type = 41;
    reader.packet_start_type = 42;
    reader.packet_term_type = 43;
    reader.packet_data_type = 44;
    reader.packet_ctrl_type = 45;
}

TEST(StatisticReportTest, WholeReportCharacterForCharacter) {
    StatisticService service;
    service.show_number = true;
    service.number = 5090;
    set_every_counter(service);

    std::ostringstream out;
    service.print(out);

    const std::string blank = "*" + std::string(84, ' ') + "*\n";
    const auto value = [](const std::string& text) {
        return "* " + text + std::string(83 - text.size(), ' ') + "*\n";
    };
    const std::string expected =
        std::string(27, '*') + " quillmarwriter:5090 statistic " + std::string(28, '*') + "\n" +
        blank + value("session number.............................: 12") +
        value("session number (zombie)....................: 3") +
        value("session audit executions number............: 4") +
        value("session allocation errors number...........: 5") +
        value("session existing index errors number.......: 6") +
        value("session unknown index errors number........: 7") +
        value("session sequence break errors number.......: 8") +
        value("session lost packets number................: 9") +
        value("session media received bytes number........: 1536 (1.5KiB)") +
        value("session media buffered bytes number........: 3145728 (3MiB)") +
        value("session media dropped  bytes number........: 512") + blank + std::string(34, '*') +
        " writer statistic " + std::string(34, '*') + "\n" + blank +
        value("buffer queue elements number...............: 21") +
        value("buffer queue passed elements number........: 22") +
        value("buffer queue dropped elements number.......: 23") +
        value("written bytes number.......................: 5368709120 (5GiB)") +
        value("written lost bytes number..................: 0") +
        value("buffer pool elements number................: 3999") +
        value("buffer pool acquire errors number..........: 24") +
        value("buffer pool release errors number..........: 25") +
        value("buffer null sessions errors number.........: 26") +
        value("directory check or create errors number....: 27") +
        value("file open errors number....................: 28") +
        value("file write errors number...................: 29") + blank + std::string(33, '*') +
        " packets statistic " + std::string(34, '*') + "\n" + blank +
        value("packet queue elements number...............: 31") +
        value("packet queue passed elements number........: 32") +
        value("packet queue dropped elements number.......: 33") +
        value("packet queue idle hits number..............: 34") +
        value("packet dropped  by min length..............: 35") +
        value("packet dropped  by max length..............: 36") +
        value("packet dropped  by failed allocation.......: 37") +
        value("packet rejected by bad marker..............: 38") +
        value("packet rejected by version.................: 39") +
        value("packet rejected by corrupted size..........: 40") +
        value("packet rejected by unknown type............: 41") +
        value("packet 'start' type number.................: 42") +
        value("packet 'term'  type number.................: 43") +
        value("packet 'data'  type number.................: 44") +
        value("packet 'ctrl'  type number.................: 45") + blank + std::string(86, '*');
    EXPECT_EQ(out.str(), expected);
    // With the line end that the log adds, every line is 86 characters and its end.
    const std::vector<std::string> lines = test::split_lines(out.str() + "\n");
    ASSERT_EQ(lines.size(), 48u);
    for (const std::string& text : lines) {
        EXPECT_EQ(text.size(), 86u) << text;
    }
}

TEST(StatisticReportTest, TitleWithoutNumber) {
    StatisticService service;
    std::ostringstream out;
    service.print(out);
    EXPECT_EQ(out.str().substr(0, 87),
              std::string(30, '*') + " quillmarwriter statistic " + std::string(30, '*') + "\n");
}

TEST(StatisticThreadTest, ReportsAtOnceWhenItStartsAndStopsWithoutWaitingOutThePeriod) {
    test::LogCapture capture;
    StatisticService service;
    service.show_number = true;
    service.number = 7;

    ASSERT_EQ(service.start(), 0);
    ASSERT_TRUE(capture.wait_for(" quillmarwriter:7 statistic "));
    const auto asked = std::chrono::steady_clock::now();
    ASSERT_EQ(service.stop(), 0);
    const auto stop_time = std::chrono::steady_clock::now() - asked;

    EXPECT_LT(stop_time, std::chrono::seconds(StatisticService::PERIOD_SECONDS));
    const std::vector<std::string> texts = capture.texts(log::Level::SYSTEM);
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_THAT(texts[0],
                ::testing::MatchesRegex(R"(STATISTIC_SERVICE: thread \[[0-9]+\] started)"));
    std::ostringstream report;
    service.print(report);
    EXPECT_EQ(texts[1], report.str());
    EXPECT_THAT(texts[2],
                ::testing::MatchesRegex(R"(STATISTIC_SERVICE: thread \[[0-9]+\] stopped)"));
    EXPECT_THAT(capture.lines()[1], ::testing::StartsWith("SYSTEM  | statistic_service.cpp:"));
}

TEST(StatisticThreadTest, WithLoggingDisabledTheThreadRunsAndWritesNoReport) {
    test::LogCapture capture;
    StatisticService service;
    service.log_enabled = false;

    ASSERT_EQ(service.start(), 0);
    ASSERT_TRUE(capture.wait_for("STATISTIC_SERVICE: thread ["));
    EXPECT_TRUE(service.is_running());
    ASSERT_EQ(service.stop(), 0);

    const std::vector<std::string> texts = capture.texts();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_THAT(texts[1],
                ::testing::MatchesRegex(R"(STATISTIC_SERVICE: thread \[[0-9]+\] stopped)"));
}

TEST(StatisticThreadTest, StopOfAThreadThatDoesNotRunDoesNothing) {
    test::LogCapture capture;
    StatisticService service;
    EXPECT_EQ(service.stop(), 0);
    EXPECT_TRUE(capture.texts().empty());
}

// The value of every sample in a metrics file, by name.
std::map<std::string, std::uint64_t> samples(const std::string& text) {
    std::map<std::string, std::uint64_t> values;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (!line.empty() && line[0] != '#') {
            const std::size_t blank = line.find(' ');
            values[line.substr(0, blank)] = std::stoull(line.substr(blank + 1));
        }
    }
    return values;
}

TEST(StatisticPeriodTest, MetricsOfAPeriodShowTheNumbersOfItsReport) {
    test::TempDirectory directory;
    test::LogCapture capture;
    StatisticService service;
    set_every_counter(service);
    service.metrics_file = (directory.path() / "quillmarwriter.prom").string();

    service.report_period();

    const std::map<std::string, std::uint64_t> values =
        samples(test::read_file(service.metrics_file));
    const ReportSnapshot snapshot = service.snapshot();
    std::size_t rows = 0;
    for (const auto* section : {&snapshot.manager, &snapshot.writer, &snapshot.packet_reader}) {
        for (const ReportRow& row : *section) {
            EXPECT_EQ(values.at("quillmarwriter_" + std::string(row.metric)), row.value)
                << row.label;
            ++rows;
        }
    }
    EXPECT_EQ(rows, 38u);
    EXPECT_EQ(values.size(), rows + 11);
    // Counters of the metrics file alone; the framed report below does not show them.
    EXPECT_EQ(values.at("quillmarwriter_unwritten_bytes_total"), 46u);
    EXPECT_EQ(values.at("quillmarwriter_repair_cut_bytes_total"), 47u);
    EXPECT_EQ(values.at("quillmarwriter_repair_headers_total"), 48u);
    EXPECT_EQ(values.at("quillmarwriter_leg_summary_errors_total"), 50u);
    EXPECT_EQ(values.at("quillmarwriter_catalog_rows_written_total"), 51u);
    EXPECT_EQ(values.at("quillmarwriter_catalog_write_failures_total"), 52u);
    EXPECT_EQ(values.at("quillmarwriter_catalog_rows_waiting"), 53u);
    EXPECT_EQ(values.at("quillmarwriter_catalog_rows_overflowed_total"), 54u);
    EXPECT_EQ(values.at("quillmarwriter_sessions"), 12u);
    EXPECT_EQ(values.at("quillmarwriter_session_lost_packets_total"), 9u);
    EXPECT_EQ(values.at("quillmarwriter_written_bytes_total"), 5'368'709'120ULL);
    EXPECT_EQ(values.at("quillmarwriter_packet_ctrl_type_total"), 45u);
    EXPECT_EQ(values.at("quillmarwriter_kernel_drops_total"), 0u);
    EXPECT_EQ(values.at("quillmarwriter_refused_datagrams_total"), 0u);
    EXPECT_GT(values.at("quillmarwriter_resident_memory_bytes"), 0u);
    std::ostringstream report;
    service.print(report, snapshot);
    EXPECT_EQ(capture.texts(log::Level::SYSTEM), (std::vector<std::string>{report.str()}));
}

TEST(StatisticPeriodTest, StatusLineSummarisesTheCounters) {
    StatisticService service;
    set_every_counter(service);

    EXPECT_EQ(service.status_line(),
              "STATUS=12 sessions, 32 datagrams, 0 dropped by the system, 512 media bytes dropped");
}

// A service manager listening on NOTIFY_SOCKET hears the status once per period.
TEST(StatisticPeriodTest, ServiceManagerHearsTheStatusEveryPeriod) {
    test::TempDirectory directory;
    test::LogCapture capture;
    const std::string path = (directory.path() / "notify").string();
    const int listener = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    StatisticService service;
    set_every_counter(service);
    service.log_enabled = false;

    service.report_period();
    service.report_period();
    ::unsetenv("NOTIFY_SOCKET");

    char received[256];
    for (int period = 0; period < 2; ++period) {
        const ssize_t size = ::recv(listener, received, sizeof received, MSG_DONTWAIT);
        ASSERT_GT(size, 0);
        EXPECT_EQ(std::string(received, static_cast<std::size_t>(size)), service.status_line());
    }
    EXPECT_LT(::recv(listener, received, sizeof received, MSG_DONTWAIT), 0);
    ::close(listener);
    EXPECT_TRUE(capture.texts().empty());
}

// Through a packet ring: what the full ring could not take is the system's drop WARNING, named
// by the ring's size, and a packet that failed the ring's checks has a WARNING of its own; each
// count is reported once.
TEST(StatisticPeriodTest, RingDropsAndDiscardsAreWarnedOnceWithTheirCounts) {
    test::LogCapture capture;
    const std::uint16_t port = test::free_udp_port();
    net::PacketRing ring;
    ASSERT_TRUE(ring.open(port, net::PacketRing::BLOCK_SIZE));
    StatisticService service;
    service.log_enabled = false;
    service.watch_ring_drops(ring);
    ASSERT_TRUE(test::send_raw_ipv4(test::udp_packet_with_broken_length(port)));
    test::UdpSender sender(port);
    // A block holds fewer than 100 datagrams of 1300 bytes: the rest are dropped.
    constexpr std::uint32_t SENT = 300;
    for (std::uint32_t i = 0; i < SENT; ++i) {
        ASSERT_TRUE(sender.send(std::vector<std::uint8_t>(1300, 1)));
    }
    std::uint32_t taken = 0;
    ASSERT_TRUE(test::poll_until(
        [&] { return ring.read_block([&](const std::uint8_t*, std::uint64_t) { ++taken; }); },
        std::chrono::milliseconds(5000)));
    capture.clear();

    service.report_period();
    service.report_period();

    EXPECT_EQ(capture.texts(log::Level::WARNING),
              (std::vector<std::string>{
                  "STATISTIC_SERVICE: the system dropped " + std::to_string(SENT - taken) +
                      " datagrams since the last report: the receive buffer (131072 bytes) "
                      "overflowed",
                  "STATISTIC_SERVICE: the packet ring discarded 1 packets since the last report: "
                  "a broken IPv4 or UDP header or a wrong UDP checksum"}));
    EXPECT_EQ(service.status_line(), "STATUS=0 sessions, 0 datagrams, " +
                                         std::to_string(SENT - taken) +
                                         " dropped by the system, 0 media bytes dropped");
}

// The sender as the system gives it: network order.
sockaddr_in source(std::uint32_t address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

// Each period with refusals has one WARNING with its count and the latest sender; the metrics
// file keeps the total; a period without any says nothing.
TEST(StatisticPeriodTest, RefusedSourcesAreWarnedPerPeriodAndTotalledInTheMetrics) {
    test::TempDirectory directory;
    test::LogCapture capture;
    StatisticService service;
    service.log_enabled = false;
    service.metrics_file = (directory.path() / "quillmarwriter.prom").string();
    service.refused_sources.refuse(source(0x0A000001, 5000));
    service.refused_sources.refuse(source(0x7F000002, 65535));
    service.report_period();
    service.report_period();
    for (int i = 0; i < 3; ++i) {
        service.refused_sources.refuse(source(0xC0000207, 1));
    }
    service.report_period();

    EXPECT_EQ(capture.texts(log::Level::WARNING),
              (std::vector<std::string>{
                  "STATISTIC_SERVICE: refused 2 datagrams from sources not in allowed_sources "
                  "since the last report, the last from 127.0.0.2:65535",
                  "STATISTIC_SERVICE: refused 3 datagrams from sources not in allowed_sources "
                  "since the last report, the last from 192.0.2.7:1"}));
    EXPECT_EQ(
        samples(test::read_file(service.metrics_file)).at("quillmarwriter_refused_datagrams_total"),
        5u);
}

TEST(StatisticServiceTest, TransferSettingsStartAsLoopbackPortZero) {
    const StatisticService service;
    EXPECT_FALSE(service.transfer_enabled);
    EXPECT_EQ(service.transfer_host, "127.0.0.1");
    EXPECT_EQ(service.transfer_port, 0);
    EXPECT_EQ(service.transfer_address.sin_family, AF_INET);
    EXPECT_EQ(service.transfer_address.sin_port, 0);
    EXPECT_EQ(service.transfer_address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_TRUE(service.log_enabled);
    EXPECT_FALSE(service.show_number);
}

}  // namespace
}  // namespace qm::stats
