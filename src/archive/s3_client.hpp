#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "archive/file_digest.hpp"
#include "archive/s3_credentials.hpp"
#include "archive/s3_endpoint.hpp"
#include "archive/s3_error.hpp"

// The requests the archive makes of an S3-compatible store, signed with AWS Signature Version 4
// by libcurl (CURLOPT_AWS_SIGV4). Bodies stream in both directions: an upload reads the local
// file as curl sends it, a download hands each chunk to the caller as it arrives; nothing is
// copied to a temporary file or held whole in memory.
//
// Every request carries the SHA-256 of its body (x-amz-content-sha256, signed), and an upload also
// its MD5 (Content-MD5), so the store refuses a body that changed on the way.
//
// Failures throw S3Error, classified retryable or not (see s3_error.hpp); a local file that
// cannot be read throws std::runtime_error.
//
// Threads: one client per thread (it owns one curl handle, whose connection it reuses). The
// first client of the process initialises libcurl; create it before starting other threads that
// use libcurl.
// REQUIRES: SIGPIPE is ignored or blocked in the calling thread. curl is told to leave signals
// alone (CURLOPT_NOSIGNAL), and a TLS connection the store closes raises SIGPIPE on a write.

typedef void CURL;
struct curl_slist;

namespace qm::archive {

struct S3ObjectInfo {
    std::uint64_t size = 0;
    // Without the quotes; for an object uploaded in one PUT, the hex MD5 of its bytes.
    std::string etag;
};

// Bytes `first` to `last` inclusive, or to the end of the object when `last` is empty.
struct ByteRange {
    std::uint64_t first = 0;
    std::optional<std::uint64_t> last;
};

class S3Client {
public:
    S3Client(S3Endpoint endpoint, S3Credentials credentials);
    ~S3Client();

    S3Client(const S3Client&) = delete;
    S3Client& operator=(const S3Client&) = delete;

    const S3Endpoint& endpoint() const { return m_endpoint; }

    // Uploads `file` as the object `key` in one PUT, replacing any object of that key. Returns
    // the digest of the file, read once before the upload; the caller passes it to
    // `verify_object`.
    // REQUIRES: the file does not change during the call (the store then refuses the body).
    FileDigest put_object(const std::string& key, const std::filesystem::path& file);
    // The same with the file's digest computed by the caller (`digest_file`); the upload sends
    // `digest.size` bytes and the store refuses them unless they match both digests.
    void put_object(const std::string& key, const std::filesystem::path& file,
                    const FileDigest& digest);

    // The object's size and ETag; nothing when the store answers 404 (no such object).
    // A HEAD answer has no body, so an S3Error from it has no code, only the HTTP status.
    std::optional<S3ObjectInfo> head_object(const std::string& key);

    // Downloads the object, or `range` of it, calling `on_chunk` with each piece of the body in
    // order. An exception from `on_chunk` ends the transfer and is rethrown as it is.
    void get_object(const std::string& key, const std::optional<ByteRange>& range,
                    const std::function<void(std::string_view)>& on_chunk);

    // Checks an uploaded object against the local file's digest: its size, and its ETag against
    // the file's MD5. THROWS: S3Error, retryable (the remedy is to upload again), when the object
    // is missing or differs.
    void verify_object(const std::string& key, const FileDigest& local);

private:
    struct Transfer;
    // Performs the request prepared on the handle and returns the HTTP status; throws the
    // transport error, or the exception a callback stored.
    long perform(const std::string& request, Transfer& transfer);
    // Resets the handle and sets what every request has: URL, signing, timeouts, headers.
    void prepare(const std::string& key, curl_slist* headers);

    S3Endpoint m_endpoint;
    S3Credentials m_credentials;
    std::string m_signing;
    CURL* m_handle = nullptr;
    char m_error_text[256] = {};
};

}  // namespace qm::archive
