#include "writer/writing_manager.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "catalog/leg_summary.hpp"
#include "child_process.hpp"
#include "log_capture.hpp"
#include "media/data_packet.hpp"
#include "media/start_packet.hpp"
#include "media/terminate_packet.hpp"
#include "media/wire_format.hpp"
#include "packet_bytes.hpp"
#include "temp_directory.hpp"

namespace qm::writer {
namespace {

using media::DataFields;
using media::Datagram;
using media::StartFields;
using test::PacketBytes;
using ::testing::ElementsAre;

constexpr std::uint64_t T0 = 1'000'000'000'000;

// The manager's steady clock; each test starts at T0 and moves it by hand.
struct FakeClock {
    static std::uint64_t now() { return m_now; }
    static inline std::uint64_t m_now = T0;
};

// The default start packet's leg: ts 1633954638004211 us is 2021-10-11 12:17:18 UTC.
const std::string LEG_PATH = "2021-10-11/12/17/00112233-4455-6677-8899-aabbccddeeff/media.qm";
const std::string UUID_TEXT = "00112233-4455-6677-8899-aabbccddeeff";
const std::string LEG_DIRECTORY = "2021-10-11/12/17/00112233-4455-6677-8899-aabbccddeeff";

Datagram operator+(Datagram left, const Datagram& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

DataFields data(std::uint32_t seq, std::uint16_t side, std::uint32_t off, std::uint64_t mt,
                std::uint16_t samples) {
    DataFields fields;
    fields.seq = seq;
    fields.header.flags = side;
    fields.off = off;
    fields.header.mt = mt;
    fields.payload.resize(samples);
    for (std::uint16_t i = 0; i < samples; ++i) {
        fields.payload[i] = static_cast<std::uint16_t>(seq * 1000 + i);
    }
    return fields;
}

class WritingManagerTest : public ::testing::Test {
protected:
    void SetUp() override { FakeClock::m_now = T0; }

    // A manager over a pool of `count` buffers of `media_size` bytes (0: the default size), its
    // media writer not started unless `start_writer`.
    void build(std::uint64_t count, std::uint64_t media_size = 0, bool start_writer = true) {
        settings.storage = storage().string();
        settings.media_buffers_count = count;
        settings.media_buffer_size = media_size;
        manager = std::make_unique<WritingManager>(settings, statistic, pool_statistic,
                                                   writer_statistic, &FakeClock::now);
        if (start_writer) {
            ASSERT_EQ(manager->start(), 0);
        }
    }

    void feed_start(const StartFields& fields = {}) {
        PacketBytes bytes(media::encode_start(fields));
        manager->on_packet(bytes.as<media::StartPacket>());
    }
    void feed(const DataFields& fields) {
        PacketBytes bytes(media::encode_data(fields));
        manager->on_packet(bytes.as<media::DataPacket>());
    }
    void feed_terminate(const media::TerminateFields& fields = {}) {
        PacketBytes bytes(media::encode_terminate(fields));
        manager->on_packet(bytes.as<media::TerminatePacket>());
    }

    // Stops the media writer, which writes everything pushed so far.
    void drain() { ASSERT_EQ(manager->stop(), 0); }

    std::filesystem::path storage() const { return directory.path() / "storage"; }
    Datagram file(const std::string& relative = LEG_PATH) const {
        const std::string text = test::read_file(storage() / relative);
        return Datagram(text.begin(), text.end());
    }

    test::TempDirectory directory;
    test::LogCapture capture{log::Level::INFO};
    RecordingSettings settings;
    WritingManagerStatistic statistic;
    MediaBufferPoolStatistic pool_statistic;
    MediaWriterStatistic writer_statistic;
    std::unique_ptr<WritingManager> manager;
};

TEST_F(WritingManagerTest, RecordedLegIsWrittenFrameByFrameInTheOrderAccepted) {
    build(4);
    StartFields start;
    start.sync_mt = 5000;
    const std::vector<DataFields> frames = {
        data(1, 0, 0, 5160, 160),
        data(1, 1, 0, 5200, 3),
        data(2, 0, 160, 5320, 0),                   // no samples: a frame header alone
        data(3, 0, 320, 4000, 2),                   // before `sync mt`: the time wraps
        data(2, 1, 7, 5000 + (1ull << 32) + 9, 1),  // 2^32 after it: wraps to 9
    };

    feed_start(start);
    for (const DataFields& frame : frames) {
        feed(frame);
    }
    feed_terminate();
    drain();

    Datagram expected = media::encode_file_header(start);
    for (const DataFields& frame : frames) {
        expected = expected + media::encode_frame(frame, start.sync_mt);
    }
    EXPECT_EQ(file(), expected);
    EXPECT_EQ(statistic.session_media_received_bytes.load(), 2u * (160 + 3 + 0 + 2 + 1));
    EXPECT_EQ(statistic.session_media_buffered_bytes.load(), 2u * (160 + 3 + 0 + 2 + 1));
    EXPECT_EQ(statistic.session_media_dropped_bytes.load(), 0u);
    EXPECT_EQ(writer_statistic.passed_elements.load(), 1u);
    EXPECT_EQ(writer_statistic.written_bytes.load(), expected.size());
    EXPECT_EQ(pool_statistic.buffer_pool_elements.load(), 4u);
}

TEST_F(WritingManagerTest, EitherTopBitOfTheFirstFeatureByteRecordsTheLeg) {
    build(4);
    StartFields start;
    start.ft = {0x40, 0x00};

    feed_start(start);
    feed_terminate();
    drain();

    EXPECT_EQ(file(), media::encode_file_header(start));
    EXPECT_EQ(statistic.session_zombie.load(), 0u);
}

TEST_F(WritingManagerTest, LegWithoutRecordingBitsIsAZombieThatAbsorbsItsPackets) {
    build(4);
    StartFields start;
    start.ft = {0x3F, 0xFF};
    start.header.uuid = {'l', 'e', 'g', '-', '0', '0', '0', '1',
                         '-', 'A', 'B', 'C', 'D', 'E', 'F', 'G'};
    DataFields media = data(1, 0, 0, 1160, 160);
    media.header.uuid = start.header.uuid;

    feed_start(start);
    feed(media);
    drain();

    EXPECT_THAT(capture.lines(),
                ::testing::Contains(::testing::StartsWith("WARNING | writing_manager.cpp:")));
    EXPECT_THAT(capture.texts(log::Level::WARNING),
                ElementsAre("WRITING_MANAGER: leg-0001-ABCDEFG: recording is off for the session"));
    EXPECT_EQ(statistic.session.load(), 1u);
    EXPECT_EQ(statistic.session_zombie.load(), 1u);
    EXPECT_EQ(statistic.session_media_received_bytes.load(), 0u);
    EXPECT_FALSE(std::filesystem::exists(storage()));
    EXPECT_EQ(pool_statistic.buffer_pool_elements.load(), 4u);
}

// The raw bytes stop at the first zero byte, which is the default uuid's first.
TEST_F(WritingManagerTest, DeclinedLegShowsTheUuidBytesUpToTheFirstZero) {
    build(4);
    StartFields start;
    start.ft = {0x00, 0x00};

    feed_start(start);

    EXPECT_THAT(capture.texts(log::Level::WARNING),
                ElementsAre("WRITING_MANAGER: : recording is off for the session"));
}

// 160 samples make a frame of 332 bytes; a media part of 64088 bytes takes the 48-byte header and
// 192 frames (63792 bytes), leaving 296: the 193rd frame starts a new buffer.
TEST_F(WritingManagerTest, BufferTakesWholeFramesUntilTheNextNoLongerFits) {
    build(4);
    feed_start();
    std::vector<DataFields> frames;
    for (std::uint32_t seq = 1; seq <= 193; ++seq) {
        frames.push_back(data(seq, 0, (seq - 1) * 160, 500 + 20 * seq, 160));
    }

    for (std::size_t i = 0; i < 192; ++i) {
        feed(frames[i]);
    }
    EXPECT_EQ(writer_statistic.passed_elements.load(), 0u);
    feed(frames[192]);
    EXPECT_EQ(writer_statistic.passed_elements.load(), 1u);
    feed_terminate();
    drain();

    EXPECT_EQ(writer_statistic.passed_elements.load(), 2u);
    Datagram expected = media::encode_file_header(StartFields{});
    for (const DataFields& frame : frames) {
        expected = expected + media::encode_frame(frame, StartFields{}.sync_mt);
    }
    EXPECT_EQ(file(), expected);
    EXPECT_EQ(writer_statistic.written_bytes.load(), 48u + 193u * 332u);
}

TEST_F(WritingManagerTest, TerminationPushesExactlyOneBufferHoldingOnlyTheHeader) {
    build(4);

    feed_start();
    feed_terminate();
    drain();

    EXPECT_EQ(writer_statistic.passed_elements.load(), 1u);
    EXPECT_EQ(file(), media::encode_file_header(StartFields{}));
    EXPECT_EQ(statistic.session.load(), 0u);
}

TEST_F(WritingManagerTest, TimeOutCompletesTheSessionLikeATermination) {
    build(4);
    const DataFields frame = data(1, 1, 80, 1200, 4);

    feed_start();
    feed(frame);
    FakeClock::m_now += media::SessionManager::SESSION_TIMEOUT_US + 1'000'000;
    ASSERT_TRUE(manager->audit());
    drain();

    EXPECT_EQ(file(), media::encode_file_header(StartFields{}) +
                          media::encode_frame(frame, StartFields{}.sync_mt));
}

// A media part of 88 bytes (the smallest slot) holds the header and one 20-sample frame (52
// bytes) apart, and no 40-sample frame (92 bytes) at all.
TEST_F(WritingManagerTest, FrameLargerThanAWholeBufferIsDroppedAfterThePreviousWasPushed) {
    build(4, 88);
    const DataFields small = data(1, 0, 0, 600, 20);
    const DataFields large = data(2, 0, 20, 620, 40);

    feed_start();
    feed(small);  // header buffer pushed, the frame goes into a new one
    feed(large);  // that one pushed, the next is too small all the same
    feed_terminate();
    drain();

    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ElementsAre("WRITING_MANAGER: " + UUID_TEXT +
                            ": MAGIC! not enough space (92) in empty buffer of (88) capacity"));
    EXPECT_EQ(statistic.session_media_received_bytes.load(), 120u);
    EXPECT_EQ(statistic.session_media_buffered_bytes.load(), 40u);
    EXPECT_EQ(statistic.session_media_dropped_bytes.load(), 80u);
    // The empty buffer stayed attached and was the last one pushed.
    EXPECT_EQ(writer_statistic.passed_elements.load(), 3u);
    EXPECT_EQ(file(), media::encode_file_header(StartFields{}) +
                          media::encode_frame(small, StartFields{}.sync_mt));
}

TEST_F(WritingManagerTest, OpenSessionsAtShutdownEndAtTheirLastPushedBuffer) {
    build(4, 88);

    feed_start();
    feed(data(1, 0, 0, 600, 20));  // pushes the header's buffer, keeps the frame
    manager.reset();

    EXPECT_EQ(file(), media::encode_file_header(StartFields{}));
    EXPECT_EQ(writer_statistic.passed_elements.load(), 1u);
}

TEST_F(WritingManagerTest, FlushedOpenSessionsEndAtTheirLastAcceptedFrame) {
    build(8, 88);
    StartFields second;
    second.header.id = 2;
    second.header.uuid[15] = 0x01;
    StartFields declined;
    declined.header.id = 3;
    declined.ft = {0x00, 0x00};
    const std::string second_path =
        "2021-10-11/12/17/00112233-4455-6677-8899-aabbccddee01/media.qm";

    feed_start();
    feed(data(1, 0, 0, 600, 20));  // pushes the header's buffer, keeps the frame
    feed_start(second);            // only its header so far
    feed_start(declined);          // a zombie: nothing to flush
    const std::size_t flushed = manager->flush_open_sessions();
    manager.reset();

    EXPECT_EQ(flushed, 2u);
    EXPECT_EQ(file(), media::encode_file_header(StartFields{}) +
                          media::encode_frame(data(1, 0, 0, 600, 20), StartFields{}.sync_mt));
    EXPECT_EQ(file(second_path), media::encode_file_header(second));
    EXPECT_EQ(writer_statistic.passed_elements.load(), 3u);
    EXPECT_EQ(pool_statistic.buffer_pool_elements.load(), 8u);
    EXPECT_EQ(statistic.session.load(), 3u);
}

// A recorded leg counts in its minute from its start to its end; a declined one never counts.
TEST_F(WritingManagerTest, TrackedLegsCountFromTheirStartToTheirCompletion) {
    const std::string minute = "2021-10-11/12/17";
    OpenLegs legs;
    build(8);
    manager->track_open_legs(legs);
    StartFields second;
    second.header.id = 2;
    second.header.uuid[15] = 0x01;
    StartFields third;
    third.header.id = 3;
    third.header.uuid[15] = 0x02;
    third.ts += 60'000'000;  // a minute later
    StartFields declined;
    declined.header.id = 4;
    declined.ft = {0x00, 0x00};

    feed_start();
    feed_start(second);
    feed_start(third);
    feed_start(declined);
    EXPECT_EQ(legs.count_under(minute), 2u);
    EXPECT_EQ(legs.count_under("2021-10-11/12/18"), 1u);
    EXPECT_EQ(legs.count_under("2021-10-11"), 3u);

    feed_terminate();
    EXPECT_EQ(legs.count_under(minute), 1u);
    ASSERT_EQ(manager->flush_open_sessions(), 2u);
    EXPECT_EQ(legs.count_under("2021-10-11"), 0u);

    // A leg still open when the manager goes stops counting with it.
    StartFields fourth = third;
    fourth.header.id = 5;
    fourth.header.uuid[15] = 0x03;
    feed_start(fourth);
    EXPECT_EQ(legs.count_under("2021-10-11/12/18"), 1u);
    manager.reset();
    EXPECT_EQ(legs.count_under("2021-10-11"), 0u);
}

TEST_F(WritingManagerTest, FlushingTwiceHandsOverNothingTheSecondTime) {
    build(4, 88);
    feed_start();

    EXPECT_EQ(manager->flush_open_sessions(), 1u);
    EXPECT_EQ(manager->flush_open_sessions(), 0u);
    manager.reset();

    EXPECT_EQ(file(), media::encode_file_header(StartFields{}));
}

// The writer is not started, so nothing comes back to the pool and it runs dry on purpose.
TEST_F(WritingManagerTest, EachFailedAcquireIsCountedAndLogged) {
    build(2, 88, false);
    StartFields other;
    other.header.id = 2;
    other.header.uuid[15] = 0x11;

    feed_start();                   // buffer 1: the header
    feed(data(1, 0, 0, 600, 20));   // buffer 1 pushed, buffer 2 takes the frame
    feed_start(other);              // no buffer left: declined
    feed(data(2, 0, 20, 620, 20));  // buffer 2 pushed, none to follow
    feed(data(3, 0, 40, 640, 20));  // still none

    EXPECT_THAT(
        capture.texts(log::Level::ERROR),
        ElementsAre("WRITING_MANAGER: : failed to acquire a buffer for session start",
                    "WRITING_MANAGER: " + UUID_TEXT +
                        ": failed to acquire a buffer for media after pushing the previous one",
                    "WRITING_MANAGER: " + UUID_TEXT + ": failed to acquire a buffer for  media"));
    EXPECT_EQ(statistic.session_zombie.load(), 1u);
    EXPECT_EQ(statistic.session_media_received_bytes.load(), 120u);
    EXPECT_EQ(statistic.session_media_buffered_bytes.load(), 40u);
    EXPECT_EQ(statistic.session_media_dropped_bytes.load(), 80u);
    EXPECT_EQ(pool_statistic.buffer_pool_acquire_errors.load(), 3u);
    ASSERT_EQ(manager->start(), 0);
    feed_terminate();  // no buffer attached: nothing more to push
    drain();
    EXPECT_EQ(writer_statistic.passed_elements.load(), 2u);
    EXPECT_EQ(file(), media::encode_file_header(StartFields{}) +
                          media::encode_frame(data(1, 0, 0, 600, 20), StartFields{}.sync_mt));
}

// The writer's queue holds as many buffers as the pool has, so it can only refuse one if the
// accounting is broken; here the test fills it with empty elements to see what the manager does.
TEST_F(WritingManagerTest, RefusedPushesKeepOrGiveBackTheBufferAndSayMagic) {
    build(2, 88, false);
    feed_start();
    ASSERT_TRUE(manager->writer().push(nullptr));
    ASSERT_TRUE(manager->writer().push(nullptr));

    feed(data(1, 0, 0, 600, 20));  // the header's buffer cannot go: the frame is lost
    feed_terminate();              // nor can the last one: it goes back to the pool
    EXPECT_EQ(manager->pool().free_count(), 2u);
    ASSERT_EQ(manager->start(), 0);
    drain();

    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ElementsAre("WRITING_MANAGER: " + UUID_TEXT +
                                ": MAGIC! failed to enqueue buffer for a writing",
                            "WRITING_MANAGER: " + UUID_TEXT +
                                ": MAGIC! failed to enqueue buffer for a term writing"));
    // The buffer held the file header alone: no payload went with it.
    EXPECT_EQ(statistic.session_media_dropped_bytes.load(), 40u);
    EXPECT_EQ(writer_statistic.dropped_elements.load(), 2u);
    EXPECT_EQ(pool_statistic.buffer_pool_elements.load(), 2u);
    EXPECT_FALSE(std::filesystem::exists(storage()));
}

// A media part of 88 bytes takes the 48-byte header and frames of 6 and 2 samples (24 and 16
// bytes) exactly, or the header and a frame of 10 samples (32 bytes). With the writer's queue
// full, neither last buffer can go: both come back, and their frames' payload is what is lost.
TEST_F(WritingManagerTest, FailedFinalPushesGiveTheBuffersBackAndDropTheirFrames) {
    build(4, 88, false);
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(manager->writer().push(nullptr));
    }
    StartFields second;
    second.header.id = 2;
    second.header.uuid[15] = 0x01;
    DataFields second_frame = data(1, 1, 0, 700, 10);
    second_frame.header.id = 2;

    feed_start();
    feed(data(1, 0, 0, 600, 6));
    feed(data(2, 0, 6, 620, 2));
    feed_start(second);
    feed(second_frame);
    feed_terminate();  // the first leg ends
    FakeClock::m_now += media::SessionManager::SESSION_TIMEOUT_US + 1'000'000;
    ASSERT_TRUE(manager->audit());  // the second one times out

    EXPECT_EQ(manager->pool().free_count(), 4u);
    EXPECT_EQ(pool_statistic.buffer_pool_elements.load(), 4u);
    EXPECT_EQ(pool_statistic.buffer_pool_acquire_errors.load(), 0u);
    EXPECT_EQ(statistic.session_media_received_bytes.load(), 36u);
    EXPECT_EQ(statistic.session_media_buffered_bytes.load(), 36u);
    EXPECT_EQ(statistic.session_media_dropped_bytes.load(), 36u);
    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ElementsAre("WRITING_MANAGER: " + UUID_TEXT +
                                ": MAGIC! failed to enqueue buffer for a term writing",
                            "WRITING_MANAGER: 00112233-4455-6677-8899-aabbccddee01: MAGIC! failed "
                            "to enqueue buffer for a term writing"));
    ASSERT_EQ(manager->start(), 0);
    drain();
    EXPECT_EQ(capture.texts(log::Level::ERROR).size(), 2u) << "no leak at the stop";
    EXPECT_EQ(pool_statistic.buffer_pool_elements.load(), 4u);
    EXPECT_EQ(pool_statistic.buffer_pool_release_errors.load(), 0u);
    EXPECT_FALSE(std::filesystem::exists(storage()));
}

// A later buffer starts with a frame, not with the file header: all its bytes but the frame
// headers are payload. The header's buffer was pushed and is written.
TEST_F(WritingManagerTest, FailedFinalPushOfALaterBufferDropsAllItsFrames) {
    build(4, 88, false);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(manager->writer().push(nullptr));
    }

    feed_start();
    feed(data(1, 0, 0, 600, 20));   // the header's buffer fills the queue, the frame starts another
    feed(data(2, 1, 20, 620, 10));  // 52 + 32 bytes: fits
    feed_terminate();
    EXPECT_EQ(manager->pool().free_count(), 3u);
    ASSERT_EQ(manager->start(), 0);
    drain();

    EXPECT_EQ(statistic.session_media_dropped_bytes.load(), 60u);
    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ElementsAre("WRITING_MANAGER: " + UUID_TEXT +
                            ": MAGIC! failed to enqueue buffer for a term writing"));
    EXPECT_EQ(pool_statistic.buffer_pool_elements.load(), 4u);
    EXPECT_EQ(file(), media::encode_file_header(StartFields{}));
}

}  // namespace
}  // namespace qm::writer

namespace qm::writer {
namespace {

// Closed legs get "leg.json". The frames: side 0 skips seq 2, side 1 has one frame; the last one
// accepted has mt 1480, 980 us after `sync mt` 500, so 980 us after `sync ts`.
class LegSummaryTest : public WritingManagerTest {
protected:
    void SetUp() override {
        WritingManagerTest::SetUp();
        settings.write_leg_summary = true;
        start.header.flags = media::FLAG_OUTBOUND | media::FLAG_START_RULE;
    }

    void build_described(std::uint64_t count, std::uint64_t media_size = 0) {
        build(count, media_size, false);
        manager->describe_recorder("rec-1", 9000);
        ASSERT_EQ(manager->start(), 0);
    }

    void feed_leg() {
        feed_start(start);
        feed(data(1, 0, 0, 1160, 160));
        feed(data(1, 1, 0, 1200, 3));
        feed(data(3, 0, 320, 1480, 160));
    }

    catalog::LegSummary expected(catalog::LegClose closed_by) const {
        catalog::LegSummary summary;
        summary.uuid = UUID_TEXT;
        summary.session_id = 0x0123456789abcdefULL;
        summary.call_id = "call-1@example.org";
        summary.leg = catalog::LegDirection::OUTBOUND;
        summary.flags = 0x8001;
        summary.start_us = 1633954638004211;
        summary.last_packet_us = 1633954638000980;
        summary.closed_by = closed_by;
        summary.sides[0] = {2, 320, 0, 320, 1};
        summary.sides[1] = {1, 3, 0, 0, 0};
        summary.bytes = 48 + (12 + 320) + (12 + 320) + (12 + 6);
        summary.host = "rec-1";
        summary.port = 9000;
        summary.path = LEG_DIRECTORY;
        return summary;
    }

    std::filesystem::path leg_json() const { return storage() / LEG_DIRECTORY / "leg.json"; }

    StartFields start;
};

TEST_F(LegSummaryTest, TerminatedLegGetsItsSummaryBesideTheFile) {
    build_described(4);

    feed_leg();
    feed_terminate();
    drain();

    EXPECT_EQ(test::read_file(leg_json()), catalog::render(expected(catalog::LegClose::TERMINATE)));
    EXPECT_EQ(std::filesystem::file_size(storage() / LEG_PATH), expected({}).bytes);
    EXPECT_FALSE(std::filesystem::exists(leg_json().string() + ".tmp"));
    EXPECT_EQ(writer_statistic.leg_summary_errors.load(), 0u);
}

TEST_F(LegSummaryTest, TimedOutLegSaysSo) {
    build_described(4);

    feed_leg();
    FakeClock::m_now += media::SessionManager::SESSION_TIMEOUT_US + 1'000'000;
    ASSERT_TRUE(manager->audit());
    drain();

    EXPECT_EQ(test::read_file(leg_json()), catalog::render(expected(catalog::LegClose::TIMEOUT)));
}

TEST_F(LegSummaryTest, LegFlushedAtAStopSaysSo) {
    build_described(4);

    feed_leg();
    ASSERT_EQ(manager->flush_open_sessions(), 1u);
    drain();

    EXPECT_EQ(test::read_file(leg_json()), catalog::render(expected(catalog::LegClose::STOP)));
}

// Buffers of 344 bytes hold the header and each frame apart (332 + 18 > 344): the summary waits
// for the last of the four, so its size is the whole file's.
TEST_F(LegSummaryTest, SummaryIsWrittenOnceTheLastOfManyBuffersIsOnDisk) {
    build_described(8, 340);
    start.header.flags = 0;

    feed_leg();
    feed_terminate();
    drain();

    catalog::LegSummary summary = expected(catalog::LegClose::TERMINATE);
    summary.leg = catalog::LegDirection::INBOUND;
    summary.flags = 0;
    EXPECT_EQ(writer_statistic.passed_elements.load(), 4u);
    EXPECT_EQ(test::read_file(leg_json()), catalog::render(summary));
}

TEST_F(LegSummaryTest, NothingIsWrittenWithoutMedia) {
    settings.write_media = false;
    build_described(4);

    feed_leg();
    feed_terminate();
    drain();

    EXPECT_FALSE(std::filesystem::exists(storage()));
}

TEST_F(LegSummaryTest, NoSummaryUnlessAskedFor) {
    settings.write_leg_summary = false;
    build_described(4);

    feed_leg();
    feed_terminate();
    drain();

    EXPECT_TRUE(std::filesystem::exists(storage() / LEG_PATH));
    EXPECT_EQ(std::filesystem::directory_iterator(storage() / LEG_DIRECTORY)->path().filename(),
              "media.qm");
    EXPECT_FALSE(std::filesystem::exists(leg_json()));
}

// A directory in the way of the temporary file: the failure is counted and logged, the media
// file is untouched.
TEST_F(LegSummaryTest, SummaryThatCannotBeWrittenIsCountedAndLogged) {
    std::filesystem::create_directories(leg_json().string() + ".tmp");
    build_described(4);

    feed_leg();
    feed_terminate();
    drain();

    EXPECT_EQ(writer_statistic.leg_summary_errors.load(), 1u);
    EXPECT_THAT(capture.texts(log::Level::WARNING),
                ElementsAre("MEDIA_WRITER: failed to write the leg summary " + leg_json().string() +
                            ": Is a directory"));
    EXPECT_FALSE(std::filesystem::exists(leg_json()));
    EXPECT_EQ(std::filesystem::file_size(storage() / LEG_PATH), expected({}).bytes);
}

}  // namespace
}  // namespace qm::writer
