#include "media/media_session_manager.hpp"

#include <time.h>

#include <new>
#include <utility>

#include "log/logger.hpp"
#include "utils/str.hpp"

namespace qm::media {

std::uint64_t SessionManager::monotonic_now_us() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1'000;
}

SessionManager::SessionManager(SessionManagerStatistic* statistic, SteadyClock clock)
    : StatisticContainer<SessionManagerStatistic>(statistic), m_clock(clock) {}

SessionManager::~SessionManager() = default;

void SessionManager::on_packet(StartPacket& packet) {
    const PacketHeader& header = packet.header;
    const auto found = m_sessions.find(header.id);
    if (found != m_sessions.end() && found->second && found->second->zombie) {
        replace_zombie(found, packet);
        return;
    }
    if (found != m_sessions.end()) {
        ++statistic().session_existing_index_errors;
        QM_LOG_ERROR("SESSION_MANAGER: Session "
                     << utils::str::print_uuid(header.uuid)
                     << " already exists: check call id as this may be a CRC64 collision");
        return;
    }
    int result = 0;
    Session* session = create_or_report(packet, result);
    if (session != nullptr) {
        insert_session(session, packet);
    } else if (result != 0) {
        setup_zombie(header);
    }
}

Session* SessionManager::create_or_report(StartPacket& packet, int& result) {
    Session* session = create_session(packet, result);
    if (session == nullptr && result == 0) {
        ++statistic().session_allocation_errors;
        QM_LOG_ERROR("SESSION_MANAGER: Session " << utils::str::print_uuid(packet.header.uuid)
                                                 << " allocation failed");
    }
    return session;
}

void SessionManager::replace_zombie(SessionTable::iterator zombie, StartPacket& packet) {
    int result = 0;
    Session* session = create_or_report(packet, result);
    if (session == nullptr) {
        return;
    }
    // Packets that came before the start packet fix the session's time base.
    session->first_mt = zombie->second->first_mt;
    session->created_us = zombie->second->created_us;
    session->last_activity_us = m_activity.back()->last_activity_us + 1;
    erase_session(zombie);
    QM_LOG_INFO("SESSION_MANAGER: Session " << utils::str::print_uuid(packet.header.uuid)
                                            << " was created out the zombie");
    insert_session(session, packet);
}

void SessionManager::on_packet(TerminatePacket& packet) {
    const PacketHeader& header = packet.header;
    const auto found = m_sessions.find(header.id);
    if (found == m_sessions.end()) {
        ++statistic().session_unknown_index_errors;
        if (log::is_enabled(log::Level::WARNING)) {
            QM_LOG_WARNING("TERM  | mt: " << header.mt
                                          << ", uuid: " << utils::str::print_uuid(header.uuid)
                                          << " | unknown session");
        }
        return;
    }
    rc_ptr<Session> session = found->second;
    erase_session(found);
    if (!session) {
        QM_LOG_ERROR("SESSION_MANAGER: Memory corruption might have happened: session "
                     << utils::str::print_uuid(header.uuid) << " is null but must exist");
    } else if (!session->zombie) {
        on_session_terminated(std::move(session), packet);
    }
}

void SessionManager::on_packet(DataPacket& packet) {
    const PacketHeader& header = packet.header;
    const auto found = m_sessions.find(header.id);
    if (found == m_sessions.end()) {
        ++statistic().session_unknown_index_errors;
        if (log::is_enabled(log::Level::WARNING)) {
            QM_LOG_WARNING("DATA  | mt: " << header.mt
                                          << ", uuid: " << utils::str::print_uuid(header.uuid)
                                          << ", side: " << unsigned{header.side()}
                                          << ", seq: " << packet.seq << " | unknown session");
        }
        Session* zombie = setup_zombie(header);
        if (zombie != nullptr) {
            zombie->last_seq[header.side()] = packet.seq;
        }
        return;
    }
    Session* session = session_of(found, header);
    if (session == nullptr) {
        return;
    }
    if (!accept_sequence(*session, packet)) {
        return;
    }
    touch(*session, header.mt);
    if (!session->zombie) {
        on_session_media(found->second, packet);
    }
}

bool SessionManager::accept_sequence(Session& session, const DataPacket& packet) {
    std::uint32_t& last = session.last_seq[packet.header.side()];
    const std::uint32_t seq = packet.seq;
    if (last != 0 && seq <= last) {
        ++statistic().session_sequence_break_errors;
        return false;
    }
    if (last != 0) {
        statistic().session_lost_packets += seq - 1 - last;
        session.lost_packets[packet.header.side()] += seq - 1 - last;
    }
    last = seq;
    return true;
}

void SessionManager::on_packet(ControlPacket& packet) {
    const PacketHeader& header = packet.header;
    const auto found = m_sessions.find(header.id);
    if (found == m_sessions.end()) {
        ++statistic().session_unknown_index_errors;
        if (log::is_enabled(log::Level::WARNING)) {
            QM_LOG_WARNING("CTRL  | mt: " << header.mt
                                          << ", uuid: " << utils::str::print_uuid(header.uuid)
                                          << " | unknown session");
        }
        setup_zombie(header);
        return;
    }
    Session* session = session_of(found, header);
    if (session == nullptr) {
        return;
    }
    touch(*session, header.mt);
    if (!session->zombie) {
        on_session_control(found->second, packet);
    }
}

Session* SessionManager::session_of(SessionTable::const_iterator found,
                                    const PacketHeader& header) {
    Session* session = found->second.get();
    if (session == nullptr) {
        QM_LOG_ERROR("SESSION_MANAGER: Memory corruption may be happened: session "
                     << utils::str::print_uuid(header.uuid) << " is null but must exist");
    }
    return session;
}

void SessionManager::touch(Session& session, std::uint64_t mt) {
    session.last_activity_us = session.created_us + (mt - session.first_mt);
    // Relinks the element instead of reallocating it: no heap work per packet.
    m_activity.splice(m_activity.end(), m_activity, session.activity_position);
}

void SessionManager::on_packet_try() {
    if (m_sessions.size() > BUSY_TABLE_SIZE) {
        on_packet_idle();
    }
}

bool SessionManager::on_packet_idle() {
    ++statistic().session_audit_calls;
    const bool removed = audit();
    if (removed) {
        ++statistic().session_audit_executions;
    }
    return removed;
}

Session* SessionManager::create_session(const StartPacket& packet, int& result) {
    try {
        return new Session(packet, now_us());
    } catch (const std::bad_alloc&) {
        result = 0;
        return nullptr;
    }
}

void SessionManager::insert_session(Session* session, StartPacket& packet) {
    rc_ptr<Session> created(session);
    if (!link_session(created)) {
        on_session_not_inserted(*created);
        ++statistic().session_allocation_errors;
        QM_LOG_ERROR("SESSION_MANAGER: Session " << utils::str::print_uuid(packet.header.uuid)
                                                 << " allocation failed");
        return;
    }
    on_session_created(std::move(created), packet);
}

Session* SessionManager::setup_zombie(const PacketHeader& header) {
    rc_ptr<Session> zombie;
    try {
        zombie = new Session(Session::ZOMBIE, header, now_us());
    } catch (const std::bad_alloc&) {
        // Reported below, like a failure to link it.
    }
    if (!zombie || !link_session(zombie)) {
        ++statistic().session_allocation_errors;
        QM_LOG_ERROR("SESSION_MANAGER: Zombie session " << utils::str::print_uuid(header.uuid)
                                                        << " allocation failed");
        return nullptr;
    }
    ++statistic().session_zombie;
    return zombie.get();
}

bool SessionManager::link_session(const rc_ptr<Session>& session) {
    // The list and the table allocate a node per session; running out of memory here must not
    // escape into the reader thread, and must leave neither a half-linked session nor a leak.
    try {
        m_activity.push_back(session);
    } catch (const std::bad_alloc&) {
        return false;
    }
    session->activity_position = std::prev(m_activity.end());
    try {
        m_sessions[session->id] = session;
    } catch (const std::bad_alloc&) {
        m_activity.pop_back();
        return false;
    }
    update_session_count();
    return true;
}

void SessionManager::erase_session(SessionTable::const_iterator position) {
    if (position == m_sessions.end()) {
        QM_LOG_ERROR("SESSION_MANAGER: Trying to remove empty iterator");
        return;
    }
    bool was_zombie = false;
    if (Session* session = position->second.get(); session == nullptr) {
        QM_LOG_ERROR("SESSION_MANAGER: Trying to remove null session (while iterator is valid)");
    } else {
        was_zombie = session->zombie;
        m_activity.erase(session->activity_position);
        session->activity_position = m_activity.end();
    }
    m_sessions.erase(position);
    update_session_count();
    if (was_zombie) {
        decrease_zombie_counter(1);
    }
}

void SessionManager::decrease_zombie_counter(std::uint64_t removed) {
    const std::uint64_t current = statistic().session_zombie;
    if (current >= removed) {
        statistic().session_zombie -= removed;
        return;
    }
    QM_LOG_WARNING("SESSION_MANAGER: Statistic corruption detected:: current zombies ("
                   << current << "), actually removed (" << removed << ")");
    statistic().session_zombie = 0;
}

bool SessionManager::audit() {
    const std::uint64_t now = now_us();
    std::uint64_t removed_zombies = 0;
    bool removed = false;
    for (int budget = AUDIT_REMOVALS_MAX; budget > 0 && !m_activity.empty(); --budget) {
        // The list's reference goes with its element; this one keeps the session for the listener.
        rc_ptr<Session> session = m_activity.front();
        if (!session) {
            m_activity.pop_front();
            QM_LOG_ERROR(
                "SESSION_MANAGER: Trying to remove null session (while audit iterator is valid)");
            removed = true;
            continue;
        }
        if (session->last_activity_us + SESSION_TIMEOUT_US > now) {
            break;
        }
        m_activity.pop_front();
        session->activity_position = m_activity.end();
        m_sessions.erase(session->id);
        removed = true;
        const std::uint64_t last_activity_us = session->last_activity_us;
        if (session->zombie) {
            ++removed_zombies;
        } else {
            on_session_timedout(session);
        }
        QM_LOG_WARNING("SESSION_MANAGER: Timeout for session "
                       << utils::str::print_uuid(session->uuid.data()) << ": " << last_activity_us
                       << " " << now);
    }
    update_session_count();
    decrease_zombie_counter(removed_zombies);
    return removed;
}

void SessionManager::update_session_count() {
    statistic().session = m_sessions.size();
}

void SessionManager::on_session_created(rc_ptr<Session> /*session*/, StartPacket& /*packet*/) {}
void SessionManager::on_session_media(rc_ptr<Session> /*session*/, DataPacket& /*packet*/) {}
void SessionManager::on_session_control(rc_ptr<Session> /*session*/, ControlPacket& /*packet*/) {}
void SessionManager::on_session_terminated(rc_ptr<Session> /*session*/,
                                           TerminatePacket& /*packet*/) {}
void SessionManager::on_session_timedout(rc_ptr<Session> /*session*/) {}
void SessionManager::on_session_not_inserted(Session& /*session*/) {}

}  // namespace qm::media
