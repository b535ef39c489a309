#pragma once

// The fixture of the end-to-end suites: it starts the real recorder binary (QM_BINARY_PATH) with
// its standard streams captured in a temporary directory, knows when the recorder is receiving,
// stops it with a signal and cuts its log lines into their columns. Every process a test starts
// is killed and reaped at the end of the test at the latest.
//
// Threads: used from the test's own thread only.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "child_process.hpp"
#include "poll.hpp"
#include "temp_directory.hpp"
#include "udp_loopback.hpp"

namespace qm::test {

inline constexpr std::chrono::milliseconds TIMEOUT{10000};

// The part of the recorder's start-up that the tests wait for: the packet reader's thread starts
// after the socket is bound and the signal handlers are installed.
inline const std::string RECEIVING = "PACKETS_READER: thread [";

// A whole standard-error line: time, level, place, text.
inline std::regex line_pattern(const std::string& level_column, const std::string& file,
                               const std::string& text_pattern) {
    return std::regex(R"(^\d{4}\.\d{2}\.\d{2} \d{2}:\d{2}:\d{2}\.\d{6} \| )" + level_column +
                      R"( \| )" + file + R"(:\d+ \| )" + text_pattern + "$");
}

// Escapes the characters that have a meaning in a regular expression.
inline std::string literal(const std::string& text) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}

// One standard-error line cut into its columns; the level without its padding, the file without
// the line number.
struct LogLine {
    // Microseconds since the local midnight of the line's day.
    std::int64_t time_us = 0;
    std::string level;
    std::string file;
    std::string text;
};

// The lines that have the logger's format, in order; other output is skipped.
inline std::vector<LogLine> log_lines(const ChildProcess& process) {
    static const std::regex columns(
        R"(^\d{4}\.\d{2}\.\d{2} (\d{2}):(\d{2}):(\d{2})\.(\d{6}) \| ([A-Z]+) +\| ([^ :]+):\d+ \| (.*)$)");
    std::vector<LogLine> lines;
    for (const std::string& line : process.error_lines()) {
        std::smatch match;
        if (std::regex_match(line, match, columns)) {
            const std::int64_t seconds =
                (std::stoll(match[1]) * 60 + std::stoll(match[2])) * 60 + std::stoll(match[3]);
            lines.push_back(
                {seconds * 1000000 + std::stoll(match[4]), match[5], match[6], match[7]});
        }
    }
    return lines;
}

// The texts of the lines of one level from one source file, in order.
inline std::vector<std::string> texts(const std::vector<LogLine>& lines, const std::string& level,
                                      const std::string& file) {
    std::vector<std::string> selected;
    for (const LogLine& line : lines) {
        if (line.level == level && line.file == file) {
            selected.push_back(line.text);
        }
    }
    return selected;
}

// The index of the first line whose text is exactly `text`, or -1.
inline long text_index(const std::vector<LogLine>& lines, const std::string& text) {
    const auto found = std::find_if(lines.begin(), lines.end(),
                                    [&](const LogLine& line) { return line.text == text; });
    return found == lines.end() ? -1 : found - lines.begin();
}

// The index of the first standard-error line that contains `fragment`, or -1.
inline long line_index(const std::vector<std::string>& lines, const std::string& fragment) {
    const auto found = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(fragment) != std::string::npos;
    });
    return found == lines.end() ? -1 : found - lines.begin();
}

inline bool has_line(const std::vector<std::string>& lines, const std::regex& pattern) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return std::regex_match(line, pattern); });
}

// The stop lines, each once and in this order, with the main thread's id (the process id) in the
// packet reader's line: the reader is stopped from the main thread.
inline void expect_orderly_stop(const ChildProcess& process, int signal) {
    const std::vector<LogLine> lines = log_lines(process);
    const std::string pid = std::to_string(process.pid());
    const std::vector<std::string> in_order = {
        "SERVICE: signal " + std::to_string(signal) + " has been received",
        "SERVICE: application stop has been requested",
        "PACKETS_READER: thread [" + pid + "] stopped",
        "SERVICE: [quillmarwriter] main thread [" + pid + "] stopped",
    };
    long previous = -1;
    for (const std::string& text : in_order) {
        const long index = text_index(lines, text);
        EXPECT_GT(index, previous) << text << "\n" << process.standard_error();
        previous = index;
    }
    EXPECT_EQ(lines.back().text, in_order.back());
}

// The receive queue of one UDP socket as the kernel reports it in /proc/net/udp.
struct UdpQueue {
    std::uint64_t queued_bytes = 0;
    // Datagrams discarded because the receive buffer was full.
    std::uint64_t drops = 0;
};

// The queue of the socket bound to `port` on any address; nothing when there is none.
inline std::optional<UdpQueue> udp_queue(std::uint16_t port) {
    std::ifstream table("/proc/net/udp");
    std::string line;
    std::getline(table, line);  // the column titles
    while (std::getline(table, line)) {
        // "sl local_address rem_address st tx_queue:rx_queue ... drops", numbers in hexadecimal
        // except the drops.
        std::istringstream fields(line);
        std::string slot, local, remote, state, queues, field;
        fields >> slot >> local >> remote >> state >> queues;
        const std::size_t colon = local.find(':');
        if (colon == std::string::npos || local.substr(0, colon) != "00000000" ||
            std::stoul(local.substr(colon + 1), nullptr, 16) != port) {
            continue;
        }
        UdpQueue queue;
        queue.queued_bytes = std::stoull(queues.substr(queues.find(':') + 1), nullptr, 16);
        while (fields >> field) {
            queue.drops = std::stoull(field);
        }
        return queue;
    }
    return std::nullopt;
}

// The count `name` (InErrors, RcvbufErrors, ...) of the "Udp:" lines in /proc/net/snmp, for the
// network namespace of the calling process; nothing when it is not there.
inline std::optional<std::uint64_t> udp_counter(const std::string& name) {
    std::ifstream table("/proc/net/snmp");
    std::string titles;
    std::string values;
    while (std::getline(table, titles) && std::getline(table, values)) {
        if (titles.rfind("Udp: ", 0) != 0) {
            continue;
        }
        std::istringstream title_fields(titles);
        std::istringstream value_fields(values);
        std::string title;
        std::string value;
        while (title_fields >> title && value_fields >> value) {
            if (title == name) {
                return std::stoull(value);
            }
        }
    }
    return std::nullopt;
}

// The samples of a metrics file (the recorder's `metrics_file`) by name; none when it is missing.
inline std::map<std::string, std::uint64_t> metric_samples(const std::filesystem::path& file) {
    std::map<std::string, std::uint64_t> values;
    std::istringstream lines(read_file(file));
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t blank = line.find(' ');
        if (!line.empty() && line[0] != '#' && blank != std::string::npos) {
            values[line.substr(0, blank)] = std::stoull(line.substr(blank + 1));
        }
    }
    return values;
}

// How a run of the `quillmar` tool ended, and what it printed.
struct ToolRun {
    ExitStatus status;
    std::string out;
    std::string err;
};

class RecorderE2eTest : public ::testing::Test {
protected:
    // Starts the binary with its output in a directory of its own under the test's directory.
    ChildProcess& start(std::vector<std::string> args, const std::string& working_directory = {},
                        std::vector<std::string> environment = {}) {
        return start_program(QM_BINARY_PATH, std::move(args), working_directory,
                             std::move(environment));
    }

    // Starts the `quillmar` tool with its output in a directory of its own.
    ChildProcess& start_tool(std::vector<std::string> args) {
        return start_program(QM_TOOL_PATH, std::move(args), {});
    }

    // Runs the `quillmar` tool to its end (a minute at most).
    ToolRun run_tool(std::vector<std::string> args) {
        ChildProcess& tool = start_tool(std::move(args));
        const std::optional<ExitStatus> status = tool.wait_exit(std::chrono::seconds(60));
        EXPECT_TRUE(status.has_value()) << "quillmar did not end";
        return {status.value_or(ExitStatus{}), tool.standard_output(), tool.standard_error()};
    }

    // Starts the recorder (or `binary`) as the unprivileged user nobody, for what root would be
    // allowed anyway. The test's directory is opened to that user.
    ChildProcess& start_unprivileged(std::vector<std::string> args,
                                     const std::string& binary = QM_BINARY_PATH) {
        std::filesystem::permissions(directory.path(), std::filesystem::perms::owner_all |
                                                           std::filesystem::perms::group_read |
                                                           std::filesystem::perms::group_exec |
                                                           std::filesystem::perms::others_read |
                                                           std::filesystem::perms::others_exec);
        std::vector<std::string> command = {"--reuid=nobody", "--regid=nogroup", "--clear-groups",
                                            binary};
        command.insert(command.end(), args.begin(), args.end());
        return start_program("/usr/bin/setpriv", std::move(command), {});
    }

    // Starts the recorder with a configuration file that sets `storage` (in the test's directory)
    // and `port` (free a moment ago; kept in `port`), followed by `settings` ("key = value" lines),
    // and waits until it receives.
    // `environment` holds "NAME=value" entries for the recorder's environment.
    ChildProcess& start_recorder(const std::string& settings = {},
                                 std::vector<std::string> environment = {}) {
        const std::uint16_t chosen = pick_port();
        const std::string config =
            directory.write_file("writer" + std::to_string(m_processes.size()) + ".conf",
                                 "storage = " + storage().string() +
                                     "\nport = " + std::to_string(chosen) + "\n" + settings);
        ChildProcess& process = start({"--config", config}, {}, std::move(environment));
        EXPECT_TRUE(wait_receiving(process)) << process.standard_error();
        return process;
    }

    // "--args" assignments that give the recorder its storage and a free port (kept in `port`).
    std::string storage_and_port() {
        const std::uint16_t chosen = pick_port();
        return "storage=" + storage().string() + ",port=" + std::to_string(chosen);
    }

    // A port that was free a moment ago; the recorder started next listens on it.
    std::uint16_t pick_port() {
        port = free_udp_port();
        EXPECT_NE(port, 0) << "no free UDP port";
        return port;
    }

    static bool wait_receiving(const ChildProcess& process) {
        return process.wait_for_line(RECEIVING, TIMEOUT);
    }

    static ExitStatus finish(ChildProcess& process) {
        const std::optional<ExitStatus> status = process.wait_exit(TIMEOUT);
        EXPECT_TRUE(status.has_value()) << "the process did not end";
        return status.value_or(ExitStatus{});
    }

    static ExitStatus stop(ChildProcess& process, int signal = SIGTERM) {
        EXPECT_TRUE(process.send_signal(signal));
        return finish(process);
    }

    // Waits until the recorder started last has read every datagram waiting in its socket.
    bool wait_drained() const {
        return poll_until(
            [&] {
                const std::optional<UdpQueue> queue = udp_queue(port);
                return queue && queue->queued_bytes == 0;
            },
            TIMEOUT, std::chrono::milliseconds(1));
    }

    // Sends one datagram to the last recorder started.
    void send(const std::vector<std::uint8_t>& datagram) const {
        EXPECT_TRUE(send_udp(port, datagram));
    }

    std::filesystem::path storage() const { return directory.path() / "storage"; }

    TempDirectory directory;
    std::uint16_t port = 0;

    // Starts `binary` with its output in a directory of its own under the test's directory.
    ChildProcess& start_program(const std::string& binary, std::vector<std::string> args,
                                const std::string& working_directory,
                                std::vector<std::string> environment = {}) {
        const std::filesystem::path output =
            directory.path() / ("run" + std::to_string(m_processes.size()));
        std::filesystem::create_directory(output);
        ProcessOptions options;
        options.args = std::move(args);
        options.working_directory = working_directory;
        options.environment = std::move(environment);
        m_processes.push_back(std::make_unique<ChildProcess>(binary, options, output));
        return *m_processes.back();
    }

private:
    std::vector<std::unique_ptr<ChildProcess>> m_processes;
};

}  // namespace qm::test
