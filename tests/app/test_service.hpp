#pragma once

#include <signal.h>

#include <string>
#include <vector>

#include "app/configured_service.hpp"
#include "conf/configuration.hpp"
#include "conf/port_extension.hpp"
#include "log/logger.hpp"

namespace qm::app::test {

// A configuration with one key ("port") that counts its live objects, so that tests can see the
// frame release a configuration that failed to load.
class TestConfiguration : public conf::PortExtension<conf::Configuration> {
public:
    TestConfiguration() { ++m_alive; }
    ~TestConfiguration() override { --m_alive; }

    static inline int m_alive = 0;
};

// A service on the real frame whose hooks log a "TEST: <hook>" line, so that a test sees the
// order of phases in the captured log. Its logger hooks leave the installed sink alone (the
// test's capture); the frame's own logger hooks are tested on their own.
class TestService : public Service<TestConfiguration, false> {
public:
    explicit TestService(std::uint64_t service_capabilities = 0) {
        capabilities = service_capabilities;
        module_name = "test";
        service_name = "quillmar" + module_name;
        config_path = "/nonexistent/quillmar/test.conf";
    }

    using Service::configuration;
    using ServiceBase::config_args;
    using ServiceBase::config_path;
    using ServiceBase::daemon_mode;
    using ServiceBase::exec_path;
    using ServiceBase::pid_file;
    using ServiceBase::running;

    bool on_start_result = true;
    bool on_config_result = true;
    // Status of a nested `start` made from `on_start`, when `start_again` is set.
    bool start_again = false;
    int nested_status = -1;

protected:
    void help() override { QM_LOG_SYSTEM("TEST: help"); }
    void on_pre_start() override { QM_LOG_SYSTEM("TEST: on_pre_start"); }
    bool on_config() override {
        QM_LOG_SYSTEM("TEST: on_config");
        return on_config_result;
    }
    bool on_start() override {
        QM_LOG_SYSTEM("TEST: on_start");
        if (start_again) {
            char name[] = "prog";
            char* argv[] = {name, nullptr};
            nested_status = start(1, argv);
        }
        return on_start_result;
    }
    void on_logger_open() override { QM_LOG_SYSTEM("TEST: on_logger_open"); }
    void on_logger_close() override { QM_LOG_SYSTEM("TEST: on_logger_close"); }
};

// argv for `start` and `pre_parse_args`, owning its strings.
class Argv {
public:
    explicit Argv(std::vector<std::string> arguments) : m_arguments(std::move(arguments)) {
        for (std::string& argument : m_arguments) {
            m_pointers.push_back(argument.data());
        }
        m_pointers.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(m_arguments.size()); }
    char** argv() { return m_pointers.data(); }

private:
    std::vector<std::string> m_arguments;
    std::vector<char*> m_pointers;
};

// `start` subscribes the process to signals; every test puts the default dispositions back.
inline void restore_default_signals() {
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE}) {
        ::signal(signal, SIG_DFL);
    }
}

}  // namespace qm::app::test
