#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "io/io_quillmar_session_stream.hpp"
#include "io/quillmar_format.hpp"
#include "recording/byte_source.hpp"

// One "media.qm" opened for reading by the tools: its size, its headers and the session stream
// over its frames. Opening checks only what every tool needs before it can look at frames (the
// file can be read, it starts with the magic, its format is the media format); what the frames
// hold is for the caller to judge. The bytes come from a local file or any other ByteSource (the
// archive's store); they are all read while opening, so the source is not kept. Owns the stream;
// one thread at a time.

namespace qm::recording {

// A file the tools cannot read as a recording at all: missing, unreadable, not a recording, or of
// a format they do not know. `what()` is one line naming the file.
class RecordingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class RecordingFile {
public:
    // THROWS: RecordingError, also for a file without a size (a pipe, a device).
    explicit RecordingFile(const std::filesystem::path& path);
    // The path is the source's name. THROWS: RecordingError for bytes that are not a media file;
    // what the source throws when it cannot be read.
    explicit RecordingFile(ByteSource& source);

    const std::filesystem::path& path() const { return m_path; }
    std::uint64_t size() const { return m_size; }
    // Bytes after the headers and `frame_bytes` bytes of whole frames: the cut last frame's.
    std::uint64_t tail_after(std::uint64_t frame_bytes) const;
    // None when the file ends inside the 40-byte session header.
    const std::optional<io::SessionHeader>& session() const { return m_session; }
    io::QuillmarSessionStream& stream() { return *m_stream; }

private:
    void open(ByteSource& source);

    std::filesystem::path m_path;
    std::uint64_t m_size = 0;
    std::optional<io::SessionHeader> m_session;
    std::unique_ptr<io::QuillmarSessionStream> m_stream;
};

// A count with its noun, plural unless the count is 1: "1 byte", "17 bytes".
std::string counted(std::uint64_t count, const std::string& noun);

// What a file of `size` bytes that ends inside its headers is: "truncated header: 17 bytes,
// shorter than the 48-byte file header".
std::string truncated_header(std::uint64_t size);

// The uuid from its text form, "00112233-4455-6677-8899-aabbccddeeff" (either case); none for
// anything else. `utils::str::print_uuid` writes the form.
std::optional<io::Uuid> parse_uuid(const std::string& text);

}  // namespace qm::recording
