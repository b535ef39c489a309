#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

#include "log_capture.hpp"
#include "media/media_packet_reader.hpp"
#include "media/media_session_manager.hpp"
#include "media/packet_encoder.hpp"
#include "poll.hpp"

// The session table behind the real packet reader: datagrams go in on this thread through
// `read_from`, the reader thread validates them and drives the table, and this thread watches the
// counters until they settle.

namespace qm::media {
namespace {

constexpr std::chrono::milliseconds DEADLINE{10'000};
const std::string UUID_TEXT = "00112233-4455-6677-8899-aabbccddeeff";

media::HeaderFields header_of(std::uint64_t id, std::uint64_t mt) {
    media::HeaderFields header;
    header.id = id;
    header.mt = mt;
    return header;
}

media::Datagram data_of(std::uint64_t id, std::uint32_t seq, std::uint64_t mt) {
    media::DataFields fields;
    fields.header = header_of(id, mt);
    fields.seq = seq;
    return media::encode_data(fields);
}

class SessionPacketReaderTest : public ::testing::Test {
protected:
    void send(const media::Datagram& datagram) {
        reader.read_from(datagram.data(), datagram.size());
    }

    test::LogCapture log{log::Level::WARNING};
    SessionManagerStatistic sessions;
    PacketReaderStatistic packets;
    SessionManager manager{&sessions};
    PacketReader reader{&packets, manager};
};

TEST_F(SessionPacketReaderTest, PacketsFromTheReaderThreadShapeTheSessionTable) {
    ASSERT_EQ(0, reader.start());

    media::StartFields start;
    start.header = header_of(1, 1000);
    send(media::encode_start(start));
    send(data_of(1, 1, 1100));
    send(data_of(1, 2, 1200));
    send(data_of(1, 5, 1300));
    send(data_of(1, 4, 1400));
    send(data_of(2, 7, 1000));
    media::ControlFields control;
    control.header = header_of(1, 1500);
    send(media::encode_control(control));
    media::TerminateFields terminate;
    terminate.header = header_of(3, 1600);
    send(media::encode_terminate(terminate));

    // The table settles with the zombie of id 2 beside the session of id 1. Once the poll has
    // seen a counter's value, later reads cannot see an older one, so the checks below are firm.
    EXPECT_TRUE(test::poll_until(
        [&] {
            return sessions.session == 2 && sessions.session_zombie == 1 &&
                   sessions.session_unknown_index_errors == 2 &&
                   sessions.session_lost_packets == 2 &&
                   sessions.session_sequence_break_errors == 1;
        },
        DEADLINE));
    EXPECT_EQ(2u, sessions.session);
    EXPECT_EQ(1u, sessions.session_zombie);
    EXPECT_EQ(2u, sessions.session_unknown_index_errors);
    EXPECT_EQ(2u, sessions.session_lost_packets);
    EXPECT_EQ(1u, sessions.session_sequence_break_errors);
    EXPECT_EQ(0u, sessions.session_existing_index_errors);

    // Then the terminate packets close both; the idle reader audits the table between them.
    terminate.header = header_of(1, 1700);
    send(media::encode_terminate(terminate));
    terminate.header = header_of(2, 1700);
    send(media::encode_terminate(terminate));
    EXPECT_TRUE(test::poll_until(
        [&] {
            return sessions.session == 0 && sessions.session_zombie == 0 &&
                   sessions.session_audit_calls > 0 && packets.packet_term_type == 3;
        },
        DEADLINE));
    EXPECT_EQ(0u, sessions.session);
    EXPECT_EQ(0u, sessions.session_zombie);
    EXPECT_EQ(0u, sessions.session_audit_executions);
    EXPECT_EQ(2u, sessions.session_unknown_index_errors);
    EXPECT_EQ(1u, packets.packet_start_type);
    EXPECT_EQ(5u, packets.packet_data_type);
    EXPECT_EQ(1u, packets.packet_ctrl_type);
    EXPECT_EQ(3u, packets.packet_term_type);
    EXPECT_EQ(1u, log.count("DATA  | mt: 1000, uuid: " + UUID_TEXT +
                            ", side: 0, seq: 7 | unknown session"));
    EXPECT_EQ(1u, log.count("TERM  | mt: 1600, uuid: " + UUID_TEXT + " | unknown session"));
}

}  // namespace
}  // namespace qm::media
