#include "app/app_service.hpp"

#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "log/stdlog.hpp"
#include "log/syslog.hpp"
#include "log_capture.hpp"
#include "temp_directory.hpp"
#include "test_service.hpp"
#include "utils/path.hpp"

namespace qm::app::test {
namespace {

using qm::test::LogCapture;
using qm::test::TempDirectory;

class ServiceStartTest : public ::testing::Test {
protected:
    void TearDown() override { restore_default_signals(); }

    std::string cwd() const { return utils::path::get_current_directory(); }

    std::string main_thread_line(const std::string& what) const {
        return "SERVICE: [quillmartest] main thread [" + std::to_string(::gettid()) + "] " + what;
    }

    bool logged_text_starting_with(const std::string& prefix) const {
        const std::vector<std::string> texts = capture.texts();
        return std::any_of(texts.begin(), texts.end(),
                           [&](const std::string& text) { return text.rfind(prefix, 0) == 0; });
    }

    LogCapture capture{log::Level::INFO};
    TempDirectory directory;
};

TEST_F(ServiceStartTest, PhasesRunInOrder) {
    TestService service;
    Argv args({"prog", "--pid-file", "run/rel.pid", "--args", "port=7000"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 0);

    const std::vector<std::string> expected = {
        "TEST: on_logger_open",
        "SERVICE:  pid file: " + cwd() + "/run/rel.pid",
        "SERVICE: exec path: " + cwd() + "/prog",
        "SERVICE: exec args: [--pid-file] [run/rel.pid] [--args] [port=7000]",
        "TEST: on_pre_start",
        main_thread_line("started"),
        "CONFIGURATION: file is not specified, default values are used",
        "CONFIGURATION: reading from args: port=7000",
        "CONFIGURATION: option [port] is set to [7000]",
        "TEST: on_config",
        "TEST: on_start",
        main_thread_line("stopped"),
        "TEST: on_logger_close",
    };
    EXPECT_EQ(capture.texts(), expected);
    EXPECT_EQ(service.configuration->port, 7000);
    EXPECT_FALSE(service.running.load());
}

TEST_F(ServiceStartTest, FrameLinesShowTheFrameSourceFile) {
    TestService service;
    Argv args({"prog"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 0);

    const std::vector<std::string> lines = capture.lines();
    const std::string prefix = "SYSTEM  | app_service.cpp:";
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [&](const std::string& line) { return line.rfind(prefix, 0) == 0; }),
              3)
        << "exec path, started and stopped";
}

TEST_F(ServiceStartTest, NoArgumentsLogNoExecArgsAndReadTheDefaultFile) {
    TestService service;
    service.config_path = directory.write_file("test.conf", "port = 5000\n");
    Argv args({"prog"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 0);

    EXPECT_FALSE(logged_text_starting_with("SERVICE: exec args"));
    EXPECT_EQ(capture.count("CONFIGURATION: reading from file [" + service.config_path + "]"), 1u);
    EXPECT_EQ(service.configuration->port, 5000);
}

TEST_F(ServiceStartTest, MissingConfigurationFileFallsBackToDefaults) {
    TestService service;
    service.config_path = (directory.path() / "missing.conf").string();
    Argv args({"prog"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 0);

    EXPECT_EQ(capture.count("CONFIGURATION: file is not specified, default values are used"), 1u);
    EXPECT_FALSE(capture.contains("failed to open file"));
    ASSERT_TRUE(service.configuration);
    EXPECT_EQ(service.configuration->port, 0);
}

TEST_F(ServiceStartTest, ArgsOverrideTheFile) {
    TestService service;
    const std::string file = directory.write_file("test.conf", "port = 5000\n");
    Argv args({"prog", "--config", file, "--args", "port=6000"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 0);

    const std::vector<std::string> texts = capture.texts();
    const auto from_file =
        std::find(texts.begin(), texts.end(), "CONFIGURATION: option [port] is set to [5000]");
    const auto from_args =
        std::find(texts.begin(), texts.end(), "CONFIGURATION: option [port] is set to [6000]");
    ASSERT_NE(from_file, texts.end());
    ASSERT_NE(from_args, texts.end());
    EXPECT_LT(from_file, from_args);
    EXPECT_EQ(service.configuration->port, 6000);
}

TEST_F(ServiceStartTest, ConfigWithoutValueFails) {
    for (const std::string option : {"--config", "-c"}) {
        capture.clear();
        TestService service;
        Argv args({"prog", option});

        EXPECT_EQ(service.start(args.argc(), args.argv()), 1) << option;

        const std::vector<std::string> expected = {
            "TEST: on_logger_open",
            "SERVICE: value if not specified for option [" + option + "]",
        };
        EXPECT_EQ(capture.texts(), expected);
        EXPECT_EQ(capture.texts(log::Level::ERROR), std::vector<std::string>{expected[1]});
        EXPECT_FALSE(service.configuration);
    }
}

TEST_F(ServiceStartTest, DaemonOptionWithoutSupportWarnsAndContinues) {
    for (const std::string option : {"-d", "--daemon"}) {
        capture.clear();
        TestService service;
        Argv args({"prog", option});

        EXPECT_EQ(service.start(args.argc(), args.argv()), 0) << option;

        EXPECT_EQ(capture.texts(log::Level::WARNING),
                  std::vector<std::string>{
                      "SERVICE: daemon mode is not supported, ignoring option [" + option + "]"});
        EXPECT_FALSE(service.daemon_mode);
        EXPECT_EQ(capture.count("TEST: on_start"), 1u);
    }
}

TEST_F(ServiceStartTest, HelpBeforeAnUnknownArgumentWins) {
    TestService service;
    Argv args({"prog", "--help", "--bogus"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 0);

    // The logger stays open: the process is about to end.
    EXPECT_EQ(capture.texts(), (std::vector<std::string>{"TEST: on_logger_open", "TEST: help"}));
}

TEST_F(ServiceStartTest, UnknownArgumentBeforeHelpFailsSilently) {
    TestService service;
    Argv args({"prog", "--bogus", "-h"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 1);

    EXPECT_EQ(capture.texts(), std::vector<std::string>{"TEST: on_logger_open"});
}

TEST_F(ServiceStartTest, ForegroundWritesNoPidFileButLogsIt) {
    TestService service;
    const std::string pid_file = (directory.path() / "service.pid").string();
    Argv args({"prog", "--pid-file", pid_file});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 0);

    EXPECT_EQ(capture.count("SERVICE:  pid file: " + pid_file), 1u);
    EXPECT_FALSE(std::filesystem::exists(pid_file));
}

TEST_F(ServiceStartTest, StartWhileRunningReturnsTen) {
    TestService service;
    service.start_again = true;
    Argv args({"prog"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 0);

    EXPECT_EQ(service.nested_status, 10);
    // The nested call did nothing: one start-up, one on_start.
    EXPECT_EQ(capture.count("TEST: on_logger_open"), 1u);
    EXPECT_EQ(capture.count("TEST: on_start"), 1u);
    EXPECT_FALSE(service.running.load());
}

TEST_F(ServiceStartTest, BadConfigurationFileStopsBeforeOnStart) {
    TestService service;
    service.config_path = directory.write_file("test.conf", "port = 65536\n");
    Argv args({"prog"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 1);

    EXPECT_EQ(capture.count("CONFIGURATION: failed to set option [port] to [65536]: unexpected "
                            "value format"),
              1u);
    EXPECT_EQ(capture.count("TEST: on_config"), 0u);
    EXPECT_EQ(capture.count("TEST: on_start"), 0u);
    EXPECT_EQ(capture.count(main_thread_line("stopped")), 1u);
    EXPECT_EQ(capture.count("TEST: on_logger_close"), 1u);
    EXPECT_FALSE(service.configuration);
    EXPECT_EQ(TestConfiguration::m_alive, 0) << "the failed configuration is released";
}

TEST_F(ServiceStartTest, BadArgsStopBeforeOnStart) {
    TestService service;
    Argv args({"prog", "--args", "port=x"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 1);

    EXPECT_EQ(capture.count("CONFIGURATION: failed to set option [port] to [x]: unexpected value "
                            "format"),
              1u);
    EXPECT_EQ(capture.count("TEST: on_start"), 0u);
    EXPECT_FALSE(service.configuration);
    EXPECT_EQ(TestConfiguration::m_alive, 0);
}

TEST_F(ServiceStartTest, OnConfigFailureGivesStatusOne) {
    TestService service;
    service.on_config_result = false;
    Argv args({"prog"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 1);

    EXPECT_EQ(capture.count("TEST: on_start"), 0u);
}

TEST_F(ServiceStartTest, OnStartFailureGivesStatusOne) {
    TestService service;
    service.on_start_result = false;
    Argv args({"prog"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 1);

    EXPECT_EQ(capture.count(main_thread_line("stopped")), 1u);
    EXPECT_FALSE(service.running.load());
}

TEST_F(ServiceStartTest, ConfigurationIsReleasedWithTheService) {
    {
        TestService service;
        Argv args({"prog"});
        ASSERT_EQ(service.start(args.argc(), args.argv()), 0);
        EXPECT_EQ(TestConfiguration::m_alive, 1);
    }
    EXPECT_EQ(TestConfiguration::m_alive, 0);
}

// The command line without start(): pre_parse_args and parse_args.
class CommandLineTest : public ::testing::Test {
protected:
    int parse(TestService& service, std::vector<std::string> arguments) {
        Argv args(std::move(arguments));
        ServiceBase::Arguments kept = service.pre_parse_args(args.argc(), args.argv());
        return service.parse_args(kept);
    }

    std::string cwd() const { return utils::path::get_current_directory(); }

    LogCapture capture;
};

TEST_F(CommandLineTest, RepeatedArgsPutTheLaterFirst) {
    TestService service;

    EXPECT_EQ(parse(service, {"prog", "--args", "a=1", "--args", "b=2"}), 0);

    EXPECT_EQ(service.config_args, "b=2,a=1");
}

TEST_F(CommandLineTest, PushConfigArgsAppendsOrPrependsAndSkipsEmpty) {
    TestService service;
    service.push_config_args("", false);
    EXPECT_EQ(service.config_args, "");
    service.push_config_args("a=1", true);
    EXPECT_EQ(service.config_args, "a=1");
    service.push_config_args("b=2", true);
    EXPECT_EQ(service.config_args, "a=1,b=2");
    service.push_config_args("c=3", false);
    EXPECT_EQ(service.config_args, "c=3,a=1,b=2");
    service.push_config_args("", true);
    EXPECT_EQ(service.config_args, "c=3,a=1,b=2");
}

TEST_F(CommandLineTest, PidFileDefaultFollowsTheExecutablePath) {
    TestService service;

    EXPECT_EQ(parse(service, {"./bin/rec", "--pid-file-default"}), 0);

    EXPECT_EQ(service.exec_path, cwd() + "/bin/rec");
    EXPECT_EQ(service.pid_file, cwd() + "/bin/rec.pid");
}

TEST_F(CommandLineTest, RelativePathsBecomeAbsolute) {
    TestService service;

    EXPECT_EQ(parse(service, {"prog", "-c", "etc/../conf/./x.conf", "--pid-file", "x.pid"}), 0);

    EXPECT_EQ(service.config_path, cwd() + "/conf/x.conf");
    EXPECT_EQ(service.pid_file, cwd() + "/x.pid");
}

TEST_F(CommandLineTest, LaterOptionsReplaceEarlierOnes) {
    TestService service;

    EXPECT_EQ(parse(service, {"prog", "--config", "/a.conf", "--config", "/b.conf"}), 0);

    EXPECT_EQ(service.config_path, "/b.conf");
}

TEST_F(CommandLineTest, EmptyListGoesOn) {
    TestService service;
    ServiceBase::Arguments none;

    EXPECT_EQ(service.parse_args(none), 0);
    EXPECT_TRUE(capture.texts().empty());
}

TEST_F(CommandLineTest, OptionValuesAreNotTakenForOptions) {
    TestService service;

    EXPECT_EQ(parse(service, {"prog", "--args", "--help"}), 0);

    EXPECT_EQ(service.config_args, "--help");
}

TEST_F(CommandLineTest, DaemonOptionSetsDaemonModeAlreadyWhenSupported) {
    TestService service(ServiceBase::CAPABILITY_DAEMON);
    Argv args({"prog", "-d"});

    const ServiceBase::Arguments kept = service.pre_parse_args(args.argc(), args.argv());

    EXPECT_TRUE(service.daemon_mode);
    EXPECT_EQ(kept, ServiceBase::Arguments{"-d"});
    ServiceBase::Arguments list = kept;
    EXPECT_EQ(service.parse_args(list), 0);
    EXPECT_TRUE(capture.texts().empty()) << "no warning when daemon mode is supported";
}

TEST_F(CommandLineTest, DaemonOptionIsIgnoredWithoutSupport) {
    TestService service;

    EXPECT_EQ(parse(service, {"prog", "--daemon"}), 0);

    EXPECT_FALSE(service.daemon_mode);
}

// Takes "--name <value>" and fails on "--fail"; drops "--drop <value>" before parsing.
class ExtendedService : public TestService {
public:
    using TestService::TestService;

    std::string name;
    std::vector<std::string> pre_parsed;

protected:
    int parse_arg(ArgumentIterator& current, ArgumentIterator end) override {
        if (*current == "--name" && current + 1 != end) {
            name = *++current;
            return 0;
        }
        return *current == "--fail" ? 7 : ServiceBase::parse_arg(current, end);
    }

    bool pre_parse_arg(const std::string& arg, int& argc, char**& argv) override {
        pre_parsed.push_back(arg);
        if (arg != "--drop" || argc == 0) {
            return false;
        }
        --argc;
        ++argv;
        return true;
    }
};

TEST_F(CommandLineTest, ParseArgOverrideConsumesItsArguments) {
    ExtendedService service;

    EXPECT_EQ(parse(service, {"prog", "--name", "x", "--args", "a=1"}), 0);

    EXPECT_EQ(service.name, "x");
    EXPECT_EQ(service.config_args, "a=1");
}

TEST_F(CommandLineTest, ParseArgOverrideResultStops) {
    ExtendedService service;

    EXPECT_EQ(parse(service, {"prog", "--fail", "--args", "a=1"}), 7);
    EXPECT_EQ(service.config_args, "");
    EXPECT_EQ(parse(service, {"prog", "--unknown"}), -1);
    EXPECT_TRUE(capture.texts().empty());
}

TEST_F(CommandLineTest, PreParseArgOverrideDropsArguments) {
    ExtendedService service(ServiceBase::CAPABILITY_DAEMON);
    Argv args({"prog", "--drop", "value", "-d", "--args", "a=1"});

    const ServiceBase::Arguments kept = service.pre_parse_args(args.argc(), args.argv());

    EXPECT_EQ(kept, (ServiceBase::Arguments{"-d", "--args", "a=1"}));
    // The daemon option is handled by the frame and never offered to the hook.
    EXPECT_EQ(service.pre_parsed, (std::vector<std::string>{"--drop", "--args", "a=1"}));
    EXPECT_TRUE(service.daemon_mode);
}

TEST_F(CommandLineTest, StartFailsWithAnOverrideResult) {
    ExtendedService service;
    Argv args({"prog", "--fail"});

    EXPECT_EQ(service.start(args.argc(), args.argv()), 1);
}

// The frame's system calls made to fail for real. Each runs in a death test's child, a fresh run
// of the test binary, where the doorbell (created once per process) does not exist yet and where
// the failure cannot spill into other tests. The child logs into a capture, writes the captured
// texts to standard error one a line and exits with what `start` returned.
class ServiceStartFailureTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // A regular expression that matches exactly these lines.
    static std::string exactly(const std::vector<std::string>& lines) {
        std::string pattern = "^";
        for (const std::string& line : lines) {
            for (const char c : line) {
                if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) {
                    pattern += '\\';
                }
                pattern += c;
            }
            pattern += '\n';
        }
        return pattern + "$";
    }

    // The lines up to the signal set-up of a start with no arguments.
    static std::vector<std::string> lines_before_signals() {
        return {"TEST: on_logger_open",
                "SERVICE: exec path: " + utils::path::get_current_directory() + "/prog",
                "TEST: on_pre_start"};
    }

    template <typename Break>
    [[noreturn]] static void start_after(Break break_a_call) {
        LogCapture capture{log::Level::INFO};
        TestService service;
        Argv args({"prog"});
        break_a_call();
        const int status = service.start(args.argc(), args.argv());
        for (const std::string& text : capture.texts()) {
            std::fprintf(stderr, "%s\n", text.c_str());
        }
        std::_Exit(status);
    }
};

// A seccomp filter makes the kernel refuse one system call with `error`, only for a first argument
// equal to `first_argument` when one is given; nothing else is refused. Nothing in user space can
// make these calls fail at the one place wanted: running out of descriptors for eventfd, say,
// would also starve the sanitizers' runtime, which needs descriptors of its own.
void refuse(std::uint32_t call, std::optional<std::uint32_t> first_argument, int error) {
    static_assert(std::endian::native == std::endian::little,
                  "the filter reads the low half of the first argument");
#if defined(__x86_64__)
    constexpr std::uint32_t ARCH = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
    constexpr std::uint32_t ARCH = AUDIT_ARCH_AARCH64;
#else
#error "no seccomp architecture for this machine"
#endif
    const auto refusal = static_cast<std::uint32_t>(SECCOMP_RET_ERRNO | error);
    std::vector<sock_filter> filter = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ARCH, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
    };
    if (first_argument) {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 3));
        filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])));
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, *first_argument, 0, 1));
    } else {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, refusal));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog program{};
    program.len = static_cast<unsigned short>(filter.size());
    program.filter = filter.data();
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        std::_Exit(99);
    }
}

// The doorbell's eventfd refused as when every descriptor the process may have is taken.
void refuse_eventfd() {
    refuse(__NR_eventfd2, std::nullopt, EMFILE);
}

TEST_F(ServiceStartFailureTest, DoorbellThatCannotBeCreatedEndsTheStartWithStatusOne) {
    std::vector<std::string> expected = lines_before_signals();
    expected.push_back(
        "SERVICE: failed to create the signal doorbell; error [24]: Too many open files");
    expected.push_back("TEST: on_logger_close");

    EXPECT_EXIT(start_after(refuse_eventfd), ::testing::ExitedWithCode(1), exactly(expected));
}

void refuse_sigaction_for_sigusr1() {
    refuse(__NR_rt_sigaction, SIGUSR1, EPERM);
}

// Handlers are installed in the order SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2: the
// start stops at the first refusal.
TEST_F(ServiceStartFailureTest, SignalThatCannotBeSubscribedEndsTheStartWithStatusOne) {
    std::vector<std::string> expected = lines_before_signals();
    expected.push_back(
        "SERVICE: failed to subscribe to signal 10; error [1]: Operation not permitted");
    expected.push_back("TEST: on_logger_close");

    EXPECT_EXIT(start_after(refuse_sigaction_for_sigusr1), ::testing::ExitedWithCode(1),
                exactly(expected));
}

// The frame's own logger hooks, and its help.
class FrameHooksService : public Service<TestConfiguration, false> {
public:
    using ServiceBase::daemon_mode;
    using ServiceBase::help;
    using ServiceBase::on_logger_close;
    using ServiceBase::on_logger_open;
};

int g_closed = 0;
void count_close(void*) {
    ++g_closed;
}

TEST(FrameHooksTest, ForegroundLoggerIsStandardError) {
    LogCapture saved;  // puts the test sink back afterwards
    FrameHooksService service;

    service.on_logger_open();

    EXPECT_EQ(log::Logger::m_instance.write, &log::Stdlog::write);
    EXPECT_EQ(log::Logger::m_instance.close, nullptr);
    EXPECT_EQ(log::Logger::m_instance.context, nullptr);
}

TEST(FrameHooksTest, DaemonLoggerIsTheSystemLog) {
    LogCapture saved;
    FrameHooksService service;
    service.daemon_mode = true;

    service.on_logger_open();

    EXPECT_EQ(log::Logger::m_instance.write, &log::Syslog::write);
    EXPECT_EQ(log::Logger::m_instance.close, &log::Syslog::close);
    service.on_logger_close();
}

TEST(FrameHooksTest, LoggerCloseRunsTheCloseOperationAndDiscards) {
    LogCapture saved;
    FrameHooksService service;
    int context = 0;
    log::Logger::m_instance.context = &context;
    log::Logger::m_instance.close = &count_close;
    g_closed = 0;

    service.on_logger_close();

    EXPECT_EQ(g_closed, 1);
    EXPECT_EQ(log::Logger::m_instance.close, nullptr);
    EXPECT_EQ(log::Logger::m_instance.context, nullptr);
    EXPECT_EQ(log::Logger::m_instance.write, &log::LoggerImpl::dummy_write);
    QM_LOG_ERROR("discarded");  // a no-op now
    EXPECT_TRUE(saved.texts().empty());
}

TEST(FrameHooksTest, FrameHelpPrintsNothing) {
    FrameHooksService service;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();

    service.help();

    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

}  // namespace
}  // namespace qm::app::test
