#include "utils/str.hpp"

#include <cerrno>
#include <cstdlib>
#include <limits>

namespace qm::utils::str {

namespace {

// The pieces of `text` cut where `find_end(text, from)` says a piece ends; `delimiter_length`
// characters are skipped after each end. The shared engine of `split` and `split_any`.
template <typename FindEnd>
std::size_t split_with(std::string_view text, std::size_t delimiter_length, FindEnd find_end,
                       std::vector<std::string>& out, bool keep_empty) {
    std::size_t appended = 0;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = find_end(text, start);
        const std::size_t piece_end = end == std::string_view::npos ? text.size() : end;
        if (keep_empty || piece_end > start) {
            out.emplace_back(text.substr(start, piece_end - start));
            ++appended;
        }
        start = end == std::string_view::npos ? text.size() : end + delimiter_length;
    }
    return appended;
}

}  // namespace

std::string trim_left(std::string_view text, std::string_view characters) {
    const std::size_t first = text.find_first_not_of(characters);
    return first == std::string_view::npos ? std::string() : std::string(text.substr(first));
}

std::string trim_right(std::string_view text, std::string_view characters) {
    const std::size_t last = text.find_last_not_of(characters);
    return last == std::string_view::npos ? std::string() : std::string(text.substr(0, last + 1));
}

void replace(std::string& text, std::string_view from, std::string_view to) {
    if (from.empty()) {
        return;
    }
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

std::string replace(std::string_view text, std::string_view from, std::string_view to) {
    std::string copy(text);
    replace(copy, from, to);
    return copy;
}

std::size_t split(std::string_view text, char delimiter, std::vector<std::string>& out,
                  bool keep_empty) {
    const auto find_end = [delimiter](std::string_view t, std::size_t from) {
        return t.find(delimiter, from);
    };
    return split_with(text, 1, find_end, out, keep_empty);
}

std::size_t split(std::string_view text, std::string_view delimiter, std::vector<std::string>& out,
                  bool keep_empty) {
    if (delimiter.empty()) {
        return split_with(
            text, 0, [](std::string_view, std::size_t) { return std::string_view::npos; }, out,
            keep_empty);
    }
    const auto find_end = [delimiter](std::string_view t, std::size_t from) {
        return t.find(delimiter, from);
    };
    return split_with(text, delimiter.size(), find_end, out, keep_empty);
}

std::size_t split_any(std::string_view text, std::string_view delimiters,
                      std::vector<std::string>& out, bool keep_empty) {
    const auto find_end = [delimiters](std::string_view t, std::size_t from) {
        return t.find_first_of(delimiters, from);
    };
    return split_with(text, 1, find_end, out, keep_empty);
}

template <typename T, int BASE>
TryParseResult try_parse_value(const char* text, T& out) {
    static_assert(std::numeric_limits<T>::max() <= std::numeric_limits<unsigned long>::max());
    if (text == nullptr) {
        return try_parse_status::NULL_INPUT;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, BASE);
    const int error = errno;
    if (error == ERANGE) {
        return try_parse_status::OUT_OF_RANGE;
    }
    if (error != 0) {
        return try_parse_status::CONVERSION_ERROR;
    }
    if (end == text || *end != '\0') {
        return try_parse_status::BAD_FORMAT;
    }
    if (value > std::numeric_limits<T>::max()) {
        return try_parse_status::OUT_OF_RANGE;
    }
    out = static_cast<T>(value);
    return try_parse_status::SUCCESS;
}

template TryParseResult try_parse_value<unsigned short, 10>(const char*, unsigned short&);
template TryParseResult try_parse_value<unsigned long, 10>(const char*, unsigned long&);

std::ostream& print_uuid(std::ostream& out, const std::uint8_t* uuid) {
    const std::ios_base::fmtflags flags = out.flags();
    const std::streamsize width = out.width();
    const char fill = out.fill();
    out << std::hex << std::nouppercase << std::setfill('0');
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            out << '-';
        }
        out << std::setw(2) << static_cast<unsigned>(uuid[i]);
    }
    out.flags(flags);
    out.width(width);
    out.fill(fill);
    return out;
}

std::string print_uuid(const std::uint8_t* uuid) {
    std::ostringstream out;
    print_uuid(out, uuid);
    return out.str();
}

}  // namespace qm::utils::str
