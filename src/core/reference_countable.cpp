#include "core/reference_countable.hpp"

#include "log/logger.hpp"

namespace qm {

void ReferenceCountable::release(ReferenceCountable* object) noexcept {
    const std::int32_t left = object->m_references.fetch_sub(1, std::memory_order_seq_cst) - 1;
    if (left == 0) {
        delete object;
    } else if (left < 0) {
        // Operators grep for this place; it keeps the name and line it has always had.
        log::emit("reference_countable", 175,
                  log::ErrorMessage() << "RC_PTR: possibly a memory leak: impossible to release "
                                         "pointer with negative reference count");
    }
}

}  // namespace qm
