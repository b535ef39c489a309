#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "media/media_packet_reader.hpp"
#include "media/packet_encoder.hpp"
#include "packet_reader_totals.hpp"
#include "poll.hpp"
#include "recording_listener.hpp"

// The packet reader with its real thread: this thread is the receiving thread and feeds
// datagrams through `read_from`; the reader thread validates them and calls the recording
// listener; this thread polls, with a deadline, until the results are there.

namespace qm::media {
namespace {

constexpr std::chrono::milliseconds DEADLINE{10'000};

class PacketReaderThreadTest : public testing::Test {
protected:
    ~PacketReaderThreadTest() override { EXPECT_EQ(reader.stop(), 0); }

    void send(const media::Datagram& datagram) {
        reader.read_from(datagram.data(), datagram.size());
    }

    bool settled(std::uint64_t count) {
        return test::poll_until([&] { return test::settled_by_reader(statistic) == count; },
                                DEADLINE);
    }

    static std::string started_line(pid_t thread) {
        return "PACKETS_READER: thread [" + std::to_string(thread) + "] started";
    }

    test::LogCapture log{log::Level::SYSTEM};
    test::RecordingListener listener;
    PacketReaderStatistic statistic;
    PacketReader reader{&statistic, listener};
};

TEST_F(PacketReaderThreadTest, StartFeedStopLogsAndDeliversEveryPacketInOrder) {
    ASSERT_EQ(reader.start(), 0);
    ASSERT_TRUE(test::poll_until([&] { return listener.tries() > 0; }, DEADLINE));
    const pid_t reader_thread = listener.thread_id();
    EXPECT_NE(reader_thread, ::gettid());

    std::vector<media::Datagram> datagrams;
    media::StartFields start;
    start.header.id = 1;
    datagrams.push_back(media::encode_start(start));
    for (std::uint32_t seq = 1; seq <= 50; ++seq) {
        media::DataFields data;
        data.header.id = 1;
        data.seq = seq;
        datagrams.push_back(media::encode_data(data));
    }
    media::TerminateFields terminate;
    terminate.header.id = 1;
    datagrams.push_back(media::encode_terminate(terminate));
    for (const media::Datagram& datagram : datagrams) {
        send(datagram);
    }

    ASSERT_TRUE(settled(datagrams.size()));
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_EQ(statistic.passed_elements, datagrams.size());
    EXPECT_EQ(statistic.packet_start_type, 1u);
    EXPECT_EQ(statistic.packet_data_type, 50u);
    EXPECT_EQ(statistic.packet_term_type, 1u);
    EXPECT_EQ(statistic.elements, 0u);

    const std::vector<test::RecordedPacket> packets = listener.packets();
    ASSERT_EQ(packets.size(), datagrams.size());
    EXPECT_EQ(packets.front().type, PacketType::START);
    for (std::uint32_t seq = 1; seq <= 50; ++seq) {
        EXPECT_EQ(packets[seq].type, PacketType::DATA);
        EXPECT_EQ(packets[seq].seq, seq);
    }
    EXPECT_EQ(packets.back().type, PacketType::TERMINATE);

    const std::vector<std::string> texts = log.texts(log::Level::SYSTEM);
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[0], started_line(reader_thread));
    EXPECT_EQ(texts[1].rfind("START | ", 0), 0u) << texts[1];
    EXPECT_EQ(texts[2].rfind("TERM  | ", 0), 0u) << texts[2];
    EXPECT_EQ(texts[3], "PACKETS_READER: thread [" + std::to_string(::gettid()) + "] stopped");
    for (const std::string& line : log.lines()) {
        EXPECT_EQ(line.rfind("SYSTEM  | media_packet_reader.cpp:", 0), 0u) << line;
    }
}

// The batched receive path: datagrams queued without waking the reader, then one wake-up.
TEST_F(PacketReaderThreadTest, QuietBatchIsDeliveredWholeAfterOneWake) {
    ASSERT_EQ(reader.start(), 0);
    ASSERT_TRUE(test::poll_until([&] { return listener.tries() > 0; }, DEADLINE));
    std::vector<media::Datagram> datagrams;
    for (std::uint32_t seq = 1; seq <= 20; ++seq) {
        media::DataFields data;
        data.seq = seq;
        datagrams.push_back(media::encode_data(data));
    }

    for (const media::Datagram& datagram : datagrams) {
        reader.read_from(datagram.data(), datagram.size(), false);
    }
    reader.wake_reader();

    ASSERT_TRUE(settled(datagrams.size()));
    EXPECT_EQ(statistic.passed_elements, 20u);
    EXPECT_EQ(statistic.dropped_elements, 0u);
    const std::vector<test::RecordedPacket> packets = listener.packets();
    ASSERT_EQ(packets.size(), 20u);
    for (std::uint32_t seq = 1; seq <= 20; ++seq) {
        EXPECT_EQ(packets[seq - 1].seq, seq);
    }
}

TEST_F(PacketReaderThreadTest, SecondStopReturnsZeroAndLogsNothing) {
    ASSERT_EQ(reader.start(), 0);
    ASSERT_TRUE(log.wait_for("] started", DEADLINE));
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_EQ(log.texts().size(), 2u);
}

TEST_F(PacketReaderThreadTest, RefusalsOnBothThreadsLandInExactlyOneCounterEach) {
    ASSERT_EQ(reader.start(), 0);
    media::TerminateFields bad_marker;
    bad_marker.header.marker = 0x00FF00FE;
    media::TerminateFields bad_version;
    bad_version.header.version = 0;
    media::TerminateFields bad_type;
    bad_type.header.type = 0x85;
    media::HeaderFields short_header;
    short_header.length = 39;
    media::HeaderFields long_header;
    long_header.length = 1377;
    media::HeaderFields odd_header;
    odd_header.length = 41;
    const std::vector<media::Datagram> datagrams = {
        media::encode_terminate(bad_marker),
        media::encode_terminate(bad_version),
        media::encode_terminate(bad_type),
        media::encode_terminate({short_header}),
        media::encode_terminate({long_header}),
        media::encode_terminate({odd_header}),
        media::encode_control(),
    };
    for (int round = 0; round < 20; ++round) {
        for (const media::Datagram& datagram : datagrams) {
            send(datagram);
        }
    }
    ASSERT_TRUE(settled(20 * 5));
    EXPECT_EQ(test::refused_on_receive(statistic), 20u * 2);
    EXPECT_EQ(statistic.packet_rejected_by_bad_marker, 20u);
    EXPECT_EQ(statistic.packet_rejected_by_version, 20u);
    EXPECT_EQ(statistic.packet_rejected_by_unknown_type, 20u);
    EXPECT_EQ(statistic.packet_rejected_by_corrupted_size, 20u);
    EXPECT_EQ(statistic.packet_ctrl_type, 20u);
    EXPECT_TRUE(test::poll_until([&] { return listener.packet_count() == 20; }, DEADLINE));
}

TEST_F(PacketReaderThreadTest, FullQueueBehindABlockedListenerDropsTheNextDatagram) {
    log::set_level(log::Level::INFO);  // 100000 data packets; no trace lines needed
    ASSERT_EQ(reader.start(), 0);
    listener.block();
    send(media::encode_start());
    ASSERT_TRUE(test::poll_until([&] { return listener.blocked(); }, DEADLINE));

    const media::Datagram datagram = media::encode_data();
    for (int i = 0; i < 100000; ++i) {
        send(datagram);
    }
    EXPECT_EQ(statistic.passed_elements, 100001u);
    EXPECT_EQ(statistic.dropped_elements, 0u);
    send(datagram);
    EXPECT_EQ(statistic.passed_elements, 100001u);
    EXPECT_EQ(statistic.dropped_elements, 1u);

    listener.release();
    ASSERT_TRUE(settled(100001));
    EXPECT_EQ(statistic.packet_start_type, 1u);
    EXPECT_EQ(statistic.packet_data_type, 100000u);
    EXPECT_EQ(listener.packet_count(), 100001u);
}

TEST_F(PacketReaderThreadTest, IdleHitsCountOnlyWhenTheListenerReportsWork) {
    ASSERT_EQ(reader.start(), 0);
    ASSERT_TRUE(test::poll_until([&] { return statistic.idle_checks > 0; }, DEADLINE));
    EXPECT_EQ(statistic.idle_hits, 0u);
    listener.set_idle_result(true);
    ASSERT_TRUE(test::poll_until([&] { return statistic.idle_hits > 100; }, DEADLINE));
    EXPECT_EQ(reader.stop(), 0);
    EXPECT_GE(listener.idles(), statistic.idle_hits.load());
}

}  // namespace
}  // namespace qm::media
