#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

// The recorder's metrics file (Prometheus' text format, "NAME VALUE" lines and "#" comments) as
// one JSON object {NAME: VALUE}. Plain function; any thread.

namespace qm::web {

// Lines that are not "NAME VALUE" with a numeric value are left out; a name with labels keeps
// them ("name{side=\"0\"}").
nlohmann::json metrics_json(std::string_view text);

}  // namespace qm::web
