#include "archive/s3_credentials.hpp"

#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>

#include "child_process.hpp"
#include "temp_directory.hpp"

namespace qm::archive {
namespace {

using std::filesystem::perms;
using test::TempDirectory;

constexpr const char* FILE_TEXT =
    "# written by the operator\n"
    "[other]\n"
    "aws_access_key_id = OTHERKEY\n"
    "aws_secret_access_key = other-secret\n"
    "\n"
    "[default]\n"
    "; the archive's key\n"
    "aws_access_key_id = AKIAEXAMPLE\n"
    "aws_secret_access_key=wJalr/K7MDENG+bPxRfiCY\n"
    "  aws_session_token =  token-value  \n"
    "region = eu-west-1\n";

// Sets the AWS variables for one test and restores the environment after it.
class Environment : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : NAMES) {
            ::unsetenv(name);
        }
    }
    void TearDown() override { SetUp(); }

    static constexpr const char* NAMES[] = {"AWS_ACCESS_KEY_ID", "AWS_SECRET_ACCESS_KEY",
                                            "AWS_SESSION_TOKEN", "AWS_REGION"};
};

TEST_F(Environment, TakesTheKeysTheTokenAndTheRegion) {
    ::setenv("AWS_ACCESS_KEY_ID", "AKIAEXAMPLE", 1);
    ::setenv("AWS_SECRET_ACCESS_KEY", "secret", 1);
    ::setenv("AWS_SESSION_TOKEN", "token", 1);
    ::setenv("AWS_REGION", "eu-west-1", 1);
    const S3Credentials credentials = credentials_from_environment();
    EXPECT_EQ(credentials.access_key_id, "AKIAEXAMPLE");
    EXPECT_EQ(credentials.secret_access_key, "secret");
    EXPECT_EQ(credentials.session_token, "token");
    EXPECT_EQ(region_from_environment(), std::optional<std::string>("eu-west-1"));
}

TEST_F(Environment, WithoutATokenOrARegionLeavesThemEmpty) {
    ::setenv("AWS_ACCESS_KEY_ID", "AKIAEXAMPLE", 1);
    ::setenv("AWS_SECRET_ACCESS_KEY", "secret", 1);
    EXPECT_EQ(credentials_from_environment().session_token, "");
    EXPECT_EQ(region_from_environment(), std::nullopt);
}

TEST_F(Environment, RefusesAMissingOrEmptyKey) {
    ::setenv("AWS_SECRET_ACCESS_KEY", "secret", 1);
    try {
        credentials_from_environment();
        FAIL() << "no error";
    } catch (const CredentialsError& error) {
        EXPECT_STREQ(error.what(), "AWS_ACCESS_KEY_ID is not set");
    }
    ::setenv("AWS_ACCESS_KEY_ID", "AKIAEXAMPLE", 1);
    ::setenv("AWS_SECRET_ACCESS_KEY", "", 1);
    try {
        credentials_from_environment();
        FAIL() << "no error";
    } catch (const CredentialsError& error) {
        EXPECT_STREQ(error.what(), "AWS_SECRET_ACCESS_KEY is not set");
    }
}

std::string write_credentials(const TempDirectory& directory, const std::string& text, perms mode) {
    const std::string path = directory.write_file("credentials", text);
    std::filesystem::permissions(path, mode);
    return path;
}

std::string error_of(const std::string& path) {
    try {
        credentials_from_file(path);
    } catch (const CredentialsError& error) {
        return error.what();
    }
    return "no error";
}

TEST(CredentialsFile, ReadsTheDefaultSection) {
    const TempDirectory directory;
    const std::string path = write_credentials(directory, FILE_TEXT, perms::owner_read);
    const S3Credentials credentials = credentials_from_file(path);
    EXPECT_EQ(credentials.access_key_id, "AKIAEXAMPLE");
    EXPECT_EQ(credentials.secret_access_key, "wJalr/K7MDENG+bPxRfiCY");
    EXPECT_EQ(credentials.session_token, "token-value");
}

TEST(CredentialsFile, TakesLinesBeforeAnySectionAsTheDefault) {
    const TempDirectory directory;
    const std::string path =
        write_credentials(directory, "aws_access_key_id = KEY\naws_secret_access_key = SECRET\n",
                          perms::owner_read | perms::owner_write);
    const S3Credentials credentials = credentials_from_file(path);
    EXPECT_EQ(credentials.access_key_id, "KEY");
    EXPECT_EQ(credentials.secret_access_key, "SECRET");
    EXPECT_EQ(credentials.session_token, "");
}

TEST(CredentialsFile, RefusesAFileItsGroupOrOthersCanAccess) {
    const TempDirectory directory;
    for (const auto& [mode, text] :
         {std::pair{perms::owner_read | perms::owner_write | perms::group_read, "0640"},
          std::pair{perms::owner_read | perms::others_read, "0404"},
          std::pair{perms::owner_read | perms::group_write, "0420"},
          std::pair{perms::owner_read | perms::others_exec, "0401"}}) {
        const std::string path = write_credentials(directory, FILE_TEXT, mode);
        EXPECT_EQ(error_of(path),
                  "credentials file " + path + " is accessible by group or others (mode " + text +
                      "): it must be readable only by its owner (chmod 600 " + path + ")");
    }
}

TEST(CredentialsFile, RefusesAFileWithoutBothKeys) {
    const TempDirectory directory;
    const std::string path = write_credentials(
        directory, "[default]\naws_access_key_id = KEY\n[other]\naws_secret_access_key = S\n",
        perms::owner_read);
    EXPECT_EQ(error_of(path), "credentials file " + path +
                                  " has no aws_secret_access_key in its [default] section");
}

TEST(CredentialsFile, RefusesALineThatIsNotAKeyAndValueWithoutQuotingIt) {
    const TempDirectory directory;
    const std::string path = write_credentials(
        directory, "[default]\naws_access_key_id = KEY\nwJalrXUtnFEMI\n", perms::owner_read);
    EXPECT_EQ(error_of(path), "credentials file " + path + ", line 3: expected `key = value`");
}

TEST(CredentialsFile, RefusesADirectory) {
    const TempDirectory directory;
    std::filesystem::permissions(directory.path(), perms::owner_all);
    EXPECT_EQ(error_of(directory.path()),
              "credentials file " + directory.path().string() + " is not a regular file");
}

// Runs the reader as `nobody`, which root's file permissions then apply to.
test::ChildProcess read_as_nobody(const TempDirectory& directory, const std::string& path) {
    test::ProcessOptions options;
    options.args = {"--reuid=nobody",         "--regid=nogroup",
                    "--clear-groups",         "--",
                    QM_READ_CREDENTIALS_PATH, path};
    std::filesystem::create_directory(directory.path() / "output");
    return test::ChildProcess("/usr/bin/setpriv", options, directory.path() / "output");
}

TEST(CredentialsFileAsAnUnprivilegedUser, ReadsItsOwnFileAndNotAnotherUsers) {
    const TempDirectory directory;
    // nobody must reach the file, not list the directory.
    std::filesystem::permissions(directory.path(), perms::others_exec,
                                 std::filesystem::perm_options::add);
    const std::string path = write_credentials(directory, FILE_TEXT, perms::owner_read);

    test::ChildProcess refused = read_as_nobody(directory, path);
    const std::optional<test::ExitStatus> refused_status =
        refused.wait_exit(std::chrono::seconds(30));
    ASSERT_TRUE(refused_status);
    EXPECT_TRUE(refused_status->exited_with(1)) << refused_status->describe();
    EXPECT_EQ(refused.standard_error(),
              "cannot read credentials file " + path + ": Permission denied\n");

    const passwd* nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    ASSERT_EQ(::chown(path.c_str(), nobody->pw_uid, nobody->pw_gid), 0);
    test::ChildProcess allowed = read_as_nobody(directory, path);
    const std::optional<test::ExitStatus> allowed_status =
        allowed.wait_exit(std::chrono::seconds(30));
    ASSERT_TRUE(allowed_status);
    EXPECT_TRUE(allowed_status->exited_with(0)) << allowed.standard_error();
    EXPECT_EQ(allowed.standard_output(), "AKIAEXAMPLE\n");
}

}  // namespace
}  // namespace qm::archive
