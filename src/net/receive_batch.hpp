#pragma once

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// Room for the datagrams one `Socket::read_batch` call takes: `capacity` slots, each large enough
// for any UDP payload, with the message headers the system fills. Allocated once, when the
// receive loop is set up, and reused for every call, so reading allocates nothing.
//
// Threads: owned and used by the receiving thread alone.

namespace qm::net {

class ReceiveBatch {
public:
    // Bytes of one slot: any UDP payload fits.
    static constexpr std::size_t SLOT_SIZE = 65536;

    // REQUIRES: capacity > 0.
    explicit ReceiveBatch(std::size_t capacity);

    ReceiveBatch(const ReceiveBatch&) = delete;
    ReceiveBatch& operator=(const ReceiveBatch&) = delete;

    std::size_t capacity() const { return m_headers.size(); }

    // The bytes and the length of datagram `i` of the last read.
    // REQUIRES: `i` below the count the last read returned.
    const std::uint8_t* data(std::size_t i) const { return m_bytes.data() + i * SLOT_SIZE; }
    std::uint64_t length(std::size_t i) const { return m_headers[i].msg_len; }

    // The headers for recvmmsg, pointing at the slots.
    mmsghdr* headers() { return m_headers.data(); }

private:
    std::vector<std::uint8_t> m_bytes;
    std::vector<iovec> m_vectors;
    std::vector<mmsghdr> m_headers;
};

}  // namespace qm::net
