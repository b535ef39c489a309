#include "archive/s3_client.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>

#include "child_process.hpp"
#include "s3_server.hpp"
#include "temp_directory.hpp"

namespace qm::archive {
namespace {

constexpr const char* BUCKET = "qm-archive";
constexpr const char* KEY = "2026-11-24/19/05/0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0/media.qm";
// Several of curl's buffers, so that both directions stream in pieces.
constexpr std::size_t FILE_SIZE = 300'001;
constexpr const char* SIGNATURE_MESSAGE =
    "The request signature we calculated does not match the signature you provided. Check your "
    "key and signing method.";

std::string random_bytes(std::size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(generator() & 0xFF);
    }
    return bytes;
}

class S3ClientTest : public ::testing::Test {
protected:
    S3ClientTest()
        : m_server(m_directory.path(), BUCKET),
          m_bytes(random_bytes(FILE_SIZE, 11)),
          m_file(m_directory.write_file("media.qm", m_bytes)) {}

    S3Client client(S3Addressing addressing = S3Addressing::path_style,
                    const std::string& secret = test::S3Server::secret_access_key()) const {
        const std::string endpoint = addressing == S3Addressing::path_style
                                         ? m_server.endpoint()
                                         : m_server.virtual_hosted_endpoint();
        return S3Client(S3Endpoint(endpoint, BUCKET, "us-east-1", addressing),
                        S3Credentials{test::S3Server::access_key_id(), secret, ""});
    }

    static std::string download(S3Client& client, const std::string& key,
                                const std::optional<ByteRange>& range = std::nullopt) {
        std::string bytes;
        client.get_object(key, range, [&](std::string_view chunk) { bytes += chunk; });
        return bytes;
    }

    test::TempDirectory m_directory;
    test::S3Server m_server;
    std::string m_bytes;
    std::string m_file;
};

TEST_F(S3ClientTest, PutsHeadsAndGetsAFileByteForByte) {
    S3Client s3 = client();
    const FileDigest digest = s3.put_object(KEY, m_file);
    EXPECT_EQ(test::read_file(m_server.object_file(KEY)), m_bytes);
    EXPECT_EQ(m_server.count_requests(std::string("PUT /qm-archive/") + KEY + " 200"), 1u);

    const std::optional<S3ObjectInfo> info = s3.head_object(KEY);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->size, FILE_SIZE);
    // s3rver computes the ETag itself: the MD5 of what it received.
    EXPECT_EQ(info->etag, digest.md5_hex);
    EXPECT_NO_THROW(s3.verify_object(KEY, digest));
    EXPECT_EQ(download(s3, KEY), m_bytes);
}

TEST_F(S3ClientTest, GetsAByteRange) {
    S3Client s3 = client();
    s3.put_object(KEY, m_file);
    EXPECT_EQ(download(s3, KEY, ByteRange{1000, 1999}), m_bytes.substr(1000, 1000));
    EXPECT_EQ(download(s3, KEY, ByteRange{FILE_SIZE - 7, std::nullopt}),
              m_bytes.substr(FILE_SIZE - 7));
}

TEST_F(S3ClientTest, AReaderThatThrowsEndsTheDownloadWithItsOwnException) {
    S3Client s3 = client();
    s3.put_object(KEY, m_file);
    std::size_t chunks = 0;
    try {
        s3.get_object(KEY, std::nullopt, [&](std::string_view) {
            ++chunks;
            throw std::logic_error("enough");
        });
        FAIL() << "no error";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "enough");
    }
    EXPECT_EQ(chunks, 1u);
    EXPECT_EQ(download(s3, KEY), m_bytes);
}

TEST_F(S3ClientTest, SignsAKeyWhoseCharactersNeedEscaping) {
    const std::string key = "day/a b+c&d=e\xC3\xA9!'()*~$,;:@/media.qm";
    S3Client s3 = client();
    s3.put_object(key, m_file);
    EXPECT_EQ(m_server.count_requests("PUT /qm-archive/day/"
                                      "a%20b%2Bc%26d%3De%C3%A9%21%27%28%29%2A~%24%2C%3B%3A%40/"
                                      "media.qm 200"),
              1u);
    EXPECT_EQ(test::read_file(m_server.object_file(key)), m_bytes);
    EXPECT_EQ(download(s3, key), m_bytes);
    EXPECT_EQ(s3.head_object(key)->size, FILE_SIZE);
}

TEST_F(S3ClientTest, AddressesTheBucketByItsHostName) {
    S3Client s3 = client(S3Addressing::virtual_hosted);
    const FileDigest digest = s3.put_object(KEY, m_file);
    EXPECT_EQ(m_server.requests(), (std::vector<std::string>{std::string("PUT /qm-archive/") + KEY +
                                                             " 200 virtual-hosted"}));
    EXPECT_EQ(test::read_file(m_server.object_file(KEY)), m_bytes);
    EXPECT_NO_THROW(s3.verify_object(KEY, digest));
    EXPECT_EQ(download(s3, KEY, ByteRange{5, 9}), m_bytes.substr(5, 5));
}

TEST_F(S3ClientTest, AWrongSecretIsRefusedOnceWithTheStoresCodeAndTheBucket) {
    S3Client s3 = client(S3Addressing::path_style, "not-the-secret");
    try {
        s3.put_object(KEY, m_file);
        FAIL() << "no error";
    } catch (const S3Error& error) {
        EXPECT_FALSE(error.retryable());
        EXPECT_EQ(error.http_status(), 403);
        EXPECT_EQ(error.code(), "SignatureDoesNotMatch");
        EXPECT_EQ(std::string(error.what()),
                  std::string("PUT s3://qm-archive/") + KEY +
                      ": HTTP 403 SignatureDoesNotMatch: " + SIGNATURE_MESSAGE);
    }
    EXPECT_EQ(m_server.requests(),
              (std::vector<std::string>{std::string("PUT /qm-archive/") + KEY + " 403"}));
    EXPECT_FALSE(std::filesystem::exists(m_server.object_file(KEY)));
}

// What the store would see of a file that changed after its digest was taken.
TEST_F(S3ClientTest, TheStoreRefusesABodyThatDoesNotMatchItsDigests) {
    S3Client s3 = client();
    const FileDigest digest = digest_file(m_file);
    const FileDigest other =
        digest_file(m_directory.write_file("other", random_bytes(FILE_SIZE, 12)));
    for (const auto& [md5, sha256, code] :
         {std::tuple{other.md5_base64, digest.sha256_hex, "BadDigest"},
          std::tuple{digest.md5_base64, other.sha256_hex, "XAmzContentSHA256Mismatch"}}) {
        FileDigest wrong = digest;
        wrong.md5_base64 = md5;
        wrong.sha256_hex = sha256;
        try {
            s3.put_object(KEY, m_file, wrong);
            FAIL() << "no error";
        } catch (const S3Error& error) {
            EXPECT_FALSE(error.retryable());
            EXPECT_EQ(error.code(), code);
        }
        EXPECT_EQ(s3.head_object(KEY), std::nullopt);
    }
}

TEST_F(S3ClientTest, SendsTheSessionTokenOfATemporaryKey) {
    const S3Endpoint endpoint(m_server.endpoint(), BUCKET, "us-east-1", S3Addressing::path_style);
    S3Client s3(endpoint, S3Credentials{test::S3Server::temporary_access_key_id(),
                                        test::S3Server::temporary_secret_access_key(),
                                        test::S3Server::session_token()});
    const FileDigest digest = s3.put_object(KEY, m_file);
    EXPECT_NO_THROW(s3.verify_object(KEY, digest));
    EXPECT_EQ(download(s3, KEY), m_bytes);

    S3Client without_token(endpoint,
                           S3Credentials{test::S3Server::temporary_access_key_id(),
                                         test::S3Server::temporary_secret_access_key(), ""});
    try {
        without_token.put_object(KEY, m_file);
        FAIL() << "no error";
    } catch (const S3Error& error) {
        EXPECT_FALSE(error.retryable());
        EXPECT_EQ(error.code(), "InvalidToken");
    }
}

TEST_F(S3ClientTest, AMissingObjectIsNoHeadAndANotRetryableGet) {
    S3Client s3 = client();
    EXPECT_EQ(s3.head_object(KEY), std::nullopt);
    try {
        download(s3, KEY);
        FAIL() << "no error";
    } catch (const S3Error& error) {
        EXPECT_FALSE(error.retryable());
        EXPECT_EQ(error.code(), "NoSuchKey");
        EXPECT_EQ(std::string(error.what()), std::string("GET s3://qm-archive/") + KEY +
                                                 ": HTTP 404 NoSuchKey: The specified key does "
                                                 "not exist.");
    }
}

TEST_F(S3ClientTest, VerificationFindsAMissingOrDifferentObject) {
    S3Client s3 = client();
    const FileDigest digest = digest_file(m_file);
    try {
        s3.verify_object(KEY, digest);
        FAIL() << "no error";
    } catch (const S3Error& error) {
        EXPECT_TRUE(error.retryable());
        EXPECT_EQ(std::string(error.what()),
                  std::string("s3://qm-archive/") + KEY + " is missing after its upload");
    }
    // As long as the file: only the ETag tells them apart.
    const std::string other = m_directory.write_file("other", random_bytes(FILE_SIZE, 12));
    const FileDigest uploaded = s3.put_object(KEY, other);
    try {
        s3.verify_object(KEY, digest);
        FAIL() << "no error";
    } catch (const S3Error& error) {
        EXPECT_TRUE(error.retryable());
        EXPECT_EQ(std::string(error.what()),
                  std::string("s3://qm-archive/") + KEY +
                      " differs from the local file: 300001 bytes, ETag " + uploaded.md5_hex +
                      "; local 300001 bytes, MD5 " + digest.md5_hex);
    }
}

TEST_F(S3ClientTest, AStoppedStoreIsARetryableTransportErrorUntilItIsBack) {
    S3Client s3 = client();
    s3.put_object("first", m_file);
    m_server.stop();
    try {
        s3.put_object(KEY, m_file);
        FAIL() << "no error";
    } catch (const S3Error& error) {
        EXPECT_TRUE(error.retryable());
        EXPECT_EQ(error.http_status(), 0);
        const std::string prefix = std::string("PUT s3://qm-archive/") + KEY + ": cannot reach " +
                                   m_server.endpoint() + ": ";
        EXPECT_EQ(std::string(error.what()).substr(0, prefix.size()), prefix);
    }
    m_server.start();
    const FileDigest digest = s3.put_object(KEY, m_file);
    EXPECT_NO_THROW(s3.verify_object(KEY, digest));
    EXPECT_EQ(download(s3, "first"), m_bytes);
    EXPECT_EQ(m_server.count_requests(std::string("PUT /qm-archive/") + KEY + " 200"), 1u);
}

}  // namespace
}  // namespace qm::archive
