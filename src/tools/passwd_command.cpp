#include <sodium.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "tools/tool_commands.hpp"
#include "web/users_file.hpp"

namespace qm::tools {
namespace {

struct PasswdOptions {
    std::string file;
    std::string name;
};

// A password held in memory, wiped when it goes.
class Secret {
public:
    Secret() = default;
    ~Secret() { ::sodium_memzero(text.data(), text.size()); }
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    std::string text;
};

// The terminal on standard input with its echo off while this lives.
class EchoOff {
public:
    EchoOff() {
        m_saved = ::tcgetattr(STDIN_FILENO, &m_old) == 0;
        if (m_saved) {
            termios quiet = m_old;
            quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
        }
    }
    ~EchoOff() {
        if (m_saved) {
            ::tcsetattr(STDIN_FILENO, TCSANOW, &m_old);
        }
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    termios m_old{};
    bool m_saved = false;
};

// One line of standard input into `secret`, after `prompt` on standard error when it is a terminal
// (which then does not echo it); false at the end of input.
bool read_line(const std::string& prompt, bool terminal, Secret& secret) {
    if (!terminal) {
        return static_cast<bool>(std::getline(std::cin, secret.text));
    }
    // Echo goes off before the prompt: what was typed before it is discarded, not read unseen.
    const EchoOff quiet;
    std::cerr << prompt << std::flush;
    const bool read = static_cast<bool>(std::getline(std::cin, secret.text));
    // The line end the user typed was not echoed.
    std::cerr << std::endl;
    return read;
}

// The new password, into `password`: from the terminal, typed twice, or one line of standard
// input. 0, or the exit status with the reason on standard error.
int read_password(const std::string& name, Secret& password) {
    const bool terminal = ::isatty(STDIN_FILENO) == 1;
    if (!read_line("password for " + name + ": ", terminal, password)) {
        std::cerr << "quillmar passwd: no password given" << std::endl;
        return 2;
    }
    if (password.text.empty()) {
        std::cerr << "quillmar passwd: an empty password is refused" << std::endl;
        return 2;
    }
    if (terminal) {
        Secret again;
        if (!read_line("again: ", terminal, again) || again.text != password.text) {
            std::cerr << "quillmar passwd: the passwords differ; nothing changed" << std::endl;
            return 2;
        }
    }
    return 0;
}

int run_passwd(const PasswdOptions& options) {
    if (!web::UsersFile::valid_name(options.name)) {
        std::cerr << "quillmar passwd: the name \"" << options.name
                  << "\" is not 1 to 64 of A-Z a-z 0-9 . _ -" << std::endl;
        return 2;
    }
    std::string error;
    std::optional<web::UsersFile> users;
    if (std::filesystem::exists(options.file)) {
        users = web::UsersFile::load(options.file, error);
    } else {
        users.emplace();
    }
    if (!users) {
        std::cerr << "quillmar passwd: " << error << std::endl;
        return 2;
    }
    Secret password;
    if (const int status = read_password(options.name, password); status != 0) {
        return status;
    }
    const bool added = users->set(options.name, password.text);
    if (!users->save(options.file, error)) {
        std::cerr << "quillmar passwd: " << error << std::endl;
        return 1;
    }
    std::cout << "user " << options.name << (added ? " added" : " changed") << std::endl;
    return 0;
}

}  // namespace

void add_passwd_command(CLI::App& app, int& status) {
    auto options = std::make_shared<PasswdOptions>();
    CLI::App* command = app.add_subcommand(
        "passwd",
        "add a user of `quillmar serve` or change a password (read from the terminal, "
        "or one line of standard input)");
    command->add_option("FILE", options->file, "the users file; created when missing")->required();
    command->add_option("NAME", options->name, "the user's name: 1 to 64 of A-Z a-z 0-9 . _ -")
        ->required();
    command->callback([options, &status] { status = run_passwd(*options); });
}

}  // namespace qm::tools
