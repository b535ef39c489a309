// Recorders writing their closed legs into one PostgreSQL catalogue, read back with `quillmar
// find`: two recorders at once, each row naming its own; a database that goes away while calls
// are recorded, and one that is not there when the recorder starts. Recording never waits for the
// catalogue, and the catalogue catches up from the storage once it answers, without a restart.
//
// One PostgreSQL server serves every test of the suite, each test in a database of its own; the
// recorders run as root and find the server's password through PGPASSFILE, as any libpq client.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "catalog/leg_summary.hpp"
#include "io/io_session_path.hpp"
#include "postgres_server.hpp"
#include "recorder_e2e.hpp"
#include "tools/call_manifest.hpp"
#include "utils/str.hpp"

namespace qm::test {
namespace {

using tools::CallManifest;
using tools::Expectation;
using tools::SentLeg;

// Covers the writer's retries (1, 2, 4, 8, then 10 s apart) after the database is back, on a
// loaded machine.
constexpr std::chrono::seconds CATCH_UP_TIMEOUT{60};
// Short calls: 20 frames a side.
const std::vector<std::string> SHORT_CALLS = {"--duration", "0.4", "--rate", "2000"};

const std::string OUTAGE =
    "CATALOG_WRITER: the catalogue cannot be written, recording goes on and the catalogue "
    "catches up from the storage when it answers: ";
const std::string ANSWERS =
    "CATALOG_WRITER: the catalogue answers again, caught up with the storage: ";

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
};

std::string host_name() {
    char host[256] = {};
    EXPECT_EQ(::gethostname(host, sizeof host - 1), 0);
    return host;
}

std::size_t lost_of(const tools::SentSide& side) {
    return static_cast<std::size_t>(
        std::count(side.expectations.begin(), side.expectations.end(), Expectation::LOST));
}

class CatalogRecordersE2eTest : public RecorderE2eTest {
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

    static std::filesystem::path summary_of(const Recorder& recorder, const SentLeg& leg) {
        return (recorder.storage / io::session_path(leg.ts, leg.uuid)).parent_path() / "leg.json";
    }

    // Waits until every leg of `sent` has its summary in the recorder's storage.
    static bool wait_summaries(const Recorder& recorder, const CallManifest& sent) {
        return poll_until(
            [&] {
                return std::all_of(sent.legs.begin(), sent.legs.end(), [&](const SentLeg& leg) {
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
            legs.push_back({row.get<catalog::LegSummary>(), row.at("state").get<std::string>()});
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

    // Every leg of `sent` is in `found` once, as the recorder's summary on disk says, which agrees
    // with the manifest: its recorder, call id and per side the frames kept and the packets lost.
    static void expect_legs_of(const std::vector<FoundLeg>& found, const Recorder& recorder,
                               const CallManifest& sent) {
        for (std::size_t index = 0; index < sent.legs.size(); ++index) {
            const SentLeg& leg = sent.legs[index];
            const std::string uuid = utils::str::print_uuid(leg.uuid.data());
            const auto row = std::find_if(found.begin(), found.end(), [&](const FoundLeg& one) {
                return one.summary.uuid == uuid;
            });
            ASSERT_NE(row, found.end()) << uuid;
            EXPECT_EQ(std::count_if(found.begin(), found.end(),
                                    [&](const FoundLeg& one) { return one.summary.uuid == uuid; }),
                      1);
            EXPECT_EQ(row->state, "recorded");
            EXPECT_EQ(row->summary.host, host_name());
            EXPECT_EQ(row->summary.port, recorder.port) << uuid;
            EXPECT_EQ(row->summary.call_id, "quillmar-send-" + std::to_string(index));
            EXPECT_EQ(row->summary.start_us, leg.ts);
            for (std::size_t side = 0; side < 2; ++side) {
                const tools::SentSide& frames = leg.sides[side];
                EXPECT_EQ(row->summary.sides[side].frames, frames.frames.size() - lost_of(frames))
                    << uuid << " side " << side;
                EXPECT_EQ(row->summary.sides[side].lost_packets, lost_of(frames))
                    << uuid << " side " << side;
            }
            EXPECT_EQ(catalog::render(row->summary), read_file(summary_of(recorder, leg)));
        }
    }

    // `quillmar verify`: every leg of the manifest in the recorder's storage holds exactly what
    // was sent.
    void expect_verified(const Recorder& recorder, const std::filesystem::path& manifest,
                         std::size_t legs) {
        ChildProcess& tool = start_tool(
            {"verify", "--manifest", manifest.string(), "--storage", recorder.storage.string()});
        EXPECT_TRUE(finish(tool).exited_with(0)) << tool.standard_output() << tool.standard_error();
        EXPECT_EQ(tool.standard_output(),
                  std::to_string(legs) + " legs verified, 0 incomplete, 0 missing\n");
    }

    // The outage's one WARNING, whose reason (libpq's words) starts with `reason`, and the one
    // recovery line after it, which is returned.
    static std::string expect_one_outage(const Recorder& recorder, const std::string& reason) {
        const std::vector<LogLine> lines = log_lines(*recorder.process);
        const std::vector<std::string> warnings = texts(lines, "WARNING", "catalog_writer.cpp");
        EXPECT_EQ(warnings.size(), 1u) << recorder.process->standard_error();
        const std::string warning = warnings.empty() ? std::string() : warnings[0];
        EXPECT_EQ(warning.rfind(OUTAGE + reason, 0), 0u) << warning;
        std::vector<std::string> recoveries;
        for (const std::string& text : texts(lines, "SYSTEM", "catalog_writer.cpp")) {
            if (text.rfind(ANSWERS, 0) == 0) {
                recoveries.push_back(text);
            }
        }
        EXPECT_EQ(recoveries.size(), 1u) << recorder.process->standard_error();
        const std::string recovery = recoveries.empty() ? std::string() : recoveries[0];
        EXPECT_LT(text_index(lines, warning), text_index(lines, recovery));
        return recovery;
    }

    // Every line the recorder wrote is a whole log line (time, level, place, text), or a line of
    // the statistics report: a reason from elsewhere does not break its line.
    static void expect_whole_log_lines(const Recorder& recorder) {
        static const std::regex columns(
            R"(^\d{4}\.\d{2}\.\d{2} \d{2}:\d{2}:\d{2}\.\d{6} \| [A-Z]+ +\| [^ :]+:\d+ \| .*$)");
        for (const std::string& line : recorder.process->error_lines()) {
            EXPECT_TRUE(line.starts_with("*") || std::regex_match(line, columns)) << line;
        }
    }

    // The recorder is still the one process started at the beginning, receiving since then.
    static void expect_still_recording(Recorder& recorder) {
        EXPECT_FALSE(recorder.process->wait_exit(std::chrono::milliseconds(0)).has_value());
        const std::vector<std::string> lines = recorder.process->error_lines();
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [](const std::string& line) {
                                    return line.find(RECEIVING) != std::string::npos;
                                }),
                  1);
    }

    // Waits until the metrics file counts `attempts` failed attempts to reach or write the
    // catalogue: the outage has outlasted a retry.
    static bool wait_failed_attempts(const Recorder& recorder, std::uint64_t attempts) {
        return poll_until(
            [&] {
                return metric_samples(
                           recorder.metrics)["quillmarwriter_catalog_write_failures_total"] >=
                       attempts;
            },
            CATCH_UP_TIMEOUT, std::chrono::milliseconds(100));
    }

    // Waits until the metrics file counts `legs` legs written to the catalogue, then expects none
    // waiting, none overflowed and, when given, `failures` failed attempts.
    static void expect_catalogue_metrics(const Recorder& recorder, std::uint64_t legs,
                                         std::optional<std::uint64_t> failures = std::nullopt) {
        std::map<std::string, std::uint64_t> values;
        EXPECT_TRUE(poll_until(
            [&] {
                values = metric_samples(recorder.metrics);
                return values["quillmarwriter_catalog_rows_written_total"] == legs;
            },
            CATCH_UP_TIMEOUT, std::chrono::milliseconds(100)))
            << read_file(recorder.metrics);
        const auto sample = [&](const std::string& name) {
            const auto found = values.find("quillmarwriter_catalog_" + name);
            EXPECT_NE(found, values.end()) << name;
            return found == values.end() ? std::nullopt : std::optional(found->second);
        };
        EXPECT_EQ(sample("rows_written_total"), legs);
        EXPECT_EQ(sample("rows_waiting"), 0u);
        EXPECT_EQ(sample("rows_overflowed_total"), 0u);
        const std::optional<std::uint64_t> failed = sample("write_failures_total");
        if (failures) {
            EXPECT_EQ(failed, failures);
        }
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

// Two recorders on two ports with two storages, sent ten calls each at the same time: every leg
// is in the one catalogue once, under the recorder that took it, as its summary on disk says.
TEST_F(CatalogRecordersE2eTest, TwoRecordersShareOneCatalogue) {
    Recorder first = start_catalogued("first");
    Recorder second = start_catalogued("second");
    ASSERT_NE(first.port, second.port);
    const std::filesystem::path first_manifest = directory.path() / "first.json";
    const std::filesystem::path second_manifest = directory.path() / "second.json";

    ChildProcess& to_first =
        start_send(first, first_manifest, {"--calls", "10", "--loss", "0.05", "--seed", "7"});
    ChildProcess& to_second = start_send(second, second_manifest, {"--calls", "10"});
    EXPECT_TRUE(finish(to_first).exited_with(0)) << to_first.standard_error();
    EXPECT_TRUE(finish(to_second).exited_with(0)) << to_second.standard_error();
    const CallManifest first_sent = tools::read_manifest(first_manifest);
    const CallManifest second_sent = tools::read_manifest(second_manifest);
    std::size_t withheld = 0;
    for (const SentLeg& leg : first_sent.legs) {
        withheld += lost_of(leg.sides[0]) + lost_of(leg.sides[1]);
    }
    // What seed 7 withholds of 10 legs of 2 sides of 20 frames: the rows have losses to show.
    ASSERT_EQ(withheld, 20u);

    const std::vector<FoundLeg> found = find_until(20);

    ASSERT_EQ(found.size(), 20u);
    expect_legs_of(found, first, first_sent);
    expect_legs_of(found, second, second_sent);
    // Both senders number their calls alike: call 3 is one leg on each recorder.
    const std::vector<FoundLeg> call =
        find({"--call-id", "quillmar-send-3"}).value_or(std::vector<FoundLeg>{});
    ASSERT_EQ(call.size(), 2u);
    const auto port_of = [&](const SentLeg& leg) {
        const std::string uuid = utils::str::print_uuid(leg.uuid.data());
        const auto row = std::find_if(call.begin(), call.end(), [&](const FoundLeg& one) {
            return one.summary.uuid == uuid;
        });
        return row == call.end() ? 0 : row->summary.port;
    };
    EXPECT_EQ(port_of(first_sent.legs.at(3)), first.port);
    EXPECT_EQ(port_of(second_sent.legs.at(3)), second.port);
    expect_catalogue_metrics(first, 10, 0);
    expect_catalogue_metrics(second, 10, 0);
    for (Recorder* recorder : {&first, &second}) {
        EXPECT_EQ(texts(log_lines(*recorder->process), "WARNING", "catalog_writer.cpp"),
                  std::vector<std::string>{});
        stop_recorder(*recorder);
    }
}

// The database stops before twenty calls come and starts again once they are on disk: recording
// goes on, the catalogue gets every leg without a restart of the recorder, and the outage is one
// WARNING and one line when it ends.
TEST_F(CatalogRecordersE2eTest, CatalogueCatchesUpAfterTheDatabaseWasDown) {
    Recorder recorder = start_catalogued("recorder");
    // A call catalogued first: the writer has caught up with its storage at the start and holds a
    // connection, which the stop breaks under it.
    const std::filesystem::path before = directory.path() / "before.json";
    send_calls(recorder, before, {"--calls", "1"});
    ASSERT_EQ(find_until(1).size(), 1u);
    const std::filesystem::path manifest = directory.path() / "manifest.json";
    stop_server();

    send_calls(recorder, manifest, {"--calls", "20", "--loss", "0.05", "--seed", "3"});
    const CallManifest sent = tools::read_manifest(manifest);
    ASSERT_EQ(sent.legs.size(), 20u);
    ASSERT_TRUE(wait_summaries(recorder, sent)) << recorder.process->standard_error();
    ASSERT_TRUE(wait_failed_attempts(recorder, 2)) << read_file(recorder.metrics);
    start_server();
    const std::vector<FoundLeg> found = find_until(21);

    ASSERT_EQ(found.size(), 21u);
    expect_legs_of(found, recorder, tools::read_manifest(before));
    expect_legs_of(found, recorder, sent);
    // The write that found the database gone lost its batch, which the catch-up read from the
    // storage; the queue kept the rest.
    const std::string recovery = expect_one_outage(recorder, "catalogue: statement failed: ");
    static const std::regex read_from_storage(
        literal(ANSWERS) + R"(reindexed (\d+) legs: (\d+) added, 0 updated, 0 removed, 0 skipped)");
    std::smatch counts;
    ASSERT_TRUE(std::regex_match(recovery, counts, read_from_storage)) << recovery;
    EXPECT_EQ(counts[2], counts[1]);
    EXPECT_GE(std::stoi(counts[1]), 1);
    EXPECT_LE(std::stoi(counts[1]), 20);
    expect_whole_log_lines(recorder);
    expect_catalogue_metrics(recorder, 21);
    expect_still_recording(recorder);
    expect_verified(recorder, manifest, 20);
    stop_recorder(recorder);
}

// Without its database at the start the recorder records all the same; the legs it closed wait in
// its queue and all go in once the database is there.
TEST_F(CatalogRecordersE2eTest, RecorderStartsWithoutItsDatabase) {
    stop_server();
    Recorder recorder = start_catalogued("recorder");
    ASSERT_TRUE(recorder.process->wait_for_line(OUTAGE, TIMEOUT))
        << recorder.process->standard_error();
    const std::filesystem::path manifest = directory.path() / "manifest.json";

    send_calls(recorder, manifest, {"--calls", "5", "--loss", "0.05", "--seed", "5"});
    const CallManifest sent = tools::read_manifest(manifest);
    ASSERT_EQ(sent.legs.size(), 5u);
    ASSERT_TRUE(wait_summaries(recorder, sent)) << recorder.process->standard_error();
    ASSERT_TRUE(wait_failed_attempts(recorder, 2)) << read_file(recorder.metrics);
    start_server();
    const std::vector<FoundLeg> found = find_until(5);

    ASSERT_EQ(found.size(), 5u);
    expect_legs_of(found, recorder, sent);
    // Every leg was in the queue, which the catch-up writes before it looks at the storage.
    EXPECT_EQ(expect_one_outage(recorder, "catalogue: cannot connect to PostgreSQL: "),
              ANSWERS + "reindexed 0 legs: 0 added, 0 updated, 0 removed, 0 skipped");
    expect_whole_log_lines(recorder);
    expect_catalogue_metrics(recorder, 5);
    expect_still_recording(recorder);
    expect_verified(recorder, manifest, 5);
    stop_recorder(recorder);
}

}  // namespace
}  // namespace qm::test
