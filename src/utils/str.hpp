#pragma once

#include <concepts>
#include <cstdint>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "utils/generic_result.hpp"

// Text helpers: trimming, replacing, splitting, number parsing with a status, and the printed forms
// of a session UUID and of a fixed-point number. Pure functions of their arguments (apart from the
// output arguments); safe to call from any thread.
namespace qm::utils::str {

// Characters `trim_left` and `trim_right` strip when no set is given: those of std::isspace in the
// "C" locale.
inline constexpr std::string_view WHITE_SPACE = " \t\n\v\f\r";

// Copy of `text` without the leading (left) or trailing (right) characters found in `characters`.
std::string trim_left(std::string_view text, std::string_view characters = WHITE_SPACE);
std::string trim_right(std::string_view text, std::string_view characters = WHITE_SPACE);

// Replaces every occurrence of `from` by `to`, scanning left to right and never rescanning the
// replacement. An empty `from` changes nothing. The first form edits `text` in place, the second
// returns a copy.
void replace(std::string& text, std::string_view from, std::string_view to);
std::string replace(std::string_view text, std::string_view from, std::string_view to);

// Appends to `out` the pieces of `text` as successive line reads would give them with `delimiter`
// as the line end: a trailing delimiter gives no empty last piece, an empty text gives no piece,
// and empty pieces are appended only when `keep_empty` is true. The string form takes the whole
// string as one delimiter (an empty one leaves the text whole). Returns how many pieces it
// appended.
std::size_t split(std::string_view text, char delimiter, std::vector<std::string>& out,
                  bool keep_empty = false);
std::size_t split(std::string_view text, std::string_view delimiter, std::vector<std::string>& out,
                  bool keep_empty = false);

// As `split`, but any one character of `delimiters` ends a piece.
std::size_t split_any(std::string_view text, std::string_view delimiters,
                      std::vector<std::string>& out, bool keep_empty = false);

// Outcome of the number parsers.
enum class try_parse_status : int {
    SUCCESS = 0,
    NULL_INPUT = 1,
    // No digits, or characters after the digits.
    BAD_FORMAT = 2,
    // The conversion reported ERANGE, or the value does not fit the target type.
    OUT_OF_RANGE = 3,
    // Any other error the conversion reported.
    CONVERSION_ERROR = 4,
};

using TryParseResult = GenericResult<try_parse_status, try_parse_status::SUCCESS>;

// Standard string-to-unsigned conversion (std::strtoul): leading white space and a sign are taken
// as the conversion takes them, nothing may follow the digits. `out` is written only on success.
// Instantiated for <unsigned short, 10> and <unsigned long, 10>.
template <typename T, int BASE>
TryParseResult try_parse_value(const char* text, T& out);

template <typename T, int BASE>
TryParseResult try_parse_value(const std::string& text, T& out) {
    return try_parse_value<T, BASE>(text.c_str(), out);
}

// Writes the 16 bytes at `uuid` in the 8-4-4-4-12 form of lower-case hexadecimal digits
// ("00112233-4455-6677-8899-aabbccddeeff"); the stream's flags, width and fill are restored
// afterwards. REQUIRES: `uuid` points to 16 readable bytes.
std::ostream& print_uuid(std::ostream& out, const std::uint8_t* uuid);
std::string print_uuid(const std::uint8_t* uuid);

// The value in fixed notation with exactly DIGITS digits after the decimal point.
template <int DIGITS, std::floating_point T>
std::string print_double(T value) {
    std::ostringstream out;
    out << std::fixed << std::setprecision(DIGITS) << value;
    return out.str();
}

}  // namespace qm::utils::str
