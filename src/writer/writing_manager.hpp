#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "catalog/leg_summary.hpp"
#include "core/rc_ptr.hpp"
#include "media/media_session_manager.hpp"
#include "writer/media_buffer_pool.hpp"
#include "writer/media_buffer_pool_statistic.hpp"
#include "writer/media_writer.hpp"
#include "writer/media_writer_statistic.hpp"
#include "writer/recording_settings.hpp"
#include "writer/writing_manager_statistic.hpp"
#include "writer/writing_session.hpp"

// The recorder's session listener: the session table of the packet reader, extended to turn each
// recorded leg's packets into the bytes of its media file. It decides per start packet whether the
// leg is recorded (the top two bits of the first feature-flag byte), keeps one partly filled media
// buffer per recorded session, appends one frame per accepted data packet, and hands a buffer to
// the media writer when the next frame would not fit, and the last one when the session ends.
// A frame is never split: buffers end at frame boundaries, so a file holds whole frames only.
// Control packets are not recorded. Failures are counted as dropped bytes and logged at ERROR;
// nothing throws out of a listener operation.
//
// Owns the media buffer pool and the media writer. Threads: built, started, stopped and
// destroyed by the service's main thread while the packet reader does not run; the listener
// operations run on the packet reader's thread (the session thread). A buffer belongs to the
// media writer from its successful push on. A buffer that the media writer never gets (its last
// push failed, or its session could not be entered in the table) goes back to the pool from the
// session thread, and the payload bytes of its frames count as dropped.
//
// Sessions still open when the manager is destroyed get no final push, unless
// `flush_open_sessions` ran: their files end at the last buffer pushed.

namespace qm::writer {

class WritingManager : public media::SessionManager {
public:
    // Buffers and their size when the configuration leaves them at 0.
    static constexpr unsigned long DEFAULT_BUFFERS_COUNT = 4000;
    static constexpr unsigned long DEFAULT_BUFFER_SIZE = 64000;

    // Builds the pool (throws std::bad_alloc when it cannot) and the media writer. The records
    // must outlive the manager.
    WritingManager(const RecordingSettings& settings, WritingManagerStatistic& statistic,
                   MediaBufferPoolStatistic& pool_statistic, MediaWriterStatistic& writer_statistic,
                   SteadyClock clock = &monotonic_now_us);
    // Stops the media writer (it drains its queue), then drops the writer, the pool and the table.
    ~WritingManager() override;

    // Hands the current buffer of every open recorded session to the media writer, as its end
    // would, so that a stop that follows loses nothing accepted; the sessions stay open without a
    // buffer. Returns how many buffers went. REQUIRES: the packet reader's thread has ended (the
    // table is that thread's while it runs) and the media writer runs.
    std::size_t flush_open_sessions();

    // From now on every recorded leg counts in `legs` from its creation to its completion, so
    // that the storage cleanup spares its minute. REQUIRES: the packet reader does not run yet;
    // `legs` outlives the manager.
    void track_open_legs(OpenLegs& legs) { m_open_legs = &legs; }

    // What the leg summaries name as their recorder. REQUIRES: the media writer does not run yet.
    void describe_recorder(std::string host, std::uint16_t port) {
        m_writer.describe_recorder(std::move(host), port);
    }

    // Every closed leg's summary also goes to `catalog`. REQUIRES: the media writer does not run
    // yet; `catalog` outlives it.
    void catalogue_legs(catalog::CatalogWriter& catalog) { m_writer.catalogue_legs(catalog); }

    // Starts and stops the media writer's thread; the results are the thread's.
    [[nodiscard]] int start();
    [[nodiscard]] int stop();

    WritingManagerStatistic& statistic();
    const MediaBufferPool& pool() const { return m_pool; }
    MediaWriter& writer() { return m_writer; }

protected:
    media::Session* create_session(const media::StartPacket& packet, int& result) override;
    void on_session_created(rc_ptr<media::Session> session, media::StartPacket& packet) override;
    void on_session_media(rc_ptr<media::Session> session, media::DataPacket& packet) override;
    void on_session_terminated(rc_ptr<media::Session> session,
                               media::TerminatePacket& packet) override;
    void on_session_timedout(rc_ptr<media::Session> session) override;
    // Gives the buffer of a session the table could not take back to the pool.
    void on_session_not_inserted(media::Session& session) override;

private:
    // Hands the session's last buffer to the media writer, marked as the last, with the leg's
    // summary closed by `closed_by`; false when it had none.
    bool on_session_completed(const rc_ptr<media::Session>& session, catalog::LegClose closed_by);
    // Pushes the session's full buffer and attaches a fresh one; false when the frame of `bytes`
    // payload bytes that needs `need` bytes must be dropped.
    bool replace_full_buffer(const rc_ptr<media::Session>& session, WritingSession& recording,
                             std::uint64_t need, std::uint64_t bytes);
    // Returns a buffer the media writer never got to the pool, dropping its frames.
    void give_back(MediaBuffer* buffer);
    void drop(std::uint64_t bytes);

    const RecordingSettings m_settings;
    MediaBufferPool m_pool;
    // Declared after the pool: it is destroyed first, while the pool it releases into still
    // exists.
    MediaWriter m_writer;
    OpenLegs* m_open_legs = nullptr;
};

}  // namespace qm::writer
