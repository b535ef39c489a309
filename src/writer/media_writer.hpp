#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>

#include "catalog/catalog_writer.hpp"
#include "core/queue_reader.hpp"
#include "writer/media_buffer.hpp"
#include "writer/media_buffer_pool.hpp"
#include "writer/media_writer_statistic.hpp"
#include "writer/recording_settings.hpp"
#include "writer/writing_session.hpp"

// The one thread that touches recording files. The writing manager pushes full media buffers
// (and each session's last one); the writer takes them in order, makes sure the session's
// directory exists, appends the buffer's bytes to the session's file, and gives the buffer back
// to the pool. It knows nothing of the bytes' format. Each file is opened, appended to and closed
// once per buffer, so the recorder never holds a recording open and storage cleanup can remove it
// at any time.
//
// Only the bytes the system takes count as written: a write that fails (disk full, quota, I/O
// error), wholly or part-way, or a close that fails, counts the bytes not taken as unwritten and
// logs a WARNING once per session and errno. With `media_write_repair` a failed buffer is cut off
// the file again, so the file stays a sequence of whole frames (a file that held nothing before
// is removed), and a session whose header never reached the disk gets it in front of its next
// buffer: the first buffer of a session is the one that carries the header.
//
// With `write_leg_summary`, once the session's last buffer (the one the writing manager marked at
// the leg's close) has been handled, the writer puts the leg's summary beside the file as
// "leg.json": written whole as "leg.json.tmp" in the same directory, then renamed over it, so a
// reader finds the whole summary or none. A summary that cannot be written is counted in
// `leg_summary_errors` and logged at WARNING, once per leg as each leg has one.
//
// Given a catalogue writer, the writer also hands it each closed leg's summary, whether or not
// "leg.json" could be written, as long as the leg has a file to find.
//
// Every failure is counted; each kind is logged once per session until a success of that kind
// re-arms it (except a buffer without a session, logged every time). No failure stops the thread
// and every buffer goes back to the pool, written or not.
//
// Threads: built, started, stopped and destroyed by the writing manager's owner. `push` is called
// by the session thread only; `run`, `on_queue_read` and `handle_buffer` run on the writer
// thread, which is the only one to release buffers to the pool. A stop drains the queue first.
// REQUIRES: the pool outlives the writer.

namespace qm::writer {

class MediaWriter : public QueueReader<MediaBuffer*, 0, 1'000'000'000, MediaWriterStatistic> {
public:
    using Base = QueueReader<MediaBuffer*, 0, 1'000'000'000, MediaWriterStatistic>;

    // How much of a run of bytes the system took, and the errno that stopped it (0: all of it).
    struct WriteOutcome {
        std::uint64_t taken = 0;
        int error = 0;
    };

    // The queue holds every buffer of the pool, so a push can only fail if the accounting is
    // broken.
    MediaWriter(const RecordingSettings& settings, MediaBufferPool& pool,
                MediaWriterStatistic& statistic);
    ~MediaWriter() override;

    MediaWriter(const MediaWriter&) = delete;
    MediaWriter& operator=(const MediaWriter&) = delete;

    // Logs the thread's start, then drains the queue until `stop`.
    void run() override;

    // Returns 0 at once when the thread is not running; otherwise ends it after the queue is
    // drained, logs how the join went and checks that every buffer is back in the pool.
    [[nodiscard]] int stop() override;

    // A null buffer is a 1-second tick and ignored; any other is written when `write_media` is
    // set, and released to the pool in every case.
    void on_queue_read(MediaBuffer* buffer) override;

    // Appends the buffer's `size` bytes to its session's file, then writes the leg's summary when
    // it was the session's last buffer and summaries are on.
    void handle_buffer(MediaBuffer* buffer);

    // What the leg summaries name as their recorder. REQUIRES: the thread does not run yet.
    void describe_recorder(std::string host, std::uint16_t port) {
        m_host = std::move(host);
        m_port = port;
    }

    // Every closed leg's summary also goes to `catalog`. REQUIRES: the thread does not run yet;
    // `catalog` outlives it.
    void catalogue_legs(catalog::CatalogWriter& catalog) { m_catalog = &catalog; }

private:
    // Makes sure the file's directory exists, once per session; false when the buffer must be
    // dropped.
    bool prepare_directory(WritingSession& session);
    // The session's first buffer, which carried the file header, did not reach the disk.
    static void lose_header(WritingSession& session);
    // Opens, appends, closes and counts.
    void write_file(WritingSession& session, const MediaBuffer& buffer);
    void report_open_error(WritingSession& session);
    // Appends the buffer to the open file, the file header first when `header_first`; adds every
    // byte the system took to `added`. The outcome is the buffer's.
    static WriteOutcome append(int fd, const WritingSession& session, const MediaBuffer& buffer,
                               bool header_first, std::uint64_t& added);
    void count_written(WritingSession& session, const MediaBuffer& buffer, bool header_first);
    void count_unwritten(WritingSession& session, const MediaBuffer& buffer,
                         const WriteOutcome& outcome);
    // Cuts the `added` bytes off the end of the file again, back to `length` (the file goes when
    // that is 0).
    void cut_back(WritingSession& session, off_t length, std::uint64_t added);
    // Writes the closed leg's summary and hands it to the catalogue.
    void close_leg(WritingSession& session);
    // Completes the session's summary with the file's size and the recorder; false when the file
    // is not there.
    bool complete_leg_summary(WritingSession& session);
    // Puts the summary beside the file as "leg.json".
    void write_leg_summary(const WritingSession& session);

    const RecordingSettings m_settings;
    MediaBufferPool& m_pool;
    std::string m_host;
    std::uint16_t m_port = 0;
    catalog::CatalogWriter* m_catalog = nullptr;
};

}  // namespace qm::writer
