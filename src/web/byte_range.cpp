#include "web/byte_range.hpp"

#include <charconv>

namespace qm::web {
namespace {

// Digits only, the whole text, fitting 64 bits.
std::optional<std::uint64_t> number(std::string_view text) {
    std::uint64_t value = 0;
    if (text.empty()) {
        return std::nullopt;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

RangeAnswer answer_range(std::string_view header, std::uint64_t size) {
    constexpr std::string_view UNIT = "bytes=";
    if (!header.starts_with(UNIT)) {
        return {};
    }
    const std::string_view range = header.substr(UNIT.size());
    const std::size_t dash = range.find('-');
    if (dash == std::string_view::npos || range.find(',') != std::string_view::npos) {
        return {};
    }
    const std::string_view first_text = range.substr(0, dash);
    const std::string_view last_text = range.substr(dash + 1);
    if (first_text.empty()) {
        const std::optional<std::uint64_t> suffix = number(last_text);
        if (!suffix) {
            return {};
        }
        if (*suffix == 0 || size == 0) {
            return {RangeKind::UNSATISFIABLE, {}};
        }
        const std::uint64_t length = *suffix < size ? *suffix : size;
        return {RangeKind::PART, {size - length, size - 1}};
    }
    const std::optional<std::uint64_t> first = number(first_text);
    const std::optional<std::uint64_t> last =
        last_text.empty() ? std::optional<std::uint64_t>(UINT64_MAX) : number(last_text);
    if (!first || !last || *last < *first) {
        return {};
    }
    if (*first >= size) {
        return {RangeKind::UNSATISFIABLE, {}};
    }
    return {RangeKind::PART, {*first, *last < size ? *last : size - 1}};
}

}  // namespace qm::web
