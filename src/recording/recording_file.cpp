#include "recording/recording_file.hpp"

#include <algorithm>
#include <cctype>
#include <istream>
#include <iterator>

namespace qm::recording {
namespace {

// The bytes asked of the source at a time: for the store, the size of one ranged GET.
constexpr std::size_t READ_BLOCK = 1024 * 1024;

std::string describe(const std::filesystem::path& path, const std::string& problem) {
    return path.string() + ": " + problem;
}

}  // namespace

RecordingFile::RecordingFile(const std::filesystem::path& path) : m_path(path) {
    FileSource source(path);
    open(source);
}

RecordingFile::RecordingFile(ByteSource& source) : m_path(source.name()) {
    open(source);
}

void RecordingFile::open(ByteSource& source) {
    m_size = source.size();
    io::QuillmarStreamHeader header{};
    const std::size_t got = source.read(0, reinterpret_cast<char*>(&header), sizeof header);
    if (got < sizeof header.magic || header.magic != io::QUILLMAR_MAGIC) {
        throw RecordingError(describe(m_path, "not a media file (no \"QM\\0F\" magic)"));
    }
    if (got < sizeof header) {
        // The magic is there but the file ends inside the format: a media file cut in its header,
        // not a file of another kind. There is nothing after it for the stream to read.
        header.format = io::MEDIA_FORMAT;
    }
    if (header.format != io::MEDIA_FORMAT) {
        throw RecordingError(describe(m_path, "unknown format " + std::to_string(header.format)));
    }
    io::SessionHeader session{};
    if (source.read(got, reinterpret_cast<char*>(&session), sizeof session) == sizeof session) {
        m_session = session;
    }
    SourceStreamBuffer buffer(source, got, READ_BLOCK);
    std::istream in(&buffer);
    m_stream = std::make_unique<io::QuillmarSessionStream>(header, in);
}

std::uint64_t RecordingFile::tail_after(std::uint64_t frame_bytes) const {
    const std::uint64_t frames_end = io::FILE_HEADER_SIZE + frame_bytes;
    // The reader delivers only frames inside the file as it was measured; a file that shrank
    // while it was read has no tail.
    return m_size > frames_end ? m_size - frames_end : 0;
}

std::string counted(std::uint64_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string truncated_header(std::uint64_t size) {
    return "truncated header: " + counted(size, "byte") + ", shorter than the " +
           std::to_string(io::FILE_HEADER_SIZE) + "-byte file header";
}

std::optional<io::Uuid> parse_uuid(const std::string& text) {
    // 8-4-4-4-12 hexadecimal digits.
    static constexpr std::size_t DASHES[] = {8, 13, 18, 23};
    if (text.size() != 36) {
        return std::nullopt;
    }
    io::Uuid uuid{};
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (std::find(std::begin(DASHES), std::end(DASHES), i) != std::end(DASHES)) {
            if (text[i] != '-') {
                return std::nullopt;
            }
            ++i;
            continue;
        }
        if (!std::isxdigit(static_cast<unsigned char>(text[i])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 1]))) {
            return std::nullopt;
        }
        uuid[byte++] = static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16));
        i += 2;
    }
    return uuid;
}

}  // namespace qm::recording
