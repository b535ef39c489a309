#pragma once

#include <fstream>

#include "app/app_service.hpp"
#include "core/rc_ptr.hpp"

namespace qm::app {

// A service frame that loads a configuration of type `ConfigurationT` before the service starts:
// the file at `config_path` (the defaults when it cannot be opened), then the "--args"
// assignments, which therefore override the file. `Flag` is a compile-time switch of the frame's
// family of services; nothing in this frame depends on it and the recorder passes false.
//
// Threads: created and used on the main thread. The loaded configuration is never changed after
// `do_start`; the concrete service shares it read-only with its threads through `rc_ptr`.
//
// REQUIRES: `ConfigurationT` derives from qm::conf::Configuration and is default-constructible
// with its defaults.
template <typename ConfigurationT, bool Flag>
class Service : public ServiceBase {
protected:
    // The frame prints no help text of its own.
    void help() override {}

    [[nodiscard]] bool do_start() override {
        rc_ptr<ConfigurationT> loaded = new ConfigurationT();
        if (!loaded->parse_file(readable_config_path())) {
            return false;
        }
        if (!config_args.empty() && !loaded->parse_args(config_args)) {
            return false;
        }
        configuration = std::move(loaded);
        return on_config();
    }

    // Runs once the configuration is loaded; false ends the process with status 1.
    [[nodiscard]] virtual bool on_config() { return true; }

    // Null until `do_start` succeeds.
    rc_ptr<ConfigurationT> configuration;

private:
    // `config_path` when the file can be opened for reading, otherwise empty, which the parser
    // takes as "use the defaults".
    std::string readable_config_path() const {
        const std::ifstream probe(config_path);
        return probe.is_open() ? config_path : std::string();
    }
};

}  // namespace qm::app
