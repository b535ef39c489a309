#include "writer/writing_manager.hpp"

#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "io/io_session_path.hpp"
#include "io/quillmar_format.hpp"
#include "log/logger.hpp"
#include "utils/str.hpp"

namespace qm::writer {
namespace {

// The top two bits of the start packet's first feature-flag byte: either one records the leg.
constexpr std::uint8_t RECORDING_FLAGS = 0xC0;

// The uuid's raw bytes up to the first zero byte, as the messages about declined legs show them.
std::string raw_uuid(const media::PacketHeader& header) {
    const auto* bytes = reinterpret_cast<const char*>(header.uuid);
    return std::string(bytes, ::strnlen(bytes, sizeof header.uuid));
}

std::string uuid_text(const media::Session& session) {
    return utils::str::print_uuid(session.uuid.data());
}

unsigned long or_default(std::uint64_t configured, unsigned long fallback) {
    return configured == 0 ? fallback : static_cast<unsigned long>(configured);
}

// Appends `size` bytes at the end of the buffer's filled part.
// REQUIRES: they fit.
void append(MediaBuffer& buffer, const void* bytes, std::uint64_t size) {
    std::memcpy(buffer.data + buffer.size, bytes, size);
    buffer.size += size;
}

// The minute directory of a session's relative path: its day, hour and minute.
std::string minute_of(const std::string& relative) {
    const std::size_t file = relative.rfind('/');
    return relative.substr(0, relative.rfind('/', file - 1));
}

std::uint64_t free_space(const MediaBuffer& buffer) {
    return buffer.capacity - buffer.size;
}

// The payload bytes of the frames in `buffer`, which its loss drops. Only a session's first
// buffer starts with the file header, and its magic never starts a frame, whose first byte is the
// side (0 or 1).
std::uint64_t payload_bytes(const MediaBuffer& buffer) {
    std::uint64_t offset = 0;
    std::uint32_t magic = 0;
    if (buffer.size >= io::FILE_HEADER_SIZE) {
        std::memcpy(&magic, buffer.data, sizeof magic);
    }
    if (magic == io::QUILLMAR_MAGIC) {
        offset = io::FILE_HEADER_SIZE;
    }
    std::uint64_t bytes = 0;
    while (offset + io::FRAME_HEADER_SIZE <= buffer.size) {
        io::SessionStreamFrame frame;
        std::memcpy(&frame, buffer.data + offset, sizeof frame);
        const std::uint64_t payload = 2u * frame.num;
        bytes += payload;
        offset += io::FRAME_HEADER_SIZE + payload;
    }
    return bytes;
}

}  // namespace

WritingManager::WritingManager(const RecordingSettings& settings,
                               WritingManagerStatistic& statistic,
                               MediaBufferPoolStatistic& pool_statistic,
                               MediaWriterStatistic& writer_statistic, SteadyClock clock)
    : SessionManager(&statistic, clock),
      m_settings(settings),
      m_pool(or_default(m_settings.media_buffers_count, DEFAULT_BUFFERS_COUNT),
             or_default(m_settings.media_buffer_size, DEFAULT_BUFFER_SIZE), pool_statistic),
      m_writer(m_settings, m_pool, writer_statistic) {}

// A destructor has no one to report to; the writer's `stop` has logged how the join went.
WritingManager::~WritingManager() {
    static_cast<void>(m_writer.stop());
}

int WritingManager::start() {
    return m_writer.start();
}

int WritingManager::stop() {
    return m_writer.stop();
}

WritingManagerStatistic& WritingManager::statistic() {
    // The base was built on a WritingManagerStatistic.
    return static_cast<WritingManagerStatistic&>(SessionManager::statistic());
}

// The session is allocated before its buffer is taken, so that a failed allocation leaves no
// buffer to give back.
media::Session* WritingManager::create_session(const media::StartPacket& packet, int& result) {
    if ((packet.ft[0] & RECORDING_FLAGS) == 0) {
        QM_LOG_WARNING("WRITING_MANAGER: " << raw_uuid(packet.header)
                                           << ": recording is off for the session");
        result = 1;
        return nullptr;
    }
    WritingSession* session = nullptr;
    try {
        io::Uuid uuid;
        std::memcpy(uuid.data(), packet.header.uuid, uuid.size());
        const std::string relative = io::session_path(packet.ts, uuid);
        // The registry's lock is taken once here and once at completion: per leg, not per packet.
        OpenLegs::Registration leg = m_open_legs == nullptr
                                         ? OpenLegs::Registration()
                                         : m_open_legs->open(minute_of(relative));
        session = new WritingSession(packet, now_us(), m_settings.storage + "/" + relative);
        session->open_leg = std::move(leg);
        session->summary.path = relative.substr(0, relative.rfind('/'));
    } catch (const std::bad_alloc&) {
        result = 0;
        return nullptr;
    }
    session->buffer = m_pool.acquire();
    if (session->buffer == nullptr) {
        delete session;
        QM_LOG_ERROR("WRITING_MANAGER: " << raw_uuid(packet.header)
                                         << ": failed to acquire a buffer for session start");
        result = 2;
        return nullptr;
    }
    return session;
}

void WritingManager::on_session_created(rc_ptr<media::Session> session, media::StartPacket&) {
    const auto& recording = static_cast<WritingSession&>(*session);
    // A buffer fresh from the pool always has room for the file header.
    append(*recording.buffer, &recording.file_header, sizeof recording.file_header);
}

void WritingManager::on_session_media(rc_ptr<media::Session> session, media::DataPacket& packet) {
    auto& recording = static_cast<WritingSession&>(*session);
    const std::uint64_t bytes = packet.payload_size();
    const std::uint64_t need = bytes + io::FRAME_HEADER_SIZE;
    statistic().session_media_received_bytes += bytes;
    if (recording.buffer == nullptr) {
        recording.buffer = m_pool.acquire();
        if (recording.buffer == nullptr) {
            drop(bytes);
            QM_LOG_ERROR("WRITING_MANAGER: " << uuid_text(recording)
                                             << ": failed to acquire a buffer for  media");
            return;
        }
    }
    if (need > free_space(*recording.buffer) &&
        !replace_full_buffer(session, recording, need, bytes)) {
        return;
    }
    const io::SessionStreamFrame frame{
        packet.header.side(), 0, packet.num, packet.off,
        static_cast<std::uint32_t>(packet.header.mt - recording.sync_mt)};
    append(*recording.buffer, &frame, sizeof frame);
    append(*recording.buffer, packet.payload(), bytes);
    recording.count_frame(packet.header.side(), packet.off, packet.num, packet.header.mt);
    statistic().session_media_buffered_bytes += bytes;
}

bool WritingManager::replace_full_buffer(const rc_ptr<media::Session>& session,
                                         WritingSession& recording, std::uint64_t need,
                                         std::uint64_t bytes) {
    MediaBuffer* full = recording.buffer;
    full->session = session;
    if (!m_writer.push(full)) {
        // The frames already buffered stay with the session and go with a later push.
        drop(bytes);
        QM_LOG_ERROR("WRITING_MANAGER: " << uuid_text(recording)
                                         << ": MAGIC! failed to enqueue buffer for a writing");
        return false;
    }
    recording.buffer = m_pool.acquire();
    if (recording.buffer == nullptr) {
        drop(bytes);
        QM_LOG_ERROR("WRITING_MANAGER: "
                     << uuid_text(recording)
                     << ": failed to acquire a buffer for media after pushing the previous one");
        return false;
    }
    if (need > free_space(*recording.buffer)) {
        drop(bytes);
        QM_LOG_ERROR("WRITING_MANAGER: " << uuid_text(recording) << ": MAGIC! not enough space ("
                                         << need << ") in empty buffer of ("
                                         << recording.buffer->capacity << ") capacity");
        return false;
    }
    return true;
}

void WritingManager::on_session_terminated(rc_ptr<media::Session> session,
                                           media::TerminatePacket&) {
    on_session_completed(session, catalog::LegClose::TERMINATE);
}

void WritingManager::on_session_timedout(rc_ptr<media::Session> session) {
    on_session_completed(session, catalog::LegClose::TIMEOUT);
}

bool WritingManager::on_session_completed(const rc_ptr<media::Session>& session,
                                          catalog::LegClose closed_by) {
    auto& recording = static_cast<WritingSession&>(*session);
    recording.open_leg.reset();
    MediaBuffer* last = recording.buffer;
    recording.buffer = nullptr;
    // A session whose last acquire failed has nothing left to hand over.
    if (last == nullptr) {
        return false;
    }
    last->session = session;
    recording.close_summary(closed_by);
    // The push below publishes it with the summary.
    recording.final_buffer.store(last, std::memory_order_relaxed);
    if (!m_writer.push(last)) {
        QM_LOG_ERROR("WRITING_MANAGER: " << uuid_text(recording)
                                         << ": MAGIC! failed to enqueue buffer for a term writing");
        give_back(last);
    }
    return true;
}

void WritingManager::on_session_not_inserted(media::Session& session) {
    auto& recording = static_cast<WritingSession&>(session);
    if (recording.buffer != nullptr) {
        give_back(std::exchange(recording.buffer, nullptr));
    }
}

void WritingManager::give_back(MediaBuffer* buffer) {
    drop(payload_bytes(*buffer));
    // The session goes with the table's references; the buffer must not keep it alive.
    buffer->session = nullptr;
    static_cast<void>(m_pool.give_back(buffer));
}

std::size_t WritingManager::flush_open_sessions() {
    std::size_t flushed = 0;
    for (const auto& [id, session] : sessions()) {
        // Zombies record nothing; every other session is a recording.
        if (session && !session->zombie && on_session_completed(session, catalog::LegClose::STOP)) {
            ++flushed;
        }
    }
    return flushed;
}

void WritingManager::drop(std::uint64_t bytes) {
    statistic().session_media_dropped_bytes += bytes;
}

}  // namespace qm::writer
