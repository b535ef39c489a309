#pragma once

#include <optional>
#include <string>
#include <string_view>

// The credentials of an HTTP Basic "Authorization" header: "Basic " and the base64 of
// "name:password". Pure; any thread.

namespace qm::web {

struct Credentials {
    std::string name;
    std::string password;
};

// The name and password the header carries; none when it is not Basic, not base64 or has no ':'.
std::optional<Credentials> basic_credentials(std::string_view header);

}  // namespace qm::web
