// Who may read the recordings: with storage_mode_mask every directory and file of the storage
// gets exactly 0777 and 0666 less the mask, in the foreground and in daemon mode alike, and a user
// outside the recorder's group cannot read a recording; without it they are what they always were.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "media/packet_encoder.hpp"
#include "orphan_reaper.hpp"
#include "recorder_e2e.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;

namespace {

constexpr int CALLS = 3;
constexpr std::uint32_t FRAMES = 2;
constexpr std::uint64_t MICROSECONDS_PER_MINUTE = 60'000'000;

// Sets the test process's umask, which the recorder started next inherits, and puts the old one
// back at the end of the test.
class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask) : m_previous(::umask(mask)) {}
    ~UmaskGuard() { ::umask(m_previous); }

    UmaskGuard(const UmaskGuard&) = delete;
    UmaskGuard& operator=(const UmaskGuard&) = delete;

private:
    mode_t m_previous;
};

// Call `index`: an id and uuid of its own, and a start a day, an hour and a minute after the one
// before, so that every level of the storage gets a directory per call.
StartFields call_start(int index) {
    StartFields start;
    start.header.id = static_cast<std::uint64_t>(index) + 1;
    start.header.uuid[15] = static_cast<std::uint8_t>(index);
    start.ts += static_cast<std::uint64_t>(index) * (24 * 60 + 60 + 1) * MICROSECONDS_PER_MINUTE;
    return start;
}

DataFields call_frame(const StartFields& start, std::uint32_t seq) {
    DataFields data;
    data.header.id = start.header.id;
    data.header.uuid = start.header.uuid;
    data.header.mt = start.header.mt + 20 * seq;
    data.seq = seq;
    data.off = (seq - 1) * 4;
    return data;
}

// The size of every call's file: the header and FRAMES frames.
std::uintmax_t call_file_size() {
    const StartFields start = call_start(0);
    std::uintmax_t size = encode_file_header(start).size();
    for (std::uint32_t seq = 1; seq <= FRAMES; ++seq) {
        size += encode_frame(call_frame(start, seq), start.sync_mt).size();
    }
    return size;
}

std::string octal(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode));
    return text;
}

// One entry of the storage as the file system has it.
struct Entry {
    std::filesystem::path path;
    bool directory = false;
    // The permission bits, in the form "0750".
    std::string mode;
    std::uintmax_t size = 0;
};

// The storage directory itself and everything under it.
std::vector<Entry> entries(const std::filesystem::path& root) {
    std::vector<Entry> found;
    const auto add = [&found](const std::filesystem::path& path) {
        struct stat status {};
        if (::lstat(path.c_str(), &status) == 0) {
            found.push_back({path, S_ISDIR(status.st_mode), octal(status.st_mode & 07777),
                             static_cast<std::uintmax_t>(status.st_size)});
        }
    };
    std::error_code error;
    if (!std::filesystem::is_directory(root, error)) {
        return found;
    }
    add(root);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root, error)) {
        add(entry.path());
    }
    return found;
}

std::vector<Entry> files_of(const std::vector<Entry>& all) {
    std::vector<Entry> files;
    for (const Entry& entry : all) {
        if (!entry.directory) {
            files.push_back(entry);
        }
    }
    return files;
}

class StorageModeE2eTest : public RecorderE2eTest {
protected:
    // The settings every recorder of these tests starts with; the cleanup stays off, so that a
    // full disk of the test machine cannot take the recordings away.
    std::string settings(const std::string& more) const {
        return "storage = " + storage().string() + "\nport = " + std::to_string(port) +
               "\nstorage_cleanup_policy = disabled\n" + more;
    }

    // Sends CALLS whole calls to the last recorder started and waits until each has its file.
    void record_calls() const {
        for (int index = 0; index < CALLS; ++index) {
            const StartFields start = call_start(index);
            send(encode_start(start));
            for (std::uint32_t seq = 1; seq <= FRAMES; ++seq) {
                send(encode_data(call_frame(start, seq)));
            }
            send(encode_terminate({start.header}));
        }
        const std::uintmax_t size = call_file_size();
        ASSERT_TRUE(poll_until(
            [&] {
                const std::vector<Entry> files = files_of(entries(storage()));
                return files.size() == CALLS &&
                       std::all_of(files.begin(), files.end(),
                                   [&](const Entry& file) { return file.size == size; });
            },
            TIMEOUT));
    }

    // The storage holds its root, four directories per call (day, hour, minute, uuid) and the
    // calls' files, each with exactly the mode given.
    void expect_modes(const std::string& directory_mode, const std::string& file_mode) const {
        const std::vector<Entry> all = entries(storage());
        const std::size_t files = files_of(all).size();
        EXPECT_EQ(files, static_cast<std::size_t>(CALLS));
        EXPECT_EQ(all.size() - files, static_cast<std::size_t>(1 + 4 * CALLS));
        for (const Entry& entry : all) {
            EXPECT_EQ(entry.mode, entry.directory ? directory_mode : file_mode) << entry.path;
        }
    }

    // What reading the first byte of a file as the user nobody gave.
    struct Reading {
        ExitStatus status;
        std::string output;
        std::string error;
    };

    // Reads the first byte of `file` as the user nobody, group nogroup, without supplementary
    // groups; the C locale keeps the error message in its known words.
    Reading read_as_nobody(const std::filesystem::path& file) {
        ChildProcess& reader =
            start_unprivileged({"LC_ALL=C", "head", "-c1", file.string()}, "/usr/bin/env");
        const ExitStatus status = finish(reader);
        return {status, reader.standard_output(), reader.standard_error()};
    }
};

TEST_F(StorageModeE2eTest, WithoutTheKeyDirectoriesAre0755AndFilesFollowTheUmask) {
    const UmaskGuard umask(022);
    pick_port();
    const std::string config = directory.write_file("writer.conf", settings(""));
    ChildProcess& process = start({"--config", config});
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();

    record_calls();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_modes("0755", "0644");
}

// The shell's umask 022 would leave the files readable by everybody.
TEST_F(StorageModeE2eTest, ForegroundWithMask027Makes0750And0640AndOthersCannotRead) {
    const UmaskGuard umask(022);
    pick_port();
    const std::string config =
        directory.write_file("writer.conf", settings("storage_mode_mask = 027\n"));
    ChildProcess& process = start({"--config", config});
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();

    record_calls();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_modes("0750", "0640");

    const std::vector<Entry> files = files_of(entries(storage()));
    ASSERT_EQ(files.size(), static_cast<std::size_t>(CALLS));
    const std::filesystem::path recording = files.front().path;
    const std::string refused =
        "head: cannot open '" + recording.string() + "' for reading: Permission denied\n";
    // The storage's directories already keep nobody out.
    const Reading as_recorded = read_as_nobody(recording);
    EXPECT_TRUE(as_recorded.status.exited_with(1)) << as_recorded.status.describe();
    EXPECT_EQ(as_recorded.error, refused);
    // With every directory on the way open to others, the file's own mode still does.
    for (std::filesystem::path path = recording.parent_path(); path != directory.path();
         path = path.parent_path()) {
        std::filesystem::permissions(path, std::filesystem::perms::others_exec,
                                     std::filesystem::perm_options::add);
    }
    const Reading directories_open = read_as_nobody(recording);
    EXPECT_TRUE(directories_open.status.exited_with(1)) << directories_open.status.describe();
    EXPECT_EQ(directories_open.error, refused);
    // The same reader gets the file once others may read it.
    std::filesystem::permissions(recording, std::filesystem::perms::others_read,
                                 std::filesystem::perm_options::add);
    const Reading readable = read_as_nobody(recording);
    EXPECT_TRUE(readable.status.exited_with(0)) << readable.status.describe();
    EXPECT_EQ(readable.error, "");
    EXPECT_EQ(readable.output, read_file(recording).substr(0, 1));
}

// The mask replaces the umask rather than adding to it: a mask of 0 opens what a stricter umask
// would have closed.
TEST_F(StorageModeE2eTest, MaskZeroMakes0777And0666UnderUmask077) {
    const UmaskGuard umask(077);
    pick_port();
    const std::string config =
        directory.write_file("writer.conf", settings("storage_mode_mask = 0\n"));
    ChildProcess& process = start({"--config", config});
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();

    record_calls();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_modes("0777", "0666");
}

// Daemon mode clears the umask after the fork: the key must win over that too.
TEST_F(StorageModeE2eTest, DaemonWithMask027Makes0750And0640) {
    OrphanReaper reaper;
    pick_port();
    const std::string config =
        directory.write_file("writer.conf", settings("storage_mode_mask = 027\n"));
    const std::filesystem::path pid_file = directory.path() / "daemon.pid";
    ChildProcess& parent = start({"--daemon", "--pid-file", pid_file.string(), "--config", config});
    const ExitStatus parent_status = finish(parent);
    ASSERT_TRUE(parent_status.exited_with(0)) << parent_status.describe();
    ASSERT_TRUE(poll_until([&] { return !read_file(pid_file).empty(); }, TIMEOUT)) << "no pid file";
    const pid_t daemon = static_cast<pid_t>(std::stol(read_file(pid_file)));
    // Datagrams sent once the socket is bound wait in it until the packet reader runs.
    ASSERT_TRUE(poll_until([&] { return udp_queue(port).has_value(); }, TIMEOUT));

    record_calls();
    ASSERT_EQ(::kill(daemon, SIGTERM), 0);
    const std::optional<ExitStatus> daemon_status = reaper.wait_for(daemon, TIMEOUT);

    ASSERT_TRUE(daemon_status.has_value()) << "the daemon did not end";
    EXPECT_TRUE(daemon_status->exited_with(0)) << daemon_status->describe();
    expect_modes("0750", "0640");
}

}  // namespace
}  // namespace qm::test
