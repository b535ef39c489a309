#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qm::mem {

// A byte buffer of fixed capacity N: the N data bytes, then the count of bytes used. It owns no
// other memory, so it can live inside a pool slot or on the stack. Not thread-safe; a buffer
// handed to another thread is handed over whole (through a queue) and not touched by its sender
// afterwards.
//
// Default construction leaves the data bytes as they are (a pool that zeroes its slots does not
// pay twice) and the used count at 0.
template <std::size_t N>
class Buffer {
public:
    // Copies `length` bytes behind the used part. Returns false, and copies nothing, when they do
    // not fit.
    // REQUIRES: `bytes` points to `length` readable bytes.
    [[nodiscard]] bool append(const void* bytes, std::uint64_t length) {
        if (length > N - m_size) {
            return false;
        }
        if (length != 0) {
            std::memcpy(m_data + m_size, bytes, length);
        }
        m_size += length;
        return true;
    }

    std::uint8_t* data() { return m_data; }
    const std::uint8_t* data() const { return m_data; }
    std::uint64_t size() const { return m_size; }
    static constexpr std::uint64_t capacity() { return N; }

private:
    std::uint8_t m_data[N];
    std::uint64_t m_size = 0;
};

}  // namespace qm::mem
