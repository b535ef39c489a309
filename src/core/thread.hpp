#pragma once

#include <pthread.h>

#include <atomic>

namespace qm {

// Base of every worker thread: one POSIX thread that runs the virtual `run` while the running
// flag is set. A subclass's `run` checks `is_running()` and returns once it is cleared.
//
// Every thread starts with all signals blocked, whoever starts it: the kernel then delivers the
// process's signals to the main thread, whose receive loop waits for them (see ServiceBase), and
// no signal handler ever runs on a worker.
//
// Threads: the owning thread (the one that constructs the object) calls `start`, `stop` and the
// destructor; the worker thread only reads the running flag. `stop` must be called before the
// subclass is destroyed, because `run` uses the subclass's members.
class Thread {
public:
    Thread() = default;
    // A thread still running here is stopped and joined, so that it never outlives the memory it
    // runs on; owners call `stop` themselves, before their own members go.
    virtual ~Thread();

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // The thread body, run on the new thread.
    virtual void run() = 0;

    // Sets the running flag and creates the thread with default attributes and every signal
    // blocked; the caller's own signal mask is left as it was. Returns the result of
    // pthread_create (0 on success; the flag is cleared again on failure), or EBUSY when a thread
    // was started and not yet stopped.
    [[nodiscard]] virtual int start();

    // Clears the running flag and joins the thread. Returns the result of pthread_join, or 0 when
    // no thread was started. Subclasses override it to log, and call this one.
    [[nodiscard]] virtual int stop();

    // The name the system shows for the thread (`ps -L`, `top -H`), at most 15 characters; set
    // before `start`. Threads that are given none are "qm-worker".
    void set_name(const char* name) { m_name = name; }

    // True between `start` and `stop`.
    bool is_running() const {
        // Acquire pairs with the release in `request_stop`: work handed over before `stop` (for
        // instance elements pushed to a queue) is visible to a thread that sees the flag cleared.
        return m_running.load(std::memory_order_acquire);
    }

protected:
    // The two halves of `stop`, for subclasses that must wake their thread in between.
    void request_stop() { m_running.store(false, std::memory_order_release); }
    [[nodiscard]] int join();

private:
    static void* entry(void* self);

    const char* m_name = "qm-worker";
    pthread_t m_handle{};
    // Whether m_handle holds a thread that has not been joined; owning thread only.
    bool m_joinable = false;
    std::atomic<bool> m_running{false};
};

// The start and stop lines every worker logs, "<component>: thread [<tid>] started" at SYSTEM,
// and "... stopped" at SYSTEM or "... stopped with error (<result>)" at WARNING after a failed
// join. `file` and `line` place the line in the log: the macros below pass the caller's own, so
// that each line still names the component's source file. `log_thread_stopped` returns `result`.
void log_thread_started(const char* component, const char* file, int line);
int log_thread_stopped(const char* component, int result, const char* file, int line);

}  // namespace qm

#define QM_LOG_THREAD_STARTED(component) \
    ::qm::log_thread_started(component, __FILE_NAME__, __LINE__)
#define QM_LOG_THREAD_STOPPED(component, result) \
    ::qm::log_thread_stopped(component, result, __FILE_NAME__, __LINE__)
