#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "recording/byte_source.hpp"

// `quillmar export`: a recording turned into an audio file through libsndfile, the format chosen
// by the output's extension (.wav 16-bit PCM, .flac 16-bit, .ogg Vorbis, .opus when this
// libsndfile can write it).
//
// The timeline is the leg's: every frame of either side sits at its offset (MediaFrame::offset)
// counted from the smallest offset of any frame, and the audio runs to the largest offset + num
// of any frame, whatever channels are written, so that the sides stay aligned with each other and
// with exports of the other side. Where a side has no sample it is silent. Frames are placed in
// order of offset, ties in file order; samples a frame shares with frames placed before it keep
// the earlier ones. Offsets are the reader's 32-bit values: a leg whose offsets wrap is not
// unwrapped, its frames past the wrap land at the start of the timeline.
//
// The audio is written in blocks as it is produced, silence included, so memory follows the size
// of the recording (which the reader holds) and not the length of its gaps.
// One export per call; any thread.

namespace qm::recording {

enum class ExportChannels {
    // Side 0 left, side 1 right.
    STEREO,
    // One channel: side 0 + side 1, clipped to 16 bits.
    MIX,
    SIDE_0,
    SIDE_1,
};

struct ExportOptions {
    std::filesystem::path input;
    std::filesystem::path output;
    ExportChannels channels = ExportChannels::STEREO;
    // Written into the file; the samples are not resampled.
    int rate = 8000;
    // Replace an existing output.
    bool force = false;
};

struct ExportResult {
    int channels = 0;
    // Per channel.
    std::uint64_t samples = 0;
    int rate = 0;
    // Stretches of the timeline without samples and their length, counted per side written (both
    // for STEREO and MIX), from the start of the timeline to its end.
    std::uint64_t gaps = 0;
    std::uint64_t silence = 0;
    // Frames of a side sharing samples with frames placed before them.
    std::uint64_t overlapping_frames = 0;
    // Bytes after the last whole frame of the input, which the reader does not deliver.
    std::uint64_t tail = 0;
};

// THROWS: std::runtime_error, one line naming the file at fault, when the output's extension is
// not one of the above, the output exists and `force` is not set, the input is not a readable
// recording (RecordingError) or ends inside its header, or libsndfile or the file system fails
// (with its words). The audio is written to a new file beside the output, named
// ".<output's name>.<random>.part", and renamed over the output once whole and on disk: on any
// failure that file is removed and an existing output is left as it was. With `force` the rename
// replaces the output itself, a symbolic link too, not the file it points to.
ExportResult export_audio(const ExportOptions& options);
// The same with the recording read from `input` (the archive's store) instead of the file
// `options.input`, which is not looked at; messages name the input by its name(). THROWS: also
// what the source throws when it cannot be read.
ExportResult export_audio(const ExportOptions& options, ByteSource& input);

// The bytes export_audio would write, made in memory: `options.output` only names the format
// (its extension) and is neither read nor written; `force` is ignored.
// THROWS: std::runtime_error as export_audio, for the input or for libsndfile.
std::string export_audio_bytes(const ExportOptions& options);
// The same read from `input`, as export_audio(options, input).
std::string export_audio_bytes(const ExportOptions& options, ByteSource& input);

// The bytes of a .wav export, export_audio_bytes's to the byte, made on demand a span at a time:
// for sending a leg as it is exported, and answering a player's range request without making what
// lies before it. The recording is opened and its frames placed once, as export_audio does (the
// reader holds the recording's bytes); the audio is made a block of sample frames at a time from
// the span's first frame on, so the memory read() takes follows the block, not the span nor the
// leg. The header and what follows the samples are libsndfile's own, taken from a write of the
// leg's length of silence that keeps no sample. One thread at a time.
class WavExportStream {
public:
    // `options.output` only names the format and must end in .wav; `force` is ignored.
    // THROWS: std::runtime_error as export_audio_bytes, and naming the output for another format.
    explicit WavExportStream(const ExportOptions& options);
    // The same with the recording read from `input` (the archive's store) instead of the file
    // `options.input`, as export_audio_bytes(options, input); `input` is read only here.
    WavExportStream(const ExportOptions& options, ByteSource& input);
    ~WavExportStream();

    WavExportStream(const WavExportStream&) = delete;
    WavExportStream& operator=(const WavExportStream&) = delete;

    // The size of the whole export.
    std::uint64_t size() const;

    // Appends bytes [first, first + count) of the export to `out`. Reading on from where the last
    // read ended continues the audio; any other start seeks to it.
    // REQUIRES: first + count <= size().
    void read(std::uint64_t first, std::size_t count, std::string& out);

private:
    struct State;
    template <typename Input>
    void open(const ExportOptions& options, Input& input);

    std::unique_ptr<State> m_state;
};

// One column of a waveform: the smallest and largest sample of a side in it; 0 and 0 for a
// column the timeline does not reach (a timeline shorter than the columns are many).
struct PeakColumn {
    std::int16_t min = 0;
    std::int16_t max = 0;

    bool operator==(const PeakColumn&) const = default;
};

// Samples missing between two frames of a side, from the start of the timeline.
struct SideGap {
    std::uint64_t start_sample = 0;
    std::uint64_t samples = 0;

    bool operator==(const SideGap&) const = default;
};

// A leg's waveform over the export's timeline: the timeline's `samples` split into `width`
// columns (sample s in column s * width / samples), per side; silence where a side has no sample,
// as in the export. Per side the gaps between consecutive frames in order of offset: for frames
// recorded in order these are the gaps (and missing samples) inspect_recording counts; the silence
// before a side's first frame and after its last is not a gap there and not here.
struct LegPeaks {
    std::uint64_t samples = 0;
    std::array<std::vector<PeakColumn>, 2> columns;
    std::array<std::vector<SideGap>, 2> gaps;
};

// REQUIRES: width > 0. THROWS: std::runtime_error naming the input as export_audio.
LegPeaks leg_peaks(const std::filesystem::path& input, std::size_t width);
// The same read from `input`, as export_audio(options, input).
LegPeaks leg_peaks(ByteSource& input, std::size_t width);

// "OUT: 2 channels, 40000 samples (5.000 s at 8000 Hz), 3 gaps filled with 480 samples of
// silence, 0 overlapping frames (samples placed first kept)".
std::string summary_line(const std::filesystem::path& output, const ExportResult& result);

// "IN: warning: truncated tail: 7 bytes after the last whole frame not exported"; empty without a
// tail.
std::string tail_warning(const std::filesystem::path& input, const ExportResult& result);

}  // namespace qm::recording
