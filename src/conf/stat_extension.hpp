#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "conf/configuration.hpp"
#include "net/net_address.hpp"

// Adds the statistics keys to a configuration. Threads and ownership are those of `Base`
// (qm::conf::Configuration): filled on the main thread at start-up, read-only afterwards.
// REQUIRES: `Base` derives from qm::conf::Configuration.
namespace qm::conf {

template <typename Base>
class StatExtension : public Base {
public:
    // "statistic_logging_enabled": "true" or "false"; the statistics report goes to the log.
    bool statistic_logging_enabled = true;
    // "statistic_transfer_enabled": "true" or "false"; also switched on by the host key.
    bool statistic_transfer_enabled = false;
    // "statistic_transfer_host": a host list ("host:port", see qm::net::parse_hosts), of which
    // the first entry is kept.
    std::string statistic_transfer_host;
    std::uint16_t statistic_transfer_port = 0;

protected:
    [[nodiscard]] int set_value(const std::string& key, const std::string& value,
                                std::ostringstream& detail) override {
        if (key == "statistic_logging_enabled") {
            return Base::to_status(try_parse_bool(value, statistic_logging_enabled));
        }
        if (key == "statistic_transfer_enabled") {
            return Base::to_status(try_parse_bool(value, statistic_transfer_enabled));
        }
        if (key == "statistic_transfer_host") {
            return Base::to_status(set_transfer_host(value));
        }
        return Base::set_value(key, value, detail);
    }

private:
    [[nodiscard]] bool set_transfer_host(const std::string& value) {
        std::vector<net::Host> hosts;
        if (net::parse_hosts(value, hosts) == 0) {
            return false;
        }
        statistic_transfer_host = hosts.front().host;
        statistic_transfer_port = hosts.front().port;
        // Naming a destination is asking for the transfer; a later "false" still wins.
        statistic_transfer_enabled = true;
        return true;
    }
};

}  // namespace qm::conf
