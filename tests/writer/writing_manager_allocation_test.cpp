// Runs of the writing manager in which one allocation fails on purpose. The binary replaces the
// global operator new: armed on one thread, it lets a given number of that thread's allocations
// through and then fails exactly one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "child_process.hpp"
#include "log_capture.hpp"
#include "media/start_packet.hpp"
#include "media/terminate_packet.hpp"
#include "packet_bytes.hpp"
#include "temp_directory.hpp"
#include "writer/writing_manager.hpp"

namespace {

// Allocations of this thread still let through before one fails; negative while disarmed.
thread_local int t_allocations_before_failure = -1;
// Set when the armed failure happened.
thread_local bool t_failed = false;

}  // namespace

void* operator new(std::size_t size) {
    if (t_allocations_before_failure == 0) {
        t_allocations_before_failure = -1;
        t_failed = true;
        throw std::bad_alloc();
    }
    if (t_allocations_before_failure > 0) {
        --t_allocations_before_failure;
    }
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

// Replaced with the operator new above, so that a sanitizer's allocator sees std::malloc paired
// with std::free. GCC takes the std::free of memory from an operator new it inlined for a mismatch.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace qm::writer {
namespace {

using ::testing::ElementsAre;

const std::string UUID_TEXT = "00112233-4455-6677-8899-aabbccddeeff";
const std::string LEG_PATH = "2021-10-11/12/17/" + UUID_TEXT + "/media.qm";

// Arms the failure right after `create_session` has made the session and taken its buffer, so
// that it hits the table's own allocations: the first is the activity list's node, the second the
// session table's.
class FailingInsertManager : public WritingManager {
public:
    using WritingManager::WritingManager;

    // Allocations to let through after the next `create_session`; negative: none fails.
    int allocations_before_failure = -1;

protected:
    media::Session* create_session(const media::StartPacket& packet, int& result) override {
        media::Session* session = WritingManager::create_session(packet, result);
        t_allocations_before_failure = std::exchange(allocations_before_failure, -1);
        t_failed = false;
        return session;
    }
};

class WritingManagerAllocationTest : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        settings.storage = (directory.path() / "storage").string();
        settings.media_buffers_count = 2;
        settings.media_buffer_size = 88;
        manager = std::make_unique<FailingInsertManager>(settings, statistic, pool_statistic,
                                                         writer_statistic);
        capture.clear();
    }

    void feed_start() {
        test::PacketBytes bytes(media::encode_start(media::StartFields{}));
        manager->on_packet(bytes.as<media::StartPacket>());
    }
    void feed_terminate() {
        test::PacketBytes bytes(media::encode_terminate(media::TerminateFields{}));
        manager->on_packet(bytes.as<media::TerminatePacket>());
    }

    // The session could not be entered: no trace of it is left, and its buffer is free again.
    void expect_session_refused() {
        EXPECT_TRUE(t_failed);
        EXPECT_THAT(capture.texts(log::Level::ERROR),
                    ElementsAre("SESSION_MANAGER: Session " + UUID_TEXT + " allocation failed"));
        EXPECT_EQ(statistic.session_allocation_errors.load(), 1u);
        EXPECT_EQ(statistic.session.load(), 0u);
        EXPECT_EQ(statistic.session_zombie.load(), 0u);
        EXPECT_TRUE(manager->sessions().empty());
        EXPECT_TRUE(manager->activity().empty());
        EXPECT_EQ(manager->pool().free_count(), 2u);
        EXPECT_EQ(pool_statistic.buffer_pool_elements.load(), 2u);
        EXPECT_EQ(statistic.session_media_dropped_bytes.load(), 0u);
    }

    // A later start of the same leg is recorded as if nothing had happened.
    void expect_next_start_recorded() {
        ASSERT_EQ(manager->start(), 0);
        feed_start();
        feed_terminate();
        ASSERT_EQ(manager->stop(), 0);
        EXPECT_EQ(test::read_file(directory.path() / "storage" / LEG_PATH).size(), 48u);
        EXPECT_EQ(pool_statistic.buffer_pool_elements.load(), 2u);
        EXPECT_EQ(capture.texts(log::Level::ERROR).size(), 1u) << "no leak at the stop";
    }

    test::TempDirectory directory;
    test::LogCapture capture{log::Level::ERROR};
    RecordingSettings settings;
    WritingManagerStatistic statistic;
    MediaBufferPoolStatistic pool_statistic;
    MediaWriterStatistic writer_statistic;
    std::unique_ptr<FailingInsertManager> manager;
};

// 0: the activity list's node fails; 1: the session table's.
INSTANTIATE_TEST_SUITE_P(ListAndTable, WritingManagerAllocationTest, ::testing::Values(0, 1));

TEST_P(WritingManagerAllocationTest, SessionTheTableCannotTakeGivesItsBufferBack) {
    manager->allocations_before_failure = GetParam();

    feed_start();

    expect_session_refused();
    expect_next_start_recorded();
}

}  // namespace
}  // namespace qm::writer
