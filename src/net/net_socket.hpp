#pragma once

// The recorder's UDP endpoint: one IPv4 datagram socket that the service's main loop reads one
// datagram at a time, and that can also send. The socket owns its descriptor and closes it in
// its destructor.
//
// Threads: a socket is created, used and destroyed by one thread at a time (the receiving socket
// by the main thread only), so its descriptor is a plain field. The receive loop first `wait`s for
// a datagram or for the service's signal doorbell, then `read`s the datagram with one recv. A
// signal delivered to that thread while it blocks interrupts the call (the service installs its
// handlers without SA_RESTART): `wait` then reports the doorbell, `read` returns 0, and the caller
// looks at its stop flag.
//
// Failures are logged and reported by the results, except a read error other than an
// interruption, which ends the process with exit(-1): the recorder cannot go on without its only
// receiving endpoint.

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "net/receive_batch.hpp"

namespace qm::net {

class Socket {
public:
    // Largest datagram the receive loop reads at once (any UDP payload fits).
    static constexpr std::size_t READ_BUFFER_CAPACITY = 65536;

    // The receive loop's buffer: the bytes of the last datagram, their count and, after
    // `read_from`, the sender. Allocated once by the loop's owner and value-initialised (all zero)
    // before the first read.
    struct ReadBuffer {
        std::uint8_t data[READ_BUFFER_CAPACITY];
        std::uint64_t length;
        sockaddr_in source;
    };

    Socket() = default;
    virtual ~Socket();

    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // Creates a UDP socket and binds it to `port` and `address`, both in host order (address 0
    // binds every interface, port 0 an ephemeral port). Returns true at once, without binding,
    // when a descriptor is already held; a failed bind keeps its descriptor, so the next call
    // returns true.
    [[nodiscard]] bool open(std::int32_t port, std::uint32_t address);

    // Asks for a receive buffer of `requested` bytes and returns the size granted, or keeps the
    // system's default (`net.core.rmem_default`) for 0 and returns that. The system doubles
    // every request for its own bookkeeping; the grant is given in the request's terms, halved.
    // A request above `net.core.rmem_max` is forced when the process has CAP_NET_ADMIN. Logs a
    // request's grant at SYSTEM, or at WARNING when it falls short; the default logs nothing.
    // 0 when no descriptor is held or the size cannot be read.
    std::uint64_t set_receive_buffer(std::uint64_t requested);

    // What ended a `wait`.
    enum class Wake { DATAGRAM, DOORBELL };

    // Blocks until a datagram (or a pending socket error) waits to be read, so that the next
    // `read` returns at once, or until `doorbell` is readable or a signal interrupts the wait
    // (DOORBELL). A datagram wins when both are ready. A failing poll is logged and reported as
    // DATAGRAM: the blocking `read` that follows still ends on a signal. `doorbell` -1 waits for
    // the socket alone.
    Wake wait(int doorbell);

    // Logs, at INFO, that a signal cut a wait or a read short.
    void log_interrupted() const;

    // Blocks until one datagram arrives and copies at most `capacity` bytes of it (the system
    // cuts a longer datagram). Returns its length, or 0 when a signal interrupted the call.
    // REQUIRES: `buffer` holds `capacity` bytes.
    [[nodiscard]] std::int64_t read(void* buffer, std::uint64_t capacity);

    // The same into the receive loop's buffer; also stores the length in `buffer.length`.
    [[nodiscard]] std::int64_t read(ReadBuffer& buffer);

    // The same with one recvfrom that also stores the sender in `buffer.source`, for a loop that
    // looks at the sender; returns -1 (and leaves `buffer` alone) when a signal interrupted the
    // call, so that an empty datagram is still told from no datagram.
    [[nodiscard]] std::int64_t read_from(ReadBuffer& buffer);

    // Reads, without blocking, as many waiting datagrams as `batch` has slots for, with one call.
    // Returns how many; 0 when none waits or a signal interrupted the call. Any other error ends
    // the process as for `read`.
    std::size_t read_batch(ReceiveBatch& batch);

    // Sleeps `microseconds`, so that datagrams gather for the next `read_batch`, or less when
    // `doorbell` becomes readable or a signal arrives; true when it ended early so.
    bool pause(int doorbell, std::uint64_t microseconds);

    // Sends `length` bytes to `to`, calling sendto again with the rest until all have gone.
    // Returns false at the first error; bytes already sent are not taken back.
    [[nodiscard]] bool send(const sockaddr_in& to, const void* data, std::uint64_t length);

    // Takes, without blocking, as many waiting datagrams as `batch` has slots for, with one call,
    // and throws their payloads away: for a socket that only holds the port while a packet ring
    // receives its traffic. Each datagram's full length and source are still in `batch` (its
    // slots may be empty). Returns how many, as `read_batch` does.
    std::size_t drain(ReceiveBatch& batch);

    // The port the socket is bound to, in host order; 0 when unknown.
    std::uint16_t local_port() const;

    // Shuts down and closes the descriptor; harmless when none is held.
    void close();

    // The descriptor, -1 while closed.
    std::int32_t fd() const { return m_fd; }

private:
    // Logs the read error and ends the process.
    [[noreturn]] void fail_read(int error_code);

    // `read_batch` and `drain`: one recvmmsg with `flags` besides MSG_DONTWAIT.
    std::size_t receive_batch(ReceiveBatch& batch, int flags);

    // The system's figure for the receive buffer; 0 when it cannot be read.
    std::uint64_t receive_buffer() const;

    std::int32_t m_fd = -1;
};

// Blocks until `fd` is readable (DATAGRAM) or `doorbell` is, or a signal interrupts the wait
// (DOORBELL); `fd` wins when both are ready. A failing poll sets `error` to its errno (0 otherwise)
// and is reported as DATAGRAM. `doorbell` -1 waits for `fd` alone. With `timeout_ms` >= 0 the wait
// also ends after that long, reported as DATAGRAM.
Socket::Wake wait_readable(int fd, int doorbell, int& error, int timeout_ms = -1);

// Datagrams the system discarded for the socket `fd` since it was created, because its receive
// buffer was full; nothing when the count cannot be read. Any thread.
std::optional<std::uint32_t> kernel_drops(int fd);

// `total` plus what a 32-bit system count that wraps (such as `kernel_drops`) gained from the
// reading `previous` to the reading `current`, modulo 2^32: a 64-bit total that never decreases.
// REQUIRES: the count gained less than 2^32 between the two readings.
constexpr std::uint64_t accumulate_wrapping(std::uint64_t total, std::uint32_t previous,
                                            std::uint32_t current) {
    return total + static_cast<std::uint32_t>(current - previous);
}

// The system host name; empty when it cannot be read.
std::string get_host_name();

// The local IPv4 address, in dotted form, through which this host reaches `address` (host order).
// Nothing is sent. Returns `fallback` for 0 and 0xFFFFFFFF and when any step fails.
std::string get_host_ip(std::uint32_t address, const std::string& fallback);

}  // namespace qm::net
