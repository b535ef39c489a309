#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "child_process.hpp"

namespace qm::test {

// A throwaway S3-compatible store for one test: s3rver (tests/s3, installed there by
// scripts/install-deps.sh) run by node through tests/s3/store.js, which adds the Signature
// Version 4 check and the Content-MD5 check that s3rver lacks.
//
// It listens on 127.0.0.1 on a port it chose itself, keeps its objects under
// `<directory>/s3/data` and has one bucket, `bucket()`. The access key and secret it accepts are
// s3rver's own: "S3RVER" and "S3RVER"; a temporary key, "S3RVERTEMP" with the same secret,
// needs the session token "S3RVERTOKEN" too (anything else is refused with InvalidToken).
// Virtual-hosted requests reach it through `virtual_hosted_endpoint()` (BUCKET.s3.localhost, which
// libcurl resolves to the loopback address itself).
//
// Its request log has one line per request, "METHOD /BUCKET/ESCAPED-KEY STATUS", e.g.
// "PUT /qm-archive/day/a%20b 200", in the order the answers were sent; " virtual-hosted" follows
// when the request named the bucket in its host name.
//
// Threads: used from the test's own thread only.
class S3Server {
public:
    // Starts the store and waits until it answers; throws std::runtime_error with its output when
    // it does not start.
    // REQUIRES: `directory` exists; node and tests/s3/node_modules are installed.
    S3Server(const std::filesystem::path& directory, const std::string& bucket);
    // Kills the store if it runs.
    ~S3Server();

    S3Server(const S3Server&) = delete;
    S3Server& operator=(const S3Server&) = delete;

    // Stops the store (SIGTERM) and waits until it has gone; objects and the request log stay.
    // REQUIRES: the store runs.
    void stop();
    // Starts the stopped store again on the same port and directory and waits until it answers.
    // REQUIRES: the store is stopped.
    void start();

    int port() const { return m_port; }
    const std::string& bucket() const { return m_bucket; }
    // "http://127.0.0.1:PORT", for path-style addressing.
    std::string endpoint() const;
    // "http://s3.localhost:PORT", for virtual-hosted addressing.
    std::string virtual_hosted_endpoint() const;
    static std::string access_key_id() { return "S3RVER"; }
    static std::string secret_access_key() { return "S3RVER"; }
    static std::string temporary_access_key_id() { return "S3RVERTEMP"; }
    static std::string temporary_secret_access_key() { return "S3RVERTEMP"; }
    static std::string session_token() { return "S3RVERTOKEN"; }

    // The request log's lines so far.
    std::vector<std::string> requests() const;
    // How many lines of the request log equal `line` ("PUT /qm-archive/k 200").
    std::size_t count_requests(const std::string& line) const;
    // The file in which the store keeps the bytes of the object `key`.
    std::filesystem::path object_file(const std::string& key) const;

private:
    // Starts node on `m_port` (0: any free port) and waits for its "listening on" line.
    void launch();

    std::filesystem::path m_directory;
    std::string m_bucket;
    int m_port = 0;
    std::unique_ptr<ChildProcess> m_process;
};

}  // namespace qm::test
