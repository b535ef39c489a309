// `quillmar catalog reindex` and `quillmar find` over a storage the test lays out: summaries
// written with the catalogue's own writer, a leg with only its media file, and two bad summaries;
// the catalogue named on the command line or in a recorder's configuration file.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../catalog/catalog_store_checks.hpp"
#include "catalog/catalog_find.hpp"
#include "catalog/catalog_reindex.hpp"
#include "catalog/open_catalog.hpp"
#include "log/logger.hpp"
#include "log_capture.hpp"
#include "recording_bytes.hpp"
#include "temp_directory.hpp"
#include "tool_command_run.hpp"
#include "tools/recorder_catalog.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

namespace fs = std::filesystem;
using catalog::CatalogRow;
using catalog::find_json;
using catalog::find_line;
using catalog::parse_utc_time;
using catalog::test::example_row;

// The default start packet's leg (uuid 00112233-..., ts 1633954638004211): side 0 two frames of 4
// samples at offsets 0 and 4, side 1 two of 2 at 0 and 2; 48 + 2 * 20 + 2 * 16 = 120 bytes.
const std::string MEDIA_ONLY_PATH = "2021-10-11/12/17/00112233-4455-6677-8899-aabbccddeeff";

std::string media_only_file() {
    const auto frame = [](std::uint16_t side, std::uint32_t off,
                          std::vector<std::uint16_t> samples) {
        media::DataFields fields;
        fields.header.flags = side;
        fields.off = off;
        fields.payload = std::move(samples);
        return fields;
    };
    return test::text_of(
        test::recording_bytes(500, {frame(0, 0, {1, 2, 3, 4}), frame(1, 0, {5, 6}),
                                    frame(0, 4, {7, 8, 9, 10}), frame(1, 2, {11, 12})}));
}

CatalogRow media_only_row() {
    CatalogRow row;
    catalog::LegSummary& leg = row.summary;
    leg.uuid = "00112233-4455-6677-8899-aabbccddeeff";
    leg.start_us = 1633954638004211;
    leg.last_packet_us = 1633954638004211;
    leg.closed_by = catalog::LegClose::UNKNOWN;
    leg.sides[0] = {2, 8, 0, 4, 0};
    leg.sides[1] = {2, 4, 0, 2, 0};
    leg.bytes = 120;
    leg.host = "rec-1";
    leg.port = 9000;
    leg.path = MEDIA_ONLY_PATH;
    return row;
}

class CatalogToolsTest : public ::testing::Test {
protected:
    void SetUp() override {
        write_leg(m_first.summary.path, "leg.json", catalog::render(m_first.summary));
        write_leg(m_second.summary.path, "leg.json", catalog::render(m_second.summary));
        write_leg(MEDIA_ONLY_PATH, "media.qm", media_only_file());
        const std::string text = catalog::render(example_row(3).summary);
        write_leg("2026-11-24/11/53/cut", "leg.json", text.substr(0, text.size() / 2));
        write_leg("2026-11-24/11/54/prose", "leg.json", "not a summary\n");
        // Neither a leg nor in the layout: left alone.
        fs::create_directories(m_storage.path() / "lost+found/11/11/x");
        fs::create_directories(m_storage.path() / "2026-11-24/11/55/empty");
    }

    void write_leg(const std::string& path, const std::string& name, const std::string& content) {
        fs::create_directories(m_storage.path() / path);
        std::ofstream(m_storage.path() / path / name, std::ios::binary) << content;
    }

    CommandRun run_reindex() {
        return run_subcommand(&add_catalog_command, "catalog",
                              {"reindex", "--storage", m_storage.path().string(), "--catalog",
                               "sqlite:catalog.db", "--recorder", "rec-1:9000"});
    }

    CommandRun run_find(std::vector<std::string> args) {
        args.insert(args.begin(),
                    {"--catalog", "sqlite:catalog.db", "--storage", m_storage.path().string()});
        return run_subcommand(&add_find_command, "find", args);
    }

    std::vector<CatalogRow> all_rows() {
        std::string error;
        const auto store = catalog::open_catalog("sqlite:catalog.db", m_storage.path(), error);
        EXPECT_NE(store, nullptr) << error;
        return store ? store->find(catalog::test::everything()) : std::vector<CatalogRow>{};
    }

    std::string warnings() const {
        return "WARNING: " + (m_storage.path() / "2026-11-24/11/53/cut/leg.json").string() +
               ": not JSON (or cut short); leg skipped\n" +
               "WARNING: " + (m_storage.path() / "2026-11-24/11/54/prose/leg.json").string() +
               ": not JSON (or cut short); leg skipped\n";
    }

    // A recorder's configuration file with `text`, beside the storage rather than in it.
    std::string write_config(const std::string& text) {
        return m_etc.write_file("writer.conf", text);
    }

    std::string call_2_line() const {
        return "2026-11-24T11:52:00.000000Z 12.500s call-2 00000000-0000-0000-0000-000000000002 "
               "outbound side0=3/1 side1=0/0 "
               "2026-11-24/11/52/00000000-0000-0000-0000-000000000002\n";
    }

    test::TempDirectory m_storage;
    test::TempDirectory m_etc;
    CatalogRow m_first = example_row(1);
    CatalogRow m_second = example_row(2);
};

TEST_F(CatalogToolsTest, ReindexAddsEveryReadableLegOnceAndWarnsOfTheOthers) {
    const CommandRun first = run_reindex();
    EXPECT_EQ(first.status, 0);
    EXPECT_EQ(first.out, "reindexed 3 legs: 3 added, 0 updated, 0 removed, 2 skipped\n");
    EXPECT_EQ(first.err, warnings());
    EXPECT_EQ(all_rows(), (std::vector<CatalogRow>{media_only_row(), m_first, m_second}));

    const CommandRun second = run_reindex();
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.out, "reindexed 3 legs: 0 added, 0 updated, 0 removed, 2 skipped\n");
    EXPECT_EQ(all_rows(), (std::vector<CatalogRow>{media_only_row(), m_first, m_second}));
}

TEST_F(CatalogToolsTest, ReindexUpdatesChangedLegsAndMarksGoneOnesRemoved) {
    run_reindex();
    m_first.summary.closed_by = catalog::LegClose::TIMEOUT;
    write_leg(m_first.summary.path, "leg.json", catalog::render(m_first.summary));
    fs::remove_all(m_storage.path() / m_second.summary.path);

    std::string error;
    const auto store = catalog::open_catalog("sqlite:catalog.db", m_storage.path(), error);
    ASSERT_NE(store, nullptr) << error;
    catalog::ReindexOptions options;
    options.storage = m_storage.path();
    options.recorder = "rec-1:9000";
    options.batch = 1;
    options.now_us = 1795608000000000;
    std::ostringstream warned;
    const auto warn = [&warned](const std::filesystem::path& file, const std::string& reason) {
        warned << "WARNING: " << file.string() << ": " << reason << "; leg skipped\n";
    };
    EXPECT_EQ(catalog::reindex(*store, options, warn), (catalog::ReindexCounts{2, 0, 1, 1, 2}));
    EXPECT_EQ(warned.str(), warnings());
    CatalogRow removed = m_second;
    removed.state = catalog::RowState::REMOVED;
    removed.removed_at_us = 1795608000000000;
    EXPECT_EQ(all_rows(), (std::vector<CatalogRow>{media_only_row(), m_first, removed}));

    EXPECT_EQ(run_reindex().out, "reindexed 2 legs: 0 added, 0 updated, 0 removed, 2 skipped\n");
}

TEST_F(CatalogToolsTest, ReindexLeavesOtherRecordersRowsAlone) {
    CatalogRow elsewhere = example_row(4);
    elsewhere.summary.host = "rec-2";
    {
        std::string error;
        const auto store = catalog::open_catalog("sqlite:catalog.db", m_storage.path(), error);
        ASSERT_NE(store, nullptr) << error;
        store->upsert({&elsewhere, 1});
    }
    EXPECT_EQ(run_reindex().out, "reindexed 3 legs: 3 added, 0 updated, 0 removed, 2 skipped\n");
    EXPECT_EQ(all_rows(),
              (std::vector<CatalogRow>{media_only_row(), m_first, m_second, elsewhere}));
}

TEST_F(CatalogToolsTest, ReindexRefusesABadRecorderOrCatalogue) {
    const CommandRun recorder = run_subcommand(&add_catalog_command, "catalog",
                                               {"reindex", "--storage", m_storage.path().string(),
                                                "--catalog", "sqlite:c.db", "--recorder", "rec-1"});
    EXPECT_EQ(recorder.status, 2);
    EXPECT_EQ(recorder.err, "quillmar catalog reindex: --recorder \"rec-1\" is not HOST:PORT\n");

    m_storage.write_file("notes.db", "plain text, not a database");
    const CommandRun catalogue = run_subcommand(
        &add_catalog_command, "catalog",
        {"reindex", "--storage", m_storage.path().string(), "--catalog", "sqlite:notes.db"});
    EXPECT_EQ(catalogue.status, 2);
    EXPECT_EQ(catalogue.out, "");
    EXPECT_EQ(catalogue.err, "quillmar catalog reindex: catalogue " +
                                 (m_storage.path() / "notes.db").string() +
                                 ": not an SQLite database\n");
}

TEST_F(CatalogToolsTest, FindPrintsOneLinePerLegByStartTime) {
    run_reindex();
    const CommandRun all = run_find({});
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(all.out,
              "2021-10-11T12:17:18.004211Z 0.000s - 00112233-4455-6677-8899-aabbccddeeff inbound "
              "side0=2/0 side1=2/0 2021-10-11/12/17/00112233-4455-6677-8899-aabbccddeeff\n"
              "2026-11-24T11:51:00.000000Z 12.500s call-1 00000000-0000-0000-0000-000000000001 "
              "inbound side0=3/1 side1=0/0 "
              "2026-11-24/11/51/00000000-0000-0000-0000-000000000001\n"
              "2026-11-24T11:52:00.000000Z 12.500s call-2 00000000-0000-0000-0000-000000000002 "
              "outbound side0=3/1 side1=0/0 "
              "2026-11-24/11/52/00000000-0000-0000-0000-000000000002\n");
    EXPECT_EQ(all.err, "");

    const CommandRun by_call = run_find({"--call-id", "call-2"});
    EXPECT_EQ(by_call.status, 0);
    EXPECT_EQ(by_call.out,
              "2026-11-24T11:52:00.000000Z 12.500s call-2 00000000-0000-0000-0000-000000000002 "
              "outbound side0=3/1 side1=0/0 "
              "2026-11-24/11/52/00000000-0000-0000-0000-000000000002\n");

    const CommandRun range =
        run_find({"--from", "2026-11-24 11:51", "--to", "2026-11-24T11:52:00Z"});
    EXPECT_EQ(range.status, 0);
    EXPECT_EQ(range.out,
              "2026-11-24T11:51:00.000000Z 12.500s call-1 00000000-0000-0000-0000-000000000001 "
              "inbound side0=3/1 side1=0/0 "
              "2026-11-24/11/51/00000000-0000-0000-0000-000000000001\n");

    const CommandRun limited =
        run_find({"--limit", "1", "--uuid", "00000000-0000-0000-0000-000000000002"});
    EXPECT_EQ(limited.status, 0);
    EXPECT_EQ(limited.out, by_call.out);
}

TEST_F(CatalogToolsTest, FindShowsRemovedLegsOnlyWhenAskedAndAsJson) {
    run_reindex();
    fs::remove_all(m_storage.path() / m_second.summary.path);
    run_reindex();

    const CommandRun hidden = run_find({"--call-id", "call-2"});
    EXPECT_EQ(hidden.status, 1);
    EXPECT_EQ(hidden.out, "");
    EXPECT_EQ(hidden.err, "");

    const CommandRun shown = run_find({"--call-id", "call-2", "--include-removed"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_EQ(shown.out,
              "2026-11-24T11:52:00.000000Z 12.500s call-2 00000000-0000-0000-0000-000000000002 "
              "outbound side0=3/1 side1=0/0 removed\n");

    const CommandRun json = run_find({"--call-id", "call-1", "--json"});
    EXPECT_EQ(json.status, 0);
    catalog::Json expected = m_first.summary;
    expected["state"] = "recorded";
    expected["removed_at_us"] = nullptr;
    expected["removed_at_utc"] = nullptr;
    expected["archive_url"] = nullptr;
    expected["archived_at_us"] = nullptr;
    expected["archived_at_utc"] = nullptr;
    EXPECT_EQ(json.out, expected.dump() + "\n");
}

TEST_F(CatalogToolsTest, ReindexKeepsArchivedLegsAndFindShowsWhereTheyAre) {
    run_reindex();
    {
        std::string error;
        const auto store = catalog::open_catalog("sqlite:catalog.db", m_storage.path(), error);
        ASSERT_NE(store, nullptr) << error;
        ASSERT_EQ(store->claim("archiver", 1, 60, 3).size(), 3U);
        for (const CatalogRow& row : {m_first, m_second}) {
            ASSERT_TRUE(store->mark_archived("archiver", catalog::key_of(row),
                                             "s3://calls/" + row.summary.uuid + "/",
                                             1795608000000000));
        }
    }
    // The archiver deleted the first leg's directory; the second is still on disk.
    fs::remove_all(m_storage.path() / m_first.summary.path);

    EXPECT_EQ(run_reindex().out, "reindexed 2 legs: 0 added, 0 updated, 0 removed, 2 skipped\n");
    const CatalogRow first = catalog::test::archived(
        m_first, "s3://calls/" + m_first.summary.uuid + "/", 1795608000000000);
    const CatalogRow second = catalog::test::archived(
        m_second, "s3://calls/" + m_second.summary.uuid + "/", 1795608000000000);
    EXPECT_EQ(all_rows(), (std::vector<CatalogRow>{media_only_row(), first, second}));

    const CommandRun line = run_find({"--call-id", "call-1"});
    EXPECT_EQ(line.status, 0);
    EXPECT_EQ(line.out,
              "2026-11-24T11:51:00.000000Z 12.500s call-1 00000000-0000-0000-0000-000000000001 "
              "inbound side0=3/1 side1=0/0 s3://calls/00000000-0000-0000-0000-000000000001/\n");
    const CommandRun json = run_find({"--call-id", "call-1", "--json"});
    EXPECT_EQ(json.status, 0);
    catalog::Json expected = m_first.summary;
    expected["state"] = "archived";
    expected["removed_at_us"] = nullptr;
    expected["removed_at_utc"] = nullptr;
    expected["archive_url"] = "s3://calls/00000000-0000-0000-0000-000000000001/";
    expected["archived_at_us"] = 1795608000000000;
    expected["archived_at_utc"] = "2026-11-25T12:00:00.000000Z";
    EXPECT_EQ(json.out, expected.dump() + "\n");
}

TEST_F(CatalogToolsTest, FindFailsWithTwoOnABadTimeOrCatalogue) {
    run_reindex();
    const CommandRun time = run_find({"--from", "2026-02-30 10:00"});
    EXPECT_EQ(time.status, 2);
    EXPECT_EQ(time.out, "");
    EXPECT_EQ(time.err,
              "quillmar find: --from \"2026-02-30 10:00\" is not a UTC time like "
              "2026-11-24T11:52:00Z or \"2026-11-24 11:52\"\n");

    const CommandRun missing =
        run_subcommand(&add_find_command, "find",
                       {"--catalog", "sqlite:" + (m_storage.path() / "none.db").string()});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err, "quillmar find: catalogue " + (m_storage.path() / "none.db").string() +
                               ": cannot open: unable to open database file\n");
    EXPECT_FALSE(fs::exists(m_storage.path() / "none.db"));
}

TEST_F(CatalogToolsTest, ReindexAndFindTakeTheCatalogueFromTheRecorderConfiguration) {
    const std::string config =
        write_config("# the recorder's own file\nstorage = " + m_storage.path().string() +
                     "\nreceive_batch = 64\ncatalog = sqlite:catalog.db\n");
    // Whatever sink is installed, the parser's "CONFIGURATION: ..." lines reach none of it.
    test::LogCapture log;
    const CommandRun reindexed =
        run_subcommand(&add_catalog_command, "catalog",
                       {"reindex", "--config", config, "--recorder", "rec-1:9000"});
    EXPECT_EQ(reindexed.status, 0);
    EXPECT_EQ(reindexed.out, "reindexed 3 legs: 3 added, 0 updated, 0 removed, 2 skipped\n");
    EXPECT_EQ(reindexed.err, warnings());
    EXPECT_EQ(all_rows(), (std::vector<CatalogRow>{media_only_row(), m_first, m_second}));

    const CommandRun found =
        run_subcommand(&add_find_command, "find", {"--config", config, "--call-id", "call-2"});
    EXPECT_EQ(found.status, 0);
    EXPECT_EQ(found.out, call_2_line());
    EXPECT_EQ(found.err, "");
    // ... and the sink the test installed is back in place.
    QM_LOG_WARNING("after the tool");
    EXPECT_EQ(log.texts(), std::vector<std::string>{"after the tool"});
}

TEST_F(CatalogToolsTest, TheCommandLineWinsOverTheRecorderConfiguration) {
    run_reindex();
    const std::string config =
        write_config("storage = /nonexistent\ncatalog = sqlite:elsewhere.db\n");
    // --storage alone: the catalogue comes from the file, its directory from the command line.
    const CommandRun storage = run_subcommand(
        &add_find_command, "find",
        {"--config", config, "--storage", m_storage.path().string(), "--call-id", "call-2"});
    EXPECT_EQ(storage.err, "quillmar find: catalogue " +
                               (m_storage.path() / "elsewhere.db").string() +
                               ": cannot open: unable to open database file\n");
    EXPECT_EQ(storage.status, 2);

    // --catalog: the file is not read at all.
    const CommandRun catalogue = run_subcommand(
        &add_find_command, "find",
        {"--config", (m_etc.path() / "none.conf").string(), "--catalog", "sqlite:catalog.db",
         "--storage", m_storage.path().string(), "--call-id", "call-2"});
    EXPECT_EQ(catalogue.status, 0);
    EXPECT_EQ(catalogue.out, call_2_line());
    EXPECT_EQ(catalogue.err, "");

    const CommandRun reindexed =
        run_subcommand(&add_catalog_command, "catalog",
                       {"reindex", "--config", config, "--storage", m_storage.path().string(),
                        "--catalog", "sqlite:catalog.db", "--recorder", "rec-1:9000"});
    EXPECT_EQ(reindexed.status, 0);
    EXPECT_EQ(reindexed.out, "reindexed 3 legs: 0 added, 0 updated, 0 removed, 2 skipped\n");
    EXPECT_FALSE(fs::exists(m_storage.path() / "elsewhere.db"));
}

TEST_F(CatalogToolsTest, FindFailsWithTwoOnAConfigurationWithoutACatalogue) {
    const std::string none = (m_etc.path() / "none.conf").string();
    const CommandRun missing = run_subcommand(&add_find_command, "find", {"--config", none});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.out, "");
    EXPECT_EQ(missing.err, "quillmar find: recorder configuration " + none +
                               ": failed to open file [" + none + "]\n");

    const std::string bad = write_config("storage = /tmp\ncatalog = mysql://db\n");
    const CommandRun refused = run_subcommand(&add_find_command, "find", {"--config", bad});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(refused.err, "quillmar find: recorder configuration " + bad +
                               ": failed to set option [catalog] to [mysql://db]: catalogue: "
                               "\"mysql://db\" is neither sqlite:PATH nor a postgresql:// URI\n");

    const std::string unset = write_config("storage = /tmp\ncatalog =\n");
    const CommandRun off = run_subcommand(&add_find_command, "find", {"--config", unset});
    EXPECT_EQ(off.status, 2);
    EXPECT_EQ(off.out, "");
    EXPECT_EQ(off.err, "quillmar find: recorder configuration " + unset +
                           " sets no catalogue: give --catalog or set its catalog key\n");

    EXPECT_EQ(default_recorder_config(), "/etc/varnholt/quillmar/writer.conf");
}

TEST_F(CatalogToolsTest, ReindexFailsWithTwoWithoutAStorage) {
    const std::string config = write_config("catalog = sqlite:catalog.db\n");
    const CommandRun unset =
        run_subcommand(&add_catalog_command, "catalog", {"reindex", "--config", config});
    EXPECT_EQ(unset.status, 2);
    EXPECT_EQ(unset.out, "");
    EXPECT_EQ(unset.err, "quillmar catalog reindex: recorder configuration " + config +
                             " sets no storage: give --storage or set its storage key\n");

    const std::string gone = (m_etc.path() / "gone").string();
    const CommandRun missing = run_subcommand(&add_catalog_command, "catalog",
                                              {"reindex", "--config", config, "--storage", gone});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err, "quillmar catalog reindex: storage " + gone + " is not a directory\n");
    EXPECT_FALSE(fs::exists(gone));
}

TEST(ParseUtcTimeTest, ReadsTheAcceptedFormsAndNothingElse) {
    EXPECT_EQ(parse_utc_time("2026-11-24T11:52:00Z"), 1795521120000000ULL);
    EXPECT_EQ(parse_utc_time("2026-11-24T11:52:07"), 1795521127000000ULL);
    EXPECT_EQ(parse_utc_time("2026-11-24 11:52"), 1795521120000000ULL);
    EXPECT_EQ(parse_utc_time("2026-11-24 11:52:59Z"), 1795521179000000ULL);
    EXPECT_EQ(parse_utc_time("2026-11-24"), std::nullopt);
    EXPECT_EQ(parse_utc_time("2026-11-24T24:00"), std::nullopt);
    EXPECT_EQ(parse_utc_time("2026-11-24T11:52:00+01:00"), std::nullopt);
    EXPECT_EQ(parse_utc_time("yesterday"), std::nullopt);
}

}  // namespace
}  // namespace qm::tools
