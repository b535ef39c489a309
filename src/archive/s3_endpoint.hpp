#pragma once

#include <stdexcept>
#include <string>

// Where a bucket's objects are: the store's endpoint, the bucket, its region and how the bucket
// goes into the URL.
//   path-style:      http://127.0.0.1:9000/BUCKET/KEY   (MinIO, Ceph, s3rver, most local stores)
//   virtual-hosted:  https://BUCKET.s3.eu-west-1.amazonaws.com/KEY  (AWS's default)
// Immutable after construction: any thread.

namespace qm::archive {

enum class S3Addressing { path_style, virtual_hosted };

class S3EndpointError : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

class S3Endpoint {
public:
    // `endpoint` is "http://HOST[:PORT]" or "https://HOST[:PORT]", with an optional trailing '/';
    // HOST may be a bracketed IPv6 address for path-style addressing.
    // THROWS: S3EndpointError when the endpoint is not such a URL, the bucket or the region is
    // empty, or virtual-hosted addressing is asked of an IP address (no name to prefix).
    S3Endpoint(const std::string& endpoint, const std::string& bucket, const std::string& region,
               S3Addressing addressing);

    const std::string& bucket() const { return m_bucket; }
    const std::string& region() const { return m_region; }
    S3Addressing addressing() const { return m_addressing; }
    // The endpoint as given, without a trailing '/'.
    const std::string& endpoint() const { return m_endpoint; }

    // The URL of an object: the key escaped by `escape_key`.
    std::string object_url(const std::string& key) const;
    // "s3://BUCKET/KEY", the key unescaped: how messages and the catalogue name an object.
    std::string object_name(const std::string& key) const;

private:
    std::string m_endpoint;
    std::string m_bucket;
    std::string m_region;
    S3Addressing m_addressing;
    // Everything of the object URL that comes before the escaped key.
    std::string m_object_prefix;
};

// Escapes an object key for the URL path as Signature Version 4 canonicalises it: every byte but
// the unreserved characters (A-Z a-z 0-9 - . _ ~) and '/' becomes %XX (upper-case hex), so that
// the path curl signs is the path the store recomputes.
std::string escape_key(const std::string& key);

}  // namespace qm::archive
