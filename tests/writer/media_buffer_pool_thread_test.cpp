#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "core/queue.hpp"
#include "core/rc_ptr.hpp"
#include "media/packet_header.hpp"
#include "media/session.hpp"
#include "writer/media_buffer_pool.hpp"

namespace qm::writer {
namespace {

using Clock = std::chrono::steady_clock;

// A session that counts its destructions.
class TrackedSession : public media::Session {
public:
    explicit TrackedSession(int& destroyed)
        : Session(ZOMBIE, media::PacketHeader{}, 0), m_destroyed(destroyed) {}
    ~TrackedSession() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

// The recorder's pattern with nothing else in the way. This thread plays the session thread: it
// acquires a buffer, writes the round's number into it, names the session and hands it over
// through a ring, as the writing manager pushes to the media writer. A second thread plays the
// media writer: it checks what arrives and releases it. Both rings are first in, first out, so
// the buffers go round in slot order: round r gets the (r mod COUNT)-th slot. At the end every
// buffer is home, each was used the same number of times, and the counters hold exactly what
// happened: every empty acquire that this thread saw, and no release error.
TEST(MediaBufferPoolThreadTest, BuffersCycleBetweenTheAcquiringAndTheReleasingThread) {
    constexpr std::uint64_t COUNT = 8;
    constexpr std::uint64_t ROUNDS = 500'000;
    static_assert(ROUNDS % COUNT == 0);
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
    int destroyed = 0;
    const rc_ptr<media::Session> session = new TrackedSession(destroyed);
    {
        MediaBufferPoolStatistic statistic;
        MediaBufferPool pool(COUNT, 64, statistic);
        const std::uint64_t slot_size = pool.slot_size();
        DynamicQueue<MediaBuffer*, false> handed(COUNT);

        // Written by the releasing thread only, read after the join.
        std::vector<std::uint64_t> uses(COUNT, 0);
        std::uint64_t received = 0;
        std::uint64_t wrong_contents = 0;
        std::uint64_t wrong_slots = 0;
        std::uint64_t refused = 0;
        std::thread releaser([&] {
            std::uint8_t* first = nullptr;
            while (received < ROUNDS) {
                MediaBuffer* buffer = nullptr;
                if (!handed.try_pop(buffer)) {
                    if (Clock::now() > deadline) {
                        return;
                    }
                    std::this_thread::yield();
                    continue;
                }
                auto* slot = reinterpret_cast<std::uint8_t*>(buffer);
                if (first == nullptr) {
                    first = slot;
                }
                const std::uint64_t index = received % COUNT;
                wrong_slots += slot == first + index * slot_size ? 0 : 1;
                ++uses[index];
                std::uint64_t stamp = 0;
                std::memcpy(&stamp, buffer->data, sizeof stamp);
                const bool intact = buffer->size == sizeof stamp && stamp == received &&
                                    buffer->session.get() == session.get();
                wrong_contents += intact ? 0 : 1;
                refused += pool.release(buffer) ? 0 : 1;
                ++received;
            }
        });

        std::uint64_t empty_acquires = 0;
        std::uint64_t wrong_order = 0;
        std::uint8_t* first = nullptr;
        std::uint64_t round = 0;
        while (round < ROUNDS && Clock::now() < deadline) {
            MediaBuffer* buffer = pool.acquire();
            if (buffer == nullptr) {
                ++empty_acquires;
                std::this_thread::yield();
                continue;
            }
            auto* slot = reinterpret_cast<std::uint8_t*>(buffer);
            if (first == nullptr) {
                first = slot;
            }
            wrong_order += slot == first + (round % COUNT) * slot_size ? 0 : 1;
            std::memcpy(buffer->data, &round, sizeof round);
            buffer->size = sizeof round;
            buffer->session = session;
            while (!handed.push(buffer) && Clock::now() < deadline) {
                std::this_thread::yield();
            }
            ++round;
        }
        releaser.join();

        ASSERT_EQ(round, ROUNDS) << "the acquiring side ran out of time";
        ASSERT_EQ(received, ROUNDS) << "the releasing side ran out of time";
        EXPECT_EQ(wrong_order, 0u);
        EXPECT_EQ(wrong_slots, 0u);
        EXPECT_EQ(wrong_contents, 0u);
        EXPECT_EQ(refused, 0u);
        EXPECT_EQ(uses, std::vector<std::uint64_t>(COUNT, ROUNDS / COUNT));
        EXPECT_EQ(pool.free_count(), COUNT);
        EXPECT_EQ(statistic.buffer_pool_elements.load(), COUNT);
        EXPECT_EQ(statistic.buffer_pool_acquire_errors.load(), empty_acquires);
        EXPECT_EQ(statistic.buffer_pool_release_errors.load(), 0u);
        // Every header names the session once more; nothing else holds it.
        EXPECT_EQ(session->reference_count(), static_cast<std::int32_t>(COUNT + 1));
    }
    // The pool's references went with it.
    EXPECT_EQ(session->reference_count(), 1);
    EXPECT_EQ(destroyed, 0);
}

// The same two threads, but the acquiring one gives every third buffer back itself instead of
// handing it over, as the writing manager does with a buffer the media writer's queue refuses.
// The stash is that thread's alone while the other keeps releasing into the ring: at the end
// every buffer is home once, counted in both the pool's count and its statistic.
TEST(MediaBufferPoolThreadTest, GivingBackOnOneThreadWhileTheOtherReleasesLosesNoBuffer) {
    constexpr std::uint64_t COUNT = 8;
    constexpr std::uint64_t ROUNDS = 300'000;
    constexpr std::uint64_t HANDED = ROUNDS - ROUNDS / 3;
    static_assert(ROUNDS % 3 == 0);
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(60);
    MediaBufferPoolStatistic statistic;
    MediaBufferPool pool(COUNT, 64, statistic);
    DynamicQueue<MediaBuffer*, false> handed(COUNT);

    // Written by the releasing thread only, read after the join.
    std::uint64_t received = 0;
    std::uint64_t wrong_contents = 0;
    std::uint64_t refused = 0;
    std::thread releaser([&] {
        while (received < HANDED) {
            MediaBuffer* buffer = nullptr;
            if (!handed.try_pop(buffer)) {
                if (Clock::now() > deadline) {
                    return;
                }
                std::this_thread::yield();
                continue;
            }
            std::uint64_t stamp = 0;
            std::memcpy(&stamp, buffer->data, sizeof stamp);
            wrong_contents += buffer->size == sizeof stamp && stamp % 3 != 0 ? 0 : 1;
            refused += pool.release(buffer) ? 0 : 1;
            ++received;
        }
    });

    std::uint64_t empty_acquires = 0;
    std::uint64_t given_back = 0;
    std::uint64_t round = 0;
    while (round < ROUNDS && Clock::now() < deadline) {
        MediaBuffer* buffer = pool.acquire();
        if (buffer == nullptr) {
            ++empty_acquires;
            std::this_thread::yield();
            continue;
        }
        std::memcpy(buffer->data, &round, sizeof round);
        buffer->size = sizeof round;
        if (round % 3 == 0) {
            given_back += pool.give_back(buffer) && buffer->size == 0 ? 1 : 0;
        } else {
            while (!handed.push(buffer) && Clock::now() < deadline) {
                std::this_thread::yield();
            }
        }
        ++round;
    }
    releaser.join();

    ASSERT_EQ(round, ROUNDS) << "the acquiring side ran out of time";
    ASSERT_EQ(received, HANDED) << "the releasing side ran out of time";
    EXPECT_EQ(given_back, ROUNDS / 3);
    EXPECT_EQ(wrong_contents, 0u);
    EXPECT_EQ(refused, 0u);
    EXPECT_EQ(pool.free_count(), COUNT);
    EXPECT_EQ(statistic.buffer_pool_elements.load(), COUNT);
    EXPECT_EQ(statistic.buffer_pool_acquire_errors.load(), empty_acquires);
    EXPECT_EQ(statistic.buffer_pool_release_errors.load(), 0u);
}

}  // namespace
}  // namespace qm::writer
