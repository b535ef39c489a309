#include "writer/media_writer.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "log/logger.hpp"
#include "utils/path.hpp"

namespace qm::writer {
namespace {

// As an output file stream creates files: the process's umask takes its bits off.
constexpr mode_t FILE_MODE = 0666;

// Appends `size` bytes at the end of the file, as many write calls as the system needs.
MediaWriter::WriteOutcome write_all(int fd, const void* data, std::uint64_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    MediaWriter::WriteOutcome outcome;
    while (outcome.taken < size) {
        const ssize_t count = ::write(fd, bytes + outcome.taken, size - outcome.taken);
        if (count > 0) {
            outcome.taken += static_cast<std::uint64_t>(count);
        } else if (count == 0 || errno != EINTR) {
            // A file that takes nothing without saying why is as good as broken.
            outcome.error = count == 0 ? EIO : errno;
            break;
        }
    }
    return outcome;
}

// Writes `text` as a new file at `path`; the errno of the first failure, 0 when it is all there.
int write_new_file(const std::string& path, const std::string& text) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, FILE_MODE);
    if (fd < 0) {
        return errno;
    }
    const int error = write_all(fd, text.data(), text.size()).error;
    if (::close(fd) != 0 && error == 0) {
        return errno;
    }
    return error;
}

// The length of the open file, or -1 when it is not a regular file and so cannot be cut back.
off_t regular_file_length(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        return -1;
    }
    return status.st_size;
}

}  // namespace

MediaWriter::MediaWriter(const RecordingSettings& settings, MediaBufferPool& pool,
                         MediaWriterStatistic& statistic)
    : Base(pool.capacity(), &statistic), m_settings(settings), m_pool(pool) {
    set_name("qm-writer");
}

// A destructor has no one to report to; `stop` has logged how the join went.
MediaWriter::~MediaWriter() {
    static_cast<void>(stop());
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
    if (!prepare_directory(session)) {
        lose_header(session);
        return;
    }
    write_file(session, *buffer);
    if ((m_settings.write_leg_summary || m_catalog != nullptr) &&
        session.final_buffer.load(std::memory_order_relaxed) == buffer) {
        close_leg(session);
    }
}

bool MediaWriter::prepare_directory(WritingSession& session) {
    if (session.directory_ready) {
        return true;
    }
    if (!utils::path::check_or_create_directory(session.file_path, true,
                                                m_settings.directory_mode())) {
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

void MediaWriter::lose_header(WritingSession& session) {
    if (session.header == WritingSession::HeaderState::IN_FIRST_BUFFER) {
        session.header = WritingSession::HeaderState::LOST;
    }
}

// Only what the system says it took counts as written, and only if the close that follows
// succeeds: a failed close (a quota or an I/O error found late) may have thrown it away.
void MediaWriter::write_file(WritingSession& session, const MediaBuffer& buffer) {
    const int fd =
        ::open(session.file_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, FILE_MODE);
    if (fd < 0) {
        report_open_error(session);
        return;
    }
    session.reported_errors &= ~WritingSession::REPORTED_OPEN;
    const off_t length = m_settings.media_write_repair ? regular_file_length(fd) : -1;
    const bool header_first =
        m_settings.media_write_repair && session.header == WritingSession::HeaderState::LOST;
    std::uint64_t added = 0;
    WriteOutcome outcome = append(fd, session, buffer, header_first, added);
    if (::close(fd) != 0 && outcome.error == 0) {
        outcome = {0, errno};
    }
    if (outcome.error == 0) {
        count_written(session, buffer, header_first);
        return;
    }
    count_unwritten(session, buffer, outcome);
    if (length >= 0) {
        cut_back(session, length, added);
    }
}

void MediaWriter::report_open_error(WritingSession& session) {
    ++statistic().file_open_errors;
    if ((session.reported_errors & WritingSession::REPORTED_OPEN) == 0) {
        QM_LOG_ERROR("MEDIA_WRITER: failed to open file " << session.file_path);
        session.reported_errors |= WritingSession::REPORTED_OPEN;
    }
    lose_header(session);
}

MediaWriter::WriteOutcome MediaWriter::append(int fd, const WritingSession& session,
                                              const MediaBuffer& buffer, bool header_first,
                                              std::uint64_t& added) {
    if (header_first) {
        const WriteOutcome header = write_all(fd, &session.file_header, sizeof session.file_header);
        added += header.taken;
        if (header.error != 0) {
            // Frames behind a missing header could not be read: the buffer is not offered.
            return {0, header.error};
        }
    }
    const WriteOutcome outcome = write_all(fd, buffer.data, buffer.size);
    added += outcome.taken;
    return outcome;
}

void MediaWriter::count_written(WritingSession& session, const MediaBuffer& buffer,
                                bool header_first) {
    statistic().written_bytes += buffer.size;
    session.reported_write_error = 0;
    if (header_first) {
        ++statistic().repair_headers;
        session.header = WritingSession::HeaderState::ON_DISK;
    } else if (session.header == WritingSession::HeaderState::IN_FIRST_BUFFER) {
        session.header = WritingSession::HeaderState::ON_DISK;
    }
}

void MediaWriter::count_unwritten(WritingSession& session, const MediaBuffer& buffer,
                                  const WriteOutcome& outcome) {
    const std::uint64_t refused = buffer.size - outcome.taken;
    // The report's written bytes keep counting every buffer offered to an open file, as they
    // always have (and `file_write_errors` only what throws, which nothing here does); what the
    // system refused of it is counted beside them, so bytes on disk = written - unwritten.
    statistic().written_bytes += buffer.size;
    statistic().unwritten_bytes += refused;
    lose_header(session);
    if (outcome.error != session.reported_write_error) {
        QM_LOG_WARNING("MEDIA_WRITER: the system did not take " << refused << " bytes of "
                                                                << session.file_path << ": "
                                                                << std::strerror(outcome.error));
        session.reported_write_error = outcome.error;
    }
}

// A file that held nothing before goes altogether: without its header it could not be read, and
// the next buffer creates it again, header first.
void MediaWriter::cut_back(WritingSession& session, off_t length, std::uint64_t added) {
    const bool cut = length == 0 ? ::unlink(session.file_path.c_str()) == 0 || errno == ENOENT
                                 : added == 0 || ::truncate(session.file_path.c_str(), length) == 0;
    if (!cut) {
        QM_LOG_WARNING("MEDIA_WRITER: failed to cut " << session.file_path << " back to " << length
                                                      << " bytes: " << std::strerror(errno));
        return;
    }
    statistic().repair_cut_bytes += added;
    if (length == 0) {
        session.header = WritingSession::HeaderState::LOST;
    }
}

void MediaWriter::close_leg(WritingSession& session) {
    const bool found = complete_leg_summary(session);
    write_leg_summary(session);
    if (found && m_catalog != nullptr) {
        m_catalog->leg_closed(session.summary);
    }
}

// The file's size is what the system holds now: whatever failed along the way, the summary says
// what a reader will find.
bool MediaWriter::complete_leg_summary(WritingSession& session) {
    struct stat status {};
    const bool found = ::stat(session.file_path.c_str(), &status) == 0;
    session.summary.bytes = found ? static_cast<std::uint64_t>(status.st_size) : 0;
    session.summary.host = m_host;
    session.summary.port = m_port;
    return found;
}

void MediaWriter::write_leg_summary(const WritingSession& session) {
    const std::string directory = session.file_path.substr(0, session.file_path.rfind('/') + 1);
    const std::string path = directory + "leg.json";
    const std::string temporary = path + ".tmp";
    int error = write_new_file(temporary, catalog::render(session.summary));
    if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error == 0) {
        return;
    }
    ++statistic().leg_summary_errors;
    QM_LOG_WARNING("MEDIA_WRITER: failed to write the leg summary " << path << ": "
                                                                    << std::strerror(error));
    // Nothing is left half written: a reader of the directory sees no summary at all.
    static_cast<void>(::unlink(temporary.c_str()));
}

}  // namespace qm::writer
