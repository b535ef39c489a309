#pragma once

#include <sstream>
#include <string>

#include "log/level.hpp"

// Adds the log threshold key to a configuration. Threads and ownership are those of `Base`
// (qm::conf::Configuration): filled on the main thread at start-up, read-only afterwards.
// REQUIRES: `Base` derives from qm::conf::Configuration.
namespace qm::conf {

// The class name is spelled this way on purpose: it is the name the rest of the code base knows.
template <typename Base>
class LogExtenstion : public Base {
public:
    // "log_level": one of the six level names. SYSTEM parses here and is refused when the recorder
    // starts.
    log::Level log_level = log::Level::INFO;

protected:
    [[nodiscard]] int set_value(const std::string& key, const std::string& value,
                                std::ostringstream& detail) override {
        if (key == "log_level") {
            return Base::to_status(log::try_parse_level(value, log_level));
        }
        return Base::set_value(key, value, detail);
    }
};

}  // namespace qm::conf
