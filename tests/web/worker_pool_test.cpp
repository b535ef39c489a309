// The HTTP server's workers: every job runs, on a thread named "qm-http-worker" with every signal
// blocked, and shutdown runs what is queued before it joins.

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>

#include "web/worker_pool.hpp"

namespace qm::web {
namespace {

TEST(WorkerPoolTest, JobsRunOnNamedThreadsWithSignalsBlocked) {
    std::mutex mutex;
    std::set<std::string> names;
    std::atomic<int> unblocked{0};
    std::atomic<int> ran{0};
    {
        WorkerPool pool(3);
        for (int i = 0; i < 50; ++i) {
            pool.enqueue([&] {
                char name[16] = {};
                pthread_getname_np(pthread_self(), name, sizeof name);
                sigset_t mask;
                pthread_sigmask(SIG_BLOCK, nullptr, &mask);
                if (sigismember(&mask, SIGTERM) != 1 || sigismember(&mask, SIGINT) != 1) {
                    unblocked.fetch_add(1, std::memory_order_relaxed);
                }
                {
                    const std::lock_guard lock(mutex);
                    names.insert(name);
                }
                ran.fetch_add(1, std::memory_order_relaxed);
            });
        }
        pool.shutdown();
        // Dropped once shut down.
        pool.enqueue([&] { ran.fetch_add(1000, std::memory_order_relaxed); });
    }
    EXPECT_EQ(ran.load(), 50);
    EXPECT_EQ(unblocked.load(), 0);
    EXPECT_EQ(names, (std::set<std::string>{"qm-http-worker"}));
}

}  // namespace
}  // namespace qm::web
