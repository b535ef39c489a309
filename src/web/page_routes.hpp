#pragma once

#include <httplib.h>

#include <optional>
#include <string>
#include <string_view>

#include "web/session_store.hpp"
#include "web/sign_in_limiter.hpp"
#include "web/users_file.hpp"

// The browser's side of `quillmar serve`: the pages and their files, and the sign-in by form.
//   GET  /                 the search page
//   GET  /legs/UUID        a leg's page (both are the same page; its script reads the path)
//   GET  /assets/NAME      the page's style, script and waveform library (PageAssets), to anyone:
//                          they are the same for everyone and hold no recording
//   GET  /signin           the form; POST /signin checks it against the users file and the
//                          sign-in limiter as Basic does, and on success sets the session cookie
//   POST /signout          ends the session and expires the cookie
// A form posted from another site's page (its Origin is not this server) is refused with 403.
// Pages and assets carry a Content-Security-Policy that lets them load only from this server.
//
// Who may look is decided by the server's pre-routing check (ApiServer), which asks this class
// for the user of a request's session and sends page requests without one to the sign-in form.
//
// Threads: construct and add() on one thread before the server answers; then every member may be
// called from any worker at once.

namespace qm::web {

class PageRoutes {
public:
    // `users` none: nobody signs in (--no-auth) and the sign-in routes lead to the start page.
    // `secure_cookies`: the server answers over TLS, so the cookie carries Secure.
    // REQUIRES: `users` and `limiter` outlive this object.
    PageRoutes(const std::optional<UsersFile>& users, SignInLimiter& limiter, bool secure_cookies);

    // Registers the routes above, and limits request bodies to what a sign-in form needs.
    void add(httplib::Server& server);

    // The user of the request's session cookie; none without one or with one no longer valid.
    std::optional<std::string> session_user(const httplib::Request& request);

    // Paths answered without a signed-in user: the sign-in routes and the assets.
    static bool open_to_all(std::string_view path);
    // Paths of pages, which a browser without a session is sent away from to sign in.
    static bool is_page(std::string_view path);
    // The only paths that take POST.
    static bool takes_post(std::string_view path);
    // Whether the request comes from the page's own script or a browser that had a session:
    // a refusal then must not carry a Basic challenge, which would open the browser's own dialog.
    static bool from_page(const httplib::Request& request);

    // A 303 to the sign-in form, which leads back to the request's page.
    static void send_to_sign_in(const httplib::Request& request, httplib::Response& response);

private:
    void show_page(httplib::Response& response, const std::optional<std::string>& user) const;
    void show_sign_in(httplib::Response& response, int status, std::string_view message,
                      std::string_view next) const;
    void sign_in(const httplib::Request& request, httplib::Response& response);
    void sign_out(const httplib::Request& request, httplib::Response& response);

    const std::optional<UsersFile>& m_users;
    SignInLimiter& m_limiter;
    const bool m_secure_cookies;
    SessionStore m_sessions;
};

}  // namespace qm::web
