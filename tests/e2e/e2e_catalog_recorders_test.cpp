// Recorders writing their closed legs into one PostgreSQL catalogue, read back with `quillmar
// find`: two recorders at once, each row naming its own; a database that goes away while calls
// are recorded, and one that is not there when the recorder starts. Recording never waits for the
// catalogue, and the catalogue catches up from the storage once it answers, without a restart.

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
#include "catalogued_recorders.hpp"
#include "io/io_session_path.hpp"
#include "tools/call_manifest.hpp"
#include "utils/str.hpp"

namespace qm::test {
namespace {

using tools::CallManifest;
using tools::Expectation;
using tools::SentLeg;

const std::string OUTAGE =
    "CATALOG_WRITER: the catalogue cannot be written, recording goes on and the catalogue "
    "catches up from the storage when it answers: ";
const std::string ANSWERS =
    "CATALOG_WRITER: the catalogue answers again, caught up with the storage: ";

std::size_t lost_of(const tools::SentSide& side) {
    return static_cast<std::size_t>(
        std::count(side.expectations.begin(), side.expectations.end(), Expectation::LOST));
}

class CatalogRecordersE2eTest : public CataloguedRecordersTest {
protected:
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
