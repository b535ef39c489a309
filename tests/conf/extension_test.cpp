#include <gtest/gtest.h>

#include "conf/configuration.hpp"
#include "conf/log_extension.hpp"
#include "conf/port_extension.hpp"
#include "conf/stat_extension.hpp"
#include "core/rc_ptr.hpp"
#include "log_capture.hpp"

namespace qm::conf {
namespace {

using log::Level;
using Texts = std::vector<std::string>;

using LogConfiguration = LogExtenstion<Configuration>;
using PortConfiguration = PortExtension<LogExtenstion<Configuration>>;
using StatConfiguration = StatExtension<PortExtension<LogExtenstion<Configuration>>>;

TEST(LogExtensionTest, DefaultIsInfo) {
    const rc_ptr<LogConfiguration> configuration = new LogConfiguration();
    EXPECT_EQ(configuration->log_level, Level::INFO);
}

TEST(LogExtensionTest, LevelNamesAreAccepted) {
    test::LogCapture capture;
    const rc_ptr<LogConfiguration> configuration = new LogConfiguration();
    EXPECT_TRUE(configuration->parse_option("log_level", "TRACE"));
    EXPECT_EQ(configuration->log_level, Level::TRACE);
    EXPECT_TRUE(configuration->parse_option("log_level", "SYSTEM"));
    EXPECT_EQ(configuration->log_level, Level::SYSTEM);
    EXPECT_EQ(capture.count("CONFIGURATION: option [log_level] is set to [SYSTEM]"), 1u);
}

TEST(LogExtensionTest, OtherSpellingsAreRefused) {
    test::LogCapture capture;
    const rc_ptr<LogConfiguration> configuration = new LogConfiguration();
    EXPECT_FALSE(configuration->parse_option("log_level", "trace"));
    EXPECT_FALSE(configuration->parse_option("log_level", "4"));
    EXPECT_EQ(configuration->log_level, Level::INFO);
    EXPECT_EQ(capture.texts(Level::ERROR),
              (Texts{"CONFIGURATION: failed to set option [log_level] to [trace]: unexpected value "
                     "format",
                     "CONFIGURATION: failed to set option [log_level] to [4]: unexpected value "
                     "format"}));
}

TEST(LogExtensionTest, FlagAndOtherKeysGoToTheBase) {
    test::LogCapture capture;
    const rc_ptr<LogConfiguration> configuration = new LogConfiguration();
    EXPECT_TRUE(configuration->parse_option("log_level"));
    EXPECT_TRUE(configuration->parse_option("port", "5000"));
    EXPECT_EQ(capture.texts(Level::WARNING), (Texts{"CONFIGURATION: flag [log_level] is unknown",
                                                    "CONFIGURATION: option [port] is unknown"}));
}

TEST(PortExtensionTest, DefaultIsZeroAndTheChainBelowStillWorks) {
    test::LogCapture capture;
    const rc_ptr<PortConfiguration> configuration = new PortConfiguration();
    EXPECT_EQ(configuration->port, 0);
    EXPECT_TRUE(configuration->parse_args("log_level=DEBUG,port=5060"));
    EXPECT_EQ(configuration->port, 5060);
    EXPECT_EQ(configuration->log_level, Level::DEBUG);
    EXPECT_TRUE(configuration->parse_option("statistic_logging_enabled", "false"));
    EXPECT_EQ(capture.texts(Level::WARNING),
              (Texts{"CONFIGURATION: option [statistic_logging_enabled] is unknown"}));
}

TEST(PortExtensionTest, LargestPortIsAccepted) {
    const rc_ptr<PortConfiguration> configuration = new PortConfiguration();
    EXPECT_TRUE(configuration->parse_option("port", "65535"));
    EXPECT_EQ(configuration->port, 65535);
}

TEST(PortExtensionTest, OutOfRangeNegativeAndTrailingTextAreRefused) {
    test::LogCapture capture;
    const rc_ptr<PortConfiguration> configuration = new PortConfiguration();
    configuration->port = 5000;
    for (const char* value : {"65536", "-1", "80x", "x"}) {
        EXPECT_FALSE(configuration->parse_option("port", value)) << value;
    }
    EXPECT_EQ(configuration->port, 5000);
    EXPECT_EQ(
        capture.texts(Level::ERROR),
        (Texts{"CONFIGURATION: failed to set option [port] to [65536]: unexpected value format",
               "CONFIGURATION: failed to set option [port] to [-1]: unexpected value format",
               "CONFIGURATION: failed to set option [port] to [80x]: unexpected value format",
               "CONFIGURATION: failed to set option [port] to [x]: unexpected value format"}));
}

TEST(PortExtensionTest, PortWithBlanksOnlyIsAnUnknownFlag) {
    test::LogCapture capture;
    const rc_ptr<PortConfiguration> configuration = new PortConfiguration();
    EXPECT_TRUE(configuration->parse_line("port=   ", 0));
    EXPECT_EQ(configuration->port, 0);
    EXPECT_EQ(capture.texts(), (Texts{"CONFIGURATION: flag [port] is unknown"}));
}

TEST(StatExtensionTest, Defaults) {
    const rc_ptr<StatConfiguration> configuration = new StatConfiguration();
    EXPECT_TRUE(configuration->statistic_logging_enabled);
    EXPECT_FALSE(configuration->statistic_transfer_enabled);
    EXPECT_EQ(configuration->statistic_transfer_host, "");
    EXPECT_EQ(configuration->statistic_transfer_port, 0);
}

TEST(StatExtensionTest, BooleansTakeTrueAndFalseOnly) {
    test::LogCapture capture;
    const rc_ptr<StatConfiguration> configuration = new StatConfiguration();
    EXPECT_TRUE(configuration->parse_option("statistic_logging_enabled", "false"));
    EXPECT_TRUE(configuration->parse_option("statistic_transfer_enabled", "true"));
    EXPECT_FALSE(configuration->statistic_logging_enabled);
    EXPECT_TRUE(configuration->statistic_transfer_enabled);
    EXPECT_FALSE(configuration->parse_option("statistic_logging_enabled", "TRUE"));
    EXPECT_FALSE(configuration->parse_option("statistic_transfer_enabled", "0"));
    EXPECT_FALSE(configuration->statistic_logging_enabled);
    EXPECT_TRUE(configuration->statistic_transfer_enabled);
    EXPECT_EQ(capture.texts(Level::ERROR),
              (Texts{"CONFIGURATION: failed to set option [statistic_logging_enabled] to [TRUE]: "
                     "unexpected value format",
                     "CONFIGURATION: failed to set option [statistic_transfer_enabled] to [0]: "
                     "unexpected value format"}));
}

TEST(StatExtensionTest, HostKeepsTheFirstEntryAndSwitchesTransferOn) {
    const rc_ptr<StatConfiguration> configuration = new StatConfiguration();
    EXPECT_TRUE(configuration->parse_option("statistic_transfer_host",
                                            "10.0.0.1:5000-5002, 10.0.0.2:6000"));
    EXPECT_EQ(configuration->statistic_transfer_host, "10.0.0.1");
    EXPECT_EQ(configuration->statistic_transfer_port, 5000);
    EXPECT_TRUE(configuration->statistic_transfer_enabled);
}

TEST(StatExtensionTest, UnparsableHostListIsRefusedAndTransferStaysOff) {
    test::LogCapture capture;
    const rc_ptr<StatConfiguration> configuration = new StatConfiguration();
    EXPECT_FALSE(configuration->parse_option("statistic_transfer_host", "10.0.0.1"));
    EXPECT_FALSE(configuration->parse_option("statistic_transfer_host", "10.0.0.1:70000"));
    EXPECT_FALSE(configuration->statistic_transfer_enabled);
    EXPECT_EQ(configuration->statistic_transfer_host, "");
    EXPECT_EQ(configuration->statistic_transfer_port, 0);
    EXPECT_EQ(capture.texts(Level::ERROR),
              (Texts{"CONFIGURATION: failed to set option [statistic_transfer_host] to [10.0.0.1]: "
                     "unexpected value format",
                     "CONFIGURATION: failed to set option [statistic_transfer_host] to "
                     "[10.0.0.1:70000]: unexpected value format"}));
}

TEST(StatExtensionTest, LowerExtensionsAndUnknownKeysStillReachTheirHandlers) {
    test::LogCapture capture;
    const rc_ptr<StatConfiguration> configuration = new StatConfiguration();
    EXPECT_TRUE(configuration->parse_args("port=1,log_level=ERROR,storage=/srv"));
    EXPECT_EQ(configuration->port, 1);
    EXPECT_EQ(configuration->log_level, Level::ERROR);
    EXPECT_EQ(capture.texts(Level::WARNING), (Texts{"CONFIGURATION: option [storage] is unknown"}));
}

}  // namespace
}  // namespace qm::conf
