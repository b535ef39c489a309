#include "archive/s3_endpoint.hpp"

#include <gtest/gtest.h>

#include <string>

namespace qm::archive {
namespace {

constexpr const char* KEY = "2026-11-24/19/05/0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0/media.qm";

std::string error_of(const std::string& endpoint, const std::string& bucket,
                     S3Addressing addressing) {
    try {
        S3Endpoint(endpoint, bucket, "us-east-1", addressing);
    } catch (const S3EndpointError& error) {
        return error.what();
    }
    return "no error";
}

TEST(S3Endpoint, PathStylePutsTheBucketFirstInThePath) {
    const S3Endpoint endpoint("http://127.0.0.1:9000", "qm-archive", "us-east-1",
                              S3Addressing::path_style);
    EXPECT_EQ(endpoint.object_url(KEY), std::string("http://127.0.0.1:9000/qm-archive/") + KEY);
    EXPECT_EQ(endpoint.endpoint(), "http://127.0.0.1:9000");
}

TEST(S3Endpoint, DropsTheEndpointsTrailingSlash) {
    const S3Endpoint endpoint("https://minio.example.net/", "calls", "eu-central-1",
                              S3Addressing::path_style);
    EXPECT_EQ(endpoint.object_url("a/b"), "https://minio.example.net/calls/a/b");
    EXPECT_EQ(endpoint.endpoint(), "https://minio.example.net");
}

TEST(S3Endpoint, PathStyleTakesAnIpv6Address) {
    const S3Endpoint endpoint("http://[::1]:9000", "calls", "us-east-1", S3Addressing::path_style);
    EXPECT_EQ(endpoint.object_url("k"), "http://[::1]:9000/calls/k");
}

TEST(S3Endpoint, VirtualHostedPutsTheBucketBeforeTheHost) {
    const S3Endpoint aws("https://s3.eu-west-1.amazonaws.com", "qm-archive", "eu-west-1",
                         S3Addressing::virtual_hosted);
    EXPECT_EQ(aws.object_url(KEY),
              std::string("https://qm-archive.s3.eu-west-1.amazonaws.com/") + KEY);
    const S3Endpoint local("http://s3.localhost:4568", "qm-archive", "us-east-1",
                           S3Addressing::virtual_hosted);
    EXPECT_EQ(local.object_url("a b"), "http://qm-archive.s3.localhost:4568/a%20b");
}

TEST(S3Endpoint, NamesAnObjectWithItsBucketAndItsKeyUnescaped) {
    const S3Endpoint endpoint("http://127.0.0.1:9000", "qm-archive", "us-east-1",
                              S3Addressing::path_style);
    EXPECT_EQ(endpoint.object_name("a b/c"), "s3://qm-archive/a b/c");
}

TEST(S3Endpoint, EscapesEverythingButTheUnreservedCharactersAndTheSlash) {
    EXPECT_EQ(escape_key("AZaz09-._~/x"), "AZaz09-._~/x");
    EXPECT_EQ(escape_key("a b+c&d=e?f#g%h"), "a%20b%2Bc%26d%3De%3Ff%23g%25h");
    EXPECT_EQ(escape_key("!*'()$,;:@[]"), "%21%2A%27%28%29%24%2C%3B%3A%40%5B%5D");
    EXPECT_EQ(escape_key("\xC3\xA9\x7F\x01"), "%C3%A9%7F%01");
    EXPECT_EQ(escape_key("a//b/"), "a//b/");
}

TEST(S3Endpoint, EscapesTheBucketOfAPathStyleUrl) {
    const S3Endpoint endpoint("http://127.0.0.1:9000", "Legacy_Bucket", "us-east-1",
                              S3Addressing::path_style);
    EXPECT_EQ(endpoint.object_url("k"), "http://127.0.0.1:9000/Legacy_Bucket/k");
}

TEST(S3Endpoint, RefusesWhatIsNotAnHttpEndpoint) {
    EXPECT_EQ(error_of("ftp://host", "b", S3Addressing::path_style),
              "endpoint ftp://host is not an http:// or https:// URL");
    EXPECT_EQ(error_of("host:9000", "b", S3Addressing::path_style),
              "endpoint host:9000 is not an http:// or https:// URL");
    EXPECT_EQ(error_of("http://host/prefix", "b", S3Addressing::path_style),
              "endpoint http://host/prefix must be SCHEME://HOST[:PORT], without a path or user");
    EXPECT_EQ(error_of("http://user@host", "b", S3Addressing::path_style),
              "endpoint http://user@host must be SCHEME://HOST[:PORT], without a path or user");
    EXPECT_EQ(error_of("http://:9000", "b", S3Addressing::path_style),
              "endpoint http://:9000 has no host");
    EXPECT_EQ(error_of("http://host:s3", "b", S3Addressing::path_style),
              "endpoint http://host:s3 has a port that is not a number");
    EXPECT_EQ(error_of("http://host:", "b", S3Addressing::path_style),
              "endpoint http://host: has a port that is not a number");
    EXPECT_EQ(error_of("http://[::1]x", "b", S3Addressing::path_style),
              "endpoint http://[::1]x has a port that is not a number");
    EXPECT_EQ(error_of("http://host", "", S3Addressing::path_style), "the bucket name is empty");
}

TEST(S3Endpoint, RefusesVirtualHostedAddressingWithoutAHostName) {
    EXPECT_EQ(error_of("http://127.0.0.1:9000", "b", S3Addressing::virtual_hosted),
              "virtual-hosted addressing needs a host name, not the address 127.0.0.1: use "
              "path-style addressing");
    EXPECT_EQ(error_of("http://[::1]:9000", "b", S3Addressing::virtual_hosted),
              "virtual-hosted addressing needs a host name, not the address [::1]: use "
              "path-style addressing");
    EXPECT_EQ(error_of("http://s3.localhost", "Legacy_Bucket", S3Addressing::virtual_hosted),
              "the bucket name Legacy_Bucket cannot be a host name: use path-style addressing");
}

TEST(S3Endpoint, RefusesAnEmptyRegion) {
    try {
        S3Endpoint("http://host", "b", "", S3Addressing::path_style);
        FAIL() << "no error";
    } catch (const S3EndpointError& error) {
        EXPECT_STREQ(error.what(), "the region is empty");
    }
}

}  // namespace
}  // namespace qm::archive
