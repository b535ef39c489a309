#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The users who may sign in to `quillmar serve`: a file of "name:hash" lines, the hash being what
// libsodium's crypto_pwhash_str_alg writes for Argon2id with its interactive limits. Blank lines
// are allowed; everything else must be a user, or the whole file is refused.
//
// Threads: load and save from one thread; once loaded, `verify` may be called from any number of
// threads at once (it reads only), but not while `set` runs.

namespace qm::web {

class UsersFile {
public:
    // No users yet (what `quillmar passwd` starts from when the file does not exist).
    UsersFile();

    // The users in `path`; nothing, with `error` set ("PATH line N: ..." for a bad line), when the
    // file cannot be read or a line is not a user.
    static std::optional<UsersFile> load(const std::string& path, std::string& error);

    // 1 to 64 characters of A-Z a-z 0-9 . _ -
    static bool valid_name(std::string_view name);

    // Whether `password` is that of user `name`. An unknown name costs a hash check all the same,
    // so that the time a sign-in takes does not tell which names exist.
    bool verify(std::string_view name, std::string_view password) const;

    // Gives user `name` the password `password`, adding the user if new; true when added.
    // REQUIRES: valid_name(name). Throws std::runtime_error when hashing fails (out of memory).
    bool set(const std::string& name, std::string_view password);

    // Replaces the file `path` with these users, readable by its owner only (a file replaced
    // keeps its owner, group and mode): written under a temporary name in the same directory,
    // synced, then renamed over it, so that a reader sees the old file or the new one. False, with
    // `error` set, when that fails; the old file is kept.
    bool save(const std::string& path, std::string& error) const;

    bool empty() const { return m_users.empty(); }
    std::size_t size() const { return m_users.size(); }

private:
    // The hash of user `name`, or null.
    const std::string* find(std::string_view name) const;

    // In file order, so that a rewrite keeps the operator's order.
    std::vector<std::pair<std::string, std::string>> m_users;
};

}  // namespace qm::web
