#include "recording/byte_source.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "recording/recording_file.hpp"

namespace qm::recording {
namespace {

RecordingError failure(const std::filesystem::path& path, const std::string& problem) {
    return RecordingError(path.string() + ": " + problem);
}

}  // namespace

FileSource::FileSource(const std::filesystem::path& path) : m_name(path.string()) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
        throw failure(path, "is a directory");
    }
    m_in.open(path, std::ios::binary);
    if (!m_in) {
        throw failure(path, std::string("cannot open: ") + std::strerror(errno));
    }
    m_size = std::filesystem::file_size(path, error);
    if (error) {
        // A pipe or a device opens but has no size to measure frames against.
        throw failure(path, "cannot tell its size: " + error.message());
    }
}

std::size_t FileSource::read(std::uint64_t offset, char* out, std::size_t count) {
    if (offset >= m_size) {
        return 0;
    }
    m_in.clear();
    m_in.seekg(static_cast<std::streamoff>(offset));
    m_in.read(out, static_cast<std::streamsize>(count));
    if (m_in.bad()) {
        throw failure(m_name, std::string("cannot read: ") + std::strerror(errno));
    }
    return static_cast<std::size_t>(m_in.gcount());
}

SourceStreamBuffer::SourceStreamBuffer(ByteSource& source, std::uint64_t start,
                                       std::size_t block_size)
    : m_source(source), m_next(start), m_block(block_size) {
    setg(m_block.data(), m_block.data(), m_block.data());
}

SourceStreamBuffer::int_type SourceStreamBuffer::underflow() {
    if (gptr() < egptr()) {
        return traits_type::to_int_type(*gptr());
    }
    const std::uint64_t left = m_next < m_source.size() ? m_source.size() - m_next : 0;
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(m_block.size(), left));
    const std::size_t got = wanted == 0 ? 0 : m_source.read(m_next, m_block.data(), wanted);
    m_next += got;
    setg(m_block.data(), m_block.data(), m_block.data() + got);
    return got == 0 ? traits_type::eof() : traits_type::to_int_type(m_block[0]);
}

}  // namespace qm::recording
