#pragma once

#include <signal.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace qm::app {

// The generic frame of a service process: it reads the command line, chooses the log sink, turns
// the process into a daemon when asked, subscribes to the signals and runs the concrete service's
// hooks. `main` owns one object of a concrete service on its stack and returns what `start`
// returns as the exit status.
//
// Threads: the object is created by the main thread, and `start` and every hook run on it; the
// fields are written only there. The static signal flags are the exception: the signal handler
// writes them on whichever thread receives a signal, the main loop reads them.
//
// Signals. A handler may interrupt the main thread anywhere, also inside the logger while it holds
// the system log's lock, the heap's or standard error's: a handler that logged itself could wait
// for ever on a lock its own thread holds. So `signals_handler` is async-signal-safe and does
// three things only: it counts the signal, sets the signal's flag (lock-free atomics) and rings
// the doorbell, an eventfd, with write(2). Its lines ("SERVICE: signal N has been received" and
// the request line) are logged later by the main thread, in `log_pending_signals`, at its safe
// points: after start-up phases, after every wait of the receive loop, and before it stops. The
// doorbell makes the wait for a datagram and the wait for a stop one wait: the receive loop polls
// the socket and the doorbell together, so a stop that lands after the loop looked at its flag
// and before it blocks still ends the wait at once. Every other thread runs with all signals
// blocked (`qm::Thread` starts them so), so the kernel delivers the process's signals to the main
// thread.
//
// REQUIRES: `start` is called once per process (a nested call returns 10 and does nothing).
class ServiceBase {
public:
    using Arguments = std::vector<std::string>;
    using ArgumentIterator = Arguments::iterator;

    // Bit of `capabilities`: the service can run as a daemon.
    static constexpr std::uint64_t CAPABILITY_DAEMON = 1;

    // Exit statuses of `start`.
    static constexpr int STATUS_OK = 0;
    static constexpr int STATUS_FAILURE = 1;
    static constexpr int STATUS_ALREADY_RUNNING = 10;

    // The options of the frame's command line ("--help", "--daemon", ...).
    enum class Option { HELP, DAEMON, CONFIG, PID_FILE, PID_FILE_DEFAULT, ARGS };

    // Results of `parse_args`; any other value stops the service as well.
    static constexpr int PARSE_CONTINUE = 0;
    static constexpr int PARSE_HELP = 1;
    static constexpr int PARSE_UNKNOWN = -1;
    static constexpr int PARSE_MISSING_VALUE = -2;

    ServiceBase() = default;
    virtual ~ServiceBase() = default;

    ServiceBase(const ServiceBase&) = delete;
    ServiceBase& operator=(const ServiceBase&) = delete;

    // The whole life of the service; returns the process exit status (0, 1 or 10).
    [[nodiscard]] int start(int argc, char** argv);

    // Sets `exec_path` from argv[0] and returns the arguments after it that `parse_args` must
    // see; "--daemon"/"-d" set `daemon_mode` here already (when the service supports it).
    // REQUIRES: argc >= 1 and argv[0] is set.
    Arguments pre_parse_args(int argc, char** argv);

    // Applies the frame's options: 0 go on, 1 help requested, anything else stop with status 1.
    [[nodiscard]] int parse_args(Arguments& args);

    // Adds a comma-separated list of key=value assignments to `config_args`; without `append` the
    // value goes in front of what is there.
    void push_config_args(const std::string& value, bool append);

    // Clears the flags and the signals not yet logged, creates the doorbell (once per process),
    // ignores SIGPIPE and installs `signals_handler` for SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1
    // and SIGUSR2, without SA_RESTART, so that a signal also interrupts a blocking call. False,
    // after an ERROR line, when the doorbell cannot be created or a disposition cannot be set; the
    // dispositions set before the failure stay.
    [[nodiscard]] static bool signals_subscribe();

    // Runs in signal context: counts `signal`, sets its flag and rings the doorbell. It takes no
    // lock, allocates nothing, calls nothing but write(2) and keeps errno as it found it.
    static void signals_handler(int signal, siginfo_t* info, void* context);

    // Logs the lines of every signal received since the last call: "SERVICE: signal N has been
    // received" and the request line of its kind, for each signal, stop signals last. Empties the
    // doorbell first, so a signal that arrives meanwhile rings it again. Never call it from signal
    // context.
    static void log_pending_signals();

    // A descriptor that becomes readable when a signal has arrived and stays so until
    // `log_pending_signals` runs; -1 before the first `signals_subscribe`.
    static int signal_doorbell();

    // True once SIGINT, SIGQUIT or SIGTERM has been received.
    static bool stop_requested() { return m_signal_stop.load(std::memory_order_relaxed) != 0; }

    // Set to 1 by SIGINT, SIGQUIT and SIGTERM; the main loop ends when it sees it. Relaxed: it is
    // a request, no data is published through it.
    static std::atomic<std::int32_t> m_signal_stop;
    // Set by SIGHUP, SIGUSR1 and SIGUSR2; only reported. Relaxed for the same reason.
    static std::atomic<bool> m_signal_update;
    static std::atomic<bool> m_signal_user1;
    static std::atomic<bool> m_signal_user2;

protected:
    // Runs after the start-up lines and before the daemon switch.
    virtual void on_pre_start() {}
    // The service's work; false ends the process with status 1.
    [[nodiscard]] virtual bool on_start() { return true; }
    // Runs when "--help"/"-h" is given, then the process exits with 0.
    virtual void help() = 0;
    // Builds what `on_start` needs (the configuration); false ends the process with status 1.
    [[nodiscard]] virtual bool do_start() = 0;
    // An argument the frame does not know. `current` points at it; the override leaves it at the
    // last argument it consumed (never at `end`) and returns 0 to go on, anything else to stop.
    // The frame's own answer is -1: unknown, stop without a message.
    [[nodiscard]] virtual int parse_arg(ArgumentIterator& current, ArgumentIterator end);
    // Sees each argument before the command line is parsed; true drops the argument. `argc` and
    // `argv` describe the arguments after `arg`: an override that consumes some of them advances
    // `argv` and lowers `argc`. The frame's own answer is false: keep it.
    [[nodiscard]] virtual bool pre_parse_arg(const std::string& arg, int& argc, char**& argv);
    // Installs the standard-error sink, or the system-log sink in daemon mode.
    virtual void on_logger_open();
    // Closes the sink and installs the discarding one.
    virtual void on_logger_close();

    bool supports_daemon_mode() const { return (capabilities & CAPABILITY_DAEMON) != 0; }

    std::uint64_t capabilities = 0;
    std::string exec_path;
    std::string config_args;
    std::string config_path;
    // Guards `start` against re-entry. Compare-and-swap on entry; the store on exit is followed by
    // a full fence (the process is about to end and nothing else synchronises with it).
    std::atomic<bool> running{false};
    std::string module_name;
    std::string service_name;
    std::string pid_file;
    bool daemonized = false;
    bool daemon_mode = false;

private:
    // Applies one option of the table; `typed` is the option as given, `value` its argument (empty
    // for options without one). Returns a `parse_args` result.
    [[nodiscard]] int apply_option(Option option, const std::string& typed,
                                   const std::string& value);
    void log_start_up(int argc, char** argv) const;
    // The end of every `start` past the command line: closes the sink, allows the next `start`
    // and returns `status`.
    [[nodiscard]] int finish(int status);
    void switch_to_daemon();
};

}  // namespace qm::app
