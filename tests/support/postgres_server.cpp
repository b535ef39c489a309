#include "postgres_server.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "child_process.hpp"

namespace qm::test {
namespace {

constexpr int PORT = 5432;
constexpr const char* SUPERUSER = "qm";
constexpr const char* PASSWORD = "qm-test-password";
constexpr const char* SERVER_USER = "nobody";
constexpr const char* SERVER_GROUP = "nogroup";
// initdb, a start and a stop each take about a second; the margin is for a loaded machine.
constexpr std::chrono::seconds COMMAND_TIMEOUT{120};
// sun_path holds the socket's path and its terminating zero.
constexpr std::size_t SOCKET_PATH_LIMIT = sizeof(sockaddr_un::sun_path) - 1;

std::filesystem::path newest_bin_directory() {
    const std::filesystem::path root = "/usr/lib/postgresql";
    std::filesystem::path newest;
    int newest_version = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(root, error)) {
        const std::string name = entry.path().filename().string();
        int version = 0;
        const auto [end, parsed] = std::from_chars(name.data(), name.data() + name.size(), version);
        if (parsed == std::errc() && end == name.data() + name.size() && version > newest_version &&
            std::filesystem::exists(entry.path() / "bin" / "initdb")) {
            newest_version = version;
            newest = entry.path() / "bin";
        }
    }
    if (newest.empty()) {
        throw std::runtime_error("no PostgreSQL server programs in " + root.string() +
                                 " (Debian package postgresql)");
    }
    return newest;
}

void give_to_server_user(const std::filesystem::path& path) {
    const passwd* user = ::getpwnam(SERVER_USER);
    const group* group = ::getgrnam(SERVER_GROUP);
    if (user == nullptr || group == nullptr ||
        ::chown(path.c_str(), user->pw_uid, group->gr_gid) != 0) {
        throw std::runtime_error("cannot give " + path.string() + " to " + SERVER_USER + ":" +
                                 SERVER_GROUP + ": " + std::strerror(errno));
    }
}

void write_private_file(const std::filesystem::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    std::filesystem::permissions(
        path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

// Runs `binary` to its end; throws with its output (and `log`, when given) unless it exits with 0.
void run(const std::string& binary, const ProcessOptions& options,
         const std::filesystem::path& output_directory, const std::filesystem::path& log = {}) {
    ChildProcess process(binary, options, output_directory);
    const std::optional<ExitStatus> status = process.wait_exit(COMMAND_TIMEOUT);
    if (!status || !status->exited_with(0)) {
        std::string command = binary;
        for (const std::string& arg : options.args) {
            command += " " + arg;
        }
        throw std::runtime_error(command + ": " + (status ? status->describe() : "still running") +
                                 "\n" + process.standard_output() + process.standard_error() +
                                 (log.empty() ? "" : "server log:\n" + read_file(log)));
    }
}

// A value for postgresql.conf, in single quotes.
std::string configuration_string(const std::string& value) {
    std::string quoted = "'";
    for (const char c : value) {
        quoted += c == '\'' ? std::string("''") : std::string(1, c);
    }
    return quoted + "'";
}

// A field of a libpq password file: ':' and '\' are escaped with '\'.
std::string password_file_field(const std::string& value) {
    std::string escaped;
    for (const char c : value) {
        if (c == ':' || c == '\\') {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

std::string percent_encoded(const std::string& value) {
    static constexpr char HEX[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) || c == '-' || c == '.' || c == '_' || c == '~') {
            encoded += c;
        } else {
            encoded += '%';
            encoded += HEX[byte >> 4];
            encoded += HEX[byte & 0xF];
        }
    }
    return encoded;
}

}  // namespace

PostgresServer::PostgresServer(const std::filesystem::path& directory)
    : m_bin_directory(newest_bin_directory()),
      m_directory(directory / "postgres"),
      m_data_directory(m_directory / "data"),
      m_password_file(m_directory / "pgpass") {
    std::filesystem::permissions(directory, std::filesystem::perms::others_exec,
                                 std::filesystem::perm_options::add);
    std::filesystem::create_directory(m_directory);
    std::filesystem::permissions(m_directory, std::filesystem::perms::owner_all);
    give_to_server_user(m_directory);
    m_socket_directory = m_directory;
    const std::string socket_name = "/.s.PGSQL." + std::to_string(PORT);
    if (m_socket_directory.string().size() + socket_name.size() > SOCKET_PATH_LIMIT) {
        m_short_socket_directory.emplace();
        m_socket_directory = m_short_socket_directory->path();
        give_to_server_user(m_socket_directory);
    }
    write_private_file(m_password_file, password_file_field(m_socket_directory.string()) + ":" +
                                            std::to_string(PORT) + ":*:" + SUPERUSER + ":" +
                                            PASSWORD + "\n");
    create_cluster();
    start();
}

PostgresServer::~PostgresServer() {
    if (m_running) {
        try {
            stop();
        } catch (const std::exception&) {
            // A destructor cannot report it; the test has failed on its own account already.
        }
    }
}

void PostgresServer::create_cluster() const {
    const std::filesystem::path initdb_password = m_directory / "initdb.password";
    write_private_file(initdb_password, std::string(PASSWORD) + "\n");
    give_to_server_user(initdb_password);
    run_as_server_user(
        "initdb", {"--pgdata=" + m_data_directory.string(), std::string("--username=") + SUPERUSER,
                   "--pwfile=" + initdb_password.string(), "--auth=scram-sha-256",
                   "--encoding=UTF8", "--locale=C", "--no-sync", "--no-instructions"});
    std::filesystem::remove(initdb_password);
    // Later settings in postgresql.conf win over initdb's.
    std::ofstream(m_data_directory / "postgresql.conf", std::ios::app)
        << "listen_addresses = ''\n"
        << "unix_socket_directories = " << configuration_string(m_socket_directory.string()) << "\n"
        << "port = " << PORT << "\n"
        << "fsync = off\n"
        << "synchronous_commit = off\n"
        << "full_page_writes = off\n"
        << "wal_level = minimal\n"
        << "max_wal_senders = 0\n"
        << "shared_buffers = 16MB\n"
        << "max_connections = 20\n";
}

void PostgresServer::start() {
    run_as_server_user("pg_ctl", {"--pgdata=" + m_data_directory.string(),
                                  "--log=" + (m_directory / "server.log").string(), "--wait",
                                  "--timeout=" + std::to_string(COMMAND_TIMEOUT.count()), "start"});
    m_running = true;
}

void PostgresServer::stop() {
    run_as_server_user("pg_ctl", {"--pgdata=" + m_data_directory.string(), "--mode=fast", "--wait",
                                  "--timeout=" + std::to_string(COMMAND_TIMEOUT.count()), "stop"});
    m_running = false;
}

int PostgresServer::port() const {
    return PORT;
}

std::string PostgresServer::uri(const std::string& database) const {
    return std::string("postgresql://") + SUPERUSER + "@" +
           percent_encoded(m_socket_directory.string()) + ":" + std::to_string(PORT) + "/" +
           percent_encoded(database);
}

void PostgresServer::create_database(const std::string& name) const {
    ProcessOptions options;
    options.args = {"--host=" + m_socket_directory.string(),
                    "--port=" + std::to_string(PORT),
                    std::string("--username=") + SUPERUSER,
                    "--no-password",
                    "--",
                    name};
    options.environment = {"PGPASSFILE=" + m_password_file.string()};
    run((m_bin_directory / "createdb").string(), options, m_directory);
}

void PostgresServer::run_as_server_user(const std::string& program,
                                        const std::vector<std::string>& args) const {
    ProcessOptions options;
    options.args = {std::string("--reuid=") + SERVER_USER, std::string("--regid=") + SERVER_GROUP,
                    "--clear-groups", "--", (m_bin_directory / program).string()};
    options.args.insert(options.args.end(), args.begin(), args.end());
    // The programs look at their working directory, which root's may not let them.
    options.working_directory = m_directory.string();
    run("/usr/bin/setpriv", options, m_directory, m_directory / "server.log");
}

}  // namespace qm::test
