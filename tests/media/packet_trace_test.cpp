#include "media/packet_trace.hpp"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "packet_bytes.hpp"

namespace qm::media {
namespace {

// The default uuid of the encoder in its printed form.
const std::string UUID = "00112233-4455-6677-8899-aabbccddeeff";

template <typename Packet>
std::string trace(const media::Datagram& datagram) {
    test::PacketBytes bytes(datagram);
    std::ostringstream out;
    out << trace_of(bytes.as<Packet>());
    return out.str();
}

std::string start_trace(const media::StartFields& fields) {
    return trace<StartPacket>(media::encode_start(fields));
}

// A start packet's whole line with default fields but those given.
std::string start_line(const std::string& f, const std::string& leg, const std::string& ft,
                       const std::string& tail = "",
                       const std::string& call_id = "call-1@example.org") {
    return "START | mt: 1000, v: 1, f: " + f + ", uuid: " + UUID +
           ", ts: 1633954638004211, leg: " + leg + ", call id: " + call_id +
           ", id: 81985529216486895, sync ts: 1633954638000000, sync mt: 500, ft: " + ft + tail;
}

TEST(PacketTraceTest, StartWithoutRule) {
    EXPECT_EQ(start_trace({}), start_line("--", "inbound", "R-----"));
}

TEST(PacketTraceTest, StartWithRuleAppendsTheRule) {
    media::StartFields fields;
    fields.header.flags = FLAG_START_RULE;
    fields.rule = 18446744073709551615ULL;
    EXPECT_EQ(start_trace(fields),
              start_line("R-", "inbound", "R-----", ", rule: 18446744073709551615"));
}

TEST(PacketTraceTest, StartRuleIsNotPrintedWithoutItsFlag) {
    media::StartFields fields;
    fields.rule = 77;
    EXPECT_EQ(start_trace(fields), start_line("--", "inbound", "R-----"));
}

TEST(PacketTraceTest, StartNFlag) {
    media::StartFields fields;
    fields.header.flags = FLAG_START_N;
    EXPECT_EQ(start_trace(fields), start_line("-N", "inbound", "R-----"));
}

TEST(PacketTraceTest, StartBothFlagsAndOutboundLeg) {
    media::StartFields fields;
    fields.header.flags = FLAG_START_RULE | FLAG_START_N | FLAG_OUTBOUND;
    fields.rule = 3;
    EXPECT_EQ(start_trace(fields), start_line("RN", "outbound", "R-----", ", rule: 3"));
}

TEST(PacketTraceTest, StartAllNumbersInDecimal) {
    media::StartFields fields;
    fields.header.mt = 0;
    fields.header.version = 255;
    fields.header.id = 0;
    fields.ts = 10;
    fields.sync_ts = 18446744073709551615ULL;
    fields.sync_mt = 16;
    fields.ft = {0, 0};
    fields.call_id = "x";
    fields.header.uuid = {0xde, 0xad, 0xbe, 0xef, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0xa, 0xb};
    EXPECT_EQ(start_trace(fields),
              "START | mt: 0, v: 255, f: --, uuid: deadbeef-0001-0203-0405-060708090a0b, ts: 10, "
              "leg: inbound, call id: x, id: 0, sync ts: 18446744073709551615, sync mt: 16, "
              "ft: ------");
}

TEST(PacketTraceTest, StartCallIdStopsAtZeroByteAndAtItsLength) {
    media::StartFields fields;
    fields.call_id = std::string("ab\0cd", 5);
    EXPECT_EQ(start_trace(fields), start_line("--", "inbound", "R-----", "", "ab"));
    fields.call_id = "call-1@example.org-and-more";
    fields.call_id_len = 18;
    EXPECT_EQ(start_trace(fields), start_line("--", "inbound", "R-----"));
}

TEST(PacketTraceTest, StartEmptyCallId) {
    media::StartFields fields;
    fields.call_id = "";
    EXPECT_EQ(start_trace(fields), start_line("--", "inbound", "R-----", "", ""));
}

struct FtCase {
    std::uint8_t ft0;
    std::uint8_t ft1;
    const char* chars;
};

class FtCharactersTest : public testing::TestWithParam<FtCase> {};

TEST_P(FtCharactersTest, StartLineShowsTheSixCharacters) {
    media::StartFields fields;
    fields.ft = {GetParam().ft0, GetParam().ft1};
    EXPECT_EQ(start_trace(fields), start_line("--", "inbound", GetParam().chars));
}

TEST_P(FtCharactersTest, ControlLineShowsTheSameCharacters) {
    media::ControlFields fields;
    fields.ft = {{GetParam().ft0, GetParam().ft1}};
    EXPECT_EQ(trace<ControlPacket>(media::encode_control(fields)),
              "CTRL  | mt: 1000, v: 1, f: 0, uuid: " + UUID + ", ft: " + GetParam().chars);
}

INSTANTIATE_TEST_SUITE_P(EveryPosition, FtCharactersTest,
                         testing::Values(FtCase{0x00, 0x00, "------"}, FtCase{0x80, 0x00, "R-----"},
                                         FtCase{0x40, 0x00, "-R----"}, FtCase{0x00, 0xc0, "------"},
                                         FtCase{0x20, 0x00, "--s---"}, FtCase{0x00, 0x20, "--?---"},
                                         FtCase{0x20, 0x20, "--S---"}, FtCase{0x10, 0x00, "---s--"},
                                         FtCase{0x00, 0x10, "---?--"}, FtCase{0x10, 0x10, "---S--"},
                                         FtCase{0x08, 0x00, "----a-"}, FtCase{0x00, 0x08, "----?-"},
                                         FtCase{0x08, 0x08, "----A-"}, FtCase{0x04, 0x00, "-----a"},
                                         FtCase{0x00, 0x04, "-----?"}, FtCase{0x04, 0x04, "-----A"},
                                         FtCase{0x03, 0x03, "------"}, FtCase{0xff, 0xff, "RRSSAA"},
                                         FtCase{0xe8, 0x14, "RRs?a?"}));

TEST(PacketTraceTest, DataInbound) {
    media::DataFields fields;
    fields.seq = 4294967295u;
    fields.off = 320;
    EXPECT_EQ(trace<DataPacket>(media::encode_data(fields)),
              "DATA  | mt: 1000, v: 1, f: -, uuid: " + UUID +
                  ", side: 0, seq: 4294967295, num: 4, off: 320");
}

TEST(PacketTraceTest, DataOutboundWithSFlag) {
    media::DataFields fields;
    fields.header.flags = FLAG_DATA_S | FLAG_OUTBOUND;
    fields.header.mt = 123456789012ULL;
    fields.payload = {};
    EXPECT_EQ(trace<DataPacket>(media::encode_data(fields)),
              "DATA  | mt: 123456789012, v: 1, f: S, uuid: " + UUID +
                  ", side: 1, seq: 1, num: 0, off: 0");
}

TEST(PacketTraceTest, TerminateShowsByte7AsNumber) {
    media::TerminateFields fields;
    fields.header.flags = 0xff01;
    EXPECT_EQ(trace<TerminatePacket>(media::encode_terminate(fields)),
              "TERM  | mt: 1000, v: 1, f: 255, uuid: " + UUID);
    EXPECT_EQ(trace<TerminatePacket>(media::encode_terminate()),
              "TERM  | mt: 1000, v: 1, f: 0, uuid: " + UUID);
}

TEST(PacketTraceTest, Control40BytesHasNoFt) {
    media::ControlFields fields;
    fields.header.flags = 0x0701;
    EXPECT_EQ(trace<ControlPacket>(media::encode_control(fields)),
              "CTRL  | mt: 1000, v: 1, f: 7, uuid: " + UUID);
}

TEST(PacketTraceTest, ControlBit7WithNonZeroByte7HasNoFt) {
    media::ControlFields fields;
    fields.header.flags = FLAG_CONTROL_FT | 0x0200;
    EXPECT_EQ(trace<ControlPacket>(media::encode_control(fields)),
              "CTRL  | mt: 1000, v: 1, f: 2, uuid: " + UUID);
}

TEST(PacketTraceTest, Control42BytesShowsFt) {
    media::ControlFields fields;
    fields.ft = {{0x80, 0x00}};
    EXPECT_EQ(trace<ControlPacket>(media::encode_control(fields)),
              "CTRL  | mt: 1000, v: 1, f: 0, uuid: " + UUID + ", ft: R-----");
}

}  // namespace
}  // namespace qm::media
