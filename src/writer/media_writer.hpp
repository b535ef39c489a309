#pragma once

#include <cstdint>

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
    int stop() override;

    // A null buffer is a 1-second tick and ignored; any other is written when `write_media` is
    // set, and released to the pool in every case.
    void on_queue_read(MediaBuffer* buffer) override;

    // Appends the buffer's `size` bytes to its session's file.
    void handle_buffer(MediaBuffer* buffer);

private:
    // Makes sure the file's directory exists, once per session; false when the buffer must be
    // dropped.
    bool prepare_directory(WritingSession& session);
    void write_file(WritingSession& session, const MediaBuffer& buffer);
    void report_write_error(WritingSession& session, const MediaBuffer& buffer, std::uint32_t bit,
                            const char* message);

    const RecordingSettings m_settings;
    MediaBufferPool& m_pool;
};

}  // namespace qm::writer
