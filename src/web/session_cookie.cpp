#include "web/session_cookie.hpp"

namespace qm::web {
namespace {

constexpr std::string_view ATTRIBUTES = "; HttpOnly; SameSite=Strict; Path=/";

std::string with_attributes(std::string_view value, bool secure, std::string_view extra) {
    std::string cookie(SESSION_COOKIE);
    cookie += '=';
    cookie += value;
    cookie += ATTRIBUTES;
    cookie += extra;
    if (secure) {
        cookie += "; Secure";
    }
    return cookie;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && text.back() == ' ') {
        text.remove_suffix(1);
    }
    return text;
}

}  // namespace

std::string session_cookie(std::string_view token, bool secure) {
    return with_attributes(token, secure, "");
}

std::string expired_session_cookie(bool secure) {
    return with_attributes("", secure, "; Max-Age=0");
}

std::optional<std::string> session_token(std::string_view cookie_header) {
    while (!cookie_header.empty()) {
        const std::size_t end = cookie_header.find(';');
        const std::string_view pair = trimmed(cookie_header.substr(0, end));
        cookie_header =
            end == std::string_view::npos ? std::string_view{} : cookie_header.substr(end + 1);
        const std::size_t equals = pair.find('=');
        if (equals != std::string_view::npos && pair.substr(0, equals) == SESSION_COOKIE &&
            equals + 1 < pair.size()) {
            return std::string(pair.substr(equals + 1));
        }
    }
    return std::nullopt;
}

}  // namespace qm::web
