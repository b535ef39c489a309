#include "web/api_server.hpp"

#include <httplib.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "archive/leg_media.hpp"
#include "archive/s3_error.hpp"
#include "catalog/catalog_find.hpp"
#include "catalog/catalog_store.hpp"
#include "catalog/open_catalog.hpp"
#include "recording/audio_export.hpp"
#include "recording/recording_inspector.hpp"
#include "web/access_log.hpp"
#include "web/basic_auth.hpp"
#include "web/byte_range.hpp"
#include "web/credential_cache.hpp"
#include "web/leg_request.hpp"
#include "web/metrics_json.hpp"
#include "web/page_routes.hpp"
#include "web/sign_in_limiter.hpp"
#include "web/worker_pool.hpp"

namespace qm::web {
namespace {

using catalog::Json;

constexpr std::size_t DEFAULT_LIMIT = 100;
constexpr std::size_t MAX_LIMIT = 1000;
constexpr std::size_t MAX_WIDTH = 10000;
// Connections answered at once; more wait for a free worker.
constexpr std::size_t WORKERS = 8;
// The bytes of audio made for the connection at a time.
constexpr std::size_t AUDIO_PIECE = 64 * 1024;

// A query parameter that does not parse: the request is answered 400 with this text.
class BadParameter : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

void send_json(httplib::Response& response, int status, const Json& body) {
    response.status = status;
    response.set_content(body.dump(), "application/json");
}

void send_error(httplib::Response& response, int status, const std::string& text) {
    send_json(response, status, Json{{"error", text}});
}

// The parameter's value; none when it is absent or empty, as a search form sends empty fields.
std::optional<std::string> text_param(const httplib::Request& request, const char* name) {
    if (!request.has_param(name) || request.get_param_value(name).empty()) {
        return std::nullopt;
    }
    return request.get_param_value(name);
}

std::size_t count_param(const httplib::Request& request, const char* name, std::size_t fallback,
                        std::size_t low, std::size_t high) {
    const std::optional<std::string> text = text_param(request, name);
    if (!text) {
        return fallback;
    }
    std::size_t value = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc{} || end != text->data() + text->size() || value < low || value > high) {
        throw BadParameter(std::string(name) + " \"" + *text + "\" is not a whole number from " +
                           std::to_string(low) + " to " + std::to_string(high));
    }
    return value;
}

bool flag_param(const httplib::Request& request, const char* name) {
    const std::optional<std::string> text = text_param(request, name);
    if (!text || *text == "0" || *text == "false") {
        return false;
    }
    if (*text == "1" || *text == "true") {
        return true;
    }
    throw BadParameter(std::string(name) + " \"" + *text + "\" is not true, false, 1 or 0");
}

std::optional<std::uint64_t> time_param(const httplib::Request& request, const char* name) {
    const std::optional<std::string> text = text_param(request, name);
    if (!text) {
        return std::nullopt;
    }
    const std::optional<std::uint64_t> time = catalog::parse_utc_time(*text);
    if (!time) {
        throw BadParameter(std::string(name) + " \"" + *text +
                           "\" is not a UTC time like 2026-11-24T11:52:00Z or "
                           "\"2026-11-24 11:52\"");
    }
    return time;
}

catalog::FindQuery query_of(const httplib::Request& request) {
    catalog::FindQuery query;
    query.call_id = text_param(request, "call_id");
    query.uuid = text_param(request, "uuid");
    if (query.uuid && !is_leg_uuid(*query.uuid)) {
        throw BadParameter("uuid \"" + *query.uuid + "\" is not a leg uuid");
    }
    query.from_us = time_param(request, "from");
    query.to_us = time_param(request, "to");
    query.include_removed = flag_param(request, "include_removed");
    query.limit = count_param(request, "limit", DEFAULT_LIMIT, 1, MAX_LIMIT);
    query.offset = count_param(request, "offset", 0, 0, SIZE_MAX);
    return query;
}

Json peaks_json(const recording::LegPeaks& peaks, std::size_t width) {
    Json sides = Json::array();
    for (std::size_t side = 0; side < peaks.columns.size(); ++side) {
        Json columns = Json::array();
        for (const recording::PeakColumn& column : peaks.columns[side]) {
            columns.push_back({{"min", column.min}, {"max", column.max}});
        }
        Json gaps = Json::array();
        for (const recording::SideGap& gap : peaks.gaps[side]) {
            gaps.push_back({{"start_sample", gap.start_sample}, {"samples", gap.samples}});
        }
        sides.push_back({{"side", side}, {"columns", columns}, {"gaps", gaps}});
    }
    return Json{{"samples", peaks.samples}, {"width", width}, {"sides", sides}};
}

// The library's server: HTTPS with the TLS files, plain HTTP without.
// THROWS: std::runtime_error when the files are refused.
std::unique_ptr<httplib::Server> make_server(const std::optional<TlsFiles>& tls) {
    if (!tls) {
        return std::make_unique<httplib::Server>();
    }
    if (const std::optional<std::string> problem = tls_files_problem(*tls)) {
        throw std::runtime_error(*problem);
    }
    auto server = std::make_unique<httplib::SSLServer>(tls->cert.c_str(), tls->key.c_str());
    if (!server->is_valid()) {
        throw std::runtime_error("cannot answer HTTPS with --cert " + tls->cert.string() +
                                 " and --key " + tls->key.string());
    }
    return server;
}

}  // namespace

struct ApiServer::State {
    explicit State(const ApiSettings& given)
        : settings(given), owned_server(make_server(given.tls)), server(*owned_server) {}

    ApiSettings settings;
    std::filesystem::path storage_root;
    // The connection serves one thread at a time; lookups are short.
    std::mutex catalog_mutex;
    std::unique_ptr<catalog::CatalogStore> store;
    std::unique_ptr<httplib::Server> owned_server;
    httplib::Server& server;
    int port = 0;
    SignInLimiter limiter;
    CredentialCache checked_credentials;
    std::unique_ptr<AccessLog> access_log;
    std::unique_ptr<PageRoutes> pages;

    // Whether the request comes from a user who may look, or false with the answer sent.
    bool signed_in(const httplib::Request& request, httplib::Response& response);
    // Whether the Basic credentials are a user's: checked recently, or by the users file now.
    bool verified(const Credentials& credentials, CredentialCache::Clock::time_point now);
    // The user a request is answered as: its session's, or its Basic credentials' name.
    std::string user_of(const httplib::Request& request);
    // Writes the access to the leg `uuid` to the access log, when there is one.
    void record(const httplib::Request& request, const std::string& uuid, Access what);

    std::vector<catalog::CatalogRow> find(const catalog::FindQuery& query) {
        const std::lock_guard lock(catalog_mutex);
        return store->find(query);
    }

    // The leg the request's uuid names and its recording, read from the storage or the archive's
    // store, or false with the answer sent.
    bool find_leg(const httplib::Request& request, httplib::Response& response,
                  catalog::CatalogRow& row, std::unique_ptr<recording::ByteSource>& source);

    void list_legs(const httplib::Request& request, httplib::Response& response);
    void show_leg(const httplib::Request& request, httplib::Response& response);
    void send_audio(const httplib::Request& request, httplib::Response& response);
    void send_peaks(const httplib::Request& request, httplib::Response& response);
    void send_status(httplib::Response& response) const;
    void add_routes();
};

bool ApiServer::State::signed_in(const httplib::Request& request, httplib::Response& response) {
    if (pages->session_user(request)) {
        return true;
    }
    if (PageRoutes::is_page(request.path)) {
        PageRoutes::send_to_sign_in(request, response);
        return false;
    }
    const SignInLimiter::Clock::time_point now = SignInLimiter::Clock::now();
    if (!limiter.allowed(request.remote_addr, now)) {
        send_error(response, 429,
                   "too many failed sign-ins from this address: try again in a minute");
        return false;
    }
    const std::optional<Credentials> credentials =
        basic_credentials(request.get_header_value("Authorization"));
    if (credentials && verified(*credentials, now)) {
        limiter.succeeded(request.remote_addr);
        return true;
    }
    // A request without credentials is a client asking how to sign in, not a failed sign-in.
    if (credentials) {
        limiter.failed(request.remote_addr, now);
    }
    if (!PageRoutes::from_page(request)) {
        response.set_header("WWW-Authenticate", "Basic realm=\"quillmar\", charset=\"UTF-8\"");
    }
    send_error(response, 401, "sign in as a user of the users file");
    return false;
}

bool ApiServer::State::verified(const Credentials& credentials,
                                CredentialCache::Clock::time_point now) {
    if (checked_credentials.known(credentials, now)) {
        return true;
    }
    if (!settings.users->verify(credentials.name, credentials.password)) {
        return false;
    }
    checked_credentials.remember(credentials, now);
    return true;
}

void ApiServer::State::record(const httplib::Request& request, const std::string& uuid,
                              Access what) {
    if (access_log) {
        static_cast<void>(access_log->record(user_of(request), request.remote_addr, uuid, what));
    }
}

std::string ApiServer::State::user_of(const httplib::Request& request) {
    if (std::optional<std::string> user = pages->session_user(request)) {
        return *user;
    }
    const std::optional<Credentials> credentials =
        basic_credentials(request.get_header_value("Authorization"));
    return credentials ? credentials->name : "-";
}

bool ApiServer::State::find_leg(const httplib::Request& request, httplib::Response& response,
                                catalog::CatalogRow& row,
                                std::unique_ptr<recording::ByteSource>& source) {
    const std::string uuid = request.matches[1];
    if (!is_leg_uuid(uuid)) {
        send_error(response, 400, "\"" + uuid + "\" is not a leg uuid");
        return false;
    }
    std::optional<catalog::CatalogRow> found;
    {
        const std::lock_guard lock(catalog_mutex);
        found = store->leg(uuid);
    }
    if (!found) {
        send_error(response, 404, "no leg " + uuid + " in the catalogue");
        return false;
    }
    row = std::move(*found);
    const archive::LegMedia media = archive::locate_leg_media(row, storage_root);
    switch (media.state) {
        case archive::LegMediaState::REMOVED:
            send_json(
                response, 410,
                Json{{"error", archive::unavailable_text(row, media.state)},
                     {"removed_at", row.removed_at_us ? Json(catalog::utc_text(*row.removed_at_us))
                                                      : Json(nullptr)}});
            return false;
        case archive::LegMediaState::OUTSIDE_STORAGE:
            send_error(response, 404, archive::unavailable_text(row, media.state));
            return false;
        case archive::LegMediaState::GONE:
            send_json(response, 410,
                      Json{{"error", archive::unavailable_text(row, media.state)},
                           {"removed_at", nullptr}});
            return false;
        case archive::LegMediaState::ARCHIVED:
            if (!settings.store) {
                send_json(response, 410,
                          Json{{"error", "the recording of leg " + uuid +
                                             " is only in the archive, which serve does not read"},
                               {"archive_url", catalog::row_json(row).at("archive_url")}});
                return false;
            }
            break;
        case archive::LegMediaState::LOCAL:
            break;
    }
    source = archive::open_leg_media(media, settings.store);
    return true;
}

void ApiServer::State::list_legs(const httplib::Request& request, httplib::Response& response) {
    catalog::FindQuery query;
    try {
        query = query_of(request);
    } catch (const BadParameter& bad) {
        send_error(response, 400, bad.what());
        return;
    }
    Json legs = Json::array();
    for (const catalog::CatalogRow& row : find(query)) {
        legs.push_back(catalog::row_json(row));
    }
    send_json(response, 200, legs);
}

void ApiServer::State::show_leg(const httplib::Request& request, httplib::Response& response) {
    catalog::CatalogRow row;
    std::unique_ptr<recording::ByteSource> source;
    if (find_leg(request, response, row, source)) {
        record(request, row.summary.uuid, Access::VIEW);
        send_json(response, 200,
                  Json{{"leg", catalog::row_json(row)},
                       {"inspect", recording::report_json(recording::inspect_recording(*source))}});
    }
}

namespace {

// The audio of one answer: a .wav made as it is sent, or a .flac made whole, since FLAC's size is
// known only once encoded.
class AudioBody {
public:
    // Reads the recording from `source`, all of it before the constructor returns.
    AudioBody(const recording::ExportOptions& options, recording::ByteSource& source, bool wav) {
        if (wav) {
            m_stream = std::make_shared<recording::WavExportStream>(options, source);
        } else {
            m_whole = std::make_shared<std::string>(recording::export_audio_bytes(options, source));
        }
    }

    std::uint64_t size() const { return m_stream ? m_stream->size() : m_whole->size(); }

    // Sends bytes range.first..range.last, a piece at a time as the connection takes them.
    void send(httplib::Response& response, const ByteRange& range, const std::string& type) const {
        if (m_whole) {
            response.set_content(m_whole->substr(range.first, range.last - range.first + 1), type);
            return;
        }
        response.set_content_provider(
            range.last - range.first + 1, type,
            [stream = m_stream, first = range.first](std::size_t offset, std::size_t length,
                                                     httplib::DataSink& sink) {
                std::string piece;
                stream->read(first + offset, std::min(length, AUDIO_PIECE), piece);
                return sink.write(piece.data(), piece.size());
            });
    }

private:
    // Shared with the content provider, which the library copies and calls after the handler.
    std::shared_ptr<recording::WavExportStream> m_stream;
    std::shared_ptr<const std::string> m_whole;
};

}  // namespace

void ApiServer::State::send_audio(const httplib::Request& request, httplib::Response& response) {
    catalog::CatalogRow row;
    std::unique_ptr<recording::ByteSource> source;
    if (!find_leg(request, response, row, source)) {
        return;
    }
    const std::string format = request.matches[2];
    recording::ExportOptions options;
    options.output = "leg." + format;
    const AudioBody audio(options, *source, format == "wav");
    const std::uint64_t size = audio.size();
    const std::string type = format == "wav" ? "audio/wav" : "audio/flac";
    response.set_header("Accept-Ranges", "bytes");
    // The library would cut the body by the request's ranges again; the answer below is whole.
    // The request object is the library's own, not a const one.
    const_cast<httplib::Request&>(request).ranges.clear();
    const RangeAnswer answer = answer_range(request.get_header_value("Range"), size);
    // A player asks for the rest of the file as it plays and seeks: only the request from the
    // first byte starts a playback.
    if (answer.kind == RangeKind::WHOLE ||
        (answer.kind == RangeKind::PART && answer.range.first == 0)) {
        record(request, row.summary.uuid,
               flag_param(request, "download") ? Access::DOWNLOAD : Access::PLAY);
    }
    switch (answer.kind) {
        case RangeKind::WHOLE:
            response.status = 200;
            if (size > 0) {
                audio.send(response, ByteRange{0, size - 1}, type);
            } else {
                response.set_content("", type);
            }
            break;
        case RangeKind::PART:
            response.status = 206;
            response.set_header("Content-Range", "bytes " + std::to_string(answer.range.first) +
                                                     "-" + std::to_string(answer.range.last) + "/" +
                                                     std::to_string(size));
            audio.send(response, answer.range, type);
            break;
        case RangeKind::UNSATISFIABLE:
            response.set_header("Content-Range", "bytes */" + std::to_string(size));
            send_error(
                response, 416,
                "the range lies outside the " + std::to_string(size) + " bytes of the audio");
            break;
    }
}

void ApiServer::State::send_peaks(const httplib::Request& request, httplib::Response& response) {
    std::size_t width = 0;
    try {
        if (!text_param(request, "width")) {
            throw BadParameter("width is missing");
        }
        width = count_param(request, "width", 0, 1, MAX_WIDTH);
    } catch (const BadParameter& bad) {
        send_error(response, 400, bad.what());
        return;
    }
    catalog::CatalogRow row;
    std::unique_ptr<recording::ByteSource> source;
    if (find_leg(request, response, row, source)) {
        send_json(response, 200, peaks_json(recording::leg_peaks(*source, width), width));
    }
}

void ApiServer::State::send_status(httplib::Response& response) const {
    if (!settings.metrics) {
        send_error(response, 404, "no metrics file was given (--metrics)");
        return;
    }
    std::ifstream in(*settings.metrics, std::ios::binary);
    if (!in) {
        send_error(response, 503, "cannot read " + settings.metrics->string());
        return;
    }
    const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    send_json(response, 200, metrics_json(text));
}

void ApiServer::State::add_routes() {
    // Every answer is made inside a guard: a recording or catalogue that fails is a 500 with its
    // reason, never a dropped connection; the archive's store that fails is a 502, a gateway's
    // error, as it is not this server's own.
    const auto guarded = [this](auto member) {
        return [this, member](const httplib::Request& request, httplib::Response& response) {
            try {
                (this->*member)(request, response);
            } catch (const archive::S3Error& refused) {
                send_error(response, 502, refused.what());
            } catch (const std::exception& failure) {
                send_error(response, 500, failure.what());
            }
        };
    };
    server.set_pre_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) {
            if (settings.users && !PageRoutes::open_to_all(request.path) &&
                !signed_in(request, response)) {
                return httplib::Server::HandlerResponse::Handled;
            }
            if (request.method != "GET" && request.method != "HEAD" &&
                !(request.method == "POST" && PageRoutes::takes_post(request.path))) {
                send_error(response, 405, request.method + " is not answered here: read only");
                return httplib::Server::HandlerResponse::Handled;
            }
            return httplib::Server::HandlerResponse::Unhandled;
        });
    server.Get("/api/legs", guarded(&State::list_legs));
    server.Get(R"(/api/legs/([^/]+))", guarded(&State::show_leg));
    server.Get(R"(/api/legs/([^/]+)/audio\.(wav|flac))", guarded(&State::send_audio));
    server.Get(R"(/api/legs/([^/]+)/peaks)", guarded(&State::send_peaks));
    server.Get("/api/status", [this](const httplib::Request&, httplib::Response& response) {
        send_status(response);
    });
    pages->add(server);
    server.set_error_handler([](const httplib::Request& request, httplib::Response& response) {
        if (response.body.empty()) {
            send_error(response, response.status, "nothing at " + request.path);
        }
    });
}

ApiServer::ApiServer(const ApiSettings& settings) : m_state(std::make_unique<State>(settings)) {
    State& state = *m_state;
    std::error_code error;
    state.storage_root = std::filesystem::canonical(settings.storage, error);
    if (error || !std::filesystem::is_directory(state.storage_root)) {
        throw std::runtime_error("storage " + settings.storage.string() + " is not a directory");
    }
    std::string why;
    state.store = catalog::open_catalog(settings.catalog, state.storage_root, why,
                                        catalog::CatalogOpen::EXISTING);
    if (!state.store) {
        throw std::runtime_error(why);
    }
    if (settings.access_log) {
        state.access_log = AccessLog::open(settings.access_log->string(), why);
        if (!state.access_log) {
            throw std::runtime_error(why);
        }
    }
    state.pages =
        std::make_unique<PageRoutes>(state.settings.users, state.limiter, settings.tls.has_value());
    state.server.new_task_queue = [] { return new WorkerPool(WORKERS); };
    state.add_routes();
}

ApiServer::~ApiServer() = default;

bool ApiServer::bind(const std::string& host, int port) {
    State& state = *m_state;
    if (port == 0) {
        state.port = state.server.bind_to_any_port(host);
        return state.port > 0;
    }
    state.port = port;
    return state.server.bind_to_port(host, port);
}

int ApiServer::port() const {
    return m_state->port;
}

void ApiServer::serve() {
    m_state->server.listen_after_bind();
}

void ApiServer::stop() {
    m_state->server.stop();
}

}  // namespace qm::web
