// Where a catalogued leg's recording is read from: the storage while its file is there, the
// archive (bucket and key from the archive_url) once it has gone, and why not otherwise.

#include "archive/leg_media.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "temp_directory.hpp"

namespace qm::archive {
namespace {

namespace fs = std::filesystem;

constexpr const char* UUID = "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0";
constexpr const char* LEG_PATH = "2026-11-24/19/05/0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0";

class LegMediaTest : public ::testing::Test {
protected:
    LegMediaTest() : m_root(fs::canonical(m_directory.path())) {
        m_row.summary.uuid = UUID;
        m_row.summary.path = LEG_PATH;
    }

    void write_media() {
        fs::create_directories(m_root / LEG_PATH);
        m_directory.write_file(std::string(LEG_PATH) + "/media.qm", "QM");
    }

    void archive(const std::string& url) {
        m_row.state = catalog::RowState::ARCHIVED;
        m_row.archive_url = url;
    }

    test::TempDirectory m_directory;
    fs::path m_root;
    catalog::CatalogRow m_row;
};

TEST_F(LegMediaTest, ALegWithItsFileIsReadFromTheStorageArchivedOrNot) {
    write_media();
    for (const bool archived : {false, true}) {
        if (archived) {
            archive("s3://calls/2026/" + std::string(UUID) + "/");
        }
        const LegMedia media = locate_leg_media(m_row, m_root);
        EXPECT_EQ(media.state, LegMediaState::LOCAL);
        EXPECT_EQ(media.file, m_root / LEG_PATH / "media.qm");
        EXPECT_EQ(open_leg_media(media, std::nullopt)->name(), media.file.string());
    }
}

TEST_F(LegMediaTest, AnArchivedLegWithoutItsFileIsReadFromItsArchiveUrl) {
    archive("s3://qm-archive/calls/2026-11-24/19/05/" + std::string(UUID) + "/");
    const LegMedia media = locate_leg_media(m_row, m_root);
    EXPECT_EQ(media.state, LegMediaState::ARCHIVED);
    EXPECT_EQ(media.bucket, "qm-archive");
    EXPECT_EQ(media.key, "calls/2026-11-24/19/05/" + std::string(UUID) + "/media.qm");
    EXPECT_THROW(open_leg_media(media, std::nullopt), std::invalid_argument);
}

TEST_F(LegMediaTest, AnArchiveUrlWithoutBucketOrDirectoryHasNothingToReadFrom) {
    for (const char* url : {"s3:///calls/", "s3://qm-archive", "https://qm-archive/calls/",
                            "s3://qm-archive/calls/media.qm"}) {
        archive(url);
        const LegMedia media = locate_leg_media(m_row, m_root);
        EXPECT_EQ(media.state, LegMediaState::GONE) << url;
    }
}

TEST_F(LegMediaTest, RemovedGoneAndOutsideLegsSayWhy) {
    m_row.state = catalog::RowState::REMOVED;
    EXPECT_EQ(locate_leg_media(m_row, m_root).state, LegMediaState::REMOVED);
    EXPECT_EQ(unavailable_text(m_row, LegMediaState::REMOVED),
              std::string("leg ") + UUID + " has been removed");

    m_row.state = catalog::RowState::RECORDED;
    EXPECT_EQ(locate_leg_media(m_row, m_root).state, LegMediaState::GONE);
    EXPECT_EQ(unavailable_text(m_row, LegMediaState::GONE),
              std::string("the recording of leg ") + UUID + " has gone");

    m_row.summary.path = "../elsewhere";
    EXPECT_EQ(locate_leg_media(m_row, m_root).state, LegMediaState::OUTSIDE_STORAGE);
    EXPECT_EQ(unavailable_text(m_row, LegMediaState::OUTSIDE_STORAGE),
              std::string("leg ") + UUID + " lies outside the storage");
}

}  // namespace
}  // namespace qm::archive
