#pragma once

#include <optional>
#include <string>
#include <string_view>

// The cookie that carries a browser's session token (SessionStore): its Set-Cookie values and its
// value read back from a request's Cookie header. Plain functions; any thread.

namespace qm::web {

inline constexpr std::string_view SESSION_COOKIE = "quillmar_session";

// "quillmar_session=TOKEN; HttpOnly; SameSite=Strict; Path=/", and "; Secure" when the server
// answers over TLS: scripts cannot read it, other sites' pages cannot send it, and with TLS it
// never travels in clear.
std::string session_cookie(std::string_view token, bool secure);

// The same cookie emptied and expired, which makes the browser forget it.
std::string expired_session_cookie(bool secure);

// The value of the session cookie in a Cookie header ("a=1; quillmar_session=...; b=2"); none
// when the header has no such cookie or its value is empty.
std::optional<std::string> session_token(std::string_view cookie_header);

}  // namespace qm::web
