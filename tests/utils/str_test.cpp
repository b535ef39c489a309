#include "utils/str.hpp"

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

namespace qm::utils::str {
namespace {

using Pieces = std::vector<std::string>;

Pieces split_char(std::string_view text, char delimiter, bool keep_empty) {
    Pieces out;
    split(text, delimiter, out, keep_empty);
    return out;
}

TEST(TrimTest, StripsWhiteSpaceOnOneSideOnly) {
    EXPECT_EQ(trim_left(" \t\r\n port = 5000 \t"), "port = 5000 \t");
    EXPECT_EQ(trim_right(" \t port = 5000 \v\f\r\n"), " \t port = 5000");
    EXPECT_EQ(trim_left(trim_right("  port = 5000  ")), "port = 5000");
}

TEST(TrimTest, AllBlankOrEmptyGivesEmpty) {
    EXPECT_EQ(trim_left("  \t "), "");
    EXPECT_EQ(trim_right("  \t "), "");
    EXPECT_EQ(trim_left(""), "");
    EXPECT_EQ(trim_right(""), "");
}

TEST(TrimTest, GivenCharactersAreStripped) {
    EXPECT_EQ(trim_left("//srv/data", "/"), "srv/data");
    EXPECT_EQ(trim_right("/srv/data//", "/"), "/srv/data");
    EXPECT_EQ(trim_right("xyxabc yx", "xy"), "xyxabc ");
    EXPECT_EQ(trim_left(" abc", ""), " abc");
}

TEST(ReplaceTest, InPlaceReplacesEveryOccurrence) {
    std::string text = "x=1,,2,y=3,,,4";
    replace(text, ",,", "_;");
    EXPECT_EQ(text, "x=1_;2,y=3_;,4");
}

TEST(ReplaceTest, ReplacementIsNotRescanned) {
    std::string text = "aaa";
    replace(text, "a", "aa");
    EXPECT_EQ(text, "aaaaaa");
    text = "abab";
    replace(text, "ab", "");
    EXPECT_EQ(text, "");
}

TEST(ReplaceTest, EmptyPatternChangesNothing) {
    std::string text = "abc";
    replace(text, "", "x");
    EXPECT_EQ(text, "abc");
}

TEST(ReplaceTest, CopyingFormLeavesTheSourceAlone) {
    const std::string source = "1_;2_;3";
    EXPECT_EQ(replace(source, "_;", ","), "1,2,3");
    EXPECT_EQ(source, "1_;2_;3");
}

TEST(SplitTest, TrailingDelimiterGivesNoEmptyLastPiece) {
    EXPECT_EQ(split_char("a,b,", ',', true), (Pieces{"a", "b"}));
    EXPECT_EQ(split_char("a,b,", ',', false), (Pieces{"a", "b"}));
}

TEST(SplitTest, InnerAndLeadingEmptyPiecesOnlyWithKeepEmpty) {
    EXPECT_EQ(split_char(",a,,b", ',', true), (Pieces{"", "a", "", "b"}));
    EXPECT_EQ(split_char(",a,,b", ',', false), (Pieces{"a", "b"}));
}

TEST(SplitTest, LoneDelimiterIsOneEmptyLine) {
    EXPECT_EQ(split_char(",", ',', true), (Pieces{""}));
    EXPECT_EQ(split_char(",", ',', false), Pieces{});
    EXPECT_EQ(split_char("=", '=', true), (Pieces{""}));
}

TEST(SplitTest, EmptyTextGivesNothing) {
    EXPECT_EQ(split_char("", ',', true), Pieces{});
}

TEST(SplitTest, TextWithoutDelimiterIsOnePiece) {
    EXPECT_EQ(split_char("port", '=', true), (Pieces{"port"}));
}

TEST(SplitTest, AppendsToTheOutputAndCountsThePieces) {
    Pieces out{"kept"};
    EXPECT_EQ(split("a=b=c", '=', out), 3u);
    EXPECT_EQ(out, (Pieces{"kept", "a", "b", "c"}));
}

TEST(SplitTest, StringDelimiterIsMatchedWhole) {
    Pieces out;
    EXPECT_EQ(split("a::b:c::", "::", out, true), 2u);
    EXPECT_EQ(out, (Pieces{"a", "b:c"}));
    out.clear();
    split("::a::::b", std::string("::"), out, true);
    EXPECT_EQ(out, (Pieces{"", "a", "", "b"}));
    out.clear();
    split("::a::::b", "::", out, false);
    EXPECT_EQ(out, (Pieces{"a", "b"}));
}

TEST(SplitTest, EmptyStringDelimiterLeavesTheTextWhole) {
    Pieces out;
    split("a,b", "", out);
    EXPECT_EQ(out, (Pieces{"a,b"}));
}

TEST(SplitAnyTest, AnyDelimiterCharacterEndsAPiece) {
    Pieces out;
    EXPECT_EQ(split_any("a b\tc  d\n", " \t\n", out, false), 4u);
    EXPECT_EQ(out, (Pieces{"a", "b", "c", "d"}));
    out.clear();
    split_any("a b\tc  d\n", " \t\n", out, true);
    EXPECT_EQ(out, (Pieces{"a", "b", "c", "", "d"}));
}

template <typename T>
std::pair<try_parse_status, T> parse(const char* text, T initial) {
    T value = initial;
    const TryParseResult result = try_parse_value<T, 10>(text, value);
    return {result.status(), value};
}

TEST(TryParseValueTest, DecimalNumbersParse) {
    EXPECT_EQ(parse<unsigned long>("12", 7), std::make_pair(try_parse_status::SUCCESS, 12ul));
    EXPECT_EQ(parse<unsigned long>("18446744073709551615", 7),
              std::make_pair(try_parse_status::SUCCESS, 18446744073709551615ul));
    EXPECT_EQ(parse<unsigned short>("65535", 7),
              std::make_pair(try_parse_status::SUCCESS, std::uint16_t{65535}));
    EXPECT_EQ(parse<unsigned long>("  42", 7), std::make_pair(try_parse_status::SUCCESS, 42ul));
    EXPECT_EQ(parse<unsigned long>("010", 7), std::make_pair(try_parse_status::SUCCESS, 10ul));
}

TEST(TryParseValueTest, CharactersAfterTheDigitsAreBadFormat) {
    EXPECT_EQ(parse<unsigned long>("12x", 7), std::make_pair(try_parse_status::BAD_FORMAT, 7ul));
    EXPECT_EQ(parse<unsigned long>("12 ", 7), std::make_pair(try_parse_status::BAD_FORMAT, 7ul));
}

TEST(TryParseValueTest, NoDigitsIsBadFormat) {
    EXPECT_EQ(parse<unsigned long>("", 7), std::make_pair(try_parse_status::BAD_FORMAT, 7ul));
    EXPECT_EQ(parse<unsigned long>("  ", 7), std::make_pair(try_parse_status::BAD_FORMAT, 7ul));
    EXPECT_EQ(parse<unsigned long>("x1", 7), std::make_pair(try_parse_status::BAD_FORMAT, 7ul));
}

TEST(TryParseValueTest, AboveTheRangeIsOutOfRange) {
    EXPECT_EQ(parse<unsigned long>("18446744073709551616", 7),
              std::make_pair(try_parse_status::OUT_OF_RANGE, 7ul));
    EXPECT_EQ(parse<unsigned long>("99999999999999999999", 7),
              std::make_pair(try_parse_status::OUT_OF_RANGE, 7ul));
    EXPECT_EQ(parse<unsigned short>("65536", 7),
              std::make_pair(try_parse_status::OUT_OF_RANGE, std::uint16_t{7}));
}

TEST(TryParseValueTest, MinusSignWrapsAsTheStandardConversionDoes) {
    EXPECT_EQ(parse<unsigned long>("-1", 7),
              std::make_pair(try_parse_status::SUCCESS, 18446744073709551615ul));
    EXPECT_EQ(parse<unsigned short>("-1", 7),
              std::make_pair(try_parse_status::OUT_OF_RANGE, std::uint16_t{7}));
}

TEST(TryParseValueTest, NullInput) {
    unsigned long value = 7;
    const TryParseResult result = try_parse_value<unsigned long, 10>(nullptr, value);
    EXPECT_EQ(result.status(), try_parse_status::NULL_INPUT);
    EXPECT_FALSE(result);
    EXPECT_EQ(value, 7ul);
}

TEST(TryParseValueTest, StringOverloadAndResultTruthiness) {
    unsigned short value = 0;
    const TryParseResult result = try_parse_value<unsigned short, 10>(std::string("5060"), value);
    EXPECT_TRUE(result);
    EXPECT_TRUE(result.succeeded());
    EXPECT_EQ(value, 5060);
    EXPECT_EQ(static_cast<int>(try_parse_status::CONVERSION_ERROR), 4);
}

constexpr std::uint8_t UUID[16] = {0x00, 0x11, 0x22, 0x33, 0x04, 0x55, 0x66, 0x07,
                                   0x88, 0x99, 0xaa, 0x0b, 0xcc, 0xdd, 0xee, 0xff};

TEST(PrintUuidTest, EightFourFourFourTwelveLowerCaseZeroFilled) {
    const std::string text = print_uuid(UUID);
    EXPECT_EQ(text, "00112233-0455-6607-8899-aa0bccddeeff");
    EXPECT_EQ(text.size(), 36u);
}

TEST(PrintUuidTest, StreamFormattingIsRestored) {
    std::ostringstream out;
    out << std::uppercase << std::dec << std::setfill('*') << std::setw(6);
    print_uuid(out, UUID) << 255 << "|";
    out << std::setw(4) << 7;
    EXPECT_EQ(out.str(), "00112233-0455-6607-8899-aa0bccddeeff***255|***7");
    EXPECT_TRUE(out.flags() & std::ios_base::uppercase);
}

TEST(PrintDoubleTest, TwoDigitsAfterThePoint) {
    EXPECT_EQ(print_double<2>(90.0), "90.00");
    EXPECT_EQ(print_double<2>(12.345678), "12.35");
    EXPECT_EQ(print_double<2>(0.004), "0.00");
    EXPECT_EQ(print_double<2>(100.0L), "100.00");
    EXPECT_EQ(print_double<3>(1.5f), "1.500");
}

}  // namespace
}  // namespace qm::utils::str
