#include "media/packet_buffer.hpp"

namespace qm::media {

mem::ObjectAllocator<PacketBuffer, PacketBuffer::POOL_SIZE> PacketBuffer::allocator;

const char* PacketBuffer::BadAlloc::what() const noexcept {
    return "Cannot allocate memory for PacketBuffer";
}

// The class is final, so `size` is always sizeof(PacketBuffer), the pool's slot size.
void* PacketBuffer::operator new(std::size_t /*size*/) {
    return allocator.allocate();
}

void PacketBuffer::operator delete(void* object) noexcept {
    if (object != nullptr) {
        allocator.release(object);
    }
}

}  // namespace qm::media
