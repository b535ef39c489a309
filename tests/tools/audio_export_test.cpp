#include "recording/audio_export.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sndfile.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
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
using recording::export_audio;
using recording::export_audio_bytes;
using recording::ExportChannels;
using recording::ExportOptions;
using recording::ExportResult;
using recording::leg_peaks;
using recording::LegPeaks;
using recording::PeakColumn;
using recording::SideGap;
using recording::summary_line;
using recording::WavExportStream;
using test::recording_bytes;
using test::text_of;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr std::uint64_t SYNC_MT = 500;

DataFields frame(std::uint16_t side, std::uint32_t off, const std::vector<std::int16_t>& samples) {
    DataFields fields;
    fields.header.flags = side;
    fields.off = off;
    fields.header.mt = SYNC_MT + off;
    fields.payload.assign(samples.begin(), samples.end());
    return fields;
}

std::string contents_of(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The names in a directory, sorted: what an export left behind.
std::vector<std::string> names_in(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Files this process writes may not grow past `bytes` while it lives: a write beyond fails with
// EFBIG (SIGXFSZ is ignored meanwhile), as on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &m_old_limit);
        sigaction(SIGXFSZ, nullptr, &m_old_action);
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGXFSZ, &ignore, nullptr);
        rlimit limit = m_old_limit;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_old_limit);
        sigaction(SIGXFSZ, &m_old_action, nullptr);
    }

    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_old_limit{};
    struct sigaction m_old_action {};
};

// An audio file read back whole through libsndfile, samples interleaved.
struct Audio {
    SF_INFO info{};
    std::vector<std::int16_t> samples;
};

Audio read_audio(const std::string& path) {
    Audio audio;
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &audio.info);
    if (file == nullptr) {
        ADD_FAILURE() << path << ": " << sf_strerror(nullptr);
        return audio;
    }
    audio.samples.resize(static_cast<std::size_t>(audio.info.frames * audio.info.channels));
    EXPECT_EQ(sf_readf_short(file, audio.samples.data(), audio.info.frames), audio.info.frames);
    sf_close(file);
    return audio;
}

// `quillmar export ARGS...` through the command's own parsing.
CommandRun run_export(const std::vector<std::string>& args) {
    return run_subcommand(&add_export_command, "export", args);
}

// Side 0: 0..2, a gap of 2, 4..6. Side 1: 0..4. Both start at 0 (side 1's offset base is 0).
Datagram gapped_file() {
    return recording_bytes(SYNC_MT, {frame(0, 0, {1, 2}), frame(1, 0, {-1, -2}),
                                     frame(0, 4, {3, 4}), frame(1, 2, {-3, -4})});
}

TEST(AudioExportTest, TwoSidesWithAGapAreSilentExactlyThere) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("media.qm", text_of(gapped_file()));
    const std::string output = (dir.path() / "out.wav").string();

    const CommandRun run = run_export({input, "-o", output});

    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, output +
                           ": 2 channels, 6 samples (0.001 s at 8000 Hz), 2 gaps filled with 4 "
                           "samples of silence, 0 overlapping frames (samples placed first "
                           "kept)\n");
    const Audio audio = read_audio(output);
    EXPECT_EQ(audio.info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    EXPECT_EQ(audio.info.channels, 2);
    EXPECT_EQ(audio.info.samplerate, 8000);
    // Left, right; side 1 ends two samples before side 0.
    EXPECT_THAT(audio.samples, ElementsAre(1, -1, 2, -2, 0, -3, 0, -4, 3, 0, 4, 0));
}

TEST(AudioExportTest, FramesOutOfOrderInTheFileArePlacedByOffset) {
    test::TempDirectory dir;
    const std::string input = dir.write_file(
        "media.qm", text_of(recording_bytes(
                        SYNC_MT, {frame(0, 0, {1, 2}), frame(0, 4, {5, 6}), frame(0, 2, {3, 4})})));
    ExportOptions options{input, dir.path() / "out.wav", ExportChannels::SIDE_0};

    const ExportResult result = export_audio(options);

    EXPECT_EQ(result.samples, 6u);
    EXPECT_EQ(result.gaps, 0u);
    EXPECT_EQ(result.overlapping_frames, 0u);
    EXPECT_THAT(read_audio(options.output).samples, ElementsAre(1, 2, 3, 4, 5, 6));
}

// Side 1's frames come first in the file. The reader moves side 0 by its offset base, the largest
// `off` up to its first frame (4, of the second side-1 frame): its frame at off 2 is delivered at
// 6, so the left channel starts with 6 samples of silence.
TEST(AudioExportTest, SideStartingLaterBeginsWithSilence) {
    test::TempDirectory dir;
    const std::string input =
        dir.write_file("media.qm", text_of(recording_bytes(SYNC_MT, {frame(1, 0, {10, 11, 12, 13}),
                                                                     frame(1, 4, {14, 15, 16, 17}),
                                                                     frame(0, 2, {1, 2, 3, 4})})));
    ExportOptions options{input, dir.path() / "out.wav"};

    const ExportResult result = export_audio(options);

    EXPECT_EQ(result.channels, 2);
    EXPECT_EQ(result.samples, 10u);
    // Left: the 6 samples before side 0 starts; right: the 2 after side 1 ends.
    EXPECT_EQ(result.gaps, 2u);
    EXPECT_EQ(result.silence, 8u);
    EXPECT_THAT(read_audio(options.output.string()).samples,
                ElementsAre(0, 10, 0, 11, 0, 12, 0, 13, 0, 14, 0, 15, 1, 16, 2, 17, 3, 0, 4, 0));
}

TEST(AudioExportTest, EmptySideIsASilentChannel) {
    test::TempDirectory dir;
    const std::string input =
        dir.write_file("media.qm", text_of(recording_bytes(SYNC_MT, {frame(1, 0, {5, 6, 7})})));
    ExportOptions options{input, dir.path() / "out.wav"};

    const ExportResult result = export_audio(options);

    EXPECT_EQ(result.gaps, 1u);
    EXPECT_EQ(result.silence, 3u);
    const Audio audio = read_audio(options.output.string());
    EXPECT_EQ(audio.info.channels, 2);
    EXPECT_THAT(audio.samples, ElementsAre(0, 5, 0, 6, 0, 7));
}

TEST(AudioExportTest, MixAddsTheSidesAndClips) {
    test::TempDirectory dir;
    const std::string input = dir.write_file(
        "media.qm",
        text_of(recording_bytes(SYNC_MT, {frame(0, 0, {30000, -30000, 100, 0, 32767}),
                                          frame(1, 0, {10000, -10000, -50, 7, -32768})})));
    const std::string output = (dir.path() / "mix.wav").string();

    const CommandRun run = run_export({input, "-o", output, "--mix"});

    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, output +
                           ": 1 channel, 5 samples (0.001 s at 8000 Hz), 0 gaps filled with 0 "
                           "samples of silence, 0 overlapping frames (samples placed first "
                           "kept)\n");
    const Audio audio = read_audio(output);
    EXPECT_EQ(audio.info.channels, 1);
    EXPECT_THAT(audio.samples, ElementsAre(32767, -32768, 50, 7, -1));
}

// Side 1's offset base is 2 (its own first off), so it is delivered at 4, after side 0's 4
// samples; written alone it keeps that place on the leg's timeline.
TEST(AudioExportTest, OneSideAloneIsMonoOnTheLegsTimeline) {
    test::TempDirectory dir;
    const std::string input = dir.write_file(
        "media.qm",
        text_of(recording_bytes(SYNC_MT, {frame(0, 0, {1, 2, 3, 4}), frame(1, 2, {9, 8})})));
    const std::string output = (dir.path() / "side1.wav").string();

    const CommandRun run = run_export({input, "-o", output, "--side", "1", "--rate", "16000"});

    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, output +
                           ": 1 channel, 6 samples (0.000 s at 16000 Hz), 1 gap filled with 4 "
                           "samples of silence, 0 overlapping frames (samples placed first "
                           "kept)\n");
    const Audio audio = read_audio(output);
    EXPECT_EQ(audio.info.channels, 1);
    EXPECT_EQ(audio.info.samplerate, 16000);
    EXPECT_THAT(audio.samples, ElementsAre(0, 0, 0, 0, 9, 8));
}

// 0..4 first; a repeat at 0 and a frame at 2..6 overlap it. The samples placed first stay; the
// overlapping frame's samples after them are written.
TEST(AudioExportTest, OverlappingFramesKeepTheFirstSamples) {
    test::TempDirectory dir;
    const std::string input = dir.write_file(
        "media.qm",
        text_of(recording_bytes(
            SYNC_MT, {frame(0, 0, {1, 2, 3, 4}), frame(0, 2, {5, 6, 7, 8}), frame(0, 0, {9, 9})})));
    ExportOptions options{input, dir.path() / "out.wav", ExportChannels::SIDE_0};

    const ExportResult result = export_audio(options);

    EXPECT_EQ(result.overlapping_frames, 2u);
    EXPECT_EQ(result.gaps, 0u);
    EXPECT_THAT(read_audio(options.output.string()).samples, ElementsAre(1, 2, 3, 4, 7, 8));
    EXPECT_EQ(summary_line(options.output, result),
              options.output.string() +
                  ": 1 channel, 6 samples (0.001 s at 8000 Hz), 0 gaps filled with 0 samples of "
                  "silence, 2 overlapping frames (samples placed first kept)");
}

// 40 frames of 160 samples per side, of samples spread over the whole 16-bit range.
TEST(AudioExportTest, FlacRoundTripIsExact) {
    test::TempDirectory dir;
    std::vector<DataFields> frames;
    std::vector<std::int16_t> expected;
    std::uint32_t state = 12345;
    const auto next_sample = [&state] {
        state = state * 1103515245u + 12345u;
        return static_cast<std::int16_t>(state >> 16);
    };
    std::vector<std::int16_t> sides[2];
    for (std::uint32_t i = 0; i < 40; ++i) {
        for (std::uint16_t side = 0; side < 2; ++side) {
            std::vector<std::int16_t> samples(160);
            for (std::int16_t& sample : samples) {
                sample = next_sample();
            }
            frames.push_back(frame(side, 160 * i, samples));
            sides[side].insert(sides[side].end(), samples.begin(), samples.end());
        }
    }
    for (std::size_t i = 0; i < sides[0].size(); ++i) {
        expected.push_back(sides[0][i]);
        expected.push_back(sides[1][i]);
    }
    const std::string input = dir.write_file("media.qm", text_of(recording_bytes(SYNC_MT, frames)));
    ExportOptions options{input, dir.path() / "out.flac"};

    const ExportResult result = export_audio(options);

    EXPECT_EQ(result.samples, 6400u);
    EXPECT_EQ(result.gaps, 0u);
    const Audio audio = read_audio(options.output.string());
    EXPECT_EQ(audio.info.format, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    EXPECT_EQ(audio.info.channels, 2);
    EXPECT_EQ(audio.info.frames, 6400);
    EXPECT_THAT(audio.samples, ElementsAreArray(expected));
}

// Lossy: only the layout is compared. Opus is written when this libsndfile says it can.
TEST(AudioExportTest, OggVorbisAndOpusAreWritten) {
    test::TempDirectory dir;
    std::vector<DataFields> frames;
    for (std::uint32_t i = 0; i < 50; ++i) {
        frames.push_back(frame(0, 160 * i, std::vector<std::int16_t>(160, 1000)));
    }
    const std::string input = dir.write_file("media.qm", text_of(recording_bytes(SYNC_MT, frames)));
    const std::string ogg = (dir.path() / "out.ogg").string();
    const std::string opus = (dir.path() / "out.opus").string();
    SF_INFO opus_info{};
    opus_info.samplerate = 8000;
    opus_info.channels = 2;
    opus_info.format = SF_FORMAT_OGG | SF_FORMAT_OPUS;
    const bool opus_written = sf_format_check(&opus_info) != 0;

    const CommandRun ogg_run = run_export({input, "-o", ogg});
    const CommandRun opus_run = run_export({input, "-o", opus});

    EXPECT_EQ(ogg_run.status, 0) << ogg_run.err;
    const Audio vorbis = read_audio(ogg);
    EXPECT_EQ(vorbis.info.format, SF_FORMAT_OGG | SF_FORMAT_VORBIS);
    EXPECT_EQ(vorbis.info.channels, 2);
    EXPECT_EQ(vorbis.info.samplerate, 8000);
    if (opus_written) {
        EXPECT_EQ(opus_run.status, 0) << opus_run.err;
        const Audio decoded = read_audio(opus);
        EXPECT_EQ(decoded.info.format, SF_FORMAT_OGG | SF_FORMAT_OPUS);
        EXPECT_EQ(decoded.info.channels, 2);
    } else {
        EXPECT_EQ(opus_run.status, 2);
        EXPECT_EQ(opus_run.err, "quillmar export: " + opus +
                                    ": this libsndfile cannot write .opus with 2 channels at "
                                    "8000 Hz\n");
    }
}

TEST(AudioExportTest, UnsupportedExtensionIsRefused) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("media.qm", text_of(gapped_file()));
    const std::string mp3 = (dir.path() / "out.mp3").string();
    const std::string bare = (dir.path() / "out").string();

    const CommandRun mp3_run = run_export({input, "-o", mp3});
    const CommandRun bare_run = run_export({input, "-o", bare});

    EXPECT_EQ(mp3_run.status, 2);
    EXPECT_EQ(mp3_run.out, "");
    EXPECT_EQ(mp3_run.err, "quillmar export: " + mp3 +
                               ": unsupported extension \".mp3\" (use .wav, .flac, .ogg or "
                               ".opus)\n");
    EXPECT_EQ(bare_run.status, 2);
    EXPECT_EQ(bare_run.err, "quillmar export: " + bare +
                                ": unsupported extension \"\" (use .wav, .flac, .ogg or .opus)\n");
    EXPECT_FALSE(std::filesystem::exists(mp3));
    EXPECT_FALSE(std::filesystem::exists(bare));
}

TEST(AudioExportTest, ExistingOutputIsReplacedOnlyWithForce) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("media.qm", text_of(gapped_file()));
    const std::string output = dir.write_file("out.wav", "precious");

    const CommandRun refused = run_export({input, "-o", output});

    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(refused.err,
              "quillmar export: " + output + ": already exists (use --force to overwrite it)\n");
    EXPECT_EQ(contents_of(output), "precious");

    const CommandRun forced = run_export({input, "-o", output, "--force"});

    EXPECT_EQ(forced.status, 0);
    EXPECT_THAT(read_audio(output).samples, ElementsAre(1, -1, 2, -2, 0, -3, 0, -4, 3, 0, 4, 0));
    EXPECT_THAT(names_in(dir.path()), ElementsAre("media.qm", "out.wav"));
    // As for any new file: what the umask leaves of read and write for all.
    const mode_t umask_now = ::umask(0);
    ::umask(umask_now);
    EXPECT_EQ(std::filesystem::status(output).permissions(),
              static_cast<std::filesystem::perms>(0666 & ~umask_now));
}

// libsndfile refuses the output when opening it (FLAC at a million samples a second): the file
// already there is left byte for byte, forced or not, and nothing else remains.
TEST(AudioExportTest, OutputLibsndfileRefusesLeavesTheExistingOneAsItWas) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("media.qm", text_of(gapped_file()));
    const std::string output = dir.write_file("out.flac", "precious");

    const CommandRun forced = run_export({input, "-o", output, "--rate", "1000000", "--force"});
    const CommandRun unforced = run_export({input, "-o", output, "--rate", "1000000"});

    EXPECT_EQ(forced.status, 2);
    EXPECT_EQ(forced.out, "");
    EXPECT_EQ(forced.err, "quillmar export: " + output +
                              ": cannot write: Error : flac does not support this sample rate.\n");
    EXPECT_EQ(unforced.status, 2);
    EXPECT_EQ(unforced.err,
              "quillmar export: " + output + ": already exists (use --force to overwrite it)\n");
    EXPECT_EQ(contents_of(output), "precious");
    EXPECT_THAT(names_in(dir.path()), ElementsAre("media.qm", "out.flac"));
}

// The disk fills part-way through ten million samples: the existing output is left byte for
// byte, and what was written so far is removed.
TEST(AudioExportTest, ExportThatFailsPartWayLeavesTheExistingOutputAsItWas) {
    test::TempDirectory dir;
    const std::string input = dir.write_file(
        "media.qm",
        text_of(recording_bytes(SYNC_MT, {frame(0, 0, {1, 2}), frame(0, 10000000, {3, 4})})));
    const std::string output = dir.write_file("out.wav", "precious");

    CommandRun forced;
    {
        const FileSizeLimit limit(1 << 20);
        forced = run_export({input, "-o", output, "--side", "0", "--force"});
    }

    EXPECT_EQ(forced.status, 2);
    EXPECT_EQ(forced.out, "");
    EXPECT_EQ(forced.err,
              "quillmar export: " + output + ": cannot write: System error : File too large.\n");
    EXPECT_EQ(contents_of(output), "precious");
    EXPECT_THAT(names_in(dir.path()), ElementsAre("media.qm", "out.wav"));
}

// An input that cannot be read stops the export before any output is made.
TEST(AudioExportTest, UnreadableInputLeavesTheExistingOutputAsItWas) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("notes.txt", "not a recording at all");
    const std::string output = dir.write_file("out.wav", "precious");

    const CommandRun forced = run_export({input, "-o", output, "--force"});
    const CommandRun unforced = run_export({input, "-o", output});

    EXPECT_EQ(forced.status, 2);
    EXPECT_EQ(forced.err,
              "quillmar export: " + input + ": not a media file (no \"QM\\0F\" magic)\n");
    EXPECT_EQ(unforced.status, 2);
    EXPECT_EQ(unforced.err,
              "quillmar export: " + output + ": already exists (use --force to overwrite it)\n");
    EXPECT_EQ(forced.out + unforced.out, "");
    EXPECT_EQ(contents_of(output), "precious");
    EXPECT_THAT(names_in(dir.path()), ElementsAre("notes.txt", "out.wav"));
}

// Ten million samples of silence between two frames: the output has the exact length and the
// samples around the gap, written block by block.
TEST(AudioExportTest, LongGapIsWrittenAsSilenceToTheExactLength) {
    test::TempDirectory dir;
    const std::string input = dir.write_file(
        "media.qm",
        text_of(recording_bytes(SYNC_MT, {frame(0, 0, {1, 2}), frame(0, 10000000, {3, 4})})));
    ExportOptions options{input, dir.path() / "long.wav", ExportChannels::SIDE_0};

    const ExportResult result = export_audio(options);

    EXPECT_EQ(result.samples, 10000002u);
    EXPECT_EQ(result.gaps, 1u);
    EXPECT_EQ(result.silence, 9999998u);
    const Audio audio = read_audio(options.output.string());
    ASSERT_EQ(audio.samples.size(), 10000002u);
    EXPECT_EQ(audio.samples[0], 1);
    EXPECT_EQ(audio.samples[1], 2);
    EXPECT_EQ(audio.samples[2], 0);
    EXPECT_EQ(audio.samples[4096], 0);
    EXPECT_EQ(audio.samples[9999999], 0);
    EXPECT_EQ(audio.samples[10000000], 3);
    EXPECT_EQ(audio.samples[10000001], 4);
    EXPECT_EQ(std::count(audio.samples.begin(), audio.samples.end(), 0), 9999998);
}

// The last frame (side 1, 2 samples) is cut after 1 byte of them: what the reader delivers is
// exported, with a warning.
TEST(AudioExportTest, TruncatedTailIsExportedWithAWarning) {
    test::TempDirectory dir;
    const Datagram bytes = gapped_file();
    const std::string input = dir.write_file("media.qm", text_of(bytes, bytes.size() - 3));
    const std::string output = (dir.path() / "out.wav").string();

    const CommandRun run = run_export({input, "-o", output});

    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "quillmar export: " + input +
                           ": warning: truncated tail: 13 bytes after the last whole frame not "
                           "exported\n");
    EXPECT_EQ(run.out, output +
                           ": 2 channels, 6 samples (0.001 s at 8000 Hz), 2 gaps filled with 6 "
                           "samples of silence, 0 overlapping frames (samples placed first "
                           "kept)\n");
    EXPECT_THAT(read_audio(output).samples, ElementsAre(1, -1, 2, -2, 0, 0, 0, 0, 3, 0, 4, 0));
}

TEST(AudioExportTest, UnreadableInputsAreRefused) {
    test::TempDirectory dir;
    const std::string text = dir.write_file("notes.txt", "not a recording at all");
    const std::string missing = (dir.path() / "missing.qm").string();
    const std::string cut = dir.write_file("cut.qm", text_of(gapped_file(), 47));
    const std::string output = (dir.path() / "out.wav").string();

    const CommandRun text_run = run_export({text, "-o", output});
    const CommandRun missing_run = run_export({missing, "-o", output});
    const CommandRun cut_run = run_export({cut, "-o", output});

    EXPECT_EQ(text_run.status, 2);
    EXPECT_EQ(text_run.err,
              "quillmar export: " + text + ": not a media file (no \"QM\\0F\" magic)\n");
    EXPECT_EQ(missing_run.status, 2);
    EXPECT_EQ(missing_run.err,
              "quillmar export: " + missing + ": cannot open: No such file or directory\n");
    EXPECT_EQ(cut_run.status, 2);
    EXPECT_EQ(cut_run.err, "quillmar export: " + cut +
                               ": truncated header: 47 bytes, shorter than the 48-byte file "
                               "header\n");
    EXPECT_EQ(text_run.out + missing_run.out + cut_run.out, "");
    EXPECT_FALSE(std::filesystem::exists(output));
}

// FLAC cannot hold a million samples a second; libsndfile says so when opening and has already
// created the file, which is removed.
TEST(AudioExportTest, LibsndfileFailureIsReportedInItsWords) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("media.qm", text_of(gapped_file()));
    const std::string output = (dir.path() / "out.flac").string();

    const CommandRun run = run_export({input, "-o", output, "--rate", "1000000"});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "quillmar export: " + output +
                           ": cannot write: Error : flac does not support this sample rate.\n");
    EXPECT_FALSE(std::filesystem::exists(output));
}

// Usage mistakes are the command line's: CLI11 refuses them before anything runs.
TEST(AudioExportTest, MixAndSideExcludeEachOtherAndSideIsZeroOrOne) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("media.qm", text_of(gapped_file()));
    const std::string output = (dir.path() / "out.wav").string();

    EXPECT_THROW(run_export({input, "-o", output, "--mix", "--side", "0"}), CLI::ExcludesError);
    EXPECT_THROW(run_export({input, "-o", output, "--side", "2"}), CLI::ValidationError);
    EXPECT_THROW(run_export({input, "-o", output, "--rate", "0"}), CLI::ValidationError);
    EXPECT_THROW(run_export({input}), CLI::RequiredError);
    EXPECT_FALSE(std::filesystem::exists(output));
}

TEST(AudioExportTest, RecordingWithoutFramesGivesEmptyAudio) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("media.qm", text_of(recording_bytes(SYNC_MT, {})));
    ExportOptions options{input, dir.path() / "empty.wav"};

    const ExportResult result = export_audio(options);

    EXPECT_EQ(result.samples, 0u);
    EXPECT_EQ(result.gaps, 0u);
    const Audio audio = read_audio(options.output.string());
    EXPECT_EQ(audio.info.channels, 2);
    EXPECT_EQ(audio.info.frames, 0);
}

TEST(AudioExportTest, ExportInMemoryHasTheBytesOfTheFile) {
    test::TempDirectory dir;
    const std::string input = dir.write_file(
        "media.qm", text_of(recording_bytes(
                        SYNC_MT, {frame(0, 0, {1, 2}), frame(1, 0, {3}), frame(0, 5, {4, 5, 6})})));
    for (const std::string name : {"out.wav", "out.flac"}) {
        ExportOptions options{input, dir.path() / name};
        export_audio(options);

        options.output = name;
        EXPECT_EQ(export_audio_bytes(options), contents_of((dir.path() / name).string())) << name;
    }
}

// Samples counting up from `first`, so that every position of a side is told apart.
std::vector<std::int16_t> ramp(std::int16_t first, std::size_t count) {
    std::vector<std::int16_t> samples(count);
    for (std::size_t i = 0; i < count; ++i) {
        samples[i] = static_cast<std::int16_t>(first + static_cast<std::int16_t>(i));
    }
    return samples;
}

// Longer than a block (4096 sample frames), with gaps on both sides, silence before side 1's first
// frame and after side 0's last, a frame out of order in the file and one overlapping another.
// Side 0: 0..5000, 100..200 (overlapping), 9000..10000. Side 1: 300..460, 7000..12000 (its offset
// base is its first frame's offset, 150).
Datagram long_gapped_file() {
    return recording_bytes(SYNC_MT,
                           {frame(0, 0, ramp(1, 5000)), frame(1, 150, ramp(-30000, 160)),
                            frame(0, 9000, ramp(10000, 1000)), frame(0, 100, ramp(-100, 100)),
                            frame(1, 6850, ramp(20000, 5000))});
}

// The span [first, first + count) of `stream`, read in pieces of `piece` bytes.
std::string read_span(WavExportStream& stream, std::uint64_t first, std::uint64_t count,
                      std::size_t piece) {
    std::string bytes;
    for (std::uint64_t at = first; at < first + count;) {
        const auto taken =
            static_cast<std::size_t>(std::min<std::uint64_t>(piece, first + count - at));
        stream.read(at, taken, bytes);
        at += taken;
    }
    return bytes;
}

TEST(AudioExportTest, WavStreamReadInPiecesIsTheExport) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("media.qm", text_of(long_gapped_file()));
    for (const ExportChannels channels : {ExportChannels::STEREO, ExportChannels::MIX,
                                          ExportChannels::SIDE_0, ExportChannels::SIDE_1}) {
        const ExportOptions options{input, "leg.wav", channels};
        const std::string whole = export_audio_bytes(options);
        for (const std::size_t piece :
             {std::size_t{1}, std::size_t{7}, std::size_t{4096}, std::size_t{65536}}) {
            WavExportStream stream(options);
            ASSERT_EQ(stream.size(), whole.size());
            EXPECT_TRUE(read_span(stream, 0, whole.size(), piece) == whole)
                << static_cast<int>(channels) << " in pieces of " << piece;
        }
    }
}

// Spans starting in the header, in the samples of either side, inside a gap, in the silence before
// side 1's first frame, on and around block boundaries, to the last byte; each from a new stream
// (a seek from the start) and from one stream read out of order (seeks back and forth).
TEST(AudioExportTest, WavStreamSpanIsTheSliceOfTheExport) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("media.qm", text_of(long_gapped_file()));
    const ExportOptions options{input, "leg.wav"};
    const std::string whole = export_audio_bytes(options);
    ASSERT_EQ(whole.size(), 44u + 12000u * 4u);
    const auto sample_byte = [](std::uint64_t frame) { return 44 + 4 * frame; };
    const std::vector<std::uint64_t> points = {
        0,
        1,
        4,
        40,
        43,
        44,
        45,
        46,
        47,
        sample_byte(150) + 1,  // side 0's overlap
        sample_byte(200),      // silence before side 1
        sample_byte(400) + 2,  // side 1's first frame
        sample_byte(4095) + 3,
        sample_byte(4096),
        sample_byte(4096) + 1,
        sample_byte(5000),  // the gaps of both sides
        sample_byte(6000) + 1,
        sample_byte(8192) - 1,
        sample_byte(8192),
        sample_byte(9500),       // both sides
        sample_byte(10000) + 2,  // side 0 after its last frame
        whole.size() - 2,
        whole.size() - 1};
    WavExportStream reused(options);
    for (const std::uint64_t first : points) {
        for (const std::uint64_t last : points) {
            if (last < first) {
                continue;
            }
            const std::string slice = whole.substr(first, last - first + 1);
            WavExportStream fresh(options);
            EXPECT_TRUE(read_span(fresh, first, last - first + 1, 4096) == slice)
                << first << "-" << last;
            EXPECT_TRUE(read_span(reused, first, last - first + 1, 1000) == slice)
                << first << "-" << last << " after other spans";
        }
    }
}

// Every span of a short leg with a gap on each side: the header, the gaps and the samples around
// them, every start and end.
TEST(AudioExportTest, WavStreamEverySpanOfAShortLegIsTheSlice) {
    test::TempDirectory dir;
    const std::string input = dir.write_file(
        "media.qm",
        text_of(recording_bytes(SYNC_MT, {frame(0, 0, {1, 2}), frame(1, 1, {-1, -2}),
                                          frame(0, 5, {3, 4}), frame(1, 6, {-3, -4, -5})})));
    const ExportOptions options{input, "leg.wav"};
    const std::string whole = export_audio_bytes(options);
    WavExportStream stream(options);
    ASSERT_EQ(stream.size(), whole.size());
    for (std::uint64_t first = 0; first < whole.size(); ++first) {
        for (std::uint64_t last = first; last < whole.size(); ++last) {
            EXPECT_TRUE(read_span(stream, first, last - first + 1, 3) ==
                        whole.substr(first, last - first + 1))
                << first << "-" << last;
        }
    }
}

TEST(AudioExportTest, WavStreamRefusesOtherFormats) {
    test::TempDirectory dir;
    const std::string input = dir.write_file("media.qm", text_of(gapped_file()));
    try {
        WavExportStream stream(ExportOptions{input, "leg.flac"});
        ADD_FAILURE() << "a FLAC stream was made";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "leg.flac: only .wav is exported as it is read");
    }
}

// Side 0: 1 -2 (gap of 2) 5 6; side 1 has no frame and is silent, without gaps.
TEST(AudioExportTest, PeaksAreTheMinAndMaxOfEachColumnAndTheGapsBetweenFrames) {
    test::TempDirectory dir;
    const std::string input = dir.write_file(
        "media.qm",
        text_of(recording_bytes(SYNC_MT, {frame(0, 10, {1, -2}), frame(0, 14, {5, 6})})));

    const LegPeaks peaks = leg_peaks(input, 3);

    EXPECT_EQ(peaks.samples, 6u);
    EXPECT_THAT(peaks.columns[0],
                ElementsAre(PeakColumn{-2, 1}, PeakColumn{0, 0}, PeakColumn{5, 6}));
    EXPECT_THAT(peaks.columns[1],
                ElementsAre(PeakColumn{0, 0}, PeakColumn{0, 0}, PeakColumn{0, 0}));
    EXPECT_THAT(peaks.gaps[0], ElementsAre(SideGap{2, 2}));
    EXPECT_THAT(peaks.gaps[1], ElementsAre());
}

// More columns than samples: sample s is in column 2s, the columns between are empty.
TEST(AudioExportTest, PeaksWiderThanTheTimelineLeaveColumnsEmpty) {
    test::TempDirectory dir;
    const std::string input =
        dir.write_file("media.qm", text_of(recording_bytes(SYNC_MT, {frame(1, 0, {-3, 7})})));

    const LegPeaks peaks = leg_peaks(input, 4);

    EXPECT_THAT(peaks.columns[1], ElementsAre(PeakColumn{-3, -3}, PeakColumn{0, 0},
                                              PeakColumn{7, 7}, PeakColumn{0, 0}));
}

}  // namespace
}  // namespace qm::tools
