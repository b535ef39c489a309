#include "net/nft_port_rule.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "log/logger.hpp"
#include "net/system_error.hpp"

extern char** environ;

namespace qm::net {
namespace {

std::string table_name(std::uint16_t port) {
    return "quillmarwriter_" + std::to_string(port);
}

std::string dotted(std::uint32_t address) {
    std::ostringstream text;
    text << (address >> 24) << '.' << (address >> 16 & 0xff) << '.' << (address >> 8 & 0xff) << '.'
         << (address & 0xff);
    return text.str();
}

int prefix_length(std::uint32_t mask) {
    return __builtin_popcount(mask);
}

// Writes all of `text` to `fd`; false at the first error.
bool write_all(int fd, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        written += static_cast<std::size_t>(count);
    }
    return true;
}

// Runs `nft -f -` with `ruleset` on its standard input. Returns nft's exit status, or -1 with
// `error` set when it could not be run (its own messages go to the recorder's standard error).
int run_nft(const std::string& ruleset, int& error) {
    error = 0;
    int input[2];
    if (::pipe2(input, O_CLOEXEC) != 0) {
        error = errno;
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    // The recorder's handlers and blocked signals are not nft's.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    char* const argv[] = {const_cast<char*>(NftPortRule::NFT_PROGRAM), const_cast<char*>("-f"),
                          const_cast<char*>("-"), nullptr};
    pid_t child = 0;
    const int spawned =
        ::posix_spawn(&child, NftPortRule::NFT_PROGRAM, &actions, &attributes, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(input[0]);
    if (spawned != 0) {
        ::close(input[1]);
        error = spawned;
        return -1;
    }
    // A failed write shows as nft's own failure to read a whole ruleset.
    static_cast<void>(write_all(input[1], ruleset));
    ::close(input[1]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            error = errno;
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

NftPortRule::~NftPortRule() {
    remove();
}

std::string NftPortRule::ruleset(std::uint16_t port, const SourceFilter& allowed) {
    const std::string table = "ip " + table_name(port);
    std::ostringstream text;
    // Declaring the table first makes the delete succeed whether or not one was left behind.
    text << "table " << table << "\ndelete table " << table << "\ntable " << table << " {\n"
         << "    chain prerouting {\n"
         << "        type filter hook prerouting priority raw; policy accept;\n"
         << "        meta pkttype host fib daddr type local ip frag-off & 0x3fff == 0";
    if (!allowed.empty()) {
        text << " ip saddr {";
        const char* separator = " ";
        for (const SourceFilter::Network& network : allowed.networks()) {
            text << separator << dotted(network.address) << '/' << prefix_length(network.mask);
            separator = ", ";
        }
        text << " }";
    }
    text << " udp dport " << port << " drop\n    }\n}\n";
    return text.str();
}

bool NftPortRule::add(std::uint16_t port, const SourceFilter& allowed) {
    int error = 0;
    const int status = run_nft(ruleset(port, allowed), error);
    if (status != 0) {
        std::ostringstream reason;
        if (status < 0) {
            reason << "cannot run " << NFT_PROGRAM << ", " << SystemError{error};
        } else {
            reason << "nft exit status " << status;
        }
        QM_LOG_WARNING("NFT_PORT_RULE: failed to add the rule for port "
                       << port << ", " << reason.str()
                       << "; draining the socket instead (the rule needs nft and CAP_NET_ADMIN)");
        return false;
    }
    m_table = table_name(port);
    QM_LOG_SYSTEM("NFT_PORT_RULE: datagrams to port " << port
                                                      << " that the ring takes stop before UDP "
                                                         "(nftables table ip "
                                                      << m_table << ")");
    return true;
}

void NftPortRule::remove() {
    if (m_table.empty()) {
        return;
    }
    int error = 0;
    const int status = run_nft("delete table ip " + m_table + "\n", error);
    if (status != 0) {
        QM_LOG_WARNING("NFT_PORT_RULE: failed to delete the nftables table ip "
                       << m_table << "; delete it with: nft delete table ip " << m_table);
    }
    m_table.clear();
}

}  // namespace qm::net
