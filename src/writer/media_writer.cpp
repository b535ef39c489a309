#include "writer/media_writer.hpp"

#include <sys/types.h>
#include <unistd.h>

#include <exception>
#include <fstream>
#include <ios>

#include "log/logger.hpp"
#include "utils/path.hpp"

namespace qm::writer {
namespace {

constexpr mode_t DIRECTORY_MODE = 0755;

}  // namespace

MediaWriter::MediaWriter(const RecordingSettings& settings, MediaBufferPool& pool,
                         MediaWriterStatistic& statistic)
    : Base(pool.capacity(), &statistic), m_settings(settings), m_pool(pool) {
    set_name("qm-writer");
}

MediaWriter::~MediaWriter() {
    stop();
}

void MediaWriter::run() {
    QM_LOG_THREAD_STARTED("MEDIA_WRITER");
    Base::run();
}

int MediaWriter::stop() {
    if (!is_running()) {
        return 0;
    }
    const int result = QM_LOG_THREAD_STOPPED("MEDIA_WRITER", Base::stop());
    if (m_pool.free_count() != m_pool.capacity()) {
        QM_LOG_ERROR(
            "MEDIA_WRITER: Possible memory leak detected! All buffers must be inside the pool at "
            "this point");
    }
    return result;
}

void MediaWriter::on_queue_read(MediaBuffer* buffer) {
    if (buffer == nullptr) {
        return;
    }
    if (m_settings.write_media) {
        handle_buffer(buffer);
    }
    // Refused only if the pool's accounting is broken; the pool reports that itself.
    [[maybe_unused]] const bool released = m_pool.release(buffer);
}

void MediaWriter::handle_buffer(MediaBuffer* buffer) {
    if (!buffer->session) {
        ++statistic().buffer_null_sessions_errors;
        QM_LOG_ERROR(
            "MEDIA_WRITER: unexpectedly received null session - ask a developer to check the "
            "logic");
        return;
    }
    // Every buffer that reaches the writer was filled by the writing manager for one of its
    // sessions.
    auto& session = static_cast<WritingSession&>(*buffer->session);
    if (prepare_directory(session)) {
        write_file(session, *buffer);
    }
}

bool MediaWriter::prepare_directory(WritingSession& session) {
    if (session.directory_ready) {
        return true;
    }
    if (!utils::path::check_or_create_directory(session.file_path, true, DIRECTORY_MODE)) {
        ++statistic().directory_check_or_create_errors;
        if ((session.reported_errors & WritingSession::REPORTED_DIRECTORY) == 0) {
            QM_LOG_ERROR("MEDIA_WRITER: directory check or creation failed: " << session.file_path);
            session.reported_errors |= WritingSession::REPORTED_DIRECTORY;
        }
        return false;
    }
    session.directory_ready = true;
    session.reported_errors &= ~WritingSession::REPORTED_DIRECTORY;
    return true;
}

// The stream's exception mask stays empty: a short write only sets its state, which is not
// inspected, and is counted as written. Only what the library throws of its own accord (an
// allocation failure, say) is a write error.
void MediaWriter::write_file(WritingSession& session, const MediaBuffer& buffer) {
    std::ofstream file(session.file_path, std::ios::out | std::ios::app | std::ios::binary);
    if (!file.is_open()) {
        ++statistic().file_open_errors;
        if ((session.reported_errors & WritingSession::REPORTED_OPEN) == 0) {
            QM_LOG_ERROR("MEDIA_WRITER: failed to open file " << session.file_path);
            session.reported_errors |= WritingSession::REPORTED_OPEN;
        }
        return;
    }
    session.reported_errors &= ~WritingSession::REPORTED_OPEN;
    if (buffer.size == 0) {
        return;
    }
    try {
        file.write(reinterpret_cast<const char*>(buffer.data),
                   static_cast<std::streamsize>(buffer.size));
        statistic().written_bytes += buffer.size;
        session.reported_errors &=
            ~(WritingSession::REPORTED_WRITE | WritingSession::REPORTED_WRITE_UNKNOWN);
    } catch (const std::exception& error) {
        report_write_error(session, buffer, WritingSession::REPORTED_WRITE, error.what());
    } catch (...) {
        report_write_error(session, buffer, WritingSession::REPORTED_WRITE_UNKNOWN, "unknown");
    }
}

void MediaWriter::report_write_error(WritingSession& session, const MediaBuffer& buffer,
                                     std::uint32_t bit, const char* message) {
    ++statistic().file_write_errors;
    if ((session.reported_errors & bit) == 0) {
        // The quote before the path has no partner; operators' filters expect the line so.
        QM_LOG_ERROR("MEDIA_WRITER: failed to write (" << buffer.size << ") bytes to \""
                                                       << session.file_path
                                                       << ", error: " << message);
        session.reported_errors |= bit;
    }
}

}  // namespace qm::writer
