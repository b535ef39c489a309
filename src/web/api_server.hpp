#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "archive/leg_media.hpp"
#include "web/tls_files.hpp"
#include "web/users_file.hpp"

// The read-only JSON API of `quillmar serve` over HTTP, under /api/:
//   GET /api/legs?call_id=&uuid=&from=&to=&include_removed=&limit=&offset=   legs, as `find --json`
//   GET /api/legs/UUID                      {"leg": the catalogue's row, "inspect": the report}
//   GET /api/legs/UUID/audio.wav|audio.flac the leg as `quillmar export` writes it (stereo), with
//                                           single byte ranges answered for seeking players
//   GET /api/legs/UUID/peaks?width=N        per side N columns {min, max} and the gaps
//   GET /api/status                         the recorder's metrics file, {name: value}
// Every answer is JSON except the audio; errors are {"error": "..."}: 400 for a malformed
// parameter or uuid, 404 for what does not exist, 410 for a leg whose recording has gone (also,
// with its "archive_url", for an archived leg whose local copy has gone when no store is set),
// 502 with the store's error when the archive's store refuses or cannot be reached. Only GET and
// HEAD.
//
// An archived leg whose local copy has gone is read from the archive's store when `store` is set:
// the bucket and the key from its archive_url, streamed by ranged GETs (archive::S3ObjectSource),
// a client per request.
//
// Beside the API, the browser's pages and the sign-in by form (PageRoutes); POST is answered only
// on /signin and /signout.
//
// With users, every request needs a session of the sign-in form or HTTP Basic credentials of one of
// them. A page without a session is a 303 to the form; an API call without either is 401, with a
// Basic challenge unless it comes from the page (X-Requested-With or a session cookie, so that the
// browser does not open its own dialog); an address that failed five times within a minute waits a
// minute (429), its credentials not even checked. With an access log, every view of a leg and every
// start of a playback (a request from the audio's first byte) or download (`?download=1`) is a line
// there.
//
// Files are reached only through the catalogue: a leg's path is the row's, joined to the storage,
// resolved, and refused unless it lies inside the resolved storage. Nothing is ever written.
//
// Threads: construct, bind and serve on one thread; serve() blocks, answering requests on a pool
// of eight "qm-http-worker" threads (WorkerPool), started with every signal blocked. stop() from
// any thread but never from a signal handler. The catalogue's connection is shared by the workers
// under a mutex.

namespace qm::web {

struct ApiSettings {
    // As `quillmar find --catalog` takes it, and the directory a relative sqlite:PATH is in.
    std::string catalog;
    // The recordings' root; the catalogue's paths are relative to it.
    std::filesystem::path storage;
    // The recorder's metrics file; none: /api/status is 404.
    std::optional<std::filesystem::path> metrics;
    // Who may sign in; none: everyone is answered (the command allows that only on loopback).
    std::optional<UsersFile> users;
    // Where views, playbacks and downloads are written; none: nowhere.
    std::optional<std::filesystem::path> access_log;
    // Set: the server answers HTTPS only, with this certificate and key (a plain HTTP request to
    // it gets no answer), and a cookie it sets must carry Secure. None: plain HTTP.
    std::optional<TlsFiles> tls;
    // The archive's store, read for archived legs whose local copy has gone; none: those are 410.
    std::optional<archive::StoreAccess> store;
};

class ApiServer {
public:
    // Checks the TLS files (tls_files_problem), opens the catalogue (an existing one, never
    // created) and the access log. THROWS: std::runtime_error with one line saying why when the
    // TLS files are refused, the catalogue or the log cannot be opened or the storage is not a
    // directory.
    explicit ApiServer(const ApiSettings& settings);
    ~ApiServer();

    ApiServer(const ApiServer&) = delete;
    ApiServer& operator=(const ApiServer&) = delete;

    // Binds the listening socket; port 0 picks a free one. False when it cannot be bound.
    [[nodiscard]] bool bind(const std::string& host, int port);

    // The bound port. REQUIRES: bind() succeeded.
    int port() const;

    // Answers requests until stop(). REQUIRES: bind() succeeded.
    void serve();

    // Makes serve() return; any thread.
    void stop();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace qm::web
