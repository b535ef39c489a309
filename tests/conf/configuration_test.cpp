#include "conf/configuration.hpp"

#include "core/rc_ptr.hpp"

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "log_capture.hpp"
#include "temp_directory.hpp"

namespace qm::conf {
namespace {

using log::Level;

// Records every setter call and answers with the status configured for the key (unknown keys 1).
class RecordingConfiguration : public Configuration {
public:
    struct Call {
        std::string key;
        std::string value;  // empty for a flag
        bool is_flag;
        bool operator==(const Call&) const = default;
    };

    static Call flag(std::string key) { return {std::move(key), "", true}; }
    static Call option(std::string key, std::string value) {
        return {std::move(key), std::move(value), false};
    }

    std::map<std::string, int> statuses;
    std::vector<Call> calls;

protected:
    int set_flag(const std::string& key, std::ostringstream& detail) override {
        calls.push_back(flag(key));
        return status_of(key, detail);
    }
    int set_value(const std::string& key, const std::string& value,
                  std::ostringstream& detail) override {
        calls.push_back(option(key, value));
        return status_of(key, detail);
    }

private:
    int status_of(const std::string& key, std::ostringstream& detail) const {
        const auto found = statuses.find(key);
        const int status = found == statuses.end() ? UNKNOWN : found->second;
        if (status == FAILED_WITH_DETAIL) {
            detail << "the reason for " << key;
        }
        return status;
    }
};

using Call = RecordingConfiguration::Call;
using Calls = std::vector<Call>;
using Texts = std::vector<std::string>;

class ConfigurationTest : public ::testing::Test {
protected:
    ConfigurationTest() {
        for (const char* key : {"port", "x", "y", "key", "storage"}) {
            configuration.statuses[key] = Configuration::APPLIED;
        }
    }

    test::LogCapture capture;
    test::TempDirectory directory;
    RecordingConfiguration configuration;
};

TEST_F(ConfigurationTest, ConstantsLocateTheFiles) {
    EXPECT_EQ(default_conf_ext, ".conf");
    EXPECT_EQ(default_base_directory, "/etc/varnholt");
    EXPECT_EQ(default_directory, "/etc/varnholt/quillmar");
    EXPECT_EQ(default_kafka_config_path, "/etc/varnholt/quillmar/kafka.conf");
}

TEST_F(ConfigurationTest, AppliedFlagAndOptionAreLoggedAtSystem) {
    EXPECT_TRUE(configuration.parse_option("key"));
    EXPECT_TRUE(configuration.parse_option("key", "v 1"));
    EXPECT_EQ(capture.texts(Level::SYSTEM), (Texts{"CONFIGURATION: flag [key] applied",
                                                   "CONFIGURATION: option [key] is set to [v 1]"}));
    EXPECT_EQ(capture.texts().size(), 2u);
    EXPECT_EQ(configuration.calls, (Calls{Call{"key", "", true}, Call{"key", "v 1", false}}));
}

TEST_F(ConfigurationTest, LogLinesComeFromConfigurationCpp) {
    EXPECT_TRUE(configuration.parse_option("key"));
    ASSERT_EQ(capture.lines().size(), 1u);
    const std::string line = capture.lines()[0];
    EXPECT_EQ(line.rfind("SYSTEM  | configuration.cpp:", 0), 0u) << line;
    EXPECT_TRUE(line.ends_with(" | CONFIGURATION: flag [key] applied")) << line;
}

TEST_F(ConfigurationTest, UnknownKeyOnlyWarns) {
    EXPECT_TRUE(configuration.parse_option("other"));
    EXPECT_TRUE(configuration.parse_option("other", "1"));
    EXPECT_EQ(capture.texts(Level::WARNING), (Texts{"CONFIGURATION: flag [other] is unknown",
                                                    "CONFIGURATION: option [other] is unknown"}));
    EXPECT_EQ(capture.texts().size(), 2u);
}

TEST_F(ConfigurationTest, BadFormatFails) {
    configuration.statuses["key"] = Configuration::BAD_FORMAT;
    EXPECT_FALSE(configuration.parse_option("key"));
    EXPECT_FALSE(configuration.parse_option("key", "v"));
    EXPECT_EQ(capture.texts(Level::ERROR),
              (Texts{"CONFIGURATION: failed to apply flag [key]: unexpected format",
                     "CONFIGURATION: failed to set option [key] to [v]: unexpected value format"}));
    EXPECT_EQ(capture.texts().size(), 2u);
}

TEST_F(ConfigurationTest, FailureWithDetailShowsTheDetail) {
    configuration.statuses["key"] = Configuration::FAILED_WITH_DETAIL;
    EXPECT_FALSE(configuration.parse_option("key"));
    EXPECT_FALSE(configuration.parse_option("key", "v"));
    EXPECT_EQ(capture.texts(Level::ERROR),
              (Texts{"CONFIGURATION: failed to apply flag [key]: the reason for key",
                     "CONFIGURATION: failed to set option [key] to [v]: the reason for key"}));
}

TEST_F(ConfigurationTest, OtherNegativeStatusFailsWithoutExplanation) {
    configuration.statuses["key"] = -7;
    EXPECT_FALSE(configuration.parse_option("key"));
    EXPECT_FALSE(configuration.parse_option("key", "v"));
    EXPECT_EQ(capture.texts(Level::ERROR),
              (Texts{"CONFIGURATION: failed to apply flag [key]",
                     "CONFIGURATION: failed to set option [key] to [v]"}));
}

TEST_F(ConfigurationTest, OtherPositiveStatusIsLoggedButAccepted) {
    configuration.statuses["key"] = 7;
    EXPECT_TRUE(configuration.parse_option("key"));
    EXPECT_TRUE(configuration.parse_option("key", "v"));
    EXPECT_EQ(capture.texts(Level::ERROR),
              (Texts{"CONFIGURATION: failed to apply flag [key]",
                     "CONFIGURATION: failed to set option [key] to [v]"}));
}

TEST_F(ConfigurationTest, BaseWithoutSettersKnowsNoKey) {
    const rc_ptr<Configuration> base = new Configuration();
    EXPECT_TRUE(base->parse_option("port"));
    EXPECT_TRUE(base->parse_args("port=5000"));
    EXPECT_EQ(capture.texts(Level::WARNING), (Texts{"CONFIGURATION: flag [port] is unknown",
                                                    "CONFIGURATION: option [port] is unknown"}));
}

TEST_F(ConfigurationTest, LineIsTrimmedOnBothSides) {
    EXPECT_TRUE(configuration.parse_line("  port = 5000  ", 0));
    EXPECT_TRUE(configuration.parse_line("\tx\t=\t1 2\t", 1));
    EXPECT_EQ(configuration.calls, (Calls{Call{"port", "5000", false}, Call{"x", "1 2", false}}));
}

TEST_F(ConfigurationTest, KeyWithoutValueIsAFlag) {
    EXPECT_TRUE(configuration.parse_line("port=", 0));
    EXPECT_TRUE(configuration.parse_line("port", 1));
    EXPECT_TRUE(configuration.parse_line(" port =   ", 2));
    EXPECT_EQ(configuration.calls,
              (Calls{Call{"port", "", true}, Call{"port", "", true}, Call{"port", "", true}}));
    EXPECT_EQ(capture.count("CONFIGURATION: flag [port] applied"), 3u);
}

TEST_F(ConfigurationTest, CommentsAndBlankLinesAreSkipped) {
    EXPECT_TRUE(configuration.parse_line("", 0));
    EXPECT_TRUE(configuration.parse_line(" \t ", 1));
    EXPECT_TRUE(configuration.parse_line("# port = 1", 2));
    EXPECT_TRUE(configuration.parse_line("   #port=1=2", 3));
    EXPECT_TRUE(configuration.calls.empty());
    EXPECT_TRUE(capture.texts().empty());
}

TEST_F(ConfigurationTest, HashInsideTheLineIsPartOfTheValue) {
    EXPECT_TRUE(configuration.parse_line("storage = /srv/#1", 0));
    EXPECT_EQ(configuration.calls, (Calls{Call{"storage", "/srv/#1", false}}));
}

TEST_F(ConfigurationTest, TooManyPiecesInALineFail) {
    EXPECT_FALSE(configuration.parse_line(" a=b=c ", 4));
    EXPECT_FALSE(configuration.parse_line("=", 5));
    EXPECT_EQ(capture.texts(Level::ERROR),
              (Texts{"CONFIGURATION: incorrect option format at line 4: \" a=b=c \"",
                     "CONFIGURATION: incorrect option format at line 5: \"=\""}));
    EXPECT_TRUE(configuration.calls.empty());
}

TEST_F(ConfigurationTest, FileOfCommentsAndBlankLinesChangesNothing) {
    const std::string path =
        directory.write_file("comments.conf", "# a comment\n\n   \n\t# port = 1\n");
    EXPECT_TRUE(configuration.parse_file(path));
    EXPECT_TRUE(configuration.calls.empty());
    EXPECT_EQ(capture.texts(), (Texts{"CONFIGURATION: reading from file [" + path + "]"}));
}

TEST_F(ConfigurationTest, EmptyFileSucceeds) {
    EXPECT_TRUE(configuration.parse_file(directory.write_file("empty.conf", "")));
    EXPECT_TRUE(configuration.calls.empty());
}

TEST_F(ConfigurationTest, FileIsAppliedInOrderAndTheLastLineNeedsNoNewline) {
    const std::string path = directory.write_file("ok.conf", "port = 5000\nflag\r\nx=1");
    EXPECT_TRUE(configuration.parse_file(path));
    EXPECT_EQ(configuration.calls,
              (Calls{Call{"port", "5000", false}, Call{"flag", "", true}, Call{"x", "1", false}}));
    EXPECT_EQ(capture.texts(Level::SYSTEM),
              (Texts{"CONFIGURATION: reading from file [" + path + "]",
                     "CONFIGURATION: option [port] is set to [5000]",
                     "CONFIGURATION: option [x] is set to [1]"}));
    EXPECT_EQ(capture.texts(Level::WARNING), (Texts{"CONFIGURATION: flag [flag] is unknown"}));
}

TEST_F(ConfigurationTest, BadLineStopsTheFileWithItsZeroBasedNumber) {
    const std::string path = directory.write_file("bad.conf", "x = 1\n# c\na=b=c\ny = 2\n");
    EXPECT_FALSE(configuration.parse_file(path));
    EXPECT_EQ(configuration.calls, (Calls{Call{"x", "1", false}}));
    EXPECT_EQ(capture.texts(Level::ERROR),
              (Texts{"CONFIGURATION: incorrect option format at line 2: \"a=b=c\""}));
}

TEST_F(ConfigurationTest, RefusedValueStopsTheFile) {
    configuration.statuses["port"] = Configuration::BAD_FORMAT;
    const std::string path = directory.write_file("refused.conf", "port = 80x\nx = 1\n");
    EXPECT_FALSE(configuration.parse_file(path));
    EXPECT_EQ(configuration.calls, (Calls{Call{"port", "80x", false}}));
    EXPECT_EQ(
        capture.texts(Level::ERROR),
        (Texts{"CONFIGURATION: failed to set option [port] to [80x]: unexpected value format"}));
}

TEST_F(ConfigurationTest, UnknownKeyInAFileOnlyWarns) {
    const std::string path = directory.write_file("unknown.conf", "x = 1\nother = 2\ny = 3\n");
    EXPECT_TRUE(configuration.parse_file(path));
    EXPECT_EQ(configuration.calls,
              (Calls{Call{"x", "1", false}, Call{"other", "2", false}, Call{"y", "3", false}}));
    EXPECT_EQ(capture.texts(Level::WARNING), (Texts{"CONFIGURATION: option [other] is unknown"}));
}

TEST_F(ConfigurationTest, EmptyPathKeepsTheDefaults) {
    EXPECT_TRUE(configuration.parse_file(""));
    EXPECT_EQ(capture.texts(Level::INFO),
              (Texts{"CONFIGURATION: file is not specified, default values are used"}));
    EXPECT_EQ(capture.texts().size(), 1u);
}

TEST_F(ConfigurationTest, FileThatCannotBeOpenedFails) {
    const std::string missing = directory.path().string() + "/missing.conf";
    EXPECT_FALSE(configuration.parse_file(missing));
    EXPECT_FALSE(configuration.parse_file(directory.path().string()));
    EXPECT_EQ(capture.texts(),
              (Texts{"CONFIGURATION: failed to open file [" + missing + "]",
                     "CONFIGURATION: failed to open file [" + directory.path().string() + "]"}));
    EXPECT_EQ(capture.texts(Level::ERROR).size(), 2u);
}

TEST_F(ConfigurationTest, ArgsAreLoggedAndAppliedInOrder) {
    EXPECT_TRUE(configuration.parse_args("x=1,y"));
    EXPECT_EQ(configuration.calls, (Calls{Call{"x", "1", false}, Call{"y", "", true}}));
    EXPECT_EQ(capture.texts(Level::SYSTEM), (Texts{"CONFIGURATION: reading from args: x=1,y",
                                                   "CONFIGURATION: option [x] is set to [1]",
                                                   "CONFIGURATION: flag [y] applied"}));
}

TEST_F(ConfigurationTest, DoubledCommaIsACommaInsideTheValue) {
    EXPECT_TRUE(configuration.parse_args("x=1,,2"));
    EXPECT_TRUE(configuration.parse_args("x=a,,b,,c,y=2"));
    EXPECT_EQ(configuration.calls,
              (Calls{Call{"x", "1,2", false}, Call{"x", "a,b,c", false}, Call{"y", "2", false}}));
}

TEST_F(ConfigurationTest, EscapePlaceholderInAValueBecomesAComma) {
    EXPECT_TRUE(configuration.parse_args("x=a_;b"));
    EXPECT_EQ(configuration.calls, (Calls{Call{"x", "a,b", false}}));
}

TEST_F(ConfigurationTest, EmptyArgsAndEmptyPiecesAreSkipped) {
    EXPECT_TRUE(configuration.parse_args(""));
    EXPECT_TRUE(configuration.parse_args(",x=1,"));
    EXPECT_EQ(configuration.calls, (Calls{Call{"x", "1", false}}));
    EXPECT_EQ(capture.count("CONFIGURATION: reading from args: "), 1u);
}

TEST_F(ConfigurationTest, ArgWithoutValueIsAFlag) {
    EXPECT_TRUE(configuration.parse_args("x=,y=  ,key  =  5"));
    EXPECT_EQ(configuration.calls,
              (Calls{Call{"x", "", true}, Call{"y", "", true}, Call{"key", "5", false}}));
}

TEST_F(ConfigurationTest, TooManyPiecesInAnArgFailWithItsPosition) {
    EXPECT_FALSE(configuration.parse_args("a=b=c"));
    EXPECT_FALSE(configuration.parse_args("x=1,y==2,key=3"));
    EXPECT_EQ(capture.texts(Level::ERROR),
              (Texts{"CONFIGURATION: incorrect option format at position [1]",
                     "CONFIGURATION: incorrect option format at position [2]"}));
    EXPECT_EQ(configuration.calls, (Calls{Call{"x", "1", false}}));
}

TEST_F(ConfigurationTest, RefusedArgStopsTheRest) {
    configuration.statuses["x"] = Configuration::BAD_FORMAT;
    EXPECT_FALSE(configuration.parse_args("y=1,x=2,key=3"));
    EXPECT_EQ(configuration.calls, (Calls{Call{"y", "1", false}, Call{"x", "2", false}}));
}

TEST_F(ConfigurationTest, UnknownArgOnlyWarns) {
    EXPECT_TRUE(configuration.parse_args("other=1,x=2"));
    EXPECT_EQ(configuration.calls, (Calls{Call{"other", "1", false}, Call{"x", "2", false}}));
    EXPECT_EQ(capture.texts(Level::WARNING), (Texts{"CONFIGURATION: option [other] is unknown"}));
}

TEST(TryParseBoolTest, OnlyLowerCaseTrueAndFalse) {
    bool value = false;
    EXPECT_TRUE(try_parse_bool("true", value));
    EXPECT_TRUE(value);
    EXPECT_TRUE(try_parse_bool("false", value));
    EXPECT_FALSE(value);
    value = true;
    for (const char* text : {"TRUE", "False", "1", "yes", "", " true"}) {
        EXPECT_FALSE(try_parse_bool(text, value)) << text;
        EXPECT_TRUE(value) << text;
    }
}

}  // namespace
}  // namespace qm::conf
