#include "tools/call_manifest.hpp"

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "recording/recording_file.hpp"
#include "utils/str.hpp"

namespace qm::tools {
namespace {

using nlohmann::json;

constexpr int VERSION = 1;

std::string hash_text(std::uint64_t hash) {
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
    return text;
}

json seqs_expected(const SentSide& side, Expectation expectation) {
    json seqs = json::array();
    for (std::size_t i = 0; i < side.frames.size(); ++i) {
        if (side.expectations[i] == expectation) {
            seqs.push_back(side.frames[i].seq);
        }
    }
    return seqs;
}

json side_json(const SentSide& side, int number) {
    json frames = json::array();
    for (const SentFrame& frame : side.frames) {
        frames.push_back(json::array({frame.seq, frame.off, frame.num, hash_text(frame.hash)}));
    }
    return {{"side", number},
            {"frames", std::move(frames)},
            {"lost", seqs_expected(side, Expectation::LOST)},
            {"reordered", seqs_expected(side, Expectation::REORDERED)}};
}

json leg_json(const SentLeg& leg) {
    return {{"uuid", utils::str::print_uuid(leg.uuid.data())},
            {"id", leg.id},
            {"ts", leg.ts},
            {"sides", json::array({side_json(leg.sides[0], 0), side_json(leg.sides[1], 1)})}};
}

// Frames are in sequence order, one per sequence number from the first.
void mark(SentSide& side, const json& seqs, Expectation expectation) {
    for (const json& seq : seqs) {
        const std::size_t index = seq.get<std::uint32_t>() - side.frames.at(0).seq;
        side.expectations.at(index) = expectation;
    }
}

SentSide side_from(const json& in) {
    SentSide side;
    for (const json& frame : in.at("frames")) {
        side.frames.push_back({frame.at(0).get<std::uint32_t>(), frame.at(1).get<std::uint32_t>(),
                               frame.at(2).get<std::uint16_t>(),
                               std::stoull(frame.at(3).get<std::string>(), nullptr, 16)});
    }
    side.expectations.assign(side.frames.size(), Expectation::RECORDED);
    mark(side, in.at("lost"), Expectation::LOST);
    mark(side, in.at("reordered"), Expectation::REORDERED);
    return side;
}

SentLeg leg_from(const json& in) {
    SentLeg leg;
    const std::optional<io::Uuid> uuid = recording::parse_uuid(in.at("uuid").get<std::string>());
    if (!uuid) {
        throw std::runtime_error("bad uuid \"" + in.at("uuid").get<std::string>() + "\"");
    }
    leg.uuid = *uuid;
    leg.id = in.at("id").get<std::uint64_t>();
    leg.ts = in.at("ts").get<std::uint64_t>();
    for (const json& side : in.at("sides")) {
        leg.sides.at(side.at("side").get<std::size_t>()) = side_from(side);
    }
    return leg;
}

}  // namespace

std::uint64_t payload_hash(const std::uint8_t* bytes, std::size_t size) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;
    for (std::size_t i = 0; i < size; ++i) {
        hash = (hash ^ bytes[i]) * 0x100000001b3ULL;
    }
    return hash;
}

void write_manifest(const CallManifest& manifest, const std::filesystem::path& path) {
    json legs = json::array();
    for (const SentLeg& leg : manifest.legs) {
        legs.push_back(leg_json(leg));
    }
    std::ofstream out(path);
    out << json{{"version", VERSION}, {"legs", std::move(legs)}} << '\n';
    if (!out.flush()) {
        throw std::runtime_error(path.string() + ": cannot write the manifest");
    }
}

CallManifest read_manifest(const std::filesystem::path& path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error(path.string() + ": cannot open the manifest");
    }
    try {
        const json document = json::parse(in);
        if (document.at("version").get<int>() != VERSION) {
            throw std::runtime_error("unknown version");
        }
        CallManifest manifest;
        for (const json& leg : document.at("legs")) {
            manifest.legs.push_back(leg_from(leg));
        }
        return manifest;
    } catch (const std::exception& error) {
        throw std::runtime_error(path.string() + ": not a manifest: " + error.what());
    }
}

}  // namespace qm::tools
