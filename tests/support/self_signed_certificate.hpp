#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>

// A throwaway TLS identity for tests: a P-256 key and a certificate for "localhost" it signs
// itself, valid for a day, written as PEM files. Made with OpenSSL's API, so no program is run.
// REQUIRES: the test links OpenSSL (qm_web does). THROWS: std::runtime_error when OpenSSL fails.

namespace qm::test {

inline void write_self_signed_certificate(const std::filesystem::path& cert,
                                          const std::filesystem::path& key) {
    const auto failed = [] { return std::runtime_error("cannot make a test certificate"); };
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pair(EVP_EC_gen("P-256"),
                                                                   &EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> x509(X509_new(), &X509_free);
    if (!pair || !x509) {
        throw failed();
    }
    X509_set_version(x509.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x509.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(x509.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(x509.get()), 24 * 60 * 60);
    X509_NAME* name = X509_get_subject_name(x509.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(x509.get(), name);
    if (X509_set_pubkey(x509.get(), pair.get()) != 1 ||
        X509_sign(x509.get(), pair.get(), EVP_sha256()) == 0) {
        throw failed();
    }
    const auto write = [&failed](const std::filesystem::path& path, auto&& writer) {
        const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(
            std::fopen(path.c_str(), "wb"), &std::fclose);
        if (!file || writer(file.get()) != 1) {
            throw failed();
        }
    };
    write(cert, [&](std::FILE* file) { return PEM_write_X509(file, x509.get()); });
    write(key, [&](std::FILE* file) {
        return PEM_write_PrivateKey(file, pair.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
    std::filesystem::permissions(
        key, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

}  // namespace qm::test
