#include "io/io_quillmar_session_stream.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "packet_encoder.hpp"

namespace qm::io {
namespace {

using ::testing::ElementsAre;
using test::Datagram;
using test::DataFields;

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
    test::StartFields start;
    start.sync_mt = SYNC_MT;
    Datagram bytes = test::encode_file_header(start);
    for (const DataFields& data : frames) {
        const Datagram encoded = test::encode_frame(data, SYNC_MT);
        bytes.insert(bytes.end(), encoded.begin(), encoded.end());
    }
    return bytes;
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
    Opened opened(file_of({frame(0, 0, 520, {1, 2, 3}), frame(1, 0, 530, {9}),
                           frame(0, 3, 540, {4, 5})}));

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
    Opened opened(file_of({frame(0, 0, SYNC_MT - 1, {7}), frame(0, 1, SYNC_MT + (1ull << 32), {8})}));

    EXPECT_THAT(read_all(*opened.stream().streams()[0]),
                ElementsAre(Delivered{1, 0, 0xFFFFFFFFu, {7}}, Delivered{1, 1, 0, {8}}));
}

TEST(SessionStreamTest, LastFrameCutShortEndsOnlyItsOwnChannel) {
    test::LogCapture capture;
    Datagram bytes = file_of({frame(0, 0, 520, {1, 2}), frame(1, 0, 530, {5, 6}),
                              frame(1, 2, 550, {7, 8, 9, 10})});
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

// Fewer bytes than a frame header at the end are no frame: nothing to deliver, nothing to say.
TEST(SessionStreamTest, TrailingBytesShorterThanAFrameHeaderAreIgnored) {
    test::LogCapture capture;
    Datagram bytes = file_of({frame(0, 0, 520, {1})});
    bytes.insert(bytes.end(), {0x01, 0x00, 0x05});

    Opened opened(bytes);

    EXPECT_THAT(read_all(*opened.stream().streams()[0]), ElementsAre(Delivered{1, 0, 20, {1}}));
    EXPECT_TRUE(read_all(*opened.stream().streams()[1]).empty());
    EXPECT_TRUE(capture.texts().empty());
}

TEST(SessionStreamTest, SessionHeaderCutShortHasNoFrames) {
    Datagram bytes = file_of({});
    bytes.resize(30);

    Opened opened(bytes);

    EXPECT_EQ(opened.stream().streams().size(), 2u);
    EXPECT_TRUE(read_all(*opened.stream().streams()[0]).empty());
    EXPECT_TRUE(read_all(*opened.stream().streams()[1]).empty());
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

TEST(QuillmarFormatTest, RecordsLieOnTheBytesAsWritten) {
    test::StartFields start;
    start.ts = 0x1122334455667788ULL;
    start.sync_ts = 0x0102030405060708ULL;
    start.sync_mt = 0x0A0B0C0D0E0F1011ULL;
    const Datagram header = test::encode_file_header(start);
    ASSERT_EQ(header.size(), FILE_HEADER_SIZE);

    QuillmarStreamHeader stream;
    SessionHeader session;
    std::memcpy(&stream, header.data(), sizeof stream);
    std::memcpy(&session, header.data() + sizeof stream, sizeof session);

    EXPECT_EQ(stream.magic, QUILLMAR_MAGIC);
    EXPECT_EQ(stream.format, MEDIA_FORMAT);
    EXPECT_EQ(session.ts, start.ts);
    EXPECT_EQ(session.sync_ts, start.sync_ts);
    EXPECT_EQ(session.sync_mt, start.sync_mt);
    EXPECT_EQ(std::memcmp(session.uuid, start.header.uuid.data(), 16), 0);

    const Datagram encoded = test::encode_frame(frame(1, 0xA1B2C3D4u, start.sync_mt + 0x10203, {0x55AA}), start.sync_mt);
    ASSERT_EQ(encoded.size(), FRAME_HEADER_SIZE + 2);
    SessionStreamFrame frame_header;
    std::memcpy(&frame_header, encoded.data(), sizeof frame_header);
    EXPECT_EQ(frame_header.side, 1);
    EXPECT_EQ(frame_header.reserved, 0);
    EXPECT_EQ(frame_header.num, 1);
    EXPECT_EQ(frame_header.off, 0xA1B2C3D4u);
    EXPECT_EQ(frame_header.time, 0x10203u);
}

}  // namespace
}  // namespace qm::io
