#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

// Where the archive's S3 keys come from: the environment or a file only its owner can read,
// never the command line, where every user sees them in the process list. Nothing here logs a
// secret, and no message quotes one.
// Any thread; the environment functions read the process environment (no setenv meanwhile).

namespace qm::archive {

struct S3Credentials {
    std::string access_key_id;
    std::string secret_access_key;
    // A temporary credential's token (x-amz-security-token); empty for a long-term key.
    std::string session_token;
};

// A missing or refused credential, with the reason; the message never holds the secret.
class CredentialsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY and, when set, AWS_SESSION_TOKEN.
// THROWS: CredentialsError "AWS_ACCESS_KEY_ID is not set" (or AWS_SECRET_ACCESS_KEY) when one of
// the two is unset or empty.
S3Credentials credentials_from_environment();

// A file in the format of the AWS shared credentials file:
//   [default]
//   aws_access_key_id = AKIA...
//   aws_secret_access_key = ...
//   aws_session_token = ...        (optional)
// Only the [default] section (or lines before any section) is read; blank lines and lines that
// start with '#' or ';' are comments; other keys are ignored.
// THROWS: CredentialsError when the file cannot be read, is not a regular file, is accessible
// by its group or others ("credentials file PATH is accessible by group or others (mode 0640):
// it must be readable only by its owner (chmod 600 PATH)"), has a line that is not `key =
// value`, or lacks either key.
S3Credentials credentials_from_file(const std::filesystem::path& path);

// AWS_REGION when set and not empty.
std::optional<std::string> region_from_environment();

}  // namespace qm::archive
