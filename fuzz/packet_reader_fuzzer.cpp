// libFuzzer target: every input is one datagram handed to the packet reader. The reader's thread
// is never started; this thread takes the queued buffer and validates it as the reader thread
// would, so each input is processed completely before the next. The log threshold is TRACE, so
// the trace text of every valid packet is built (the default sink then discards it).
//
// Checked for every input (a violation traps, which libFuzzer reports as a crash):
// - the datagram lands in exactly one counter, and every queued datagram is settled;
// - the listener is called exactly when a type counter moves, with the type of byte 4, and only
//   for a datagram that carries the marker and version;
// - nothing is dropped for want of a buffer or of queue space, since every input is drained.

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "core/rc_ptr.hpp"
#include "log/logger.hpp"
#include "media/media_packet_reader.hpp"
#include "media/packet_buffer.hpp"
#include "media/packet_header.hpp"
#include "packet_reader_totals.hpp"
#include "recording_listener.hpp"

namespace {

namespace media = qm::media;

struct Harness {
    Harness() { qm::log::set_level(qm::log::Level::TRACE); }

    qm::test::RecordingListener listener;
    media::PacketReaderStatistic statistic;
    media::PacketReader reader{&statistic, listener};
};

void check(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

std::uint64_t landed(const media::PacketReaderStatistic& statistic) {
    return qm::test::refused_on_receive(statistic) + qm::test::settled_by_reader(statistic);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Harness harness;
    const media::PacketReaderStatistic& statistic = harness.statistic;
    const std::uint64_t landed_before = landed(statistic);
    const std::uint64_t notified_before = qm::test::notified(statistic);
    harness.listener.clear();

    harness.reader.read_from(data, size);
    qm::rc_ptr<media::PacketBuffer> buffer;
    while (harness.reader.queue().try_pop(buffer)) {
        harness.reader.on_queue_read(std::move(buffer));
    }

    check(landed(statistic) == landed_before + 1);
    check(statistic.passed_elements == qm::test::settled_by_reader(statistic));
    check(statistic.dropped_elements == 0);
    check(statistic.packet_dropped_by_failed_allocation == 0);

    const std::vector<qm::test::RecordedPacket> packets = harness.listener.packets();
    check(packets.size() == qm::test::notified(statistic) - notified_before);
    if (!packets.empty()) {
        check(size >= media::PACKET_MIN_LENGTH && size <= media::PACKET_MAX_LENGTH);
        check(data[0] == 0xFF && data[1] == 0x00 && data[2] == 0xFF && data[3] == 0x00);
        check(data[5] == media::PACKET_VERSION);
        check(static_cast<std::uint8_t>(packets.front().type) == data[4]);
    }
    return 0;
}
