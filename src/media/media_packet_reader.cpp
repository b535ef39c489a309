#include "media/media_packet_reader.hpp"

#include <unistd.h>

#include <utility>

#include "log/logger.hpp"
#include "media/packet_header.hpp"
#include "media/packet_trace.hpp"
#include "media/wire_format.hpp"

namespace qm::media {

PacketReader::PacketReader(PacketReaderStatistic* statistic, PacketReaderListener& listener)
    : Base(statistic), m_listener(&listener) {
    set_name("qm-reader");
}

PacketReader::~PacketReader() {
    // `stop` logs its own failure, and a destructor has nobody else to tell.
    (void)stop();
}

void PacketReader::read_from(const void* data, std::uint64_t length, bool wake) {
    PacketReaderStatistic& counters = statistic();
    if (length < PACKET_MIN_LENGTH) {
        ++counters.packet_dropped_by_min_length;
        return;
    }
    if (length > PACKET_MAX_LENGTH) {
        ++counters.packet_dropped_by_max_length;
        return;
    }
    rc_ptr<PacketBuffer> buffer;
    try {
        buffer = new PacketBuffer();
    } catch (const PacketBuffer::BadAlloc&) {
        ++counters.packet_dropped_by_failed_allocation;
        return;
    }
    // Cannot fail: the length was checked against the buffer's capacity above.
    (void)buffer->append(data, length);
    // A full queue drops the packet and counts it in `dropped_elements`: nothing is left to do.
    if (wake) {
        (void)push(std::move(buffer));
    } else {
        (void)push_quietly(std::move(buffer));
    }
}

void PacketReader::run() {
    QM_LOG_THREAD_STARTED("PACKETS_READER");
    Base::run();
}

int PacketReader::stop() {
    if (!is_running()) {
        return 0;
    }
    const int result = Base::stop();
    return QM_LOG_THREAD_STOPPED("PACKETS_READER", result);
}

template <typename Packet>
void PacketReader::dispatch(PacketBuffer& buffer) {
    // Every record fits in the buffer's capacity, so its length fields can be read before the
    // length is known to match.
    static_assert(sizeof(Packet) <= PacketBuffer::capacity());
    auto& packet = *reinterpret_cast<Packet*>(buffer.data());
    if (packet.required_length() != buffer.size()) {
        ++statistic().packet_rejected_by_corrupted_size;
        return;
    }
    notify(packet);
}

void PacketReader::on_queue_read(rc_ptr<PacketBuffer> buffer) {
    if (!buffer) {
        return;
    }
    PacketReaderStatistic& counters = statistic();
    const auto& header = *reinterpret_cast<const PacketHeader*>(buffer->data());
    if (header.marker != PACKET_MARKER) {
        ++counters.packet_rejected_by_bad_marker;
        return;
    }
    if (header.version != PACKET_VERSION) {
        ++counters.packet_rejected_by_version;
        return;
    }
    switch (static_cast<PacketType>(header.type)) {
        case PacketType::START:
            dispatch<StartPacket>(*buffer);
            return;
        case PacketType::TERMINATE:
            dispatch<TerminatePacket>(*buffer);
            return;
        case PacketType::DATA:
            dispatch<DataPacket>(*buffer);
            return;
        case PacketType::CONTROL:
            dispatch<ControlPacket>(*buffer);
            return;
    }
    ++counters.packet_rejected_by_unknown_type;
}

void PacketReader::on_queue_try() {
    m_listener->on_packet_try();
}

bool PacketReader::on_queue_idle() {
    return m_listener->on_packet_idle();
}

void PacketReader::notify(StartPacket& packet) {
    ++statistic().packet_start_type;
    QM_LOG_SYSTEM(trace_of(packet));
    m_listener->on_packet(packet);
}

void PacketReader::notify(DataPacket& packet) {
    ++statistic().packet_data_type;
    // Data packets are most of the traffic: the text is built only when TRACE is on.
    QM_LOG_TRACE(trace_of(packet));
    m_listener->on_packet(packet);
}

void PacketReader::notify(ControlPacket& packet) {
    ++statistic().packet_ctrl_type;
    QM_LOG_SYSTEM(trace_of(packet));
    m_listener->on_packet(packet);
}

void PacketReader::notify(TerminatePacket& packet) {
    ++statistic().packet_term_type;
    QM_LOG_SYSTEM(trace_of(packet));
    m_listener->on_packet(packet);
}

}  // namespace qm::media
