#include "web/worker_pool.hpp"

#include <stdexcept>
#include <string>
#include <utility>

#include "core/thread.hpp"

namespace qm::web {

class WorkerPool::Worker : public Thread {
public:
    explicit Worker(WorkerPool& pool) : m_pool(pool) { set_name("qm-http-worker"); }

    // Stopped by the pool's closing, not by the running flag: queued jobs still run.
    void run() override {
        while (std::function<void()> job = m_pool.take()) {
            job();
        }
    }

private:
    WorkerPool& m_pool;
};

WorkerPool::WorkerPool(std::size_t threads) {
    for (std::size_t i = 0; i < threads; ++i) {
        m_workers.push_back(std::make_unique<Worker>(*this));
        const int result = m_workers.back()->start();
        if (result != 0) {
            m_workers.pop_back();
            shutdown();
            throw std::runtime_error("cannot start an HTTP worker thread (error " +
                                     std::to_string(result) + ")");
        }
    }
}

WorkerPool::~WorkerPool() {
    shutdown();
}

void WorkerPool::enqueue(std::function<void()> job) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_closing) {
            return;
        }
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_one();
}

void WorkerPool::shutdown() {
    {
        const std::lock_guard lock(m_mutex);
        m_closing = true;
    }
    m_wake.notify_all();
    for (const std::unique_ptr<Worker>& worker : m_workers) {
        static_cast<void>(worker->stop());
    }
    m_workers.clear();
}

std::function<void()> WorkerPool::take() {
    std::unique_lock lock(m_mutex);
    m_wake.wait(lock, [this] { return m_closing || !m_jobs.empty(); });
    if (m_jobs.empty()) {
        return {};
    }
    std::function<void()> job = std::move(m_jobs.front());
    m_jobs.pop_front();
    return job;
}

}  // namespace qm::web
