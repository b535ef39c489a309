// libFuzzer target: arbitrary text through the recorder configuration's parser. The first byte
// picks the way in: even, the rest is a file, each line through `parse_line`; odd, the rest is an
// "--args" string through `parse_args`.
//
// Checked for every input (a violation traps, which libFuzzer reports as a crash):
// - a line that is blank or a comment is accepted and sets nothing;
// - an "--args" value with its commas escaped as ",," comes back whole: the rest of the input,
//   without "=" and without leading blanks, is given as the storage value and must be stored
//   exactly. A value holding "_;" is left out: the escape turns it into "," by design;
// - after every line, each network of `allowed_sources` allows its own address, and a line that
//   sets the key is taken exactly when the list parses on its own.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/rc_ptr.hpp"
#include "net/source_filter.hpp"
#include "recorder/configuration.hpp"
#include "utils/str.hpp"

namespace {

using qm::recorder::Configuration;

void check(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

// The value of a line "allowed_sources = VALUE" as the parser sees it; nothing for other lines.
std::optional<std::string> allowed_sources_value(std::string_view line) {
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.find('=', equals + 1) != std::string_view::npos ||
        qm::utils::str::trim_left(qm::utils::str::trim_right(line.substr(0, equals))) !=
            "allowed_sources") {
        return std::nullopt;
    }
    return qm::utils::str::trim_right(qm::utils::str::trim_left(line.substr(equals + 1)));
}

void check_allowed_sources(const Configuration& configuration, std::string_view line, bool parsed) {
    for (const qm::net::SourceFilter::Network& network : configuration.allowed_sources.networks()) {
        check(configuration.allowed_sources.allows(network.address));
    }
    const std::optional<std::string> value = allowed_sources_value(line);
    if (value && !value->empty()) {
        qm::net::SourceFilter alone;
        std::string error;
        check(parsed == qm::net::SourceFilter::try_parse(*value, alone, error));
    }
}

bool is_blank_or_comment(std::string_view line) {
    const std::string trimmed = qm::utils::str::trim_left(line);
    return trimmed.empty() || trimmed.front() == '#';
}

void parse_as_file(std::string_view text) {
    const qm::rc_ptr<Configuration> configuration = new Configuration();
    std::size_t line_number = 0;
    for (std::size_t start = 0; start <= text.size(); ++line_number) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        const std::string line(text.substr(start, end - start));
        const std::string storage_before = configuration->storage;
        const bool parsed = configuration->parse_line(line, line_number);
        check_allowed_sources(*configuration, line, parsed);
        if (is_blank_or_comment(line)) {
            check(parsed);
            check(configuration->storage == storage_before);
        }
        start = end + 1;
    }
}

void check_escaped_value_comes_back(std::string_view text) {
    std::string value;
    for (const char c : text) {
        if (c != '=') {
            value += c;
        }
    }
    value = qm::utils::str::trim_left(value);
    if (value.empty() || value.find("_;") != std::string::npos) {
        return;
    }
    const qm::rc_ptr<Configuration> configuration = new Configuration();
    check(configuration->parse_args("storage=" +
                                    qm::utils::str::replace(std::string_view(value), ",", ",,")));
    check(configuration->storage == value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] % 2 == 0) {
        parse_as_file(text);
    } else {
        const qm::rc_ptr<Configuration> configuration = new Configuration();
        [[maybe_unused]] const bool parsed = configuration->parse_args(std::string(text));
        check_escaped_value_comes_back(text);
    }
    return 0;
}
