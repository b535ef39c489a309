#pragma once

#include <sstream>
#include <string>
#include <string_view>

#include "core/reference_countable.hpp"

// The generic key = value parser behind every configuration of the program, and the constants that
// locate its files. Ownership: a configuration is reference counted and handed around through
// rc_ptr. Threads: created, filled and read on the main thread at start-up; after that it is only
// read, by any thread, and never written again. Thread creation orders those reads after the
// writes, so the fields of derived classes are plain.
namespace qm::conf {

extern const std::string default_conf_ext;
extern const std::string default_base_directory;
extern const std::string default_directory;
// For a message-broker client's configuration; nothing in the recorder reads it.
extern const std::string default_kafka_config_path;

// Exactly "true" or "false"; leaves `out` alone otherwise.
[[nodiscard]] bool try_parse_bool(std::string_view text, bool& out);

// The parser knows no key: it splits the text of a file or of the joined "--args" string into
// flags (a key alone) and options (key=value), hands each to `set_flag` or `set_value`, logs the
// outcome and stops at the first hard error. Derived classes (the extension chain) implement the
// two setters; settings applied before a failure stay applied.
class Configuration : public ReferenceCountable {
public:
    // Setter results.
    static constexpr int APPLIED = 0;
    static constexpr int UNKNOWN = 1;
    static constexpr int BAD_FORMAT = -1;
    static constexpr int FAILED_WITH_DETAIL = -255;

    // One flag or option: calls the setter and logs its result. False for a failure; an unknown
    // key only warns. Any other result is a failure without explanation when negative, and
    // accepted when positive.
    [[nodiscard]] bool parse_option(const std::string& key);
    [[nodiscard]] bool parse_option(const std::string& key, const std::string& value);
    // One line of a file; `line_number` counts from 0 and only appears in the error message.
    [[nodiscard]] bool parse_line(const std::string& line, std::size_t line_number);
    // A whole file; an empty path keeps the defaults. Stops at the first line that fails.
    [[nodiscard]] bool parse_file(const std::string& path);
    // The comma-separated argument string; ",," stands for a comma inside a value.
    [[nodiscard]] bool parse_args(const std::string& text);

protected:
    // Both report through the results above and may explain a failure in `detail` (shown for
    // FAILED_WITH_DETAIL). The base knows no key.
    [[nodiscard]] virtual int set_flag(const std::string& key, std::ostringstream& detail);
    [[nodiscard]] virtual int set_value(const std::string& key, const std::string& value,
                                        std::ostringstream& detail);

    // APPLIED when a value parsed, BAD_FORMAT when not.
    [[nodiscard]] static int to_status(bool parsed) { return parsed ? APPLIED : BAD_FORMAT; }
};

}  // namespace qm::conf
