#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qm::test {

// Receives what programs send to the system log, for tests of daemon mode on machines without a
// system logger: when /dev/log does not exist (or is a stale socket nobody reads), the listener
// binds its own datagram socket there for its lifetime and removes it afterwards. When a real
// logger owns /dev/log the listener is not `available` and receives nothing.
//
// Test processes that run in parallel take turns: the constructor blocks on an exclusive lock
// (/tmp/qm_test_dev_log.lock) that the destructor releases, so only one test at a time owns
// /dev/log. Threads: created and used by the test's thread; a reader thread of its own drains the
// socket all the time (a sender blocks once a few records are queued unread) and appends to the
// records under a mutex.
// The exclusive lock on /dev/log that test processes take turns on, held for the object's
// lifetime. Tests that let daemons log without a listener hold it too, so that their records never
// land in another test's listener.
class DevLogLock {
public:
    DevLogLock();
    ~DevLogLock();

    DevLogLock(const DevLogLock&) = delete;
    DevLogLock& operator=(const DevLogLock&) = delete;

private:
    int m_fd;
};

class SyslogListener {
public:
    SyslogListener();
    ~SyslogListener();

    SyslogListener(const SyslogListener&) = delete;
    SyslogListener& operator=(const SyslogListener&) = delete;

    bool available() const { return m_socket >= 0; }

    // Polls until a record contains `fragment`, or the timeout passes.
    bool wait_for_record(const std::string& fragment, std::chrono::milliseconds timeout);

    // Every record received so far.
    std::vector<std::string> records() const;

private:
    bool contains(const std::string& fragment) const;
    void run();

    DevLogLock m_lock;
    int m_socket = -1;
    // Set by the destructor, read by the reader thread; relaxed: it only asks the thread to end,
    // and the join orders everything else.
    std::atomic<bool> m_stopping{false};
    mutable std::mutex m_mutex;
    std::vector<std::string> m_records;
    std::thread m_reader;
};

}  // namespace qm::test
