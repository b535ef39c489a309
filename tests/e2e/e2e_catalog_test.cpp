// The recorder's catalogue in an SQLite file, read back with `quillmar find`: every closed leg
// gets its row, a restart after a kill catches up from the storage, the cleanup's removals mark
// rows removed, bad summaries are skipped with one line each, and the metrics count the rows.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "catalog/leg_summary.hpp"
#include "io/io_session_path.hpp"
#include "media/packet_encoder.hpp"
#include "numbered_legs.hpp"
#include "recorder_e2e.hpp"
#include "tools/call_manifest.hpp"
#include "utils/str.hpp"

namespace qm::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::system_clock;
using nlohmann::json;
using tools::CallManifest;
using tools::Expectation;
using tools::SentLeg;

constexpr const char* IN_STORAGE = "sqlite:catalog.sqlite";
// `quillmar find` and the catalogue thread are polled less often than a file: each look is a
// process.
constexpr std::chrono::milliseconds FIND_INTERVAL{100};
// The metrics file is written once per report period (5 s).
constexpr std::chrono::milliseconds METRICS_TIMEOUT{15000};

std::uint64_t now_us() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
            .count());
}

// The UTC time `quillmar find` takes, to the second: "2026-11-24T11:52:00Z".
std::string utc_seconds(std::uint64_t us) {
    return catalog::utc_text(us).substr(0, 19) + "Z";
}

std::string uuid_text(const SentLeg& leg) {
    return utils::str::print_uuid(leg.uuid.data());
}

std::uint64_t lost_of(const tools::SentSide& side) {
    return static_cast<std::uint64_t>(
        std::count(side.expectations.begin(), side.expectations.end(), Expectation::LOST));
}

// The uuids of the documents, each once; a uuid found twice fails the test.
std::set<std::string> uuids_of(const std::vector<json>& documents) {
    std::set<std::string> uuids;
    for (const json& document : documents) {
        EXPECT_TRUE(uuids.insert(document.at("uuid").get<std::string>()).second)
            << "found twice: " << document.dump();
    }
    return uuids;
}

std::set<std::string> uuids_of(const std::vector<SentLeg>& legs) {
    std::set<std::string> uuids;
    for (const SentLeg& leg : legs) {
        uuids.insert(uuid_text(leg));
    }
    return uuids;
}

// The legs under the storage that have a summary.
std::size_t summaries_in(const fs::path& storage) {
    std::size_t count = 0;
    std::error_code error;
    for (fs::recursive_directory_iterator it(storage, error), end; !error && it != end;
         it.increment(error)) {
        count += it->path().filename() == "leg.json" ? 1 : 0;
    }
    return count;
}

class CatalogE2eTest : public RecorderE2eTest {
protected:
    // `quillmar send` of `calls` short calls to the recorder started last, with `options`; what
    // it sent.
    CallManifest send_calls(std::size_t calls, std::vector<std::string> options = {}) {
        const fs::path manifest =
            directory.path() / ("manifest" + std::to_string(m_manifests++) + ".json");
        std::vector<std::string> args = {"send",
                                         "--to",
                                         "127.0.0.1:" + std::to_string(port),
                                         "--calls",
                                         std::to_string(calls),
                                         "--duration",
                                         "0.4",
                                         "--rate",
                                         "4000",
                                         "--manifest",
                                         manifest.string()};
        args.insert(args.end(), options.begin(), options.end());
        const ToolRun run = run_tool(std::move(args));
        EXPECT_TRUE(run.status.exited_with(0)) << run.err;
        return tools::read_manifest(manifest);
    }

    ToolRun find(std::vector<std::string> options, const std::string& catalog = IN_STORAGE) {
        std::vector<std::string> args = {
            "find", "--catalog", catalog, "--storage", storage().string(), "--limit", "1000"};
        args.insert(args.end(), options.begin(), options.end());
        return run_tool(std::move(args));
    }

    // The documents of `find --json` with `options`; none when it failed or found nothing.
    std::vector<json> found(std::vector<std::string> options,
                            const std::string& catalog = IN_STORAGE) {
        options.push_back("--json");
        const ToolRun run = find(std::move(options), catalog);
        std::vector<json> documents;
        if (run.status.exited_with(0)) {
            for (const std::string& line : split_lines(run.out)) {
                documents.push_back(json::parse(line));
            }
        }
        return documents;
    }

    // Polls `find --json` with `options` until it gives `count` legs; those it gave last.
    std::vector<json> found_when(std::size_t count, const std::vector<std::string>& options,
                                 const std::string& catalog = IN_STORAGE) {
        std::vector<json> documents;
        EXPECT_TRUE(poll_until(
            [&] {
                documents = found(options, catalog);
                return documents.size() == count;
            },
            TIMEOUT, FIND_INTERVAL))
            << "found " << documents.size() << " legs, not " << count;
        return documents;
    }

    // Sends leg `number` (see numbered_legs.hpp) started at `ts` with `frames` frames on side 0,
    // and its terminate unless `open`; the leg's directory relative to the storage.
    std::string send_leg(std::uint32_t number, std::uint64_t ts, std::uint32_t frames,
                         bool open = false) const {
        media::StartFields start = numbered_start(number);
        start.ts = ts;
        start.sync_ts = ts;
        send(media::encode_start(start));
        for (std::uint32_t seq = 1; seq <= frames; ++seq) {
            send(media::encode_data(numbered_frame(number, seq)));
        }
        if (!open) {
            send(media::encode_terminate({start.header}));
        }
        return fs::path(io::session_path(ts, start.header.uuid)).parent_path().string();
    }

    // A configuration file that sets the storage, a port free a moment ago (kept in `port`) and
    // `settings`, for a recorder started more than once as the same.
    std::string configuration(const std::string& settings) {
        return directory.write_file("writer.conf", "storage = " + storage().string() +
                                                       "\nport = " + std::to_string(pick_port()) +
                                                       "\n" + settings);
    }

    ChildProcess& start_from(const std::string& config) {
        ChildProcess& process = start({"--config", config});
        EXPECT_TRUE(wait_receiving(process)) << process.standard_error();
        return process;
    }

    // Polls the metrics file until it counts `rows` rows written; its samples then.
    std::map<std::string, std::uint64_t> metrics_when_written(std::uint64_t rows) const {
        std::map<std::string, std::uint64_t> values;
        EXPECT_TRUE(poll_until(
            [&] {
                values = metric_samples(metrics_file());
                return values["quillmarwriter_catalog_rows_written_total"] == rows;
            },
            METRICS_TIMEOUT, FIND_INTERVAL))
            << values["quillmarwriter_catalog_rows_written_total"] << " rows written, not " << rows;
        return values;
    }

    fs::path metrics_file() const { return directory.path() / "quillmarwriter.prom"; }

private:
    std::size_t m_manifests = 0;
};

// The catalogue's row of a sent leg agrees with the manifest: where its file is, and per side the
// frames kept and the packets withheld.
void expect_row_of(const json& row, const SentLeg& leg, const std::string& call_id) {
    EXPECT_EQ(row.at("uuid"), uuid_text(leg));
    EXPECT_EQ(row.at("session_id"), leg.id);
    EXPECT_EQ(row.at("call_id"), call_id);
    EXPECT_EQ(row.at("start_us"), leg.ts);
    EXPECT_EQ(row.at("closed_by"), "terminate");
    EXPECT_EQ(row.at("state"), "recorded");
    EXPECT_EQ(row.at("path"), fs::path(io::session_path(leg.ts, leg.uuid)).parent_path().string());
    for (std::size_t side = 0; side < 2; ++side) {
        const json& shown = row.at("sides").at(side);
        const std::uint64_t lost = lost_of(leg.sides[side]);
        EXPECT_EQ(shown.at("frames"), leg.sides[side].frames.size() - lost) << "side " << side;
        EXPECT_EQ(shown.at("lost_packets"), lost) << "side " << side;
    }
}

// Fifty calls in two sends, the second with loss, so that every call id names two legs; a leg
// from 2021 stays outside the time window of the sends.
TEST_F(CatalogE2eTest, FindGivesTheLegsOfACallIdAndOfATimeWindow) {
    ChildProcess& recorder = start_recorder(std::string("catalog = ") + IN_STORAGE + "\n");
    send_leg(1, media::StartFields{}.ts, 3);
    const std::uint64_t before = now_us();
    const CallManifest clean = send_calls(25);
    const CallManifest lossy = send_calls(25, {"--loss", "0.05", "--seed", "7"});
    const std::uint64_t after = now_us();
    ASSERT_EQ(clean.legs.size(), 25u);
    ASSERT_EQ(lossy.legs.size(), 25u);
    std::vector<SentLeg> sent = clean.legs;
    sent.insert(sent.end(), lossy.legs.begin(), lossy.legs.end());

    const std::vector<json> every = found_when(51, {});
    const std::vector<json> window =
        found({"--from", utc_seconds(before), "--to", utc_seconds(after + 1'000'000)});

    EXPECT_EQ(uuids_of(window), uuids_of(sent));
    ASSERT_EQ(window.size(), 50u);
    std::map<std::string, json> by_uuid;
    for (const json& row : every) {
        by_uuid[row.at("uuid").get<std::string>()] = row;
    }
    std::uint64_t withheld = 0;
    for (std::size_t index = 0; index < 25; ++index) {
        const std::string call_id = "quillmar-send-" + std::to_string(index);
        expect_row_of(by_uuid[uuid_text(clean.legs[index])], clean.legs[index], call_id);
        expect_row_of(by_uuid[uuid_text(lossy.legs[index])], lossy.legs[index], call_id);
        withheld += lost_of(lossy.legs[index].sides[0]) + lost_of(lossy.legs[index].sides[1]);
    }
    // What seed 7 withholds of 25 legs of 2 sides of 20 frames.
    EXPECT_EQ(withheld, 40u);

    // A call of the lossy send that lost packets on side 1: its two legs, and their files.
    std::size_t call = 0;
    while (call < 25 && lost_of(lossy.legs[call].sides[1]) == 0) {
        ++call;
    }
    ASSERT_LT(call, 25u);
    const std::string call_id = "quillmar-send-" + std::to_string(call);
    const ToolRun lines = find({"--call-id", call_id});
    const std::vector<json> legs = found({"--call-id", call_id});

    EXPECT_TRUE(lines.status.exited_with(0)) << lines.err;
    EXPECT_EQ(split_lines(lines.out).size(), 2u) << lines.out;
    EXPECT_EQ(uuids_of(legs),
              (std::set<std::string>{uuid_text(clean.legs[call]), uuid_text(lossy.legs[call])}));
    for (const json& leg : legs) {
        const fs::path file = storage() / leg.at("path").get<std::string>() / "media.qm";
        const ToolRun inspect = run_tool({"inspect", "--json", file.string()});
        ASSERT_TRUE(inspect.status.exited_with(0)) << inspect.err;
        const json shown = json::parse(inspect.out);
        EXPECT_EQ(leg.at("bytes"), fs::file_size(file));
        for (std::size_t side = 0; side < 2; ++side) {
            const json& in_file = shown.at("sides").at(side);
            const json& in_row = leg.at("sides").at(side);
            for (const char* field : {"frames", "samples", "first_offset", "last_offset"}) {
                EXPECT_EQ(in_row.at(field), in_file.at(field)) << field << " of side " << side;
            }
            // Every packet carries 160 samples.
            EXPECT_EQ(in_row.at("lost_packets").get<std::uint64_t>() * 160,
                      in_file.at("missing_samples"))
                << "side " << side;
        }
    }

    const ToolRun missing = find({"--call-id", "quillmar-send-25"});
    EXPECT_TRUE(missing.status.exited_with(1)) << missing.status.describe();
    EXPECT_EQ(missing.out, "");
    EXPECT_EQ(missing.err, "");
    // The finds read while the recorder wrote, and never kept it from writing.
    EXPECT_EQ(texts(log_lines(recorder), "WARNING", "catalog_writer.cpp"),
              std::vector<std::string>{});
}

// Killed with 30 legs closed and one still open: the restart catches up from the storage, each
// closed leg once, and the open leg from its media file alone.
TEST_F(CatalogE2eTest, ARestartAfterAKillCatchesUpEveryLegOnce) {
    const std::string config =
        configuration(std::string("catalog = ") + IN_STORAGE + "\nmedia_buffer_size = 400\n");
    ChildProcess& killed = start_from(config);
    // The second frame makes the writer write the header and the first.
    const std::string open = send_leg(1, now_us(), 2, true);
    const CallManifest sent = send_calls(30);
    ASSERT_TRUE(poll_until([&] { return summaries_in(storage()) == 30; }, TIMEOUT))
        << killed.standard_error();
    ASSERT_TRUE(poll_until(
        [&] {
            std::error_code error;
            return fs::file_size(storage() / open / "media.qm", error) == 48 + 332;
        },
        TIMEOUT));
    const ExitStatus status = stop(killed, SIGKILL);
    ASSERT_EQ(status.signal, SIGKILL) << status.describe();

    ChildProcess& restarted = start_from(config);
    const std::vector<json> rows = found_when(31, {});

    std::set<std::string> expected = uuids_of(sent.legs);
    expected.insert(fs::path(open).filename().string());
    EXPECT_EQ(uuids_of(rows), expected);
    const std::vector<json> cut = found({"--uuid", fs::path(open).filename().string()});
    ASSERT_EQ(cut.size(), 1u);
    EXPECT_EQ(cut[0].at("closed_by"), "unknown");
    EXPECT_EQ(cut[0].at("state"), "recorded");
    EXPECT_EQ(cut[0].at("call_id"), "");
    EXPECT_EQ(cut[0].at("path"), open);
    EXPECT_EQ(cut[0].at("bytes"), 48 + 332);
    EXPECT_EQ(cut[0].at("recorder").at("port"), port);
    EXPECT_EQ(cut[0].at("sides").at(0).at("frames"), 1);
    EXPECT_EQ(cut[0].at("sides").at(1).at("frames"), 0);
    EXPECT_TRUE(stop(restarted).exited_with(0)) << restarted.standard_error();
    EXPECT_EQ(texts(log_lines(restarted), "WARNING", "catalog_writer.cpp"),
              std::vector<std::string>{});
}

// Legs of ten and nine minutes ago and one of now, about 7.5 kB each with their summaries,
// against a threshold of 10 kB: the cleanup removes the two old minutes, one at a time as the
// next leg tips the measure over, and the catalogue marks their legs removed.
TEST_F(CatalogE2eTest, LegsTheCleanupRemovedAreMarkedRemovedAndHidden) {
    const std::string catalog = "sqlite:" + (directory.path() / "catalog.sqlite").string();
    const std::uint64_t before = now_us();
    start_recorder("catalog = " + catalog +
                   "\nstorage_cleanup_algo = du\nstorage_cleanup_policy = minute\n"
                   "storage_cleanup_threshold = 10000\nstorage_cleanup_timer = 1s\n"
                   "storage_cleanup_spare_open_legs = true\n");
    constexpr std::uint64_t MINUTE_US = 60'000'000;
    const std::string oldest = send_leg(1, now_us() - 10 * MINUTE_US, 20);
    const std::string older = send_leg(2, now_us() - 9 * MINUTE_US, 20);
    const std::string current = send_leg(3, now_us(), 20);

    std::vector<json> rows;
    ASSERT_TRUE(poll_until(
        [&] {
            rows = found({"--include-removed"}, catalog);
            return rows.size() == 3 && rows[0].at("state") == "removed" &&
                   rows[1].at("state") == "removed";
        },
        TIMEOUT, FIND_INTERVAL))
        << (rows.empty() ? std::string("no rows") : json(rows).dump());
    const std::uint64_t after = now_us();

    // Oldest first.
    EXPECT_EQ(rows[0].at("path"), oldest);
    EXPECT_EQ(rows[1].at("path"), older);
    EXPECT_EQ(rows[2].at("path"), current);
    EXPECT_EQ(rows[2].at("state"), "recorded");
    EXPECT_EQ(rows[2].at("removed_at_us"), nullptr);
    for (std::size_t gone = 0; gone < 2; ++gone) {
        const std::uint64_t removed_at = rows[gone].at("removed_at_us");
        EXPECT_GE(removed_at, before);
        EXPECT_LE(removed_at, after);
        EXPECT_EQ(rows[gone].at("removed_at_utc"), catalog::utc_text(removed_at));
        EXPECT_FALSE(fs::exists(storage() / rows[gone].at("path").get<std::string>()));
    }
    const std::vector<json> shown = found({}, catalog);
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].at("path"), current);
    const ToolRun removed = find({"--uuid", rows[0].at("uuid").get<std::string>()}, catalog);
    EXPECT_TRUE(removed.status.exited_with(1)) << removed.status.describe();
    EXPECT_EQ(removed.out, "");
}

// Summaries that cannot be read, found at start: one WARNING each, naming the file; the legs
// that can be read are catalogued (one from its summary, one from its media file alone) and the
// recorder records on.
TEST_F(CatalogE2eTest, BadSummariesAreSkippedWithOneLineEach) {
    catalog::LegSummary summary;
    summary.uuid = "00000000-0000-0000-0000-0000000000a1";
    summary.call_id = "good-call";
    // A second after the leg of the media file below, in the same minute.
    summary.start_us = media::StartFields{}.ts + 1'000'000;
    summary.last_packet_us = summary.start_us + 20000;
    summary.closed_by = catalog::LegClose::TERMINATE;
    summary.host = "elsewhere";
    summary.port = 9000;
    summary.path = "2021-10-11/12/17/" + summary.uuid;
    const auto leg_json = [&](const std::string& name, const std::string& text) {
        const fs::path file = storage() / "2021-10-11/12/17" / name / "leg.json";
        fs::create_directories(file.parent_path());
        directory.write_file(fs::relative(file, directory.path()).string(), text);
        return file.string();
    };
    leg_json(summary.uuid, catalog::render(summary));
    const std::string rendered = catalog::render(summary);
    catalog::Json wrong = summary;
    wrong["session_id"] = "many";
    const std::vector<std::string> warnings = {
        "CATALOG_WRITER: " +
            leg_json("00000000-0000-0000-0000-0000000000b1", rendered.substr(0, 100)) +
            ": not JSON (or cut short); leg skipped",
        "CATALOG_WRITER: " + leg_json("00000000-0000-0000-0000-0000000000b2", "recorded\n") +
            ": not JSON (or cut short); leg skipped",
        "CATALOG_WRITER: " + leg_json("00000000-0000-0000-0000-0000000000b3", wrong.dump(2)) +
            ": field \"session_id\" is not an unsigned 64-bit number; leg skipped",
    };
    const fs::path media = numbered_file_path(storage(), 3);
    fs::create_directories(media.parent_path());
    directory.write_file(fs::relative(media, directory.path()).string(), numbered_file(3, 4));

    ChildProcess& recorder = start_recorder(std::string("catalog = ") + IN_STORAGE + "\n");
    const std::vector<json> rows = found_when(2, {});

    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].at("uuid"), fs::path(media).parent_path().filename().string());
    EXPECT_EQ(rows[0].at("closed_by"), "unknown");
    EXPECT_EQ(rows[0].at("sides").at(0).at("frames"), 4);
    EXPECT_EQ(rows[0].at("bytes"), fs::file_size(media));
    EXPECT_EQ(rows[0].at("recorder").at("port"), port);
    EXPECT_EQ(rows[1].at("uuid"), summary.uuid);
    EXPECT_EQ(rows[1].at("call_id"), "good-call");
    // A leg recorded now still gets its row.
    const std::string leg = send_leg(4, now_us(), 3);
    const std::vector<json> more = found_when(3, {});
    ASSERT_EQ(more.size(), 3u);
    EXPECT_EQ(more[2].at("path"), leg);
    EXPECT_FALSE(recorder.wait_exit(std::chrono::milliseconds(0)).has_value());
    const ExitStatus status = stop(recorder);

    EXPECT_TRUE(status.exited_with(0)) << status.describe();
    EXPECT_EQ(texts(log_lines(recorder), "WARNING", "catalog_writer.cpp"), warnings);
}

TEST_F(CatalogE2eTest, ALocationOfNeitherFormKeepsTheRecorderFromStarting) {
    const std::string config = directory.write_file(
        "writer.conf", "storage = " + storage().string() + "\ncatalog = mysql://x\n");
    ChildProcess& process = start({"--config", config});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(1)) << status.describe();
    EXPECT_EQ(texts(log_lines(process), "ERROR", "configuration.cpp"),
              (std::vector<std::string>{
                  "CONFIGURATION: failed to set option [catalog] to [mysql://x]: catalogue: "
                  "\"mysql://x\" is neither sqlite:PATH nor a postgresql:// URI"}));
}

TEST_F(CatalogE2eTest, ACatalogueFileThatIsNotSqliteKeepsTheRecorderFromStarting) {
    fs::create_directories(storage());
    std::string noise(4096, '\0');
    std::uint32_t state = 12345;
    for (char& byte : noise) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 24);
    }
    directory.write_file("storage/catalog.sqlite", noise);
    const std::string config = configuration(std::string("catalog = ") + IN_STORAGE + "\n");
    ChildProcess& process = start({"--config", config});

    const ExitStatus status = finish(process);

    EXPECT_TRUE(status.exited_with(1)) << status.describe();
    EXPECT_EQ(texts(log_lines(process), "ERROR", "service.cpp"),
              (std::vector<std::string>{"SERVICE: failed to open the catalogue: catalogue " +
                                        (storage() / "catalog.sqlite").string() +
                                        ": not an SQLite database"}));
    EXPECT_EQ(read_file(storage() / "catalog.sqlite"), noise);
}

// Every row written once, by the queue: none by the catch-up of an empty storage, none twice.
// After a restart the catch-up reads none of the legs catalogued already, and only the new leg
// counts.
TEST_F(CatalogE2eTest, MetricsCountEveryRowWrittenOnce) {
    const std::string config = configuration(std::string("catalog = ") + IN_STORAGE +
                                             "\nmetrics_file = " + metrics_file().string() + "\n");
    ChildProcess& first = start_from(config);
    send_calls(7);
    ASSERT_EQ(found_when(7, {}).size(), 7u);

    const std::map<std::string, std::uint64_t> values = metrics_when_written(7);
    EXPECT_EQ(values.at("quillmarwriter_catalog_write_failures_total"), 0u);
    EXPECT_EQ(values.at("quillmarwriter_catalog_rows_waiting"), 0u);
    EXPECT_EQ(values.at("quillmarwriter_catalog_rows_overflowed_total"), 0u);
    ASSERT_TRUE(stop(first).exited_with(0)) << first.standard_error();

    ChildProcess& second = start_from(config);
    send_calls(1);
    ASSERT_EQ(found_when(8, {}).size(), 8u);
    EXPECT_EQ(metrics_when_written(1).at("quillmarwriter_catalog_write_failures_total"), 0u);
    EXPECT_TRUE(stop(second).exited_with(0)) << second.standard_error();
}

}  // namespace
}  // namespace qm::test
