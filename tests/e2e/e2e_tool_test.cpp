// The `quillmar` tool against the running recorder: calls sent by `quillmar send` are recorded and
// pass `quillmar verify`; a recording exported by `quillmar export` gives back the audio that was
// sent, sample for sample, on the right channel and at the right place in time.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "catalog/leg_summary.hpp"
#include "io/io_session_path.hpp"
#include "io/quillmar_format.hpp"
#include "media/packet_encoder.hpp"
#include "network_namespace.hpp"
#include "recorder_e2e.hpp"
#include "tools/call_manifest.hpp"
#include "utils/str.hpp"

namespace qm::test {

// The packet encoder's fields and functions.
using namespace media;

namespace {

using tools::CallManifest;
using tools::Expectation;
using tools::SentLeg;

constexpr int RATE = 8000;
// The receive levers of the example configuration.
constexpr const char* BATCHED =
    "receive_buffer_size = 32M\nreceive_batch = 64\nreceive_batch_delay = 1ms\n";
// Two seconds of a 1 kHz tone: a whole number of 160-sample frames.
constexpr int TONE_SAMPLES = 16000;

// 16-bit mono or multi-channel audio, interleaved.
struct Audio {
    int channels = 0;
    int rate = 0;
    std::vector<short> samples;

    std::size_t frames() const { return channels == 0 ? 0 : samples.size() / channels; }
    short at(std::size_t frame, int channel) const { return samples[frame * channels + channel]; }
};

Audio read_audio(const std::filesystem::path& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    EXPECT_NE(file, nullptr) << path << ": " << sf_strerror(nullptr);
    Audio audio;
    if (file == nullptr) {
        return audio;
    }
    audio.channels = info.channels;
    audio.rate = info.samplerate;
    audio.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
    EXPECT_EQ(sf_readf_short(file, audio.samples.data(), info.frames), info.frames);
    sf_close(file);
    return audio;
}

void write_tone(const std::filesystem::path& path) {
    SF_INFO info{};
    info.samplerate = RATE;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    std::vector<short> tone(TONE_SAMPLES);
    for (int i = 0; i < TONE_SAMPLES; ++i) {
        tone[i] = static_cast<short>(std::lround(12000 * std::sin(2 * M_PI * 1000 * i / RATE)));
    }
    ASSERT_EQ(sf_writef_short(file, tone.data(), TONE_SAMPLES), TONE_SAMPLES);
    sf_close(file);
}

// Rewrites a recording without the `nth` frame (from 0) of `side`: the damage a lost write would
// do, made by hand so that `verify` has something to find.
void delete_frame(const std::filesystem::path& path, int side, int nth) {
    const std::string text = read_file(path);
    std::string kept = text.substr(0, io::FILE_HEADER_SIZE);
    int seen = 0;
    for (std::size_t at = io::FILE_HEADER_SIZE; at + io::FRAME_HEADER_SIZE <= text.size();) {
        io::SessionStreamFrame header;
        std::memcpy(&header, text.data() + at, sizeof header);
        const std::size_t size = io::FRAME_HEADER_SIZE + 2u * header.num;
        if ((header.side & 1) != side || seen++ != nth) {
            kept += text.substr(at, size);
        }
        at += size;
    }
    ASSERT_EQ(kept.size(), text.size() - io::FRAME_HEADER_SIZE - 2 * 160);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << kept;
}

class ToolE2eTest : public RecorderE2eTest {
protected:
    // `quillmar send` to the recorder started last, writing the manifest.
    ToolRun send_calls(std::vector<std::string> options) {
        std::vector<std::string> args = {"send", "--to", "127.0.0.1:" + std::to_string(port),
                                         "--manifest", manifest_path().string()};
        args.insert(args.end(), options.begin(), options.end());
        ToolRun run = run_tool(std::move(args));
        EXPECT_TRUE(run.status.exited_with(0)) << run.err;
        return run;
    }

    // `quillmar verify` passes and names `legs` legs complete.
    void expect_every_leg_verified(std::size_t legs) {
        const ToolRun run = verify();
        EXPECT_TRUE(run.status.exited_with(0)) << run.out << run.err;
        EXPECT_EQ(run.out, std::to_string(legs) + " legs verified, 0 incomplete, 0 missing\n");
    }

    ToolRun verify() {
        return run_tool(
            {"verify", "--manifest", manifest_path().string(), "--storage", storage().string()});
    }

    // Stops the recorder once its packet reader has handled the terminate packets of all `legs`
    // (their SYSTEM trace lines): every leg has then handed its last buffer to the writer, which
    // drains on the way out, so every file is whole afterwards. The reader itself does not drain
    // its queue at a stop, so an empty socket alone is not enough.
    void stop_recorder(ChildProcess& recorder, std::size_t legs) {
        EXPECT_TRUE(poll_until(
            [&] {
                std::size_t terminated = 0;
                for (const std::string& line : recorder.error_lines()) {
                    terminated += line.find("| TERM  | ") != std::string::npos ? 1 : 0;
                }
                return terminated >= legs;
            },
            TIMEOUT))
            << recorder.standard_error();
        EXPECT_TRUE(stop(recorder).exited_with(0)) << recorder.standard_error();
    }

    std::filesystem::path manifest_path() const { return directory.path() / "manifest.json"; }
    CallManifest manifest() const { return tools::read_manifest(manifest_path()); }
    std::filesystem::path file_of(const SentLeg& leg) const {
        return storage() / io::session_path(leg.ts, leg.uuid);
    }

    // Exports the only leg of the manifest as a stereo WAV file.
    Audio export_leg() {
        const std::filesystem::path out = directory.path() / "leg.wav";
        const ToolRun run =
            run_tool({"export", file_of(manifest().legs.at(0)).string(), "-o", out.string()});
        EXPECT_TRUE(run.status.exited_with(0)) << run.err;
        return read_audio(out);
    }
};

TEST_F(ToolE2eTest, FiftySentCallsAreAllVerified) {
    ChildProcess& recorder = start_recorder();

    send_calls({"--calls", "50", "--duration", "0.4", "--rate", "2000"});
    stop_recorder(recorder, 50);

    expect_every_leg_verified(50);
}

// The faster receive paths: batches with their delay, and the packet ring.
struct ReceivePath {
    const char* settings;
    // The sender's options: a packet ring sees what loopback delivers, and loopback delivers the
    // datagrams of one segmentation-offloaded send as one packet, so the ring is sent to one
    // datagram per message, as media sources send.
    std::vector<std::string> send_options;
};

class ReceivePathE2eTest : public ToolE2eTest, public ::testing::WithParamInterface<ReceivePath> {
protected:
    std::vector<std::string> with_send_options(std::vector<std::string> options) const {
        options.insert(options.end(), GetParam().send_options.begin(),
                       GetParam().send_options.end());
        return options;
    }
};

INSTANTIATE_TEST_SUITE_P(Batched, ReceivePathE2eTest, ::testing::Values(ReceivePath{BATCHED, {}}));
INSTANTIATE_TEST_SUITE_P(Ring, ReceivePathE2eTest,
                         ::testing::Values(ReceivePath{"receive_ring_size = 32M\n",
                                                       {"--one-by-one"}}));

// Under a rate that fills batches and blocks: every call whole.
TEST_P(ReceivePathE2eTest, EverySentCallIsRecorded) {
    ChildProcess& recorder = start_recorder(GetParam().settings);

    send_calls(with_send_options({"--calls", "100", "--duration", "1", "--rate", "20000"}));
    stop_recorder(recorder, 100);

    expect_every_leg_verified(100);
}

// The two ways the socket beside the ring gives up its copies: drained, or stopped before UDP by
// the recorder's nftables rule (`receive_ring_nft`).
class RingCountersE2eTest : public ToolE2eTest, public ::testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(DrainedAndStoppedBeforeUdp, RingCountersE2eTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? std::string("Nft") : std::string("Drained");
                         });

// A million datagrams at 100000/s through the ring, in a network namespace of the test's own so
// that no other suite counts into the host's figures: neither the UDP error counts nor the socket's
// drops grow, and every datagram is in the files.
TEST_P(RingCountersE2eTest, TheRingLeavesTheUdpErrorCountsAlone) {
    NetworkNamespace own;
    ASSERT_TRUE(own.enter());
    const std::optional<std::uint64_t> in_errors = udp_counter("InErrors");
    const std::optional<std::uint64_t> buffer_errors = udp_counter("RcvbufErrors");
    ASSERT_TRUE(in_errors && buffer_errors);
    ChildProcess& recorder = start_recorder(
        "receive_ring_size = 32M\nreceive_buffer_size = 32M\nmedia_buffers_count = 4000\n"
        "receive_ring_nft = " +
        std::string(GetParam() ? "true" : "false") + "\n");

    const ToolRun sent =
        send_calls({"--calls", "1000", "--duration", "10", "--rate", "100000", "--one-by-one"});
    EXPECT_TRUE(wait_drained());
    const std::optional<UdpQueue> queue = udp_queue(port);
    stop_recorder(recorder, 1000);

    EXPECT_EQ(udp_counter("InErrors"), in_errors);
    EXPECT_EQ(udp_counter("RcvbufErrors"), buffer_errors);
    ASSERT_TRUE(queue.has_value());
    EXPECT_EQ(queue->drops, 0u);
    EXPECT_EQ(sent.out.rfind("sent 1000 legs: 1002000 datagrams (", 0), 0u) << sent.out;
    expect_every_leg_verified(1000);
    const std::string table = "quillmarwriter_" + std::to_string(port);
    EXPECT_EQ(texts(log_lines(recorder), "SYSTEM", "nft_port_rule.cpp"),
              GetParam() ? std::vector<std::string>{"NFT_PORT_RULE: datagrams to port " +
                                                    std::to_string(port) +
                                                    " that the ring takes stop before UDP "
                                                    "(nftables table ip " +
                                                    table + ")"}
                         : std::vector<std::string>{});
    // The recorder takes its table away at the stop.
    const int listed =
        std::system(("/usr/sbin/nft list table ip " + table + " >/dev/null 2>&1").c_str());
    EXPECT_TRUE(WIFEXITED(listed) && WEXITSTATUS(listed) == 1) << listed;
}

// A stop in the middle of a flood ends the receive loop at once and the writer drains: the
// recorder exits 0 and every file it wrote is sound.
TEST_P(ReceivePathE2eTest, StopUnderLoadEndsTheRecorderCleanly) {
    ChildProcess& recorder = start_recorder(GetParam().settings);
    ChildProcess& sender =
        start_tool(with_send_options({"send", "--to", "127.0.0.1:" + std::to_string(port),
                                      "--calls", "200", "--duration", "30", "--rate", "100000"}));
    ASSERT_TRUE(poll_until([&] { return !std::filesystem::is_empty(storage()); }, TIMEOUT));

    const ExitStatus status = stop(recorder);
    sender.send_signal(SIGKILL);

    EXPECT_TRUE(status.exited_with(0)) << status.describe() << recorder.standard_error();
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(storage())) {
        if (entry.is_regular_file()) {
            ++files;
            const ToolRun inspect = run_tool({"inspect", entry.path().string()});
            EXPECT_TRUE(inspect.status.exited_with(0)) << inspect.out << inspect.err;
        }
    }
    // Only legs whose first buffer filled before the stop have a file.
    EXPECT_GE(files, 1u);
}

TEST_F(ToolE2eTest, WithheldPacketsAreExpectedGapsButADeletedFrameFailsItsLeg) {
    ChildProcess& recorder = start_recorder();

    send_calls(
        {"--calls", "10", "--duration", "1", "--rate", "2000", "--loss", "0.05", "--seed", "1"});
    stop_recorder(recorder, 10);
    const CallManifest sent = manifest();
    std::size_t withheld = 0;
    for (const SentLeg& leg : sent.legs) {
        for (const tools::SentSide& side : leg.sides) {
            withheld +=
                std::count(side.expectations.begin(), side.expectations.end(), Expectation::LOST);
        }
    }
    // What seed 1 withholds of 10 legs of 2 sides of 50 frames.
    ASSERT_EQ(withheld, 60u);
    expect_every_leg_verified(10);

    // Damage leg 4: take out of its file the first frame of side 1 after the first one (which
    // is never withheld) that the recorder was expected to keep.
    const SentLeg& hurt = sent.legs.at(4);
    std::size_t index = 1;
    while (hurt.sides[1].expectations.at(index) != Expectation::RECORDED) {
        ++index;
    }
    const std::uint32_t seq = hurt.sides[1].frames.at(index).seq;
    // In the file it follows the side's first frame only: those in between were withheld.
    delete_frame(file_of(hurt), 1, 1);
    const ToolRun broken = verify();

    EXPECT_TRUE(broken.status.exited_with(1)) << broken.out << broken.err;
    EXPECT_EQ(broken.out, "leg " + utils::str::print_uuid(hurt.uuid.data()) +
                              " incomplete: " + file_of(hurt).string() +
                              ": side 1: 1 frame missing (seq " + std::to_string(seq) +
                              ")\n9 legs verified, 1 incomplete, 0 missing\n");
}

// Every leg's leg.json agrees with what was sent (the manifest) and with what its media.qm holds
// (`quillmar inspect --json`): the lost packets of a side are exactly those withheld.
TEST_F(ToolE2eTest, LegSummariesAgreeWithTheManifestAndTheirFiles) {
    ChildProcess& recorder = start_recorder("write_leg_summary = true\n");
    send_calls(
        {"--calls", "10", "--duration", "1", "--rate", "2000", "--loss", "0.05", "--seed", "7"});
    stop_recorder(recorder, 10);
    char host[256] = {};
    ASSERT_EQ(::gethostname(host, sizeof host - 1), 0);

    const CallManifest sent = manifest();
    ASSERT_EQ(sent.legs.size(), 10u);
    std::size_t withheld = 0;
    for (std::size_t index = 0; index < sent.legs.size(); ++index) {
        const SentLeg& leg = sent.legs[index];
        const std::filesystem::path file = file_of(leg);
        std::string reason;
        const std::optional<catalog::LegSummary> summary =
            catalog::parse(read_file(file.parent_path() / "leg.json"), reason);
        ASSERT_TRUE(summary.has_value()) << file << ": " << reason;
        const std::string relative = io::session_path(leg.ts, leg.uuid);
        EXPECT_EQ(summary->uuid, utils::str::print_uuid(leg.uuid.data()));
        EXPECT_EQ(summary->session_id, leg.id);
        EXPECT_EQ(summary->call_id, "quillmar-send-" + std::to_string(index));
        EXPECT_EQ(summary->leg, catalog::LegDirection::INBOUND);
        EXPECT_EQ(summary->flags, 0u);
        EXPECT_EQ(summary->start_us, leg.ts);
        EXPECT_EQ(summary->closed_by, catalog::LegClose::TERMINATE);
        EXPECT_EQ(summary->bytes, std::filesystem::file_size(file));
        EXPECT_EQ(summary->host, host);
        EXPECT_EQ(summary->port, port);
        EXPECT_EQ(summary->path, relative.substr(0, relative.rfind('/')));

        const ToolRun inspect = run_tool({"inspect", "--json", file.string()});
        ASSERT_TRUE(inspect.status.exited_with(0)) << inspect.out << inspect.err;
        const nlohmann::json document = nlohmann::json::parse(inspect.out);
        std::uint32_t last_offset = 0;
        for (std::size_t side = 0; side < 2; ++side) {
            const nlohmann::json& shown = document.at("sides").at(side);
            const catalog::SideSummary& tally = summary->sides[side];
            const auto& expectations = leg.sides[side].expectations;
            const auto lost = static_cast<std::uint64_t>(
                std::count(expectations.begin(), expectations.end(), Expectation::LOST));
            withheld += lost;
            EXPECT_EQ(tally.frames, shown.at("frames").get<std::uint64_t>());
            EXPECT_EQ(tally.samples, shown.at("samples").get<std::uint64_t>());
            EXPECT_EQ(tally.first_offset, shown.at("first_offset").get<std::uint32_t>());
            EXPECT_EQ(tally.last_offset, shown.at("last_offset").get<std::uint32_t>());
            EXPECT_EQ(tally.frames, expectations.size() - lost);
            EXPECT_EQ(tally.lost_packets, lost) << "side " << side;
            last_offset = std::max(last_offset, tally.last_offset.value_or(0));
        }
        // The last packet accepted is the last frame sent, at 125 us per sample after the start.
        EXPECT_EQ(summary->last_packet_us, leg.ts + 125u * last_offset);
    }
    // What seed 7 withholds of 10 legs of 2 sides of 50 frames.
    EXPECT_EQ(withheld, 47u);
}

TEST_F(ToolE2eTest, VerifyNamesALegTheRecorderNeverSaw) {
    ChildProcess& recorder = start_recorder();
    send_calls({"--calls", "3", "--duration", "0.2"});
    stop_recorder(recorder, 3);
    const SentLeg gone = manifest().legs.at(1);
    std::filesystem::remove_all(file_of(gone).parent_path());

    const ToolRun run = verify();

    EXPECT_TRUE(run.status.exited_with(1));
    EXPECT_EQ(run.out, "leg " + utils::str::print_uuid(gone.uuid.data()) +
                           " missing: " + file_of(gone).string() +
                           ": no recording\n2 legs verified, 0 incomplete, 1 missing\n");
}

// A recording that cannot be looked at is no crash and not "missing": its leg is incomplete and
// the line says why. Root reads anything, so verify runs as nobody.
TEST_F(ToolE2eTest, VerifyNamesALegItMayNotRead) {
    ChildProcess& recorder = start_recorder();
    send_calls({"--calls", "1", "--duration", "0.2"});
    stop_recorder(recorder, 1);
    const SentLeg leg = manifest().legs.at(0);
    const std::filesystem::path closed = file_of(leg).parent_path();
    std::filesystem::permissions(closed, std::filesystem::perms::owner_all);
    std::filesystem::permissions(
        manifest_path(), std::filesystem::perms::owner_read | std::filesystem::perms::others_read);

    ChildProcess& tool = start_unprivileged(
        {"verify", "--manifest", manifest_path().string(), "--storage", storage().string()},
        QM_TOOL_PATH);
    const ExitStatus status = finish(tool);

    EXPECT_TRUE(status.exited_with(1)) << status.describe() << tool.standard_error();
    EXPECT_EQ(tool.standard_output(),
              "leg " + utils::str::print_uuid(leg.uuid.data()) +
                  " incomplete: " + file_of(leg).string() + ": " + file_of(leg).string() +
                  ": cannot open: Permission denied\n0 legs verified, 1 incomplete, 0 missing\n");
}

TEST_F(ToolE2eTest, ExportedToneEqualsTheSentAudioSampleForSample) {
    const std::filesystem::path tone = directory.path() / "tone.wav";
    write_tone(tone);
    ChildProcess& recorder = start_recorder();

    send_calls({"--calls", "1", "--audio", tone.string()});
    stop_recorder(recorder, 1);
    const Audio sent = read_audio(tone);
    const Audio exported = export_leg();

    ASSERT_EQ(exported.channels, 2);
    EXPECT_EQ(exported.rate, RATE);
    ASSERT_EQ(exported.frames(), sent.frames());
    std::size_t differing = 0;
    for (std::size_t i = 0; i < sent.frames(); ++i) {
        differing += exported.at(i, 0) != sent.at(i, 0) ? 1 : 0;
        differing += exported.at(i, 1) != sent.at(i, 0) ? 1 : 0;
    }
    EXPECT_EQ(differing, 0u);
}

TEST_F(ToolE2eTest, WithheldFramesExportAsSilenceAndTheLengthHolds) {
    const std::filesystem::path tone = directory.path() / "tone.wav";
    write_tone(tone);
    ChildProcess& recorder = start_recorder();

    send_calls({"--calls", "1", "--audio", tone.string(), "--loss", "0.2", "--seed", "3"});
    stop_recorder(recorder, 1);
    const Audio sent = read_audio(tone);
    const Audio exported = export_leg();
    const SentLeg leg = manifest().legs.at(0);

    ASSERT_EQ(exported.channels, 2);
    ASSERT_EQ(exported.frames(), sent.frames());
    std::size_t withheld = 0;
    for (int side = 0; side < 2; ++side) {
        const tools::SentSide& frames = leg.sides[side];
        for (std::size_t f = 0; f < frames.frames.size(); ++f) {
            const bool lost = frames.expectations[f] == Expectation::LOST;
            withheld += lost ? 1 : 0;
            const std::uint32_t off = frames.frames[f].off;
            std::size_t wrong = 0;
            for (std::uint32_t i = off; i < off + frames.frames[f].num; ++i) {
                wrong += exported.at(i, side) != (lost ? 0 : sent.at(i, 0)) ? 1 : 0;
            }
            EXPECT_EQ(wrong, 0u) << "side " << side << " seq " << frames.frames[f].seq
                                 << (lost ? " (withheld)" : "");
        }
    }
    // What seed 3 withholds of 2 sides of 100 frames.
    EXPECT_EQ(withheld, 33u);
}

TEST_F(ToolE2eTest, SideThatStartsLaterStaysOnTheLeftChannel) {
    ChildProcess& recorder = start_recorder();
    StartFields start;
    start.ts = 1700000000000000ULL;
    send(encode_start(start));
    // Side 1 talks for five frames before side 0 says anything; each side's offsets start at 0.
    auto frame = [&](int side, std::uint32_t seq) {
        DataFields data;
        data.header.flags = static_cast<std::uint16_t>(side);
        data.header.mt = start.header.mt + seq * 160 * 125;
        data.seq = seq;
        data.off = (seq - 1) * 160;
        data.payload.assign(160, static_cast<std::uint16_t>(side == 0 ? 1000 + seq : 2000 + seq));
        return encode_data(data);
    };
    for (std::uint32_t seq = 1; seq <= 5; ++seq) {
        send(frame(1, seq));
    }
    for (std::uint32_t seq = 1; seq <= 3; ++seq) {
        send(frame(0, seq));
        send(frame(1, seq + 5));
    }
    send(encode_terminate({start.header}));
    stop_recorder(recorder, 1);
    const std::filesystem::path file = storage() / io::session_path(start.ts, start.header.uuid);
    const std::filesystem::path out = directory.path() / "late.wav";

    const ToolRun run = run_tool({"export", file.string(), "-o", out.string()});
    const Audio audio = read_audio(out);

    ASSERT_TRUE(run.status.exited_with(0)) << run.err;
    ASSERT_EQ(audio.channels, 2);
    // Side 0 is placed by the offset base the reader gives it: the largest offset seen before its
    // first frame, 4 * 160.
    ASSERT_EQ(audio.frames(), 8u * 160);
    EXPECT_EQ(audio.at(0, 0), 0);
    EXPECT_EQ(audio.at(4 * 160 - 1, 0), 0);
    EXPECT_EQ(audio.at(4 * 160, 0), 1001);
    EXPECT_EQ(audio.at(7 * 160 - 1, 0), 1003);
    EXPECT_EQ(audio.at(7 * 160, 0), 0);
    EXPECT_EQ(audio.at(0, 1), 2001);
    EXPECT_EQ(audio.at(8 * 160 - 1, 1), 2008);
}

TEST_F(ToolE2eTest, InspectReadsARecordingAsSound) {
    ChildProcess& recorder = start_recorder();
    send_calls({"--calls", "1", "--duration", "0.2"});
    stop_recorder(recorder, 1);
    const std::filesystem::path file = file_of(manifest().legs.at(0));

    const ToolRun text = run_tool({"inspect", file.string()});
    const ToolRun json = run_tool({"inspect", "--json", file.string()});

    EXPECT_TRUE(text.status.exited_with(0)) << text.err;
    EXPECT_EQ(text.err, "");
    EXPECT_NE(text.out.find("side 0:     10 frames, 1600 samples, offsets 0..1440, 0 gaps"),
              std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find("side 1:     10 frames, 1600 samples, offsets 0..1440, 0 gaps"),
              std::string::npos)
        << text.out;
    EXPECT_TRUE(json.status.exited_with(0)) << json.err;
    const nlohmann::json document = nlohmann::json::parse(json.out);
    EXPECT_EQ(document.at("status"), "sound");
    EXPECT_EQ(document.at("tail"), 0);
    EXPECT_EQ(document.at("uuid"), utils::str::print_uuid(manifest().legs.at(0).uuid.data()));
    for (const nlohmann::json& side : document.at("sides")) {
        EXPECT_EQ(side.at("frames"), 10);
        EXPECT_EQ(side.at("gaps"), 0);
    }
}

// A file name that is not UTF-8 cannot go into a JSON document: the exception the JSON library
// throws reaches the top of the program, which names it on one line and fails with 1 instead of
// aborting.
TEST_F(ToolE2eTest, ExceptionNoCommandForesawIsOneLineAndStatus1) {
    const std::filesystem::path file = directory.path() / "\xff.qm";
    std::ofstream(file) << "not a recording";

    const ToolRun run = run_tool({"inspect", "--json", file.string()});

    EXPECT_TRUE(run.status.exited_with(1)) << run.status.describe();
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "quillmar: [json.exception.type_error.316] invalid UTF-8 byte at index " +
                           std::to_string(file.string().size() - 4) + ": 0xFF\n");
}

}  // namespace
}  // namespace qm::test
