#pragma once

#include <httplib.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

// The threads that answer the HTTP server's connections, in place of the library's own pool so
// that they are this program's threads: started with every signal blocked and named
// "qm-http-worker". Jobs run in the order they come, each on whichever worker is free.
//
// Threads: the library calls enqueue() from its listening thread and shutdown() once, from that
// thread, when it stops; the workers take jobs under the pool's mutex (one per connection, not
// per packet).

namespace qm::web {

class WorkerPool : public httplib::TaskQueue {
public:
    // Starts `threads` workers. THROWS: std::runtime_error when a thread cannot be started.
    explicit WorkerPool(std::size_t threads);
    // Shuts down if shutdown() was not called.
    ~WorkerPool() override;

    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void enqueue(std::function<void()> job) override;

    // Runs the jobs already queued, then joins every worker; enqueue() after it drops the job.
    void shutdown() override;

private:
    class Worker;

    // The next job; an empty one once the pool is closing and no job is left.
    std::function<void()> take();

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_jobs;
    bool m_closing = false;
    std::vector<std::unique_ptr<Worker>> m_workers;
};

}  // namespace qm::web
