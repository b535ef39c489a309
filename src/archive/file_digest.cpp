#include "archive/file_digest.hpp"

#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "archive/read_only_file.hpp"

namespace qm::archive {
namespace {

constexpr std::size_t CHUNK = 256 * 1024;

struct DigestContextDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextDeleter>;

DigestContext start_digest(const EVP_MD* type) {
    DigestContext context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), type, nullptr) != 1) {
        throw std::runtime_error("cannot start a digest");
    }
    return context;
}

std::string finish_digest(EVP_MD_CTX* context, std::string* base64) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(context, digest.data(), &length);
    static constexpr char HEX[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += HEX[digest[i] >> 4];
        hex += HEX[digest[i] & 0xF];
    }
    if (base64 != nullptr) {
        // Four characters for every three bytes, and the terminating zero.
        std::string encoded(4 * ((length + 2) / 3) + 1, '\0');
        const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                                            digest.data(), static_cast<int>(length));
        encoded.resize(static_cast<std::size_t>(written));
        *base64 = encoded;
    }
    return hex;
}

}  // namespace

FileDigest digest_file(const std::filesystem::path& path) {
    const ReadOnlyFile file(path);
    if (file.fd() < 0) {
        throw std::runtime_error("cannot read " + path.string() + ": " + std::strerror(errno));
    }
    const DigestContext md5 = start_digest(EVP_md5());
    const DigestContext sha256 = start_digest(EVP_sha256());
    std::unique_ptr<char[]> buffer(new char[CHUNK]);
    FileDigest digest;
    for (;;) {
        const ssize_t got = ::read(file.fd(), buffer.get(), CHUNK);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw std::runtime_error("cannot read " + path.string() + ": " + std::strerror(errno));
        }
        if (got == 0) {
            break;
        }
        EVP_DigestUpdate(md5.get(), buffer.get(), static_cast<std::size_t>(got));
        EVP_DigestUpdate(sha256.get(), buffer.get(), static_cast<std::size_t>(got));
        digest.size += static_cast<std::uint64_t>(got);
    }
    digest.md5_hex = finish_digest(md5.get(), &digest.md5_base64);
    digest.sha256_hex = finish_digest(sha256.get(), nullptr);
    return digest;
}

}  // namespace qm::archive
