#include "tools/stop_signals.hpp"

#include <pthread.h>

namespace qm::tools {

sigset_t block_stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    return signals;
}

}  // namespace qm::tools
