#include "writer/media_writer.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "child_process.hpp"
#include "log_capture.hpp"
#include "packet_bytes.hpp"
#include "poll.hpp"
#include "recording_bytes.hpp"
#include "temp_directory.hpp"
#include "writer/media_buffer_pool.hpp"
#include "writer/writing_session.hpp"

namespace qm::writer {
namespace {

using ::testing::ElementsAre;
using namespace std::chrono_literals;

// Files of this process cannot grow beyond `bytes` while it lives: a write across the limit
// takes what fits and the next one fails with EFBIG, as a full disk would with ENOSPC. The signal
// the system sends on such a write is ignored meanwhile.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &m_saved);
        const rlimit limit{bytes, m_saved.rlim_max};
        m_previous_handler = ::signal(SIGXFSZ, SIG_IGN);
        EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &m_saved);
        ::signal(SIGXFSZ, m_previous_handler);
    }

    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_saved{};
    sighandler_t m_previous_handler = SIG_DFL;
};

// A writer over a small pool, fed by the test thread as the session thread would feed it. Most
// tests hand buffers to `on_queue_read` directly, on the test thread; the thread tests start it.
class MediaWriterTest : public ::testing::Test {
protected:
    static RecordingSettings settings_in(const std::filesystem::path& storage) {
        RecordingSettings settings;
        settings.storage = storage.string();
        return settings;
    }

    // A session whose file is `relative` under the storage directory.
    rc_ptr<WritingSession> session(const std::string& relative = "day/hour/minute/leg/media.qm") {
        test::PacketBytes bytes(media::encode_start());
        return new WritingSession(bytes.as<media::StartPacket>(), 0,
                                  (storage() / relative).string());
    }

    // A buffer of `session` holding `text`.
    MediaBuffer* filled(const rc_ptr<WritingSession>& owner, const std::string& text) {
        MediaBuffer* buffer = pool.acquire();
        EXPECT_NE(buffer, nullptr);
        std::memcpy(buffer->data, text.data(), text.size());
        buffer->size = text.size();
        buffer->session = owner.get();
        return buffer;
    }

    std::string content(const std::string& relative = "day/hour/minute/leg/media.qm") const {
        return test::read_file(storage() / relative);
    }

    std::filesystem::path storage() const { return directory.path() / "storage"; }

    // The file of `session()` made a link to /dev/full, which takes no byte: a disk that is full.
    void make_file_full(const std::string& relative = "day/hour/minute/leg/media.qm") const {
        std::filesystem::create_directories((storage() / relative).parent_path());
        std::filesystem::create_symlink("/dev/full", storage() / relative);
    }

    // The file header of the start packet `session()` is made from, as the encoder spells it.
    static std::string header() { return test::text_of(media::encode_file_header({})); }

    std::string not_taken(std::uint64_t bytes, const rc_ptr<WritingSession>& leg,
                          const std::string& reason) const {
        return "MEDIA_WRITER: the system did not take " + std::to_string(bytes) + " bytes of " +
               leg->file_path + ": " + reason;
    }

    test::TempDirectory directory;
    test::LogCapture capture{log::Level::INFO};
    RecordingSettings settings = settings_in(storage());
    MediaBufferPoolStatistic pool_statistic;
    MediaBufferPool pool{4, 256, pool_statistic};
    MediaWriterStatistic statistic;
    MediaWriter writer{settings, pool, statistic};
};

TEST_F(MediaWriterTest, BuffersOfASessionAreAppendedToItsFile) {
    const rc_ptr<WritingSession> leg = session();

    writer.on_queue_read(filled(leg, "first "));
    writer.on_queue_read(filled(leg, "second"));

    EXPECT_EQ(content(), "first second");
    EXPECT_EQ(statistic.written_bytes.load(), 12u);
    EXPECT_TRUE(leg->directory_ready);
    EXPECT_EQ(leg->reported_errors, 0u);
    EXPECT_EQ(pool.free_count(), 4u);
    EXPECT_EQ(capture.texts().size(), 1u) << "only the pool's line";
}

TEST_F(MediaWriterTest, AnExistingFileIsAppendedToNeverTruncated) {
    const rc_ptr<WritingSession> leg = session("media.qm");
    std::filesystem::create_directories(storage());
    directory.write_file("storage/media.qm", "kept ");

    writer.on_queue_read(filled(leg, "added"));

    EXPECT_EQ(content("media.qm"), "kept added");
}

TEST_F(MediaWriterTest, WithoutWriteMediaEveryBufferGoesBackUntouched) {
    settings.write_media = false;
    MediaWriter writer{settings, pool, statistic};
    const rc_ptr<WritingSession> leg = session();
    ASSERT_EQ(writer.start(), 0);

    ASSERT_TRUE(writer.push(filled(leg, "never written")));
    ASSERT_TRUE(writer.push(filled(leg, "nor this")));
    ASSERT_EQ(writer.stop(), 0);

    EXPECT_FALSE(std::filesystem::exists(storage()));
    EXPECT_EQ(pool.free_count(), 4u);
    EXPECT_EQ(statistic.passed_elements.load(), 2u);
    EXPECT_EQ(statistic.elements.load(), 0u);
    EXPECT_EQ(statistic.written_bytes.load(), 0u);
    EXPECT_EQ(statistic.directory_check_or_create_errors.load(), 0u);
    EXPECT_EQ(statistic.file_open_errors.load(), 0u);
    EXPECT_FALSE(leg->directory_ready);
}

TEST_F(MediaWriterTest, EmptyBufferStillCreatesTheDirectoryAndTheFile) {
    const rc_ptr<WritingSession> leg = session();

    writer.on_queue_read(filled(leg, ""));

    EXPECT_TRUE(std::filesystem::is_regular_file(storage() / "day/hour/minute/leg/media.qm"));
    EXPECT_EQ(std::filesystem::file_size(storage() / "day/hour/minute/leg/media.qm"), 0u);
    EXPECT_EQ(statistic.written_bytes.load(), 0u);
}

// A regular file where the storage directory should be: no directory can be made under it.
TEST_F(MediaWriterTest, DirectoryThatCannotBeMadeIsReportedOncePerSessionAndCountedPerBuffer) {
    directory.write_file("storage", "in the way");
    const rc_ptr<WritingSession> first = session();
    const rc_ptr<WritingSession> second = session("other/media.qm");

    writer.on_queue_read(filled(first, "lost"));
    writer.on_queue_read(filled(first, "lost too"));
    writer.on_queue_read(filled(second, "lost"));

    EXPECT_THAT(
        capture.texts(log::Level::ERROR),
        ElementsAre("MEDIA_WRITER: directory check or creation failed: " + first->file_path,
                    "MEDIA_WRITER: directory check or creation failed: " + second->file_path));
    EXPECT_EQ(statistic.directory_check_or_create_errors.load(), 3u);
    EXPECT_EQ(first->reported_errors, WritingSession::REPORTED_DIRECTORY);
    EXPECT_EQ(pool.free_count(), 4u);

    // Once the directory can be made, the next buffer is written and the message re-armed.
    std::filesystem::remove(storage());
    writer.on_queue_read(filled(first, "written"));

    EXPECT_EQ(content(), "written");
    EXPECT_TRUE(first->directory_ready);
    EXPECT_EQ(first->reported_errors, 0u);
    EXPECT_EQ(statistic.directory_check_or_create_errors.load(), 3u);
}

TEST_F(MediaWriterTest, FileThatCannotBeOpenedIsReportedOncePerSessionAndCountedPerBuffer) {
    const rc_ptr<WritingSession> leg = session();
    std::filesystem::create_directories(storage() / "day/hour/minute/leg/media.qm");

    writer.on_queue_read(filled(leg, "lost"));
    writer.on_queue_read(filled(leg, "lost too"));

    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ElementsAre("MEDIA_WRITER: failed to open file " + leg->file_path));
    EXPECT_THAT(capture.lines(),
                ::testing::Contains(::testing::StartsWith("ERROR   | media_writer.cpp:")));
    EXPECT_EQ(statistic.file_open_errors.load(), 2u);
    EXPECT_EQ(leg->reported_errors, WritingSession::REPORTED_OPEN);

    // Out of the way again: the next buffer is written and the bit cleared.
    std::filesystem::remove(storage() / "day/hour/minute/leg/media.qm");
    writer.on_queue_read(filled(leg, "written"));

    EXPECT_EQ(content(), "written");
    EXPECT_EQ(leg->reported_errors, 0u);
    EXPECT_EQ(statistic.file_open_errors.load(), 2u);
}

// Once a session's directory is known to exist it is not looked at again: a directory removed
// underneath makes every later open of that session fail.
TEST_F(MediaWriterTest, DirectoryRemovedAfterItWasReadyIsNotMadeAgain) {
    const rc_ptr<WritingSession> leg = session();
    writer.on_queue_read(filled(leg, "first"));
    std::filesystem::remove_all(storage() / "day");

    writer.on_queue_read(filled(leg, "lost"));
    writer.on_queue_read(filled(leg, "lost"));

    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ElementsAre("MEDIA_WRITER: failed to open file " + leg->file_path));
    EXPECT_EQ(statistic.file_open_errors.load(), 2u);
    EXPECT_FALSE(std::filesystem::exists(storage() / "day"));
}

TEST_F(MediaWriterTest, BufferWithoutASessionIsReportedEveryTime) {
    writer.on_queue_read(filled(nullptr, "orphan"));
    writer.on_queue_read(filled(nullptr, "orphan"));

    const std::string message =
        "MEDIA_WRITER: unexpectedly received null session - ask a developer to check the logic";
    EXPECT_THAT(capture.texts(log::Level::ERROR), ElementsAre(message, message));
    EXPECT_EQ(statistic.buffer_null_sessions_errors.load(), 2u);
    EXPECT_EQ(pool.free_count(), 4u);
}

TEST_F(MediaWriterTest, TimeOutTickIsIgnored) {
    writer.on_queue_read(nullptr);

    EXPECT_EQ(pool.free_count(), 4u);
    EXPECT_EQ(capture.texts().size(), 1u) << "only the pool's line";
}

TEST_F(MediaWriterTest, StopWritesEveryQueuedBufferBeforeTheThreadEnds) {
    const rc_ptr<WritingSession> leg = session();
    const std::vector<std::string> parts = {"one ", "two ", "three ", "four"};
    // Queued before the thread runs, so that all four are waiting when the stop comes.
    for (const std::string& part : parts) {
        ASSERT_TRUE(writer.push(filled(leg, part)));
    }
    ASSERT_EQ(writer.start(), 0);

    ASSERT_EQ(writer.stop(), 0);

    EXPECT_EQ(content(), "one two three four");
    EXPECT_EQ(pool.free_count(), 4u);
    EXPECT_EQ(statistic.elements.load(), 0u);
    const std::vector<std::string> texts = capture.texts(log::Level::SYSTEM);
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_THAT(texts[1], ::testing::MatchesRegex(R"(MEDIA_WRITER: thread \[[0-9]+\] started)"));
    EXPECT_THAT(texts[2], ::testing::MatchesRegex(R"(MEDIA_WRITER: thread \[[0-9]+\] stopped)"));
    EXPECT_TRUE(capture.texts(log::Level::ERROR).empty());
}

TEST_F(MediaWriterTest, StopWithABufferStillOutsideThePoolReportsALeak) {
    ASSERT_EQ(writer.start(), 0);
    MediaBuffer* held = pool.acquire();
    ASSERT_NE(held, nullptr);

    ASSERT_EQ(writer.stop(), 0);

    EXPECT_THAT(capture.texts(log::Level::ERROR),
                ElementsAre("MEDIA_WRITER: Possible memory leak detected! All buffers must be "
                            "inside the pool at this point"));
    // Back home before the pool goes; the writer thread has ended, so the test may release.
    EXPECT_TRUE(pool.release(held));
}

TEST_F(MediaWriterTest, StopOfAWriterThatDoesNotRunDoesNothing) {
    EXPECT_EQ(writer.stop(), 0);
    EXPECT_EQ(capture.texts().size(), 1u) << "only the pool's line";
}

TEST_F(MediaWriterTest, FullDiskCountsTheBytesNotTakenAndWarnsOncePerCondition) {
    const rc_ptr<WritingSession> leg = session();
    make_file_full();

    writer.on_queue_read(filled(leg, "lost"));
    writer.on_queue_read(filled(leg, "lost too"));

    EXPECT_THAT(capture.texts(log::Level::WARNING),
                ElementsAre(not_taken(4, leg, "No space left on device")));
    EXPECT_TRUE(capture.texts(log::Level::ERROR).empty());
    EXPECT_EQ(statistic.written_bytes.load(), 0u + 12u);
    EXPECT_EQ(statistic.unwritten_bytes.load(), 12u);
    EXPECT_EQ(statistic.file_write_errors.load(), 0u);
    EXPECT_EQ(pool.free_count(), 4u);

    // A buffer written whole re-arms the warning.
    std::filesystem::remove(storage() / "day/hour/minute/leg/media.qm");
    writer.on_queue_read(filled(leg, "kept"));
    EXPECT_EQ(content(), "kept");
    std::filesystem::remove(storage() / "day/hour/minute/leg/media.qm");
    make_file_full();
    writer.on_queue_read(filled(leg, "lost again"));

    EXPECT_THAT(capture.texts(log::Level::WARNING),
                ElementsAre(not_taken(4, leg, "No space left on device"),
                            not_taken(10, leg, "No space left on device")));
    EXPECT_EQ(statistic.written_bytes.load(), 4u + 22u);
    EXPECT_EQ(statistic.unwritten_bytes.load(), 22u);
    EXPECT_EQ(statistic.file_write_errors.load(), 0u);
    EXPECT_EQ(statistic.repair_cut_bytes.load(), 0u);
}

TEST_F(MediaWriterTest, WriteCutShortCountsExactlyWhatTheSystemTookAndLeavesItInPlace) {
    const rc_ptr<WritingSession> leg = session();
    writer.on_queue_read(filled(leg, "first "));
    {
        const FileSizeLimit limit(10);
        writer.on_queue_read(filled(leg, "0123456789"));
        writer.on_queue_read(filled(leg, "refused"));
    }

    EXPECT_EQ(content(), "first 0123");
    EXPECT_THAT(capture.texts(log::Level::WARNING),
                ElementsAre(not_taken(6, leg, "File too large")));
    EXPECT_EQ(statistic.written_bytes.load(), 10u + 13u);
    EXPECT_EQ(statistic.unwritten_bytes.load(), 13u);
    EXPECT_EQ(statistic.file_write_errors.load(), 0u);
}

TEST_F(MediaWriterTest, WithRepairAWriteCutShortIsCutOffTheFileAgain) {
    settings.media_write_repair = true;
    MediaWriter writer{settings, pool, statistic};
    const rc_ptr<WritingSession> leg = session();
    writer.on_queue_read(filled(leg, header() + "first "));
    {
        const FileSizeLimit limit(60);
        writer.on_queue_read(filled(leg, "0123456789"));
    }
    EXPECT_EQ(content(), header() + "first ");

    writer.on_queue_read(filled(leg, "next"));

    EXPECT_EQ(content(), header() + "first next");
    EXPECT_THAT(capture.texts(log::Level::WARNING),
                ElementsAre(not_taken(4, leg, "File too large")));
    EXPECT_EQ(statistic.written_bytes.load(), 54u + 6u + 4u + 4u);
    EXPECT_EQ(statistic.unwritten_bytes.load(), 4u);
    EXPECT_EQ(statistic.repair_cut_bytes.load(), 6u);
    EXPECT_EQ(statistic.repair_headers.load(), 0u);
}

// The first buffer carries the file header: cut off, it leaves nothing worth a file, and the
// header goes in front of the next buffer.
TEST_F(MediaWriterTest, WithRepairAFileThatHeldNothingGoesAndGetsItsHeaderBackFirst) {
    settings.media_write_repair = true;
    MediaWriter writer{settings, pool, statistic};
    const rc_ptr<WritingSession> leg = session();
    {
        const FileSizeLimit limit(20);
        writer.on_queue_read(filled(leg, header() + "first"));
    }
    EXPECT_FALSE(std::filesystem::exists(storage() / "day/hour/minute/leg/media.qm"));

    writer.on_queue_read(filled(leg, "second"));

    EXPECT_EQ(content(), header() + "second");
    EXPECT_THAT(capture.texts(log::Level::WARNING),
                ElementsAre(not_taken(33, leg, "File too large")));
    EXPECT_EQ(statistic.written_bytes.load(), 20u + 6u + 33u);
    EXPECT_EQ(statistic.unwritten_bytes.load(), 33u);
    EXPECT_EQ(statistic.repair_cut_bytes.load(), 20u);
    EXPECT_EQ(statistic.repair_headers.load(), 1u);
}

// A regular file where the storage directory should be: the first buffer, header and all, never
// reaches the disk. Once the way is clear, the header is written before the next frames; while
// the header itself is refused, the next buffer waits for it rather than go in without it.
TEST_F(MediaWriterTest, WithRepairALegWhoseFirstBufferWasLostGetsItsHeaderBeforeItsNextFrames) {
    settings.media_write_repair = true;
    MediaWriter writer{settings, pool, statistic};
    const rc_ptr<WritingSession> leg = session();
    directory.write_file("storage", "in the way");
    writer.on_queue_read(filled(leg, header() + "one"));
    std::filesystem::remove(storage());
    make_file_full();
    writer.on_queue_read(filled(leg, "two"));
    std::filesystem::remove(storage() / "day/hour/minute/leg/media.qm");

    writer.on_queue_read(filled(leg, "three"));
    writer.on_queue_read(filled(leg, "four"));

    EXPECT_EQ(content(), header() + "threefour");
    EXPECT_EQ(statistic.directory_check_or_create_errors.load(), 1u);
    EXPECT_THAT(capture.texts(log::Level::WARNING),
                ElementsAre(not_taken(3, leg, "No space left on device")));
    EXPECT_EQ(statistic.written_bytes.load(), 9u + 3u);
    EXPECT_EQ(statistic.unwritten_bytes.load(), 3u);
    EXPECT_EQ(statistic.repair_headers.load(), 1u);
}

TEST_F(MediaWriterTest, WithRepairALegWhoseFirstOpenFailedGetsItsHeaderBeforeItsNextFrames) {
    settings.media_write_repair = true;
    MediaWriter writer{settings, pool, statistic};
    const rc_ptr<WritingSession> leg = session();
    std::filesystem::create_directories(storage() / "day/hour/minute/leg/media.qm");
    writer.on_queue_read(filled(leg, header() + "one"));
    std::filesystem::remove(storage() / "day/hour/minute/leg/media.qm");

    writer.on_queue_read(filled(leg, "two"));

    EXPECT_EQ(content(), header() + "two");
    EXPECT_EQ(statistic.file_open_errors.load(), 1u);
    EXPECT_EQ(statistic.repair_headers.load(), 1u);
}

// Without the key a lost first buffer stays lost: the file starts with frames.
TEST_F(MediaWriterTest, WithoutRepairALegWhoseFirstBufferWasLostHasNoHeader) {
    const rc_ptr<WritingSession> leg = session();
    directory.write_file("storage", "in the way");
    writer.on_queue_read(filled(leg, header() + "one"));
    std::filesystem::remove(storage());

    writer.on_queue_read(filled(leg, "two"));

    EXPECT_EQ(content(), "two");
    EXPECT_EQ(statistic.repair_headers.load(), 0u);
}

TEST_F(MediaWriterTest, NewFilesAreMadeWithTheModeTheUmaskLeaves) {
    const rc_ptr<WritingSession> leg = session();
    const mode_t saved = ::umask(027);
    writer.on_queue_read(filled(leg, "bytes"));
    ::umask(saved);

    EXPECT_EQ(std::filesystem::status(storage() / "day/hour/minute/leg/media.qm").permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write |
                  std::filesystem::perms::group_read);
}

}  // namespace
}  // namespace qm::writer
