#include "archive/s3_credentials.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "archive/read_only_file.hpp"

namespace qm::archive {
namespace {

// A credentials file is a few lines; anything larger is not one.
constexpr std::size_t MAX_FILE_SIZE = 64 * 1024;

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

std::string required_environment(const char* name) {
    std::string value = environment(name);
    if (value.empty()) {
        throw CredentialsError(std::string(name) + " is not set");
    }
    return value;
}

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

std::string mode_text(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

// Opens the file and checks, on the open descriptor, that it is a regular file only its owner
// can access, then reads it whole.
std::string read_private_file(const std::filesystem::path& path) {
    const ReadOnlyFile file(path);
    if (file.fd() < 0) {
        throw CredentialsError("cannot read credentials file " + path.string() + ": " +
                               std::strerror(errno));
    }
    struct stat status {};
    if (::fstat(file.fd(), &status) != 0) {
        throw CredentialsError("cannot read credentials file " + path.string() + ": " +
                               std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw CredentialsError("credentials file " + path.string() + " is not a regular file");
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw CredentialsError(
            "credentials file " + path.string() + " is accessible by group or others (mode " +
            mode_text(status.st_mode) + "): it must be readable only by its owner (chmod 600 " +
            path.string() + ")");
    }
    std::string content(MAX_FILE_SIZE + 1, '\0');
    std::size_t filled = 0;
    while (filled < content.size()) {
        const ssize_t got = ::read(file.fd(), content.data() + filled, content.size() - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw CredentialsError("cannot read credentials file " + path.string() + ": " +
                                   std::strerror(errno));
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    if (filled > MAX_FILE_SIZE) {
        throw CredentialsError("credentials file " + path.string() + " is larger than " +
                               std::to_string(MAX_FILE_SIZE) + " bytes");
    }
    content.resize(filled);
    return content;
}

}  // namespace

S3Credentials credentials_from_environment() {
    S3Credentials credentials;
    credentials.access_key_id = required_environment("AWS_ACCESS_KEY_ID");
    credentials.secret_access_key = required_environment("AWS_SECRET_ACCESS_KEY");
    credentials.session_token = environment("AWS_SESSION_TOKEN");
    return credentials;
}

S3Credentials credentials_from_file(const std::filesystem::path& path) {
    const std::string content = read_private_file(path);
    S3Credentials credentials;
    bool in_default = true;
    std::size_t line_number = 0;
    std::string_view rest = content;
    while (!rest.empty()) {
        const auto end = rest.find('\n');
        const std::string_view line = trimmed(rest.substr(0, end));
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        ++line_number;
        if (line.empty() || line.front() == '#' || line.front() == ';') {
            continue;
        }
        if (line.front() == '[' && line.back() == ']') {
            in_default = trimmed(line.substr(1, line.size() - 2)) == "default";
            continue;
        }
        const auto equals = line.find('=');
        if (equals == std::string_view::npos) {
            // The line is not quoted: it may be a secret pasted without its key.
            throw CredentialsError("credentials file " + path.string() + ", line " +
                                   std::to_string(line_number) + ": expected `key = value`");
        }
        if (!in_default) {
            continue;
        }
        const std::string_view key = trimmed(line.substr(0, equals));
        const std::string value(trimmed(line.substr(equals + 1)));
        if (key == "aws_access_key_id") {
            credentials.access_key_id = value;
        } else if (key == "aws_secret_access_key") {
            credentials.secret_access_key = value;
        } else if (key == "aws_session_token") {
            credentials.session_token = value;
        }
    }
    for (const auto& [name, value] :
         {std::pair{"aws_access_key_id", &credentials.access_key_id},
          std::pair{"aws_secret_access_key", &credentials.secret_access_key}}) {
        if (value->empty()) {
            throw CredentialsError("credentials file " + path.string() + " has no " + name +
                                   " in its [default] section");
        }
    }
    return credentials;
}

std::optional<std::string> region_from_environment() {
    std::string region = environment("AWS_REGION");
    if (region.empty()) {
        return std::nullopt;
    }
    return region;
}

}  // namespace qm::archive
