#include "tools/call_plan.hpp"

#include <chrono>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <unordered_set>
#include <utility>

namespace qm::tools {
namespace {

constexpr std::uint16_t SIDE_FLAGS[2] = {0, media::FLAG_OUTBOUND};

std::uint64_t now_microseconds() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

std::uint64_t random_word(std::random_device& device) {
    return (std::uint64_t{device()} << 32) | device();
}

// The impaired order of one side's frames, produced one frame at a time: loss, then reorder over
// what loss left, then duplicate over what reorder gave. Each stage pulls from the one before, so
// the whole side is never held; the draws happen in the order of the pulls, which is the same
// whenever the side is walked, so a walk for the manifest and a walk for the wire agree.
class SideStream {
public:
    SideStream(std::uint32_t frames, const Impairments& impairments, std::size_t leg, int side)
        : m_frames(frames), m_impairments(impairments) {
        std::seed_seq seed{static_cast<std::uint32_t>(impairments.seed),
                           static_cast<std::uint32_t>(impairments.seed >> 32),
                           static_cast<std::uint32_t>(leg), static_cast<std::uint32_t>(side)};
        m_random.seed(seed);
    }

    // The next frame to send; false once the side has sent everything. Tallies into `counts`
    // and, when given, marks the frames the recorder will not keep in `expectations` (indexed by
    // frame).
    bool next(std::uint32_t& frame, PlanCounts& counts, std::vector<Expectation>* expectations) {
        if (m_repeat) {
            frame = *m_repeat;
            m_repeat.reset();
            ++counts.duplicated;
            return true;
        }
        if (!ordered(frame, counts, expectations)) {
            return false;
        }
        if (is_middle(frame) && draw(m_impairments.duplicate)) {
            m_repeat = frame;
        }
        return true;
    }

private:
    bool is_middle(std::uint32_t frame) const { return frame > 0 && frame + 1 < m_frames; }

    // A uniform draw in [0, 1) with 53 bits, spelled out rather than left to a distribution whose
    // algorithm differs between standard libraries, so that a seed means the same run anywhere.
    bool draw(double probability) {
        if (probability <= 0.0) {
            return false;
        }
        return static_cast<double>(m_random() >> 11) * 0x1.0p-53 < probability;
    }

    // Loss: the next frame not withheld.
    bool kept(std::uint32_t& frame, PlanCounts& counts, std::vector<Expectation>* expectations) {
        while (m_next_frame < m_frames) {
            const std::uint32_t candidate = m_next_frame++;
            if (is_middle(candidate) && draw(m_impairments.loss)) {
                ++counts.withheld;
                if (expectations != nullptr) {
                    (*expectations)[candidate] = Expectation::LOST;
                }
                continue;
            }
            frame = candidate;
            return true;
        }
        return false;
    }

    // Reorder: the next kept frame, or the one after it with the frame itself held back to go
    // next.
    bool ordered(std::uint32_t& frame, PlanCounts& counts, std::vector<Expectation>* expectations) {
        if (m_swapped) {
            frame = *m_swapped;
            m_swapped.reset();
            return true;
        }
        std::uint32_t first = 0;
        if (m_peeked) {
            first = *m_peeked;
            m_peeked.reset();
        } else if (!kept(first, counts, expectations)) {
            return false;
        }
        frame = first;
        std::uint32_t second = 0;
        if (!is_middle(first) || !kept(second, counts, expectations)) {
            return true;
        }
        if (is_middle(second) && draw(m_impairments.reorder)) {
            frame = second;
            m_swapped = first;
            ++counts.reordered;
            if (expectations != nullptr) {
                (*expectations)[first] = Expectation::REORDERED;
            }
        } else {
            m_peeked = second;
        }
        return true;
    }

    std::uint32_t m_frames;
    Impairments m_impairments;
    std::mt19937_64 m_random;
    std::uint32_t m_next_frame = 0;
    // A kept frame pulled to look for a swap and not swapped: the next one to consider.
    std::optional<std::uint32_t> m_peeked;
    // The frame of a swapped pair that goes second.
    std::optional<std::uint32_t> m_swapped;
    // A frame to send once more.
    std::optional<std::uint32_t> m_repeat;
};

}  // namespace

std::vector<LegIdentity> random_leg_identities(std::size_t count) {
    std::random_device device;
    std::unordered_set<std::uint64_t> ids;
    std::vector<LegIdentity> legs(count);
    for (LegIdentity& leg : legs) {
        do {
            leg.id = random_word(device);
        } while (leg.id == 0 || !ids.insert(leg.id).second);
        for (std::size_t at = 0; at < leg.uuid.size(); at += 8) {
            const std::uint64_t word = random_word(device);
            for (std::size_t i = 0; i < 8; ++i) {
                leg.uuid[at + i] = static_cast<std::uint8_t>(word >> (8 * i));
            }
        }
        leg.uuid[6] = static_cast<std::uint8_t>((leg.uuid[6] & 0x0F) | 0x40);  // version 4
        leg.uuid[8] = static_cast<std::uint8_t>((leg.uuid[8] & 0x3F) | 0x80);  // RFC 4122 variant
        leg.ts = now_microseconds();
    }
    return legs;
}

CallPlan::CallPlan(std::vector<LegIdentity> legs, PayloadSource payload, Impairments impairments)
    : m_legs(std::move(legs)), m_payload(std::move(payload)), m_impairments(impairments) {
    m_starts.reserve(m_legs.size());
    m_terminates.reserve(m_legs.size());
    for (std::size_t leg = 0; leg < m_legs.size(); ++leg) {
        m_starts.push_back(media::encode_start(start_fields(leg)));
        m_terminates.push_back(media::encode_terminate(terminate_fields(leg)));
    }
}

media::StartFields CallPlan::start_fields(std::size_t leg) const {
    media::StartFields fields;
    fields.header.id = m_legs[leg].id;
    fields.header.uuid = m_legs[leg].uuid;
    fields.header.mt = MEDIA_TIME_ORIGIN;
    fields.ts = m_legs[leg].ts;
    fields.sync_ts = m_legs[leg].ts;
    fields.sync_mt = MEDIA_TIME_ORIGIN;
    fields.call_id = "quillmar-send-" + std::to_string(leg);
    return fields;
}

media::TerminateFields CallPlan::terminate_fields(std::size_t leg) const {
    media::TerminateFields fields;
    fields.header.id = m_legs[leg].id;
    fields.header.uuid = m_legs[leg].uuid;
    // The end of the leg's media.
    fields.header.mt = MEDIA_TIME_ORIGIN + m_payload.sample_count() * MICROSECONDS_PER_SAMPLE;
    return fields;
}

void CallPlan::data_fields(std::size_t leg, int side, std::uint32_t frame,
                           media::DataFields& out) const {
    const std::uint64_t first_sample = std::uint64_t{frame} * m_payload.samples_per_frame();
    out.header.id = m_legs[leg].id;
    out.header.uuid = m_legs[leg].uuid;
    out.header.flags = SIDE_FLAGS[side];
    out.header.mt = MEDIA_TIME_ORIGIN + first_sample * MICROSECONDS_PER_SAMPLE;
    out.seq = frame + 1;
    out.off = static_cast<std::uint32_t>(first_sample);
    const std::span<const std::uint16_t> samples = m_payload.frame(side, frame);
    out.payload.assign(samples.begin(), samples.end());
    out.num.reset();
}

std::vector<std::uint32_t> CallPlan::send_order(std::size_t leg, int side) const {
    SideStream stream(m_payload.frame_count(), m_impairments, leg, side);
    PlanCounts counts;
    std::vector<std::uint32_t> order;
    std::uint32_t frame = 0;
    while (stream.next(frame, counts, nullptr)) {
        order.push_back(frame);
    }
    return order;
}

CallManifest CallPlan::manifest() const {
    const std::uint32_t frames = m_payload.frame_count();
    CallManifest manifest;
    manifest.legs.resize(m_legs.size());
    for (std::size_t leg = 0; leg < m_legs.size(); ++leg) {
        SentLeg& sent = manifest.legs[leg];
        sent.uuid = m_legs[leg].uuid;
        sent.id = m_legs[leg].id;
        sent.ts = m_legs[leg].ts;
        for (int side = 0; side < 2; ++side) {
            SentSide& sent_side = sent.sides[side];
            sent_side.frames.reserve(frames);
            for (std::uint32_t frame = 0; frame < frames; ++frame) {
                sent_side.frames.push_back(
                    {frame + 1, frame * m_payload.samples_per_frame(),
                     static_cast<std::uint16_t>(m_payload.frame(side, frame).size()),
                     m_payload.frame_hash(side, frame)});
            }
            sent_side.expectations.assign(frames, Expectation::RECORDED);
            SideStream stream(frames, m_impairments, leg, side);
            PlanCounts counts;
            std::uint32_t frame = 0;
            while (stream.next(frame, counts, &sent_side.expectations)) {
            }
        }
    }
    return manifest;
}

struct CallPlan::Cursor::State {
    enum class Phase { START, DATA, TERMINATE };

    explicit State(const CallPlan& plan) : plan(plan), active(2 * plan.m_legs.size()) {
        streams.reserve(active);
        for (std::size_t leg = 0; leg < plan.m_legs.size(); ++leg) {
            for (int side = 0; side < 2; ++side) {
                streams.emplace_back(plan.m_payload.frame_count(), plan.m_impairments, leg, side);
            }
        }
        finished.assign(active, false);
        fields.payload.reserve(MAX_SAMPLES_PER_FRAME);
    }

    const CallPlan& plan;
    Phase phase = Phase::START;
    // The leg whose start or terminate packet goes next.
    std::size_t leg = 0;
    // Stream 2 x leg + side goes next in the round.
    std::size_t position = 0;
    std::size_t active;
    std::vector<SideStream> streams;
    std::vector<bool> finished;
    media::DataFields fields;
    PlanCounts counts;
};

CallPlan::Cursor::Cursor(const CallPlan& plan) : m_state(std::make_unique<State>(plan)) {}

CallPlan::Cursor::~Cursor() = default;

const PlanCounts& CallPlan::Cursor::counts() const {
    return m_state->counts;
}

bool CallPlan::Cursor::next(media::Datagram& out) {
    State& state = *m_state;
    const CallPlan& plan = state.plan;
    if (state.phase == State::Phase::START) {
        if (state.leg < plan.m_legs.size()) {
            const media::Datagram& start = plan.m_starts[state.leg++];
            out.assign(start.begin(), start.end());
            ++state.counts.start;
            return true;
        }
        state.phase = State::Phase::DATA;
    }
    if (state.phase == State::Phase::DATA) {
        while (state.active > 0) {
            const std::size_t at = state.position;
            state.position = (at + 1) % state.streams.size();
            if (state.finished[at]) {
                continue;
            }
            std::uint32_t frame = 0;
            if (!state.streams[at].next(frame, state.counts, nullptr)) {
                state.finished[at] = true;
                --state.active;
                continue;
            }
            plan.data_fields(at / 2, static_cast<int>(at % 2), frame, state.fields);
            media::encode_data(state.fields, out);
            ++state.counts.data;
            return true;
        }
        state.phase = State::Phase::TERMINATE;
        state.leg = 0;
    }
    if (state.phase == State::Phase::TERMINATE) {
        if (state.leg < plan.m_legs.size()) {
            const media::Datagram& terminate = plan.m_terminates[state.leg++];
            out.assign(terminate.begin(), terminate.end());
            ++state.counts.terminate;
            return true;
        }
    }
    return false;
}

}  // namespace qm::tools
