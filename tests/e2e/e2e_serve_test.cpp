// `quillmar serve` against a real recorder's storage and SQLite catalogue: the legs of a call id,
// a leg's audio byte for byte as `quillmar export` writes it, byte ranges, peaks whose gaps are
// inspect's, a removed leg, traversal attempts, the refusal to answer everyone off loopback, and
// the browser's sign-in by form with its session cookie, and HTTPS with a certificate and key
// checked before serving.

#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "catalog/open_catalog.hpp"
#include "recorder_e2e.hpp"
#include "self_signed_certificate.hpp"
#include "tools/call_manifest.hpp"
#include "utils/str.hpp"
#include "web/users_file.hpp"

namespace qm::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tools::CallManifest;
using tools::Expectation;
using tools::SentLeg;

constexpr std::size_t CALLS = 5;
constexpr std::chrono::milliseconds LOOK_INTERVAL{50};

std::string uuid_text(const SentLeg& leg) {
    return utils::str::print_uuid(leg.uuid.data());
}

std::uint64_t lost_of(const tools::SentSide& side) {
    return static_cast<std::uint64_t>(
        std::count(side.expectations.begin(), side.expectations.end(), Expectation::LOST));
}

class ServeE2eTest : public RecorderE2eTest {
protected:
    // A users file with the one user anna, whose credentials the test's client then sends.
    fs::path users_with_anna() {
        web::UsersFile users;
        users.set("anna", "correct horse");
        std::string error;
        const fs::path file = directory.path() / "users";
        EXPECT_TRUE(users.save(file.string(), error)) << error;
        login = std::make_pair("anna", "correct horse");
        return file;
    }

    // A recorder with its catalogue in the storage, CALLS calls sent to it with loss, and serve
    // answering on a free port once every leg is in the catalogue.
    void record_and_serve(const std::vector<std::string>& serve_options = {"--no-auth"}) {
        start_recorder("catalog = sqlite:catalog.sqlite\n");
        const fs::path manifest = directory.path() / "manifest.json";
        const ToolRun run =
            run_tool({"send", "--to", "127.0.0.1:" + std::to_string(port), "--calls",
                      std::to_string(CALLS), "--duration", "0.4", "--rate", "4000", "--loss", "0.1",
                      "--seed", "7", "--manifest", manifest.string()});
        ASSERT_TRUE(run.status.exited_with(0)) << run.err;
        sent = tools::read_manifest(manifest);
        ASSERT_EQ(sent.legs.size(), CALLS);

        ASSERT_NO_FATAL_FAILURE(start_serve(serve_options, "http", serve_port, serve_process));
        client = std::make_unique<httplib::Client>("127.0.0.1", serve_port);
        if (login) {
            client->set_basic_auth(login->first.c_str(), login->second.c_str());
        }
        ASSERT_TRUE(poll_until([&] { return legs("?limit=1000").size() == CALLS; }, TIMEOUT,
                               LOOK_INTERVAL));
    }

    // Starts serve on the recorder's catalogue and storage, on a free port, with `options`; once
    // it says it listens with `scheme`, `process` and `listening` are set.
    void start_serve(const std::vector<std::string>& options, const std::string& scheme,
                     int& listening, ChildProcess*& process) {
        std::vector<std::string> args = {
            "serve",     "--listen",        "127.0.0.1:0", "--catalog", "sqlite:catalog.sqlite",
            "--storage", storage().string()};
        args.insert(args.end(), options.begin(), options.end());
        ChildProcess& serve = start_tool(std::move(args));
        const std::string prefix = "listening on " + scheme + "://127.0.0.1:";
        ASSERT_TRUE(poll_until(
            [&] { return serve.standard_output().find('\n') != std::string::npos; }, TIMEOUT))
            << serve.standard_error();
        const std::string line = serve.standard_output();
        ASSERT_EQ(line.rfind(prefix, 0), 0u) << line;
        listening = std::stoi(line.substr(prefix.size()));
        process = &serve;
    }

    // The documents of /api/legs with `query`; none unless it answered 200.
    std::vector<json> legs(const std::string& query) {
        const httplib::Result result = client->Get("/api/legs" + query);
        if (!result || result->status != 200) {
            return {};
        }
        return json::parse(result->body).get<std::vector<json>>();
    }

    // The recording of a sent leg in the storage.
    fs::path media_of(const SentLeg& leg) {
        const std::vector<json> rows = legs("?uuid=" + uuid_text(leg));
        EXPECT_EQ(rows.size(), 1u);
        return rows.empty() ? fs::path()
                            : storage() / rows[0].at("path").get<std::string>() / "media.qm";
    }

    int status_of(const std::string& path) {
        const httplib::Result result = client->Get(path);
        return result ? result->status : -1;
    }

    CallManifest sent;
    // The user the client signs in as, when serve has users.
    std::optional<std::pair<std::string, std::string>> login;
    int serve_port = 0;
    std::unique_ptr<httplib::Client> client;
    ChildProcess* serve_process = nullptr;
};

TEST_F(ServeE2eTest, AnswersLegsAudioRangesAndPeaksAsTheToolsDo) {
    const std::string metrics =
        directory.write_file("metrics.prom",
                             "# TYPE quillmarwriter_calls_open gauge\nquillmarwriter_calls_open 2\n"
                             "quillmarwriter_kernel_drops_total 17\n");
    ASSERT_NO_FATAL_FAILURE(record_and_serve({"--no-auth", "--metrics", metrics}));

    const httplib::Result status = client->Get("/api/status");
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 200);
    EXPECT_EQ(json::parse(status->body),
              (json{{"quillmarwriter_calls_open", 2}, {"quillmarwriter_kernel_drops_total", 17}}));

    // Each call id names exactly its own leg.
    for (std::size_t call = 0; call < CALLS; ++call) {
        const std::vector<json> rows = legs("?call_id=quillmar-send-" + std::to_string(call));
        ASSERT_EQ(rows.size(), 1u) << call;
        EXPECT_EQ(rows[0].at("uuid"), uuid_text(sent.legs[call]));
        EXPECT_EQ(rows[0].at("state"), "recorded");
        const ToolRun found =
            run_tool({"find", "--catalog", "sqlite:catalog.sqlite", "--storage", storage().string(),
                      "--call-id", "quillmar-send-" + std::to_string(call), "--json"});
        EXPECT_EQ(rows[0], json::parse(found.out)) << found.err;
    }

    // A leg that lost packets on a side.
    std::size_t call = 0;
    while (call < CALLS &&
           lost_of(sent.legs[call].sides[0]) + lost_of(sent.legs[call].sides[1]) == 0) {
        ++call;
    }
    ASSERT_LT(call, CALLS) << "seed 7 withholds no packet";
    const SentLeg& leg = sent.legs[call];
    const std::string base = "/api/legs/" + uuid_text(leg);
    const fs::path media = media_of(leg);

    const fs::path exported = directory.path() / "x.wav";
    const ToolRun exporting = run_tool({"export", media.string(), "--output", exported.string()});
    ASSERT_TRUE(exporting.status.exited_with(0)) << exporting.err;
    const std::string wav = read_file(exported);
    ASSERT_GT(wav.size(), 2000u);

    const httplib::Result audio = client->Get(base + "/audio.wav");
    ASSERT_TRUE(audio);
    EXPECT_EQ(audio->status, 200);
    EXPECT_EQ(audio->get_header_value("Content-Type"), "audio/wav");
    EXPECT_EQ(audio->get_header_value("Content-Length"), std::to_string(wav.size()));
    EXPECT_EQ(audio->get_header_value("Accept-Ranges"), "bytes");
    EXPECT_TRUE(audio->body == wav) << "the served audio differs from the export";

    const httplib::Result head = client->Head(base + "/audio.wav");
    ASSERT_TRUE(head);
    EXPECT_EQ(head->status, 200);
    EXPECT_EQ(head->get_header_value("Content-Length"), std::to_string(wav.size()));
    EXPECT_EQ(head->body, "");

    const httplib::Result part = client->Get(base + "/audio.wav", {{"Range", "bytes=1000-1999"}});
    ASSERT_TRUE(part);
    EXPECT_EQ(part->status, 206);
    EXPECT_EQ(part->get_header_value("Content-Range"),
              "bytes 1000-1999/" + std::to_string(wav.size()));
    EXPECT_TRUE(part->body == wav.substr(1000, 1000));
    const httplib::Result past =
        client->Get(base + "/audio.wav", {{"Range", "bytes=" + std::to_string(wav.size()) + "-"}});
    ASSERT_TRUE(past);
    EXPECT_EQ(past->status, 416);

    const ToolRun inspecting = run_tool({"inspect", "--json", media.string()});
    const json inspect = json::parse(inspecting.out);
    const httplib::Result peaks = client->Get(base + "/peaks?width=200");
    ASSERT_TRUE(peaks);
    ASSERT_EQ(peaks->status, 200) << peaks->body;
    const json drawn = json::parse(peaks->body);
    std::uint64_t gaps_seen = 0;
    for (std::size_t side = 0; side < 2; ++side) {
        const json& shown = drawn.at("sides").at(side);
        EXPECT_EQ(shown.at("columns").size(), 200u);
        std::uint64_t missing = 0;
        for (const json& gap : shown.at("gaps")) {
            missing += gap.at("samples").get<std::uint64_t>();
        }
        const json& inspected = inspect.at("sides").at(side);
        EXPECT_EQ(shown.at("gaps").size(), inspected.at("gaps").get<std::size_t>()) << side;
        EXPECT_EQ(missing, inspected.at("missing_samples").get<std::uint64_t>()) << side;
        gaps_seen += shown.at("gaps").size();
    }
    // Loss leaves gaps, so the comparison above compared some.
    EXPECT_NE(gaps_seen, 0u);
    EXPECT_EQ(status_of(base + "/peaks?width=0"), 400);
    EXPECT_EQ(status_of(base + "/peaks?width=10001"), 400);

    const httplib::Result shown = client->Get(base);
    ASSERT_TRUE(shown);
    ASSERT_EQ(shown->status, 200);
    EXPECT_EQ(json::parse(shown->body).at("inspect"), inspect);
    EXPECT_EQ(json::parse(shown->body).at("leg").at("uuid"), uuid_text(leg));

    // Without users the page is there without signing in, and the sign-in form leads to it.
    const httplib::Result page = client->Get("/");
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_EQ(page->body.find("/signout"), std::string::npos);
    const httplib::Result form = client->Get("/signin");
    ASSERT_TRUE(form);
    EXPECT_EQ(form->status, 303);
    EXPECT_EQ(form->get_header_value("Location"), "/");

    ASSERT_TRUE(serve_process->send_signal(SIGTERM));
    const std::optional<ExitStatus> ended = serve_process->wait_exit(TIMEOUT);
    ASSERT_TRUE(ended.has_value());
    EXPECT_TRUE(ended->exited_with(0));
}

TEST_F(ServeE2eTest, RefusesTraversalMalformedParametersAndRemovedLegs) {
    ASSERT_NO_FATAL_FAILURE(record_and_serve());
    const std::string uuid = uuid_text(sent.legs[0]);

    EXPECT_EQ(status_of("/api/legs/..%2F..%2Fetc%2Fpasswd"), 404);
    EXPECT_EQ(status_of("/api/legs/../../x"), 404);
    EXPECT_EQ(status_of("/api/legs/..%2F..%2Fetc%2Fpasswd/audio.wav"), 404);
    std::string upper = uuid;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_EQ(status_of("/api/legs/" + upper), 400);
    EXPECT_EQ(status_of("/api/legs/" + uuid.substr(1)), 400);
    EXPECT_EQ(status_of("/api/legs/" + uuid.substr(1) + "/audio.wav"), 400);
    EXPECT_EQ(status_of("/api/legs/00000000-0000-0000-0000-000000000000"), 404);
    EXPECT_EQ(status_of("/api/legs?limit=0"), 400);
    EXPECT_EQ(status_of("/api/legs?limit=1001"), 400);
    EXPECT_EQ(status_of("/api/legs?from=yesterday"), 400);
    EXPECT_EQ(status_of("/api/legs?uuid=../x"), 400);
    EXPECT_EQ(status_of("/api/nothing"), 404);
    EXPECT_EQ(status_of("/api/status"), 404);
    const httplib::Result posted = client->Post("/api/legs", "{}", "application/json");
    ASSERT_TRUE(posted);
    EXPECT_EQ(posted->status, 405);
    EXPECT_EQ(json::parse(posted->body).at("error"), "POST is not answered here: read only");
    const httplib::Result traversal = client->Get("/api/legs/..%2F..%2Fetc%2Fpasswd");
    ASSERT_TRUE(traversal);
    EXPECT_EQ(json::parse(traversal->body).at("error"), "nothing at /api/legs/../../etc/passwd");

    // An archiver archives the second leg and deletes its directory: serve does not read the
    // archive, and says where the leg is.
    const std::string archived_uuid = uuid_text(sent.legs[1]);
    const std::string archive_url = "s3://calls/" + archived_uuid + "/";
    const fs::path archived_media = media_of(sent.legs[1]);
    {
        std::string error;
        const auto store = catalog::open_catalog("sqlite:catalog.sqlite", storage(), error);
        ASSERT_NE(store, nullptr) << error;
        for (const catalog::CatalogRow& row : store->claim("archiver", 1, 60, CALLS)) {
            if (row.summary.uuid == archived_uuid) {
                ASSERT_TRUE(store->mark_archived("archiver", catalog::key_of(row), archive_url,
                                                 1795608000000000));
            }
        }
    }
    fs::remove_all(archived_media.parent_path());
    const httplib::Result archived = client->Get("/api/legs/" + archived_uuid);
    ASSERT_TRUE(archived);
    EXPECT_EQ(archived->status, 410);
    EXPECT_EQ(json::parse(archived->body),
              (json{{"error", "the recording of leg " + archived_uuid +
                                  " is only in the archive, which serve does not read"},
                    {"archive_url", archive_url}}));
    EXPECT_EQ(status_of("/api/legs/" + archived_uuid + "/audio.wav"), 410);

    // The leg's directory goes, and a reindex marks its row removed; the archived one stays.
    const fs::path media = media_of(sent.legs[0]);
    fs::remove_all(media.parent_path());
    const ToolRun reindex = run_tool({"catalog", "reindex", "--storage", storage().string(),
                                      "--catalog", "sqlite:catalog.sqlite"});
    ASSERT_TRUE(reindex.status.exited_with(0)) << reindex.err;
    const httplib::Result gone = client->Get("/api/legs/" + uuid);
    ASSERT_TRUE(gone);
    EXPECT_EQ(gone->status, 410);
    const json answer = json::parse(gone->body);
    EXPECT_TRUE(answer.at("removed_at").is_string()) << gone->body;
    EXPECT_EQ(status_of("/api/legs/" + uuid + "/audio.wav"), 410);
    const std::vector<json> listed = legs("?uuid=" + archived_uuid);
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].at("state"), "archived");
    EXPECT_EQ(listed[0].at("archive_url"), archive_url);
    EXPECT_EQ(listed[0].at("archived_at_utc"), "2026-11-25T12:00:00.000000Z");
}

TEST_F(ServeE2eTest, AnsweringEveryoneNeedsLoopbackAndSigningInNeedsUsers) {
    const std::string empty = directory.write_file("empty-users", "");
    const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
        {{"--no-auth", "--listen", "0.0.0.0:0"},
         "quillmar serve: --no-auth is allowed only on a loopback address (127.0.0.0/8, ::1)\n"},
        {{"--listen", "127.0.0.1:0"},
         "quillmar serve: no users to sign in: give --users FILE with at least one user "
         "(quillmar passwd FILE NAME), or --no-auth on a loopback address\n"},
        {{"--users", empty, "--listen", "127.0.0.1:0"},
         "quillmar serve: no users to sign in: give --users FILE with at least one user "
         "(quillmar passwd FILE NAME), or --no-auth on a loopback address\n"},
    };
    for (const auto& [options, message] : refused) {
        std::vector<std::string> args = {"serve", "--catalog", "sqlite:catalog.sqlite"};
        args.insert(args.end(), options.begin(), options.end());
        const ToolRun run = run_tool(args);
        EXPECT_TRUE(run.status.exited_with(2));
        EXPECT_EQ(run.err, message);
        EXPECT_EQ(run.out, "");
    }
}

// The access log's lines without their time: "user=... address=... uuid=... what=...".
std::vector<std::string> access_lines(const fs::path& file) {
    std::vector<std::string> lines;
    std::istringstream in(read_file(file));
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line.substr(line.find(' ') + 1));
    }
    return lines;
}

TEST_F(ServeE2eTest, EveryAnswerNeedsAUserAndFailuresMakeTheAddressWait) {
    const fs::path users_file = users_with_anna();
    const fs::path log = directory.path() / "access.log";
    ASSERT_NO_FATAL_FAILURE(
        record_and_serve({"--users", users_file.string(), "--access-log", log.string()}));
    const std::string uuid = uuid_text(sent.legs[0]);

    // One line per view, per playback (not per range a player asks for later) and per download.
    EXPECT_EQ(status_of("/api/legs/" + uuid), 200);
    EXPECT_EQ(status_of("/api/legs/" + uuid + "/audio.wav"), 200);
    const httplib::Result later =
        client->Get("/api/legs/" + uuid + "/audio.wav", {{"Range", "bytes=1000-1999"}});
    ASSERT_TRUE(later);
    EXPECT_EQ(later->status, 206);
    EXPECT_EQ(status_of("/api/legs/" + uuid + "/audio.flac?download=1"), 200);
    const std::string who = "user=anna address=127.0.0.1 uuid=" + uuid;
    EXPECT_EQ(access_lines(log), (std::vector<std::string>{who + " what=view", who + " what=play",
                                                           who + " what=download"}));

    httplib::Client stranger("127.0.0.1", serve_port);
    for (const std::string& path : std::vector<std::string>{
             "/api/legs", "/api/legs/" + uuid, "/api/legs/" + uuid + "/audio.wav",
             "/api/legs/" + uuid + "/peaks?width=10", "/api/status", "/anything"}) {
        const httplib::Result result = stranger.Get(path);
        ASSERT_TRUE(result) << path;
        EXPECT_EQ(result->status, 401) << path;
        EXPECT_EQ(result->get_header_value("WWW-Authenticate"),
                  "Basic realm=\"quillmar\", charset=\"UTF-8\"")
            << path;
    }
    // Five wrong passwords within the minute; the sixth try is not even checked, and neither is
    // the right password from that address until the minute is over.
    stranger.set_basic_auth("anna", "wrong");
    for (int attempt = 0; attempt < 5; ++attempt) {
        const httplib::Result result = stranger.Get("/api/legs");
        ASSERT_TRUE(result);
        EXPECT_EQ(result->status, 401) << attempt;
    }
    const httplib::Result sixth = stranger.Get("/api/legs");
    ASSERT_TRUE(sixth);
    EXPECT_EQ(sixth->status, 429);
    EXPECT_EQ(
        json::parse(sixth->body),
        (json{{"error", "too many failed sign-ins from this address: try again in a minute"}}));
    EXPECT_EQ(status_of("/api/legs"), 429);
    EXPECT_EQ(access_lines(log).size(), 3u);
}

// The same answers over HTTPS as over plain HTTP, credentials and all; a plain request to the
// HTTPS port gets none.
TEST_F(ServeE2eTest, AnswersHttpsWithACertificateAsPlainHttp) {
    const fs::path users_file = users_with_anna();
    ASSERT_NO_FATAL_FAILURE(record_and_serve({"--users", users_file.string()}));
    const fs::path cert = directory.path() / "cert.pem";
    const fs::path key = directory.path() / "key.pem";
    write_self_signed_certificate(cert, key);
    int tls_port = 0;
    ChildProcess* tls_process = nullptr;
    ASSERT_NO_FATAL_FAILURE(start_serve(
        {"--users", users_file.string(), "--cert", cert.string(), "--key", key.string()}, "https",
        tls_port, tls_process));

    httplib::SSLClient secure("127.0.0.1", tls_port);
    // The certificate is the test's own, signed by nobody a client trusts.
    secure.enable_server_certificate_verification(false);
    secure.set_basic_auth("anna", "correct horse");
    const std::string uuid = uuid_text(sent.legs[0]);
    for (const std::string& path : std::vector<std::string>{
             "/api/legs?limit=1000", "/api/legs/" + uuid, "/api/legs/" + uuid + "/audio.wav",
             "/api/legs/" + uuid + "/peaks?width=50"}) {
        const httplib::Result plain = client->Get(path);
        const httplib::Result tls = secure.Get(path);
        ASSERT_TRUE(plain) << path;
        ASSERT_TRUE(tls) << path << ": " << httplib::to_string(tls.error());
        EXPECT_EQ(tls->status, 200) << path;
        EXPECT_EQ(plain->status, 200) << path;
        EXPECT_TRUE(tls->body == plain->body) << path;
    }
    httplib::SSLClient stranger("127.0.0.1", tls_port);
    stranger.enable_server_certificate_verification(false);
    const httplib::Result refused = stranger.Get("/api/legs");
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 401);
    // Signed in by the form over HTTPS, the browser keeps the cookie for HTTPS only.
    const httplib::Result signed_in =
        stranger.Post("/signin", "name=anna&password=correct+horse&next=%2F",
                      "application/x-www-form-urlencoded");
    ASSERT_TRUE(signed_in);
    EXPECT_EQ(signed_in->status, 303);
    EXPECT_TRUE(std::regex_match(
        signed_in->get_header_value("Set-Cookie"),
        std::regex("quillmar_session=[0-9a-f]{64}; HttpOnly; SameSite=Strict; Path=/; Secure")))
        << signed_in->get_header_value("Set-Cookie");

    httplib::Client plain_to_tls("127.0.0.1", tls_port);
    plain_to_tls.set_basic_auth("anna", "correct horse");
    const httplib::Result unanswered = plain_to_tls.Get("/api/legs");
    EXPECT_FALSE(unanswered);
    EXPECT_EQ(unanswered.error(), httplib::Error::Read);
}

// The command's line and status 2 for TLS options it refuses, before it opens anything else.
TEST_F(ServeE2eTest, RefusesTlsFilesItCannotUse) {
    const fs::path cert = directory.path() / "cert.pem";
    const fs::path key = directory.path() / "key.pem";
    write_self_signed_certificate(cert, key);
    fs::create_directory(storage());
    const std::vector<std::string> serve = {"serve",     "--listen",        "127.0.0.1:0",
                                            "--no-auth", "--catalog",       "sqlite:catalog.sqlite",
                                            "--storage", storage().string()};
    const auto refusal = [&](const std::vector<std::string>& options, const std::string& line) {
        std::vector<std::string> args = serve;
        args.insert(args.end(), options.begin(), options.end());
        const ToolRun run = run_tool(args);
        EXPECT_TRUE(run.status.exited_with(2)) << run.err;
        EXPECT_EQ(run.err, "quillmar serve: " + line + "\n");
        EXPECT_EQ(run.out, "");
    };
    refusal({"--cert", cert.string()}, "--cert and --key go together: give both or neither");
    refusal({"--key", key.string()}, "--cert and --key go together: give both or neither");
    fs::permissions(key, fs::perms::others_read, fs::perm_options::add);
    refusal({"--cert", cert.string(), "--key", key.string()},
            "--key " + key.string() +
                ": open to others (mode 0604): allow them nothing (chmod o-rwx " + key.string() +
                ")");

    // Root reads any file: the key only its owner may read is refused to nobody, who may read the
    // certificate.
    fs::permissions(key, fs::perms::owner_read | fs::perms::owner_write);
    fs::permissions(cert, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                              fs::perms::others_read);
    std::vector<std::string> args = serve;
    args.insert(args.end(), {"--cert", cert.string(), "--key", key.string()});
    ChildProcess& unprivileged = start_unprivileged(args, QM_TOOL_PATH);
    const std::optional<ExitStatus> status = unprivileged.wait_exit(TIMEOUT);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited_with(2)) << unprivileged.standard_error();
    EXPECT_EQ(unprivileged.standard_error(),
              "quillmar serve: --key " + key.string() + ": cannot read: Permission denied\n");
}

}  // namespace
}  // namespace qm::test

namespace qm::test {
namespace {

constexpr const char* PAGE_POLICY =
    "default-src 'self'; media-src 'self' blob:; img-src 'self' data:; "
    "style-src 'self' 'unsafe-inline'; frame-ancestors 'none'; form-action 'self'; "
    "base-uri 'none'";

// A browser's POST of the sign-in form.
httplib::Result sign_in(httplib::Client& browser, const std::string& name,
                        const std::string& password) {
    return browser.Post("/signin", "name=" + name + "&password=" + password + "&next=%2F",
                        "application/x-www-form-urlencoded");
}

TEST_F(ServeE2eTest, ABrowserSignsInByFormAndItsCookieOpensPagesAndTheApi) {
    const fs::path users_file = users_with_anna();
    const fs::path log = directory.path() / "access.log";
    ASSERT_NO_FATAL_FAILURE(
        record_and_serve({"--users", users_file.string(), "--access-log", log.string()}));
    const std::string uuid = uuid_text(sent.legs[0]);
    httplib::Client browser("127.0.0.1", serve_port);

    // Pages without a session lead to the form, and back.
    const httplib::Result start = browser.Get("/");
    ASSERT_TRUE(start);
    EXPECT_EQ(start->status, 303);
    EXPECT_EQ(start->get_header_value("Location"), "/signin");
    const httplib::Result leg_page = browser.Get("/legs/" + uuid);
    ASSERT_TRUE(leg_page);
    EXPECT_EQ(leg_page->status, 303);
    EXPECT_EQ(leg_page->get_header_value("Location"), "/signin?next=/legs/" + uuid);
    const httplib::Result form = browser.Get("/signin?next=/legs/" + uuid);
    ASSERT_TRUE(form);
    EXPECT_EQ(form->status, 200);
    EXPECT_EQ(form->get_header_value("Content-Security-Policy"), PAGE_POLICY);
    EXPECT_EQ(form->get_header_value("X-Content-Type-Options"), "nosniff");
    EXPECT_NE(form->body.find("<form method=\"post\" action=\"/signin\""), std::string::npos);
    EXPECT_NE(form->body.find("value=\"/legs/" + uuid + "\""), std::string::npos);
    // The page's files are the same for everyone; the page itself is not among them.
    const httplib::Result script = browser.Get("/assets/app.js");
    ASSERT_TRUE(script);
    EXPECT_EQ(script->status, 200);
    EXPECT_EQ(script->get_header_value("Content-Type"), "text/javascript; charset=utf-8");
    const fs::path page_sources = fs::path(QM_SOURCE_DIR) / "src/web/page";
    EXPECT_TRUE(script->body == read_file(page_sources / "app.js"));
    const httplib::Result library = browser.Get("/assets/wavesurfer.min.js");
    ASSERT_TRUE(library);
    EXPECT_EQ(library->status, 200);
    EXPECT_TRUE(library->body ==
                read_file(page_sources / "node_modules/wavesurfer.js/dist/wavesurfer.min.js"));
    EXPECT_EQ(status_of("/assets/index.html"), 404);

    // Anyone may post to the form, but not at any length, of any type.
    const httplib::Result long_form =
        browser.Post("/signin", std::string(20000, 'x'), "text/plain");
    ASSERT_TRUE(long_form);
    EXPECT_EQ(long_form->status, 413);

    // Another site's page cannot post the form, not even with the right password.
    const httplib::Result elsewhere =
        browser.Post("/signin", {{"Origin", "http://elsewhere.example"}},
                     "name=anna&password=correct+horse", "application/x-www-form-urlencoded");
    ASSERT_TRUE(elsewhere);
    EXPECT_EQ(elsewhere->status, 403);
    EXPECT_FALSE(elsewhere->has_header("Set-Cookie"));

    // A wrong password: the form again, no cookie.
    const httplib::Result wrong = sign_in(browser, "anna", "wrong");
    ASSERT_TRUE(wrong);
    EXPECT_EQ(wrong->status, 401);
    EXPECT_FALSE(wrong->has_header("Set-Cookie"));
    EXPECT_FALSE(wrong->has_header("WWW-Authenticate"));
    EXPECT_NE(wrong->body.find("Wrong name or password."), std::string::npos);

    const httplib::Result signed_in = sign_in(browser, "anna", "correct+horse");
    ASSERT_TRUE(signed_in);
    EXPECT_EQ(signed_in->status, 303);
    EXPECT_EQ(signed_in->get_header_value("Location"), "/");
    const std::string cookie = signed_in->get_header_value("Set-Cookie");
    std::smatch token;
    ASSERT_TRUE(std::regex_match(
        cookie, token,
        std::regex("quillmar_session=([0-9a-f]{64}); HttpOnly; SameSite=Strict; Path=/")))
        << cookie;
    const httplib::Headers with_cookie = {{"Cookie", "quillmar_session=" + token[1].str()}};

    const httplib::Result page = browser.Get("/legs/" + uuid, with_cookie);
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_EQ(page->get_header_value("Content-Type"), "text/html; charset=utf-8");
    EXPECT_EQ(page->get_header_value("Content-Security-Policy"), PAGE_POLICY);
    EXPECT_EQ(page->get_header_value("X-Content-Type-Options"), "nosniff");
    EXPECT_NE(page->body.find("<span class=\"user\">anna</span>"), std::string::npos);
    const httplib::Result listed = browser.Get("/api/legs?limit=1000", with_cookie);
    ASSERT_TRUE(listed);
    EXPECT_EQ(listed->status, 200);
    EXPECT_EQ(json::parse(listed->body).size(), CALLS);
    const httplib::Result audio = browser.Get("/api/legs/" + uuid + "/audio.wav", with_cookie);
    ASSERT_TRUE(audio);
    EXPECT_EQ(audio->status, 200);
    EXPECT_EQ(access_lines(log),
              std::vector<std::string>{"user=anna address=127.0.0.1 uuid=" + uuid + " what=play"});
    // Reads only: POST is taken by the sign-in routes alone, with a session too.
    const httplib::Result posted = browser.Post("/api/legs", with_cookie, "{}", "application/json");
    ASSERT_TRUE(posted);
    EXPECT_EQ(posted->status, 405);

    // The page's own calls without a session are refused without a Basic challenge.
    const httplib::Result asked = browser.Get("/api/legs", {{"X-Requested-With", "quillmar-page"}});
    ASSERT_TRUE(asked);
    EXPECT_EQ(asked->status, 401);
    EXPECT_FALSE(asked->has_header("WWW-Authenticate"));

    // After signing out the cookie opens nothing.
    const httplib::Result out = browser.Post("/signout", with_cookie, "", "text/plain");
    ASSERT_TRUE(out);
    EXPECT_EQ(out->status, 303);
    EXPECT_EQ(out->get_header_value("Location"), "/signin");
    EXPECT_EQ(out->get_header_value("Set-Cookie"),
              "quillmar_session=; HttpOnly; SameSite=Strict; Path=/; Max-Age=0");
    const httplib::Result stale_api = browser.Get("/api/legs", with_cookie);
    ASSERT_TRUE(stale_api);
    EXPECT_EQ(stale_api->status, 401);
    EXPECT_FALSE(stale_api->has_header("WWW-Authenticate"));
    const httplib::Result stale_page = browser.Get("/", with_cookie);
    ASSERT_TRUE(stale_page);
    EXPECT_EQ(stale_page->status, 303);
    EXPECT_EQ(stale_page->get_header_value("Location"), "/signin");

    // The form's failures count with Basic's (the sign-in above forgot the first): after five,
    // the sixth try is refused unchecked, the right password too, and so is Basic from that
    // address.
    for (int attempt = 0; attempt < 5; ++attempt) {
        const httplib::Result again = sign_in(browser, "anna", "wrong");
        ASSERT_TRUE(again);
        EXPECT_EQ(again->status, 401) << attempt;
    }
    const httplib::Result sixth = sign_in(browser, "anna", "correct+horse");
    ASSERT_TRUE(sixth);
    EXPECT_EQ(sixth->status, 429);
    EXPECT_FALSE(sixth->has_header("Set-Cookie"));
    EXPECT_NE(
        sixth->body.find("Too many failed sign-ins from this address: try again in a minute."),
        std::string::npos);
    EXPECT_EQ(status_of("/api/legs"), 429);
    EXPECT_EQ(access_lines(log).size(), 1u);
}

}  // namespace
}  // namespace qm::test
