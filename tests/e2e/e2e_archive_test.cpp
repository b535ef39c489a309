// `quillmar archive` between recorders sharing one PostgreSQL catalogue and a real S3-compatible
// store that checks signatures: every leg ends up in the store once, byte for byte, and marked
// archived with its URL only after that; two archivers share the work without uploading a leg
// twice; an outage of the store loses nothing; a wrong secret is one ERROR, not a retry storm;
// a stopped archiver's work is taken up after a restart, and a killed one's after its lease.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "catalog/catalog_row.hpp"
#include "catalogued_recorders.hpp"
#include "s3_server.hpp"
#include "tools/call_manifest.hpp"

namespace qm::test {
namespace {

constexpr const char* BUCKET = "qm-archive";
// Covers the archiver's back-off (1, 2, 4, 8, then 10 s apart) on a loaded machine.
constexpr std::chrono::seconds ARCHIVE_TIMEOUT{60};
const std::string OUTAGE =
    "ARCHIVE: the catalogue or the store cannot be reached, legs wait and are archived when both "
    "answer: ";
const std::string ANSWERS = "ARCHIVE: the catalogue and the store answer again, archiving goes on";

class ArchiveE2eTest : public CataloguedRecordersTest {
protected:
    void SetUp() override {
        CataloguedRecordersTest::SetUp();
        std::filesystem::create_directories(directory.path() / "store");
        m_store = std::make_unique<S3Server>(directory.path() / "store", BUCKET);
        // The archivers inherit them: a secret never goes on a command line.
        ::setenv("AWS_ACCESS_KEY_ID", S3Server::access_key_id().c_str(), 1);
        ::setenv("AWS_SECRET_ACCESS_KEY", S3Server::secret_access_key().c_str(), 1);
    }

    // Starts an archiver of the test's catalogue into the test's bucket, named `name`, with its
    // metrics in `<name>.prom`.
    ChildProcess& start_archiver(const std::string& name, std::vector<std::string> options) {
        std::vector<std::string> args = {
            "archive",    "--catalog",         catalog_uri(),
            "--endpoint", m_store->endpoint(), "--bucket",
            BUCKET,       "--path-style",      "--name",
            name,         "--metrics",         (directory.path() / (name + ".prom")).string()};
        args.insert(args.end(), options.begin(), options.end());
        return start_tool(std::move(args));
    }

    // The option that hands `recorder`'s legs and storage to an archiver.
    static std::vector<std::string> legs_of(const Recorder& recorder) {
        return {"--recorder", host_name() + ":" + std::to_string(recorder.port) + "=" +
                                  recorder.storage.string()};
    }

    // Sends `calls` short calls to `recorder` and waits for their summaries; returns the manifest.
    tools::CallManifest record(const Recorder& recorder, int calls, const std::string& name) {
        const std::filesystem::path manifest = directory.path() / (name + ".manifest");
        send_calls(recorder, manifest, {"--calls", std::to_string(calls)});
        const tools::CallManifest sent = tools::read_manifest(manifest);
        EXPECT_TRUE(wait_summaries(recorder, sent));
        return sent;
    }

    std::size_t archived(const std::vector<FoundLeg>& legs) {
        return static_cast<std::size_t>(std::count_if(
            legs.begin(), legs.end(), [](const FoundLeg& leg) { return leg.state == "archived"; }));
    }

    // Polls the catalogue until `count` legs are archived; returns every leg it holds.
    std::vector<FoundLeg> wait_archived(std::size_t count) {
        std::optional<std::vector<FoundLeg>> legs;
        EXPECT_TRUE(poll_until(
            [&] {
                legs = find();
                return legs && archived(*legs) == count;
            },
            ARCHIVE_TIMEOUT, std::chrono::milliseconds(200)))
            << (legs ? std::to_string(archived(*legs)) + " archived of " + std::to_string(count)
                     : m_find_error);
        return legs.value_or(std::vector<FoundLeg>{});
    }

    // The request log's line of a successful upload of the leg's file `name`.
    static std::string put_line(const FoundLeg& leg, const std::string& name) {
        return "PUT /" + std::string(BUCKET) + "/" + leg.summary.path + "/" + name + " 200";
    }

    // Each leg is archived at its URL, and the store holds its two files as the storage does,
    // each uploaded `uploads` times (unset: any number of times).
    void expect_in_store(const std::vector<FoundLeg>& legs,
                         const std::map<std::string, std::filesystem::path>& storages,
                         std::optional<std::size_t> uploads = 1) {
        for (const FoundLeg& leg : legs) {
            EXPECT_EQ(leg.state, "archived") << leg.summary.uuid;
            EXPECT_EQ(leg.archive_url,
                      "s3://" + std::string(BUCKET) + "/" + leg.summary.path + "/");
            const std::filesystem::path local =
                storages.at(catalog::recorder_name(leg.summary)) / leg.summary.path;
            for (const std::string name : {"media.qm", "leg.json"}) {
                EXPECT_EQ(read_file(m_store->object_file(leg.summary.path + "/" + name)),
                          read_file(local / name))
                    << leg.summary.uuid << " " << name;
                if (uploads) {
                    EXPECT_EQ(m_store->count_requests(put_line(leg, name)), *uploads)
                        << leg.summary.uuid << " " << name;
                }
            }
        }
    }

    static std::map<std::string, std::filesystem::path> storages(
        const std::vector<const Recorder*>& recorders) {
        std::map<std::string, std::filesystem::path> out;
        for (const Recorder* recorder : recorders) {
            out[host_name() + ":" + std::to_string(recorder->port)] = recorder->storage;
        }
        return out;
    }

    std::map<std::string, std::uint64_t> archive_metrics(const std::string& name) {
        return metric_samples(directory.path() / (name + ".prom"));
    }

    std::unique_ptr<S3Server> m_store;
};

// Two recorders, one catalogue, one archiver: each of the 100 legs is uploaded once and marked
// archived at its URL, the metrics count them, and a SIGTERM ends the archiver cleanly.
TEST_F(ArchiveE2eTest, OneArchiverPutsEveryLegOfTwoRecordersInTheStoreOnce) {
    Recorder first = start_catalogued("first");
    Recorder second = start_catalogued("second");
    record(first, 50, "first");
    record(second, 50, "second");
    std::vector<std::string> both = legs_of(first);
    const std::vector<std::string> other = legs_of(second);
    both.insert(both.end(), other.begin(), other.end());
    ChildProcess& archiver = start_archiver("archiver", both);

    const std::vector<FoundLeg> legs = wait_archived(100);
    ASSERT_EQ(legs.size(), 100u);
    expect_in_store(legs, storages({&first, &second}));
    EXPECT_TRUE(poll_until(
        [&] { return archive_metrics("archiver")["quillmar_archive_legs_uploaded_total"] == 100; },
        ARCHIVE_TIMEOUT));
    EXPECT_TRUE(stop(archiver).exited_with(0)) << archiver.standard_error();
    std::map<std::string, std::uint64_t> metrics = archive_metrics("archiver");
    EXPECT_EQ(metrics["quillmar_archive_legs_uploaded_total"], 100u);
    EXPECT_EQ(metrics["quillmar_archive_failures_total"], 0u);
    EXPECT_EQ(metrics["quillmar_archive_backlog_legs"], 0u);
    EXPECT_EQ(texts(log_lines(archiver), "WARNING", "archiver.cpp"), std::vector<std::string>{});
    stop_recorder(first);
    stop_recorder(second);
}

TEST_F(ArchiveE2eTest, TwoArchiversAtOnceUploadEveryLegExactlyOnce) {
    Recorder recorder = start_catalogued("recorder");
    record(recorder, 40, "calls");
    ChildProcess& one = start_archiver("one", legs_of(recorder));
    ChildProcess& two = start_archiver("two", legs_of(recorder));

    const std::vector<FoundLeg> legs = wait_archived(40);
    ASSERT_EQ(legs.size(), 40u);
    expect_in_store(legs, storages({&recorder}));
    EXPECT_TRUE(stop(one).exited_with(0)) << one.standard_error();
    EXPECT_TRUE(stop(two).exited_with(0)) << two.standard_error();
    stop_recorder(recorder);
}

// The store is away for some 20 s while legs wait: nothing is marked archived meanwhile, one
// WARNING says so, and once the store is back every leg is archived, uploaded once.
TEST_F(ArchiveE2eTest, AStoreAwayForTwentySecondsLosesNothing) {
    Recorder recorder = start_catalogued("recorder");
    m_store->stop();
    record(recorder, 10, "calls");
    ChildProcess& archiver = start_archiver("archiver", legs_of(recorder));
    // Five failed tries, 1 + 2 + 4 + 8 s apart: the store has been away for 15 s and more.
    EXPECT_TRUE(poll_until(
        [&] { return archive_metrics("archiver")["quillmar_archive_failures_total"] >= 5; },
        ARCHIVE_TIMEOUT));
    const std::optional<std::vector<FoundLeg>> during = find();
    ASSERT_TRUE(during.has_value()) << m_find_error;
    EXPECT_EQ(during->size(), 10u);
    EXPECT_EQ(archived(*during), 0u);

    m_store->start();
    const std::vector<FoundLeg> legs = wait_archived(10);
    expect_in_store(legs, storages({&recorder}));
    EXPECT_TRUE(stop(archiver).exited_with(0)) << archiver.standard_error();
    const std::vector<LogLine> lines = log_lines(archiver);
    const std::vector<std::string> warnings = texts(lines, "WARNING", "archiver.cpp");
    ASSERT_EQ(warnings.size(), 1u) << archiver.standard_error();
    EXPECT_EQ(warnings[0].rfind(OUTAGE + "PUT s3://qm-archive/", 0), 0u) << warnings[0];
    const std::vector<std::string> system = texts(lines, "SYSTEM", "archiver.cpp");
    EXPECT_EQ(std::count(system.begin(), system.end(), ANSWERS), 1);
    stop_recorder(recorder);
}

TEST_F(ArchiveE2eTest, AWrongSecretIsOneErrorNamingTheBucketAndTheStoresCode) {
    Recorder recorder = start_catalogued("recorder");
    record(recorder, 2, "calls");
    const std::string credentials = directory.write_file(
        "credentials", "[default]\naws_access_key_id = S3RVER\naws_secret_access_key = wrong\n");
    std::filesystem::permissions(
        credentials, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    std::vector<std::string> options = legs_of(recorder);
    options.insert(options.end(), {"--credentials", credentials});
    ChildProcess& archiver = start_archiver("archiver", options);

    EXPECT_TRUE(finish(archiver).exited_with(1)) << archiver.standard_error();
    const std::vector<std::string> errors = texts(log_lines(archiver), "ERROR", "archiver.cpp");
    ASSERT_EQ(errors.size(), 1u) << archiver.standard_error();
    EXPECT_EQ(errors[0].rfind("ARCHIVE: the store refuses the archive's requests to bucket "
                              "qm-archive, the archive stops: PUT s3://qm-archive/",
                              0),
              0u)
        << errors[0];
    EXPECT_NE(errors[0].find(": HTTP 403 SignatureDoesNotMatch: "), std::string::npos);
    EXPECT_EQ(archiver.standard_error().find("wrong"), std::string::npos);
    // One refused upload and nothing after it.
    EXPECT_EQ(m_store->requests().size(), 1u);
    const std::optional<std::vector<FoundLeg>> legs = find();
    ASSERT_TRUE(legs.has_value()) << m_find_error;
    EXPECT_EQ(archived(*legs), 0u);
    stop_recorder(recorder);
}

// SIGTERM while the archiver uploads: it ends cleanly, and after a restart every leg is in the
// store, whole; a leg archived before the stop is not uploaded again, and each other leg is
// uploaded once by the restarted archiver.
TEST_F(ArchiveE2eTest, AStoppedArchiverRestartedUploadsEachLegOnce) {
    Recorder recorder = start_catalogued("recorder");
    record(recorder, 30, "calls");
    ChildProcess& first = start_archiver("archiver", legs_of(recorder));
    EXPECT_TRUE(poll_until([&] { return !m_store->requests().empty(); }, ARCHIVE_TIMEOUT,
                           std::chrono::milliseconds(1)));
    EXPECT_TRUE(stop(first).exited_with(0)) << first.standard_error();
    const std::vector<std::string> before = m_store->requests();
    const std::optional<std::vector<FoundLeg>> stopped = find();
    ASSERT_TRUE(stopped.has_value()) << m_find_error;
    ChildProcess& again = start_archiver("archiver", legs_of(recorder));

    const std::vector<FoundLeg> legs = wait_archived(30);
    expect_in_store(legs, storages({&recorder}), std::nullopt);
    EXPECT_TRUE(stop(again).exited_with(0)) << again.standard_error();
    for (const FoundLeg& leg : *stopped) {
        const bool archived_before = leg.state == "archived";
        for (const std::string name : {"media.qm", "leg.json"}) {
            const std::string line = put_line(leg, name);
            const auto uploads_before =
                static_cast<std::size_t>(std::count(before.begin(), before.end(), line));
            EXPECT_EQ(m_store->count_requests(line) - uploads_before, archived_before ? 0u : 1u)
                << leg.summary.uuid << " " << name << "\nfirst archiver:\n"
                << first.standard_error() << "after the restart:\n"
                << again.standard_error();
        }
    }
    stop_recorder(recorder);
}

// A killed archiver's claims hold until their lease runs out; then another archiver takes them,
// and every leg ends up archived whole.
TEST_F(ArchiveE2eTest, AKilledArchiversLegsAreTakenByAnotherOnceItsLeaseRunsOut) {
    Recorder recorder = start_catalogued("recorder");
    record(recorder, 20, "calls");
    std::vector<std::string> options = legs_of(recorder);
    options.insert(options.end(), {"--lease", "10"});
    ChildProcess& killed = start_archiver("killed", options);
    EXPECT_TRUE(poll_until([&] { return !m_store->requests().empty(); }, ARCHIVE_TIMEOUT,
                           std::chrono::milliseconds(1)));
    EXPECT_EQ(stop(killed, SIGKILL).signal, SIGKILL);
    ChildProcess& other = start_archiver("other", options);

    const std::vector<FoundLeg> legs = wait_archived(20);
    expect_in_store(legs, storages({&recorder}), std::nullopt);
    EXPECT_TRUE(stop(other).exited_with(0)) << other.standard_error();
    stop_recorder(recorder);
}

}  // namespace
}  // namespace qm::test
