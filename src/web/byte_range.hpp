#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// The one `Range: bytes=...` form a player needs to seek: a single range, "A-B", "A-" or "-N".
// Plain functions; any thread.

namespace qm::web {

// Bytes first..last of a body, both included.
struct ByteRange {
    std::uint64_t first = 0;
    std::uint64_t last = 0;

    bool operator==(const ByteRange&) const = default;
};

enum class RangeKind {
    // No header, or one this server does not answer (another unit, several ranges, not a range):
    // the whole body with 200, as a server that ignores the header would send it.
    WHOLE,
    // 206 with `range`.
    PART,
    // 416: a well-formed range that lies past the body's end (or asks for 0 bytes of a suffix).
    UNSATISFIABLE,
};

struct RangeAnswer {
    RangeKind kind = RangeKind::WHOLE;
    ByteRange range;

    bool operator==(const RangeAnswer&) const = default;
};

// The answer to `header` (empty: none was sent) for a body of `size` bytes; a last byte past the
// end is cut to the end.
RangeAnswer answer_range(std::string_view header, std::uint64_t size);

}  // namespace qm::web
