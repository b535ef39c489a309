#include "conf/configuration.hpp"

#include <fstream>
#include <vector>

#include "log/logger.hpp"
#include "utils/str.hpp"

namespace qm::conf {

const std::string default_conf_ext = ".conf";
const std::string default_base_directory = "/etc/varnholt";
const std::string default_directory = default_base_directory + "/quillmar";
const std::string default_kafka_config_path = default_directory + "/kafka" + default_conf_ext;

namespace {

constexpr char COMMENT_MARKER = '#';
constexpr char KEY_VALUE_SEPARATOR = '=';
constexpr char ARGS_SEPARATOR = ',';
// An escaped comma in the argument string, and the placeholder that stands in for it until the
// string is split at its plain commas.
constexpr std::string_view ARGS_ESCAPED_SEPARATOR = ",,";
constexpr std::string_view ARGS_ESCAPE_PLACEHOLDER = "_;";

// The wording of the log lines for one flag or option; they differ only in these pieces.
struct SettingText {
    std::string subject;     // "flag [key]"
    std::string applied;     // " applied"
    std::string failure;     // "failed to apply flag [key]"
    std::string bad_format;  // "unexpected format"
};

[[nodiscard]] bool report(int status, const SettingText& text, const std::ostringstream& detail) {
    switch (status) {
        case Configuration::APPLIED:
            QM_LOG_SYSTEM("CONFIGURATION: " << text.subject << text.applied);
            return true;
        case Configuration::UNKNOWN:
            QM_LOG_WARNING("CONFIGURATION: " << text.subject << " is unknown");
            return true;
        case Configuration::BAD_FORMAT:
            QM_LOG_ERROR("CONFIGURATION: " << text.failure << ": " << text.bad_format);
            return false;
        case Configuration::FAILED_WITH_DETAIL:
            QM_LOG_ERROR("CONFIGURATION: " << text.failure << ": " << detail.str());
            return false;
        default:
            QM_LOG_ERROR("CONFIGURATION: " << text.failure);
            return status > 0;
    }
}

// A line or an argument cut at "=" is a setting when it gave one piece (a key alone) or two (a key
// and its value).
bool is_setting(const std::vector<std::string>& pieces) {
    return pieces.size() == 1 || pieces.size() == 2;
}

// Applies a setting; an empty value makes it a flag.
[[nodiscard]] bool apply(Configuration& configuration, const std::vector<std::string>& pieces) {
    const std::string key = utils::str::trim_right(pieces[0]);
    const std::string value = pieces.size() == 2 ? utils::str::trim_left(pieces[1]) : "";
    return value.empty() ? configuration.parse_option(key) : configuration.parse_option(key, value);
}

}  // namespace

bool try_parse_bool(std::string_view text, bool& out) {
    if (text == "true" || text == "false") {
        out = text == "true";
        return true;
    }
    return false;
}

bool Configuration::parse_option(const std::string& key) {
    std::ostringstream detail;
    const int status = set_flag(key, detail);
    return report(status,
                  {"flag [" + key + "]", " applied", "failed to apply flag [" + key + "]",
                   "unexpected format"},
                  detail);
}

bool Configuration::parse_option(const std::string& key, const std::string& value) {
    std::ostringstream detail;
    const int status = set_value(key, value, detail);
    return report(
        status,
        {"option [" + key + "]", " is set to [" + value + "]",
         "failed to set option [" + key + "] to [" + value + "]", "unexpected value format"},
        detail);
}

bool Configuration::parse_line(const std::string& line, std::size_t line_number) {
    const std::string trimmed = utils::str::trim_left(utils::str::trim_right(line));
    if (trimmed.empty() || trimmed.front() == COMMENT_MARKER) {
        return true;
    }
    std::vector<std::string> pieces;
    utils::str::split(trimmed, KEY_VALUE_SEPARATOR, pieces, false);
    if (is_setting(pieces)) {
        return apply(*this, pieces);
    }
    QM_LOG_ERROR("CONFIGURATION: incorrect option format at line " << line_number << ": \"" << line
                                                                   << "\"");
    return false;
}

bool Configuration::parse_file(const std::string& path) {
    if (path.empty()) {
        QM_LOG_INFO("CONFIGURATION: file is not specified, default values are used");
        return true;
    }
    std::ifstream file(path);
    // A directory opens but cannot be read; the first look at it says so.
    if (!file.is_open() || (file.peek(), file.bad())) {
        QM_LOG_ERROR("CONFIGURATION: failed to open file [" << path << "]");
        return false;
    }
    QM_LOG_SYSTEM("CONFIGURATION: reading from file [" << path << "]");
    bool result = true;
    std::string line;
    for (std::size_t line_number = 0; result && std::getline(file, line); ++line_number) {
        result = parse_line(line, line_number);
    }
    return result;
}

bool Configuration::parse_args(const std::string& text) {
    QM_LOG_SYSTEM("CONFIGURATION: reading from args: " << text);
    std::vector<std::string> pieces;
    utils::str::split(utils::str::replace(text, ARGS_ESCAPED_SEPARATOR, ARGS_ESCAPE_PLACEHOLDER),
                      ARGS_SEPARATOR, pieces, false);
    std::size_t position = 1;
    for (std::string& piece : pieces) {
        utils::str::replace(piece, ARGS_ESCAPE_PLACEHOLDER, {&ARGS_SEPARATOR, 1});
        std::vector<std::string> parts;
        utils::str::split(piece, KEY_VALUE_SEPARATOR, parts, true);
        if (!is_setting(parts)) {
            QM_LOG_ERROR("CONFIGURATION: incorrect option format at position [" << position << "]");
            return false;
        }
        if (!apply(*this, parts)) {
            return false;
        }
        ++position;
    }
    return true;
}

int Configuration::set_flag(const std::string&, std::ostringstream&) {
    return UNKNOWN;
}

int Configuration::set_value(const std::string&, const std::string&, std::ostringstream&) {
    return UNKNOWN;
}

}  // namespace qm::conf
