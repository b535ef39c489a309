#include "media/packet_trace.hpp"

#include <cstdint>

#include "utils/str.hpp"

namespace qm::media {
namespace {

// The six characters of a pair of feature bytes: bits 7 and 6 of ft0 alone, then bits 5 to 2 of
// both bytes, each pair (ft1 bit, ft0 bit) picking one of four characters of a table.
void print_ft(std::ostream& out, const std::uint8_t (&ft)[2]) {
    const auto bit = [](std::uint8_t byte, int n) { return (byte >> n) & 1; };
    const auto pair = [&](int n) { return 2 * bit(ft[1], n) + bit(ft[0], n); };
    out << "-R"[bit(ft[0], 7)] << "-R"[bit(ft[0], 6)] << "-s?S"[pair(5)] << "-s?S"[pair(4)]
        << "-a?A"[pair(3)] << "-a?A"[pair(2)];
}

// "| mt: <mt>, v: <version>, f: ", the start of every trace after its label.
void print_head(std::ostream& out, const PacketHeader& header) {
    out << "| mt: " << header.mt << ", v: " << static_cast<unsigned>(header.version) << ", f: ";
}

void print_uuid(std::ostream& out, const PacketHeader& header) {
    out << ", uuid: ";
    utils::str::print_uuid(out, header.uuid);
}

}  // namespace

void print_trace(std::ostream& out, const StartPacket& packet) {
    const PacketHeader& header = packet.header;
    out << "START ";
    print_head(out, header);
    out << (packet.has_rule() ? 'R' : '-') << (packet.has_n_flag() ? 'N' : '-');
    print_uuid(out, header);
    out << ", ts: " << packet.ts << ", leg: " << (header.is_outbound() ? "outbound" : "inbound")
        << ", call id: " << packet.call_id() << ", id: " << header.id
        << ", sync ts: " << packet.sync_ts << ", sync mt: " << packet.sync_mt << ", ft: ";
    print_ft(out, packet.ft);
    if (packet.has_rule()) {
        out << ", rule: " << packet.rule;
    }
}

void print_trace(std::ostream& out, const DataPacket& packet) {
    const PacketHeader& header = packet.header;
    out << "DATA  ";
    print_head(out, header);
    out << (packet.has_s_flag() ? 'S' : '-');
    print_uuid(out, header);
    out << ", side: " << static_cast<unsigned>(header.side()) << ", seq: " << packet.seq
        << ", num: " << packet.num << ", off: " << packet.off;
}

void print_trace(std::ostream& out, const ControlPacket& packet) {
    const PacketHeader& header = packet.header;
    out << "CTRL  ";
    print_head(out, header);
    out << static_cast<unsigned>(header.flags_high_byte());
    print_uuid(out, header);
    if (packet.has_ft()) {
        out << ", ft: ";
        print_ft(out, packet.ft);
    }
}

void print_trace(std::ostream& out, const TerminatePacket& packet) {
    const PacketHeader& header = packet.header;
    out << "TERM  ";
    print_head(out, header);
    out << static_cast<unsigned>(header.flags_high_byte());
    print_uuid(out, header);
}

}  // namespace qm::media
