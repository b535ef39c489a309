#include "utils/path_inside.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "temp_directory.hpp"

namespace qm::utils {
namespace {

namespace fs = std::filesystem;

TEST(PathInsideTest, PathsLeavingTheStorageAreRefused) {
    test::TempDirectory dir;
    fs::create_directories(dir.path() / "storage" / "2026-11-24");
    fs::create_directories(dir.path() / "storage2");
    fs::create_directory_symlink(dir.path(), dir.path() / "storage" / "out");
    const fs::path root = fs::canonical(dir.path() / "storage");

    EXPECT_EQ(path_inside(root, "2026-11-24/13/media.qm"), root / "2026-11-24/13/media.qm");
    EXPECT_EQ(path_inside(root, "2026-11-24/../2026-11-24/x"), root / "2026-11-24/x");
    EXPECT_EQ(path_inside(root, "../storage2/x"), std::nullopt);
    EXPECT_EQ(path_inside(root, "2026-11-24/../../x"), std::nullopt);
    EXPECT_EQ(path_inside(root, "/etc/passwd"), std::nullopt);
    EXPECT_EQ(path_inside(root, "out/storage2/x"), std::nullopt);
    EXPECT_EQ(path_inside(root, ""), std::nullopt);
}

}  // namespace
}  // namespace qm::utils
