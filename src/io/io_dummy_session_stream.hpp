#pragma once

#include <cstdint>
#include <vector>

#include "io/io_quillmar_session_stream_impl.hpp"

// The stream of a file whose format this reader does not know: format 0xFFFFFFFF and no
// channels, so that such a file reads as empty instead of failing. It holds no state, so one
// instance serves every such stream; it is created on first use and never freed (a handle's
// deleter skips it), so it stays valid through static destruction. Any thread.

namespace qm::io {

class DummySessionStream : public QuillmarSessionStreamImpl {
public:
    static constexpr std::uint32_t FORMAT = 0xFFFFFFFF;

    std::uint32_t format() const override { return FORMAT; }
    std::vector<MediaChannel*> streams() const override { return {}; }

    static DummySessionStream& instance();
};

}  // namespace qm::io
