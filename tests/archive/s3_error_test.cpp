#include "archive/s3_error.hpp"

#include <gtest/gtest.h>

#include <string>

namespace qm::archive {
namespace {

std::string error_document(const std::string& code, const std::string& message) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Error><Code>" + code + "</Code><Message>" +
           message + "</Message><BucketName>b</BucketName></Error>";
}

TEST(S3Error, ARefusalIsNotRetryableAndCarriesTheStoresCode) {
    const S3Error error =
        error_from_response("PUT s3://qm-archive/k", 403,
                            error_document("SignatureDoesNotMatch",
                                           "The request signature we calculated does not "
                                           "match the signature you provided."));
    EXPECT_FALSE(error.retryable());
    EXPECT_EQ(error.http_status(), 403);
    EXPECT_EQ(error.code(), "SignatureDoesNotMatch");
    EXPECT_STREQ(error.what(),
                 "PUT s3://qm-archive/k: HTTP 403 SignatureDoesNotMatch: The request signature we "
                 "calculated does not match the signature you provided.");
}

TEST(S3Error, MissingBucketsKeysAndAccessAreNotRetryable) {
    for (const auto& [status, code] :
         {std::pair{404, "NoSuchBucket"}, std::pair{404, "NoSuchKey"},
          std::pair{403, "AccessDenied"}, std::pair{403, "InvalidAccessKeyId"},
          std::pair{400, "BadDigest"}}) {
        const S3Error error =
            error_from_response("GET s3://b/k", status, error_document(code, "m"));
        EXPECT_FALSE(error.retryable()) << code;
        EXPECT_EQ(error.code(), code);
        EXPECT_EQ(std::string(error.what()),
                  "GET s3://b/k: HTTP " + std::to_string(status) + " " + code + ": m");
    }
}

TEST(S3Error, ServerErrorsAndThrottlingAreRetryable) {
    for (const auto& [status, code] :
         {std::pair{500, "InternalError"}, std::pair{503, "SlowDown"},
          std::pair{503, "ServiceUnavailable"}, std::pair{400, "RequestTimeout"},
          std::pair{400, "Throttling"}, std::pair{400, "ThrottlingException"},
          std::pair{429, "TooManyRequests"}, std::pair{403, "RequestThrottled"}}) {
        const S3Error error =
            error_from_response("PUT s3://b/k", status, error_document(code, "m"));
        EXPECT_TRUE(error.retryable()) << code;
        EXPECT_EQ(error.code(), code);
    }
}

TEST(S3Error, UnescapesTheDocumentsText) {
    const S3Error error = error_from_response(
        "PUT s3://b/k", 400,
        error_document("XAmzContentSHA256Mismatch",
                       "The provided &apos;x-amz-content-sha256&apos; header &lt;&amp;&gt; &quot;"
                       "&amp;lt;&quot;"));
    EXPECT_STREQ(error.what(),
                 "PUT s3://b/k: HTTP 400 XAmzContentSHA256Mismatch: The provided "
                 "'x-amz-content-sha256' header <&> \"&lt;\"");
}

TEST(S3Error, AnAnswerWithoutADocumentHasOnlyItsStatus) {
    const S3Error gateway = error_from_response("HEAD s3://b/k", 502, "");
    EXPECT_TRUE(gateway.retryable());
    EXPECT_EQ(gateway.code(), "");
    EXPECT_STREQ(gateway.what(), "HEAD s3://b/k: HTTP 502");
    const S3Error forbidden = error_from_response("HEAD s3://b/k", 403, "");
    EXPECT_FALSE(forbidden.retryable());
    EXPECT_STREQ(forbidden.what(), "HEAD s3://b/k: HTTP 403");
}

TEST(S3Error, NoAnswerIsRetryable) {
    const S3Error error =
        transport_error("PUT s3://b/k", "http://127.0.0.1:9000", "Couldn't connect to server");
    EXPECT_TRUE(error.retryable());
    EXPECT_EQ(error.http_status(), 0);
    EXPECT_EQ(error.code(), "");
    EXPECT_STREQ(error.what(),
                 "PUT s3://b/k: cannot reach http://127.0.0.1:9000: Couldn't connect to server");
}

}  // namespace
}  // namespace qm::archive
