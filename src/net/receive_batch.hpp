#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// Room for the datagrams one `Socket::read_batch` call takes: `capacity` slots, each large enough
// for any UDP payload, with the message headers and source addresses the system fills. Allocated
// once, when the receive loop is set up, and reused for every call, so reading allocates nothing.
// A batch of empty slots (`slot_size` 0) takes only each datagram's length and source, for a
// socket whose payloads are read elsewhere (`Socket::drain`).
//
// Threads: owned and used by the receiving thread alone.

namespace qm::net {

class ReceiveBatch {
public:
    // Bytes of one slot: any UDP payload fits.
    static constexpr std::size_t SLOT_SIZE = 65536;

    // REQUIRES: capacity > 0.
    explicit ReceiveBatch(std::size_t capacity, std::size_t slot_size = SLOT_SIZE);

    ReceiveBatch(const ReceiveBatch&) = delete;
    ReceiveBatch& operator=(const ReceiveBatch&) = delete;

    std::size_t capacity() const { return m_headers.size(); }

    // The bytes, the length and the sender of datagram `i` of the last read.
    // REQUIRES: `i` below the count the last read returned.
    const std::uint8_t* data(std::size_t i) const { return m_bytes.data() + i * m_slot_size; }
    std::uint64_t length(std::size_t i) const { return m_headers[i].msg_len; }
    const sockaddr_in& source(std::size_t i) const { return m_sources[i]; }

    // The headers for recvmmsg, pointing at the slots and the source addresses.
    mmsghdr* headers() { return m_headers.data(); }

private:
    std::size_t m_slot_size;
    std::vector<std::uint8_t> m_bytes;
    std::vector<iovec> m_vectors;
    std::vector<sockaddr_in> m_sources;
    std::vector<mmsghdr> m_headers;
};

}  // namespace qm::net
