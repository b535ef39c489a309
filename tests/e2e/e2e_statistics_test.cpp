// The running recorder's statistics report: once at start, then every 5 seconds, with the exact
// counts of what it was sent.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "media/packet_encoder.hpp"
#include "recorder_e2e.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;
namespace {

using namespace std::chrono_literals;

// The recorder reports at start, then once in every period of this length.
constexpr std::chrono::seconds REPORT_PERIOD{5};

// Lines in one report after its title line.
constexpr std::size_t REPORT_BODY_LINES = 47;

class StatisticsE2eTest : public RecorderE2eTest {
protected:
    std::string title() const { return " quillmarwriter:" + std::to_string(port) + " statistic "; }

    // The standard-error lines of every complete report, title line first.
    std::vector<std::vector<std::string>> reports(const ChildProcess& process) const {
        const std::vector<std::string> lines = process.error_lines();
        std::vector<std::vector<std::string>> found;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].find(title()) != std::string::npos &&
                i + REPORT_BODY_LINES < lines.size()) {
                found.emplace_back(lines.begin() + static_cast<long>(i),
                                   lines.begin() + static_cast<long>(i + REPORT_BODY_LINES + 1));
            }
        }
        return found;
    }

    // The reports whose title line was logged less than `window` after the first one's.
    std::size_t reports_within(const std::vector<LogLine>& lines,
                               std::chrono::microseconds window) const {
        constexpr std::int64_t DAY_US = 24LL * 3600 * 1000000;
        std::optional<std::int64_t> first;
        std::size_t count = 0;
        for (const LogLine& line : lines) {
            if (line.text.find(title()) == std::string::npos) {
                continue;
            }
            first = first.value_or(line.time_us);
            // The times count from midnight: a run across it wraps.
            const std::int64_t since_first = (line.time_us - *first + DAY_US) % DAY_US;
            count += since_first < window.count() ? 1 : 0;
        }
        return count;
    }
};

std::string value_line(const std::string& text) {
    return "* " + text + std::string(83 - text.size(), ' ') + "*";
}

TEST_F(StatisticsE2eTest, ReportAppearsOnceAtStartWithThePortInItsTitle) {
    ChildProcess& process = start_recorder();
    // How many reports there are by now depends on how long the start took; the window below
    // does not.
    ASSERT_TRUE(poll_until([&] { return !reports(process).empty(); }, TIMEOUT))
        << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const std::vector<std::vector<std::string>> all = reports(process);
    ASSERT_GE(all.size(), 1u);
    const std::vector<LogLine> lines = log_lines(process);
    // At start: the report is the first thing the thread logs after its start line.
    const std::vector<std::string> own = texts(lines, "SYSTEM", "statistic_service.cpp");
    ASSERT_GE(own.size(), 2u);
    EXPECT_EQ(own[0].find("STATISTIC_SERVICE: thread ["), 0u) << own[0];
    EXPECT_NE(own[1].find(title()), std::string::npos) << own[1];
    // Once: no other report within a period of the first, however long the stop took.
    EXPECT_EQ(reports_within(lines, REPORT_PERIOD), 1u) << process.standard_error();
    const std::string header = all.front().front();
    EXPECT_NE(header.find(" | SYSTEM  | statistic_service.cpp:"), std::string::npos) << header;
    EXPECT_EQ(header.substr(header.find(" | *") + 3),
              std::string(27, '*') + title() + std::string(27 + (port >= 10000 ? 0 : 1), '*'));
    EXPECT_EQ(all.front().back(), std::string(86, '*'));
    for (std::size_t i = 1; i < all.front().size(); ++i) {
        EXPECT_EQ(all.front()[i].size(), 86u) << all.front()[i];
    }
}

// One leg: a start, ten frames of 160 samples per side, a terminate. 20 x 320 payload bytes were
// received and buffered; the file holds 48 + 20 x 332 bytes.
TEST_F(StatisticsE2eTest, NextReportShowsTheCallsExactCounts) {
    ChildProcess& process = start_recorder();
    send(encode_start());
    for (std::uint32_t seq = 1; seq <= 10; ++seq) {
        for (std::uint16_t side = 0; side < 2; ++side) {
            DataFields data;
            data.header.flags = side;
            data.seq = seq;
            data.off = (seq - 1) * 160;
            data.header.mt = 1000 + 20 * seq;
            data.payload.assign(160, static_cast<std::uint16_t>(seq));
            send(encode_data(data));
        }
    }
    send(encode_terminate());
    const std::string written =
        value_line("written bytes number.......................: 6688 (6.53KiB)");
    ASSERT_TRUE(poll_until(
        [&] {
            const auto all = reports(process);
            return !all.empty() && all.back()[19] == written;
        },
        15s))
        << process.standard_error();
    const std::vector<std::string> report = reports(process).back();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const std::vector<std::string> expected_body = {
        value_line(" "),
        value_line("session number.............................: 0"),
        value_line("session number (zombie)....................: 0"),
        value_line("session audit executions number............: 0"),
        value_line("session allocation errors number...........: 0"),
        value_line("session existing index errors number.......: 0"),
        value_line("session unknown index errors number........: 0"),
        value_line("session sequence break errors number.......: 0"),
        value_line("session lost packets number................: 0"),
        value_line("session media received bytes number........: 6400 (6.25KiB)"),
        value_line("session media buffered bytes number........: 6400 (6.25KiB)"),
        value_line("session media dropped  bytes number........: 0"),
        value_line(" "),
        std::string(34, '*') + " writer statistic " + std::string(34, '*'),
        value_line(" "),
        value_line("buffer queue elements number...............: 0"),
        value_line("buffer queue passed elements number........: 1"),
        value_line("buffer queue dropped elements number.......: 0"),
        written,
        value_line("written lost bytes number..................: 0"),
        value_line("buffer pool elements number................: 4000"),
        value_line("buffer pool acquire errors number..........: 0"),
        value_line("buffer pool release errors number..........: 0"),
        value_line("buffer null sessions errors number.........: 0"),
        value_line("directory check or create errors number....: 0"),
        value_line("file open errors number....................: 0"),
        value_line("file write errors number...................: 0"),
        value_line(" "),
        std::string(33, '*') + " packets statistic " + std::string(34, '*'),
        value_line(" "),
        value_line("packet queue elements number...............: 0"),
        value_line("packet queue passed elements number........: 22"),
        value_line("packet queue dropped elements number.......: 0"),
    };
    ASSERT_EQ(report.size(), REPORT_BODY_LINES + 1);
    for (std::size_t i = 0; i < expected_body.size(); ++i) {
        EXPECT_EQ(report[i + 1], expected_body[i]) << i;
    }
    const std::vector<std::string> expected_types = {
        value_line("packet 'start' type number.................: 1"),
        value_line("packet 'term'  type number.................: 1"),
        value_line("packet 'data'  type number.................: 20"),
        value_line("packet 'ctrl'  type number.................: 0"),
    };
    for (std::size_t i = 0; i < expected_types.size(); ++i) {
        EXPECT_EQ(report[42 + i], expected_types[i]) << i;
    }
}

TEST_F(StatisticsE2eTest, WithStatisticLoggingDisabledNoReportIsWritten) {
    ChildProcess& process = start_recorder("statistic_logging_enabled = false\n");
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_TRUE(reports(process).empty());
    EXPECT_EQ(texts(log_lines(process), "SYSTEM", "statistic_service.cpp").size(), 2u)
        << "the thread's start and stop lines";
}

}  // namespace
}  // namespace qm::test
