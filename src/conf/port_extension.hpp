#pragma once

#include <cstdint>
#include <sstream>
#include <string>

#include "utils/str.hpp"

// Adds the listening port key to a configuration. Threads and ownership are those of `Base`
// (qm::conf::Configuration): filled on the main thread at start-up, read-only afterwards.
// REQUIRES: `Base` derives from qm::conf::Configuration.
namespace qm::conf {

template <typename Base>
class PortExtension : public Base {
public:
    // "port": a decimal number up to 65535; 0 lets the system choose.
    std::uint16_t port = 0;

protected:
    [[nodiscard]] int set_value(const std::string& key, const std::string& value,
                                std::ostringstream& detail) override {
        if (key == "port") {
            return Base::to_status(
                utils::str::try_parse_value<unsigned short, 10>(value, port).succeeded());
        }
        return Base::set_value(key, value, detail);
    }
};

}  // namespace qm::conf
