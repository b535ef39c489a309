#include "recording/recording_inspector.hpp"

#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "media/packet_encoder.hpp"
#include "recording_bytes.hpp"
#include "temp_directory.hpp"
#include "tool_command_run.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

using media::DataFields;
using media::Datagram;
using nlohmann::json;
using test::recording_bytes;
using test::text_of;

constexpr std::uint64_t SYNC_MT = 500;

// A frame of `side` at `off`, stored with the time `time` (its `mt` less the sync mt).
DataFields frame(std::uint16_t side, std::uint32_t off, std::uint32_t time,
                 std::vector<std::uint16_t> samples) {
    DataFields fields;
    fields.header.flags = side;
    fields.off = off;
    fields.header.mt = SYNC_MT + time;
    fields.payload = std::move(samples);
    return fields;
}

// The default start packet's header (ts 1633954638004211, sync ts 1633954638000000, sync mt 500,
// uuid 00112233-...), then the frames.
// Two sides, interleaved, both whole: 48 + 2 * (12 + 8) + 2 * (12 + 4) = 120 bytes.
Datagram sound_file() {
    return recording_bytes(SYNC_MT, {frame(0, 0, 20, {1, 2, 3, 4}), frame(1, 0, 25, {5, 6}),
                                     frame(0, 4, 40, {7, 8, 9, 10}), frame(1, 2, 45, {11, 12})});
}

// `quillmar inspect ARGS...` through the command's own parsing.
CommandRun run_inspect(const std::vector<std::string>& args) {
    return run_subcommand(&add_inspect_command, "inspect", args);
}

std::vector<json> json_lines(const std::string& out) {
    std::vector<json> documents;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        documents.push_back(json::parse(line));
    }
    return documents;
}

TEST(RecordingInspectorTest, SoundTwoSideFile) {
    test::TempDirectory dir;
    const std::string path = dir.write_file("media.qm", text_of(sound_file()));

    const recording::RecordingReport report = recording::inspect_recording(path);

    EXPECT_EQ(report.state, recording::RecordingState::SOUND);
    EXPECT_EQ(recording::exit_status(report), 0);
    EXPECT_EQ(report.size, 120u);
    EXPECT_EQ(report.frames_end, 120u);
    EXPECT_EQ(report.tail, 0u);
    EXPECT_EQ(report.sides[0].frames, 2u);
    EXPECT_EQ(report.sides[0].samples, 8u);
    EXPECT_EQ(report.sides[0].first_offset, 0u);
    EXPECT_EQ(report.sides[0].last_offset, 4u);
    EXPECT_EQ(report.sides[1].frames, 2u);
    EXPECT_EQ(report.sides[1].samples, 4u);
    EXPECT_EQ(report.sides[1].last_offset, 2u);
    EXPECT_EQ(recording::error_text(report), "");
}

TEST(RecordingInspectorTest, SoundFileTextLines) {
    test::TempDirectory dir;
    const std::string path = dir.write_file("media.qm", text_of(sound_file()));

    const CommandRun run = run_inspect({path});

    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out,
              "file:       " + path +
                  "\n"
                  "size:       120 bytes\n"
                  "format:     0 (media)\n"
                  "ts:         2021-10-11 12:17:18.004211 UTC (1633954638004211)\n"
                  "sync ts:    1633954638000000\n"
                  "sync mt:    500\n"
                  "uuid:       00112233-4455-6677-8899-aabbccddeeff\n"
                  "side 0:     2 frames, 8 samples, offsets 0..4, 0 gaps (0 samples missing), "
                  "0 overlaps, 0 time wraps\n"
                  "side 1:     2 frames, 4 samples, offsets 0..2, 0 gaps (0 samples missing), "
                  "0 overlaps, 0 time wraps\n"
                  "tail:       0 bytes\n"
                  "status:     sound\n");
}

TEST(RecordingInspectorTest, GapsAreCountedWithTheirMissingSamples) {
    test::TempDirectory dir;
    // Side 0: 0..4, gap of 6, 10..14, 14..16, gap of 4, 20..22. Side 1 has no frame.
    const std::string path = dir.write_file(
        "media.qm", text_of(recording_bytes(
                        SYNC_MT, {frame(0, 0, 0, {1, 2, 3, 4}), frame(0, 10, 10, {1, 2, 3, 4}),
                                  frame(0, 14, 14, {1, 2}), frame(0, 20, 20, {1, 2})})));

    const recording::RecordingReport report = recording::inspect_recording(path);

    EXPECT_EQ(report.state, recording::RecordingState::SOUND);
    EXPECT_EQ(report.sides[0].frames, 4u);
    EXPECT_EQ(report.sides[0].gaps, 2u);
    EXPECT_EQ(report.sides[0].missing_samples, 10u);
    EXPECT_EQ(report.sides[0].overlaps, 0u);
    EXPECT_EQ(report.sides[1].frames, 0u);
    const std::string text = recording::report_text(report);
    EXPECT_NE(text.find("\nside 0:     4 frames, 12 samples, offsets 0..20, 2 gaps (10 samples "
                        "missing), 0 overlaps, 0 time wraps\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\nside 1:     no frames\n"), std::string::npos) << text;
}

TEST(RecordingInspectorTest, RepeatedAndOverlappingFramesAreCounted) {
    test::TempDirectory dir;
    // 0..4, 4..8, 4..8 again, 6..10 over its end, then 10..12 following on.
    const std::string path = dir.write_file(
        "media.qm", text_of(recording_bytes(
                        SYNC_MT, {frame(0, 0, 0, {1, 2, 3, 4}), frame(0, 4, 4, {5, 6, 7, 8}),
                                  frame(0, 4, 4, {5, 6, 7, 8}), frame(0, 6, 6, {1, 1, 1, 1}),
                                  frame(0, 10, 10, {2, 2})})));

    const recording::RecordingReport report = recording::inspect_recording(path);

    EXPECT_EQ(report.sides[0].frames, 5u);
    EXPECT_EQ(report.sides[0].overlaps, 2u);
    EXPECT_EQ(report.sides[0].gaps, 0u);
    EXPECT_EQ(report.sides[0].missing_samples, 0u);
    EXPECT_EQ(report.state, recording::RecordingState::SOUND);
    EXPECT_NE(recording::report_text(report).find(
                  "0 gaps (0 samples missing), 2 overlaps, 0 time wraps\n"),
              std::string::npos);
}

// Side 0 drops by exactly 2^31 (no wrap), rises, wraps, then steps back a little (no wrap). Side
// 1 wraps between its own frames; side 0's time after side 1's large one is not compared with it.
TEST(RecordingInspectorTest, TimeWrapsAreCountedPerSide) {
    test::TempDirectory dir;
    const std::string path = dir.write_file(
        "media.qm", text_of(recording_bytes(
                        SYNC_MT, {frame(0, 0, 0x80000000u, {1}), frame(0, 1, 0, {1}),
                                  frame(1, 0, 0xFFFFFFFFu, {1}), frame(0, 2, 0xFFFFFFF0u, {1}),
                                  frame(0, 3, 16, {1}), frame(1, 1, 3, {1}), frame(0, 4, 100, {1}),
                                  frame(0, 5, 50, {1})})));

    const recording::RecordingReport report = recording::inspect_recording(path);

    EXPECT_EQ(report.sides[0].frames, 6u);
    EXPECT_EQ(report.sides[0].time_wraps, 1u);
    EXPECT_EQ(report.sides[1].frames, 2u);
    EXPECT_EQ(report.sides[1].time_wraps, 1u);
    EXPECT_EQ(report.sides[0].gaps + report.sides[0].overlaps, 0u);
}

// The last frame (side 1, from byte 104) says 2 samples (4 bytes); the file holds 1 byte of them.
TEST(RecordingInspectorTest, FileCutInsideAFramesSamplesHasAnInconsistentFrame) {
    test::TempDirectory dir;
    const Datagram bytes = sound_file();
    const std::string path = dir.write_file("media.qm", text_of(bytes, bytes.size() - 3));

    const CommandRun run = run_inspect({path});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "quillmar inspect: " + path +
                           ": inconsistent frame: the frame at byte 104 claims more samples than "
                           "the 1 byte after its header hold\n");
    const recording::RecordingReport report = recording::inspect_recording(path);
    EXPECT_EQ(report.state, recording::RecordingState::INCONSISTENT_FRAME);
    EXPECT_EQ(report.size, 117u);
    EXPECT_EQ(report.frames_end, 104u);
    EXPECT_EQ(report.tail, 13u);
    EXPECT_EQ(report.sides[0].frames, 2u);
    EXPECT_EQ(report.sides[1].frames, 1u);
    EXPECT_NE(run.out.find("\ntail:       13 bytes after the last whole frame, from byte 104 "
                           "(inconsistent frame)\nstatus:     inconsistent frame\n"),
              std::string::npos)
        << run.out;
}

TEST(RecordingInspectorTest, FileCutInsideAFrameHeaderHasATruncatedFrame) {
    test::TempDirectory dir;
    Datagram bytes = sound_file();
    const Datagram next = media::encode_frame(frame(0, 8, 60, {1, 2}), SYNC_MT);
    bytes.insert(bytes.end(), next.begin(), next.begin() + 7);
    const std::string path = dir.write_file("media.qm", text_of(bytes));

    const CommandRun run = run_inspect({path});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "quillmar inspect: " + path +
                           ": truncated frame: 7 bytes after the last whole frame, which ends at "
                           "byte 120\n");
    const recording::RecordingReport report = recording::inspect_recording(path);
    EXPECT_EQ(report.state, recording::RecordingState::TRUNCATED_FRAME);
    EXPECT_EQ(report.tail, 7u);
    EXPECT_EQ(report.sides[0].frames, 2u);
    EXPECT_EQ(report.sides[1].frames, 2u);
}

TEST(RecordingInspectorTest, FileCutInsideTheFileHeaderHasATruncatedHeader) {
    test::TempDirectory dir;
    const std::string path = dir.write_file("media.qm", text_of(sound_file(), 30));

    const CommandRun run = run_inspect({path});

    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "quillmar inspect: " + path +
                           ": truncated header: 30 bytes, shorter than the 48-byte file header\n");
    EXPECT_EQ(run.out, "file:       " + path +
                           "\n"
                           "size:       30 bytes\n"
                           "format:     0 (media)\n"
                           "status:     truncated header\n");
}

TEST(RecordingInspectorTest, NonMediaFileIsRefused) {
    test::TempDirectory dir;
    const std::string path = dir.write_file("notes.txt", "shopping list: milk, eggs, bread\n");

    const CommandRun run = run_inspect({path});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "quillmar inspect: " + path + ": not a media file (no \"QM\\0F\" magic)\n");
    EXPECT_EQ(run.out, "file:       " + path + "\nstatus:     unreadable\n");
}

TEST(RecordingInspectorTest, MissingAndUnknownFormatFilesAreRefused) {
    test::TempDirectory dir;
    const std::string missing = (dir.path() / "missing.qm").string();
    Datagram bytes = sound_file();
    bytes[4] = 7;
    const std::string unknown = dir.write_file("unknown.qm", text_of(bytes));

    const CommandRun missing_run = run_inspect({missing});
    const CommandRun unknown_run = run_inspect({unknown});

    EXPECT_EQ(missing_run.status, 2);
    EXPECT_EQ(missing_run.err,
              "quillmar inspect: " + missing + ": cannot open: No such file or directory\n");
    EXPECT_EQ(unknown_run.status, 2);
    EXPECT_EQ(unknown_run.err, "quillmar inspect: " + unknown + ": unknown format 7\n");
}

TEST(RecordingInspectorTest, JsonCarriesTheSameFacts) {
    test::TempDirectory dir;
    const std::string sound = dir.write_file(
        "sound.qm",
        text_of(recording_bytes(SYNC_MT, {frame(0, 0, 0, {1, 2, 3, 4}), frame(0, 10, 10, {1, 2}),
                                          frame(0, 10, 12, {1, 2})})));
    const Datagram whole = sound_file();
    const std::string cut = dir.write_file("cut.qm", text_of(whole, whole.size() - 3));
    const std::string text = dir.write_file("notes.txt", "not a recording");

    const CommandRun run = run_inspect({sound, cut, text, "--json"});

    EXPECT_EQ(run.status, 2);
    const std::vector<json> documents = json_lines(run.out);
    ASSERT_EQ(documents.size(), 3u);

    const json& first = documents[0];
    EXPECT_EQ(first.at("file"), sound);
    EXPECT_EQ(first.at("status"), "sound");
    EXPECT_EQ(first.at("exit_status"), 0);
    EXPECT_FALSE(first.contains("error"));
    EXPECT_EQ(first.at("size"), 48 + 20 + 16 + 16);
    EXPECT_EQ(first.at("format"), 0);
    EXPECT_EQ(first.at("ts"), 1633954638004211ULL);
    EXPECT_EQ(first.at("ts_utc"), "2021-10-11 12:17:18.004211 UTC");
    EXPECT_EQ(first.at("sync_ts"), 1633954638000000ULL);
    EXPECT_EQ(first.at("sync_mt"), 500);
    EXPECT_EQ(first.at("uuid"), "00112233-4455-6677-8899-aabbccddeeff");
    EXPECT_EQ(first.at("tail"), 0);
    EXPECT_EQ(first.at("frames_end"), 100);
    EXPECT_EQ(first.at("sides"),
              json::parse(R"([{"side": 0, "frames": 3, "samples": 8, "first_offset": 0,
                                "last_offset": 10, "gaps": 1, "missing_samples": 6,
                                "overlaps": 1, "time_wraps": 0},
                              {"side": 1, "frames": 0, "samples": 0, "first_offset": null,
                                "last_offset": null, "gaps": 0, "missing_samples": 0,
                                "overlaps": 0, "time_wraps": 0}])"));

    const json& second = documents[1];
    EXPECT_EQ(second.at("status"), "inconsistent frame");
    EXPECT_EQ(second.at("exit_status"), 1);
    EXPECT_EQ(second.at("tail"), 13);
    EXPECT_EQ(second.at("frames_end"), 104);
    EXPECT_EQ(second.at("error"), cut +
                                      ": inconsistent frame: the frame at byte 104 claims more "
                                      "samples than the 1 byte after its header hold");

    const json& third = documents[2];
    EXPECT_EQ(third, json({{"file", text},
                           {"status", "unreadable"},
                           {"exit_status", 2},
                           {"error", text + ": not a media file (no \"QM\\0F\" magic)"}}));
}

TEST(RecordingInspectorTest, SeveralFilesAreAllReportedAndTheHighestStatusWins) {
    test::TempDirectory dir;
    const std::string sound = dir.write_file("sound.qm", text_of(sound_file()));
    const std::string cut = dir.write_file("cut.qm", text_of(sound_file(), 40));
    const std::string missing = (dir.path() / "missing.qm").string();

    const CommandRun one = run_inspect({sound, cut});
    const CommandRun two = run_inspect({missing, sound, cut});

    EXPECT_EQ(one.status, 1);
    EXPECT_EQ(one.err, "quillmar inspect: " + cut +
                           ": truncated header: 40 bytes, shorter than the 48-byte file header\n");
    EXPECT_EQ(two.status, 2);
    EXPECT_EQ(two.err, "quillmar inspect: " + missing +
                           ": cannot open: No such file or directory\n"
                           "quillmar inspect: " +
                           cut +
                           ": truncated header: 40 bytes, shorter than the 48-byte file "
                           "header\n");
    // One block per file, a blank line between them, the sound one whole.
    EXPECT_EQ(two.out, "file:       " + missing + "\nstatus:     unreadable\n\n" +
                           recording::report_text(recording::inspect_recording(sound)) + "\n" +
                           recording::report_text(recording::inspect_recording(cut)));
    EXPECT_NE(two.out.find("status:     sound\n"), std::string::npos);
}

TEST(RecordingInspectorTest, UtcTextHasMicroseconds) {
    EXPECT_EQ(recording::utc_text(0), "1970-01-01 00:00:00.000000 UTC");
    EXPECT_EQ(recording::utc_text(1633954638004211ULL), "2021-10-11 12:17:18.004211 UTC");
    EXPECT_EQ(recording::utc_text(951782400000001ULL), "2000-02-29 00:00:00.000001 UTC");
}

}  // namespace
}  // namespace qm::tools
