#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace qm::mem {

// A fixed pool of N objects of type T. The whole storage is reserved by one array allocation when
// the pool is constructed and is never grown; each slot holds the storage of one T followed by a
// "free" flag. `allocate` hands out zeroed raw storage in which the caller constructs a T (the
// intended caller is T's class-specific operator new); `release` marks the slot free again, after
// the T has been destroyed. The bytes of a released slot are left as they are.
//
// The search is next-fit from a roving cursor: when objects come back roughly in the order in
// which they were taken, the first probe usually succeeds.
//
// Threads: exactly one thread allocates, and it alone moves the cursor. Any thread may release,
// without a lock; an allocator that reads a flag just before the release lands merely sees the
// slot busy and probes the next one. Every member may be read from any thread.
//
// When every slot is in use `allocate` throws `T::BadAlloc` if T declares one, else
// `std::bad_alloc`; the cursor then stays where it was.
template <typename T, std::size_t N>
class ObjectAllocator {
public:
    static_assert(N > 0, "a pool needs at least one slot");

    // Throws std::bad_alloc when the array cannot be reserved or is not 8-byte aligned.
    ObjectAllocator() : m_slots(new Slot[N]) {
        if (reinterpret_cast<std::uintptr_t>(m_slots.get()) % ALIGNMENT != 0) {
            throw std::bad_alloc();
        }
    }
    virtual ~ObjectAllocator() = default;

    ObjectAllocator(const ObjectAllocator&) = delete;
    ObjectAllocator& operator=(const ObjectAllocator&) = delete;

    // Takes the first free slot at or after the cursor, wrapping from N-1 to 0, zeroes its storage
    // and returns it. Probes at most N slots.
    // REQUIRES: called only by the pool's one allocating thread.
    void* allocate() {
        std::uint64_t index = m_cursor.load(std::memory_order_relaxed);
        for (std::size_t probe = 0; probe < N; ++probe) {
            Slot& slot = m_slots[index];
            index = index + 1 == N ? 0 : index + 1;
            // Acquire pairs with the release in `release`: the last holder's writes to the object
            // are complete before the storage is zeroed and handed out again.
            if (slot.free.load(std::memory_order_acquire)) {
                // Relaxed: the slot reaches a releasing thread only through a later hand-over
                // (a queue's release/acquire), which orders this store before that thread's.
                slot.free.store(false, std::memory_order_relaxed);
                m_cursor.store(index, std::memory_order_relaxed);
                std::memset(slot.storage, 0, sizeof(T));
                return slot.storage;
            }
        }
        throw_exhausted();
    }

    // Marks the slot of `object` free.
    // REQUIRES: `object` was returned by this pool's `allocate`, its T is destroyed, and it has not
    // been released since.
    void release(void* object) noexcept {
        const std::ptrdiff_t offset =
            static_cast<std::byte*>(object) - reinterpret_cast<std::byte*>(m_slots.get());
        // Release: everything the releasing thread wrote to the object happens-before the
        // allocator's acquire load that finds the slot free and reuses it.
        m_slots[static_cast<std::size_t>(offset) / sizeof(Slot)].free.store(
            true, std::memory_order_release);
    }

    // Index at which the next search begins.
    std::uint64_t cursor() const { return m_cursor.load(std::memory_order_relaxed); }

    // Number of free slots, by a scan of every flag: for tests and shutdown checks, not for the
    // data path. Exact only while no thread allocates or releases.
    std::size_t free_count() const {
        std::size_t result = 0;
        for (std::size_t i = 0; i < N; ++i) {
            // Relaxed: the flags are only counted; no object is touched through them.
            result += m_slots[i].free.load(std::memory_order_relaxed) ? 1 : 0;
        }
        return result;
    }

    static constexpr std::size_t capacity() { return N; }

private:
    static constexpr std::size_t ALIGNMENT = alignof(T) > 8 ? alignof(T) : 8;

    // The object's storage, then its free flag; the slot size is rounded up so that every slot,
    // and so every object, stays 8-byte aligned.
    struct alignas(ALIGNMENT) Slot {
        alignas(T) std::byte storage[sizeof(T)];
        std::atomic<bool> free{true};
    };

    [[noreturn]] static void throw_exhausted() {
        if constexpr (requires { typename T::BadAlloc; }) {
            throw typename T::BadAlloc();
        } else {
            throw std::bad_alloc();
        }
    }

    std::unique_ptr<Slot[]> m_slots;
    // Written only by the allocating thread; relaxed because other threads read it only to report
    // it, and nothing is published through it.
    std::atomic<std::uint64_t> m_cursor{0};
};

}  // namespace qm::mem
