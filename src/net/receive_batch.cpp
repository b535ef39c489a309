#include "net/receive_batch.hpp"

namespace qm::net {

ReceiveBatch::ReceiveBatch(std::size_t capacity)
    : m_bytes(capacity * SLOT_SIZE), m_vectors(capacity), m_headers(capacity) {
    for (std::size_t i = 0; i < capacity; ++i) {
        m_vectors[i] = {m_bytes.data() + i * SLOT_SIZE, SLOT_SIZE};
        m_headers[i] = {};
        m_headers[i].msg_hdr.msg_iov = &m_vectors[i];
        m_headers[i].msg_hdr.msg_iovlen = 1;
    }
}

}  // namespace qm::net
