#include "utils/path.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "temp_directory.hpp"

namespace qm::utils::path {
namespace {

namespace fs = std::filesystem;

TEST(PathConstantsTest, EachFormHasTheSameText) {
    EXPECT_EQ(LINUX_PATH_SEPARATOR::CHAR, '/');
    EXPECT_STREQ(LINUX_PATH_SEPARATOR::C_STR, "/");
    EXPECT_EQ(LINUX_PATH_SEPARATOR::STR, "/");
    EXPECT_EQ(WINDOWS_PATH_SEPARATOR::CHAR, '\\');
    EXPECT_STREQ(WINDOWS_PATH_SEPARATOR::C_STR, "\\");
    EXPECT_EQ(WINDOWS_PATH_SEPARATOR::STR, "\\");
    EXPECT_EQ(FILE_EXTENSION_SEPARATOR::CHAR, '.');
    EXPECT_STREQ(FILE_EXTENSION_SEPARATOR::C_STR, ".");
    EXPECT_EQ(FILE_EXTENSION_SEPARATOR::STR, ".");
    EXPECT_EQ(CURRENT_DIR::CHAR, '.');
    EXPECT_STREQ(CURRENT_DIR::C_STR, ".");
    EXPECT_EQ(CURRENT_DIR::STR, ".");
    EXPECT_STREQ(PARENT_DIR::C_STR, "..");
    EXPECT_EQ(PARENT_DIR::STR, "..");
    EXPECT_EQ(static_cast<int>(create_policy::OPTIMISTIC), 0);
    EXPECT_EQ(static_cast<int>(create_policy::PESSIMISTIC), 1);
}

TEST(PathTextTest, NormalizeReplacesEveryBackslash) {
    EXPECT_EQ(normalize_path_separator("a\\b\\\\c/d"), "a/b//c/d");
    EXPECT_EQ(normalize_path_separator(""), "");
}

TEST(PathTextTest, FileNameIsThePartAfterTheLastSeparator) {
    EXPECT_EQ(get_file_name("/srv/rec/media.qm"), "media.qm");
    EXPECT_EQ(get_file_name("C:\\rec\\media.qm"), "media.qm");
    EXPECT_EQ(get_file_name("media.qm"), "media.qm");
    EXPECT_EQ(get_file_name("/srv/rec/"), "");
}

// Runs a test in a directory of its own under /tmp, as the current directory.
class TempDirectoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_saved = fs::current_path();
        m_root = m_directory.path();
        fs::current_path(m_root);
    }
    void TearDown() override { fs::current_path(m_saved); }

    test::TempDirectory m_directory;
    fs::path m_saved;
    fs::path m_root;
};

TEST_F(TempDirectoryTest, CurrentDirectoryHasNoTrailingSeparator) {
    EXPECT_EQ(get_current_directory(), m_root.string());
    fs::current_path("/");
    EXPECT_EQ(get_current_directory(), "");
}

TEST(AbsolutePathTest, RelativePathIsResolvedAgainstTheCurrentDirectory) {
    const fs::path saved = fs::current_path();
    fs::current_path("/srv");
    EXPECT_EQ(get_absolute_path("a/./b/../c"), "/srv/a/c");
    EXPECT_EQ(get_absolute_path(""), "/srv");
    EXPECT_EQ(get_absolute_path(".."), "/");
    fs::current_path(saved);
}

TEST(AbsolutePathTest, AbsolutePathIsOnlyTidied) {
    EXPECT_EQ(get_absolute_path("  /var//log/./x/../y/  \t"), "/var/log/y");
    EXPECT_EQ(get_absolute_path("\\var\\log\\..\\tmp"), "/var/tmp");
    EXPECT_EQ(get_absolute_path("/../../a"), "/a");
    EXPECT_EQ(get_absolute_path("/"), "/");
    EXPECT_EQ(get_absolute_path("/no/such/dir/.."), "/no/such");
}

TEST_F(TempDirectoryTest, ExistingDirectoryIsAcceptedAsItIs) {
    fs::create_directory(m_root / "existing");
    const auto before = fs::last_write_time(m_root / "existing");
    EXPECT_TRUE(check_or_create_directory((m_root / "existing").string(), false, 0755));
    EXPECT_TRUE(check_or_create_directory("existing", false, 0755));
    EXPECT_EQ(fs::last_write_time(m_root / "existing"), before);
    EXPECT_TRUE(fs::is_empty(m_root / "existing"));
}

TEST_F(TempDirectoryTest, MissingChainIsCreatedWithTheMode) {
    const mode_t saved_mask = ::umask(0);
    const bool created = check_or_create_directory("a/b/c", false, 0750);
    ::umask(saved_mask);
    ASSERT_TRUE(created);
    for (const char* directory : {"a", "a/b", "a/b/c"}) {
        struct stat status {};
        ASSERT_EQ(::stat((m_root / directory).c_str(), &status), 0) << directory;
        EXPECT_TRUE(S_ISDIR(status.st_mode)) << directory;
        EXPECT_EQ(status.st_mode & 0777, 0750u) << directory;
    }
}

TEST_F(TempDirectoryTest, PathOfAFileCreatesTheDirectoryThatHoldsIt) {
    ASSERT_TRUE(check_or_create_directory(m_root.string() + "/day/hour/media.qm", true, 0755));
    EXPECT_TRUE(fs::is_directory(m_root / "day" / "hour"));
    EXPECT_FALSE(fs::exists(m_root / "day" / "hour" / "media.qm"));
}

TEST_F(TempDirectoryTest, RegularFileInThePathFailsWithEnotdir) {
    m_directory.write_file("file", "x");
    errno = 0;
    EXPECT_FALSE(check_or_create_directory("file/sub/dir", false, 0755));
    EXPECT_EQ(errno, ENOTDIR);
    errno = 0;
    EXPECT_FALSE(check_or_create_directory("file", false, 0755));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(fs::is_regular_file(m_root / "file"));
    EXPECT_FALSE(fs::exists(m_root / "file" / "sub"));
}

// procfs refuses new directories even to root, which makes a creation failure reproducible.
TEST(CheckOrCreateDirectoryTest, CreationErrorOtherThanExistsFails) {
    errno = 0;
    EXPECT_FALSE(check_or_create_directory("/proc/self/qm_missing/sub", false, 0755));
    EXPECT_EQ(errno, ENOENT);
}

TEST(CheckOrCreateDirectoryTest, FileDirectlyUnderTheRootGivesAnEmptyDirectory) {
    EXPECT_FALSE(check_or_create_directory("/media.qm", true, 0755));
}

TEST(CheckOrCreateDirectoryTest, PessimisticPolicyIsNotImplemented) {
    try {
        // Throws before it has a result.
        (void)check_or_create_directory("/tmp", false, 0755, create_policy::PESSIMISTIC);
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "not implemented:create_directory_pessimistic");
    }
}

TEST(CheckOrCreateDirectoryTest, UnknownPolicyIsAnInvalidArgument) {
    try {
        // Throws before it has a result.
        (void)check_or_create_directory("/tmp", false, 0755, static_cast<create_policy>(2));
        FAIL() << "no exception";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "policy");
    }
}

}  // namespace
}  // namespace qm::utils::path
