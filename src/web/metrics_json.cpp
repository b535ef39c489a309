#include "web/metrics_json.hpp"

#include <cstdlib>
#include <sstream>
#include <string>

namespace qm::web {

nlohmann::json metrics_json(std::string_view text) {
    nlohmann::json values = nlohmann::json::object();
    std::istringstream lines{std::string(text)};
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t blank = line.rfind(' ');
        if (line.empty() || line[0] == '#' || blank == std::string::npos || blank == 0) {
            continue;
        }
        const std::string value = line.substr(blank + 1);
        char* end = nullptr;
        const double number = std::strtod(value.c_str(), &end);
        if (value.empty() || *end != '\0') {
            continue;
        }
        const std::string name = line.substr(0, blank);
        // Counters are integers: keep them exact rather than as doubles.
        if (value.find_first_not_of("0123456789") == std::string::npos) {
            values[name] = std::stoull(value);
        } else {
            values[name] = number;
        }
    }
    return values;
}

}  // namespace qm::web
