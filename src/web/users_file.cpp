#include "web/users_file.hpp"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace qm::web {
namespace {

constexpr std::size_t MAX_NAME = 64;
constexpr std::string_view HASH_PREFIX = "$argon2id$";

// Checked against for a name that is not in the file, so that an unknown name costs as much as a
// wrong password. Made with the same limits as the users' hashes, from a password nobody has.
constexpr const char* DUMMY_HASH =
    "$argon2id$v=19$m=65536,t=2,p=1$TPT5V61iZAhuOftdPpbzRA$"
    "UVH6fLPTKVzn8cwRGxsVHR+2EfLnZS96kCJpERssBGA";

// sodium_init is safe to call again, but once is enough for the process.
void initialise_sodium() {
    static const int result = ::sodium_init();
    if (result < 0) {
        throw std::runtime_error("libsodium cannot be initialised");
    }
}

bool name_character(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

bool valid_hash(std::string_view hash) {
    return hash.starts_with(HASH_PREFIX) && hash.size() < crypto_pwhash_STRBYTES &&
           hash.find_first_of(" \t\r") == std::string_view::npos;
}

std::string errno_text(const std::string& what, int error) {
    return what + ": " + std::strerror(error);
}

// Writes all of `text` to `fd`.
bool write_all(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(written);
    }
    return true;
}

// Syncs the directory, so that the rename survives a crash.
void sync_directory(const std::string& directory) {
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

}  // namespace

UsersFile::UsersFile() {
    initialise_sodium();
}

std::optional<UsersFile> UsersFile::load(const std::string& path, std::string& error) {
    std::ifstream input(path);
    if (!input) {
        error = errno_text(path, errno);
        return std::nullopt;
    }
    UsersFile users;
    std::string line;
    for (std::size_t number = 1; std::getline(input, line); ++number) {
        if (line.empty()) {
            continue;
        }
        const std::string where = path + " line " + std::to_string(number) + ": ";
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) {
            error = where + "not \"name:hash\"";
            return std::nullopt;
        }
        std::string name = line.substr(0, colon);
        std::string hash = line.substr(colon + 1);
        if (!valid_name(name)) {
            error = where + "the name is not 1 to 64 of A-Z a-z 0-9 . _ -";
            return std::nullopt;
        }
        if (!valid_hash(hash)) {
            error = where + "the hash is not an Argon2id hash (\"$argon2id$...\")";
            return std::nullopt;
        }
        if (users.find(name) != nullptr) {
            error = where + "user " + name + " is already on an earlier line";
            return std::nullopt;
        }
        users.m_users.emplace_back(std::move(name), std::move(hash));
    }
    if (input.bad()) {
        error = errno_text(path, errno);
        return std::nullopt;
    }
    return users;
}

bool UsersFile::valid_name(std::string_view name) {
    if (name.empty() || name.size() > MAX_NAME) {
        return false;
    }
    for (const char c : name) {
        if (!name_character(c)) {
            return false;
        }
    }
    return true;
}

bool UsersFile::verify(std::string_view name, std::string_view password) const {
    const std::string* hash = find(name);
    const bool matches = ::crypto_pwhash_str_verify(hash ? hash->c_str() : DUMMY_HASH,
                                                    password.data(), password.size()) == 0;
    return hash != nullptr && matches;
}

bool UsersFile::set(const std::string& name, std::string_view password) {
    char hash[crypto_pwhash_STRBYTES];
    if (::crypto_pwhash_str_alg(
            hash, password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
            crypto_pwhash_MEMLIMIT_INTERACTIVE, crypto_pwhash_ALG_ARGON2ID13) != 0) {
        throw std::runtime_error("the password cannot be hashed (out of memory)");
    }
    // find() hands out a const pointer into m_users, which this non-const member owns.
    if (std::string* stored = const_cast<std::string*>(find(name))) {
        *stored = hash;
        return false;
    }
    m_users.emplace_back(name, hash);
    return true;
}

bool UsersFile::save(const std::string& path, std::string& error) const {
    std::string text;
    for (const auto& [name, hash] : m_users) {
        text += name + ":" + hash + "\n";
    }
    std::string temporary = path + ".XXXXXX";
    // mkstemp creates the file with mode 0600 whatever the umask; the rename keeps it.
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        error = errno_text(path, errno);
        return false;
    }
    // A file replaced keeps its owner, group and mode, so that the group a service reads it as
    // (chmod 640, chown root:quillmar) survives the next change of a password.
    struct stat existing {};
    const bool kept = ::stat(path.c_str(), &existing) != 0 ||
                      (::fchown(fd, existing.st_uid, existing.st_gid) == 0 &&
                       ::fchmod(fd, existing.st_mode & 07777) == 0);
    const bool written = kept && write_all(fd, text) && ::fsync(fd) == 0;
    const int write_error = errno;
    if (::close(fd) != 0 || !written) {
        error = errno_text(temporary, written ? errno : write_error);
        ::unlink(temporary.c_str());
        return false;
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno_text(path, errno);
        ::unlink(temporary.c_str());
        return false;
    }
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    sync_directory(directory.empty() ? "." : directory.string());
    return true;
}

const std::string* UsersFile::find(std::string_view name) const {
    for (const auto& [user, hash] : m_users) {
        if (user == name) {
            return &hash;
        }
    }
    return nullptr;
}

}  // namespace qm::web
