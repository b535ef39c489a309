#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "archive/s3_client.hpp"
#include "recording/byte_source.hpp"

// An object of the store read as a recording's bytes: its size from one HEAD when it is opened,
// then each read one ranged GET of exactly the bytes asked for, streamed into the caller's buffer.
// Nothing is written to disk and nothing is cached: the readers read forwards once, in blocks
// they choose (RecordingFile asks 1 MiB at a time), so a cache would never be hit.
// One thread at a time (it owns its client, whose rules it follows: SIGPIPE ignored or blocked in
// the calling thread).

namespace qm::archive {

class S3ObjectSource : public recording::ByteSource {
public:
    // THROWS: S3Error when the store refuses the HEAD or cannot be reached (for a refusal, the
    // error of a GET of the object's first byte, which carries the store's code and message:
    // "GET s3://BUCKET/KEY: HTTP 403 SignatureDoesNotMatch: ..."), and a not retryable
    // S3Error with code NoSuchKey, "HEAD s3://BUCKET/KEY: HTTP 404 NoSuchKey: no such object in
    // the store", when the object is not there.
    S3ObjectSource(std::unique_ptr<S3Client> client, const std::string& key);

    const std::string& name() const override { return m_name; }
    std::uint64_t size() const override { return m_size; }
    // THROWS: S3Error when the GET fails, and when the store sends other than `count` bytes
    // (short of the end of the object).
    std::size_t read(std::uint64_t offset, char* out, std::size_t count) override;

private:
    std::unique_ptr<S3Client> m_client;
    std::string m_key;
    std::string m_name;
    std::uint64_t m_size = 0;
};

}  // namespace qm::archive
