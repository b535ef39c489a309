#include "web/basic_auth.hpp"

#include <sodium.h>

#include <vector>

namespace qm::web {

std::optional<Credentials> basic_credentials(std::string_view header) {
    constexpr std::string_view SCHEME = "Basic ";
    if (!header.starts_with(SCHEME)) {
        return std::nullopt;
    }
    const std::string_view encoded = header.substr(SCHEME.size());
    std::vector<unsigned char> decoded(encoded.size() / 4 * 3 + 3);
    std::size_t length = 0;
    if (sodium_base642bin(decoded.data(), decoded.size(), encoded.data(), encoded.size(), nullptr,
                          &length, nullptr, sodium_base64_VARIANT_ORIGINAL) != 0) {
        return std::nullopt;
    }
    const std::string text(decoded.begin(), decoded.begin() + static_cast<std::ptrdiff_t>(length));
    sodium_memzero(decoded.data(), decoded.size());
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        return std::nullopt;
    }
    return Credentials{text.substr(0, colon), text.substr(colon + 1)};
}

}  // namespace qm::web
