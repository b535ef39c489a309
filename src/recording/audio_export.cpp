#include "recording/audio_export.hpp"

#include <fcntl.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "io/io_media_channel.hpp"
#include "io/io_media_frame.hpp"
#include "io/quillmar_format.hpp"
#include "recording/recording_file.hpp"
#include "utils/str.hpp"

namespace qm::recording {
namespace {

// Sample frames produced and written at a time.
constexpr std::size_t BLOCK_FRAMES = 4096;

std::runtime_error failure(const std::filesystem::path& path, const std::string& problem) {
    return std::runtime_error(path.string() + ": " + problem);
}

// "1 gap", "2 gaps".
int channel_count(ExportChannels channels) {
    return channels == ExportChannels::STEREO ? 2 : 1;
}

int sound_format_of(const std::filesystem::path& output) {
    std::string extension = output.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == ".wav") {
        return SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    }
    if (extension == ".flac") {
        return SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
    }
    if (extension == ".ogg") {
        return SF_FORMAT_OGG | SF_FORMAT_VORBIS;
    }
    if (extension == ".opus") {
        return SF_FORMAT_OGG | SF_FORMAT_OPUS;
    }
    throw failure(output,
                  "unsupported extension \"" + extension + "\" (use .wav, .flac, .ogg or .opus)");
}

SF_INFO sound_info_for(const ExportOptions& options) {
    if (options.rate <= 0) {
        throw failure(options.output,
                      "sample rate " + std::to_string(options.rate) + " is not a positive number");
    }
    SF_INFO info{};
    info.samplerate = options.rate;
    info.channels = channel_count(options.channels);
    info.format = sound_format_of(options.output);
    if (sf_format_check(&info) == 0) {
        throw failure(options.output, "this libsndfile cannot write " +
                                          options.output.extension().string() + " with " +
                                          counted(info.channels, "channel") + " at " +
                                          std::to_string(info.samplerate) + " Hz");
    }
    return info;
}

void refuse_existing(const ExportOptions& options) {
    std::error_code error;
    if (!options.force &&
        std::filesystem::exists(std::filesystem::symlink_status(options.output, error))) {
        throw failure(options.output, "already exists (use --force to overwrite it)");
    }
}

// The export while it is written: a file of its own, created here beside the output so that
// renaming it over the output is atomic. The output is touched only by that rename, once the audio
// is whole and on disk; until then, and whatever fails, the file is removed and the output is as it
// was.
class PendingOutput {
public:
    // THROWS: std::runtime_error naming the output when the file cannot be created.
    explicit PendingOutput(const std::filesystem::path& output) : m_output(output) {
        // Names are random so that two exports to one output do not meet; O_EXCL makes the file
        // ours, and 0666 gives it the permissions the user's umask gives any new file.
        constexpr int ATTEMPTS = 16;
        for (int attempt = 0; attempt < ATTEMPTS && m_fd < 0; ++attempt) {
            m_path = output.parent_path() /
                     ("." + output.filename().string() + "." + random_suffix() + ".part");
            m_fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (m_fd < 0 && errno != EEXIST) {
                break;
            }
        }
        if (m_fd < 0) {
            throw system_failure();
        }
    }

    ~PendingOutput() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        if (!m_published) {
            ::unlink(m_path.c_str());
        }
    }

    PendingOutput(const PendingOutput&) = delete;
    PendingOutput& operator=(const PendingOutput&) = delete;

    int fd() const { return m_fd; }

    // Puts the file in the output's place, replacing what is there.
    // REQUIRES: whatever wrote through fd() has finished.
    void publish() {
        if (::fsync(m_fd) != 0 || ::close(std::exchange(m_fd, -1)) != 0 ||
            std::rename(m_path.c_str(), m_output.c_str()) != 0) {
            throw system_failure();
        }
        m_published = true;
    }

private:
    // The failure errno describes.
    std::runtime_error system_failure() const {
        return failure(m_output, std::string("cannot write: ") + std::strerror(errno));
    }

    static std::string random_suffix() {
        char text[9];
        std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(std::random_device{}()));
        return text;
    }

    std::filesystem::path m_output;
    std::filesystem::path m_path;
    int m_fd = -1;
    bool m_published = false;
};

// A frame on the timeline, its start counted from the timeline's origin.
struct PlacedFrame {
    std::uint64_t start = 0;
    std::uint16_t num = 0;
    const std::uint8_t* payload = nullptr;

    std::uint64_t end() const { return start + num; }
};

// What the reader delivered, both sides, and where the timeline starts and ends.
struct Timeline {
    std::array<std::vector<PlacedFrame>, 2> sides;
    std::uint64_t length = 0;
    std::uint64_t frame_bytes = 0;
};

Timeline timeline_of(recording::RecordingFile& file) {
    std::array<std::vector<io::MediaFrame>, 2> delivered;
    const std::vector<io::MediaChannel*> channels = file.stream().streams();
    Timeline timeline;
    // The reader's 32-bit offsets as they are: offsets that wrap are not unwrapped.
    std::uint32_t origin = std::numeric_limits<std::uint32_t>::max();
    for (std::size_t side = 0; side < channels.size() && side < delivered.size(); ++side) {
        io::MediaFrame frame;
        while (channels[side]->read(frame) == 1) {
            delivered[side].push_back(frame);
            origin = std::min(origin, frame.offset);
            timeline.frame_bytes += io::FRAME_HEADER_SIZE + 2u * std::uint64_t{frame.num};
        }
    }
    for (std::size_t side = 0; side < delivered.size(); ++side) {
        std::vector<PlacedFrame>& placed = timeline.sides[side];
        placed.reserve(delivered[side].size());
        for (const io::MediaFrame& frame : delivered[side]) {
            placed.push_back({std::uint64_t{frame.offset} - origin, frame.num, frame.payload});
            timeline.length = std::max(timeline.length, placed.back().end());
        }
        // Stable, so that of frames at one offset the first in the file is placed first.
        std::stable_sort(
            placed.begin(), placed.end(),
            [](const PlacedFrame& a, const PlacedFrame& b) { return a.start < b.start; });
    }
    return timeline;
}

// Adds the gaps and the overlapping frames of one side, sorted by start, to `result`.
void count_side(const std::vector<PlacedFrame>& frames, std::uint64_t length,
                ExportResult& result) {
    std::uint64_t placed_end = 0;
    for (const PlacedFrame& frame : frames) {
        if (frame.start > placed_end) {
            ++result.gaps;
            result.silence += frame.start - placed_end;
        } else if (frame.start < placed_end && frame.num != 0) {
            ++result.overlapping_frames;
        }
        placed_end = std::max(placed_end, frame.end());
    }
    if (length > placed_end) {
        ++result.gaps;
        result.silence += length - placed_end;
    }
}

// The stretches between one frame's end and the next frame's start, in sorted order.
std::vector<SideGap> gaps_between_frames(const std::vector<PlacedFrame>& frames) {
    std::vector<SideGap> gaps;
    for (std::size_t i = 1; i < frames.size(); ++i) {
        const std::uint64_t end = frames[i - 1].end();
        if (frames[i].start > end) {
            gaps.push_back({end, frames[i].start - end});
        }
    }
    return gaps;
}

// One side's samples from the start of the timeline on, a run at a time. The sample at a position
// is that of the first frame, in sorted order, covering it, which is the frame that placed it
// first; without one it is silence.
class SideTrack {
public:
    // REQUIRES: `frames` sorted by start.
    explicit SideTrack(const std::vector<PlacedFrame>& frames) : m_frames(frames) {}

    // Moves to `position`: the next fill starts there, passing the frames that end before it.
    void seek(std::uint64_t position) {
        m_next = 0;
        m_position = position;
    }

    // Fills `out` with the next `count` samples.
    void fill(std::int16_t* out, std::size_t count) {
        while (count > 0) {
            while (m_next < m_frames.size() && m_frames[m_next].end() <= m_position) {
                ++m_next;
            }
            const std::size_t run = m_next < m_frames.size() && m_frames[m_next].start <= m_position
                                        ? copy_samples(m_frames[m_next], out, count)
                                        : fill_silence(out, count);
            out += run;
            count -= run;
            m_position += run;
        }
    }

private:
    // The samples are little-endian and not aligned.
    std::size_t copy_samples(const PlacedFrame& frame, std::int16_t* out, std::size_t count) const {
        const std::size_t run =
            static_cast<std::size_t>(std::min<std::uint64_t>(count, frame.end() - m_position));
        const std::uint8_t* bytes = frame.payload + 2u * (m_position - frame.start);
        for (std::size_t i = 0; i < run; ++i) {
            out[i] = static_cast<std::int16_t>(
                static_cast<std::uint16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8)));
        }
        return run;
    }

    // Up to the next frame's start; no frame covers a position before it.
    std::size_t fill_silence(std::int16_t* out, std::size_t count) const {
        std::size_t run = count;
        if (m_next < m_frames.size()) {
            run = static_cast<std::size_t>(
                std::min<std::uint64_t>(count, m_frames[m_next].start - m_position));
        }
        std::fill_n(out, run, std::int16_t{0});
        return run;
    }

    const std::vector<PlacedFrame>& m_frames;
    // Frames before it end at or before the position.
    std::size_t m_next = 0;
    std::uint64_t m_position = 0;
};

std::int16_t clipped_sum(std::int16_t a, std::int16_t b) {
    const int sum = int{a} + int{b};
    return static_cast<std::int16_t>(std::clamp(sum, int{std::numeric_limits<std::int16_t>::min()},
                                                int{std::numeric_limits<std::int16_t>::max()}));
}

struct SoundFileCloser {
    void operator()(SNDFILE* file) const { sf_close(file); }
};

// The timeline's sample frames as `channels` interleaves them, a block at a time from any frame
// on.
class FrameBlocks {
public:
    FrameBlocks(const Timeline& timeline, ExportChannels channels)
        : m_tracks{SideTrack(timeline.sides[0]), SideTrack(timeline.sides[1])},
          m_channels(channels),
          m_block(BLOCK_FRAMES * channel_count(channels)) {}

    // The sample frame the next block starts at.
    std::uint64_t position() const { return m_position; }

    void seek(std::uint64_t frame) {
        m_tracks[0].seek(frame);
        m_tracks[1].seek(frame);
        m_position = frame;
    }

    // The next `frames` sample frames, interleaved; valid until the next call.
    // REQUIRES: frames <= BLOCK_FRAMES.
    const std::int16_t* next(std::size_t frames) {
        switch (m_channels) {
            case ExportChannels::SIDE_0:
                m_tracks[0].fill(m_block.data(), frames);
                break;
            case ExportChannels::SIDE_1:
                m_tracks[1].fill(m_block.data(), frames);
                break;
            case ExportChannels::STEREO:
            case ExportChannels::MIX:
                m_tracks[0].fill(m_sides[0].data(), frames);
                m_tracks[1].fill(m_sides[1].data(), frames);
                for (std::size_t i = 0; i < frames; ++i) {
                    if (m_channels == ExportChannels::STEREO) {
                        m_block[2 * i] = m_sides[0][i];
                        m_block[2 * i + 1] = m_sides[1][i];
                    } else {
                        m_block[i] = clipped_sum(m_sides[0][i], m_sides[1][i]);
                    }
                }
                break;
        }
        m_position += frames;
        return m_block.data();
    }

private:
    std::array<SideTrack, 2> m_tracks;
    ExportChannels m_channels;
    std::array<std::vector<std::int16_t>, 2> m_sides = {std::vector<std::int16_t>(BLOCK_FRAMES),
                                                        std::vector<std::int16_t>(BLOCK_FRAMES)};
    std::vector<std::int16_t> m_block;
    std::uint64_t m_position = 0;
};

// Writes the timeline in blocks; false when libsndfile did not take a block.
bool write_sound(SNDFILE* sound, const Timeline& timeline, ExportChannels channels) {
    FrameBlocks blocks(timeline, channels);
    while (blocks.position() < timeline.length) {
        const auto frames = static_cast<std::size_t>(
            std::min<std::uint64_t>(BLOCK_FRAMES, timeline.length - blocks.position()));
        if (sf_writef_short(sound, blocks.next(frames), static_cast<sf_count_t>(frames)) !=
            static_cast<sf_count_t>(frames)) {
            return false;
        }
    }
    return true;
}

// The recording opened and its frames placed, for one export or one set of peaks.
class PlacedRecording {
public:
    // `input` is a path or a ByteSource. THROWS: std::runtime_error naming the input (see
    // export_audio).
    template <typename Input>
    explicit PlacedRecording(Input& input) : m_file(input) {
        if (!m_file.session()) {
            throw failure(m_file.path(), truncated_header(m_file.size()));
        }
        m_timeline = timeline_of(m_file);
    }

    const std::filesystem::path& input() const { return m_file.path(); }
    const Timeline& timeline() const { return m_timeline; }

    ExportResult result_for(const SF_INFO& info, ExportChannels channels) {
        ExportResult result;
        result.channels = info.channels;
        result.samples = m_timeline.length;
        result.rate = info.samplerate;
        result.tail = m_file.tail_after(m_timeline.frame_bytes);
        if (channels != ExportChannels::SIDE_1) {
            count_side(m_timeline.sides[0], m_timeline.length, result);
        }
        if (channels != ExportChannels::SIDE_0) {
            count_side(m_timeline.sides[1], m_timeline.length, result);
        }
        return result;
    }

private:
    // Holds the payloads the timeline points into.
    RecordingFile m_file;
    Timeline m_timeline;
};

// Writes the whole timeline into `sound` and closes it; `failed` makes the exception.
template <typename Failure>
void write_and_close(std::unique_ptr<SNDFILE, SoundFileCloser> sound, const Timeline& timeline,
                     ExportChannels channels, const Failure& failed) {
    if (!sound) {
        throw failed(sf_strerror(nullptr));
    }
    if (!write_sound(sound.get(), timeline, channels)) {
        throw failed(sf_strerror(sound.get()));
    }
    const int closed = sf_close(sound.release());
    if (closed != 0) {
        throw failed(sf_error_number(closed));
    }
}

// A file libsndfile writes through its virtual I/O: where it stands and how far the file reaches;
// `Store` keeps the bytes written (writers seek back to fill in headers) and reads them back.
template <typename Store>
struct VirtualFile {
    Store store;
    sf_count_t position = 0;
    sf_count_t extent = 0;

    static VirtualFile& of(void* user) { return *static_cast<VirtualFile*>(user); }

    static sf_count_t length(void* user) { return of(user).extent; }

    static sf_count_t seek(sf_count_t offset, int whence, void* user) {
        VirtualFile& file = of(user);
        const sf_count_t base = whence == SEEK_CUR   ? file.position
                                : whence == SEEK_END ? file.extent
                                                     : 0;
        if (base + offset < 0) {
            return -1;
        }
        file.position = base + offset;
        return file.position;
    }

    static sf_count_t read(void* out, sf_count_t count, void* user) {
        VirtualFile& file = of(user);
        const sf_count_t taken =
            std::min(count, std::max<sf_count_t>(0, file.extent - file.position));
        file.store.read_at(static_cast<std::uint64_t>(file.position), static_cast<char*>(out),
                           static_cast<std::size_t>(taken));
        file.position += taken;
        return taken;
    }

    static sf_count_t write(const void* in, sf_count_t count, void* user) {
        VirtualFile& file = of(user);
        file.store.write_at(static_cast<std::uint64_t>(file.position), static_cast<const char*>(in),
                            static_cast<std::size_t>(count));
        file.position += count;
        file.extent = std::max(file.extent, file.position);
        return count;
    }

    static sf_count_t tell(void* user) { return of(user).position; }

    static SF_VIRTUAL_IO io() { return {&length, &seek, &read, &write, &tell}; }
};

// Every byte, in memory.
struct WholeStore {
    std::string bytes;

    void read_at(std::uint64_t position, char* out, std::size_t count) const {
        std::memcpy(out, bytes.data() + position, count);
    }

    void write_at(std::uint64_t position, const char* in, std::size_t count) {
        bytes.resize(std::max<std::size_t>(bytes.size(), position + count));
        std::memcpy(bytes.data() + position, in, count);
    }
};

// What surrounds the samples, without them: the bytes before `data_start` (the header, written at
// the open and again at the close) and from `data_end` on. Samples read back as silence.
struct FramingStore {
    std::uint64_t data_start = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t data_end = std::numeric_limits<std::uint64_t>::max();
    std::string head;
    std::string tail;

    void read_at(std::uint64_t position, char* out, std::size_t count) const {
        for (std::size_t i = 0; i < count; ++i) {
            const std::uint64_t at = position + i;
            out[i] = at < head.size()                                ? head[at]
                     : at >= data_end && at - data_end < tail.size() ? tail[at - data_end]
                                                                     : '\0';
        }
    }

    void write_at(std::uint64_t position, const char* in, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            const std::uint64_t at = position + i;
            if (at < data_start) {
                put(head, at, in[i]);
            } else if (at >= data_end) {
                put(tail, at - data_end, in[i]);
            }
        }
    }

    static void put(std::string& bytes, std::uint64_t at, char byte) {
        if (at >= bytes.size()) {
            bytes.resize(at + 1);
        }
        bytes[at] = byte;
    }
};

// Writes `frames` sample frames of silence in blocks; false when libsndfile did not take one.
bool write_silence(SNDFILE* sound, int channels, std::uint64_t frames) {
    const std::vector<std::int16_t> block(BLOCK_FRAMES * channels);
    for (std::uint64_t written = 0; written < frames;) {
        const auto count =
            static_cast<sf_count_t>(std::min<std::uint64_t>(BLOCK_FRAMES, frames - written));
        if (sf_writef_short(sound, block.data(), count) != count) {
            return false;
        }
        written += static_cast<std::uint64_t>(count);
    }
    return true;
}

}  // namespace

struct WavExportStream::State {
    template <typename Input>
    State(const ExportOptions& options, Input& input)
        : placed(input), blocks(placed.timeline(), options.channels) {}

    PlacedRecording placed;
    FrameBlocks blocks;
    // The bytes of one sample frame.
    std::uint64_t frame_bytes = 0;
    // libsndfile's header and what it puts after the samples.
    std::string head;
    std::string tail;
    // The block made last, and the offset of its first byte in the samples.
    std::string block;
    std::uint64_t block_at = 0;

    std::uint64_t data_size() const { return placed.timeline().length * frame_bytes; }

    // Appends bytes [first, first + count) of the samples to `out`, blocks made as needed.
    void read_samples(std::uint64_t first, std::size_t count, std::string& out);
    // Makes the block holding byte `at` of the samples.
    void make_block(std::uint64_t at);
};

void WavExportStream::State::make_block(std::uint64_t at) {
    const std::uint64_t frame = at / frame_bytes;
    if (frame != blocks.position()) {
        blocks.seek(frame);
    }
    const auto frames = static_cast<std::size_t>(
        std::min<std::uint64_t>(BLOCK_FRAMES, placed.timeline().length - frame));
    const std::int16_t* samples = blocks.next(frames);
    const std::size_t values = static_cast<std::size_t>(frames * frame_bytes / 2);
    block.resize(2 * values);
    // Little-endian, as the file holds them.
    for (std::size_t i = 0; i < values; ++i) {
        const auto value = static_cast<std::uint16_t>(samples[i]);
        block[2 * i] = static_cast<char>(value & 0xff);
        block[2 * i + 1] = static_cast<char>(value >> 8);
    }
    block_at = frame * frame_bytes;
}

void WavExportStream::State::read_samples(std::uint64_t first, std::size_t count,
                                          std::string& out) {
    while (count > 0) {
        if (first < block_at || first >= block_at + block.size()) {
            make_block(first);
        }
        const auto offset = static_cast<std::size_t>(first - block_at);
        const std::size_t taken = std::min(count, block.size() - offset);
        out.append(block, offset, taken);
        first += taken;
        count -= taken;
    }
}

template <typename Input>
void WavExportStream::open(const ExportOptions& options, Input& input) {
    SF_INFO info = sound_info_for(options);
    if ((info.format & SF_FORMAT_TYPEMASK) != SF_FORMAT_WAV) {
        throw failure(options.output, "only .wav is exported as it is read");
    }
    m_state = std::make_unique<State>(options, input);
    State& state = *m_state;
    state.frame_bytes = 2u * static_cast<std::uint64_t>(info.channels);
    VirtualFile<FramingStore> framing;
    SF_VIRTUAL_IO io = VirtualFile<FramingStore>::io();
    std::unique_ptr<SNDFILE, SoundFileCloser> sound(
        sf_open_virtual(&io, SFM_WRITE, &info, &framing));
    const auto failed = [&state](const std::string& reason) {
        return failure(state.placed.input(), "cannot export: " + reason);
    };
    if (!sound) {
        throw failed(sf_strerror(nullptr));
    }
    // The samples start where the header written at the open ends.
    framing.store.data_start = static_cast<std::uint64_t>(framing.extent);
    framing.store.data_end = framing.store.data_start + state.data_size();
    if (!write_silence(sound.get(), info.channels, state.placed.timeline().length)) {
        throw failed(sf_strerror(sound.get()));
    }
    const int closed = sf_close(sound.release());
    if (closed != 0) {
        throw failed(sf_error_number(closed));
    }
    state.head = std::move(framing.store.head);
    state.tail = std::move(framing.store.tail);
}

WavExportStream::WavExportStream(const ExportOptions& options) {
    open(options, options.input);
}

WavExportStream::WavExportStream(const ExportOptions& options, ByteSource& input) {
    open(options, input);
}

WavExportStream::~WavExportStream() = default;

std::uint64_t WavExportStream::size() const {
    return m_state->head.size() + m_state->data_size() + m_state->tail.size();
}

void WavExportStream::read(std::uint64_t first, std::size_t count, std::string& out) {
    State& state = *m_state;
    const std::uint64_t data_start = state.head.size();
    const std::uint64_t data_end = data_start + state.data_size();
    const std::uint64_t last = first + count;
    if (first < data_start) {
        out.append(state.head, first, std::min(last, data_start) - first);
    }
    if (last > data_start && first < data_end) {
        const std::uint64_t from = std::max(first, data_start);
        state.read_samples(from - data_start,
                           static_cast<std::size_t>(std::min(last, data_end) - from), out);
    }
    if (last > data_end) {
        const std::uint64_t from = std::max(first, data_end);
        out.append(state.tail, from - data_end, last - from);
    }
}

namespace {

template <typename Input>
ExportResult export_from(const ExportOptions& options, Input& input) {
    SF_INFO info = sound_info_for(options);
    refuse_existing(options);
    PlacedRecording placed(input);
    const ExportResult result = placed.result_for(info, options.channels);

    const auto failed = [&options](const std::string& reason) {
        return failure(options.output, "cannot write: " + reason);
    };
    PendingOutput pending(options.output);
    // Made after `pending`: an abandoned sound file is closed before its file is removed.
    write_and_close(std::unique_ptr<SNDFILE, SoundFileCloser>(
                        sf_open_fd(pending.fd(), SFM_WRITE, &info, SF_FALSE)),
                    placed.timeline(), options.channels, failed);
    pending.publish();
    return result;
}

template <typename Input>
std::string export_bytes_from(const ExportOptions& options, Input& input) {
    SF_INFO info = sound_info_for(options);
    PlacedRecording placed(input);
    VirtualFile<WholeStore> memory;
    SF_VIRTUAL_IO io = VirtualFile<WholeStore>::io();
    const auto failed = [&placed](const std::string& reason) {
        return failure(placed.input(), "cannot export: " + reason);
    };
    write_and_close(
        std::unique_ptr<SNDFILE, SoundFileCloser>(sf_open_virtual(&io, SFM_WRITE, &info, &memory)),
        placed.timeline(), options.channels, failed);
    return std::move(memory.store.bytes);
}

template <typename Input>
LegPeaks peaks_from(Input& input, std::size_t width) {
    PlacedRecording placed(input);
    const Timeline& timeline = placed.timeline();
    LegPeaks peaks;
    peaks.samples = timeline.length;
    std::vector<std::int16_t> block(BLOCK_FRAMES);
    for (std::size_t side = 0; side < timeline.sides.size(); ++side) {
        std::vector<PeakColumn>& columns = peaks.columns[side];
        columns.assign(width, PeakColumn{});
        std::vector<bool> touched(width, false);
        SideTrack track(timeline.sides[side]);
        for (std::uint64_t position = 0; position < timeline.length;) {
            const auto count = static_cast<std::size_t>(
                std::min<std::uint64_t>(BLOCK_FRAMES, timeline.length - position));
            track.fill(block.data(), count);
            for (std::size_t i = 0; i < count; ++i, ++position) {
                const auto column = static_cast<std::size_t>(position * width / timeline.length);
                PeakColumn& peak = columns[column];
                peak.min = touched[column] ? std::min(peak.min, block[i]) : block[i];
                peak.max = touched[column] ? std::max(peak.max, block[i]) : block[i];
                touched[column] = true;
            }
        }
        peaks.gaps[side] = gaps_between_frames(timeline.sides[side]);
    }
    return peaks;
}

}  // namespace

ExportResult export_audio(const ExportOptions& options) {
    return export_from(options, options.input);
}

ExportResult export_audio(const ExportOptions& options, ByteSource& input) {
    return export_from(options, input);
}

std::string export_audio_bytes(const ExportOptions& options) {
    return export_bytes_from(options, options.input);
}

std::string export_audio_bytes(const ExportOptions& options, ByteSource& input) {
    return export_bytes_from(options, input);
}

LegPeaks leg_peaks(const std::filesystem::path& input, std::size_t width) {
    return peaks_from(input, width);
}

LegPeaks leg_peaks(ByteSource& input, std::size_t width) {
    return peaks_from(input, width);
}

std::string summary_line(const std::filesystem::path& output, const ExportResult& result) {
    const double seconds = result.rate > 0 ? static_cast<double>(result.samples) / result.rate : 0;
    return output.string() + ": " + counted(result.channels, "channel") + ", " +
           counted(result.samples, "sample") + " (" + utils::str::print_double<3>(seconds) +
           " s at " + std::to_string(result.rate) + " Hz), " + counted(result.gaps, "gap") +
           " filled with " + counted(result.silence, "sample") + " of silence, " +
           counted(result.overlapping_frames, "overlapping frame") + " (samples placed first kept)";
}

std::string tail_warning(const std::filesystem::path& input, const ExportResult& result) {
    if (result.tail == 0) {
        return "";
    }
    return input.string() + ": warning: truncated tail: " + counted(result.tail, "byte") +
           " after the last whole frame not exported";
}

}  // namespace qm::recording
