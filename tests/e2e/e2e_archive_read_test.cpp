// Playback from the archive end to end: legs recorded by the real recorder into a SQLite
// catalogue, archived by `quillmar archive --delete-local` into a real store, then read back by
// uuid from the store: `quillmar export` writes the bytes the export of the original file wrote,
// `inspect` reports what it reported, and `serve` plays the same audio, ranges too. The errors of
// a leg that cannot be read are exact lines and statuses.

#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "recorder_e2e.hpp"
#include "s3_server.hpp"
#include "tools/call_manifest.hpp"
#include "utils/str.hpp"

namespace qm::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* BUCKET = "qm-archive";
constexpr const char* CATALOG = "sqlite:catalog.sqlite";
constexpr const char* UNKNOWN_UUID = "00000000-1111-2222-3333-444444444444";

class ArchiveReadE2eTest : public RecorderE2eTest {
protected:
    // The store's keys, as the archiver and the readers take them.
    static std::vector<std::string> credentials(
        const std::string& secret = S3Server::secret_access_key()) {
        return {"AWS_ACCESS_KEY_ID=" + S3Server::access_key_id(),
                "AWS_SECRET_ACCESS_KEY=" + secret};
    }

    ChildProcess& start_tool_with(std::vector<std::string> args,
                                  std::vector<std::string> environment) {
        return start_program(QM_TOOL_PATH, std::move(args), {}, std::move(environment));
    }

    ToolRun run_tool_with(std::vector<std::string> args, std::vector<std::string> environment) {
        ChildProcess& tool = start_tool_with(std::move(args), std::move(environment));
        const std::optional<ExitStatus> status = tool.wait_exit(std::chrono::seconds(60));
        EXPECT_TRUE(status.has_value()) << "quillmar did not end";
        return {status.value_or(ExitStatus{}), tool.standard_output(), tool.standard_error()};
    }

    // The catalogue's and the storage's options, then `more`.
    std::vector<std::string> leg_args(const std::string& command, const std::string& uuid,
                                      std::vector<std::string> more = {}) {
        std::vector<std::string> args = {
            command, "--catalog", CATALOG, "--storage", storage().string(), "--uuid", uuid};
        args.insert(args.end(), more.begin(), more.end());
        return args;
    }

    std::vector<std::string> store_args() const {
        return {"--endpoint", store->endpoint(), "--path-style"};
    }

    // The catalogue's document of the leg, as `find --json` prints it; null when it is not there.
    json find(const std::string& uuid) {
        const ToolRun run = run_tool({"find", "--catalog", CATALOG, "--storage", storage().string(),
                                      "--uuid", uuid, "--include-removed", "--json"});
        return run.status.exited_with(0) ? json::parse(run.out) : json();
    }

    // `quillmar serve` reading the store with the keys of `environment`, and a client of it.
    std::unique_ptr<httplib::Client> start_serve(std::vector<std::string> environment) {
        ChildProcess& serve = start_tool_with(
            {"serve", "--listen", "127.0.0.1:0", "--catalog", CATALOG, "--storage",
             storage().string(), "--no-auth", "--endpoint", store->endpoint(), "--path-style"},
            std::move(environment));
        const std::string prefix = "listening on http://127.0.0.1:";
        EXPECT_TRUE(poll_until(
            [&] { return serve.standard_output().find('\n') != std::string::npos; }, TIMEOUT))
            << serve.standard_error();
        EXPECT_EQ(serve.standard_output().rfind(prefix, 0), 0u) << serve.standard_output();
        return std::make_unique<httplib::Client>(
            "127.0.0.1", std::stoi("0" + serve.standard_output().substr(prefix.size())));
    }

    // The body of a GET that answered `status`; empty otherwise.
    static std::string body_of(httplib::Client& client, const std::string& path, int status) {
        const httplib::Result result = client.Get(path);
        EXPECT_TRUE(result) << path;
        if (!result) {
            return {};
        }
        EXPECT_EQ(result->status, status) << path << ": " << result->body.substr(0, 300);
        return result->status == status ? result->body : std::string();
    }

    std::unique_ptr<S3Server> store;
};

TEST_F(ArchiveReadE2eTest, ReadsAnArchivedLegFromTheStoreAsTheOriginalFile) {
    start_recorder(std::string("catalog = ") + CATALOG + "\n");
    const fs::path manifest = directory.path() / "manifest.json";
    const ToolRun sent_run = run_tool(
        {"send", "--to", "127.0.0.1:" + std::to_string(port), "--calls", "2", "--duration", "0.4",
         "--rate", "4000", "--loss", "0.1", "--seed", "5", "--manifest", manifest.string()});
    ASSERT_TRUE(sent_run.status.exited_with(0)) << sent_run.err;
    const tools::CallManifest sent = tools::read_manifest(manifest);
    ASSERT_EQ(sent.legs.size(), 2u);
    const std::string uuid = utils::str::print_uuid(sent.legs[0].uuid.data());
    const std::string removed_uuid = utils::str::print_uuid(sent.legs[1].uuid.data());
    ASSERT_TRUE(poll_until([&] { return !find(uuid).is_null() && !find(removed_uuid).is_null(); },
                           TIMEOUT));
    const fs::path media = storage() / find(uuid).at("path").get<std::string>() / "media.qm";
    fs::create_directory(directory.path() / "store");
    store = std::make_unique<S3Server>(directory.path() / "store", BUCKET);
    // One serve, before and after the leg goes to the archive.
    const std::unique_ptr<httplib::Client> client = start_serve(credentials());
    const std::string leg_path = "/api/legs/" + uuid;
    const std::string original_peaks = body_of(*client, leg_path + "/peaks?width=40", 200);

    // The original's export and report, the first by its file, the second by its uuid.
    const fs::path original_wav = directory.path() / "original.wav";
    const ToolRun original_export =
        run_tool({"export", media.string(), "-o", original_wav.string()});
    ASSERT_TRUE(original_export.status.exited_with(0)) << original_export.err;
    const ToolRun original_inspect = run_tool(leg_args("inspect", uuid, {"--json"}));
    ASSERT_TRUE(original_inspect.status.exited_with(0)) << original_inspect.err;
    json original_report = json::parse(original_inspect.out);
    EXPECT_EQ(original_report.at("file"), fs::canonical(media).string());

    // The second leg goes before anything is archived: the catalogue marks it removed.
    fs::remove_all(storage() / find(removed_uuid).at("path").get<std::string>());
    ASSERT_TRUE(
        run_tool({"catalog", "reindex", "--storage", storage().string(), "--catalog", CATALOG})
            .status.exited_with(0));

    ChildProcess& archiver =
        start_tool_with({"archive", "--catalog", CATALOG, "--storage", storage().string(),
                         "--endpoint", store->endpoint(), "--bucket", BUCKET, "--path-style",
                         "--prefix", "calls/", "--delete-local"},
                        credentials());
    ASSERT_TRUE(poll_until([&] { return find(uuid).value("state", "") == "archived"; }, TIMEOUT))
        << archiver.standard_error();
    EXPECT_TRUE(stop(archiver).exited_with(0)) << archiver.standard_error();
    ASSERT_FALSE(fs::exists(media));
    const std::string archive_url = find(uuid).at("archive_url");
    const std::string object = archive_url + "media.qm";

    // export and inspect by uuid read the store.
    const fs::path archived_wav = directory.path() / "archived.wav";
    const ToolRun archived_export = run_tool_with(
        leg_args("export", uuid,
                 {"-o", archived_wav.string(), "--endpoint", store->endpoint(), "--path-style"}),
        credentials());
    ASSERT_TRUE(archived_export.status.exited_with(0)) << archived_export.err;
    EXPECT_TRUE(read_file(archived_wav) == read_file(original_wav));
    EXPECT_EQ(archived_export.err, original_export.err);
    EXPECT_EQ(archived_export.out.substr(archived_wav.string().size()),
              original_export.out.substr(original_wav.string().size()));
    std::vector<std::string> inspect = leg_args("inspect", uuid, {"--json"});
    inspect.insert(inspect.end(), {"--endpoint", store->endpoint(), "--path-style"});
    const ToolRun archived_inspect = run_tool_with(inspect, credentials());
    ASSERT_TRUE(archived_inspect.status.exited_with(0)) << archived_inspect.err;
    json archived_report = json::parse(archived_inspect.out);
    EXPECT_EQ(archived_report.at("file"), object);
    archived_report["file"] = original_report["file"];
    EXPECT_EQ(archived_report, original_report);

    // Legs that cannot be read: a line each, status 2.
    const auto refused = [&](const std::vector<std::string>& args,
                             const std::vector<std::string>& environment, const std::string& line) {
        const ToolRun run = run_tool_with(args, environment);
        EXPECT_TRUE(run.status.exited_with(2)) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, line + "\n");
    };
    const std::string out_wav = (directory.path() / "out.wav").string();
    refused(leg_args("export", UNKNOWN_UUID, {"-o", out_wav}), {},
            std::string("quillmar export: no leg ") + UNKNOWN_UUID + " in the catalogue");
    refused(leg_args("inspect", removed_uuid), {},
            "quillmar inspect: leg " + removed_uuid + " has been removed");
    refused(leg_args("export", uuid, {"-o", out_wav}), {},
            "quillmar export: the recording of leg " + uuid + " is only in the archive, at " +
                archive_url + ": give --endpoint to read it from the store");
    std::vector<std::string> wrong_secret = leg_args("export", uuid, {"-o", out_wav});
    wrong_secret.insert(wrong_secret.end(), {"--endpoint", store->endpoint(), "--path-style"});
    refused(wrong_secret, credentials("not-the-secret"),
            "quillmar export: GET " + object +
                ": HTTP 403 SignatureDoesNotMatch: The request signature we calculated does not "
                "match the signature you provided. Check your key and signing method.");
    refused(leg_args("inspect", uuid, {"--endpoint", store->endpoint(), "--path-style"}), {},
            "quillmar inspect: AWS_ACCESS_KEY_ID is not set");
    EXPECT_FALSE(fs::exists(out_wav));

    // serve plays the leg from the store: the same audio, ranges, peaks and report.
    const std::string wav = read_file(original_wav);
    const std::string audio = body_of(*client, leg_path + "/audio.wav", 200);
    // Compared as a whole, not printed: a failure shows the sizes, not kilobytes of audio.
    EXPECT_TRUE(audio == wav) << audio.size() << " bytes, not " << wav.size();
    const httplib::Result part = client->Get(leg_path + "/audio.wav", {{"Range", "bytes=100-299"}});
    ASSERT_TRUE(part);
    EXPECT_EQ(part->status, 206);
    EXPECT_EQ(part->get_header_value("Content-Range"),
              "bytes 100-299/" + std::to_string(wav.size()));
    EXPECT_TRUE(part->body == wav.substr(100, 200)) << part->body.size() << " bytes";
    EXPECT_EQ(body_of(*client, leg_path + "/peaks?width=40", 200), original_peaks);
    const std::string shown = body_of(*client, leg_path, 200);
    EXPECT_EQ(json::parse(shown.empty() ? "{}" : shown).value("inspect", json()),
              json::parse(archived_inspect.out));

    // A store that refuses serve's keys is a gateway's error, with the store's words.
    const std::unique_ptr<httplib::Client> refused_client =
        start_serve(credentials("not-the-secret"));
    const json refusal = {{"error", "GET " + object +
                                        ": HTTP 403 SignatureDoesNotMatch: The request signature "
                                        "we calculated does not match the signature you "
                                        "provided. Check your key and signing method."}};
    EXPECT_EQ(body_of(*refused_client, leg_path + "/audio.wav", 502), refusal.dump());
}

}  // namespace
}  // namespace qm::test
