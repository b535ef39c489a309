#include "net/receive_batch.hpp"

namespace qm::net {

ReceiveBatch::ReceiveBatch(std::size_t capacity, std::size_t slot_size)
    : m_slot_size(slot_size),
      m_bytes(capacity * slot_size),
      m_vectors(capacity),
      m_sources(capacity),
      m_headers(capacity) {
    for (std::size_t i = 0; i < capacity; ++i) {
        m_vectors[i] = {m_bytes.data() + i * slot_size, slot_size};
        m_headers[i] = {};
        m_headers[i].msg_hdr.msg_iov = &m_vectors[i];
        m_headers[i].msg_hdr.msg_iovlen = 1;
        m_headers[i].msg_hdr.msg_name = &m_sources[i];
        // An IPv4 socket writes back this same length at every read, so it is set once.
        m_headers[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    }
}

}  // namespace qm::net
