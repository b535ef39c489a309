#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

// The samples that `quillmar send` puts in its data packets: the frames of each side, made once
// before anything is sent and shared by every leg, so that sending computes nothing per packet.
// Frame k of a side starts at sample k x `samples_per_frame()`; every frame is full but possibly
// the last of an audio file sent for its own length. The tone repeats itself after a few frames,
// so only those are kept, whatever the duration. A plain value; any thread once made.

namespace qm::tools {

// The media clock of the recorder's legs.
inline constexpr std::uint32_t SAMPLE_RATE = 8000;

// The tone sent when no audio file is given: a sine per side at this amplitude, 1000 Hz inbound
// and 400 Hz outbound, so that the two sides are told apart by ear.
inline constexpr double TONE_AMPLITUDE = 8000.0;
inline constexpr std::uint32_t TONE_HZ[2] = {1000, 400};

// An audio file that cannot be sent: unreadable, empty, not 8000 Hz, more than two channels.
// `what()` is one line naming the file.
class AudioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// How many frames of `samples_per_frame` samples cover `seconds` of media: the last one may run
// past the end. Zero for a duration that is not positive, the largest count for one too long to
// count.
std::uint64_t frames_for_duration(double seconds, std::uint32_t samples_per_frame);

class PayloadSource {
public:
    // `frames` frames of the tone on each side, phase-continuous from one frame to the next.
    // REQUIRES: samples_per_frame > 0.
    static PayloadSource tone(std::uint32_t frames, std::uint32_t samples_per_frame);

    // The samples of the audio file at `path`, read as 16-bit samples in any format libsndfile
    // reads, at 8000 Hz: a mono file gives both sides the same samples, a stereo file its left
    // channel to side 0 and its right channel to side 1. Without `frames`, the sides last as long
    // as the file and their last frame carries what remains of it; with `frames`, they are that
    // many full frames long, the file looped or cut to fit.
    // REQUIRES: samples_per_frame > 0. THROWS: AudioError.
    static PayloadSource audio(const std::filesystem::path& path, std::uint32_t samples_per_frame,
                               std::optional<std::uint32_t> frames = std::nullopt);

    std::uint32_t samples_per_frame() const { return m_samples_per_frame; }
    std::uint32_t frame_count() const { return m_frame_count; }
    // Samples of one side from the first frame to the end of the last.
    std::uint64_t sample_count() const;

    // Frame `index` of `side` (0 or 1).
    // REQUIRES: index < frame_count().
    std::span<const std::uint16_t> frame(int side, std::uint32_t index) const;
    // `payload_hash` of the frame's bytes as they travel.
    // REQUIRES: index < frame_count().
    std::uint64_t frame_hash(int side, std::uint32_t index) const {
        return m_hashes[side][index % m_kept_frames];
    }

private:
    // Frames `frame_count` and more repeat the kept ones: frame k is kept frame k % kept.
    PayloadSource(std::uint32_t samples_per_frame, std::uint32_t frame_count,
                  std::vector<std::uint16_t> side0, std::vector<std::uint16_t> side1);

    std::uint32_t m_samples_per_frame = 0;
    std::uint32_t m_frame_count = 0;
    std::uint32_t m_kept_frames = 0;
    // Per side, every sample of the kept frames back to back.
    std::vector<std::uint16_t> m_samples[2];
    std::vector<std::uint64_t> m_hashes[2];
};

}  // namespace qm::tools
