#include "archive/s3_endpoint.hpp"

#include <algorithm>
#include <cctype>

namespace qm::archive {
namespace {

bool unreserved(unsigned char byte) {
    return std::isalnum(byte) != 0 || byte == '-' || byte == '.' || byte == '_' || byte == '~';
}

bool is_ip_address(const std::string& host) {
    return host.front() == '[' || std::all_of(host.begin(), host.end(), [](char c) {
               return c == '.' || (c >= '0' && c <= '9');
           });
}

// The scheme and authority of `endpoint`, checked; the host alone in `host`.
std::string parse_endpoint(std::string endpoint, std::string& host) {
    if (!endpoint.empty() && endpoint.back() == '/') {
        endpoint.pop_back();
    }
    const auto scheme_end = endpoint.find("://");
    const std::string scheme = endpoint.substr(0, scheme_end);
    if (scheme_end == std::string::npos || (scheme != "http" && scheme != "https")) {
        throw S3EndpointError("endpoint " + endpoint + " is not an http:// or https:// URL");
    }
    const std::string authority = endpoint.substr(scheme_end + 3);
    if (authority.empty() || authority.find_first_of("/?#@ ") != std::string::npos) {
        throw S3EndpointError("endpoint " + endpoint +
                              " must be SCHEME://HOST[:PORT], without a path or user");
    }
    // A bracketed IPv6 address holds colons of its own.
    const auto host_end = authority.front() == '['
                              ? std::min(authority.find(']'), authority.size() - 1) + 1
                              : std::min(authority.find(':'), authority.size());
    host = authority.substr(0, host_end);
    if (host.empty()) {
        throw S3EndpointError("endpoint " + endpoint + " has no host");
    }
    const std::string port = authority.substr(host_end);
    if (!port.empty() &&
        (port.size() == 1 || port.front() != ':' ||
         !std::all_of(port.begin() + 1, port.end(), [](char c) { return c >= '0' && c <= '9'; }))) {
        throw S3EndpointError("endpoint " + endpoint + " has a port that is not a number");
    }
    return endpoint;
}

}  // namespace

S3Endpoint::S3Endpoint(const std::string& endpoint, const std::string& bucket,
                       const std::string& region, S3Addressing addressing)
    : m_bucket(bucket), m_region(region), m_addressing(addressing) {
    std::string host;
    m_endpoint = parse_endpoint(endpoint, host);
    if (bucket.empty()) {
        throw S3EndpointError("the bucket name is empty");
    }
    if (region.empty()) {
        throw S3EndpointError("the region is empty");
    }
    if (addressing == S3Addressing::path_style) {
        m_object_prefix = m_endpoint + "/" + escape_key(bucket) + "/";
        return;
    }
    if (!std::all_of(bucket.begin(), bucket.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-';
        })) {
        throw S3EndpointError("the bucket name " + bucket +
                              " cannot be a host name: use path-style addressing");
    }
    if (is_ip_address(host)) {
        throw S3EndpointError("virtual-hosted addressing needs a host name, not the address " +
                              host + ": use path-style addressing");
    }
    const auto host_start = m_endpoint.find("://") + 3;
    m_object_prefix =
        m_endpoint.substr(0, host_start) + bucket + "." + m_endpoint.substr(host_start) + "/";
}

std::string S3Endpoint::object_url(const std::string& key) const {
    return m_object_prefix + escape_key(key);
}

std::string S3Endpoint::object_name(const std::string& key) const {
    return "s3://" + m_bucket + "/" + key;
}

std::string escape_key(const std::string& key) {
    static constexpr char HEX[] = "0123456789ABCDEF";
    std::string escaped;
    escaped.reserve(key.size());
    for (const char c : key) {
        const auto byte = static_cast<unsigned char>(c);
        if (unreserved(byte) || c == '/') {
            escaped += c;
        } else {
            escaped += '%';
            escaped += HEX[byte >> 4];
            escaped += HEX[byte & 0xF];
        }
    }
    return escaped;
}

}  // namespace qm::archive
