#include <charconv>
#include <cmath>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "tools/call_manifest.hpp"
#include "tools/call_plan.hpp"
#include "tools/call_sender.hpp"
#include "tools/payload_source.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

constexpr double DEFAULT_DURATION_SECONDS = 10.0;
constexpr std::uint32_t DEFAULT_SAMPLES = 160;
// Each leg holds a few kilobytes of random state while it is sent.
constexpr std::uint64_t MAX_CALLS = 100000;

// A command line the command cannot run with; exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Options are taken as text and read here, so that every bad value is a usage error of this
// command with its own message, whatever the parser would make of it.
struct SendOptions {
    std::string to;
    std::string calls;
    std::string rate;
    std::string duration;
    std::string samples = std::to_string(DEFAULT_SAMPLES);
    std::string audio;
    std::string loss = "0";
    std::string reorder = "0";
    std::string duplicate = "0";
    std::string seed = "1";
    std::string manifest;
    bool one_by_one = false;
};

template <typename T>
std::optional<T> parse_number(const std::string& text) {
    T value{};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc{} || stop != end) {
        return std::nullopt;
    }
    return value;
}

std::uint64_t whole_number(const std::string& option, const std::string& text) {
    const std::optional<std::uint64_t> value = parse_number<std::uint64_t>(text);
    if (!value) {
        throw UsageError(option + " \"" + text + "\": not a whole number");
    }
    return *value;
}

double real_number(const std::string& option, const std::string& text) {
    const std::optional<double> value = parse_number<double>(text);
    if (!value || !std::isfinite(*value)) {
        throw UsageError(option + " \"" + text + "\": not a number");
    }
    return *value;
}

double probability(const std::string& option, const std::string& text) {
    const double value = real_number(option, text);
    if (value < 0.0 || value > 1.0) {
        throw UsageError(option + " " + text + ": a probability is from 0 to 1");
    }
    return value;
}

std::uint32_t samples_per_frame(const std::string& text) {
    const std::uint64_t samples = whole_number("--samples", text);
    if (samples < 1 || samples > MAX_SAMPLES_PER_FRAME) {
        throw UsageError(
            "--samples " + text + ": from 1 to " + std::to_string(MAX_SAMPLES_PER_FRAME) +
            " (a data packet of N samples is " + std::to_string(sizeof(media::DataPacket)) +
            " + 2N bytes, and the recorder takes datagrams of at most " +
            std::to_string(media::PACKET_MAX_LENGTH) + ")");
    }
    return static_cast<std::uint32_t>(samples);
}

void check_side_length(std::uint64_t frames, std::uint32_t samples) {
    if (frames > (MAX_SIDE_SAMPLES - 1) / samples) {
        throw UsageError("a leg of " + std::to_string(frames) + " frames of " +
                         std::to_string(samples) + " samples is too long: offsets are 32 bits");
    }
}

PayloadSource make_payload(const SendOptions& options, std::uint32_t samples) {
    std::optional<std::uint32_t> frames;
    if (!options.duration.empty() || options.audio.empty()) {
        const double seconds = options.duration.empty()
                                   ? DEFAULT_DURATION_SECONDS
                                   : real_number("--duration", options.duration);
        if (seconds <= 0.0) {
            throw UsageError("--duration " + options.duration + ": must be more than 0");
        }
        const std::uint64_t count = frames_for_duration(seconds, samples);
        check_side_length(count, samples);
        frames = static_cast<std::uint32_t>(count);
    }
    if (options.audio.empty()) {
        return PayloadSource::tone(*frames, samples);
    }
    try {
        PayloadSource payload = PayloadSource::audio(options.audio, samples, frames);
        check_side_length(payload.frame_count(), samples);
        return payload;
    } catch (const AudioError& error) {
        throw UsageError(error.what());
    }
}

Impairments make_impairments(const SendOptions& options) {
    Impairments impairments;
    impairments.loss = probability("--loss", options.loss);
    impairments.reorder = probability("--reorder", options.reorder);
    impairments.duplicate = probability("--duplicate", options.duplicate);
    impairments.seed = whole_number("--seed", options.seed);
    return impairments;
}

int run_send(const SendOptions& options) {
    try {
        if (options.to.empty() || options.calls.empty()) {
            throw UsageError("--to HOST:PORT and --calls N are required");
        }
        const std::optional<sockaddr_in> destination = parse_destination(options.to);
        if (!destination) {
            throw UsageError("--to \"" + options.to +
                             "\": not HOST:PORT (an IPv4 address or host name, a port 1-65535)");
        }
        const std::uint64_t calls = whole_number("--calls", options.calls);
        if (calls < 1 || calls > MAX_CALLS) {
            throw UsageError("--calls " + options.calls + ": from 1 to " +
                             std::to_string(MAX_CALLS));
        }
        std::optional<double> rate;
        if (!options.rate.empty()) {
            rate = real_number("--rate", options.rate);
            if (*rate < 0.0) {
                throw UsageError("--rate " + options.rate + ": datagrams per second, 0 or more");
            }
        }
        const std::uint32_t samples = samples_per_frame(options.samples);
        const Impairments impairments = make_impairments(options);
        const CallPlan plan(random_leg_identities(calls), make_payload(options, samples),
                            impairments);
        // Written before anything is sent: a path that cannot be written costs no run, and the
        // manifest is there to verify against even when the run is cut short.
        if (!options.manifest.empty()) {
            try {
                write_manifest(plan.manifest(), options.manifest);
            } catch (const std::runtime_error& error) {
                throw UsageError(error.what());
            }
        }
        // Real time: every side a stream of one frame per frame's worth of media.
        const double pps = rate.value_or(static_cast<double>(calls) * 2.0 * SAMPLE_RATE / samples);
        CallSender sender(*destination, !options.one_by_one);
        const SendResult result = sender.send(plan, pps);
        if (!result.error.empty()) {
            std::cerr << "quillmar send: " << result.error << " (after " << result.sent
                      << " datagrams)" << std::endl;
            return 1;
        }
        std::cout << send_summary(calls, result) << std::endl;
        return 0;
    } catch (const UsageError& error) {
        std::cerr << "quillmar send: " << error.what() << std::endl;
        return 2;
    } catch (const SendError& error) {
        std::cerr << "quillmar send: " << error.what() << std::endl;
        return 1;
    }
}

}  // namespace

void add_send_command(CLI::App& app, int& status) {
    auto options = std::make_shared<SendOptions>();
    CLI::App* command = app.add_subcommand(
        "send", "send test calls to a recorder over UDP, with reproducible impairments");
    command->add_option("--to", options->to, "the recorder's address (required)")
        ->type_name("HOST:PORT");
    command->add_option("--calls", options->calls, "concurrent call legs (required)")
        ->type_name("N");
    command
        ->add_option("--rate", options->rate,
                     "datagrams per second in all; 0 sends unpaced; default: real time")
        ->type_name("PPS");
    command
        ->add_option("--duration", options->duration,
                     "seconds of media per leg; default: 10, or the audio file's length")
        ->type_name("S");
    command->add_option("--samples", options->samples, "samples per data packet")
        ->type_name("N")
        ->capture_default_str();
    command
        ->add_option("--audio", options->audio,
                     "send this audio file (8000 Hz; mono, or stereo: left inbound, right "
                     "outbound) instead of a tone")
        ->type_name("FILE");
    command->add_option("--loss", options->loss, "probability of withholding a packet")
        ->type_name("P")
        ->capture_default_str();
    command
        ->add_option("--reorder", options->reorder,
                     "probability of sending a packet after the next one")
        ->type_name("P")
        ->capture_default_str();
    command->add_option("--duplicate", options->duplicate, "probability of sending a packet twice")
        ->type_name("P")
        ->capture_default_str();
    command->add_option("--seed", options->seed, "seed of the impairments")
        ->type_name("N")
        ->capture_default_str();
    command
        ->add_option("--manifest", options->manifest,
                     "write what is sent here, for quillmar verify")
        ->type_name("FILE");
    command->add_flag("--one-by-one", options->one_by_one,
                      "hand every datagram to the kernel as a message of its own, as media "
                      "sources do, so that a capture on the interface sees one packet per "
                      "datagram (slower)");
    command->callback([options, &status] { status = run_send(*options); });
}

}  // namespace qm::tools
