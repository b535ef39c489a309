#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "core/thread.hpp"
#include "tools/recorder_catalog.hpp"
#include "tools/stop_signals.hpp"
#include "tools/store_options.hpp"
#include "tools/tool_commands.hpp"
#include "web/api_server.hpp"
#include "web/listen_address.hpp"

namespace qm::tools {
namespace {

constexpr const char* NO_USERS =
    "quillmar serve: no users to sign in: give --users FILE with at least one user (quillmar "
    "passwd "
    "FILE NAME), or --no-auth on a loopback address";
constexpr const char* CERT_WITHOUT_KEY =
    "quillmar serve: --cert and --key go together: give both or neither";
constexpr const char* NO_AUTH_REFUSED =
    "quillmar serve: --no-auth is allowed only on a loopback address (127.0.0.0/8, ::1)";

struct ServeOptions {
    std::string config = default_recorder_config();
    CatalogPlace place;
    std::string listen = "127.0.0.1:8090";
    std::optional<std::string> metrics;
    std::optional<std::string> users;
    std::optional<std::string> access_log;
    std::optional<std::string> cert;
    std::optional<std::string> key;
    bool no_auth = false;
    StoreOptions store;
};

// Who may sign in, into `settings`: the users file, or nobody's check with --no-auth on a
// loopback address. False, with a line on standard error, when the server must not start.
bool choose_users(const ServeOptions& options, const web::ListenAddress& address,
                  web::ApiSettings& settings) {
    if (options.no_auth) {
        if (!web::is_loopback(address)) {
            std::cerr << NO_AUTH_REFUSED << std::endl;
            return false;
        }
        return true;
    }
    if (!options.users) {
        std::cerr << NO_USERS << std::endl;
        return false;
    }
    std::string error;
    settings.users = web::UsersFile::load(*options.users, error);
    if (!settings.users) {
        std::cerr << "quillmar serve: " << error << std::endl;
        return false;
    }
    if (settings.users->empty()) {
        std::cerr << NO_USERS << std::endl;
        return false;
    }
    return true;
}

// Answers requests on a thread of its own, so that the main thread can wait for the signals that
// stop it. Should the server end by itself, the thread raises SIGTERM so that the main thread
// wakes up and the command ends.
class ServeThread : public Thread {
public:
    explicit ServeThread(web::ApiServer& server) : m_server(server) { set_name("qm-http"); }

    void run() override {
        m_server.serve();
        if (is_running()) {
            ::kill(::getpid(), SIGTERM);
        }
    }

    int stop() override {
        request_stop();
        m_server.stop();
        return join();
    }

private:
    web::ApiServer& m_server;
};

int run_serve(const ServeOptions& options) {
    const std::optional<web::ListenAddress> address = web::parse_listen_address(options.listen);
    if (!address) {
        std::cerr << "quillmar serve: --listen \"" << options.listen
                  << "\" is not ADDR:PORT with a numeric address (127.0.0.1:8090, [::1]:8090)"
                  << std::endl;
        return 2;
    }
    if (options.cert.has_value() != options.key.has_value()) {
        std::cerr << CERT_WITHOUT_KEY << std::endl;
        return 2;
    }
    web::ApiSettings settings;
    if (!choose_users(options, *address, settings)) {
        return 2;
    }
    std::string error;
    CatalogPlace place = options.place;
    if (place.catalog.empty() && !fill_from_recorder_config(options.config, place, error)) {
        std::cerr << "quillmar serve: " << error << std::endl;
        return 2;
    }
    settings.catalog = place.catalog;
    settings.storage = place.storage.empty() ? "." : place.storage;
    if (options.metrics) {
        settings.metrics = *options.metrics;
    }
    if (options.access_log) {
        settings.access_log = *options.access_log;
    }
    if (options.cert) {
        settings.tls = web::TlsFiles{*options.cert, *options.key};
    }
    std::unique_ptr<web::ApiServer> server;
    try {
        settings.store = store_access(options.store);
        server = std::make_unique<web::ApiServer>(settings);
    } catch (const std::exception& failure) {
        std::cerr << "quillmar serve: " << failure.what() << std::endl;
        return 2;
    }
    if (!server->bind(address->host, address->port)) {
        std::cerr << "quillmar serve: cannot listen on " << web::address_text(*address)
                  << std::endl;
        return 2;
    }
    const sigset_t signals = block_stop_signals();
    ServeThread thread(*server);
    if (thread.start() != 0) {
        std::cerr << "quillmar serve: cannot start the server's thread" << std::endl;
        return 2;
    }
    std::cout << "listening on " << (settings.tls ? "https" : "http") << "://"
              << web::address_text({address->host, server->port()}) << std::endl;
    int received = 0;
    sigwait(&signals, &received);
    static_cast<void>(thread.stop());
    return 0;
}

}  // namespace

void add_serve_command(CLI::App& app, int& status) {
    auto options = std::make_shared<ServeOptions>();
    CLI::App* command = app.add_subcommand(
        "serve", "answer a read-only JSON API over HTTP on the catalogue and its recordings");
    command->add_option("--listen", options->listen, "ADDR:PORT to listen on")
        ->capture_default_str();
    add_catalog_place_options(*command, options->place, options->config,
                              "the recordings' root (default: the storage key of --config when "
                              "the catalogue comes from there, else the working directory)");
    command->add_option("--metrics", options->metrics,
                        "the recorder's metrics file, answered at /api/status");
    command->add_option("--users", options->users,
                        "the users who may sign in, name:hash lines (quillmar passwd)");
    command->add_option("--access-log", options->access_log,
                        "append a line per view, playback and download of a leg here");
    command->add_option("--cert", options->cert,
                        "answer HTTPS with this PEM certificate (with --key)");
    command->add_option("--key", options->key,
                        "the certificate's PEM private key, not open to others (with --cert)");
    command->add_flag("--no-auth", options->no_auth,
                      "answer everyone: allowed only on a loopback address");
    add_store_options(*command, options->store, READ_FROM_STORE);
    command->callback([options, &status] { status = run_serve(*options); });
}

}  // namespace qm::tools
