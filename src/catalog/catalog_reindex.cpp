#include "catalog/catalog_reindex.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

#include "catalog/leg_summary.hpp"
#include "recording/recording_inspector.hpp"
#include "utils/str.hpp"

namespace qm::catalog {
namespace {

namespace fs = std::filesystem;

// Whether `name` is `pattern` with every '9' standing for a digit.
bool matches(const std::string& name, std::string_view pattern) {
    return name.size() == pattern.size() &&
           std::equal(pattern.begin(), pattern.end(), name.begin(), [](char want, char got) {
               return want == '9' ? std::isdigit(static_cast<unsigned char>(got)) != 0
                                  : want == got;
           });
}

// The sub-directories of `directory` whose names fit `pattern` (any name for an empty one), in
// name order so that runs report in the same order.
std::vector<fs::path> directories(const fs::path& directory, std::string_view pattern) {
    std::vector<fs::path> out;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
        std::error_code ignored;
        if (entry.is_directory(ignored) &&
            (pattern.empty() || matches(entry.path().filename().string(), pattern))) {
            out.push_back(entry.path());
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

// Every leg directory under the storage, relative to it.
std::vector<fs::path> leg_directories(const fs::path& storage) {
    std::vector<fs::path> legs;
    for (const fs::path& day : directories(storage, "9999-99-99")) {
        for (const fs::path& hour : directories(day, "99")) {
            for (const fs::path& minute : directories(hour, "99")) {
                for (const fs::path& leg : directories(minute, "")) {
                    legs.push_back(fs::relative(leg, storage));
                }
            }
        }
    }
    return legs;
}

std::optional<std::string> read_file(const fs::path& file, std::string& reason) {
    std::ifstream in(file, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.is_open() || in.bad()) {
        reason = "cannot be read";
        return std::nullopt;
    }
    return text;
}

std::optional<CatalogRow> row_from_summary(const fs::path& file, std::string& reason) {
    const std::optional<std::string> text = read_file(file, reason);
    if (!text) {
        return std::nullopt;
    }
    std::optional<LegSummary> summary = parse(*text, reason);
    if (!summary) {
        return std::nullopt;
    }
    return recorded_row(std::move(*summary));
}

std::optional<CatalogRow> row_from_media(const fs::path& file, const ReindexOptions& options,
                                         std::string& reason) {
    const recording::RecordingReport report = recording::inspect_recording(file);
    if (report.state == recording::RecordingState::UNREADABLE || !report.session) {
        reason = report.state == recording::RecordingState::UNREADABLE
                     ? report.unreadable_reason
                     : recording::state_name(report.state);
        return std::nullopt;
    }
    CatalogRow row;
    LegSummary& leg = row.summary;
    leg.uuid = utils::str::print_uuid(report.session->uuid);
    leg.start_us = report.session->ts;
    leg.last_packet_us = report.session->ts;
    leg.closed_by = LegClose::UNKNOWN;
    for (std::size_t side = 0; side < leg.sides.size(); ++side) {
        const recording::SideReport& found = report.sides[side];
        leg.sides[side].frames = found.frames;
        leg.sides[side].samples = found.samples;
        if (found.frames != 0) {
            leg.sides[side].first_offset = found.first_offset;
            leg.sides[side].last_offset = found.last_offset;
        }
    }
    leg.bytes = report.size;
    std::tie(leg.host, leg.port) = *parse_recorder(options.recorder);
    return row;
}

// Whether the media file was last written before `before_us`.
bool written_before(const fs::path& file, std::uint64_t before_us) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) {
        return false;
    }
    const auto written_us = static_cast<std::uint64_t>(status.st_mtim.tv_sec) * 1'000'000 +
                            static_cast<std::uint64_t>(status.st_mtim.tv_nsec) / 1'000;
    return written_us < before_us;
}

// Reads the leg at `relative`: its row, none for a directory that holds no leg (or a media file
// too new to take), or none with `reason` set (and `file` naming what was read) for one that
// cannot be read.
std::optional<CatalogRow> read_leg(const fs::path& relative, const ReindexOptions& options,
                                   fs::path& file, std::string& reason) {
    const fs::path directory = options.storage / relative;
    std::error_code error;
    std::optional<CatalogRow> row;
    if (file = directory / "leg.json"; fs::exists(file, error)) {
        row = row_from_summary(file, reason);
    } else if (file = directory / "media.qm"; fs::exists(file, error)) {
        if (!options.media_written_before_us ||
            written_before(file, *options.media_written_before_us)) {
            row = row_from_media(file, options, reason);
        }
    }
    if (row) {
        // Where the leg is now, whatever its summary says.
        row->summary.path = relative.generic_string();
    }
    return row;
}

class Reindexer {
public:
    Reindexer(CatalogStore& store, const ReindexOptions& options)
        : m_store(store), m_options(options) {
        m_recorders.insert(options.recorder);
        if (options.only_missing) {
            for (CatalogRow& row : held_rows(options.recorder)) {
                m_known.insert(std::move(row.summary.path));
            }
        }
    }

    // Whether the leg at `relative` is to be read.
    bool wanted(const fs::path& relative) const {
        return m_known.count(relative.generic_string()) == 0;
    }

    void add(CatalogRow row) {
        m_recorders.insert(recorder_name(row.summary));
        m_batch.push_back(std::move(row));
        if (m_batch.size() >= m_options.batch) {
            flush();
        }
    }

    void skip() { ++m_counts.skipped; }
    // A directory of the storage, read or not: its rows are not removed.
    void present(const fs::path& relative) { m_present.insert(relative.generic_string()); }

    ReindexCounts finish() {
        flush();
        for (const std::string& recorder : m_recorders) {
            mark_gone(recorder);
        }
        return m_counts;
    }

private:
    void flush() {
        const UpsertCounts counts = m_store.upsert(m_batch);
        m_counts.legs += m_batch.size();
        m_counts.added += counts.added;
        m_counts.updated += counts.updated;
        m_batch.clear();
    }

    // The rows of `recorder` that are recorded or archived.
    std::vector<CatalogRow> held_rows(const std::string& recorder) {
        FindQuery query;
        query.recorder = recorder;
        return m_store.find(query);
    }

    void mark_gone(const std::string& recorder) {
        std::vector<std::string> gone;
        for (const CatalogRow& row : held_rows(recorder)) {
            // An archived leg lives on in the archive: its directory may go (`--delete-local`).
            if (row.state == RowState::RECORDED && m_present.count(row.summary.path) == 0) {
                gone.push_back(row.summary.path);
            }
        }
        m_counts.removed += m_store.mark_removed(recorder, gone, m_options.now_us);
    }

    CatalogStore& m_store;
    const ReindexOptions& m_options;
    std::vector<CatalogRow> m_batch;
    std::set<std::string> m_recorders;
    std::set<std::string> m_present;
    // With `only_missing`: the paths the recorder's rows hold as recorded or archived.
    std::set<std::string> m_known;
    ReindexCounts m_counts;
};

}  // namespace

std::optional<std::pair<std::string, std::uint16_t>> parse_recorder(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
        return std::nullopt;
    }
    std::uint16_t port = 0;
    const char* begin = text.data() + colon + 1;
    const char* end = text.data() + text.size();
    const auto [last, error] = std::from_chars(begin, end, port);
    if (error != std::errc{} || last != end) {
        return std::nullopt;
    }
    return std::make_pair(text.substr(0, colon), port);
}

ReindexCounts reindex(CatalogStore& store, const ReindexOptions& options,
                      const SkippedLeg& skipped) {
    Reindexer reindexer(store, options);
    for (const fs::path& relative : leg_directories(options.storage)) {
        reindexer.present(relative);
        if (!reindexer.wanted(relative)) {
            continue;
        }
        fs::path file;
        std::string reason;
        std::optional<CatalogRow> row = read_leg(relative, options, file, reason);
        if (row) {
            reindexer.add(std::move(*row));
        } else if (!reason.empty()) {
            skipped(file, reason);
            reindexer.skip();
        }
    }
    return reindexer.finish();
}

std::string reindex_line(const ReindexCounts& counts) {
    return "reindexed " + std::to_string(counts.legs) + " legs: " + std::to_string(counts.added) +
           " added, " + std::to_string(counts.updated) + " updated, " +
           std::to_string(counts.removed) + " removed, " + std::to_string(counts.skipped) +
           " skipped";
}

}  // namespace qm::catalog
