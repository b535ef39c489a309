#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "media/control_packet.hpp"
#include "media/data_packet.hpp"
#include "media/packet_header.hpp"
#include "media/start_packet.hpp"
#include "media/terminate_packet.hpp"
#include "packet_bytes.hpp"

namespace qm::media {
namespace {

using test::PacketBytes;

TEST(PacketHeaderTest, FieldsReadInPlaceMatchTheEncodedValues) {
    media::TerminateFields fields;
    fields.header.flags = 0x2301;
    fields.header.id = 0xfedcba9876543210ULL;
    fields.header.mt = 0x1122334455667788ULL;
    PacketBytes bytes(media::encode_terminate(fields));
    const PacketHeader& header = bytes.as<PacketHeader>();
    EXPECT_EQ(header.marker, PACKET_MARKER);
    EXPECT_EQ(header.type, static_cast<std::uint8_t>(PacketType::TERMINATE));
    EXPECT_EQ(header.version, PACKET_VERSION);
    EXPECT_EQ(header.flags, 0x2301);
    EXPECT_EQ(header.id, 0xfedcba9876543210ULL);
    EXPECT_EQ(header.mt, 0x1122334455667788ULL);
    EXPECT_EQ(std::vector<std::uint8_t>(header.uuid, header.uuid + 16),
              std::vector<std::uint8_t>(media::DEFAULT_UUID.begin(), media::DEFAULT_UUID.end()));
    EXPECT_EQ(header.side(), 1);
    EXPECT_TRUE(header.is_outbound());
    EXPECT_EQ(header.flags_high_byte(), 0x23);
}

TEST(PacketHeaderTest, SideIsBitZeroOfTheFlags) {
    media::TerminateFields fields;
    fields.header.flags = 0xfffe;
    PacketBytes bytes(media::encode_terminate(fields));
    EXPECT_EQ(bytes.as<PacketHeader>().side(), 0);
    EXPECT_FALSE(bytes.as<PacketHeader>().is_outbound());
}

TEST(PacketHeaderTest, MarkerIsFf00Ff00OnTheWire) {
    const media::Datagram datagram = media::encode_terminate();
    EXPECT_EQ(std::vector<std::uint8_t>(datagram.begin(), datagram.begin() + 4),
              (std::vector<std::uint8_t>{0xFF, 0x00, 0xFF, 0x00}));
    PacketBytes bytes(datagram);
    EXPECT_EQ(bytes.as<PacketHeader>().marker, PACKET_MARKER);
}

TEST(PacketHeaderTest, BigEndianMarkerDoesNotReadAsTheMarker) {
    media::TerminateFields fields;
    fields.header.marker = 0xFF00FF00;  // the marker's bytes in the wrong order: 00 FF 00 FF
    const media::Datagram datagram = media::encode_terminate(fields);
    EXPECT_EQ(std::vector<std::uint8_t>(datagram.begin(), datagram.begin() + 4),
              (std::vector<std::uint8_t>{0x00, 0xFF, 0x00, 0xFF}));
    PacketBytes bytes(datagram);
    EXPECT_NE(bytes.as<PacketHeader>().marker, PACKET_MARKER);
}

TEST(StartPacketTest, FieldsReadInPlaceMatchTheEncodedValues) {
    media::StartFields fields;
    fields.header.flags = FLAG_START_RULE | FLAG_START_N;
    fields.ts = 0x0102030405060708ULL;
    fields.sync_ts = 0x1112131415161718ULL;
    fields.sync_mt = 0x2122232425262728ULL;
    fields.rule = 0x3132333435363738ULL;
    fields.ft = {0x5a, 0xa5};
    fields.call_id = "abc";
    PacketBytes bytes(media::encode_start(fields));
    const StartPacket& packet = bytes.as<StartPacket>();
    EXPECT_EQ(packet.header.type, static_cast<std::uint8_t>(PacketType::START));
    EXPECT_EQ(packet.ts, 0x0102030405060708ULL);
    EXPECT_EQ(packet.sync_ts, 0x1112131415161718ULL);
    EXPECT_EQ(packet.sync_mt, 0x2122232425262728ULL);
    EXPECT_EQ(packet.rule, 0x3132333435363738ULL);
    EXPECT_EQ(packet.ft[0], 0x5a);
    EXPECT_EQ(packet.ft[1], 0xa5);
    EXPECT_EQ(packet.call_id_len, 3);
    EXPECT_EQ(packet.call_id(), "abc");
    EXPECT_TRUE(packet.has_rule());
    EXPECT_TRUE(packet.has_n_flag());
}

TEST(StartPacketTest, RuleAndNFlagsAreBits15And14) {
    media::StartFields fields;
    fields.header.flags = FLAG_START_N;
    PacketBytes with_n(media::encode_start(fields));
    EXPECT_FALSE(with_n.as<StartPacket>().has_rule());
    EXPECT_TRUE(with_n.as<StartPacket>().has_n_flag());
    fields.header.flags = static_cast<std::uint16_t>(~(FLAG_START_RULE | FLAG_START_N));
    PacketBytes without(media::encode_start(fields));
    EXPECT_FALSE(without.as<StartPacket>().has_rule());
    EXPECT_FALSE(without.as<StartPacket>().has_n_flag());
}

TEST(StartPacketTest, EmptyCallIdGivesTheShortestStartPacketOf82Bytes) {
    media::StartFields fields;
    fields.call_id = "";
    const media::Datagram datagram = media::encode_start(fields);
    EXPECT_EQ(datagram.size(), 82u);
    PacketBytes bytes(datagram);
    EXPECT_EQ(bytes.as<StartPacket>().required_length(), 82u);
    EXPECT_EQ(bytes.as<StartPacket>().call_id(), "");
}

TEST(StartPacketTest, CallIdOf1294BytesGivesTheLargestDatagram) {
    media::StartFields fields;
    fields.call_id = std::string(1294, 'c');
    const media::Datagram datagram = media::encode_start(fields);
    EXPECT_EQ(datagram.size(), PACKET_MAX_LENGTH);
    PacketBytes bytes(datagram);
    EXPECT_EQ(bytes.as<StartPacket>().required_length(), PACKET_MAX_LENGTH);
    EXPECT_EQ(bytes.as<StartPacket>().call_id(), fields.call_id);
}

TEST(StartPacketTest, CallIdOf1295BytesNeedsMoreThanTheLargestDatagram) {
    media::StartFields fields;
    fields.call_id = std::string(1295, 'c');
    PacketBytes bytes(media::encode_start(fields));
    EXPECT_EQ(bytes.as<StartPacket>().required_length(), PACKET_MAX_LENGTH + 1);
}

TEST(StartPacketTest, CallIdEndsAtItsFirstZeroByte) {
    media::StartFields fields;
    fields.call_id = std::string("ab\0cd", 5);
    PacketBytes bytes(media::encode_start(fields));
    EXPECT_EQ(bytes.as<StartPacket>().call_id_len, 5);
    EXPECT_EQ(bytes.as<StartPacket>().call_id(), "ab");
}

TEST(StartPacketTest, CallIdNeverReadsBeyondItsLength) {
    media::StartFields fields;
    fields.call_id = "abcdef";
    fields.call_id_len = 3;
    PacketBytes bytes(media::encode_start(fields));
    EXPECT_EQ(bytes.as<StartPacket>().required_length(), 85u);
    EXPECT_EQ(bytes.as<StartPacket>().call_id(), "abc");
}

TEST(DataPacketTest, FieldsReadInPlaceMatchTheEncodedValues) {
    media::DataFields fields;
    fields.header.flags = FLAG_DATA_S | FLAG_OUTBOUND;
    fields.seq = 0x01020304;
    fields.off = 0x11121314;
    fields.payload = {0x2122, 0x3132, 0x4142};
    PacketBytes bytes(media::encode_data(fields));
    const DataPacket& packet = bytes.as<DataPacket>();
    EXPECT_EQ(packet.header.type, static_cast<std::uint8_t>(PacketType::DATA));
    EXPECT_EQ(packet.seq, 0x01020304u);
    EXPECT_EQ(packet.off, 0x11121314u);
    EXPECT_EQ(packet.num, 3);
    EXPECT_EQ(packet.payload_size(), 6u);
    EXPECT_EQ(std::vector<std::uint8_t>(packet.payload(), packet.payload() + 6),
              (std::vector<std::uint8_t>{0x22, 0x21, 0x32, 0x31, 0x42, 0x41}));
    EXPECT_TRUE(packet.has_s_flag());
    EXPECT_EQ(packet.header.side(), 1);
}

TEST(DataPacketTest, EmptyPayloadGivesTheShortestDataPacketOf50Bytes) {
    media::DataFields fields;
    fields.payload = {};
    const media::Datagram datagram = media::encode_data(fields);
    EXPECT_EQ(datagram.size(), 50u);
    PacketBytes bytes(datagram);
    EXPECT_EQ(bytes.as<DataPacket>().required_length(), 50u);
    EXPECT_FALSE(bytes.as<DataPacket>().has_s_flag());
}

TEST(DataPacketTest, Num663GivesTheLargestDatagram) {
    media::DataFields fields;
    fields.payload.assign(663, 0x7f7f);
    const media::Datagram datagram = media::encode_data(fields);
    EXPECT_EQ(datagram.size(), PACKET_MAX_LENGTH);
    PacketBytes bytes(datagram);
    EXPECT_EQ(bytes.as<DataPacket>().required_length(), PACKET_MAX_LENGTH);
}

TEST(DataPacketTest, Num664NeedsMoreThanTheLargestDatagram) {
    media::DataFields fields;
    fields.payload = {};
    fields.num = 664;
    PacketBytes bytes(media::encode_data(fields));
    EXPECT_EQ(bytes.as<DataPacket>().required_length(), PACKET_MAX_LENGTH + 2);
}

TEST(DataPacketTest, LargestNumNeedsLengthBeyondSixteenBits) {
    media::DataFields fields;
    fields.payload = {};
    fields.num = 0xffff;
    PacketBytes bytes(media::encode_data(fields));
    EXPECT_EQ(bytes.as<DataPacket>().required_length(), 50u + 2u * 0xffff);
}

TEST(ControlPacketTest, FtFormIs42Bytes) {
    media::ControlFields fields;
    fields.ft = {{0x12, 0x34}};
    const media::Datagram datagram = media::encode_control(fields);
    EXPECT_EQ(datagram.size(), 42u);
    PacketBytes bytes(datagram);
    const ControlPacket& packet = bytes.as<ControlPacket>();
    EXPECT_EQ(packet.header.type, static_cast<std::uint8_t>(PacketType::CONTROL));
    EXPECT_EQ(packet.header.flags, FLAG_CONTROL_FT);
    EXPECT_TRUE(packet.has_ft());
    EXPECT_EQ(packet.required_length(), 42u);
    EXPECT_EQ(packet.ft[0], 0x12);
    EXPECT_EQ(packet.ft[1], 0x34);
}

TEST(ControlPacketTest, WithoutBit7ItIs40Bytes) {
    media::ControlFields fields;
    fields.header.flags = 0xff7f;
    const media::Datagram datagram = media::encode_control(fields);
    EXPECT_EQ(datagram.size(), 40u);
    PacketBytes bytes(datagram);
    EXPECT_FALSE(bytes.as<ControlPacket>().has_ft());
    EXPECT_EQ(bytes.as<ControlPacket>().required_length(), 40u);
}

TEST(ControlPacketTest, Bit7WithNonZeroByte7Is40BytesWithoutFt) {
    media::ControlFields fields;
    fields.header.flags = FLAG_CONTROL_FT | 0x0100;
    const media::Datagram datagram = media::encode_control(fields);
    EXPECT_EQ(datagram.size(), 40u);
    PacketBytes bytes(datagram);
    EXPECT_FALSE(bytes.as<ControlPacket>().has_ft());
    EXPECT_EQ(bytes.as<ControlPacket>().required_length(), 40u);
}

TEST(TerminatePacketTest, IsTheHeaderAlone) {
    const media::Datagram datagram = media::encode_terminate();
    EXPECT_EQ(datagram.size(), 40u);
    PacketBytes bytes(datagram);
    EXPECT_EQ(bytes.as<TerminatePacket>().header.type,
              static_cast<std::uint8_t>(PacketType::TERMINATE));
    EXPECT_EQ(bytes.as<TerminatePacket>().required_length(), 40u);
}

}  // namespace
}  // namespace qm::media
