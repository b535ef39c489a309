#pragma once

// Recorders that write their closed legs into one PostgreSQL catalogue, for the suites that test
// what reads or works on that catalogue: the recorders themselves, and the archive.
//
// One PostgreSQL server serves every test of a suite, each test in a database of its own; the
// recorders and the tools run as root and find the server's password through PGPASSFILE, as any
// libpq client.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "catalog/leg_summary.hpp"
#include "io/io_session_path.hpp"
#include "postgres_server.hpp"
#include "recorder_e2e.hpp"
#include "tools/call_manifest.hpp"

namespace qm::test {

// Covers the writer's retries (1, 2, 4, 8, then 10 s apart) after the database is back, on a
// loaded machine.
constexpr std::chrono::seconds CATCH_UP_TIMEOUT{60};
// Short calls: 20 frames a side.
const std::vector<std::string> SHORT_CALLS = {"--duration", "0.4", "--rate", "2000"};

// A recorder of the test with its own storage, port and metrics file.
struct Recorder {
    ChildProcess* process = nullptr;
    std::uint16_t port = 0;
    std::filesystem::path storage;
    std::filesystem::path metrics;
};

// A row `quillmar find --json` printed.
struct FoundLeg {
    catalog::LegSummary summary;
    std::string state;
    // Set once the leg is archived.
    std::optional<std::string> archive_url;
};

inline std::string host_name() {
    char host[256] = {};
    EXPECT_EQ(::gethostname(host, sizeof host - 1), 0);
    return host;
}

class CataloguedRecordersTest : public RecorderE2eTest {
protected:
    static void SetUpTestSuite() {
        s_directory = std::make_unique<TempDirectory>();
        s_server = std::make_unique<PostgresServer>(s_directory->path());
        s_server_running = true;
        // The recorders and the tool inherit it.
        ::setenv("PGPASSFILE", s_server->password_file().c_str(), 1);
    }

    static void TearDownTestSuite() {
        s_server.reset();
        s_directory.reset();
    }

    void SetUp() override {
        ASSERT_NE(s_server, nullptr);
        // A test that failed while the server was stopped leaves it so.
        if (!s_server_running) {
            start_server();
        }
        m_database = "catalog" + std::to_string(++s_databases);
        s_server->create_database(m_database);
    }

    static void stop_server() {
        s_server->stop();
        s_server_running = false;
    }

    static void start_server() {
        s_server->start();
        s_server_running = true;
    }

    std::string catalog_uri() const { return s_server->uri(m_database); }

    // Starts a recorder that catalogues into the test's database, with its storage and metrics
    // file named after `name`, and waits until it receives.
    Recorder start_catalogued(const std::string& name) {
        Recorder recorder;
        recorder.port = pick_port();
        recorder.storage = directory.path() / (name + "-storage");
        recorder.metrics = directory.path() / (name + ".prom");
        const std::string config = directory.write_file(
            name + ".conf", "storage = " + recorder.storage.string() + "\nport = " +
                                std::to_string(recorder.port) + "\ncatalog = " + catalog_uri() +
                                "\nmetrics_file = " + recorder.metrics.string() + "\n");
        recorder.process = &start({"--config", config});
        EXPECT_TRUE(wait_receiving(*recorder.process)) << recorder.process->standard_error();
        return recorder;
    }

    // Starts `quillmar send` to `recorder`, its manifest in `manifest`.
    ChildProcess& start_send(const Recorder& recorder, const std::filesystem::path& manifest,
                             std::vector<std::string> options) {
        std::vector<std::string> args = {"send", "--to",
                                         "127.0.0.1:" + std::to_string(recorder.port), "--manifest",
                                         manifest.string()};
        args.insert(args.end(), options.begin(), options.end());
        args.insert(args.end(), SHORT_CALLS.begin(), SHORT_CALLS.end());
        return start_tool(std::move(args));
    }

    void send_calls(const Recorder& recorder, const std::filesystem::path& manifest,
                    std::vector<std::string> options) {
        ChildProcess& sender = start_send(recorder, manifest, std::move(options));
        EXPECT_TRUE(finish(sender).exited_with(0)) << sender.standard_error();
    }

    static std::filesystem::path summary_of(const Recorder& recorder, const tools::SentLeg& leg) {
        return (recorder.storage / io::session_path(leg.ts, leg.uuid)).parent_path() / "leg.json";
    }

    // Waits until every leg of `sent` has its summary in the recorder's storage.
    static bool wait_summaries(const Recorder& recorder, const tools::CallManifest& sent) {
        return poll_until(
            [&] {
                return std::all_of(sent.legs.begin(), sent.legs.end(),
                                   [&](const tools::SentLeg& leg) {
                                       return std::filesystem::exists(summary_of(recorder, leg));
                                   });
            },
            std::chrono::seconds(30), std::chrono::milliseconds(20));
    }

    // The legs `quillmar find --catalog URI --json` prints with `options` (none when it finds
    // none); unset, with its standard error in `m_find_error`, when it cannot read the catalogue.
    std::optional<std::vector<FoundLeg>> find(std::vector<std::string> options = {}) {
        std::vector<std::string> args = {"find", "--catalog", catalog_uri(), "--json"};
        args.insert(args.end(), options.begin(), options.end());
        ChildProcess& tool = start_tool(std::move(args));
        const ExitStatus status = finish(tool);
        if (!status.exited_with(0) && !status.exited_with(1)) {
            m_find_error = status.describe() + ": " + tool.standard_error();
            return std::nullopt;
        }
        std::vector<FoundLeg> legs;
        std::istringstream lines(tool.standard_output());
        std::string line;
        while (std::getline(lines, line)) {
            const catalog::Json row = catalog::Json::parse(line);
            const catalog::Json& url = row.at("archive_url");
            legs.push_back({row.get<catalog::LegSummary>(), row.at("state").get<std::string>(),
                            url.is_null() ? std::nullopt : std::optional(url.get<std::string>())});
        }
        return legs;
    }

    // Polls `find` until it gives `count` legs, or the catch-up's deadline passes. Until the
    // recorder first reaches the database, the catalogue may not even have its tables.
    std::vector<FoundLeg> find_until(std::size_t count) {
        std::optional<std::vector<FoundLeg>> legs;
        EXPECT_TRUE(poll_until(
            [&] {
                legs = find();
                return legs && legs->size() == count;
            },
            CATCH_UP_TIMEOUT, std::chrono::milliseconds(200)))
            << (legs ? std::to_string(legs->size()) + " legs of " + std::to_string(count)
                     : m_find_error);
        return legs.value_or(std::vector<FoundLeg>{});
    }

    void stop_recorder(Recorder& recorder) {
        EXPECT_TRUE(stop(*recorder.process).exited_with(0)) << recorder.process->standard_error();
    }

    std::string m_database;
    std::string m_find_error;

    static inline std::unique_ptr<TempDirectory> s_directory;
    static inline std::unique_ptr<PostgresServer> s_server;
    static inline bool s_server_running = false;
    static inline int s_databases = 0;
};

}  // namespace qm::test
