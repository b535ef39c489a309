#include "net/net_socket.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "log/logger.hpp"
#include "log/stdlog.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "udp_loopback.hpp"

namespace qm::net {
namespace {

using test::free_udp_port;

constexpr std::uint32_t LOOPBACK = INADDR_LOOPBACK;

sockaddr_in loopback_address(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(LOOPBACK);
    return address;
}

// Bytes that differ from position to position, so that a shifted or cut copy does not compare
// equal.
std::vector<std::uint8_t> pattern(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((i * 31 + 7) % 251);
    }
    return bytes;
}

std::string fd_prefix(const Socket& socket) {
    return "SOCKET[" + std::to_string(socket.fd()) + "]: ";
}

// A receiving socket on a free loopback port and a sender bound to an ephemeral port.
class LoopbackTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_port = free_udp_port();
        ASSERT_TRUE(m_receiver.open(m_port, LOOPBACK));
        ASSERT_TRUE(m_sender.open(0, LOOPBACK));
    }

    void send(const std::vector<std::uint8_t>& bytes) {
        ASSERT_TRUE(m_sender.send(loopback_address(m_port), bytes.data(), bytes.size()));
    }

    std::uint16_t m_port = 0;
    Socket m_receiver;
    Socket m_sender;
};

TEST_F(LoopbackTest, OpenTwiceReturnsTrueAndKeepsTheDescriptor) {
    const std::int32_t fd = m_receiver.fd();
    EXPECT_NE(fd, -1);
    EXPECT_TRUE(m_receiver.open(free_udp_port(), 0));
    EXPECT_EQ(m_receiver.fd(), fd);

    // Still bound where it was: a datagram to the first port arrives.
    const std::vector<std::uint8_t> sent = pattern(40);
    send(sent);
    std::vector<std::uint8_t> received(Socket::READ_BUFFER_CAPACITY);
    ASSERT_EQ(m_receiver.read(received.data(), received.size()), 40);
    received.resize(40);
    EXPECT_EQ(received, sent);
}

TEST_F(LoopbackTest, DatagramsComeBackWhole) {
    for (const std::size_t size : {std::size_t{40}, std::size_t{1376}, std::size_t{65507}}) {
        SCOPED_TRACE(size);
        const std::vector<std::uint8_t> sent = pattern(size);
        send(sent);
        std::vector<std::uint8_t> received(Socket::READ_BUFFER_CAPACITY);
        ASSERT_EQ(m_receiver.read(received.data(), received.size()),
                  static_cast<std::int64_t>(size));
        received.resize(size);
        EXPECT_EQ(received, sent);
    }
}

TEST_F(LoopbackTest, LocalPortIsTheBoundOne) {
    EXPECT_EQ(m_receiver.local_port(), m_port);
}

// A socket that only holds its port: the drain takes what waits, payloads unread, and tells each
// datagram's length and sender.
TEST_F(LoopbackTest, DrainTakesTheWaitingDatagramsWithTheirLengthsAndSenders) {
    send({1, 2, 3});
    send(pattern(1376));
    ReceiveBatch drained(4, 0);
    ReceiveBatch batch(4);

    ASSERT_EQ(m_receiver.drain(drained), 2u);
    EXPECT_EQ(drained.length(0), 3u);
    EXPECT_EQ(drained.length(1), 1376u);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(ntohl(drained.source(i).sin_addr.s_addr), INADDR_LOOPBACK);
        EXPECT_EQ(ntohs(drained.source(i).sin_port), m_sender.local_port());
    }
    EXPECT_EQ(m_receiver.read_batch(batch), 0u);
    EXPECT_EQ(m_receiver.drain(drained), 0u);
    EXPECT_EQ(kernel_drops(m_receiver.fd()), 0u);
}

TEST_F(LoopbackTest, LongerDatagramIsCutToTheCapacity) {
    const std::vector<std::uint8_t> sent = pattern(2000);
    send(sent);
    std::vector<std::uint8_t> received(1376 + 16, 0xEE);
    ASSERT_EQ(m_receiver.read(received.data(), 1376), 1376);
    EXPECT_TRUE(std::equal(sent.begin(), sent.begin() + 1376, received.begin()));
    // Nothing written past the capacity.
    EXPECT_EQ(std::vector<std::uint8_t>(received.begin() + 1376, received.end()),
              std::vector<std::uint8_t>(16, 0xEE));
}

TEST_F(LoopbackTest, ReadIntoTheReceiveBufferStoresTheLength) {
    const auto buffer = std::make_unique<Socket::ReadBuffer>();
    EXPECT_EQ(buffer->length, 0u);
    const std::vector<std::uint8_t> sent = pattern(1376);
    send(sent);
    ASSERT_EQ(m_receiver.read(*buffer), 1376);
    EXPECT_EQ(buffer->length, 1376u);
    EXPECT_TRUE(std::equal(sent.begin(), sent.end(), buffer->data));
}

// Written by the signal handler; relaxed: it only reports how many signals arrived.
std::atomic<int> g_interrupting_signals{0};

void count_signal(int) {
    g_interrupting_signals.fetch_add(1, std::memory_order_relaxed);
}

// Installs a SIGUSR1 handler without SA_RESTART, as the service does, for the test's lifetime.
class InterruptingHandler {
public:
    InterruptingHandler() {
        struct sigaction action {};
        action.sa_handler = &count_signal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        EXPECT_EQ(::sigaction(SIGUSR1, &action, &m_saved), 0);
    }
    ~InterruptingHandler() { ::sigaction(SIGUSR1, &m_saved, nullptr); }

private:
    struct sigaction m_saved {};
};

TEST_F(LoopbackTest, SignalInterruptsABlockedReadWhichReturnsZero) {
    test::LogCapture capture;
    const InterruptingHandler handler;
    // Release by the reader, acquire by the test: publishes `result` before the join does.
    std::atomic<bool> done{false};
    std::int64_t result = -1;
    std::thread reader([&] {
        std::vector<std::uint8_t> buffer(Socket::READ_BUFFER_CAPACITY);
        result = m_receiver.read(buffer.data(), buffer.size());
        done.store(true, std::memory_order_release);
    });

    // A signal that lands before the thread reaches recv is only counted; keep signalling until
    // one finds it blocked.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done.load(std::memory_order_acquire) && std::chrono::steady_clock::now() < deadline) {
        ::pthread_kill(reader.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!done.load(std::memory_order_acquire)) {
        send(pattern(40));  // release the reader so that the failure is reported, not a hang
    }
    reader.join();

    EXPECT_EQ(result, 0);
    EXPECT_GE(g_interrupting_signals.load(std::memory_order_relaxed), 1);
    EXPECT_THAT(capture.texts(),
                ::testing::ElementsAre(fd_prefix(m_receiver) + "system interrupted call"));
    EXPECT_THAT(capture.lines(),
                ::testing::ElementsAre(::testing::StartsWith("INFO    | net_socket.cpp:")));
}

// An eventfd standing in for the service's signal doorbell.
class Doorbell {
public:
    Doorbell() : m_fd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~Doorbell() { ::close(m_fd); }
    Doorbell(const Doorbell&) = delete;
    Doorbell& operator=(const Doorbell&) = delete;

    void ring() const {
        const std::uint64_t one = 1;
        EXPECT_EQ(::write(m_fd, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    }
    int fd() const { return m_fd; }

private:
    int m_fd;
};

TEST_F(LoopbackTest, WaitReportsAWaitingDatagramAndReadTakesIt) {
    test::LogCapture capture;
    const Doorbell doorbell;
    const std::vector<std::uint8_t> sent = pattern(40);
    send(sent);

    EXPECT_EQ(m_receiver.wait(doorbell.fd()), Socket::Wake::DATAGRAM);
    EXPECT_EQ(m_receiver.wait(-1), Socket::Wake::DATAGRAM);  // waiting does not take it
    std::vector<std::uint8_t> received(Socket::READ_BUFFER_CAPACITY);
    ASSERT_EQ(m_receiver.read(received.data(), received.size()), 40);
    received.resize(40);
    EXPECT_EQ(received, sent);
    EXPECT_TRUE(capture.texts().empty());
}

// A doorbell rung before the wait begins ends it at once: a stop that lands between the loop's
// look at its flag and its wait is not left waiting for a datagram.
TEST_F(LoopbackTest, WaitEndsAtOnceWhenTheDoorbellWasRungBefore) {
    test::LogCapture capture;
    const Doorbell doorbell;
    doorbell.ring();

    EXPECT_EQ(m_receiver.wait(doorbell.fd()), Socket::Wake::DOORBELL);
    EXPECT_TRUE(capture.texts().empty());
}

TEST_F(LoopbackTest, DatagramWinsWhenTheDoorbellRangToo) {
    const Doorbell doorbell;
    doorbell.ring();
    send(pattern(40));
    ASSERT_TRUE(test::poll_until([&] { return m_receiver.wait(-1) == Socket::Wake::DATAGRAM; },
                                 std::chrono::milliseconds(5000)));

    EXPECT_EQ(m_receiver.wait(doorbell.fd()), Socket::Wake::DATAGRAM);
}

TEST_F(LoopbackTest, SignalInterruptsABlockedWait) {
    test::LogCapture capture;
    const InterruptingHandler handler;
    const Doorbell doorbell;
    // Release by the waiter, acquire by the test: publishes `wake` before the join does.
    std::atomic<bool> done{false};
    Socket::Wake wake = Socket::Wake::DATAGRAM;
    std::thread waiter([&] {
        wake = m_receiver.wait(doorbell.fd());
        done.store(true, std::memory_order_release);
    });

    const bool interrupted = test::poll_until(
        [&] {
            ::pthread_kill(waiter.native_handle(), SIGUSR1);
            return done.load(std::memory_order_acquire);
        },
        std::chrono::milliseconds(10000), std::chrono::milliseconds(20));
    if (!interrupted) {
        send(pattern(40));  // release the waiter so that the failure is reported, not a hang
    }
    waiter.join();

    EXPECT_TRUE(interrupted);
    EXPECT_EQ(wake, Socket::Wake::DOORBELL);
    EXPECT_TRUE(capture.texts().empty());
}

TEST_F(LoopbackTest, InterruptionIsLoggedAtInfo) {
    test::LogCapture capture;

    m_receiver.log_interrupted();

    EXPECT_THAT(capture.lines(),
                ::testing::ElementsAre(::testing::StartsWith("INFO    | net_socket.cpp:")));
    EXPECT_THAT(capture.texts(),
                ::testing::ElementsAre(fd_prefix(m_receiver) + "system interrupted call"));
}

// A number the system keeps in /proc/sys.
std::uint64_t sysctl_value(const std::string& name) {
    std::ifstream in("/proc/sys/" + name);
    std::uint64_t value = 0;
    in >> value;
    return value;
}

TEST_F(LoopbackTest, RequestedReceiveBufferIsGrantedAndLoggedAtSystem) {
    test::LogCapture capture;

    // Below the smallest `net.core.rmem_max` of a stock system, so no privilege is involved.
    const std::uint64_t granted = m_receiver.set_receive_buffer(100000);

    EXPECT_EQ(granted, 100000u);
    EXPECT_THAT(capture.lines(),
                ::testing::ElementsAre(::testing::StartsWith("SYSTEM  | net_socket.cpp:")));
    EXPECT_THAT(capture.texts(),
                ::testing::ElementsAre(fd_prefix(m_receiver) + "receive buffer: 100000 bytes"));
}

TEST_F(LoopbackTest, DefaultReceiveBufferIsKeptSilently) {
    test::LogCapture capture;

    const std::uint64_t granted = m_receiver.set_receive_buffer(0);

    EXPECT_EQ(granted, sysctl_value("net/core/rmem_default"));
    EXPECT_TRUE(capture.lines().empty());
}

TEST(SocketTest, ReceiveBufferOfAClosedSocketIsNone) {
    test::LogCapture capture;
    Socket socket;

    EXPECT_EQ(socket.set_receive_buffer(65536), 0u);
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(LoopbackTest, KernelDropsCountTheDatagramsAFullBufferTurnedAway) {
    m_receiver.set_receive_buffer(4096);
    constexpr int SENT = 200;
    const std::vector<std::uint8_t> datagram = pattern(1000);
    for (int i = 0; i < SENT; ++i) {
        send(datagram);
    }
    // Loopback delivers within sendto: every datagram is queued or dropped by now.
    int queued = 0;
    std::uint8_t buffer[2000];
    while (::recv(m_receiver.fd(), buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
        ++queued;
    }

    ASSERT_GT(queued, 0);
    ASSERT_LT(queued, SENT);
    EXPECT_EQ(kernel_drops(m_receiver.fd()), std::optional<std::uint32_t>(SENT - queued));
}

TEST_F(LoopbackTest, BatchReadTakesWhatWaitsUpToItsCapacityWithoutBlocking) {
    std::vector<std::vector<std::uint8_t>> sent;
    for (std::size_t size : {1u, 40u, 1376u, 65507u, 7u}) {
        sent.push_back(pattern(size));
        send(sent.back());
    }
    ReceiveBatch batch(3);

    ASSERT_EQ(m_receiver.read_batch(batch), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(std::vector<std::uint8_t>(batch.data(i), batch.data(i) + batch.length(i)),
                  sent[i]);
    }
    ASSERT_EQ(m_receiver.read_batch(batch), 2u);
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(std::vector<std::uint8_t>(batch.data(i), batch.data(i) + batch.length(i)),
                  sent[3 + i]);
    }
    EXPECT_EQ(m_receiver.read_batch(batch), 0u);
}

TEST_F(LoopbackTest, PauseEndsAtOnceForTheDoorbellAndOtherwiseSleeps) {
    const int doorbell = ::eventfd(0, EFD_NONBLOCK);
    ASSERT_GE(doorbell, 0);

    EXPECT_FALSE(m_receiver.pause(doorbell, 2000));
    const std::uint64_t ring = 1;
    ASSERT_EQ(::write(doorbell, &ring, sizeof ring), static_cast<ssize_t>(sizeof ring));
    const auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(m_receiver.pause(doorbell, 60000000));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
    ::close(doorbell);
}

TEST(SocketTest, KernelDropsOfNoSocketAreNone) {
    EXPECT_EQ(kernel_drops(-1), std::nullopt);
    const int file = ::open("/dev/null", O_RDONLY);
    EXPECT_EQ(kernel_drops(file), std::nullopt);
    ::close(file);
}

TEST(AccumulateWrappingTest, AddsWhatTheCountGainedSinceTheLastReading) {
    EXPECT_EQ(accumulate_wrapping(0, 0, 0), 0u);
    EXPECT_EQ(accumulate_wrapping(0, 0, 5), 5u);
    EXPECT_EQ(accumulate_wrapping(5, 5, 5), 5u);
    EXPECT_EQ(accumulate_wrapping(5, 5, 12), 12u);
    EXPECT_EQ(accumulate_wrapping(0, 0, 0xFFFFFFFF), 0xFFFFFFFFu);
}

// The system's count wraps at 2^32; the total goes on past it and never decreases.
TEST(AccumulateWrappingTest, ReadingThatWrappedAddsTheDistanceModulo2To32) {
    EXPECT_EQ(accumulate_wrapping(0xFFFFFFF0, 0xFFFFFFF0, 0x10), 0x100000010u);
    EXPECT_EQ(accumulate_wrapping(7, 0xFFFFFFF0, 0x10), 7u + 0x20u);
    EXPECT_EQ(accumulate_wrapping(0x500000000, 0xFFFFFFFF, 0), 0x500000001u);
    // Two wraps in a row, each by less than 2^32.
    std::uint64_t total = 0;
    std::uint32_t previous = 0;
    for (const std::uint32_t reading : {0x80000000u, 0xFFFFFFFFu, 0x7FFFFFFFu, 0x10u}) {
        total = accumulate_wrapping(total, previous, reading);
        previous = reading;
    }
    EXPECT_EQ(total, 0x200000010u);
}

TEST(SocketTest, BindToAPortInUseFailsButKeepsTheDescriptor) {
    const std::uint16_t port = free_udp_port();
    Socket first;
    ASSERT_TRUE(first.open(port, 0));

    test::LogCapture capture;
    Socket second;
    EXPECT_FALSE(second.open(port, 0));
    EXPECT_NE(second.fd(), -1);
    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ::testing::ElementsAre(fd_prefix(second) +
                                       "failed to bind a socket, error (98): Address already in "
                                       "use"));
    EXPECT_THAT(capture.lines(),
                ::testing::ElementsAre(::testing::StartsWith("ERROR   | net_socket.cpp:")));

    // The descriptor is kept, so the next open reports success without binding again.
    const std::int32_t fd = second.fd();
    capture.clear();
    EXPECT_TRUE(second.open(port, 0));
    EXPECT_EQ(second.fd(), fd);
    EXPECT_TRUE(capture.texts().empty());
}

// Lowers the soft limit of open descriptors so that the next one cannot be created.
class DescriptorsExhausted {
public:
    DescriptorsExhausted() {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_saved), 0);
        const int lowest_free = ::dup(0);
        EXPECT_NE(lowest_free, -1);
        ::close(lowest_free);
        rlimit limit = m_saved;
        limit.rlim_cur = static_cast<rlim_t>(lowest_free);
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ~DescriptorsExhausted() { ::setrlimit(RLIMIT_NOFILE, &m_saved); }

private:
    rlimit m_saved{};
};

TEST(SocketTest, SocketThatCannotBeCreatedIsReported) {
    test::LogCapture capture;
    // The sanitizer runtimes need descriptors of their own the first time they check a type;
    // walk the same logging path once (a failed bind) before none is left.
    const std::uint16_t port = free_udp_port();
    Socket holder;
    Socket socket;
    ASSERT_TRUE(holder.open(port, LOOPBACK));
    ASSERT_FALSE(socket.open(port, LOOPBACK));
    socket.close();
    capture.clear();
    {
        const DescriptorsExhausted exhausted;
        EXPECT_FALSE(socket.open(0, LOOPBACK));
    }
    EXPECT_EQ(socket.fd(), -1);
    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ::testing::ElementsAre(
                    "SOCKET[ ]: failed to create a socket, error (24): Too many open files"));
}

TEST(SocketTest, SendOnAClosedSocketFails) {
    test::LogCapture capture;
    Socket socket;
    const std::vector<std::uint8_t> data = pattern(10);
    EXPECT_FALSE(socket.send(loopback_address(9), data.data(), data.size()));
    const std::string address = std::to_string(reinterpret_cast<std::uintptr_t>(data.data()));
    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ::testing::ElementsAre("SOCKET[-1]: failed to send a data (10: " + address +
                                       "), error (9): Bad file descriptor"));
}

TEST(SocketTest, CloseTwiceIsHarmless) {
    test::LogCapture capture;
    Socket socket;
    ASSERT_TRUE(socket.open(0, LOOPBACK));
    socket.close();
    EXPECT_EQ(socket.fd(), -1);
    socket.close();
    EXPECT_EQ(socket.fd(), -1);
    EXPECT_TRUE(capture.texts().empty());
}

TEST(SocketTest, ClosedSocketCanBeOpenedAgain) {
    Socket socket;
    ASSERT_TRUE(socket.open(0, LOOPBACK));
    socket.close();
    EXPECT_TRUE(socket.open(0, LOOPBACK));
    EXPECT_NE(socket.fd(), -1);
}

TEST(SocketTest, DestructorReleasesThePort) {
    const std::uint16_t port = free_udp_port();
    {
        Socket socket;
        ASSERT_TRUE(socket.open(port, LOOPBACK));
    }
    Socket again;
    EXPECT_TRUE(again.open(port, LOOPBACK));
}

// Deleting through the base closes the descriptor: the destructor is virtual and closes.
TEST(SocketTest, DeletingThroughTheBaseClosesTheDescriptor) {
    class DerivedSocket : public Socket {};
    std::unique_ptr<Socket> socket = std::make_unique<DerivedSocket>();
    ASSERT_TRUE(socket->open(0, LOOPBACK));
    const std::int32_t fd = socket->fd();
    ASSERT_NE(::fcntl(fd, F_GETFD), -1);
    socket.reset();
    errno = 0;
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

void read_from_a_descriptor_closed_underneath() {
    log::Logger::m_instance.write = &log::Stdlog::write;
    Socket socket;
    if (!socket.open(0, LOOPBACK)) {
        std::_Exit(1);
    }
    ::close(socket.fd());
    std::uint8_t buffer[64];
    // Never returns: the failed read ends the process.
    (void)socket.read(buffer, sizeof(buffer));
}

TEST(SocketDeathTest, ReadErrorEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(read_from_a_descriptor_closed_underneath(), ::testing::ExitedWithCode(255),
                "ERROR   \\| net_socket\\.cpp:[0-9]+ \\| SOCKET\\[[0-9]+\\]: failed to read a "
                "data, error \\(9\\): Bad file descriptor");
}

TEST(HostTest, HostNameIsTheSystemHostName) {
    char expected[65] = {};
    ASSERT_EQ(::gethostname(expected, sizeof(expected)), 0);
    EXPECT_EQ(get_host_name(), std::string(expected));
    EXPECT_FALSE(get_host_name().empty());
}

// Exit statuses of the child of HostNameOfTheLongestLength.
constexpr int NAME_MATCHES = 0;
constexpr int NAME_DIFFERS = 1;
constexpr int NO_NAMESPACE = 2;

// The longest name Linux allows (64 characters), set in a UTS namespace of a child process so
// that the machine's own name is not touched.
TEST(HostTest, HostNameOfTheLongestLength) {
    const std::string name(64, 'q');
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::unshare(CLONE_NEWUTS) != 0 || ::sethostname(name.data(), name.size()) != 0) {
            ::_exit(NO_NAMESPACE);
        }
        ::_exit(get_host_name() == name ? NAME_MATCHES : NAME_DIFFERS);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == NO_NAMESPACE) {
        GTEST_SKIP() << "no privilege to set a host name in a UTS namespace";
    }
    EXPECT_EQ(WEXITSTATUS(status), NAME_MATCHES);
}

TEST(HostTest, HostIpFallsBackForAnyAndBroadcast) {
    EXPECT_EQ(get_host_ip(0, "fb"), "fb");
    EXPECT_EQ(get_host_ip(0xFFFFFFFF, "fb"), "fb");
}

TEST(HostTest, HostIpOfLoopbackIsLoopback) {
    EXPECT_EQ(get_host_ip(0x7F000001, "fb"), "127.0.0.1");
}

}  // namespace
}  // namespace qm::net
