#include "core/thread.hpp"

#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "log/logger.hpp"

namespace qm {

Thread::~Thread() {
    request_stop();
    // A destructor has nobody to report to, and pthread_join fails only for a thread that cannot
    // be joined, which `m_joinable` rules out.
    (void)join();
}

int Thread::start() {
    if (m_joinable) {
        return EBUSY;
    }
    // Relaxed: pthread_create orders this store before everything the new thread does.
    m_running.store(true, std::memory_order_relaxed);
    // A new thread inherits its creator's mask, so it is created while every signal is blocked.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    const int result = pthread_create(&m_handle, nullptr, &Thread::entry, this);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (result != 0) {
        m_running.store(false, std::memory_order_relaxed);
        return result;
    }
    m_joinable = true;
    return 0;
}

int Thread::stop() {
    request_stop();
    return join();
}

int Thread::join() {
    if (!m_joinable) {
        return 0;
    }
    m_joinable = false;
    return pthread_join(m_handle, nullptr);
}

void* Thread::entry(void* self) {
    auto* thread = static_cast<Thread*>(self);
    // A name only helps an operator tell the threads apart; a refused one changes nothing else.
    static_cast<void>(pthread_setname_np(pthread_self(), thread->m_name));
    thread->run();
    return nullptr;
}

void log_thread_started(const char* component, const char* file, int line) {
    log::emit(file, line,
              log::SystemMessage() << component << ": thread [" << ::gettid() << "] started");
}

int log_thread_stopped(const char* component, int result, const char* file, int line) {
    if (result == 0) {
        log::emit(file, line,
                  log::SystemMessage() << component << ": thread [" << ::gettid() << "] stopped");
    } else {
        log::emit(file, line,
                  log::WarningMessage() << component << ": thread [" << ::gettid()
                                        << "] stopped with error (" << result << ")");
    }
    return result;
}

}  // namespace qm
