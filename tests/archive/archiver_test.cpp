#include "archive/archiver.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "catalog/open_catalog.hpp"
#include "log_capture.hpp"
#include "poll.hpp"
#include "s3_server.hpp"
#include "temp_directory.hpp"

namespace qm::archive {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

constexpr const char* BUCKET = "qm-archive";
constexpr const char* LOCATION = "sqlite:catalog.sqlite";
constexpr const char* PREFIX = "calls/";
constexpr std::chrono::milliseconds DEADLINE{20000};

// Leg `n`: uuid ending in n, recorded by rec-1:9000 at 2026-11-24T13:0M, a media file of its
// own bytes (n + 1 thousand of them) and, for even n, a summary.
catalog::CatalogRow leg_row(int n) {
    catalog::CatalogRow row;
    catalog::LegSummary& leg = row.summary;
    char uuid[37];
    std::snprintf(uuid, sizeof uuid, "00000000-0000-4000-8000-%012d", n);
    leg.uuid = uuid;
    leg.session_id = 7000 + static_cast<std::uint64_t>(n);
    leg.call_id = "call-" + std::to_string(n);
    leg.start_us = 1795525200000000ULL + static_cast<std::uint64_t>(n) * 1'000'000;
    leg.last_packet_us = leg.start_us + 2'000'000;
    leg.closed_by = catalog::LegClose::TERMINATE;
    leg.bytes = 1000 * (static_cast<std::uint64_t>(n) + 1);
    leg.host = "rec-1";
    leg.port = 9000;
    leg.path = "2026-11-24/13/0" + std::to_string(n % 10) + "/" + leg.uuid;
    return row;
}

std::string read_file(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

class ArchiverTest : public ::testing::Test {
protected:
    ArchiverTest() : m_server(m_store_directory.path(), BUCKET) {}

    // Puts `count` legs in the storage and the catalogue.
    void record(int count) {
        std::vector<catalog::CatalogRow> rows;
        for (int n = 0; n < count; ++n) {
            catalog::CatalogRow row = leg_row(n);
            fs::create_directories(m_storage.path() / row.summary.path);
            m_storage.write_file(row.summary.path + "/media.qm",
                                 std::string(row.summary.bytes, static_cast<char>('a' + n % 26)));
            if (n % 2 == 0) {
                m_storage.write_file(row.summary.path + "/leg.json",
                                     "{\"leg\": " + std::to_string(n) + "}");
            }
            rows.push_back(std::move(row));
        }
        store().upsert(rows);
    }

    catalog::CatalogStore& store() {
        if (!m_store) {
            std::string error;
            m_store = catalog::open_catalog(LOCATION, m_storage.path(), error);
        }
        return *m_store;
    }

    std::vector<catalog::CatalogRow> rows() {
        catalog::FindQuery everything;
        everything.include_removed = true;
        return store().find(everything);
    }

    std::size_t archived() {
        std::size_t count = 0;
        for (const catalog::CatalogRow& row : rows()) {
            count += row.state == catalog::RowState::ARCHIVED ? 1 : 0;
        }
        return count;
    }

    std::unique_ptr<Archiver> archiver(
        const std::string& name, bool delete_local = false,
        const std::string& secret = test::S3Server::secret_access_key()) {
        ArchiveSettings settings;
        settings.name = name;
        settings.storage = m_storage.path();
        settings.prefix = PREFIX;
        settings.delete_local = delete_local;
        settings.batch = 4;
        settings.idle_wait = std::chrono::milliseconds(100);
        auto client = std::make_unique<S3Client>(
            S3Endpoint(m_server.endpoint(), BUCKET, "us-east-1", S3Addressing::path_style),
            S3Credentials{test::S3Server::access_key_id(), secret, ""});
        return std::make_unique<Archiver>(LOCATION, settings, std::move(client), m_statistic);
    }

    // The request log's line of a successful upload of the leg's file `name`.
    static std::string put_line(const catalog::CatalogRow& row, const std::string& name) {
        return "PUT /" + std::string(BUCKET) + "/" + PREFIX + row.summary.path + "/" + name +
               " 200";
    }

    // Each of the legs' files was uploaded exactly once and the store holds its bytes.
    void expect_uploaded_once(int count) {
        for (int n = 0; n < count; ++n) {
            const catalog::CatalogRow row = leg_row(n);
            for (const std::string name : {"media.qm", "leg.json"}) {
                if (name == "leg.json" && n % 2 != 0) {
                    EXPECT_EQ(m_server.count_requests(put_line(row, name)), 0U) << n;
                    continue;
                }
                EXPECT_EQ(m_server.count_requests(put_line(row, name)), 1U) << n << name;
                EXPECT_EQ(read_file(m_server.object_file(PREFIX + row.summary.path + "/" + name)),
                          read_file(m_storage.path() / row.summary.path / name));
            }
        }
    }

    test::LogCapture m_capture;
    test::TempDirectory m_storage;
    test::TempDirectory m_store_directory;
    test::S3Server m_server;
    ArchiveStatistic m_statistic;
    std::unique_ptr<catalog::CatalogStore> m_store;
};

TEST_F(ArchiverTest, UploadsEachLegVerifiesItAndMarksItArchivedWithItsUrl) {
    record(3);
    const auto running = archiver("archiver-1");
    ASSERT_EQ(running->start(), 0);

    ASSERT_TRUE(test::poll_until([&] { return archived() == 3; }, DEADLINE));
    EXPECT_EQ(running->stop(), 0);
    expect_uploaded_once(3);
    for (const catalog::CatalogRow& row : rows()) {
        EXPECT_EQ(row.archive_url,
                  "s3://" + std::string(BUCKET) + "/" + PREFIX + row.summary.path + "/");
        EXPECT_TRUE(fs::exists(m_storage.path() / row.summary.path / "media.qm"));
    }
    EXPECT_EQ(m_statistic.legs_uploaded.load(), 3U);
    // The media files (1000, 2000, 3000 bytes) and the two summaries ("{"leg": 0}").
    EXPECT_EQ(m_statistic.bytes_uploaded.load(), 6000U + 2 * 10);
    EXPECT_EQ(m_statistic.failures.load(), 0U);
    EXPECT_EQ(m_capture.texts(log::Level::WARNING), Texts{});
}

TEST_F(ArchiverTest, DeleteLocalRemovesTheLegsDirectoryAndTheLegStaysArchived) {
    record(2);
    const auto running = archiver("archiver-1", true);
    ASSERT_EQ(running->start(), 0);

    ASSERT_TRUE(test::poll_until([&] { return archived() == 2; }, DEADLINE));
    EXPECT_EQ(running->stop(), 0);
    expect_uploaded_once(0);
    for (const catalog::CatalogRow& row : rows()) {
        EXPECT_EQ(row.state, catalog::RowState::ARCHIVED);
        EXPECT_FALSE(fs::exists(m_storage.path() / row.summary.path));
        EXPECT_EQ(m_server.count_requests(put_line(row, "media.qm")), 1U);
    }
}

TEST_F(ArchiverTest, TwoArchiversOnOneCatalogueUploadEachLegOnce) {
    record(20);
    const auto first = archiver("archiver-1");
    const auto second = archiver("archiver-2");
    ASSERT_EQ(first->start(), 0);
    ASSERT_EQ(second->start(), 0);

    ASSERT_TRUE(test::poll_until([&] { return archived() == 20; }, DEADLINE));
    EXPECT_EQ(first->stop(), 0);
    EXPECT_EQ(second->stop(), 0);
    expect_uploaded_once(20);
    EXPECT_EQ(m_statistic.legs_uploaded.load(), 20U);
    EXPECT_EQ(m_capture.texts(log::Level::WARNING), Texts{});
}

TEST_F(ArchiverTest, AStoreOutageIsOneWarningAndEveryLegIsArchivedOnceItIsBack) {
    record(4);
    m_server.stop();
    const auto running = archiver("archiver-1");
    ASSERT_EQ(running->start(), 0);
    ASSERT_TRUE(test::poll_until([&] { return m_capture.texts(log::Level::WARNING).size() == 1; },
                                 DEADLINE));
    EXPECT_EQ(archived(), 0U);

    m_server.start();
    ASSERT_TRUE(test::poll_until([&] { return archived() == 4; }, DEADLINE));
    EXPECT_EQ(running->stop(), 0);
    expect_uploaded_once(4);
    const Texts warnings = m_capture.texts(log::Level::WARNING);
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_EQ(warnings[0].rfind("ARCHIVE: the catalogue or the store cannot be reached, legs wait "
                                "and are archived when both answer: PUT s3://qm-archive/calls/",
                                0),
              0U)
        << warnings[0];
    const Texts system = m_capture.texts(log::Level::SYSTEM);
    EXPECT_EQ(std::count(system.begin(), system.end(),
                         "ARCHIVE: the catalogue and the store answer again, archiving goes on"),
              1);
}

TEST_F(ArchiverTest, AWrongSecretIsOneErrorNamingTheBucketAndTheCodeAndEndsTheArchiver) {
    record(3);
    const auto running = archiver("archiver-1", false, "not-the-secret");
    ASSERT_EQ(running->start(), 0);

    ASSERT_TRUE(test::poll_until([&] { return running->failed(); }, DEADLINE));
    EXPECT_EQ(running->stop(), 0);
    const Texts errors = m_capture.texts(log::Level::ERROR);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].rfind("ARCHIVE: the store refuses the archive's requests to bucket "
                              "qm-archive, the archive stops: PUT s3://qm-archive/calls/",
                              0),
              0U)
        << errors[0];
    EXPECT_NE(errors[0].find("HTTP 403 SignatureDoesNotMatch"), std::string::npos) << errors[0];
    // One try, no storm: the first upload was refused and nothing came after it.
    EXPECT_EQ(m_server.requests().size(), 1U);
    EXPECT_EQ(archived(), 0U);
}

}  // namespace
}  // namespace qm::archive
