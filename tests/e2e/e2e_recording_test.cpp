// The running recorder's files: legs sent over loopback end up, byte for byte, in their media
// files. Every expected file is spelled here from the fields of the packets sent, never by the
// recorder's own writer code.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "media/packet_encoder.hpp"
#include "recorder_e2e.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::uint16_t SAMPLES = 160;  // 20 ms at 8 kHz
constexpr std::uint64_t SYNC_MT = 700;

// One call leg as sent: its start packet, its data packets in sending order, its terminate.
struct Leg {
    StartFields start;
    std::vector<DataFields> frames;

    TerminateFields terminate() const {
        TerminateFields fields;
        fields.header.id = start.header.id;
        fields.header.uuid = start.header.uuid;
        fields.header.mt = frames.empty() ? start.header.mt : frames.back().header.mt + 20;
        return fields;
    }

    // The file as the recorder must write it: the header, then every frame in sending order.
    Datagram expected(std::size_t frame_count) const {
        Datagram bytes = encode_file_header(start);
        for (std::size_t i = 0; i < frame_count; ++i) {
            const Datagram frame = encode_frame(frames[i], start.sync_mt);
            bytes.insert(bytes.end(), frame.begin(), frame.end());
        }
        return bytes;
    }
    Datagram expected() const { return expected(frames.size()); }

    // How many frames `stored` holds when it is the file as expected with some whole frames left
    // out (those whose datagrams never arrived); nothing when it is anything else.
    std::optional<std::size_t> frames_kept(const Datagram& stored) const {
        const Datagram header = encode_file_header(start);
        if (stored.size() < header.size() ||
            !std::equal(header.begin(), header.end(), stored.begin())) {
            return std::nullopt;
        }
        std::size_t at = header.size();
        std::size_t kept = 0;
        for (const DataFields& data : frames) {
            const Datagram frame = encode_frame(data, start.sync_mt);
            if (stored.size() - at >= frame.size() &&
                std::equal(frame.begin(), frame.end(), stored.begin() + static_cast<long>(at))) {
                at += frame.size();
                ++kept;
            }
        }
        return at == stored.size() ? std::optional(kept) : std::nullopt;
    }

    // <UTC day>/<hour>/<minute>/<uuid>/media.qm of the start packet's time stamp.
    std::string relative_path() const {
        const time_t seconds = static_cast<time_t>(start.ts / 1000000);
        tm utc{};
        gmtime_r(&seconds, &utc);
        char day[64];
        std::strftime(day, sizeof day, "%Y-%m-%d/%H/%M/", &utc);
        return day + uuid_text() + "/media.qm";
    }

    std::string uuid_text() const {
        std::string text;
        for (std::size_t i = 0; i < start.header.uuid.size(); ++i) {
            char hex[3];
            std::snprintf(hex, sizeof hex, "%02x", start.header.uuid[i]);
            text += (i == 4 || i == 6 || i == 8 || i == 10) ? "-" : "";
            text += hex;
        }
        return text;
    }
};

// Leg `index` (from 0): id index + 1, a uuid ending in the index, `per_side` frames of SAMPLES
// samples on each side, the sides alternating, the samples spelling the leg, side and frame.
Leg make_leg(int index, int per_side, std::uint8_t ft0 = 0x80) {
    Leg leg;
    leg.start.header.id = static_cast<std::uint64_t>(index) + 1;
    leg.start.header.uuid[14] = static_cast<std::uint8_t>(index >> 8);
    leg.start.header.uuid[15] = static_cast<std::uint8_t>(index);
    leg.start.ft = {ft0, 0x00};
    leg.start.sync_mt = SYNC_MT;
    for (int frame = 0; frame < per_side; ++frame) {
        for (std::uint16_t side = 0; side < 2; ++side) {
            DataFields data;
            data.header.id = leg.start.header.id;
            data.header.uuid = leg.start.header.uuid;
            data.header.flags = side;
            data.header.mt = SYNC_MT + 20 * static_cast<std::uint64_t>(frame + 1);
            data.seq = static_cast<std::uint32_t>(frame + 1);
            data.off = static_cast<std::uint32_t>(frame) * SAMPLES;
            data.payload.resize(SAMPLES);
            for (std::uint16_t i = 0; i < SAMPLES; ++i) {
                data.payload[i] = static_cast<std::uint16_t>(index * 7 + side * 3 + frame + i);
            }
            leg.frames.push_back(data);
        }
    }
    return leg;
}

Datagram file_bytes(const std::filesystem::path& path) {
    const std::string text = read_file(path);
    return Datagram(text.begin(), text.end());
}

class RecordingE2eTest : public RecorderE2eTest {
protected:
    // Sends one datagram; every BATCH datagrams it waits until the recorder's socket is empty,
    // so that a busy machine does not make the kernel drop what a test counts on.
    void send_paced(const Datagram& datagram) {
        constexpr int BATCH = 50;
        send(datagram);
        if (++m_in_batch == BATCH) {
            m_in_batch = 0;
            EXPECT_TRUE(wait_drained());
        }
    }

    // Sends the whole leg, or only its start and frames when `terminate` is false.
    void send_leg(const Leg& leg, bool terminate = true) {
        send_paced(encode_start(leg.start));
        for (const DataFields& frame : leg.frames) {
            send_paced(encode_data(frame));
        }
        if (terminate) {
            send_paced(encode_terminate(leg.terminate()));
        }
    }

    // Waits until the recorder has logged `count` terminate packets: everything sent before them
    // has been handed to the sessions by then.
    bool wait_terminated(const ChildProcess& process, std::size_t count) {
        return poll_until(
            [&] {
                std::size_t seen = 0;
                for (const std::string& line : process.error_lines()) {
                    seen += line.find("| TERM  | ") != std::string::npos ? 1 : 0;
                }
                return seen >= count;
            },
            TIMEOUT);
    }

    std::filesystem::path file_of(const Leg& leg) const { return storage() / leg.relative_path(); }

    // Every regular file under the storage directory.
    std::vector<std::filesystem::path> stored_files() const {
        std::vector<std::filesystem::path> files;
        if (std::filesystem::exists(storage())) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(storage())) {
                if (entry.is_regular_file()) {
                    files.push_back(entry.path());
                }
            }
        }
        return files;
    }

private:
    int m_in_batch = 0;
};

TEST_F(RecordingE2eTest, OneLegIsRecordedByteForByte) {
    ChildProcess& process = start_recorder();
    Leg leg = make_leg(0, 0);
    leg.start.ft = {0x40, 0x00};
    const auto frame = [&](std::uint16_t side, std::uint32_t seq, std::uint32_t off,
                           std::uint64_t mt, std::uint16_t samples) {
        DataFields data;
        data.header.id = leg.start.header.id;
        data.header.uuid = leg.start.header.uuid;
        data.header.flags = side;
        data.header.mt = mt;
        data.seq = seq;
        data.off = off;
        data.payload.assign(samples, static_cast<std::uint16_t>(0x0101 * seq + side));
        return data;
    };
    leg.frames = {
        frame(0, 1, 0, SYNC_MT + 20, 160),
        frame(1, 1, 0, SYNC_MT + 20, 80),
        frame(0, 2, 160, SYNC_MT + 40, 0),                   // no samples: a frame header alone
        frame(1, 2, 80, SYNC_MT - 100, 3),                   // before `sync mt`: the time wraps
        frame(0, 3, 4000, SYNC_MT + (1ull << 32) + 5, 663),  // far above: wraps to 5
    };

    send_leg(leg);
    ASSERT_TRUE(wait_terminated(process, 1)) << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(file_bytes(file_of(leg)), leg.expected());
    EXPECT_EQ(stored_files().size(), 1u);
}

TEST_F(RecordingE2eTest, LegWithoutRecordingBitsLeavesNoTrace) {
    ChildProcess& process = start_recorder();
    Leg leg = make_leg(0, 3, 0x3F);
    leg.start.header.uuid = {'l', 'e', 'g', '-', 'w', 'i', 't', 'h',
                             'o', 'u', 't', '-', 'r', 'e', 'c', '!'};
    for (DataFields& frame : leg.frames) {
        frame.header.uuid = leg.start.header.uuid;
    }

    send_leg(leg);
    ASSERT_TRUE(wait_terminated(process, 1)) << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const std::vector<LogLine> lines = log_lines(process);
    EXPECT_EQ(texts(lines, "WARNING", "writing_manager.cpp"),
              std::vector<std::string>{
                  "WRITING_MANAGER: leg-without-rec!: recording is off for the session"});
    EXPECT_TRUE(std::filesystem::is_directory(storage()));
    EXPECT_TRUE(std::filesystem::is_empty(storage()));
}

// 200 legs sent interleaved, a frame of each in turn, at about 5000 packets/s, and one long leg
// (250 frames a side, 166000 bytes) that spans several buffers. A frame missing from a file must
// be one the kernel dropped on the recorder's socket, and counted there.
TEST_F(RecordingE2eTest, TwoHundredConcurrentLegsAreWholeOrTheKernelCountedTheLoss) {
    constexpr int LEGS = 200;
    constexpr int PER_SIDE = 50;
    ChildProcess& process = start_recorder();
    std::vector<Leg> legs;
    for (int index = 0; index < LEGS; ++index) {
        legs.push_back(make_leg(index, PER_SIDE));
    }
    legs.push_back(make_leg(LEGS, 250));
    const std::optional<UdpQueue> before = udp_queue(port);
    ASSERT_TRUE(before.has_value());

    UdpSender sender(port);
    auto paced = [&, next = Clock::now()](const Datagram& datagram) mutable {
        sender.send(datagram);
        next += 200us;
        std::this_thread::sleep_until(next);
    };
    std::uint64_t data_sent = 0;
    for (const Leg& leg : legs) {
        paced(encode_start(leg.start));
    }
    for (std::size_t frame = 0; frame < legs.back().frames.size(); ++frame) {
        for (const Leg& leg : legs) {
            if (frame < leg.frames.size()) {
                paced(encode_data(leg.frames[frame]));
                ++data_sent;
            }
        }
    }
    for (const Leg& leg : legs) {
        paced(encode_terminate(leg.terminate()));
    }
    ASSERT_EQ(sender.failed(), 0u);
    const bool all_terminated = wait_terminated(process, legs.size());
    const std::optional<UdpQueue> after = udp_queue(port);
    const ExitStatus status = stop(process);

    ASSERT_TRUE(after.has_value());
    const std::uint64_t dropped = after->drops - before->drops;
    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    std::uint64_t frames_on_disk = 0;
    std::size_t whole_legs = 0;
    for (const Leg& leg : legs) {
        const Datagram stored = file_bytes(file_of(leg));
        // A leg that is not whole lacks only whole frames, in place: those the kernel dropped.
        const std::optional<std::size_t> kept = leg.frames_kept(stored);
        EXPECT_TRUE(kept.has_value()) << leg.uuid_text() << " holds " << stored.size()
                                      << " bytes that are not its frames less some";
        frames_on_disk += kept.value_or(0);
        whole_legs += stored == leg.expected() ? 1 : 0;
    }
    if (dropped == 0) {
        EXPECT_TRUE(all_terminated);
        EXPECT_EQ(whole_legs, legs.size());
    }
    // Every frame missing from a file, and none besides, is a datagram the kernel dropped.
    EXPECT_EQ(frames_on_disk + dropped, data_sent);
    std::cout << whole_legs << " of " << legs.size() << " legs whole, " << frames_on_disk
              << " frames on disk, " << dropped << " datagrams dropped by the kernel, " << data_sent
              << " data packets sent\n";
}

// Terminated legs are complete; an open leg ends at its last pushed buffer: 192 frames of 332
// bytes fill the first buffer after the 48-byte header, the rest was still being filled.
TEST_F(RecordingE2eTest, StopWhileLegsAreOpenKeepsWhatWasComplete) {
    ChildProcess& process = start_recorder();
    const Leg first = make_leg(1, 20);
    const Leg second = make_leg(2, 5);
    const Leg open = make_leg(3, 110);

    send_leg(first);
    send_leg(second);
    send_leg(open, false);
    ASSERT_TRUE(wait_terminated(process, 2)) << process.standard_error();
    ASSERT_TRUE(poll_until([&] { return std::filesystem::exists(file_of(open)); }, TIMEOUT));
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    expect_orderly_stop(process, SIGTERM);
    EXPECT_EQ(file_bytes(file_of(first)), first.expected());
    EXPECT_EQ(file_bytes(file_of(second)), second.expected());
    EXPECT_EQ(file_bytes(file_of(open)), open.expected(192));
}

TEST_F(RecordingE2eTest, WithoutWriteMediaThePipelineRunsAndNothingIsStored) {
    ChildProcess& process = start_recorder("write_media = false\n");
    const Leg leg = make_leg(0, 300);

    send_leg(leg);
    ASSERT_TRUE(wait_terminated(process, 1)) << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_TRUE(std::filesystem::is_empty(storage()));
    for (const LogLine& line : log_lines(process)) {
        EXPECT_NE(line.level, "ERROR") << line.text;
    }
}

// A leg's directory removed while it is recorded: the leg's later buffers cannot be opened (once
// logged), the recorder stays up and the other leg is whole.
TEST_F(RecordingE2eTest, SessionDirectoryRemovedWhileRecordingHurtsOnlyThatLeg) {
    ChildProcess& process = start_recorder();
    const Leg hurt = make_leg(1, 200);
    const Leg other = make_leg(2, 200);
    send(encode_start(hurt.start));
    send(encode_start(other.start));
    const auto send_frames = [&](std::size_t from, std::size_t to) {
        for (std::size_t i = from; i < to; ++i) {
            send_paced(encode_data(hurt.frames[i]));
            send_paced(encode_data(other.frames[i]));
        }
    };
    send_frames(0, 200);  // a buffer of each is pushed at the 193rd frame
    ASSERT_TRUE(poll_until([&] { return std::filesystem::exists(file_of(hurt)); }, TIMEOUT));
    std::filesystem::remove_all(file_of(hurt).parent_path());
    send_frames(200, 400);
    send(encode_terminate(hurt.terminate()));
    send(encode_terminate(other.terminate()));
    ASSERT_TRUE(wait_terminated(process, 2)) << process.standard_error();
    ASSERT_TRUE(process.wait_for_line("MEDIA_WRITER: failed to open file", TIMEOUT));

    EXPECT_FALSE(process.wait_exit(0ms).has_value()) << "the recorder did not stay up";
    const ExitStatus status = stop(process);
    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(
        texts(log_lines(process), "ERROR", "media_writer.cpp"),
        std::vector<std::string>{"MEDIA_WRITER: failed to open file " + file_of(hurt).string()});
    EXPECT_FALSE(std::filesystem::exists(file_of(hurt).parent_path()));
    EXPECT_EQ(file_bytes(file_of(other)), other.expected());
}

TEST_F(RecordingE2eTest, DirectoryNamedLikeTheFileIsReportedOnceAndOtherLegsAreWhole) {
    ChildProcess& process = start_recorder();
    const Leg blocked = make_leg(1, 300);
    const Leg other = make_leg(2, 3);
    std::filesystem::create_directories(file_of(blocked));

    send_leg(blocked);
    send_leg(other);
    ASSERT_TRUE(wait_terminated(process, 2)) << process.standard_error();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(
        texts(log_lines(process), "ERROR", "media_writer.cpp"),
        std::vector<std::string>{"MEDIA_WRITER: failed to open file " + file_of(blocked).string()});
    EXPECT_TRUE(std::filesystem::is_directory(file_of(blocked)));
    EXPECT_EQ(file_bytes(file_of(other)), other.expected());
}

// Root writes anywhere, so the recorder runs as nobody here, over a storage directory it may
// read but not write: every leg's directory fails (once per leg), the recorder stays up, and a
// leg sent once the directory is writable is recorded.
TEST_F(RecordingE2eTest, UnwritableStorageIsReportedPerLegAndTheRecorderStaysUp) {
    std::filesystem::create_directories(storage());
    const std::string config =
        directory.write_file("writer.conf", "storage = " + storage().string() +
                                                "\nport = " + std::to_string(pick_port()) + "\n");
    ChildProcess& process = start_unprivileged({"--config", config});
    ASSERT_TRUE(wait_receiving(process)) << process.standard_error();
    const Leg first = make_leg(1, 3);
    const Leg second = make_leg(2, 3);
    const Leg later = make_leg(3, 3);

    send_leg(first);
    send_leg(second);
    ASSERT_TRUE(wait_terminated(process, 2)) << process.standard_error();
    ASSERT_TRUE(poll_until(
        [&] { return texts(log_lines(process), "ERROR", "media_writer.cpp").size() == 2; },
        TIMEOUT))
        << process.standard_error();
    std::filesystem::permissions(storage(), std::filesystem::perms::all);
    send_leg(later);
    ASSERT_TRUE(wait_terminated(process, 3)) << process.standard_error();
    ASSERT_TRUE(poll_until([&] { return std::filesystem::exists(file_of(later)); }, TIMEOUT));
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(
        texts(log_lines(process), "ERROR", "media_writer.cpp"),
        (std::vector<std::string>{
            "MEDIA_WRITER: directory check or creation failed: " + file_of(first).string(),
            "MEDIA_WRITER: directory check or creation failed: " + file_of(second).string()}));
    EXPECT_FALSE(std::filesystem::exists(file_of(first)));
    EXPECT_EQ(file_bytes(file_of(later)), later.expected());
}

// The recorder's storage is a 1 MiB tmpfs of the test's own, so that it fills up: legs A and B
// (564448 bytes each) do not both fit. Leg C's first buffer then finds the disk full; the test
// removes A's file, as storage cleanup would, before C's later buffers come.
class FullDiskE2eTest : public RecordingE2eTest {
protected:
    static constexpr std::size_t FRAME_BYTES = 12 + 2 * SAMPLES;
    // Frames of a buffer of the default size (64088 media bytes): the first holds the 48-byte
    // header too.
    static constexpr std::size_t FIRST_BUFFER_FRAMES = 192;
    static constexpr std::size_t BUFFER_FRAMES = 193;

    void SetUp() override {
        std::filesystem::create_directories(storage());
        ASSERT_EQ(::mount("tmpfs", storage().c_str(), "tmpfs", 0, "size=1M"), 0)
            << "mounting a tmpfs needs root: " << std::strerror(errno);
        m_mounted = true;
    }

    void TearDown() override {
        if (m_mounted) {
            EXPECT_EQ(::umount2(storage().c_str(), MNT_DETACH), 0) << std::strerror(errno);
        }
    }

    ChildProcess& start_on_small_disk(const std::string& settings) {
        return start_recorder("metrics_file = " + metrics().string() + "\n" + settings);
    }

    // Sends A and B whole, then C's start and the frames that fill its first buffer; waits until
    // the recorder has found the disk full for C, removes A's file, and sends the rest of C.
    void fill_the_disk_and_free_it(ChildProcess& process) {
        send_leg(a);
        send_leg(b);
        send_paced(encode_start(c.start));
        for (std::size_t i = 0; i <= FIRST_BUFFER_FRAMES; ++i) {
            send_paced(encode_data(c.frames[i]));
        }
        ASSERT_TRUE(poll_until([&] { return warnings_about(process, c) == 1; }, TIMEOUT))
            << process.standard_error();
        std::filesystem::remove(file_of(a));
        for (std::size_t i = FIRST_BUFFER_FRAMES + 1; i < c.frames.size(); ++i) {
            send_paced(encode_data(c.frames[i]));
        }
        send_paced(encode_terminate(c.terminate()));
        ASSERT_TRUE(wait_terminated(process, 3)) << process.standard_error();
    }

    std::size_t warnings_about(const ChildProcess& process, const Leg& leg) const {
        const std::regex line("MEDIA_WRITER: the system did not take [0-9]+ bytes of " +
                              literal(file_of(leg).string()) + ": No space left on device");
        std::size_t count = 0;
        for (const std::string& text : texts(log_lines(process), "WARNING", "media_writer.cpp")) {
            count += std::regex_match(text, line) ? 1 : 0;
        }
        return count;
    }

    std::string not_taken(std::uint64_t bytes, const Leg& leg) const {
        return "MEDIA_WRITER: the system did not take " + std::to_string(bytes) + " bytes of " +
               file_of(leg).string() + ": No space left on device";
    }

    // Every byte sent reaches the writer: the three legs' files as they would be whole.
    std::uint64_t sent() const {
        return a.expected().size() + b.expected().size() + c.expected().size();
    }

    // Waits until the metrics file counts every byte sent as offered to the files (written, as
    // the report has always counted them), and returns its samples by name.
    std::map<std::string, std::uint64_t> settled_metrics() const {
        std::map<std::string, std::uint64_t> values;
        const bool settled = poll_until(
            [&] {
                values = metric_samples(metrics());
                return values["quillmarwriter_written_bytes_total"] == sent();
            },
            TIMEOUT);
        EXPECT_TRUE(settled) << "written " << values["quillmarwriter_written_bytes_total"] << " of "
                             << sent() << " sent";
        return values;
    }

    // The end of every buffer of `leg` in its whole file.
    static std::vector<std::size_t> buffer_ends(const Leg& leg) {
        std::vector<std::size_t> ends;
        for (std::size_t frames = FIRST_BUFFER_FRAMES; frames < leg.frames.size();
             frames += BUFFER_FRAMES) {
            ends.push_back(leg.expected(frames).size());
        }
        ends.push_back(leg.expected().size());
        return ends;
    }

    // What C's buffers after the first hold: its frames from the second buffer on.
    Datagram later_frames_of_c() const {
        const Datagram whole = c.expected();
        return Datagram(
            whole.begin() + static_cast<std::ptrdiff_t>(c.expected(FIRST_BUFFER_FRAMES).size()),
            whole.end());
    }

    int inspect(const std::filesystem::path& file) {
        ChildProcess& tool = start_tool({"inspect", file.string()});
        const ExitStatus status = finish(tool);
        return status.exited ? status.code : -1;
    }

    std::filesystem::path metrics() const { return directory.path() / "quillmarwriter.prom"; }

    const Leg a = make_leg(10, 850);
    const Leg b = make_leg(11, 850);
    const Leg c = make_leg(12, 300);

private:
    bool m_mounted = false;
};

// Without repair the files keep what the system took: B ends in a torn frame, C has no header.
// Every byte sent is counted as written, what the system refused of it is counted beside, and
// each leg says so once.
TEST_F(FullDiskE2eTest, BytesTheSystemDidNotTakeAreCountedAndWarnedOncePerLeg) {
    ChildProcess& process = start_on_small_disk("media_write_repair = false\n");

    ASSERT_NO_FATAL_FAILURE(fill_the_disk_and_free_it(process));
    const std::map<std::string, std::uint64_t> values = settled_metrics();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const Datagram stored_b = file_bytes(file_of(b));
    const Datagram stored_c = file_bytes(file_of(c));
    ASSERT_LT(stored_b.size(), b.expected().size());
    EXPECT_TRUE(std::equal(stored_b.begin(), stored_b.end(), b.expected().begin()));
    // C's first buffer found the disk full and nothing of it was taken; the rest went in.
    EXPECT_EQ(stored_c, later_frames_of_c());
    // B's later buffers took nothing either: its first failed buffer is the one it ends in.
    const std::vector<std::size_t> ends = buffer_ends(b);
    const std::size_t torn_end = *std::upper_bound(ends.begin(), ends.end(), stored_b.size());
    EXPECT_EQ(texts(log_lines(process), "WARNING", "media_writer.cpp"),
              (std::vector<std::string>{not_taken(torn_end - stored_b.size(), b),
                                        not_taken(c.expected(FIRST_BUFFER_FRAMES).size(), c)}));
    const std::uint64_t not_taken_bytes =
        (b.expected().size() - stored_b.size()) + (c.expected().size() - stored_c.size());
    EXPECT_EQ(values.at("quillmarwriter_unwritten_bytes_total"), not_taken_bytes);
    // Sent = on the disk + not taken.
    EXPECT_EQ(values.at("quillmarwriter_written_bytes_total") -
                  values.at("quillmarwriter_unwritten_bytes_total"),
              a.expected().size() + stored_b.size() + stored_c.size());
    EXPECT_EQ(values.at("quillmarwriter_repair_cut_bytes_total"), 0u);
    EXPECT_EQ(values.at("quillmarwriter_repair_headers_total"), 0u);
    EXPECT_EQ(inspect(file_of(b)), 1) << "a torn last frame";
    EXPECT_EQ(inspect(file_of(c)), 2) << "no header";
}

// With repair every file left is sound and holds exactly the frames of the buffers written
// whole: B ends at a buffer's end, C starts with its header and then its second buffer.
TEST_F(FullDiskE2eTest, RepairLeavesOnlyWholeFramesAndPutsALostHeaderBack) {
    ChildProcess& process = start_on_small_disk("media_write_repair = true\n");

    ASSERT_NO_FATAL_FAILURE(fill_the_disk_and_free_it(process));
    const std::map<std::string, std::uint64_t> values = settled_metrics();
    const ExitStatus status = stop(process);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    const Datagram stored_b = file_bytes(file_of(b));
    const Datagram stored_c = file_bytes(file_of(c));
    const std::vector<std::size_t> ends = buffer_ends(b);
    EXPECT_THAT(ends, ::testing::Contains(stored_b.size()));
    ASSERT_LT(stored_b.size(), b.expected().size());
    EXPECT_EQ(stored_b, b.expected((stored_b.size() - 48) / FRAME_BYTES));
    Datagram whole_c = encode_file_header(c.start);
    const Datagram later = later_frames_of_c();
    whole_c.insert(whole_c.end(), later.begin(), later.end());
    EXPECT_EQ(stored_c, whole_c);
    EXPECT_EQ(warnings_about(process, b), 1u) << process.standard_error();
    EXPECT_EQ(warnings_about(process, c), 1u) << process.standard_error();
    EXPECT_EQ(texts(log_lines(process), "WARNING", "media_writer.cpp").size(), 2u);
    EXPECT_EQ(values.at("quillmarwriter_repair_headers_total"), 1u);
    // What the system took, less what was cut off again, plus the header written again, is on
    // the disk.
    EXPECT_EQ(values.at("quillmarwriter_written_bytes_total") -
                  values.at("quillmarwriter_unwritten_bytes_total") -
                  values.at("quillmarwriter_repair_cut_bytes_total") + 48,
              a.expected().size() + stored_b.size() + stored_c.size());
    EXPECT_EQ(inspect(file_of(b)), 0);
    EXPECT_EQ(inspect(file_of(c)), 0);
}

}  // namespace
}  // namespace qm::test
