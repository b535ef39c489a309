#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

// Who listened to or fetched which recording: one line per event, appended to a file,
//   2026-11-24T15:32:33.123Z user=anna address=192.0.2.7 uuid=<uuid> what=play
// The time is UTC with milliseconds. A byte that could break the line apart (a space, a control
// character, anything outside printable ASCII) is written as '?', so that one line stays one
// event whatever a client sent.
//
// Threads: `record` may be called from any thread at once; each line is written whole.

namespace qm::web {

enum class Access { PLAY, DOWNLOAD, VIEW };

class AccessLog {
public:
    using Time = std::chrono::system_clock::time_point;

    // Opens `path` for appending (created with mode 0640 when missing); null, with `error` set,
    // when it cannot be opened.
    static std::unique_ptr<AccessLog> open(const std::string& path, std::string& error);
    ~AccessLog();

    AccessLog(const AccessLog&) = delete;
    AccessLog& operator=(const AccessLog&) = delete;

    // Appends the event at `time`; false when the line could not be written whole, which is
    // counted.
    bool record(std::string_view user, std::string_view address, std::string_view uuid, Access what,
                Time time = std::chrono::system_clock::now());

    // Lines that could not be written since the log was opened.
    std::uint64_t failures() const;

    // The line for one event, with its line end.
    static std::string line(std::string_view user, std::string_view address, std::string_view uuid,
                            Access what, Time time);

private:
    explicit AccessLog(int fd);

    const int m_fd;
    mutable std::mutex m_mutex;
    std::uint64_t m_failures = 0;
};

}  // namespace qm::web
