// `quillmar passwd` as an operator runs it, with the password on standard input.

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "poll.hpp"
#include "recorder_e2e.hpp"
#include "web/users_file.hpp"

namespace qm::test {
namespace {

constexpr std::chrono::seconds DEADLINE(60);

// Reads what the program on the terminal `master` writes into `transcript` until it ends with
// `prompt` (or, with an empty prompt, until the program closes the terminal); false when the
// deadline passes first.
bool read_until(int master, std::string& transcript, const std::string& prompt) {
    const auto deadline = std::chrono::steady_clock::now() + DEADLINE;
    while (prompt.empty() || !transcript.ends_with(prompt)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd readable{master, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) {
            return false;
        }
        char buffer[256];
        const ssize_t got = ::read(master, buffer, sizeof buffer);
        if (got <= 0) {
            // EIO once the program has closed its side.
            return prompt.empty();
        }
        transcript.append(buffer, static_cast<std::size_t>(got));
    }
    return true;
}

class PasswdE2eTest : public RecorderE2eTest {
protected:
    // `quillmar passwd FILE NAME` with `input` on standard input (through a file, so that the
    // password is on no command line).
    ToolRun passwd(const std::string& name, const std::string& input) {
        const std::string input_file = directory.write_file("input", input);
        ChildProcess& tool = start_program("/bin/sh",
                                           {"-c", "exec \"$0\" passwd \"$1\" \"$2\" < \"$3\"",
                                            QM_TOOL_PATH, users(), name, input_file},
                                           {});
        const std::optional<ExitStatus> status = tool.wait_exit(std::chrono::seconds(60));
        EXPECT_TRUE(status.has_value()) << "quillmar did not end";
        return {status.value_or(ExitStatus{}), tool.standard_output(), tool.standard_error()};
    }

    // How `quillmar passwd` on a terminal ended, and everything the terminal showed.
    struct TerminalRun {
        ExitStatus status;
        std::string transcript;
    };

    // `quillmar passwd FILE NAME` on a pseudo-terminal: for each (prompt, line) of `dialogue`,
    // waits for the prompt and types the line.
    TerminalRun passwd_on_terminal(
        const std::string& name, const std::vector<std::pair<std::string, std::string>>& dialogue) {
        std::vector<std::string> args = {QM_TOOL_PATH, "passwd", users(), name};
        std::vector<char*> argv;
        for (std::string& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        int master = -1;
        const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
        if (pid == 0) {
            ::execv(QM_TOOL_PATH, argv.data());
            ::_exit(127);
        }
        EXPECT_GT(pid, 0) << "forkpty failed";
        TerminalRun run;
        for (const auto& [prompt, line] : dialogue) {
            EXPECT_TRUE(read_until(master, run.transcript, prompt)) << run.transcript;
            EXPECT_EQ(::write(master, line.data(), line.size()), static_cast<ssize_t>(line.size()));
        }
        EXPECT_TRUE(read_until(master, run.transcript, "")) << run.transcript;
        ::close(master);
        int status = 0;
        EXPECT_TRUE(poll_until([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, DEADLINE));
        run.status = ExitStatus::from_wait_status(status);
        return run;
    }

    std::string users() const { return (directory.path() / "users").string(); }

    web::UsersFile load_users() const {
        std::string error;
        std::optional<web::UsersFile> loaded = web::UsersFile::load(users(), error);
        EXPECT_TRUE(loaded) << error;
        return loaded.value_or(web::UsersFile());
    }
};

TEST_F(PasswdE2eTest, AddsAUserToANewFileAndThenChangesThePassword) {
    const ToolRun added = passwd("anna", "first secret\n");
    EXPECT_TRUE(added.status.exited_with(0)) << added.status.describe() << added.err;
    EXPECT_EQ(added.out, "user anna added\n");
    EXPECT_EQ(added.err, "");
    struct stat status {};
    ASSERT_EQ(::stat(users().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_TRUE(read_file(users()).starts_with("anna:$argon2id$")) << read_file(users());
    EXPECT_TRUE(load_users().verify("anna", "first secret"));

    const ToolRun more = passwd("bob", "bob's secret");
    EXPECT_TRUE(more.status.exited_with(0)) << more.status.describe() << more.err;
    EXPECT_EQ(more.out, "user bob added\n");

    const ToolRun changed = passwd("anna", "second secret\n");
    EXPECT_TRUE(changed.status.exited_with(0)) << changed.status.describe() << changed.err;
    EXPECT_EQ(changed.out, "user anna changed\n");
    EXPECT_EQ(changed.err, "");
    const web::UsersFile users = load_users();
    EXPECT_EQ(users.size(), 2u);
    EXPECT_FALSE(users.verify("anna", "first secret"));
    EXPECT_TRUE(users.verify("anna", "second secret"));
    EXPECT_TRUE(users.verify("bob", "bob's secret"));
}

TEST_F(PasswdE2eTest, OnATerminalAsksTwiceWithoutEcho) {
    const TerminalRun added = passwd_on_terminal(
        "anna", {{"password for anna: ", "typed secret\n"}, {"again: ", "typed secret\n"}});
    EXPECT_TRUE(added.status.exited_with(0)) << added.status.describe();
    // The terminal turns the program's line ends into "\r\n"; the password never shows.
    EXPECT_EQ(added.transcript, "password for anna: \r\nagain: \r\nuser anna added\r\n");
    EXPECT_TRUE(load_users().verify("anna", "typed secret"));

    const TerminalRun differ = passwd_on_terminal(
        "anna", {{"password for anna: ", "new secret\n"}, {"again: ", "new secreT\n"}});
    EXPECT_TRUE(differ.status.exited_with(2)) << differ.status.describe();
    EXPECT_EQ(differ.transcript,
              "password for anna: \r\nagain: \r\n"
              "quillmar passwd: the passwords differ; nothing changed\r\n");
    EXPECT_TRUE(load_users().verify("anna", "typed secret"));
}

TEST_F(PasswdE2eTest, RefusesAnEmptyOrMissingPasswordAndABadName) {
    const ToolRun empty = passwd("anna", "\n");
    EXPECT_TRUE(empty.status.exited_with(2)) << empty.status.describe();
    EXPECT_EQ(empty.out, "");
    EXPECT_EQ(empty.err, "quillmar passwd: an empty password is refused\n");

    const ToolRun none = passwd("anna", "");
    EXPECT_TRUE(none.status.exited_with(2)) << none.status.describe();
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.err, "quillmar passwd: no password given\n");

    const ToolRun bad = passwd("an/na", "secret\n");
    EXPECT_TRUE(bad.status.exited_with(2)) << bad.status.describe();
    EXPECT_EQ(bad.out, "");
    EXPECT_EQ(bad.err, "quillmar passwd: the name \"an/na\" is not 1 to 64 of A-Z a-z 0-9 . _ -\n");
    EXPECT_FALSE(std::filesystem::exists(users()));
}

TEST_F(PasswdE2eTest, ABadUsersFileIsLeftAsItIs) {
    directory.write_file("users", "anna:$argon2id$x\nbob\n");
    const ToolRun run = passwd("carl", "secret\n");
    EXPECT_TRUE(run.status.exited_with(2)) << run.status.describe();
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "quillmar passwd: " + users() + " line 2: not \"name:hash\"\n");
    EXPECT_EQ(read_file(users()), "anna:$argon2id$x\nbob\n");
}

}  // namespace
}  // namespace qm::test
