#include "io/io_quillmar_session_stream.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <optional>

#include "log/logger.hpp"

namespace qm::io {
namespace {

// The bytes after the stream header, read once: the session header, then the frames. Owns them;
// the channels of a derived stream hold references into them, so the stream never moves.
class QuillmarSessionStreamBase : public QuillmarSessionStreamImpl {
public:
    explicit QuillmarSessionStreamBase(std::istream& in)
        : m_bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()) {}

    QuillmarSessionStreamBase(const QuillmarSessionStreamBase&) = delete;
    QuillmarSessionStreamBase& operator=(const QuillmarSessionStreamBase&) = delete;

    std::uint32_t format() const override { return MEDIA_FORMAT; }
    const std::vector<std::uint8_t>& bytes() const { return m_bytes; }

private:
    const std::vector<std::uint8_t> m_bytes;
};

// One side's frames. A frame is known by the index of its first byte; the walk steps from frame
// to frame by the size each header claims, and a frame is read only after the bytes it covers
// have been checked to lie inside the data, so arbitrary bytes cannot make it read outside them.
// Frame headers are copied out of the bytes, never read in place at an unaligned address.
//
// Where the data ends early:
// - fewer bytes than the 40-byte session header: there are no frames, and nothing is logged;
// - a frame that runs past the end, whether its header is whole or cut short: the ERROR line,
//   logged by the channel of the frame's side when it reaches it; that channel ends, the other one
//   is unaffected. A cut header always holds the side byte; the fields it lacks read as zero, so
//   the line names what the header does hold, and its size, at least 12, is more than remains.
class MediaSessionChannel : public MediaChannel {
public:
    MediaSessionChannel(const std::vector<std::uint8_t>& bytes, std::uint16_t side)
        : m_bytes(bytes), m_side(side) {
        find_first();
    }

    std::uint16_t id() const override { return m_side; }

    [[nodiscard]] int read(MediaFrame& frame) override {
        if (!m_current) {
            return 0;
        }
        const SessionStreamFrame header = header_at(*m_current);
        frame.payload = m_bytes.data() + *m_current + FRAME_HEADER_SIZE;
        frame.num = header.num;
        frame.offset = header.off + m_offset_base;
        frame.time = header.time;
        m_current = next_of_side(*m_current + frame_size(header));
        return 1;
    }

private:
    static std::size_t frame_size(const SessionStreamFrame& header) {
        return FRAME_HEADER_SIZE + 2u * std::size_t{header.num};
    }

    // A frame starts at `start` when any byte is left there, even fewer than a whole header.
    bool has_frame_at(std::size_t start) const { return start < m_bytes.size(); }

    // The header as far as the data holds it, the missing bytes zero.
    // REQUIRES: has_frame_at(start).
    SessionStreamFrame header_at(std::size_t start) const {
        SessionStreamFrame header{};
        std::memcpy(&header, m_bytes.data() + start,
                    std::min(sizeof header, m_bytes.size() - start));
        return header;
    }

    bool is_mine(const SessionStreamFrame& header) const { return (header.side & 1u) == m_side; }

    // The offset base is the largest `off` of the frames up to and including this side's first
    // frame, both sides counted; every frame of the side is delivered moved by it. With no frame
    // of this side the channel starts at its end.
    void find_first() {
        std::size_t start = sizeof(SessionHeader);
        while (has_frame_at(start)) {
            const SessionStreamFrame header = header_at(start);
            m_offset_base = std::max<std::uint32_t>(m_offset_base, header.off);
            if (is_mine(header)) {
                m_current = validated(start, header);
                return;
            }
            start += frame_size(header);
        }
    }

    // The first frame of this side at or after `start`, validated; none at the end.
    std::optional<std::size_t> next_of_side(std::size_t start) const {
        while (has_frame_at(start)) {
            const SessionStreamFrame header = header_at(start);
            if (is_mine(header)) {
                return validated(start, header);
            }
            start += frame_size(header);
        }
        return std::nullopt;
    }

    // `start` when the frame's samples lie inside the data; otherwise the ERROR line and none.
    // REQUIRES: has_frame_at(start).
    std::optional<std::size_t> validated(std::size_t start,
                                         const SessionStreamFrame& header) const {
        if (m_bytes.size() - start >= frame_size(header)) {
            return start;
        }
        const std::uint32_t off = header.off;
        QM_LOG_ERROR("MEDIA_CHANNEL"
                     << ": frame [" << m_side << "/" << off << "]"
                     << ": possible data corruption: inconsistent frame size ("
                     << frame_size(header) << ")");
        return std::nullopt;
    }

    const std::vector<std::uint8_t>& m_bytes;
    // The start of the frame the next `read` delivers; none once the channel has ended.
    std::optional<std::size_t> m_current;
    std::uint32_t m_offset_base = 0;
    const std::uint16_t m_side;
};

// The media format: the stream's bytes and its two channels, side 0 then side 1.
class MediaSessionStream : public QuillmarSessionStreamBase {
public:
    explicit MediaSessionStream(std::istream& in)
        : QuillmarSessionStreamBase(in), m_channels{{{bytes(), 0}, {bytes(), 1}}} {}

    std::vector<MediaChannel*> streams() const override { return {&m_channels[0], &m_channels[1]}; }

private:
    // Handing out a channel is a const query, reading it is not.
    mutable std::array<MediaSessionChannel, 2> m_channels;
};

QuillmarSessionStreamImpl* open_stream(const QuillmarStreamHeader& header, std::istream& in) {
    if (header.format != MEDIA_FORMAT) {
        return &DummySessionStream::instance();
    }
    return new MediaSessionStream(in);
}

}  // namespace

QuillmarSessionStream::QuillmarSessionStream(const QuillmarStreamHeader& header, std::istream& in)
    : m_impl(open_stream(header, in)) {}

void QuillmarSessionStream::Deleter::operator()(QuillmarSessionStreamImpl* impl) const {
    if (impl != &DummySessionStream::instance()) {
        delete impl;
    }
}

}  // namespace qm::io
