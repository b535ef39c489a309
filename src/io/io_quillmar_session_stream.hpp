#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <vector>

#include "io/io_dummy_session_stream.hpp"
#include "io/io_media_channel.hpp"
#include "io/io_media_frame.hpp"
#include "io/io_quillmar_session_stream_impl.hpp"
#include "io/quillmar_format.hpp"

// Reading a recording back: the handle over the bytes of one "media.qm", giving one channel per
// side, each delivering that side's frames in file order. The caller reads the 8-byte stream
// header (and checks the magic as it sees fit); the stream looks only at the format. The media
// format gives two channels, side 0 then side 1; an unknown format gives the dummy stream, with no
// channels. A frame that claims more bytes than the file holds, or whose header is cut short, ends
// its channel with an ERROR line; the frames before it are delivered. Nothing here throws on bad
// data.
//
// Ownership: the handle owns its implementation, which owns a copy of the file's bytes and the
// channels; frames and channels point into it and are valid while the handle lives.
// Threads: a stream and its channels are used by one thread at a time. The recorder itself never
// reads its files; tools, tests and the fuzzer do.

namespace qm::io {

class QuillmarSessionStream {
public:
    // Reads every byte of `in` (to its end) after the header when the header's format is the
    // media format; otherwise reads nothing and becomes the dummy stream.
    // REQUIRES: the 8 bytes of `header` have already been taken from `in`.
    QuillmarSessionStream(const QuillmarStreamHeader& header, std::istream& in);

    std::uint32_t format() const { return m_impl->format(); }
    // Side 0, then side 1; empty for an unknown format. The channels belong to the stream.
    std::vector<MediaChannel*> streams() const { return m_impl->streams(); }

private:
    // Frees a real stream, never the shared dummy.
    struct Deleter {
        void operator()(QuillmarSessionStreamImpl* impl) const;
    };

    std::unique_ptr<QuillmarSessionStreamImpl, Deleter> m_impl;
};

}  // namespace qm::io
