#include "tools/manifest_verifier.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "io/io_session_path.hpp"
#include "media/packet_encoder.hpp"
#include "recording_bytes.hpp"
#include "temp_directory.hpp"
#include "tool_command_run.hpp"
#include "tools/call_manifest.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

using media::DataFields;
using media::Datagram;

constexpr std::uint64_t TS = 1633954638004211ULL;
constexpr std::uint64_t SYNC_MT = 1000;
constexpr std::uint32_t SAMPLES = 4;
constexpr io::Uuid UUID = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                           0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
const std::string UUID_TEXT = "00112233-4455-6677-8899-aabbccddeeff";

// The samples of packet `seq` of `side`: distinct for every packet.
std::vector<std::uint16_t> samples_of(int side, std::uint32_t seq) {
    std::vector<std::uint16_t> samples;
    for (std::uint32_t i = 0; i < SAMPLES; ++i) {
        samples.push_back(static_cast<std::uint16_t>(side * 10000 + seq * 100 + i));
    }
    return samples;
}

DataFields data_of(int side, std::uint32_t seq) {
    DataFields data;
    data.header.flags = static_cast<std::uint16_t>(side);
    data.header.uuid = UUID;
    data.header.mt = SYNC_MT + (seq - 1) * SAMPLES * 125;
    data.seq = seq;
    data.off = (seq - 1) * SAMPLES;
    data.payload = samples_of(side, seq);
    return data;
}

SentFrame sent_of(int side, std::uint32_t seq) {
    const Datagram payload = media::encode_data(data_of(side, seq));
    // The payload is the datagram's tail: the samples, little-endian.
    const std::size_t bytes = 2 * SAMPLES;
    return {seq, (seq - 1) * SAMPLES, static_cast<std::uint16_t>(SAMPLES),
            payload_hash(payload.data() + payload.size() - bytes, bytes)};
}

// A leg of `frames` packets per side, all expected to be kept.
SentLeg leg_of(std::uint32_t frames) {
    SentLeg leg;
    leg.uuid = UUID;
    leg.id = 77;
    leg.ts = TS;
    for (int side = 0; side < 2; ++side) {
        for (std::uint32_t seq = 1; seq <= frames; ++seq) {
            leg.sides[side].frames.push_back(sent_of(side, seq));
            leg.sides[side].expectations.push_back(Expectation::RECORDED);
        }
    }
    return leg;
}

// One recorded frame: side and sequence number of the packet it came from.
struct Recorded {
    int side;
    std::uint32_t seq;
};

class ManifestVerifierTest : public ::testing::Test {
protected:
    std::filesystem::path storage() const { return directory.path() / "storage"; }
    std::filesystem::path file() const { return storage() / io::session_path(TS, UUID); }

    // Writes the leg's recording holding `frames` in this order.
    void record(const std::vector<Recorded>& frames, std::uint64_t ts = TS) {
        media::StartFields start;
        start.ts = ts;
        start.sync_mt = SYNC_MT;
        start.header.uuid = UUID;
        std::vector<DataFields> fields;
        for (const Recorded& frame : frames) {
            fields.push_back(data_of(frame.side, frame.seq));
        }
        const Datagram bytes = test::recording_bytes(start, fields);
        std::filesystem::create_directories(file().parent_path());
        std::ofstream(file(), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }

    // Both sides' packets 1..frames, side 0 first in every round, as the sender sends them.
    static std::vector<Recorded> interleaved(std::uint32_t frames) {
        std::vector<Recorded> recorded;
        for (std::uint32_t seq = 1; seq <= frames; ++seq) {
            recorded.push_back({0, seq});
            recorded.push_back({1, seq});
        }
        return recorded;
    }

    static std::vector<Recorded> without(std::vector<Recorded> frames, Recorded gone) {
        std::erase_if(frames, [&](const Recorded& frame) {
            return frame.side == gone.side && frame.seq == gone.seq;
        });
        return frames;
    }

    std::string incomplete(const std::string& problems) const {
        return "leg " + UUID_TEXT + " incomplete: " + file().string() + ": " + problems;
    }

    qm::test::TempDirectory directory;
};

TEST_F(ManifestVerifierTest, EveryFrameOnceInOrderIsComplete) {
    const SentLeg leg = leg_of(5);
    record(interleaved(5));

    const LegVerdict verdict = verify_leg(leg, storage());

    EXPECT_EQ(verdict.state, LegVerdict::State::COMPLETE);
    EXPECT_EQ(verdict.path, file());
    EXPECT_TRUE(verdict.problems.empty());
}

TEST_F(ManifestVerifierTest, NoFileIsMissingAndNamesThePath) {
    const SentLeg leg = leg_of(2);

    const LegVerdict verdict = verify_leg(leg, storage());

    EXPECT_EQ(verdict.state, LegVerdict::State::MISSING);
    EXPECT_EQ(verdict_line(leg, verdict),
              "leg " + UUID_TEXT + " missing: " + file().string() + ": no recording");
}

TEST_F(ManifestVerifierTest, DeletedFrameIsNamedBySideAndSequence) {
    const SentLeg leg = leg_of(5);
    record(without(interleaved(5), {1, 3}));

    const LegVerdict verdict = verify_leg(leg, storage());

    EXPECT_EQ(verdict.state, LegVerdict::State::INCOMPLETE);
    EXPECT_EQ(verdict_line(leg, verdict), incomplete("side 1: 1 frame missing (seq 3)"));
}

TEST_F(ManifestVerifierTest, WithheldAndReorderedPacketsAreExpectedGaps) {
    SentLeg leg = leg_of(5);
    leg.sides[0].expectations[1] = Expectation::LOST;
    leg.sides[1].expectations[2] = Expectation::REORDERED;
    record(without(without(interleaved(5), {0, 2}), {1, 3}));

    EXPECT_EQ(verify_leg(leg, storage()).state, LegVerdict::State::COMPLETE);
}

TEST_F(ManifestVerifierTest, ReorderedPacketThatWasKeptIsUnexpected) {
    SentLeg leg = leg_of(4);
    leg.sides[0].expectations[2] = Expectation::REORDERED;
    record(interleaved(4));

    const LegVerdict verdict = verify_leg(leg, storage());

    EXPECT_EQ(verdict_line(leg, verdict),
              incomplete("side 0: 1 frame not sent or expected dropped (offset 8)"));
}

TEST_F(ManifestVerifierTest, FrameRecordedTwiceIsNamed) {
    const SentLeg leg = leg_of(3);
    std::vector<Recorded> frames = interleaved(3);
    frames.push_back({0, 3});
    record(frames);

    EXPECT_EQ(verdict_line(leg, verify_leg(leg, storage())),
              incomplete("side 0: 1 frame recorded twice (seq 3)"));
}

TEST_F(ManifestVerifierTest, FramesOutOfOrderAreNamed) {
    const SentLeg leg = leg_of(3);
    record({{0, 1}, {1, 1}, {0, 3}, {1, 2}, {0, 2}, {1, 3}});

    EXPECT_EQ(verdict_line(leg, verify_leg(leg, storage())),
              incomplete("side 0: 1 frame out of order (seq 2)"));
}

TEST_F(ManifestVerifierTest, OtherSamplesAtTheRightOffsetAreNamed) {
    SentLeg leg = leg_of(3);
    leg.sides[1].frames[1].hash ^= 1;
    record(interleaved(3));

    EXPECT_EQ(verdict_line(leg, verify_leg(leg, storage())),
              incomplete("side 1: 1 frame with other samples (seq 2)"));
}

TEST_F(ManifestVerifierTest, EveryProblemOfBothSidesIsOnOneLine) {
    const SentLeg leg = leg_of(12);
    std::vector<Recorded> frames = {{0, 1}, {1, 1}};
    frames.push_back({1, 12});

    record(frames);

    EXPECT_EQ(verdict_line(leg, verify_leg(leg, storage())),
              incomplete("side 0: 11 frames missing (seq 2, 3, 4, 5, 6, 7, 8, 9, and 3 more); "
                         "side 1: 10 frames missing (seq 2, 3, 4, 5, 6, 7, 8, 9, and 2 more)"));
}

TEST_F(ManifestVerifierTest, FileOfAnotherLegAtThePathIsNamed) {
    const SentLeg leg = leg_of(1);
    record(interleaved(1), TS + 1);

    EXPECT_EQ(verdict_line(leg, verify_leg(leg, storage())),
              incomplete("the header names another leg (uuid " + UUID_TEXT + ", ts " +
                         std::to_string(TS + 1) + ")"));
}

TEST_F(ManifestVerifierTest, NonMediaFileAtThePathIsIncomplete) {
    const SentLeg leg = leg_of(1);
    std::filesystem::create_directories(file().parent_path());
    std::ofstream(file()) << "not a recording";

    EXPECT_EQ(verdict_line(leg, verify_leg(leg, storage())),
              incomplete(file().string() + ": not a media file (no \"QM\\0F\" magic)"));
}

TEST(VerifySummaryTest, CountsCompleteIncompleteAndMissingLegs) {
    EXPECT_EQ(summary_line({48, 1, 1}), "48 legs verified, 1 incomplete, 1 missing");
}

TEST(CallManifestTest, WrittenManifestReadsBackEqual) {
    qm::test::TempDirectory directory;
    CallManifest manifest;
    manifest.legs.push_back(leg_of(4));
    manifest.legs[0].sides[0].expectations[1] = Expectation::LOST;
    manifest.legs[0].sides[1].expectations[2] = Expectation::REORDERED;
    manifest.legs[0].sides[1].frames[3].hash = 0xfedcba9876543210ULL;
    const std::filesystem::path path = directory.path() / "manifest.json";

    write_manifest(manifest, path);
    const CallManifest read = read_manifest(path);

    ASSERT_EQ(read.legs.size(), 1u);
    const SentLeg& leg = read.legs[0];
    EXPECT_EQ(leg.uuid, UUID);
    EXPECT_EQ(leg.id, 77u);
    EXPECT_EQ(leg.ts, TS);
    for (int side = 0; side < 2; ++side) {
        const SentSide& expected = manifest.legs[0].sides[side];
        ASSERT_EQ(leg.sides[side].frames.size(), expected.frames.size());
        for (std::size_t i = 0; i < expected.frames.size(); ++i) {
            EXPECT_EQ(leg.sides[side].frames[i].seq, expected.frames[i].seq);
            EXPECT_EQ(leg.sides[side].frames[i].off, expected.frames[i].off);
            EXPECT_EQ(leg.sides[side].frames[i].num, expected.frames[i].num);
            EXPECT_EQ(leg.sides[side].frames[i].hash, expected.frames[i].hash);
            EXPECT_EQ(leg.sides[side].expectations[i], expected.expectations[i]);
        }
    }
}

TEST(CallManifestTest, ManifestIsTheDocumentedJson) {
    qm::test::TempDirectory directory;
    CallManifest manifest;
    manifest.legs.push_back(leg_of(2));
    manifest.legs[0].sides[0].expectations[1] = Expectation::LOST;
    // A hash with leading zeros: written as 16 digits all the same.
    manifest.legs[0].sides[0].frames[0].hash = 0xab;
    const std::filesystem::path path = directory.path() / "manifest.json";

    write_manifest(manifest, path);

    std::ifstream in(path);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("\"uuid\":\"" + UUID_TEXT + "\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"frames\":[[1,0,4,\"00000000000000ab\"]"), std::string::npos) << text;
    EXPECT_NE(text.find("\"lost\":[2],\"reordered\":[]"), std::string::npos) << text;
}

TEST(CallManifestTest, NonManifestIsRefusedWithTheFileNamed) {
    qm::test::TempDirectory directory;
    const std::string path = directory.write_file("notes.json", "{\"legs\": 3}");

    try {
        read_manifest(path);
        FAIL() << "read";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()).rfind(path + ": not a manifest: ", 0), 0u)
            << error.what();
    }
}

// A manifest that cannot be read is no verdict on the recordings: exit 2 and the reason.
TEST(VerifyCommandTest, FileThatIsNoManifestExitsWith2) {
    qm::test::TempDirectory directory;
    const std::string path = directory.write_file("notes.json", "{\"legs\": 3}");

    const CommandRun run =
        run_subcommand(&add_verify_command, "verify",
                       {"--manifest", path, "--storage", directory.path().string()});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("quillmar verify: " + path + ": not a manifest: ", 0), 0u) << run.err;
}

TEST(PayloadHashTest, IsFnv1aOverTheBytes) {
    const std::uint8_t bytes[] = {'a'};
    EXPECT_EQ(payload_hash(bytes, 1), 0xaf63dc4c8601ec8cULL);
    EXPECT_EQ(payload_hash(bytes, 0), 0xcbf29ce484222325ULL);
}

}  // namespace
}  // namespace qm::tools
