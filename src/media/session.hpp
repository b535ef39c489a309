#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <list>
#include <string>

#include "core/rc_ptr.hpp"
#include "core/reference_countable.hpp"
#include "media/packet_header.hpp"
#include "media/start_packet.hpp"

// One call leg, keyed by its 64-bit `id`: a recorded session, or a zombie that only absorbs the
// packets of a leg that is not (or not yet) recorded. Reference counted: the session manager's
// table and activity list hold one reference each while the session is live, and the recorder
// keeps more while media buffers of the session are on their way to disk.
//
// Threads: created and written only by the packet-reader thread that runs the session manager.
// Other threads (the media writer) may hold references and read the fields, which no longer
// change once the session has left the table; the hand-over that gives them a reference orders
// those reads after the writes.

namespace qm::media {

class Session : public ReferenceCountable {
public:
    using ActivityList = std::list<rc_ptr<Session>>;

    struct ZombieTag {};
    static constexpr ZombieTag ZOMBIE{};

    // A session opened by `packet`, created at `created_us` on the local steady clock.
    Session(const StartPacket& packet, std::uint64_t created_us)
        : Session(packet.header, created_us, false) {
        ts = packet.ts;
        call_id = packet.call_id();
    }
    // A zombie made from the common header of any packet, created at `created_us`.
    Session(ZombieTag, const PacketHeader& header, std::uint64_t created_us)
        : Session(header, created_us, true) {}
    ~Session() override = default;

    std::array<std::uint8_t, 16> uuid{};
    std::uint64_t id = 0;
    // The start packet's `ts`; 0 for a zombie.
    std::uint64_t ts = 0;
    // The media time of the packet that created the session; with `created_us` it anchors the
    // sender's media clock to the local one.
    std::uint64_t first_mt = 0;
    std::uint64_t created_us = 0;
    // Last accepted data-packet `seq` per side; 0 means "accept the next one as it is".
    std::array<std::uint32_t, 2> last_seq{};
    // Per side, the packets the accepted sequence numbers skipped.
    std::array<std::uint64_t, 2> lost_packets{};
    std::string call_id;
    std::uint64_t last_activity_us = 0;
    // The session's element in the manager's activity list; the list's end once it left it.
    ActivityList::iterator activity_position{};
    bool zombie = false;

private:
    Session(const PacketHeader& header, std::uint64_t now_us, bool is_zombie)
        : id(header.id),
          first_mt(header.mt),
          created_us(now_us),
          last_activity_us(now_us),
          zombie(is_zombie) {
        std::copy(std::begin(header.uuid), std::end(header.uuid), uuid.begin());
    }
};

}  // namespace qm::media
