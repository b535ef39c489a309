#pragma once

// A network namespace of the test's own: a fresh loopback (brought up) and its own UDP counters
// in /proc/net/snmp and /proc/net/udp, so that a test can assert that a host-wide count did not
// grow without other suites running beside it counting into it. Every process the test starts
// afterwards inherits it. Needs CAP_SYS_ADMIN.
//
// Threads: entered and left by the thread that runs the test (the main thread, before the test
// starts threads of its own: the namespace is the calling thread's).

namespace qm::test {

class NetworkNamespace {
public:
    NetworkNamespace() = default;
    // Goes back to the namespace the thread was in.
    ~NetworkNamespace();

    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    // Moves the calling thread into a new network namespace and brings its loopback up; false
    // when either failed (the destructor still goes back to the namespace left, if any).
    [[nodiscard]] bool enter();

private:
    // The namespace to go back to; -1 while none was left.
    int m_previous = -1;
};

}  // namespace qm::test
