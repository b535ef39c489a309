#pragma once

#include <cstddef>
#include <new>

#include "core/buffer.hpp"
#include "core/object_allocator.hpp"
#include "core/reference_countable.hpp"

namespace qm::media {

// One received datagram of at most 1376 bytes, shared between threads through rc_ptr.
//
// Every PacketBuffer lives in a slot of the static pool `allocator` (150000 slots, reserved before
// main): the class-specific operator new takes a zeroed slot, and the operator delete reached
// from the deleting destructor (when the last rc_ptr lets go) marks it free again, so the receive
// path never calls the general heap. `new PacketBuffer()` throws PacketBuffer::BadAlloc when every
// slot is in use; a fresh buffer has used size 0 and reference count 0 (the first rc_ptr makes 1).
//
// Threads: only the receiving thread creates buffers (the pool has one allocating thread); the
// last holder, on any thread, frees it. A buffer is filled before it is queued and read-only
// afterwards.
class PacketBuffer final : public mem::Buffer<1376>, public ReferenceCountable {
public:
    static constexpr std::size_t POOL_SIZE = 150000;

    class BadAlloc : public std::bad_alloc {
    public:
        const char* what() const noexcept override;
    };

    // The pool zeroed the slot already; a user-provided constructor keeps `new PacketBuffer()`
    // from zeroing the 1376 data bytes a second time.
    PacketBuffer() noexcept {}  // NOLINT(modernize-use-equals-default)

    // REQUIRES: called only by the pool's allocating thread.
    static void* operator new(std::size_t size);
    static void operator delete(void* object) noexcept;
    static void* operator new[](std::size_t size) = delete;
    static void operator delete[](void* objects) = delete;

    static mem::ObjectAllocator<PacketBuffer, POOL_SIZE> allocator;
};

}  // namespace qm::media
