#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "media/data_packet.hpp"
#include "media/packet_encoder.hpp"
#include "media/packet_header.hpp"
#include "tools/call_manifest.hpp"
#include "tools/payload_source.hpp"

// What `quillmar send` puts on the wire, in order, and the manifest of it: pure and
// deterministic given the legs' identities, the payload and the impairments.
//
// Each leg sends a start packet, its two sides' data packets, then a terminate packet. The wire
// order is every start packet in leg order; then rounds, where round r carries, leg after leg,
// side 0's r-th packet then side 1's; then every terminate packet in leg order. Side 0 leads every
// round because the recording's reader anchors each side's offsets on the first frames it finds.
//
// A side's packets go through three impairments, decided in this order from a random stream of
// its own (std::mt19937_64 seeded from the seed, the leg's index and the side), and never applied
// to the side's first or last packet, which anchor the side on the recording's timeline:
//   loss:      the packet is withheld;
//   reorder:   walking the packets left, the packet is swapped with the next one (which must not
//              be the last), so the recorder sees it after a later sequence number and drops it;
//              neither of the pair is swapped again;
//   duplicate: the packet is sent twice back to back; the recorder keeps it once.
//
// Nothing is held per packet: a side's order is worked out as its packets are sent, and the
// payloads are shared per frame index. The plan is immutable once made and may be read from any
// thread; a Cursor is used by one thread at a time.

namespace qm::tools {

// The media time of every leg's first sample, in microseconds.
inline constexpr std::uint64_t MEDIA_TIME_ORIGIN = 1000000;
inline constexpr std::uint64_t MICROSECONDS_PER_SAMPLE = 1000000 / SAMPLE_RATE;
// The most samples a data packet carries within the recorder's largest datagram.
inline constexpr std::uint32_t MAX_SAMPLES_PER_FRAME =
    (media::PACKET_MAX_LENGTH - sizeof(media::DataPacket)) / 2;
// Bound on a side's samples, frames x samples per frame, so that every offset and sequence
// number fits its 32 bits.
inline constexpr std::uint64_t MAX_SIDE_SAMPLES = std::uint64_t{1} << 32;

// Who a leg is in the recorder's storage: its uuid, its session id and its start time.
struct LegIdentity {
    media::Uuid uuid{};
    std::uint64_t id = 0;
    // Wall clock, microseconds since the epoch.
    std::uint64_t ts = 0;
};

// `count` legs with random version-4 uuids and random nonzero session ids, distinct from one
// another, from std::random_device so that two runs never share a recording; `ts` is now.
std::vector<LegIdentity> random_leg_identities(std::size_t count);

struct Impairments {
    // Probabilities in [0, 1].
    double loss = 0.0;
    double reorder = 0.0;
    double duplicate = 0.0;
    std::uint64_t seed = 1;
};

// What a walk through the plan has produced so far.
struct PlanCounts {
    std::uint64_t start = 0;
    // Every data packet sent, duplicates included.
    std::uint64_t data = 0;
    std::uint64_t terminate = 0;
    // Packets made but not sent (loss).
    std::uint64_t withheld = 0;
    std::uint64_t reordered = 0;
    // Second copies sent.
    std::uint64_t duplicated = 0;

    std::uint64_t datagrams() const { return start + data + terminate; }
};

class CallPlan {
public:
    // REQUIRES: payload.frame_count() x payload.samples_per_frame() < MAX_SIDE_SAMPLES; the
    // probabilities in [0, 1].
    CallPlan(std::vector<LegIdentity> legs, PayloadSource payload, Impairments impairments);

    const std::vector<LegIdentity>& legs() const { return m_legs; }
    const PayloadSource& payload() const { return m_payload; }

    // The fields of a leg's packets; `call_id` is "quillmar-send-<leg>".
    media::StartFields start_fields(std::size_t leg) const;
    media::TerminateFields terminate_fields(std::size_t leg) const;
    // The fields of the data packet of `frame` on `side`, written into `out` whose payload
    // keeps its capacity.
    void data_fields(std::size_t leg, int side, std::uint32_t frame, media::DataFields& out) const;

    // The frames a side sends, in the order it sends them; a duplicated one appears twice.
    std::vector<std::uint32_t> send_order(std::size_t leg, int side) const;

    // Every data packet made for every leg, sent or not, with what the recorder should keep.
    CallManifest manifest() const;

    // The datagrams of the plan in wire order, encoded one at a time.
    class Cursor {
    public:
        explicit Cursor(const CallPlan& plan);
        ~Cursor();
        Cursor(const Cursor&) = delete;
        Cursor& operator=(const Cursor&) = delete;

        // Replaces the bytes of `out` with the next datagram; false, with `out` untouched, once
        // every datagram was produced. Allocates nothing once `out` has grown to the largest
        // datagram.
        bool next(media::Datagram& out);

        const PlanCounts& counts() const;

    private:
        struct State;
        std::unique_ptr<State> m_state;
    };

private:
    std::vector<LegIdentity> m_legs;
    PayloadSource m_payload;
    Impairments m_impairments;
    // Encoded once, copied out by cursors.
    std::vector<media::Datagram> m_starts;
    std::vector<media::Datagram> m_terminates;
};

}  // namespace qm::tools
