#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

// Where the bytes of a recording come from: a local file, or an object in the archive's store
// (archive::S3ObjectSource). The readers (RecordingFile, and through it inspect, export and the
// peaks) take any source, so a recording in the store is read by the same code as one on disk.
//
// The readers only ever read forwards, once: the headers at the start, then every byte after the
// stream header in order (the session stream keeps them). A source therefore needs no cache and
// no random access beyond "these bytes at this offset"; a remote source answers each read with
// one bounded request.
// A source is used by one thread at a time.

namespace qm::recording {

class ByteSource {
public:
    virtual ~ByteSource() = default;

    // How messages name the recording: its path, or "s3://BUCKET/KEY".
    virtual const std::string& name() const = 0;
    // The size the source had when it was opened; reads past it deliver nothing.
    virtual std::uint64_t size() const = 0;
    // Copies up to `count` bytes from `offset` into `out` and returns how many: fewer only at the
    // end of the source. THROWS: std::runtime_error (RecordingError for a local file, the store's
    // error for an object) when the bytes cannot be read.
    virtual std::size_t read(std::uint64_t offset, char* out, std::size_t count) = 0;
};

// A local file.
class FileSource : public ByteSource {
public:
    // THROWS: RecordingError naming the file when it is a directory, cannot be opened, or has no
    // size (a pipe, a device).
    explicit FileSource(const std::filesystem::path& path);

    const std::string& name() const override { return m_name; }
    std::uint64_t size() const override { return m_size; }
    std::size_t read(std::uint64_t offset, char* out, std::size_t count) override;

private:
    std::string m_name;
    std::ifstream m_in;
    std::uint64_t m_size = 0;
};

// A source read forwards from `start` as a std::streambuf, a block of `block_size` bytes per read
// of the source, so that the session stream (which takes an std::istream) reads any source.
// Input only, no seeking. What the source throws passes through to the reader: the session stream
// reads through std::istreambuf_iterator, which calls the buffer directly (an std::istream's own
// reads would turn it into a badbit, a recording that merely ends early). Does not own the source.
// REQUIRES: the source outlives the buffer; block_size > 0.
class SourceStreamBuffer : public std::streambuf {
public:
    SourceStreamBuffer(ByteSource& source, std::uint64_t start, std::size_t block_size);

protected:
    int_type underflow() override;

private:
    ByteSource& m_source;
    std::uint64_t m_next;
    std::vector<char> m_block;
};

}  // namespace qm::recording
