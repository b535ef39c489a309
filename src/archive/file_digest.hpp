#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace qm::archive {

// The digests of a file that an S3 upload carries: MD5 for Content-MD5 and the ETag of a
// single-part object, SHA-256 for the signed payload hash.
struct FileDigest {
    std::uint64_t size = 0;
    // Lower-case hexadecimal, as the ETag of a single-part object shows it.
    std::string md5_hex;
    // Base64, as the Content-MD5 header takes it.
    std::string md5_base64;
    // Lower-case hexadecimal, as x-amz-content-sha256 takes it.
    std::string sha256_hex;
};

// Reads the file once. THROWS: std::runtime_error naming the file and the reason.
// Any thread.
FileDigest digest_file(const std::filesystem::path& path);

}  // namespace qm::archive
