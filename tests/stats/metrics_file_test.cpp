#include "stats/metrics_file.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "child_process.hpp"
#include "core/statistic_counter.hpp"
#include "log_capture.hpp"
#include "temp_directory.hpp"

namespace qm::stats {
namespace {

ReportSnapshot small_snapshot(std::uint64_t sessions, std::uint64_t lost) {
    ReportSnapshot snapshot;
    snapshot.manager = {
        {"session number.............................: ", sessions, false, "sessions", true},
        {"session lost packets number................: ", lost, false,
         "session_lost_packets_total"},
    };
    snapshot.writer = {
        {"written bytes number.......................: ", 4096, true, "written_bytes_total"}};
    snapshot.packet_reader = {
        {"packet 'data'  type number.................: ", 77, false, "packet_data_type_total"}};
    snapshot.metrics_only = {
        {"media bytes the system did not take", 300, true, "unwritten_bytes_total"}};
    return snapshot;
}

// Exported counters only grow, so none may wrap: every value the file shows is 64 bits wide.
static_assert(std::is_same_v<decltype(ReportRow::value), std::uint64_t>);
static_assert(std::is_same_v<decltype(ProcessMetrics::kernel_drops), std::uint64_t>);
static_assert(std::is_same_v<decltype(ProcessMetrics::refused_datagrams), std::uint64_t>);
static_assert(std::is_same_v<decltype(std::declval<StatisticCounter>().load()), std::uint64_t>);

std::string contents(const std::filesystem::path& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(MetricsFileTest, KernelDropsBeyond32BitsAreShownWhole) {
    EXPECT_EQ(MetricsFile::render({}, {0x100000020, 0}),
              "# HELP quillmarwriter_kernel_drops_total datagrams the system dropped because the "
              "receive buffer was full\n"
              "# TYPE quillmarwriter_kernel_drops_total counter\n"
              "quillmarwriter_kernel_drops_total 4294967328\n"
              "# HELP quillmarwriter_resident_memory_bytes resident memory of the recorder\n"
              "# TYPE quillmarwriter_resident_memory_bytes gauge\n"
              "quillmarwriter_resident_memory_bytes 0\n"
              "# HELP quillmarwriter_refused_datagrams_total datagrams dropped because "
              "allowed_sources does not list their sender\n"
              "# TYPE quillmarwriter_refused_datagrams_total counter\n"
              "quillmarwriter_refused_datagrams_total 0\n");
}

TEST(MetricsFileTest, RefusedDatagramsFollowTheResidentMemory) {
    EXPECT_EQ(MetricsFile::render({}, {1, 2, 0x100000003}),
              "# HELP quillmarwriter_kernel_drops_total datagrams the system dropped because the "
              "receive buffer was full\n"
              "# TYPE quillmarwriter_kernel_drops_total counter\n"
              "quillmarwriter_kernel_drops_total 1\n"
              "# HELP quillmarwriter_resident_memory_bytes resident memory of the recorder\n"
              "# TYPE quillmarwriter_resident_memory_bytes gauge\n"
              "quillmarwriter_resident_memory_bytes 2\n"
              "# HELP quillmarwriter_refused_datagrams_total datagrams dropped because "
              "allowed_sources does not list their sender\n"
              "# TYPE quillmarwriter_refused_datagrams_total counter\n"
              "quillmarwriter_refused_datagrams_total 4294967299\n");
}

TEST(MetricsFileTest, RenderIsTheTextExpositionFormat) {
    EXPECT_EQ(MetricsFile::render(small_snapshot(12, 9), {5, 1048576}),
              "# HELP quillmarwriter_sessions session number\n"
              "# TYPE quillmarwriter_sessions gauge\n"
              "quillmarwriter_sessions 12\n"
              "# HELP quillmarwriter_session_lost_packets_total session lost packets number\n"
              "# TYPE quillmarwriter_session_lost_packets_total counter\n"
              "quillmarwriter_session_lost_packets_total 9\n"
              "# HELP quillmarwriter_written_bytes_total written bytes number\n"
              "# TYPE quillmarwriter_written_bytes_total counter\n"
              "quillmarwriter_written_bytes_total 4096\n"
              "# HELP quillmarwriter_packet_data_type_total packet 'data'  type number\n"
              "# TYPE quillmarwriter_packet_data_type_total counter\n"
              "quillmarwriter_packet_data_type_total 77\n"
              "# HELP quillmarwriter_unwritten_bytes_total media bytes the system did not take\n"
              "# TYPE quillmarwriter_unwritten_bytes_total counter\n"
              "quillmarwriter_unwritten_bytes_total 300\n"
              "# HELP quillmarwriter_kernel_drops_total datagrams the system dropped because the "
              "receive buffer was full\n"
              "# TYPE quillmarwriter_kernel_drops_total counter\n"
              "quillmarwriter_kernel_drops_total 5\n"
              "# HELP quillmarwriter_resident_memory_bytes resident memory of the recorder\n"
              "# TYPE quillmarwriter_resident_memory_bytes gauge\n"
              "quillmarwriter_resident_memory_bytes 1048576\n"
              "# HELP quillmarwriter_refused_datagrams_total datagrams dropped because "
              "allowed_sources does not list their sender\n"
              "# TYPE quillmarwriter_refused_datagrams_total counter\n"
              "quillmarwriter_refused_datagrams_total 0\n");
}

TEST(MetricsFileTest, EveryWriteReplacesTheWholeFileAndLeavesNothingElse) {
    test::TempDirectory directory;
    test::LogCapture capture;
    const std::filesystem::path path = directory.path() / "quillmarwriter.prom";
    MetricsFile metrics(path.string());

    metrics.write(small_snapshot(1000, 1000), {});
    EXPECT_EQ(contents(path), MetricsFile::render(small_snapshot(1000, 1000), {}));
    metrics.write(small_snapshot(1, 2), {3, 4});

    EXPECT_EQ(contents(path), MetricsFile::render(small_snapshot(1, 2), {3, 4}));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()),
                            std::filesystem::directory_iterator()),
              1);
    EXPECT_TRUE(capture.lines().empty());
}

TEST(MetricsFileTest, UnwritablePlaceIsOneWarningPerCondition) {
    test::TempDirectory directory;
    test::LogCapture capture;
    const std::filesystem::path folder = directory.path() / "metrics";
    const std::string path = (folder / "quillmarwriter.prom").string();
    MetricsFile metrics(path);
    const std::string missing = "STATISTIC_SERVICE: metrics file not written: cannot create " +
                                path + ".tmp: No such file or directory";

    metrics.write(small_snapshot(1, 1), {});
    metrics.write(small_snapshot(1, 1), {});
    std::filesystem::create_directory(folder);
    metrics.write(small_snapshot(1, 1), {});
    std::filesystem::remove_all(folder);
    metrics.write(small_snapshot(1, 1), {});
    metrics.write(small_snapshot(1, 1), {});

    EXPECT_EQ(capture.texts(log::Level::WARNING), (std::vector<std::string>{missing, missing}));
    EXPECT_EQ(capture.texts().size(), 2u);
}

TEST(MetricsFileTest, DirectoryInTheWayOfTheNameIsAWarningAndNoTemporaryStays) {
    test::TempDirectory directory;
    test::LogCapture capture;
    const std::filesystem::path path = directory.path() / "quillmarwriter.prom";
    std::filesystem::create_directories(path / "inside");
    MetricsFile metrics(path.string());

    metrics.write(small_snapshot(1, 1), {});

    EXPECT_EQ(capture.texts(log::Level::WARNING),
              (std::vector<std::string>{"STATISTIC_SERVICE: metrics file not written: cannot "
                                        "rename " +
                                        path.string() + ".tmp to " + path.string() +
                                        ": Is a directory"}));
    EXPECT_FALSE(std::filesystem::exists(path.string() + ".tmp"));
}

// A scraper reads the file while the recorder replaces it: every read is one whole version.
TEST(MetricsFileThreadTest, ReaderNeverSeesAPartOfTheFile) {
    test::TempDirectory directory;
    const std::filesystem::path path = directory.path() / "quillmarwriter.prom";
    const std::string first = MetricsFile::render(small_snapshot(1, 1), {});
    const std::string second = MetricsFile::render(small_snapshot(123456789, 987654321), {1, 2});
    MetricsFile metrics(path.string());
    metrics.write(small_snapshot(1, 1), {});
    std::atomic<bool> done{false};

    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i) {
            metrics.write(i % 2 == 0 ? small_snapshot(123456789, 987654321) : small_snapshot(1, 1),
                          i % 2 == 0 ? ProcessMetrics{1, 2} : ProcessMetrics{});
        }
        done.store(true);
    });
    std::size_t reads = 0;
    std::size_t torn = 0;
    while (!done.load()) {
        const std::string text = contents(path);
        torn += text == first || text == second ? 0 : 1;
        ++reads;
    }
    writer.join();

    EXPECT_EQ(torn, 0u) << "of " << reads << " reads";
    EXPECT_GT(reads, 0u);
}

TEST(MetricsFileTest, ResidentMemoryIsThisProcesssOwn) {
    std::ifstream status("/proc/self/status");
    std::string line;
    std::uint64_t kib = 0;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            kib = std::stoull(line.substr(6));
        }
    }
    const std::uint64_t resident = MetricsFile::resident_bytes();

    // Both read the same counter a moment apart; the process does not change size in between
    // by more than a few pages.
    EXPECT_NEAR(static_cast<double>(resident), static_cast<double>(kib * 1024), 1024.0 * 1024);
    EXPECT_GT(resident, 0u);
}

}  // namespace
}  // namespace qm::stats
