#pragma once

#include <atomic>
#include <cstdint>

namespace qm {

// Base of every object handed from one thread to another (packet buffers, sessions, the
// configuration). The object carries its own count of `rc_ptr` owners; a fresh object has none.
// Any thread may take or drop a reference; when the last one goes, the virtual deleting destructor
// runs, so a derived class decides what "delete" means (the heap, or a slot of a pool).
class ReferenceCountable {
public:
    ReferenceCountable() = default;
    ReferenceCountable(const ReferenceCountable&) : ReferenceCountable() {}
    ReferenceCountable& operator=(const ReferenceCountable&) { return *this; }
    virtual ~ReferenceCountable() = default;

    std::int32_t reference_count() const { return m_references.load(std::memory_order_relaxed); }

    // Takes one reference.
    static void acquire(ReferenceCountable* object) {
        object->m_references.fetch_add(1, std::memory_order_seq_cst);
    }

    // Drops one reference: deletes the object at zero; below zero (a double release) it logs the
    // error and leaves the object alone, so the fault is reported instead of becoming a double
    // free.
    static void release(ReferenceCountable* object) noexcept;

private:
    std::atomic<std::int32_t> m_references{0};
};

}  // namespace qm
