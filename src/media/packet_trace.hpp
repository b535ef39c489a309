#pragma once

#include <ostream>

#include "media/control_packet.hpp"
#include "media/data_packet.hpp"
#include "media/start_packet.hpp"
#include "media/terminate_packet.hpp"

// The one-line trace text of each packet type, as the packet reader logs it: the type's label
// ("START ", "DATA  ", "TERM  ", "CTRL  ") followed by "| " and the fields, numbers in decimal,
// e.g. "TERM  | mt: 7, v: 1, f: 0, uuid: 00112233-4455-6677-8899-aabbccddeeff".
// Pure functions of the record; any thread.
// REQUIRES: the record's datagram has its required length (the start packet's call id is read).

namespace qm::media {

void print_trace(std::ostream& out, const StartPacket& packet);
void print_trace(std::ostream& out, const DataPacket& packet);
void print_trace(std::ostream& out, const ControlPacket& packet);
void print_trace(std::ostream& out, const TerminatePacket& packet);

// Streams the trace text of a packet: `out << trace_of(packet)`, so that a log message can take
// the text without an intermediate string.
template <typename Packet>
struct PacketTrace {
    const Packet& packet;

    friend std::ostream& operator<<(std::ostream& out, const PacketTrace& trace) {
        print_trace(out, trace.packet);
        return out;
    }
};

template <typename Packet>
PacketTrace<Packet> trace_of(const Packet& packet) {
    return PacketTrace<Packet>{packet};
}

}  // namespace qm::media
