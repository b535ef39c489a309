#include "log/logger.hpp"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include "log/stdlog.hpp"
#include "log_capture.hpp"

namespace qm::log {
namespace {

// Redirects std::clog into a string for the duration of a test and installs the Stdlog sink.
class StdlogRedirect {
public:
    StdlogRedirect() : m_saved_buffer(std::clog.rdbuf(m_output.rdbuf())) {
        m_saved_write = Logger::m_instance.write;
        m_saved_level = get_level();
        Logger::m_instance.write = &Stdlog::write;
    }
    ~StdlogRedirect() {
        std::clog.rdbuf(m_saved_buffer);
        Logger::m_instance.write = m_saved_write;
        set_level(m_saved_level);
    }
    std::string output() const { return m_output.str(); }

private:
    std::ostringstream m_output;
    std::streambuf* m_saved_buffer;
    LoggerImpl::WriteFn m_saved_write;
    Level m_saved_level;
};

std::string strip_time(const std::string& line) {
    const std::size_t at = line.find(message_delimiter);
    return at == std::string::npos ? line : line.substr(at + 3);
}

TEST(LevelTest, NamesAndPaddingFillSevenColumns) {
    for (int i = 0; i <= 5; ++i) {
        const auto level = static_cast<Level>(i);
        EXPECT_EQ(level_to_string(level).size() + level_to_spaces(level).size(), 7u) << i;
    }
    EXPECT_EQ(level_to_string(Level::SYSTEM), "SYSTEM");
    EXPECT_EQ(level_to_spaces(Level::INFO), "   ");
    EXPECT_EQ(level_to_spaces(Level::WARNING), "");
}

TEST(LevelTest, SyslogPriorities) {
    EXPECT_EQ(level_to_syslevel(Level::SYSTEM), 5);
    EXPECT_EQ(level_to_syslevel(Level::ERROR), 3);
    EXPECT_EQ(level_to_syslevel(Level::WARNING), 4);
    EXPECT_EQ(level_to_syslevel(Level::INFO), 6);
    EXPECT_EQ(level_to_syslevel(Level::DEBUG), 7);
    EXPECT_EQ(level_to_syslevel(Level::TRACE), 7);
}

TEST(LevelTest, TryParseLevelIsExactAndCaseSensitive) {
    Level level = Level::INFO;
    EXPECT_TRUE(try_parse_level("TRACE", level));
    EXPECT_EQ(static_cast<int>(level), 5);
    EXPECT_TRUE(try_parse_level("SYSTEM", level));
    EXPECT_EQ(level, Level::SYSTEM);

    level = Level::WARNING;
    EXPECT_FALSE(try_parse_level("trace", level));
    EXPECT_FALSE(try_parse_level("", level));
    EXPECT_FALSE(try_parse_level("Trace", level));
    EXPECT_FALSE(try_parse_level("5", level));
    EXPECT_EQ(level, Level::WARNING);
}

TEST(FormatTest, InfoLineHasThreeBlanksAfterTheName) {
    InfoMessage message;
    message << "hello " << 42;
    std::ostringstream out;
    format_message(out, "file.cpp", 120, message);
    EXPECT_EQ(out.str(), "INFO    | file.cpp:120 | hello 42");
}

TEST(FormatTest, WarningLineHasNoPadding) {
    WarningMessage message;
    message << "careful";
    std::ostringstream out;
    format_message(out, "f.cpp", 7, message);
    EXPECT_EQ(out.str(), "WARNING | f.cpp:7 | careful");
}

TEST(FormatTest, DebugMessageUsesTheBaseClassAtLevelFour) {
    Message message(Level::DEBUG);
    message << "d";
    std::ostringstream out;
    format_message(out, "f.cpp", 1, message);
    EXPECT_EQ(out.str(), "DEBUG   | f.cpp:1 | d");
}

TEST(FormatTest, TimeHasMicrosecondsZeroPadded) {
    timeval value{};
    value.tv_sec = 1633954638;
    value.tv_usec = 4211;
    const std::string text = format_time(value);
    EXPECT_TRUE(
        std::regex_match(text, std::regex(R"(\d{4}\.\d{2}\.\d{2} \d{2}:\d{2}:\d{2}\.004211)")))
        << text;
    value.tv_usec = 0;
    EXPECT_EQ(format_time(value).substr(text.size() - 7), ".000000");
}

TEST(FormatTest, CurrentTimeHasTheSameShape) {
    EXPECT_TRUE(std::regex_match(format_time(),
                                 std::regex(R"(\d{4}\.\d{2}\.\d{2} \d{2}:\d{2}:\d{2}\.\d{6})")));
}

TEST(StdlogTest, WritesTimeDelimiterAndFormattedLine) {
    StdlogRedirect redirect;
    set_level(Level::INFO);
    QM_LOG_INFO("value [" << 3 << "]");
    const std::string output = redirect.output();
    ASSERT_FALSE(output.empty());
    EXPECT_EQ(output.back(), '\n');
    EXPECT_TRUE(std::regex_match(
        output,
        std::regex(
            R"(\d{4}\.\d{2}\.\d{2} \d{2}:\d{2}:\d{2}\.\d{6} \| INFO    \| logger_test\.cpp:\d+ \| value \[3\]\n)")))
        << output;
}

TEST(StdlogTest, DefaultThresholdDropsDebugAndTrace) {
    StdlogRedirect redirect;
    set_level(Level::INFO);
    QM_LOG_DEBUG("debug");
    QM_LOG_TRACE("trace");
    EXPECT_EQ(redirect.output(), "");
    QM_LOG_SYSTEM("s");
    QM_LOG_ERROR("e");
    QM_LOG_WARNING("w");
    std::istringstream lines(redirect.output());
    std::string line;
    std::vector<std::string> seen;
    while (std::getline(lines, line)) {
        seen.push_back(strip_time(line).substr(0, 7));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"SYSTEM ", "ERROR  ", "WARNING"}));
}

TEST(StdlogTest, ThresholdBelowWarningDropsIt) {
    StdlogRedirect redirect;
    set_level(Level::ERROR);
    QM_LOG_WARNING("w");
    QM_LOG_INFO("i");
    EXPECT_EQ(redirect.output(), "");
    QM_LOG_ERROR("e");
    EXPECT_NE(redirect.output().find("ERROR   | "), std::string::npos);
}

TEST(StdlogTest, TraceThresholdLetsEverythingThrough) {
    StdlogRedirect redirect;
    set_level(Level::TRACE);
    QM_LOG_DEBUG("d");
    QM_LOG_TRACE("t");
    const std::string output = redirect.output();
    EXPECT_NE(output.find("DEBUG   | "), std::string::npos);
    EXPECT_NE(output.find("TRACE   | "), std::string::npos);
}

TEST(CallSiteTest, TraceTextIsNotBuiltBelowTheThreshold) {
    test::LogCapture capture(Level::INFO);
    int evaluated = 0;
    auto expensive = [&evaluated] {
        ++evaluated;
        return "x";
    };
    QM_LOG_TRACE(expensive());
    QM_LOG_DEBUG(expensive());
    EXPECT_EQ(evaluated, 0);
    set_level(Level::TRACE);
    QM_LOG_TRACE(expensive());
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(capture.texts(Level::TRACE), std::vector<std::string>{"x"});
}

TEST(DiscardingSinkTest, LoggingIsANoOp) {
    test::LogCapture capture;
    LoggerImpl& logger = Logger::m_instance;
    const LoggerImpl::WriteFn capture_write = logger.write;
    logger.write = &LoggerImpl::dummy_write;
    QM_LOG_SYSTEM("dropped");
    QM_LOG_ERROR("dropped");
    QM_LOG_TRACE("dropped");
    logger.write = capture_write;
    QM_LOG_SYSTEM("kept");
    EXPECT_EQ(capture.texts(), std::vector<std::string>{"kept"});
}

TEST(LoggerImplTest, DestructorCallsClose) {
    static int closed = 0;
    closed = 0;
    {
        LoggerImpl logger;
        logger.close = [](void*) { ++closed; };
    }
    EXPECT_EQ(closed, 1);
}

TEST(LoggerImplTest, InitialStateDiscardsAtInfo) {
    LoggerImpl logger;
    EXPECT_EQ(logger.context, nullptr);
    EXPECT_EQ(logger.close, nullptr);
    EXPECT_EQ(logger.write, &LoggerImpl::dummy_write);
    EXPECT_EQ(logger.level.load(), Level::INFO);
}

}  // namespace
}  // namespace qm::log
