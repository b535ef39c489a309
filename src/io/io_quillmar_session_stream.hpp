#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <vector>

#include "io/quillmar_format.hpp"

// Reading a recording back: a stream over the bytes of one "media.qm" that gives one channel per
// side, each delivering that side's frames in file order. The caller reads the 8-byte stream
// header (and checks the magic as it sees fit); the stream looks only at the format. An unknown
// format gives a stream without channels. A frame that claims more bytes than the file holds ends
// its channel with an ERROR line; the frames before it are delivered.
//
// Threads: a stream and its channels are used by one thread at a time. The recorder itself never
// reads its files; tools and tests do.

namespace qm::io {

// What a channel delivers for one frame; `payload` points into the stream's bytes and stays valid
// while the stream lives.
struct MediaFrame {
    const std::uint8_t* payload = nullptr;
    std::uint16_t num = 0;
    // The frame's `off` plus the channel's offset base.
    std::uint32_t offset = 0;
    std::uint32_t time = 0;
};

// The frames of one side.
class MediaChannel {
public:
    virtual ~MediaChannel() = default;
    // The side, 0 or 1.
    virtual std::uint16_t id() const = 0;
    // Fills `frame` with the next frame and returns 1; returns 0 at the end.
    virtual int read(MediaFrame& frame) = 0;
};

class QuillmarSessionStreamImpl {
public:
    virtual ~QuillmarSessionStreamImpl() = default;
    virtual std::uint32_t format() const = 0;
    virtual std::vector<MediaChannel*> streams() const = 0;
};

// The stream of an unknown format: format 0xFFFFFFFF, no channels. One instance, never freed.
class DummySessionStream : public QuillmarSessionStreamImpl {
public:
    static constexpr std::uint32_t FORMAT = 0xFFFFFFFF;

    std::uint32_t format() const override { return FORMAT; }
    std::vector<MediaChannel*> streams() const override { return {}; }

    static DummySessionStream& instance();
};

class QuillmarSessionStream {
public:
    // Reads every byte of `in` after the header when the header's format is the media format;
    // otherwise reads nothing and becomes the dummy stream.
    QuillmarSessionStream(const QuillmarStreamHeader& header, std::istream& in);

    std::uint32_t format() const { return m_impl->format(); }
    // Side 0, then side 1; empty for an unknown format. The channels belong to the stream.
    std::vector<MediaChannel*> streams() const { return m_impl->streams(); }

private:
    // Frees a real stream, never the dummy.
    struct Deleter {
        void operator()(QuillmarSessionStreamImpl* impl) const;
    };

    std::unique_ptr<QuillmarSessionStreamImpl, Deleter> m_impl;
};

}  // namespace qm::io
