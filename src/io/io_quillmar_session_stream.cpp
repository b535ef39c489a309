#include "io/io_quillmar_session_stream.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <optional>

#include "log/logger.hpp"

namespace qm::io {
namespace {

// The bytes after the stream header: the session header, then the frames.
class QuillmarSessionStreamBase : public QuillmarSessionStreamImpl {
public:
    explicit QuillmarSessionStreamBase(std::istream& in)
        : m_bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()) {}

    std::uint32_t format() const override { return MEDIA_FORMAT; }
    const std::vector<std::uint8_t>& bytes() const { return m_bytes; }

private:
    std::vector<std::uint8_t> m_bytes;
};

class MediaSessionStream;

// One side's frames. A frame is found by its start; the walk from frame to frame steps by the
// size each frame header claims, and every frame is bounds-checked before it is read.
class MediaSessionChannel : public MediaChannel {
public:
    MediaSessionChannel(const std::vector<std::uint8_t>& bytes, std::uint16_t side)
        : m_bytes(bytes), m_side(side) {
        find_first();
    }

    std::uint16_t id() const override { return m_side; }

    int read(MediaFrame& frame) override {
        if (!m_current) {
            return 0;
        }
        const SessionStreamFrame header = frame_at(*m_current);
        frame.payload = m_bytes.data() + *m_current + FRAME_HEADER_SIZE;
        frame.num = header.num;
        frame.offset = header.off + m_offset_base;
        frame.time = header.time;
        m_current = next_of_side(*m_current + frame_size(header));
        return 1;
    }

private:
    static std::size_t frame_size(const SessionStreamFrame& header) {
        return FRAME_HEADER_SIZE + 2u * header.num;
    }

    // REQUIRES: a whole frame header lies at `start`.
    SessionStreamFrame frame_at(std::size_t start) const {
        SessionStreamFrame header;
        std::memcpy(&header, m_bytes.data() + start, sizeof header);
        return header;
    }

    bool has_header_at(std::size_t start) const {
        return start < m_bytes.size() && m_bytes.size() - start >= FRAME_HEADER_SIZE;
    }

    // The offset base is the largest `off` up to and including the channel's first frame.
    void find_first() {
        std::size_t start = sizeof(SessionHeader);
        while (has_header_at(start)) {
            const SessionStreamFrame header = frame_at(start);
            m_offset_base = std::max(m_offset_base, header.off);
            if ((header.side & 1u) == m_side) {
                m_current = validated(start, header);
                return;
            }
            start += frame_size(header);
        }
    }

    // The first frame of this side at or after `start`, validated; none at the end.
    std::optional<std::size_t> next_of_side(std::size_t start) const {
        while (has_header_at(start)) {
            const SessionStreamFrame header = frame_at(start);
            if ((header.side & 1u) == m_side) {
                return validated(start, header);
            }
            start += frame_size(header);
        }
        return std::nullopt;
    }

    // A frame whose payload runs past the data ends the channel. A header cut short by the end
    // is no frame at all.
    std::optional<std::size_t> validated(std::size_t start, const SessionStreamFrame& header) const {
        if (m_bytes.size() - start < frame_size(header)) {
            QM_LOG_ERROR("MEDIA_CHANNEL" << ": frame [" << m_side << "/" << header.off << "]"
                                         << ": possible data corruption: inconsistent frame size ("
                                         << frame_size(header) << ")");
            return std::nullopt;
        }
        return start;
    }

    const std::vector<std::uint8_t>& m_bytes;
    std::optional<std::size_t> m_current;
    std::uint32_t m_offset_base = 0;
    std::uint16_t m_side;
};

class MediaSessionStream : public QuillmarSessionStreamBase {
public:
    explicit MediaSessionStream(std::istream& in)
        : QuillmarSessionStreamBase(in), m_channels{{{bytes(), 0}, {bytes(), 1}}} {}

    std::vector<MediaChannel*> streams() const override {
        return {&m_channels[0], &m_channels[1]};
    }

private:
    mutable std::array<MediaSessionChannel, 2> m_channels;
};

}  // namespace

DummySessionStream& DummySessionStream::instance() {
    static DummySessionStream* const dummy = new DummySessionStream();
    return *dummy;
}

QuillmarSessionStream::QuillmarSessionStream(const QuillmarStreamHeader& header, std::istream& in)
    : m_impl(header.format == MEDIA_FORMAT
                 ? static_cast<QuillmarSessionStreamImpl*>(new MediaSessionStream(in))
                 : &DummySessionStream::instance()) {}

void QuillmarSessionStream::Deleter::operator()(QuillmarSessionStreamImpl* impl) const {
    if (impl != &DummySessionStream::instance()) {
        delete impl;
    }
}

}  // namespace qm::io
