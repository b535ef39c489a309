#include "media/packet_encoder.hpp"

#include <algorithm>
#include <utility>

#include "media/wire_format.hpp"

namespace qm::media {
namespace {

// Appends `value` as `width` little-endian bytes.
void put(Datagram& out, std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

// Appends 16-bit units as little-endian pairs, grown once rather than byte by byte.
void put_units(Datagram& out, const std::vector<std::uint16_t>& units) {
    std::size_t at = out.size();
    out.resize(at + 2 * units.size());
    for (std::uint16_t unit : units) {
        out[at++] = static_cast<std::uint8_t>(unit);
        out[at++] = static_cast<std::uint8_t>(unit >> 8);
    }
}

template <std::size_t N>
void put(Datagram& out, const std::array<std::uint8_t, N>& bytes) {
    out.insert(out.end(), bytes.begin(), bytes.end());
}

void put_header(Datagram& out, const HeaderFields& fields, PacketType type,
                std::uint16_t extra_flags = 0) {
    put(out, fields.marker, 4);
    put(out, fields.type.value_or(static_cast<std::uint8_t>(type)), 1);
    put(out, fields.version, 1);
    put(out, fields.flags | extra_flags, 2);
    put(out, fields.id, 8);
    put(out, fields.uuid);
    put(out, fields.mt, 8);
}

Datagram header(const HeaderFields& fields, PacketType type, std::uint16_t extra_flags = 0) {
    Datagram out;
    put_header(out, fields, type, extra_flags);
    return out;
}

void cut_or_pad(Datagram& out, const HeaderFields& fields) {
    if (fields.length) {
        out.resize(*fields.length, 0);
    }
}

Datagram finish(Datagram out, const HeaderFields& fields) {
    cut_or_pad(out, fields);
    return out;
}

}  // namespace

Datagram encode_start(const StartFields& fields) {
    Datagram out = header(fields.header, PacketType::START);
    put(out, fields.ts, 8);
    put(out, fields.sync_ts, 8);
    put(out, fields.sync_mt, 8);
    put(out, fields.rule, 8);
    put(out, fields.unread);
    put(out, fields.ft);
    put(out, fields.call_id_len.value_or(static_cast<std::uint16_t>(fields.call_id.size())), 2);
    out.insert(out.end(), fields.call_id.begin(), fields.call_id.end());
    return finish(std::move(out), fields.header);
}

Datagram encode_data(const DataFields& fields) {
    Datagram out;
    encode_data(fields, out);
    return out;
}

void encode_data(const DataFields& fields, Datagram& out) {
    out.clear();
    put_header(out, fields.header, PacketType::DATA);
    put(out, fields.seq, 4);
    put(out, fields.off, 4);
    put(out, fields.num.value_or(static_cast<std::uint16_t>(fields.payload.size())), 2);
    put_units(out, fields.payload);
    cut_or_pad(out, fields.header);
}

Datagram encode_control(const ControlFields& fields) {
    Datagram out = header(fields.header, PacketType::CONTROL, fields.ft ? FLAG_CONTROL_FT : 0);
    if (fields.ft) {
        put(out, *fields.ft);
    }
    return finish(std::move(out), fields.header);
}

Datagram encode_terminate(const TerminateFields& fields) {
    return finish(header(fields.header, PacketType::TERMINATE), fields.header);
}

Datagram encode_file_header(const StartFields& start) {
    Datagram out = {0x51, 0x4D, 0x00, 0x46};  // "QM", a zero byte, "F"
    put(out, 0, 4);                           // the media format
    put(out, start.ts, 8);
    put(out, start.sync_ts, 8);
    put(out, start.sync_mt, 8);
    put(out, start.header.uuid);
    return out;
}

Datagram encode_frame(const DataFields& data, std::uint64_t sync_mt) {
    const std::uint16_t num = data.num.value_or(static_cast<std::uint16_t>(data.payload.size()));
    Datagram out;
    put(out, data.header.flags & FLAG_OUTBOUND, 1);
    put(out, 0, 1);
    put(out, num, 2);
    put(out, data.off, 4);
    put(out, (data.header.mt - sync_mt) & 0xFFFFFFFFu, 4);
    put_units(out, data.payload);
    return out;
}

}  // namespace qm::media
