#include "web/tls_files.hpp"

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace qm::web {
namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using OpenFile = std::unique_ptr<std::FILE, FileCloser>;

struct CertificateFree {
    void operator()(X509* certificate) const { X509_free(certificate); }
};

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};

// The file opened for reading, or none with `problem` set.
OpenFile open_for_reading(const char* option, const std::filesystem::path& path,
                          std::optional<std::string>& problem) {
    OpenFile file(std::fopen(path.c_str(), "rb"));
    if (!file) {
        problem =
            std::string(option) + " " + path.string() + ": cannot read: " + std::strerror(errno);
    }
    return file;
}

// "0644".
std::string mode_text(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

}  // namespace

std::optional<std::string> tls_files_problem(const TlsFiles& files) {
    std::optional<std::string> problem;
    const OpenFile cert_file = open_for_reading("--cert", files.cert, problem);
    if (problem) {
        return problem;
    }
    const OpenFile key_file = open_for_reading("--key", files.key, problem);
    if (problem) {
        return problem;
    }
    struct stat key_status {};
    if (::fstat(::fileno(key_file.get()), &key_status) == 0 && (key_status.st_mode & S_IRWXO)) {
        return "--key " + files.key.string() + ": open to others (mode " +
               mode_text(key_status.st_mode) + "): allow them nothing (chmod o-rwx " +
               files.key.string() + ")";
    }
    const std::unique_ptr<X509, CertificateFree> certificate(
        PEM_read_X509(cert_file.get(), nullptr, nullptr, nullptr));
    if (!certificate) {
        return "--cert " + files.cert.string() + ": holds no PEM certificate";
    }
    // No passphrase callback: a key that asks for one is not served.
    const std::unique_ptr<EVP_PKEY, KeyFree> key(
        PEM_read_PrivateKey(key_file.get(), nullptr, nullptr, const_cast<char*>("")));
    if (!key) {
        return "--key " + files.key.string() + ": holds no PEM private key";
    }
    if (X509_check_private_key(certificate.get(), key.get()) != 1) {
        return "--key " + files.key.string() + ": is not the private key of --cert " +
               files.cert.string();
    }
    return std::nullopt;
}

}  // namespace qm::web
