#include "web/users_file.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "child_process.hpp"
#include "temp_directory.hpp"

namespace qm::web {
namespace {

using test::read_file;
using test::TempDirectory;

// A hash made by UsersFile::set for the password "first secret".
std::string hash_of_first_secret(const TempDirectory& directory) {
    UsersFile users;
    users.set("anna", "first secret");
    std::string error;
    const std::string path = (directory.path() / "made").string();
    EXPECT_TRUE(users.save(path, error)) << error;
    const std::string text = read_file(path);
    return text.substr(text.find(':') + 1, text.size() - text.find(':') - 2);
}

TEST(UsersFileTest, SetHashesWithArgon2idAndVerifiesOnlyTheRightPassword) {
    UsersFile users;
    EXPECT_TRUE(users.set("anna", "first secret"));
    EXPECT_TRUE(users.verify("anna", "first secret"));
    EXPECT_FALSE(users.verify("anna", "first secreT"));
    EXPECT_FALSE(users.verify("anna", ""));
    EXPECT_FALSE(users.verify("bob", "first secret"));
    EXPECT_FALSE(users.verify("", "first secret"));
}

TEST(UsersFileTest, SetReplacesTheHashOfAKnownUser) {
    UsersFile users;
    EXPECT_TRUE(users.set("anna", "first secret"));
    EXPECT_FALSE(users.set("anna", "second secret"));
    EXPECT_EQ(users.size(), 1u);
    EXPECT_FALSE(users.verify("anna", "first secret"));
    EXPECT_TRUE(users.verify("anna", "second secret"));
}

TEST(UsersFileTest, SaveWritesNameHashLinesInOrderReadableByTheOwnerOnly) {
    const TempDirectory directory;
    const std::string path = (directory.path() / "users").string();
    // A permissive umask must not widen the file.
    const mode_t old_mask = ::umask(0);
    UsersFile users;
    users.set("zoe", "z password");
    users.set("anna", "a password");
    std::string error;
    const bool saved = users.save(path, error);
    ::umask(old_mask);
    ASSERT_TRUE(saved) << error;

    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    const std::string text = read_file(path);
    ASSERT_TRUE(text.starts_with("zoe:$argon2id$v=19$m=65536,t=2,p=1$")) << text;
    const std::size_t second = text.find('\n') + 1;
    EXPECT_TRUE(text.substr(second).starts_with("anna:$argon2id$v=19$m=65536,t=2,p=1$")) << text;
    EXPECT_EQ(text.back(), '\n');
    // Nothing left behind but the file itself.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()),
                            std::filesystem::directory_iterator()),
              1);
}

TEST(UsersFileTest, SaveKeepsTheOwnerGroupAndModeOfTheFileItReplaces) {
    const TempDirectory directory;
    const std::string path = (directory.path() / "users").string();
    UsersFile users;
    users.set("anna", "a password");
    std::string error;
    ASSERT_TRUE(users.save(path, error)) << error;
    // As an operator lets a service's group read it.
    ASSERT_EQ(::chown(path.c_str(), 0, 65534), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);

    users.set("anna", "another password");
    ASSERT_TRUE(users.save(path, error)) << error;
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, 0u);
    EXPECT_EQ(status.st_gid, 65534u);
}

TEST(UsersFileTest, LoadReadsWhatSaveWrote) {
    const TempDirectory directory;
    const std::string path = (directory.path() / "users").string();
    UsersFile users;
    users.set("anna", "a password");
    users.set("b.o_b-1", "b password");
    std::string error;
    ASSERT_TRUE(users.save(path, error)) << error;

    const std::optional<UsersFile> loaded = UsersFile::load(path, error);
    ASSERT_TRUE(loaded) << error;
    EXPECT_EQ(loaded->size(), 2u);
    EXPECT_TRUE(loaded->verify("anna", "a password"));
    EXPECT_TRUE(loaded->verify("b.o_b-1", "b password"));
    EXPECT_FALSE(loaded->verify("anna", "b password"));
}

TEST(UsersFileTest, LoadSkipsBlankLines) {
    const TempDirectory directory;
    const std::string hash = hash_of_first_secret(directory);
    const std::string path = directory.write_file("users", "\nanna:" + hash + "\n\n");
    std::string error;
    const std::optional<UsersFile> loaded = UsersFile::load(path, error);
    ASSERT_TRUE(loaded) << error;
    EXPECT_EQ(loaded->size(), 1u);
    EXPECT_TRUE(loaded->verify("anna", "first secret"));
}

// Loads `text` from the file "users" in `directory` and returns the error.
std::string load_error(const TempDirectory& directory, const std::string& text) {
    const std::string path = directory.write_file("users", text);
    std::string error;
    EXPECT_FALSE(UsersFile::load(path, error).has_value());
    return error;
}

TEST(UsersFileTest, LoadNamesTheLineThatIsNotAUser) {
    const TempDirectory directory;
    const std::string good = "anna:" + hash_of_first_secret(directory) + "\n";
    const std::string path = (directory.path() / "users").string();
    EXPECT_EQ(load_error(directory, good + "bob\n"), path + " line 2: not \"name:hash\"");
    EXPECT_EQ(load_error(directory, good + "\nb o b:" + good.substr(5)),
              path + " line 3: the name is not 1 to 64 of A-Z a-z 0-9 . _ -");
    EXPECT_EQ(load_error(directory, ":" + good.substr(5)),
              path + " line 1: the name is not 1 to 64 of A-Z a-z 0-9 . _ -");
    EXPECT_EQ(load_error(directory, good + "bob:$2y$10$abcdefghijklmnopqrstuv\n"),
              path + " line 2: the hash is not an Argon2id hash (\"$argon2id$...\")");
    EXPECT_EQ(load_error(directory, good + good),
              path + " line 2: user anna is already on an earlier line");
}

TEST(UsersFileTest, LoadOfAMissingFileSaysSo) {
    const TempDirectory directory;
    const std::string path = (directory.path() / "none").string();
    std::string error;
    EXPECT_FALSE(UsersFile::load(path, error).has_value());
    EXPECT_EQ(error, path + ": No such file or directory");
}

TEST(UsersFileTest, SaveIntoAMissingDirectoryFailsAndSaysWhere) {
    const TempDirectory directory;
    const std::string path = (directory.path() / "none" / "users").string();
    UsersFile users;
    std::string error;
    EXPECT_FALSE(users.save(path, error));
    EXPECT_EQ(error, path + ": No such file or directory");
}

TEST(UsersFileTest, ValidNames) {
    EXPECT_TRUE(UsersFile::valid_name("a"));
    EXPECT_TRUE(UsersFile::valid_name("Anna.Maria_K-2"));
    EXPECT_TRUE(UsersFile::valid_name(std::string(64, 'x')));
    EXPECT_FALSE(UsersFile::valid_name(std::string(65, 'x')));
    EXPECT_FALSE(UsersFile::valid_name(""));
    EXPECT_FALSE(UsersFile::valid_name("anna:x"));
    EXPECT_FALSE(UsersFile::valid_name("an na"));
    EXPECT_FALSE(UsersFile::valid_name("anna/.."));
    EXPECT_FALSE(UsersFile::valid_name("\xc3\xa4nna"));
}

}  // namespace
}  // namespace qm::web
