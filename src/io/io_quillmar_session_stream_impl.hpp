#pragma once

#include <cstdint>
#include <vector>

#include "io/io_media_channel.hpp"

// What a session stream is underneath, one implementation per file format: the format it reads
// and its channels. Owned by the `QuillmarSessionStream` handle that built it (except the shared
// `DummySessionStream`, which nobody frees); its channels belong to it. Used by the thread that
// reads the stream.

namespace qm::io {

class QuillmarSessionStreamImpl {
public:
    virtual ~QuillmarSessionStreamImpl() = default;

    virtual std::uint32_t format() const = 0;
    // The channels, owned by the stream; empty when the format has none.
    virtual std::vector<MediaChannel*> streams() const = 0;
};

}  // namespace qm::io
