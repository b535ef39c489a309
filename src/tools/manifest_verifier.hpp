#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/call_manifest.hpp"

// Checks the recordings under a storage root against what `quillmar send` says it sent: every
// data packet the recorder is expected to keep is in the leg's file once, on its side, in order,
// at its offset, with the same samples; nothing else is. Packets withheld or reordered by the
// sender are expected gaps. Reads files only; any thread, one verification at a time per object.

namespace qm::tools {

struct LegVerdict {
    enum class State { COMPLETE, INCOMPLETE, MISSING };

    State state = State::COMPLETE;
    std::filesystem::path path;
    // What differs, one phrase each ("side 0: 2 frames missing (seq 17, 18)"); empty when
    // complete.
    std::vector<std::string> problems;
};

struct VerifySummary {
    std::size_t complete = 0;
    std::size_t incomplete = 0;
    std::size_t missing = 0;
};

// The verdict on one leg, whose recording is looked for at the storage layout's path under
// `storage`.
LegVerdict verify_leg(const SentLeg& leg, const std::filesystem::path& storage);

// The line printed for a leg that is not complete: "leg <uuid> incomplete: <path>: <problem>; ..."
// or "leg <uuid> missing: <path>: <problem>".
std::string verdict_line(const SentLeg& leg, const LegVerdict& verdict);

// "N legs verified, M incomplete, K missing"; N counts the complete legs.
std::string summary_line(const VerifySummary& summary);

}  // namespace qm::tools
