#include "media/media_packet_reader.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "log/logger.hpp"
#include "log_capture.hpp"
#include "media/packet_encoder.hpp"
#include "packet_reader_totals.hpp"
#include "recording_listener.hpp"

namespace qm::media {
namespace {

const std::string UUID = "00112233-4455-6677-8899-aabbccddeeff";

// A reader whose thread is never started: the test thread is both the receiving thread and the
// reader thread, and takes the queued buffers itself.
class PacketReaderTest : public testing::Test {
protected:
    void send(const media::Datagram& datagram) {
        reader.read_from(datagram.data(), datagram.size());
    }

    // Hands every queued buffer to `on_queue_read`, as the reader thread would.
    void drain() {
        rc_ptr<PacketBuffer> buffer;
        while (reader.queue().try_pop(buffer)) {
            reader.on_queue_read(std::move(buffer));
        }
    }

    // Sends one datagram, lets the reader take it, and checks that it landed in exactly one
    // counter.
    void send_one(const media::Datagram& datagram) {
        const std::uint64_t before = landed();
        send(datagram);
        drain();
        EXPECT_EQ(landed(), before + 1);
        EXPECT_EQ(statistic.passed_elements.load(), test::settled_by_reader(statistic));
    }

    std::uint64_t landed() const {
        return test::refused_on_receive(statistic) + test::settled_by_reader(statistic);
    }

    test::LogCapture log{log::Level::TRACE};
    test::RecordingListener listener;
    PacketReaderStatistic statistic;
    PacketReader reader{&statistic, listener};
};

media::HeaderFields header_with_length(std::size_t length) {
    media::HeaderFields header;
    header.length = length;
    return header;
}

TEST_F(PacketReaderTest, DatagramOf39BytesIsDroppedByMinLength) {
    send_one(media::encode_terminate({header_with_length(39)}));
    EXPECT_EQ(statistic.packet_dropped_by_min_length, 1u);
    EXPECT_EQ(statistic.passed_elements, 0u);
    EXPECT_EQ(listener.packet_count(), 0u);
}

TEST_F(PacketReaderTest, EmptyDatagramIsDroppedByMinLength) {
    reader.read_from(nullptr, 0);
    EXPECT_EQ(statistic.packet_dropped_by_min_length, 1u);
    EXPECT_EQ(statistic.passed_elements, 0u);
}

TEST_F(PacketReaderTest, DatagramOf40BytesIsQueued) {
    send(media::encode_terminate());
    EXPECT_EQ(statistic.passed_elements, 1u);
    EXPECT_EQ(reader.queue().size(), 1u);
    drain();
    EXPECT_EQ(statistic.packet_term_type, 1u);
}

TEST_F(PacketReaderTest, DatagramOf1376BytesIsQueued) {
    media::StartFields fields;
    fields.call_id = std::string(1294, 'c');
    send_one(media::encode_start(fields));
    EXPECT_EQ(statistic.passed_elements, 1u);
    EXPECT_EQ(statistic.packet_start_type, 1u);
    ASSERT_EQ(listener.packet_count(), 1u);
    EXPECT_EQ(listener.packets()[0].call_id, fields.call_id);
}

TEST_F(PacketReaderTest, DatagramOf1377BytesIsDroppedByMaxLength) {
    media::StartFields fields;
    fields.call_id = std::string(1295, 'c');
    const media::Datagram datagram = media::encode_start(fields);
    ASSERT_EQ(datagram.size(), 1377u);
    send_one(datagram);
    EXPECT_EQ(statistic.packet_dropped_by_max_length, 1u);
    EXPECT_EQ(statistic.passed_elements, 0u);
}

TEST_F(PacketReaderTest, StartTypeOf40BytesIsCorruptedSize) {
    media::TerminateFields fields;
    fields.header.type = 0x81;
    send_one(media::encode_terminate(fields));
    EXPECT_EQ(statistic.packet_rejected_by_corrupted_size, 1u);
    EXPECT_EQ(listener.packet_count(), 0u);
}

TEST_F(PacketReaderTest, WrongMarkerAndWrongVersionCountOnlyAsBadMarker) {
    media::TerminateFields fields;
    fields.header.marker = 0x00FF00FE;
    fields.header.version = 2;
    send_one(media::encode_terminate(fields));
    EXPECT_EQ(statistic.packet_rejected_by_bad_marker, 1u);
    EXPECT_EQ(statistic.packet_rejected_by_version, 0u);
}

TEST_F(PacketReaderTest, BigEndianMarkerIsBadMarker) {
    media::TerminateFields fields;
    fields.header.marker = 0xFF00FF00;
    send_one(media::encode_terminate(fields));
    EXPECT_EQ(statistic.packet_rejected_by_bad_marker, 1u);
}

TEST_F(PacketReaderTest, EachMarkerByteMatters) {
    const media::Datagram valid = media::encode_terminate();
    for (std::size_t i = 0; i < 4; ++i) {
        media::Datagram broken = valid;
        broken[i] ^= 0x01;
        send_one(broken);
    }
    EXPECT_EQ(statistic.packet_rejected_by_bad_marker, 4u);
}

TEST_F(PacketReaderTest, WrongVersionIsRejectedByVersion) {
    for (std::uint8_t version : {0, 2, 255}) {
        media::TerminateFields fields;
        fields.header.version = version;
        send_one(media::encode_terminate(fields));
    }
    EXPECT_EQ(statistic.packet_rejected_by_version, 3u);
    EXPECT_EQ(listener.packet_count(), 0u);
}

TEST_F(PacketReaderTest, TypeOutsideTheFourIsUnknownTypeEvenAt40Bytes) {
    for (std::uint8_t type : {0x85, 0x80, 0x00, 0x01, 0xff}) {
        media::TerminateFields fields;
        fields.header.type = type;
        send_one(media::encode_terminate(fields));
    }
    EXPECT_EQ(statistic.packet_rejected_by_unknown_type, 5u);
    EXPECT_EQ(statistic.packet_rejected_by_corrupted_size, 0u);
}

TEST_F(PacketReaderTest, StartWithEmptyCallIdIs82Bytes) {
    media::StartFields fields;
    fields.call_id = "";
    send_one(media::encode_start(fields));
    EXPECT_EQ(statistic.packet_start_type, 1u);
    fields.header.length = 83;
    send_one(media::encode_start(fields));
    EXPECT_EQ(statistic.packet_rejected_by_corrupted_size, 1u);
}

TEST_F(PacketReaderTest, StartWhoseCallIdLengthDisagreesIsCorruptedSize) {
    media::StartFields fields;
    fields.call_id_len = static_cast<std::uint16_t>(fields.call_id.size() + 1);
    send_one(media::encode_start(fields));
    fields.call_id_len = static_cast<std::uint16_t>(fields.call_id.size() - 1);
    send_one(media::encode_start(fields));
    fields.call_id_len = 0xffff;
    send_one(media::encode_start(fields));
    EXPECT_EQ(statistic.packet_rejected_by_corrupted_size, 3u);
    EXPECT_EQ(statistic.packet_start_type, 0u);
}

TEST_F(PacketReaderTest, DataWithNum0Is50BytesAndNum663Is1376) {
    media::DataFields fields;
    fields.payload = {};
    send_one(media::encode_data(fields));
    fields.payload.assign(663, 0x0102);
    send_one(media::encode_data(fields));
    EXPECT_EQ(statistic.packet_data_type, 2u);
    ASSERT_EQ(listener.packet_count(), 2u);
    EXPECT_TRUE(listener.packets()[0].payload.empty());
    EXPECT_EQ(listener.packets()[1].payload.size(), 1326u);
}

TEST_F(PacketReaderTest, DataWhoseNumDisagreesIsCorruptedSize) {
    media::DataFields fields;
    fields.num = 5;
    send_one(media::encode_data(fields));
    fields.num = 3;
    send_one(media::encode_data(fields));
    media::DataFields odd;
    odd.header.length = 51;
    odd.payload = {};
    send_one(media::encode_data(odd));
    EXPECT_EQ(statistic.packet_rejected_by_corrupted_size, 3u);
}

TEST_F(PacketReaderTest, ControlOf40And42Bytes) {
    send_one(media::encode_control());
    media::ControlFields with_ft;
    with_ft.ft = {{0x80, 0x01}};
    send_one(media::encode_control(with_ft));
    EXPECT_EQ(statistic.packet_ctrl_type, 2u);
    ASSERT_EQ(listener.packet_count(), 2u);
    EXPECT_FALSE(listener.packets()[0].ft.has_value());
    EXPECT_EQ(listener.packets()[1].ft, (std::array<std::uint8_t, 2>{0x80, 0x01}));
}

TEST_F(PacketReaderTest, ControlBit7WithNonZeroByte7Is40BytesWithoutFt) {
    media::ControlFields fields;
    fields.header.flags = FLAG_CONTROL_FT | 0x0100;
    send_one(media::encode_control(fields));
    EXPECT_EQ(statistic.packet_ctrl_type, 1u);
    fields.ft = {{0, 0}};  // the same flags with two more bytes: too long for its rule
    send_one(media::encode_control(fields));
    EXPECT_EQ(statistic.packet_rejected_by_corrupted_size, 1u);
}

TEST_F(PacketReaderTest, ControlWithFtFlagButOnly40BytesIsCorruptedSize) {
    media::ControlFields fields;
    fields.ft = {{0, 0}};
    fields.header.length = 40;
    send_one(media::encode_control(fields));
    EXPECT_EQ(statistic.packet_rejected_by_corrupted_size, 1u);
}

TEST_F(PacketReaderTest, TerminateLongerThan40BytesIsCorruptedSize) {
    send_one(media::encode_terminate({header_with_length(41)}));
    EXPECT_EQ(statistic.packet_rejected_by_corrupted_size, 1u);
}

TEST_F(PacketReaderTest, ListenerGetsTheMatchingOverloadWithTheFieldValues) {
    media::StartFields start;
    start.header.id = 7;
    start.header.mt = 70;
    start.header.flags = FLAG_OUTBOUND;
    start.ts = 700;
    start.call_id = "leg-7";
    start.ft = {0x40, 0x08};
    media::DataFields data;
    data.header.id = 8;
    data.header.mt = 80;
    data.seq = 800;
    data.off = 8000;
    data.payload = {0x0a0b};
    media::ControlFields control;
    control.header.id = 9;
    media::TerminateFields terminate;
    terminate.header.id = 10;
    terminate.header.mt = 100;
    send(media::encode_start(start));
    send(media::encode_data(data));
    send(media::encode_control(control));
    send(media::encode_terminate(terminate));
    drain();

    const std::vector<test::RecordedPacket> packets = listener.packets();
    ASSERT_EQ(packets.size(), 4u);
    EXPECT_EQ(packets[0].type, PacketType::START);
    EXPECT_EQ(packets[0].id, 7u);
    EXPECT_EQ(packets[0].mt, 70u);
    EXPECT_EQ(packets[0].flags, FLAG_OUTBOUND);
    EXPECT_EQ(packets[0].ts, 700u);
    EXPECT_EQ(packets[0].call_id, "leg-7");
    EXPECT_EQ(packets[0].ft, (std::array<std::uint8_t, 2>{0x40, 0x08}));
    EXPECT_EQ(packets[1].type, PacketType::DATA);
    EXPECT_EQ(packets[1].id, 8u);
    EXPECT_EQ(packets[1].mt, 80u);
    EXPECT_EQ(packets[1].seq, 800u);
    EXPECT_EQ(packets[1].off, 8000u);
    EXPECT_EQ(packets[1].payload, (std::vector<std::uint8_t>{0x0b, 0x0a}));
    EXPECT_EQ(packets[2].type, PacketType::CONTROL);
    EXPECT_EQ(packets[2].id, 9u);
    EXPECT_EQ(packets[3].type, PacketType::TERMINATE);
    EXPECT_EQ(packets[3].id, 10u);
    EXPECT_EQ(packets[3].mt, 100u);
    EXPECT_EQ(statistic.packet_start_type, 1u);
    EXPECT_EQ(statistic.packet_data_type, 1u);
    EXPECT_EQ(statistic.packet_ctrl_type, 1u);
    EXPECT_EQ(statistic.packet_term_type, 1u);
}

TEST_F(PacketReaderTest, StartControlAndTerminateAreLoggedAtSystemLevel) {
    media::ControlFields control;
    control.ft = {{0x80, 0x00}};
    send(media::encode_start());
    send(media::encode_control(control));
    send(media::encode_terminate());
    drain();
    const std::vector<std::string> texts = log.texts(log::Level::SYSTEM);
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0],
              "START | mt: 1000, v: 1, f: --, uuid: " + UUID +
                  ", ts: 1633954638004211, leg: inbound, call id: call-1@example.org, id: "
                  "81985529216486895, sync ts: 1633954638000000, sync mt: 500, ft: R-----");
    EXPECT_EQ(texts[1], "CTRL  | mt: 1000, v: 1, f: 0, uuid: " + UUID + ", ft: R-----");
    EXPECT_EQ(texts[2], "TERM  | mt: 1000, v: 1, f: 0, uuid: " + UUID);
    for (const std::string& line : log.lines()) {
        EXPECT_EQ(line.rfind("SYSTEM  | media_packet_reader.cpp:", 0), 0u) << line;
    }
}

TEST_F(PacketReaderTest, DataIsLoggedAtTraceLevel) {
    send(media::encode_data());
    drain();
    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("TRACE   | media_packet_reader.cpp:", 0), 0u) << lines[0];
    EXPECT_EQ(log.texts(log::Level::TRACE),
              std::vector<std::string>{"DATA  | mt: 1000, v: 1, f: -, uuid: " + UUID +
                                       ", side: 0, seq: 1, num: 4, off: 0"});
}

// Counts every message handed to the logger, whatever the threshold.
class EmitCounter {
public:
    explicit EmitCounter(log::Level threshold)
        : m_saved_context(log::Logger::m_instance.context),
          m_saved_write(log::Logger::m_instance.write),
          m_saved_level(log::get_level()) {
        log::Logger::m_instance.context = this;
        log::Logger::m_instance.write = &EmitCounter::write;
        log::set_level(threshold);
    }
    ~EmitCounter() {
        log::Logger::m_instance.context = m_saved_context;
        log::Logger::m_instance.write = m_saved_write;
        log::set_level(m_saved_level);
    }
    int emitted() const { return m_emitted; }

private:
    static void write(void* context, const char*, int, const log::Message&) {
        ++static_cast<EmitCounter*>(context)->m_emitted;
    }

    int m_emitted = 0;
    void* m_saved_context;
    log::LoggerImpl::WriteFn m_saved_write;
    log::Level m_saved_level;
};

TEST_F(PacketReaderTest, DataLineIsNotBuiltBelowTrace) {
    EmitCounter counter(log::Level::DEBUG);
    send(media::encode_data());
    drain();
    EXPECT_EQ(counter.emitted(), 0);
    EXPECT_EQ(statistic.packet_data_type, 1u);
    EXPECT_EQ(listener.packet_count(), 1u);
    send(media::encode_terminate());
    drain();
    EXPECT_EQ(counter.emitted(), 1);
}

TEST_F(PacketReaderTest, RefusedDatagramsAreNeverLogged) {
    media::TerminateFields bad_marker;
    bad_marker.header.marker = 0;
    media::TerminateFields bad_version;
    bad_version.header.version = 9;
    media::TerminateFields bad_type;
    bad_type.header.type = 0x85;
    send(media::encode_terminate({header_with_length(39)}));
    send(media::encode_terminate({header_with_length(1377)}));
    send(media::encode_terminate(bad_marker));
    send(media::encode_terminate(bad_version));
    send(media::encode_terminate(bad_type));
    send(media::encode_terminate({header_with_length(41)}));
    drain();
    EXPECT_EQ(landed(), 6u);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(listener.packet_count(), 0u);
}

TEST_F(PacketReaderTest, EveryDatagramLandsInExactlyOneCounter) {
    std::vector<media::Datagram> datagrams;
    for (std::size_t length : {0, 1, 39, 40, 41, 49, 50, 81, 82, 83, 1376, 1377, 65535}) {
        media::HeaderFields header = header_with_length(length);
        datagrams.push_back(media::encode_start({header}));
        datagrams.push_back(media::encode_data({header}));
        datagrams.push_back(media::encode_control({header}));
        datagrams.push_back(media::encode_terminate({header}));
    }
    for (std::uint8_t type = 0x7f; type <= 0x86; ++type) {
        media::TerminateFields fields;
        fields.header.type = type;
        datagrams.push_back(media::encode_terminate(fields));
    }
    for (const media::Datagram& datagram : datagrams) {
        send(datagram);
    }
    drain();
    EXPECT_EQ(landed(), datagrams.size());
    EXPECT_EQ(statistic.passed_elements.load(), test::settled_by_reader(statistic));
    EXPECT_EQ(listener.packet_count(), test::notified(statistic));
    // Worked out from the lengths: 0, 1 and 39 are too short and 1377 and 65535 too long, for
    // each of the four types. Of the 40-byte ones, a terminate and a control packet hold; every
    // other length is not the one its type requires (a terminate or a control packet without
    // `ft` 40 bytes, a start packet 100 with its 18-byte call id, a data packet 58 with its four
    // units). Of the types 0x7f to 0x86 at 40 bytes, 0x82 and 0x84 hold, 0x81 and 0x83 are too
    // short for a start and a data packet, and the other four are unknown.
    EXPECT_EQ(statistic.packet_dropped_by_min_length, 12u);
    EXPECT_EQ(statistic.packet_dropped_by_max_length, 8u);
    EXPECT_EQ(statistic.packet_term_type, 2u);
    EXPECT_EQ(statistic.packet_ctrl_type, 2u);
    EXPECT_EQ(statistic.packet_start_type, 0u);
    EXPECT_EQ(statistic.packet_data_type, 0u);
    EXPECT_EQ(statistic.packet_rejected_by_corrupted_size, 30u + 2u);
    EXPECT_EQ(statistic.packet_rejected_by_unknown_type, 4u);
}

TEST_F(PacketReaderTest, EmptyBufferTickDoesNothing) {
    reader.on_queue_read(rc_ptr<PacketBuffer>());
    EXPECT_EQ(test::settled_by_reader(statistic), 0u);
    EXPECT_EQ(listener.packet_count(), 0u);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PacketReaderTest, TryAndIdleAreForwardedToTheListener) {
    reader.on_queue_try();
    reader.on_queue_try();
    EXPECT_EQ(listener.tries(), 2u);
    EXPECT_FALSE(reader.on_queue_idle());
    listener.set_idle_result(true);
    EXPECT_TRUE(reader.on_queue_idle());
    EXPECT_EQ(listener.idles(), 2u);
}

TEST_F(PacketReaderTest, StopWithoutAThreadReturnsZeroAndLogsNothing) {
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PacketReaderTest, FullQueueDropsTheNextDatagram) {
    log::set_level(log::Level::INFO);  // 100000 data packets; no trace lines needed
    const media::Datagram datagram = media::encode_data();
    for (int i = 0; i < 100000; ++i) {
        send(datagram);
    }
    EXPECT_EQ(statistic.passed_elements, 100000u);
    EXPECT_EQ(statistic.dropped_elements, 0u);
    send(datagram);
    EXPECT_EQ(statistic.passed_elements, 100000u);
    EXPECT_EQ(statistic.dropped_elements, 1u);
    drain();
    EXPECT_EQ(statistic.packet_data_type, 100000u);
    send(datagram);
    EXPECT_EQ(statistic.passed_elements, 100001u);
}

TEST_F(PacketReaderTest, ExhaustedPoolDropsByFailedAllocation) {
    std::vector<rc_ptr<PacketBuffer>> held;
    held.reserve(PacketBuffer::POOL_SIZE);
    try {
        while (true) {
            held.emplace_back(new PacketBuffer());
        }
    } catch (const PacketBuffer::BadAlloc&) {
    }
    ASSERT_EQ(PacketBuffer::allocator.free_count(), 0u);
    send_one(media::encode_terminate());
    EXPECT_EQ(statistic.packet_dropped_by_failed_allocation, 1u);
    EXPECT_EQ(statistic.passed_elements, 0u);
    held.pop_back();
    send_one(media::encode_terminate());
    EXPECT_EQ(statistic.packet_dropped_by_failed_allocation, 1u);
    EXPECT_EQ(statistic.packet_term_type, 1u);
}

TEST_F(PacketReaderTest, BuffersGoBackToThePool) {
    const std::size_t free_before = PacketBuffer::allocator.free_count();
    send(media::encode_terminate());
    send(media::encode_start());
    EXPECT_EQ(PacketBuffer::allocator.free_count(), free_before - 2);
    drain();
    EXPECT_EQ(PacketBuffer::allocator.free_count(), free_before);
}

TEST(PacketReaderLifetimeTest, DestroyingTheReaderReturnsQueuedBuffersToThePool) {
    const std::size_t free_before = PacketBuffer::allocator.free_count();
    {
        test::RecordingListener listener;
        PacketReader reader(nullptr, listener);
        const media::Datagram datagram = media::encode_terminate();
        for (int i = 0; i < 10; ++i) {
            reader.read_from(datagram.data(), datagram.size());
        }
        EXPECT_EQ(reader.statistic().passed_elements, 10u);
        EXPECT_EQ(PacketBuffer::allocator.free_count(), free_before - 10);
    }
    EXPECT_EQ(PacketBuffer::allocator.free_count(), free_before);
}

}  // namespace
}  // namespace qm::media
