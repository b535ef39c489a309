#include "io/io_quillmar_session_stream.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "media/packet_encoder.hpp"
#include "recording_bytes.hpp"

namespace qm::io {
namespace {

using media::DataFields;
using media::Datagram;
using ::testing::ElementsAre;

constexpr std::uint64_t SYNC_MT = 500;

DataFields frame(std::uint16_t side, std::uint32_t off, std::uint64_t mt,
                 std::vector<std::uint16_t> samples) {
    DataFields fields;
    fields.header.flags = side;
    fields.off = off;
    fields.header.mt = mt;
    fields.payload = std::move(samples);
    return fields;
}

// A file as the recorder writes it: the header of the default start packet (sync mt 500), then
// the frames.
Datagram file_of(const std::vector<DataFields>& frames) {
    return test::recording_bytes(SYNC_MT, frames);
}

// What a channel delivered, with the payload copied out.
struct Delivered {
    std::uint16_t num;
    std::uint32_t offset;
    std::uint32_t time;
    std::vector<std::uint16_t> samples;

    bool operator==(const Delivered&) const = default;
};

std::vector<Delivered> read_all(MediaChannel& channel) {
    std::vector<Delivered> delivered;
    MediaFrame frame;
    while (channel.read(frame) == 1) {
        std::vector<std::uint16_t> samples(frame.num);
        std::memcpy(samples.data(), frame.payload, 2u * frame.num);
        delivered.push_back({frame.num, frame.offset, frame.time, samples});
    }
    EXPECT_EQ(channel.read(frame), 0) << "an ended channel stays ended";
    return delivered;
}

// The payload of a delivered frame, byte by byte as it lies in the file.
std::vector<std::uint8_t> payload_bytes(const MediaFrame& frame) {
    return {frame.payload, frame.payload + 2u * frame.num};
}

// Opens `bytes` as a reader does: the 8-byte stream header first, the rest through the stream.
class Opened {
public:
    explicit Opened(const Datagram& bytes)
        : m_in(std::string(bytes.begin() + std::min<std::size_t>(8, bytes.size()), bytes.end())),
          m_stream(header_of(bytes), m_in) {}

    QuillmarSessionStream& stream() { return m_stream; }
    std::istringstream& input() { return m_in; }

private:
    static QuillmarStreamHeader header_of(const Datagram& bytes) {
        QuillmarStreamHeader header{};
        std::memcpy(&header, bytes.data(), std::min<std::size_t>(sizeof header, bytes.size()));
        return header;
    }

    std::istringstream m_in;
    QuillmarSessionStream m_stream;
};

TEST(SessionStreamTest, HeaderAloneGivesTwoChannelsThatEndAtOnce) {
    Opened opened(file_of({}));

    EXPECT_EQ(opened.stream().format(), MEDIA_FORMAT);
    const std::vector<MediaChannel*> channels = opened.stream().streams();
    ASSERT_EQ(channels.size(), 2u);
    EXPECT_EQ(channels[0]->id(), 0);
    EXPECT_EQ(channels[1]->id(), 1);
    MediaFrame frame;
    EXPECT_EQ(channels[0]->read(frame), 0);
    EXPECT_EQ(channels[1]->read(frame), 0);
}

TEST(SessionStreamTest, EachChannelDeliversItsSideInFileOrder) {
    Opened opened(
        file_of({frame(0, 0, 520, {1, 2, 3}), frame(1, 0, 530, {9}), frame(0, 3, 540, {4, 5})}));

    const std::vector<MediaChannel*> channels = opened.stream().streams();
    EXPECT_THAT(read_all(*channels[0]),
                ElementsAre(Delivered{3, 0, 20, {1, 2, 3}}, Delivered{2, 3, 40, {4, 5}}));
    EXPECT_THAT(read_all(*channels[1]), ElementsAre(Delivered{1, 0, 30, {9}}));
}

// The offset base is the largest `off` seen up to a channel's first frame, this one included.
TEST(SessionStreamTest, OffsetBaseIsTheLargestOffsetUpToTheChannelsFirstFrame) {
    Opened opened(file_of({frame(0, 800, 520, {1}), frame(0, 900, 540, {2}),
                           frame(1, 100, 550, {3}), frame(1, 260, 570, {4})}));

    const std::vector<MediaChannel*> channels = opened.stream().streams();
    EXPECT_THAT(read_all(*channels[0]),
                ElementsAre(Delivered{1, 1600, 20, {1}}, Delivered{1, 1700, 40, {2}}));
    EXPECT_THAT(read_all(*channels[1]),
                ElementsAre(Delivered{1, 1000, 50, {3}}, Delivered{1, 1160, 70, {4}}));
}

TEST(SessionStreamTest, FrameTimeIsDeliveredAsStoredAcrossTheWrap) {
    Opened opened(
        file_of({frame(0, 0, SYNC_MT - 1, {7}), frame(0, 1, SYNC_MT + (1ull << 32), {8})}));

    EXPECT_THAT(read_all(*opened.stream().streams()[0]),
                ElementsAre(Delivered{1, 0, 0xFFFFFFFFu, {7}}, Delivered{1, 1, 0, {8}}));
}

TEST(SessionStreamTest, LastFrameCutShortEndsOnlyItsOwnChannel) {
    test::LogCapture capture;
    Datagram bytes = file_of(
        {frame(0, 0, 520, {1, 2}), frame(1, 0, 530, {5, 6}), frame(1, 2, 550, {7, 8, 9, 10})});
    bytes.resize(bytes.size() - 3);  // the last frame claims 20 bytes, 17 remain

    Opened opened(bytes);
    const std::vector<MediaChannel*> channels = opened.stream().streams();

    EXPECT_THAT(read_all(*channels[0]), ElementsAre(Delivered{2, 0, 20, {1, 2}}));
    EXPECT_THAT(read_all(*channels[1]), ElementsAre(Delivered{2, 0, 30, {5, 6}}));
    EXPECT_THAT(capture.texts(),
                ElementsAre("MEDIA_CHANNEL: frame [1/2]: possible data corruption: inconsistent "
                            "frame size (20)"));
    EXPECT_THAT(capture.lines(),
                ElementsAre(::testing::StartsWith("ERROR   | io_quillmar_session_stream.cpp:")));
}

TEST(SessionStreamTest, ChannelWhoseFirstFrameIsCutShortDeliversNothing) {
    test::LogCapture capture;
    Datagram bytes = file_of({frame(1, 4, 520, {1, 2, 3})});
    bytes.pop_back();

    Opened opened(bytes);

    EXPECT_TRUE(read_all(*opened.stream().streams()[1]).empty());
    EXPECT_TRUE(read_all(*opened.stream().streams()[0]).empty());
    EXPECT_THAT(capture.texts(),
                ElementsAre("MEDIA_CHANNEL: frame [1/4]: possible data corruption: inconsistent "
                            "frame size (18)"));
}

// A frame header cut short is a torn frame like any other: its channel ends with the ERROR line,
// which names the fields as far as the cut header holds them (the missing bytes read as zero).
// The side byte is always there, so the other channel is unaffected.
TEST(SessionStreamTest, TrailingBytesShorterThanAFrameHeaderEndTheirChannelWithTheError) {
    struct Cut {
        std::size_t kept;
        const char* text;
    };
    const Datagram next = media::encode_frame(frame(1, 6, 560, {1, 2, 3}), SYNC_MT);
    for (const Cut& cut :
         {Cut{1,
              "MEDIA_CHANNEL: frame [1/0]: possible data corruption: inconsistent frame size "
              "(12)"},
          Cut{3,
              "MEDIA_CHANNEL: frame [1/0]: possible data corruption: inconsistent frame size "
              "(18)"},
          Cut{5,
              "MEDIA_CHANNEL: frame [1/6]: possible data corruption: inconsistent frame size "
              "(18)"},
          Cut{FRAME_HEADER_SIZE - 1,
              "MEDIA_CHANNEL: frame [1/6]: possible data corruption: inconsistent frame size "
              "(18)"}}) {
        SCOPED_TRACE(cut.kept);
        test::LogCapture capture;
        Datagram bytes = file_of({frame(0, 0, 520, {1})});
        bytes.insert(bytes.end(), next.begin(),
                     next.begin() + static_cast<std::ptrdiff_t>(cut.kept));

        Opened opened(bytes);

        EXPECT_THAT(read_all(*opened.stream().streams()[0]), ElementsAre(Delivered{1, 0, 20, {1}}));
        EXPECT_TRUE(read_all(*opened.stream().streams()[1]).empty());
        EXPECT_THAT(capture.texts(), ElementsAre(cut.text));
        EXPECT_THAT(
            capture.lines(),
            ElementsAre(::testing::StartsWith("ERROR   | io_quillmar_session_stream.cpp:")));
    }
}

// Only bit 0 of the side byte picks the channel; the other bits are ignored, not refused.
TEST(SessionStreamTest, OnlyBitZeroOfTheSideByteChoosesTheChannel) {
    Datagram bytes = file_of({frame(0, 0, 520, {1}), frame(0, 1, 530, {2})});
    bytes[FILE_HEADER_SIZE] = 0xFE;
    bytes[FILE_HEADER_SIZE + FRAME_HEADER_SIZE + 2] = 0x03;

    Opened opened(bytes);

    const std::vector<MediaChannel*> channels = opened.stream().streams();
    EXPECT_THAT(read_all(*channels[0]), ElementsAre(Delivered{1, 0, 20, {1}}));
    EXPECT_THAT(read_all(*channels[1]), ElementsAre(Delivered{1, 2, 30, {2}}));
}

// Nothing after the stream header, and one byte short of the session header: no frames, nothing
// logged, and both channels still there.
TEST(SessionStreamTest, SessionHeaderCutShortHasNoFrames) {
    for (const std::size_t size : {std::size_t{8}, FILE_HEADER_SIZE - 1}) {
        SCOPED_TRACE(size);
        test::LogCapture capture;
        Datagram bytes = file_of({frame(0, 0, 520, {1})});
        bytes.resize(size);

        Opened opened(bytes);

        const std::vector<MediaChannel*> channels = opened.stream().streams();
        ASSERT_EQ(channels.size(), 2u);
        EXPECT_TRUE(read_all(*channels[0]).empty());
        EXPECT_TRUE(read_all(*channels[1]).empty());
        EXPECT_TRUE(capture.texts().empty());
    }
}

TEST(SessionStreamTest, UnknownFormatIsTheDummyStreamAndReadsNothing) {
    Datagram bytes = file_of({frame(0, 0, 520, {1})});
    bytes[4] = 7;  // format 7

    Opened opened(bytes);

    EXPECT_EQ(opened.stream().format(), DummySessionStream::FORMAT);
    EXPECT_TRUE(opened.stream().streams().empty());
    EXPECT_EQ(opened.input().tellg(), 0) << "the input was read";
}

TEST(SessionStreamTest, EveryUnknownFormatSharesTheOneDummy) {
    Datagram bytes = file_of({});
    bytes[7] = 0x80;
    {
        Opened first(bytes);
        EXPECT_EQ(first.stream().format(), 0xFFFFFFFFu);
    }
    Opened second(bytes);

    EXPECT_EQ(second.stream().format(), 0xFFFFFFFFu);
    EXPECT_EQ(&DummySessionStream::instance(), &DummySessionStream::instance());
}

// A recording spelled byte by byte from its field values, little-endian, independently of the
// records, the reader and the shared encoder, so that each of them is checked against the format.
const Datagram LITERAL_FILE = {
    0x51, 0x4D, 0x00, 0x46,                          // magic: "QM", a zero byte, "F"
    0x00, 0x00, 0x00, 0x00,                          // format 0
    0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,  // ts 0x1122334455667788
    0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  // sync ts 0x0102030405060708
    0x11, 0x10, 0x0F, 0x0E, 0x0D, 0x0C, 0x0B, 0x0A,  // sync mt 0x0A0B0C0D0E0F1011
    0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,  // uuid
    0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF,  //
    0x01, 0x00, 0x02, 0x00,                          // frame: side 1, reserved, num 2
    0xD4, 0xC3, 0xB2, 0xA1,                          //   off 0xA1B2C3D4
    0x03, 0x02, 0x01, 0x00,                          //   time 0x00010203
    0xAA, 0x55, 0x34, 0x12,                          //   samples 0x55AA, 0x1234
    0x00, 0x00, 0x01, 0x00,                          // frame: side 0, reserved, num 1
    0x10, 0x00, 0x00, 0x00,                          //   off 0x10
    0xFE, 0xFF, 0xFF, 0xFF,                          //   time 0xFFFFFFFE
    0xEF, 0xBE,                                      //   sample 0xBEEF
};

TEST(QuillmarFormatTest, RecordsReadTheFieldsFromTheirBytes) {
    ASSERT_EQ(LITERAL_FILE.size(),
              FILE_HEADER_SIZE + (FRAME_HEADER_SIZE + 4) + (FRAME_HEADER_SIZE + 2));
    QuillmarStreamHeader stream;
    SessionHeader session;
    SessionStreamFrame first;
    SessionStreamFrame second;
    std::memcpy(&stream, LITERAL_FILE.data(), sizeof stream);
    std::memcpy(&session, LITERAL_FILE.data() + 8, sizeof session);
    std::memcpy(&first, LITERAL_FILE.data() + 48, sizeof first);
    std::memcpy(&second, LITERAL_FILE.data() + 64, sizeof second);

    EXPECT_EQ(stream.magic, QUILLMAR_MAGIC);
    EXPECT_EQ(stream.format, MEDIA_FORMAT);
    EXPECT_EQ(session.ts, 0x1122334455667788ULL);
    EXPECT_EQ(session.sync_ts, 0x0102030405060708ULL);
    EXPECT_EQ(session.sync_mt, 0x0A0B0C0D0E0F1011ULL);
    EXPECT_EQ(std::memcmp(session.uuid, media::DEFAULT_UUID.data(), 16), 0);
    EXPECT_EQ(first.side, 1);
    EXPECT_EQ(first.reserved, 0);
    EXPECT_EQ(first.num, 2);
    EXPECT_EQ(first.off, 0xA1B2C3D4u);
    EXPECT_EQ(first.time, 0x00010203u);
    EXPECT_EQ(second.side, 0);
    EXPECT_EQ(second.reserved, 0);
    EXPECT_EQ(second.num, 1);
    EXPECT_EQ(second.off, 0x10u);
    EXPECT_EQ(second.time, 0xFFFFFFFEu);
}

// Channel 1's base is its own first `off`; channel 0's is the larger `off` of the side-1 frame
// before it. Offsets wrap at 32 bits: 2 * 0xA1B2C3D4 is 0x1436587A8.
TEST(QuillmarFormatTest, StreamDeliversTheFramesOfTheBytes) {
    Opened opened(LITERAL_FILE);
    const std::vector<MediaChannel*> channels = opened.stream().streams();
    ASSERT_EQ(channels.size(), 2u);

    MediaFrame frame;
    ASSERT_EQ(channels[1]->read(frame), 1);
    EXPECT_EQ(frame.num, 2);
    EXPECT_EQ(frame.offset, 0x436587A8u);
    EXPECT_EQ(frame.time, 0x00010203u);
    EXPECT_THAT(payload_bytes(frame), ElementsAre(0xAA, 0x55, 0x34, 0x12));
    EXPECT_EQ(channels[1]->read(frame), 0);

    ASSERT_EQ(channels[0]->read(frame), 1);
    EXPECT_EQ(frame.num, 1);
    EXPECT_EQ(frame.offset, 0xA1B2C3E4u);
    EXPECT_EQ(frame.time, 0xFFFFFFFEu);
    EXPECT_THAT(payload_bytes(frame), ElementsAre(0xEF, 0xBE));
    EXPECT_EQ(channels[0]->read(frame), 0);
}

// The encoder the writer's tests rely on spells the same bytes from the same fields.
TEST(QuillmarFormatTest, SharedEncoderSpellsTheSameBytes) {
    media::StartFields start;
    start.ts = 0x1122334455667788ULL;
    start.sync_ts = 0x0102030405060708ULL;
    start.sync_mt = 0x0A0B0C0D0E0F1011ULL;
    Datagram bytes = media::encode_file_header(start);
    for (const DataFields& data : {frame(1, 0xA1B2C3D4u, start.sync_mt + 0x10203, {0x55AA, 0x1234}),
                                   frame(0, 0x10, start.sync_mt + 0xFFFFFFFEu, {0xBEEF})}) {
        const Datagram encoded = media::encode_frame(data, start.sync_mt);
        bytes.insert(bytes.end(), encoded.begin(), encoded.end());
    }

    EXPECT_EQ(bytes, LITERAL_FILE);
}

}  // namespace
}  // namespace qm::io
