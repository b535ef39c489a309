#include "tools/manifest_verifier.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <unordered_map>

#include "io/io_media_channel.hpp"
#include "io/io_session_path.hpp"
#include "recording/recording_file.hpp"
#include "utils/str.hpp"

namespace qm::tools {
namespace {

// At most this many sequence numbers are named per kind of problem; the count says the rest.
constexpr std::size_t NAMED_SEQS = 8;

// What one side's frames in the file did wrong, by the sequence numbers of the packets concerned.
struct SideFindings {
    std::vector<std::uint32_t> missing;
    std::vector<std::uint32_t> repeated;
    std::vector<std::uint32_t> out_of_order;
    std::vector<std::uint32_t> differing;
    // Offsets of frames that match no packet the recorder should have kept.
    std::vector<std::uint32_t> unexpected;
};

std::string listed(const std::vector<std::uint32_t>& values) {
    std::ostringstream out;
    for (std::size_t i = 0; i < values.size() && i < NAMED_SEQS; ++i) {
        out << (i == 0 ? "" : ", ") << values[i];
    }
    if (values.size() > NAMED_SEQS) {
        out << ", and " << values.size() - NAMED_SEQS << " more";
    }
    return out.str();
}

void describe(std::vector<std::string>& problems, int side,
              const std::vector<std::uint32_t>& values, const std::string& what,
              const std::string& key) {
    if (values.empty()) {
        return;
    }
    problems.push_back("side " + std::to_string(side) + ": " + std::to_string(values.size()) +
                       (values.size() == 1 ? " frame " : " frames ") + what + " (" + key + " " +
                       listed(values) + ")");
}

// The packets the recorder should have kept, by offset.
std::unordered_map<std::uint32_t, std::size_t> kept_by_offset(const SentSide& side) {
    std::unordered_map<std::uint32_t, std::size_t> kept;
    for (std::size_t i = 0; i < side.frames.size(); ++i) {
        if (side.expectations[i] == Expectation::RECORDED) {
            kept.emplace(side.frames[i].off, i);
        }
    }
    return kept;
}

SideFindings check_side(const SentSide& side, io::MediaChannel& channel) {
    const std::unordered_map<std::uint32_t, std::size_t> kept = kept_by_offset(side);
    std::vector<bool> seen(side.frames.size(), false);
    SideFindings findings;
    std::size_t last_index = 0;
    bool any = false;
    io::MediaFrame frame;
    while (channel.read(frame) == 1) {
        const auto found = kept.find(frame.offset);
        if (found == kept.end()) {
            findings.unexpected.push_back(frame.offset);
            continue;
        }
        const std::size_t index = found->second;
        const SentFrame& sent = side.frames[index];
        if (seen[index]) {
            findings.repeated.push_back(sent.seq);
            continue;
        }
        seen[index] = true;
        if (any && index < last_index) {
            findings.out_of_order.push_back(sent.seq);
        }
        if (frame.num != sent.num || payload_hash(frame.payload, 2u * frame.num) != sent.hash) {
            findings.differing.push_back(sent.seq);
        }
        last_index = index;
        any = true;
    }
    for (const auto& [offset, index] : kept) {
        if (!seen[index]) {
            findings.missing.push_back(side.frames[index].seq);
        }
    }
    std::sort(findings.missing.begin(), findings.missing.end());
    return findings;
}

void add_findings(std::vector<std::string>& problems, int side, const SideFindings& findings) {
    describe(problems, side, findings.missing, "missing", "seq");
    describe(problems, side, findings.repeated, "recorded twice", "seq");
    describe(problems, side, findings.out_of_order, "out of order", "seq");
    describe(problems, side, findings.differing, "with other samples", "seq");
    describe(problems, side, findings.unexpected, "not sent or expected dropped", "offset");
}

void check_header(std::vector<std::string>& problems, const SentLeg& leg,
                  const recording::RecordingFile& file) {
    if (!file.session()) {
        problems.push_back("the file ends inside its header");
        return;
    }
    const io::SessionHeader& header = *file.session();
    if (header.ts != leg.ts || std::memcmp(header.uuid, leg.uuid.data(), leg.uuid.size()) != 0) {
        problems.push_back("the header names another leg (uuid " +
                           utils::str::print_uuid(header.uuid) + ", ts " +
                           std::to_string(std::uint64_t{header.ts}) + ")");
    }
}

}  // namespace

LegVerdict verify_leg(const SentLeg& leg, const std::filesystem::path& storage) {
    LegVerdict verdict;
    verdict.path = storage / io::session_path(leg.ts, leg.uuid);
    // A path that cannot be looked at (no permission on a directory) is not missing: opening it
    // below names what is wrong.
    std::error_code unreadable;
    if (!std::filesystem::exists(verdict.path, unreadable) && !unreadable) {
        verdict.state = LegVerdict::State::MISSING;
        verdict.problems.push_back("no recording");
        return verdict;
    }
    try {
        recording::RecordingFile file(verdict.path);
        check_header(verdict.problems, leg, file);
        const std::vector<io::MediaChannel*> channels = file.stream().streams();
        for (int side = 0; side < 2; ++side) {
            add_findings(verdict.problems, side, check_side(leg.sides[side], *channels[side]));
        }
    } catch (const recording::RecordingError& error) {
        verdict.problems.push_back(error.what());
    }
    if (!verdict.problems.empty()) {
        verdict.state = LegVerdict::State::INCOMPLETE;
    }
    return verdict;
}

std::string verdict_line(const SentLeg& leg, const LegVerdict& verdict) {
    std::string line =
        "leg " + utils::str::print_uuid(leg.uuid.data()) +
        (verdict.state == LegVerdict::State::MISSING ? " missing: " : " incomplete: ") +
        verdict.path.string() + ": ";
    for (std::size_t i = 0; i < verdict.problems.size(); ++i) {
        line += (i == 0 ? "" : "; ") + verdict.problems[i];
    }
    return line;
}

std::string summary_line(const VerifySummary& summary) {
    return std::to_string(summary.complete) + " legs verified, " +
           std::to_string(summary.incomplete) + " incomplete, " + std::to_string(summary.missing) +
           " missing";
}

}  // namespace qm::tools
