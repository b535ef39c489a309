#pragma once

#include <signal.h>

// The long-running subcommands (serve, archive) end on SIGINT or SIGTERM, taken by their main
// thread with sigwait(): no handler runs, so nothing needs to be async-signal-safe.

namespace qm::tools {

// Blocks SIGINT and SIGTERM on the calling thread, before it starts any other, so that every
// thread inherits the mask and the signals wait for sigwait(); returns the set. Also ignores
// SIGPIPE: a client or a store that closes a TLS connection fails that write, not the process.
sigset_t block_stop_signals();

}  // namespace qm::tools
