#pragma once

#include "core/reference_countable.hpp"

namespace qm {

// Intrusive shared pointer to a ReferenceCountable. Copies take a reference, destruction and
// reassignment drop one. An `rc_ptr` object itself is not thread-safe; the object it points to may
// be shared by pointers on any number of threads.
//
// Reassignment releases the old pointee before taking the new one: assigning an object to the
// only pointer that holds it destroys it first. Callers avoid self-assignment.
template <typename T>
class rc_ptr {
public:
    rc_ptr() = default;
    rc_ptr(T* object) { take(object); }  // NOLINT(google-explicit-constructor): raw pointers adopt
    rc_ptr(const rc_ptr& other) { take(other.m_object); }
    rc_ptr(rc_ptr&& other) noexcept : m_object(other.m_object) { other.m_object = nullptr; }
    virtual ~rc_ptr() { drop(); }

    rc_ptr& operator=(T* object) {
        drop();
        take(object);
        return *this;
    }
    rc_ptr& operator=(const rc_ptr& other) { return *this = other.m_object; }
    rc_ptr& operator=(rc_ptr&& other) noexcept {
        if (this != &other) {
            drop();
            m_object = other.m_object;
            other.m_object = nullptr;
        }
        return *this;
    }

    T* get() const { return m_object; }
    T* operator->() const { return m_object; }
    T& operator*() const { return *m_object; }
    explicit operator bool() const { return m_object != nullptr; }

private:
    void take(T* object) {
        m_object = object;
        if (m_object != nullptr) {
            ReferenceCountable::acquire(m_object);
        }
    }
    void drop() noexcept {
        if (m_object != nullptr) {
            ReferenceCountable::release(m_object);
            m_object = nullptr;
        }
    }

    T* m_object = nullptr;
};

}  // namespace qm
