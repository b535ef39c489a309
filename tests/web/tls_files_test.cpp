// The checks the certificate and key of `quillmar serve --cert --key` pass before it serves HTTPS.
// Reading a file its permissions forbid is root's to bypass: that case runs as nobody in the
// serve suite.

#include "web/tls_files.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "self_signed_certificate.hpp"
#include "temp_directory.hpp"

namespace qm::web {
namespace {

namespace fs = std::filesystem;

class TlsFilesTest : public ::testing::Test {
protected:
    TlsFilesTest() { test::write_self_signed_certificate(files.cert, files.key); }

    test::TempDirectory dir;
    TlsFiles files{dir.path() / "cert.pem", dir.path() / "key.pem"};
};

TEST_F(TlsFilesTest, CertificateAndItsKeyAreAccepted) {
    EXPECT_EQ(tls_files_problem(files), std::nullopt);
    // Its group may read the key, as Debian's ssl-cert group does.
    fs::permissions(files.key, fs::perms::group_read, fs::perm_options::add);
    EXPECT_EQ(tls_files_problem(files), std::nullopt);
}

TEST_F(TlsFilesTest, MissingFilesCannotBeRead) {
    const fs::path missing = dir.path() / "missing.pem";
    EXPECT_EQ(tls_files_problem({missing, files.key}),
              "--cert " + missing.string() + ": cannot read: No such file or directory");
    EXPECT_EQ(tls_files_problem({files.cert, missing}),
              "--key " + missing.string() + ": cannot read: No such file or directory");
}

TEST_F(TlsFilesTest, KeyOpenToOthersIsRefused) {
    for (const fs::perms others :
         {fs::perms::others_read, fs::perms::others_write, fs::perms::others_exec}) {
        fs::permissions(files.key, fs::perms::owner_read | fs::perms::owner_write | others);
        const std::string mode = others == fs::perms::others_read    ? "0604"
                                 : others == fs::perms::others_write ? "0602"
                                                                     : "0601";
        EXPECT_EQ(tls_files_problem(files),
                  "--key " + files.key.string() + ": open to others (mode " + mode +
                      "): allow them nothing (chmod o-rwx " + files.key.string() + ")");
    }
}

TEST_F(TlsFilesTest, FilesWithoutPemAreRefused) {
    const fs::path text = dir.write_file("text.pem", "not a certificate\n");
    fs::permissions(text, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(tls_files_problem({text, files.key}),
              "--cert " + text.string() + ": holds no PEM certificate");
    EXPECT_EQ(tls_files_problem({files.cert, text}),
              "--key " + text.string() + ": holds no PEM private key");
    // The certificate where the key should be.
    const fs::path cert_copy = dir.path() / "cert-copy.pem";
    fs::copy_file(files.cert, cert_copy);
    fs::permissions(cert_copy, fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(tls_files_problem({files.cert, cert_copy}),
              "--key " + cert_copy.string() + ": holds no PEM private key");
}

TEST_F(TlsFilesTest, KeyOfAnotherCertificateIsRefused) {
    const TlsFiles other{dir.path() / "other-cert.pem", dir.path() / "other-key.pem"};
    test::write_self_signed_certificate(other.cert, other.key);
    EXPECT_EQ(tls_files_problem({files.cert, other.key}),
              "--key " + other.key.string() + ": is not the private key of --cert " +
                  files.cert.string());
}

}  // namespace
}  // namespace qm::web
