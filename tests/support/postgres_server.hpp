#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "temp_directory.hpp"

namespace qm::test {

// A throwaway PostgreSQL server for one test, built from the installed server programs
// (/usr/lib/postgresql/<newest version>/bin); the packaged cluster is never used.
//
// The cluster lives in `<directory>/postgres`, owned by the user `nobody` (group `nogroup`), which
// runs initdb, pg_ctl and the server: PostgreSQL refuses to run as root. The server listens only
// on a Unix socket in that directory (no TCP), on the port `port()`. When the socket's path would
// exceed the 107 bytes a Unix socket address holds, the socket goes to a short directory
// (a TempDirectory, /tmp/qm_test_XXXXXX) instead, removed with the server.
//
// The superuser is `qm` with a password (scram-sha-256 for every connection); `password_file()`
// is a libpq password file (mode 0600, owned by the test's user) that holds it, for `PGPASSFILE`.
// The cluster trades durability for a fast start (fsync off, small memory).
//
// Threads: used from the test's own thread only.
class PostgresServer {
public:
    // Creates the cluster and starts the server; throws std::runtime_error, with the programs'
    // output and the server log, when either fails. Makes `directory` searchable by others (not
    // readable), so that `nobody` reaches the cluster under it.
    // REQUIRES: `directory` exists; `nobody` can search every directory above it; the test runs
    // as root.
    explicit PostgresServer(const std::filesystem::path& directory);
    // Stops the server if it runs (fast shutdown: open connections are closed).
    ~PostgresServer();

    PostgresServer(const PostgresServer&) = delete;
    PostgresServer& operator=(const PostgresServer&) = delete;

    // Stops the server (fast shutdown) and waits until it has gone; the data stays.
    // REQUIRES: the server runs.
    void stop();
    // Starts the stopped server again on the same socket and waits until it accepts connections.
    // REQUIRES: the server is stopped.
    void start();

    const std::filesystem::path& socket_directory() const { return m_socket_directory; }
    int port() const;
    // The libpq password file that holds `qm`'s password for this server.
    const std::filesystem::path& password_file() const { return m_password_file; }
    // "postgresql://qm@%2Fpath%2Fto%2Fsocket:PORT/DATABASE": the socket directory as the host,
    // percent-encoded; no password (it comes from `password_file()`).
    std::string uri(const std::string& database) const;

    // Creates an empty database owned by `qm`; throws std::runtime_error when createdb fails.
    // REQUIRES: the server runs.
    void create_database(const std::string& name) const;

private:
    // Runs one of the server programs as `nobody`; throws with its output when it fails.
    void run_as_server_user(const std::string& program, const std::vector<std::string>& args) const;
    void create_cluster() const;

    std::filesystem::path m_bin_directory;
    std::filesystem::path m_directory;
    std::filesystem::path m_data_directory;
    // Only when the socket path under `m_directory` would be too long; removed after the stop.
    std::optional<TempDirectory> m_short_socket_directory;
    std::filesystem::path m_socket_directory;
    std::filesystem::path m_password_file;
    bool m_running = false;
};

}  // namespace qm::test
