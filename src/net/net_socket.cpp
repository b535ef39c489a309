#include "net/net_socket.hpp"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "log/logger.hpp"
#include "net/system_error.hpp"

namespace qm::net {
namespace {

constexpr int UDP_PROTOCOL = 17;
// The discard service: get_host_ip only connects to it to learn the route, it never sends.
constexpr std::uint16_t DISCARD_PORT = 9;
constexpr std::size_t HOST_NAME_BUFFER_SIZE = 65;

sockaddr_in make_ipv4_address(std::uint16_t port, std::uint32_t address) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = htonl(address);
    return result;
}

// Closes a descriptor that only lives inside one function.
class ScopedDescriptor {
public:
    explicit ScopedDescriptor(int fd) : m_fd(fd) {}
    ~ScopedDescriptor() {
        if (m_fd != -1) {
            ::close(m_fd);
        }
    }
    ScopedDescriptor(const ScopedDescriptor&) = delete;
    ScopedDescriptor& operator=(const ScopedDescriptor&) = delete;

    int get() const { return m_fd; }

private:
    int m_fd;
};

}  // namespace

Socket::~Socket() {
    close();
}

bool Socket::open(std::int32_t port, std::uint32_t address) {
    if (m_fd != -1) {
        return true;
    }
    m_fd = ::socket(AF_INET, SOCK_DGRAM, UDP_PROTOCOL);
    if (m_fd == -1) {
        const SystemError error{errno};
        QM_LOG_ERROR("SOCKET[ ]: failed to create a socket, " << error);
        return false;
    }
    const sockaddr_in local = make_ipv4_address(static_cast<std::uint16_t>(port), address);
    if (::bind(m_fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
        const SystemError error{errno};
        QM_LOG_ERROR("SOCKET[" << m_fd << "]: failed to bind a socket, " << error);
        return false;
    }
    return true;
}

std::uint64_t Socket::set_receive_buffer(std::uint64_t requested) {
    if (m_fd == -1) {
        return 0;
    }
    if (requested == 0) {
        return receive_buffer();
    }
    const int bytes = static_cast<int>(requested);
    if (::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) != 0) {
        const SystemError error{errno};
        QM_LOG_ERROR("SOCKET[" << m_fd << "]: failed to set the receive buffer, " << error);
    }
    // The system doubles a request to cover its own bookkeeping and reports the doubled figure;
    // the grant is given in the request's terms.
    std::uint64_t granted = receive_buffer() / 2;
    // Beyond net.core.rmem_max only with CAP_NET_ADMIN; without it the call fails and the
    // smaller grant stands.
    if (granted < requested &&
        ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0) {
        granted = receive_buffer() / 2;
    }
    if (granted < requested) {
        QM_LOG_WARNING("SOCKET[" << m_fd << "]: receive buffer: " << granted << " bytes of "
                                 << requested << " requested; raise net.core.rmem_max to grant it");
    } else {
        QM_LOG_SYSTEM("SOCKET[" << m_fd << "]: receive buffer: " << granted << " bytes");
    }
    return granted;
}

std::uint64_t Socket::receive_buffer() const {
    int reported = 0;
    socklen_t size = sizeof reported;
    if (::getsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &reported, &size) != 0) {
        return 0;
    }
    return static_cast<std::uint64_t>(reported);
}

std::optional<std::uint32_t> kernel_drops(int fd) {
    std::uint32_t memory[SK_MEMINFO_VARS] = {};
    socklen_t size = sizeof memory;
    if (fd < 0 || ::getsockopt(fd, SOL_SOCKET, SO_MEMINFO, memory, &size) != 0 ||
        size <= SK_MEMINFO_DROPS * sizeof memory[0]) {
        return std::nullopt;
    }
    return memory[SK_MEMINFO_DROPS];
}

std::int64_t Socket::read(void* buffer, std::uint64_t capacity) {
    const ssize_t length = ::recv(m_fd, buffer, capacity, MSG_NOSIGNAL);
    if (length >= 0) {
        return length;
    }
    if (errno == EINTR) {
        log_interrupted();
        return 0;
    }
    fail_read(errno);
}

std::size_t Socket::read_batch(ReceiveBatch& batch) {
    return receive_batch(batch, 0);
}

std::size_t Socket::drain(ReceiveBatch& batch) {
    // MSG_TRUNC: the lengths are the datagrams' own, not the empty slots'.
    return receive_batch(batch, MSG_TRUNC);
}

std::size_t Socket::receive_batch(ReceiveBatch& batch, int flags) {
    const int count = ::recvmmsg(m_fd, batch.headers(), static_cast<unsigned>(batch.capacity()),
                                 MSG_DONTWAIT | flags, nullptr);
    if (count >= 0) {
        return static_cast<std::size_t>(count);
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return 0;
    }
    if (errno == EINTR) {
        log_interrupted();
        return 0;
    }
    fail_read(errno);
}

bool Socket::pause(int doorbell, std::uint64_t microseconds) {
    pollfd watched = {doorbell, POLLIN, 0};
    const timespec timeout = {static_cast<time_t>(microseconds / 1000000),
                              static_cast<long>(microseconds % 1000000 * 1000)};
    return ::ppoll(&watched, doorbell >= 0 ? 1 : 0, &timeout, nullptr) != 0;
}

void Socket::fail_read(int error_code) {
    const SystemError error{error_code};
    QM_LOG_ERROR("SOCKET[" << m_fd << "]: failed to read a data, " << error);
    close();
    // _Exit rather than exit: the packet reader's thread is still running, and static
    // destructors (the packet-buffer pool among them) must not be torn down underneath it.
    std::_Exit(-1);
}

Socket::Wake wait_readable(int fd, int doorbell, int& error, int timeout_ms) {
    error = 0;
    pollfd watched[] = {{fd, POLLIN, 0}, {doorbell, POLLIN, 0}};
    const nfds_t count = doorbell >= 0 ? 2 : 1;
    const int ready = ::poll(watched, count, timeout_ms);
    if (ready == 0) {
        return Socket::Wake::DATAGRAM;
    }
    if (ready < 0) {
        if (errno == EINTR) {
            return Socket::Wake::DOORBELL;
        }
        error = errno;
        return Socket::Wake::DATAGRAM;
    }
    // Any event on the descriptor, an error included, is for the read to take.
    return watched[0].revents != 0 ? Socket::Wake::DATAGRAM : Socket::Wake::DOORBELL;
}

Socket::Wake Socket::wait(int doorbell) {
    int failure = 0;
    const Wake wake = wait_readable(m_fd, doorbell, failure);
    if (failure != 0) {
        const SystemError error{failure};
        QM_LOG_ERROR("SOCKET[" << m_fd << "]: failed to wait for a data, " << error);
    }
    return wake;
}

void Socket::log_interrupted() const {
    QM_LOG_INFO("SOCKET[" << m_fd << "]: system interrupted call");
}

std::int64_t Socket::read(ReadBuffer& buffer) {
    const std::int64_t length = read(buffer.data, sizeof(buffer.data));
    buffer.length = static_cast<std::uint64_t>(length);
    return length;
}

std::int64_t Socket::read_from(ReadBuffer& buffer) {
    socklen_t source_length = sizeof(buffer.source);
    const ssize_t length = ::recvfrom(m_fd, buffer.data, sizeof(buffer.data), MSG_NOSIGNAL,
                                      reinterpret_cast<sockaddr*>(&buffer.source), &source_length);
    if (length >= 0) {
        buffer.length = static_cast<std::uint64_t>(length);
        return length;
    }
    if (errno == EINTR) {
        log_interrupted();
        return -1;
    }
    fail_read(errno);
}

bool Socket::send(const sockaddr_in& to, const void* data, std::uint64_t length) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    std::uint64_t sent = 0;
    while (sent < length) {
        const ssize_t count = ::sendto(m_fd, bytes + sent, length - sent, 0,
                                       reinterpret_cast<const sockaddr*>(&to), sizeof(to));
        if (count < 0) {
            const SystemError error{errno};
            QM_LOG_ERROR("SOCKET[" << m_fd << "]: failed to send a data (" << length << ": "
                                   << reinterpret_cast<std::uintptr_t>(data) << "), " << error);
            return false;
        }
        sent += static_cast<std::uint64_t>(count);
    }
    return true;
}

void Socket::close() {
    if (m_fd == -1) {
        return;
    }
    ::shutdown(m_fd, SHUT_RDWR);
    ::close(m_fd);
    m_fd = -1;
}

std::uint16_t Socket::local_port() const {
    sockaddr_in local{};
    socklen_t length = sizeof local;
    if (::getsockname(m_fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        return 0;
    }
    return ntohs(local.sin_port);
}

std::string get_host_name() {
    char name[HOST_NAME_BUFFER_SIZE] = {};
    // The whole buffer: a name of 64 characters needs all 65 bytes with its terminating zero.
    if (::gethostname(name, sizeof(name)) != 0) {
        return {};
    }
    return name;
}

std::string get_host_ip(std::uint32_t address, const std::string& fallback) {
    if (address == 0 || address == 0xFFFFFFFF) {
        return fallback;
    }
    const ScopedDescriptor probe(::socket(AF_INET, SOCK_DGRAM, UDP_PROTOCOL));
    if (probe.get() == -1) {
        return fallback;
    }
    // Connecting a datagram socket only picks the route and the local address.
    const sockaddr_in remote = make_ipv4_address(DISCARD_PORT, address);
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&remote), sizeof(remote)) != 0) {
        return fallback;
    }
    sockaddr_in local{};
    socklen_t local_length = sizeof(local);
    if (::getsockname(probe.get(), reinterpret_cast<sockaddr*>(&local), &local_length) != 0) {
        return fallback;
    }
    return ::inet_ntoa(local.sin_addr);
}

}  // namespace qm::net
