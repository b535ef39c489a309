#include "web/page_routes.hpp"

#include "web/leg_request.hpp"
#include "web/page_assets.hpp"
#include "web/session_cookie.hpp"

namespace qm::web {
namespace {

// Everything from this server only. wavesurfer.js styles its waveform with a <style> element in a
// shadow root, which needs inline styles; scripts stay 'self' only.
constexpr const char* CONTENT_SECURITY_POLICY =
    "default-src 'self'; media-src 'self' blob:; img-src 'self' data:; "
    "style-src 'self' 'unsafe-inline'; frame-ancestors 'none'; form-action 'self'; "
    "base-uri 'none'";
constexpr std::string_view ASSETS = "/assets/";
constexpr std::string_view LEGS = "/legs/";
constexpr const char* SIGN_IN = "/signin";
constexpr const char* SIGN_OUT = "/signout";
// The sign-in forms are the only requests with a body, and a few hundred bytes: anything much
// longer is refused (413) before it is read, as anyone may post them.
constexpr std::size_t MAX_FORM_BYTES = 16 * 1024;
constexpr const char* WRONG = "Wrong name or password.";
constexpr const char* WAIT = "Too many failed sign-ins from this address: try again in a minute.";

void protect(httplib::Response& response) {
    response.set_header("Content-Security-Policy", CONTENT_SECURITY_POLICY);
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Referrer-Policy", "same-origin");
}

std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// `text` with its one "{{name}}" replaced by `value`. REQUIRES: the page holds it.
std::string filled(std::string text, std::string_view name, std::string_view value) {
    const std::string marker = "{{" + std::string(name) + "}}";
    const std::size_t at = text.find(marker);
    if (at != std::string::npos) {
        text.replace(at, marker.size(), value);
    }
    return text;
}

std::string embedded_text(std::string_view name) {
    const std::optional<PageAsset> asset = page_asset(name);
    return asset ? std::string(asset->bytes) : std::string();
}

// Where a sign-in leads: back to a page of this server, never elsewhere.
std::string page_to_return_to(const std::string& wanted) {
    return PageRoutes::is_page(wanted) ? wanted : "/";
}

// Whether a form was posted by a page of this server. A browser names the page's origin in every
// POST; another site's page posting to ours (to sign a victim in as the attacker) is refused. A
// client that names no origin is not a browser following another site's page.
bool same_origin(const httplib::Request& request) {
    if (!request.has_header("Origin")) {
        return true;
    }
    const std::string origin = request.get_header_value("Origin");
    const std::size_t scheme = origin.find("://");
    return scheme != std::string::npos &&
           origin.compare(scheme + 3, std::string::npos, request.get_header_value("Host")) == 0;
}

void refuse_other_site(httplib::Response& response) {
    response.status = 403;
    response.set_content("forms are taken only from this server's own pages", "text/plain");
}

std::string form_value(const httplib::Params& form, const char* name) {
    const auto found = form.find(name);
    return found == form.end() ? std::string() : found->second;
}

}  // namespace

PageRoutes::PageRoutes(const std::optional<UsersFile>& users, SignInLimiter& limiter,
                       bool secure_cookies)
    : m_users(users), m_limiter(limiter), m_secure_cookies(secure_cookies) {}

bool PageRoutes::open_to_all(std::string_view path) {
    return path == SIGN_IN || path == SIGN_OUT || path.starts_with(ASSETS);
}

bool PageRoutes::is_page(std::string_view path) {
    return path == "/" || (path.starts_with(LEGS) && is_leg_uuid(path.substr(LEGS.size())));
}

bool PageRoutes::takes_post(std::string_view path) {
    return path == SIGN_IN || path == SIGN_OUT;
}

bool PageRoutes::from_page(const httplib::Request& request) {
    return request.has_header("X-Requested-With") ||
           session_token(request.get_header_value("Cookie")).has_value();
}

void PageRoutes::send_to_sign_in(const httplib::Request& request, httplib::Response& response) {
    std::string target = SIGN_IN;
    if (request.path != "/") {
        // A page's path is "/legs/" and a uuid: nothing in it needs encoding in a query.
        target += "?next=" + request.path;
    }
    response.set_redirect(target, 303);
}

std::optional<std::string> PageRoutes::session_user(const httplib::Request& request) {
    const std::optional<std::string> token = session_token(request.get_header_value("Cookie"));
    if (!token) {
        return std::nullopt;
    }
    return m_sessions.user(*token, SessionStore::Clock::now());
}

void PageRoutes::show_page(httplib::Response& response,
                           const std::optional<std::string>& user) const {
    // Without users (--no-auth) there is no one to sign out.
    const std::string account =
        user ? "<span class=\"user\">" + escaped(*user) +
                   "</span><form method=\"post\" action=\"/signout\"><button type=\"submit\" "
                   "id=\"signout\">Sign out</button></form>"
             : std::string();
    protect(response);
    response.set_header("Cache-Control", "no-store");
    response.set_content(filled(embedded_text("index.html"), "account", account),
                         "text/html; charset=utf-8");
}

void PageRoutes::show_sign_in(httplib::Response& response, int status, std::string_view message,
                              std::string_view next) const {
    std::string page =
        filled(embedded_text("signin.html"), "message",
               message.empty() ? std::string()
                               : "<p class=\"error\" id=\"message\">" + escaped(message) + "</p>");
    response.status = status;
    protect(response);
    response.set_header("Cache-Control", "no-store");
    response.set_content(filled(std::move(page), "next", escaped(next)),
                         "text/html; charset=utf-8");
}

void PageRoutes::sign_in(const httplib::Request& request, httplib::Response& response) {
    httplib::Params form;
    httplib::detail::parse_query_text(request.body, form);
    const std::string next = page_to_return_to(form_value(form, "next"));
    const SignInLimiter::Clock::time_point now = SignInLimiter::Clock::now();
    if (!m_limiter.allowed(request.remote_addr, now)) {
        show_sign_in(response, 429, WAIT, next);
        return;
    }
    const std::string name = form_value(form, "name");
    if (!m_users->verify(name, form_value(form, "password"))) {
        m_limiter.failed(request.remote_addr, now);
        show_sign_in(response, 401, WRONG, next);
        return;
    }
    m_limiter.succeeded(request.remote_addr);
    const std::string token = m_sessions.open(name, SessionStore::Clock::now());
    response.set_header("Set-Cookie", session_cookie(token, m_secure_cookies));
    response.set_redirect(next, 303);
}

void PageRoutes::sign_out(const httplib::Request& request, httplib::Response& response) {
    const std::optional<std::string> token = session_token(request.get_header_value("Cookie"));
    if (token) {
        m_sessions.close(*token);
    }
    response.set_header("Set-Cookie", expired_session_cookie(m_secure_cookies));
    response.set_redirect(m_users ? SIGN_IN : "/", 303);
}

void PageRoutes::add(httplib::Server& server) {
    server.set_payload_max_length(MAX_FORM_BYTES);
    const auto page = [this](const httplib::Request& request, httplib::Response& response) {
        show_page(response, session_user(request));
    };
    server.Get("/", page);
    server.Get(R"(/legs/([0-9a-f-]{36}))", page);
    server.Get(
        R"(/assets/([^/]+))", [](const httplib::Request& request, httplib::Response& response) {
            const std::optional<PageAsset> asset = page_asset(std::string(request.matches[1]));
            if (!asset || asset->content_type.starts_with("text/html")) {
                response.status = 404;
                return;
            }
            protect(response);
            response.set_content(std::string(asset->bytes), std::string(asset->content_type));
        });
    server.Get(SIGN_IN, [this](const httplib::Request& request, httplib::Response& response) {
        if (!m_users) {
            response.set_redirect("/", 303);
            return;
        }
        show_sign_in(response, 200, "", page_to_return_to(request.get_param_value("next")));
    });
    server.Post(SIGN_IN, [this](const httplib::Request& request, httplib::Response& response) {
        if (!same_origin(request)) {
            refuse_other_site(response);
            return;
        }
        if (!m_users) {
            response.set_redirect("/", 303);
            return;
        }
        sign_in(request, response);
    });
    server.Post(SIGN_OUT, [this](const httplib::Request& request, httplib::Response& response) {
        if (!same_origin(request)) {
            refuse_other_site(response);
            return;
        }
        sign_out(request, response);
    });
}

}  // namespace qm::web
