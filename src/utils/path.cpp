#include "utils/path.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

#include "utils/str.hpp"

namespace qm::utils::path {

namespace {

// Where the path's parent ends: the text before the last "/", or "/" for a child of the root.
std::string parent_of(const std::string& path) {
    const std::size_t at = path.rfind(LINUX_PATH_SEPARATOR::CHAR);
    return at == 0 || at == std::string::npos ? LINUX_PATH_SEPARATOR::STR : path.substr(0, at);
}

// stat's view of whether `path` is missing: ENOTDIR means a prefix is not a directory, so the
// path itself cannot exist either; the caller finds out which prefix by walking upwards.
bool is_missing(int error) {
    return error == ENOENT || error == ENOTDIR;
}

[[nodiscard]] bool create_optimistic(const std::string& path, mode_t mode) {
    std::string existing = path;
    struct stat status {};
    while (::stat(existing.c_str(), &status) != 0) {
        if (!is_missing(errno)) {
            return false;
        }
        existing = parent_of(existing);
    }
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    std::size_t end = existing.size();
    while (end < path.size()) {
        end = path.find(LINUX_PATH_SEPARATOR::CHAR, end + 1);
        if (end == std::string::npos) {
            end = path.size();
        }
        if (::mkdir(path.substr(0, end).c_str(), mode) != 0) {
            // Another thread or process building the same chain got there first.
            return errno == EEXIST;
        }
    }
    return true;
}

}  // namespace

std::string get_current_directory() {
    const std::unique_ptr<char, decltype(&std::free)> name(::getcwd(nullptr, 0), &std::free);
    std::string result = name ? name.get() : "";
    if (!result.empty() && result.back() == LINUX_PATH_SEPARATOR::CHAR) {
        result.pop_back();
    }
    return result;
}

std::string normalize_path_separator(std::string_view path) {
    return str::replace(path, WINDOWS_PATH_SEPARATOR::C_STR, LINUX_PATH_SEPARATOR::C_STR);
}

std::string get_file_name(std::string_view path) {
    const std::size_t at = path.find_last_of(std::string_view("/\\"));
    return std::string(at == std::string_view::npos ? path : path.substr(at + 1));
}

std::string get_absolute_path(std::string_view path) {
    std::string text = normalize_path_separator(str::trim_left(str::trim_right(path)));
    if (text.empty() || text.front() != LINUX_PATH_SEPARATOR::CHAR) {
        text = get_current_directory() + LINUX_PATH_SEPARATOR::STR + text;
    }
    std::vector<std::string> pieces;
    str::split(text, LINUX_PATH_SEPARATOR::CHAR, pieces, false);
    std::vector<std::string> kept;
    for (std::string& piece : pieces) {
        if (piece == PARENT_DIR::STR) {
            if (!kept.empty()) {
                kept.pop_back();
            }
        } else if (piece != CURRENT_DIR::STR) {
            kept.push_back(std::move(piece));
        }
    }
    std::string result;
    for (const std::string& piece : kept) {
        result += LINUX_PATH_SEPARATOR::STR + piece;
    }
    return result.empty() ? LINUX_PATH_SEPARATOR::STR : result;
}

bool check_or_create_directory(std::string_view path, bool path_is_file, mode_t mode,
                               create_policy policy) {
    std::string directory = get_absolute_path(path);
    if (path_is_file) {
        directory.resize(directory.rfind(LINUX_PATH_SEPARATOR::CHAR));
    }
    if (directory.empty()) {
        return false;
    }
    switch (policy) {
        case create_policy::OPTIMISTIC:
            return create_optimistic(directory, mode);
        case create_policy::PESSIMISTIC:
            throw std::runtime_error("not implemented:create_directory_pessimistic");
    }
    throw std::invalid_argument("policy");
}

}  // namespace qm::utils::path
