#include "web/leg_request.hpp"

namespace qm::web {

bool is_leg_uuid(std::string_view text) {
    constexpr std::size_t LENGTH = 36;
    if (text.size() != LENGTH) {
        return false;
    }
    for (std::size_t i = 0; i < LENGTH; ++i) {
        const char c = text[i];
        const bool dash_place = i == 8 || i == 13 || i == 18 || i == 23;
        const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
        if (dash_place ? c != '-' : !hex) {
            return false;
        }
    }
    return true;
}

}  // namespace qm::web
