#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

// Path helpers: separators, the current directory, absolute paths computed on the text alone, and
// creating a chain of directories. No state of their own; `get_current_directory` and
// `get_absolute_path` read the process's current directory, so they race with a concurrent chdir.
// `check_or_create_directory` may be called by several threads or processes on overlapping paths.
namespace qm::utils::path {

// A one-character path constant as a character, a C string and a string.
template <char VALUE>
struct CharConstant {
    static constexpr char CHAR = VALUE;
    static constexpr char C_STR[2] = {VALUE, '\0'};
    inline static const std::string STR = std::string(1, VALUE);
};

struct LINUX_PATH_SEPARATOR : CharConstant<'/'> {};
struct WINDOWS_PATH_SEPARATOR : CharConstant<'\\'> {};
struct FILE_EXTENSION_SEPARATOR : CharConstant<'.'> {};
struct CURRENT_DIR : CharConstant<'.'> {};
// Two characters long, so it has no character form.
struct PARENT_DIR {
    static constexpr const char* C_STR = "..";
    inline static const std::string STR = C_STR;
};

// How `check_or_create_directory` creates missing directories.
enum class create_policy : int {
    // Find the deepest existing ancestor, then create the rest downwards.
    OPTIMISTIC = 0,
    // Declared but not implemented: throws.
    PESSIMISTIC = 1,
};

// The process's current directory, without a trailing "/" (so the root is "").
std::string get_current_directory();

// Every backslash replaced by "/".
std::string normalize_path_separator(std::string_view path);

// The part after the last "/" or backslash; the whole path when it has neither.
std::string get_file_name(std::string_view path);

// Trims white space, normalises separators, prefixes a relative path with the current directory,
// then drops "." pieces, lets ".." remove the piece before it and joins the rest after a leading
// "/". The file system is not consulted: links are not resolved and the path need not exist.
std::string get_absolute_path(std::string_view path);

// Makes sure the directory `path` (or, when `path_is_file`, the directory that would hold the
// file) exists, creating the missing part of the chain with `mode` (under the process's umask).
// Returns false with errno set when it cannot: ENOTDIR when the deepest existing ancestor is not a
// directory, else the error of the failed query or creation. A creation that fails with EEXIST
// counts as success (someone else created it meanwhile). Throws std::runtime_error for
// PESSIMISTIC and std::invalid_argument for any other unknown policy.
[[nodiscard]] bool check_or_create_directory(std::string_view path, bool path_is_file, mode_t mode,
                                             create_policy policy = create_policy::OPTIMISTIC);

}  // namespace qm::utils::path
