#include "s3_server.hpp"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace qm::test {
namespace {

// node loads s3rver in about half a second; the margin is for a loaded machine.
constexpr std::chrono::seconds START_TIMEOUT{60};
constexpr std::chrono::seconds STOP_TIMEOUT{30};
constexpr const char* LISTENING = "listening on 127.0.0.1:";

std::string find_node() {
    const char* path = std::getenv("PATH");
    std::istringstream directories(path == nullptr ? "/usr/bin" : path);
    std::string directory;
    while (std::getline(directories, directory, ':')) {
        const std::string candidate = directory + "/node";
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    throw std::runtime_error("node is not installed (Debian package nodejs)");
}

}  // namespace

S3Server::S3Server(const std::filesystem::path& directory, const std::string& bucket)
    : m_directory(directory / "s3"), m_bucket(bucket) {
    std::filesystem::create_directories(m_directory / "output");
    launch();
}

S3Server::~S3Server() = default;

void S3Server::launch() {
    ProcessOptions options;
    options.args = {QM_S3_STORE_SCRIPT, (m_directory / "data").string(), std::to_string(m_port),
                    m_bucket, (m_directory / "requests.log").string()};
    m_process = std::make_unique<ChildProcess>(find_node(), options, m_directory / "output");
    if (!m_process->wait_for_line(LISTENING, START_TIMEOUT)) {
        const std::string output = m_process->standard_error();
        m_process.reset();
        throw std::runtime_error(
            "the S3 store did not start (scripts/install-deps.sh installs it):\n" + output);
    }
    if (m_port == 0) {
        const std::string output = m_process->standard_error();
        m_port = std::stoi(output.substr(output.find(LISTENING) + std::string(LISTENING).size()));
    }
}

void S3Server::stop() {
    m_process->send_signal(SIGTERM);
    if (!m_process->wait_exit(STOP_TIMEOUT)) {
        throw std::runtime_error("the S3 store did not stop on SIGTERM");
    }
    m_process.reset();
}

void S3Server::start() {
    launch();
}

std::string S3Server::endpoint() const {
    return "http://127.0.0.1:" + std::to_string(m_port);
}

std::string S3Server::virtual_hosted_endpoint() const {
    return "http://s3.localhost:" + std::to_string(m_port);
}

std::vector<std::string> S3Server::requests() const {
    return split_lines(read_file(m_directory / "requests.log"));
}

std::size_t S3Server::count_requests(const std::string& line) const {
    const std::vector<std::string> lines = requests();
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
}

std::filesystem::path S3Server::object_file(const std::string& key) const {
    return m_directory / "data" / m_bucket / (key + "._S3rver_object");
}

}  // namespace qm::test
