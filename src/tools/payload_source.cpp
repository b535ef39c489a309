#include "tools/payload_source.hpp"

#include <sndfile.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <memory>
#include <numbers>
#include <numeric>
#include <string>
#include <utility>

#include "tools/call_manifest.hpp"

namespace qm::tools {
namespace {

static_assert(std::endian::native == std::endian::little,
              "payload hashes are taken over the samples' bytes as they travel, little-endian");

// Against a duration like 0.02 s landing a hair above a whole number of frames.
constexpr double FRAME_EPSILON = 1e-9;

std::uint32_t frames_to_keep(std::uint64_t samples, std::uint32_t samples_per_frame) {
    return static_cast<std::uint32_t>((samples + samples_per_frame - 1) / samples_per_frame);
}

// Samples after which both sides' tones start over: the least common multiple of their periods,
// each a whole number of samples since the frequencies are whole hertz.
std::uint32_t tone_period() {
    std::uint32_t period = 1;
    for (const std::uint32_t hz : TONE_HZ) {
        period = std::lcm(period, SAMPLE_RATE / std::gcd(SAMPLE_RATE, hz));
    }
    return period;
}

std::uint16_t tone_sample(std::uint32_t hz, std::uint64_t n) {
    const double phase =
        2.0 * std::numbers::pi * static_cast<double>(hz) * static_cast<double>(n) / SAMPLE_RATE;
    return static_cast<std::uint16_t>(
        static_cast<std::int16_t>(std::lround(TONE_AMPLITUDE * std::sin(phase))));
}

struct SndfileCloser {
    void operator()(SNDFILE* file) const { ::sf_close(file); }
};

AudioError audio_error(const std::filesystem::path& path, const std::string& problem) {
    return AudioError(path.string() + ": " + problem);
}

// The file's interleaved samples and its channel count, checked to be one the sides can carry.
std::pair<std::vector<std::int16_t>, int> read_audio(const std::filesystem::path& path) {
    SF_INFO info{};
    std::unique_ptr<SNDFILE, SndfileCloser> file(::sf_open(path.c_str(), SFM_READ, &info));
    if (!file) {
        throw audio_error(path, std::string("cannot read audio: ") + ::sf_strerror(nullptr));
    }
    if (info.channels < 1 || info.channels > 2) {
        throw audio_error(path, std::to_string(info.channels) +
                                    " channels; only mono (both sides) or stereo (left inbound, "
                                    "right outbound) can be sent");
    }
    if (info.samplerate != static_cast<int>(SAMPLE_RATE)) {
        throw audio_error(path, std::to_string(info.samplerate) +
                                    " Hz; legs are sent at 8000 Hz, resample the file first");
    }
    if (info.frames <= 0) {
        throw audio_error(path, "no samples");
    }
    std::vector<std::int16_t> samples(static_cast<std::size_t>(info.frames) * info.channels);
    const sf_count_t read = ::sf_readf_short(file.get(), samples.data(), info.frames);
    if (read <= 0) {
        throw audio_error(path, std::string("cannot read samples: ") + ::sf_strerror(file.get()));
    }
    samples.resize(static_cast<std::size_t>(read) * info.channels);
    return {std::move(samples), info.channels};
}

}  // namespace

std::uint64_t frames_for_duration(double seconds, std::uint32_t samples_per_frame) {
    if (!(seconds > 0.0) || !std::isfinite(seconds)) {
        return 0;
    }
    const double frames = std::ceil(seconds * SAMPLE_RATE / samples_per_frame - FRAME_EPSILON);
    // 2^64 as a double: anything from there on does not convert.
    constexpr double BEYOND = 18446744073709551616.0;
    return frames < BEYOND ? static_cast<std::uint64_t>(frames)
                           : std::numeric_limits<std::uint64_t>::max();
}

PayloadSource PayloadSource::tone(std::uint32_t frames, std::uint32_t samples_per_frame) {
    const std::uint32_t period = tone_period();
    const std::uint32_t cycle = period / std::gcd(period, samples_per_frame);
    const std::uint64_t kept = std::uint64_t{std::min(frames, cycle)} * samples_per_frame;
    std::vector<std::uint16_t> sides[2];
    for (int side = 0; side < 2; ++side) {
        sides[side].resize(kept);
        for (std::uint64_t n = 0; n < kept; ++n) {
            // Taken within the period so that the phase stays exact however far the leg runs.
            sides[side][n] = tone_sample(TONE_HZ[side], n % period);
        }
    }
    return PayloadSource(samples_per_frame, frames, std::move(sides[0]), std::move(sides[1]));
}

PayloadSource PayloadSource::audio(const std::filesystem::path& path,
                                   std::uint32_t samples_per_frame,
                                   std::optional<std::uint32_t> frames) {
    const auto [interleaved, channels] = read_audio(path);
    const std::uint64_t length = interleaved.size() / channels;
    // Looped, the file and the frames line up again after their least common multiple: the
    // frames from there on repeat the kept ones, so a long leg keeps no more than that.
    const std::uint64_t looped = std::lcm(length, std::uint64_t{samples_per_frame});
    const std::uint64_t count =
        frames ? std::min(std::uint64_t{*frames} * samples_per_frame, looped) : length;
    std::vector<std::uint16_t> sides[2];
    for (int side = 0; side < 2; ++side) {
        const int channel = channels == 1 ? 0 : side;
        sides[side].resize(count);
        for (std::uint64_t n = 0; n < count; ++n) {
            sides[side][n] =
                static_cast<std::uint16_t>(interleaved[(n % length) * channels + channel]);
        }
    }
    const std::uint32_t frame_count = frames ? *frames : frames_to_keep(length, samples_per_frame);
    return PayloadSource(samples_per_frame, frame_count, std::move(sides[0]), std::move(sides[1]));
}

PayloadSource::PayloadSource(std::uint32_t samples_per_frame, std::uint32_t frame_count,
                             std::vector<std::uint16_t> side0, std::vector<std::uint16_t> side1)
    : m_samples_per_frame(samples_per_frame),
      m_frame_count(frame_count),
      m_kept_frames(frames_to_keep(side0.size(), samples_per_frame)),
      m_samples{std::move(side0), std::move(side1)} {
    for (int side = 0; side < 2; ++side) {
        m_hashes[side].reserve(m_kept_frames);
        for (std::uint32_t index = 0; index < m_kept_frames; ++index) {
            const std::span<const std::uint16_t> samples = frame(side, index);
            m_hashes[side].push_back(payload_hash(
                reinterpret_cast<const std::uint8_t*>(samples.data()), samples.size_bytes()));
        }
    }
}

std::uint64_t PayloadSource::sample_count() const {
    if (m_frame_count == 0) {
        return 0;
    }
    return std::uint64_t{m_frame_count - 1} * m_samples_per_frame +
           frame(0, m_frame_count - 1).size();
}

std::span<const std::uint16_t> PayloadSource::frame(int side, std::uint32_t index) const {
    const std::vector<std::uint16_t>& samples = m_samples[side];
    const std::size_t begin = std::size_t{index % m_kept_frames} * m_samples_per_frame;
    const std::size_t end = std::min(begin + m_samples_per_frame, samples.size());
    return {samples.data() + begin, end - begin};
}

}  // namespace qm::tools
