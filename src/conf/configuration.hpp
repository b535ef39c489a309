#pragma once

#include <sstream>
#include <string>

#include "core/reference_countable.hpp"

namespace qm::conf {

extern const std::string default_conf_ext;
extern const std::string default_base_directory;
extern const std::string default_directory;
extern const std::string default_kafka_config_path;

// The generic key = value parser. It knows no key: it splits the text of a file or of the joined
// "--args" string into flags (a key alone) and options (key=value), hands each to `set_flag` or
// `set_value`, logs the outcome and stops at the first hard error. Derived classes (the extension
// chain) implement the two setters. Filled once on the main thread at start-up, then shared
// read-only through rc_ptr.
class Configuration : public ReferenceCountable {
public:
    // Setter results.
    static constexpr int APPLIED = 0;
    static constexpr int UNKNOWN = 1;
    static constexpr int BAD_FORMAT = -1;
    static constexpr int FAILED_WITH_DETAIL = -255;

    bool parse_option(const std::string& key);
    bool parse_option(const std::string& key, const std::string& value);
    bool parse_line(const std::string& line, std::size_t line_number);
    bool parse_file(const std::string& path);
    bool parse_args(const std::string& text);

protected:
    virtual int set_flag(const std::string& key, std::ostringstream& detail);
    virtual int set_value(const std::string& key, const std::string& value,
                          std::ostringstream& detail);
};

}  // namespace qm::conf
