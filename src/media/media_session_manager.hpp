#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "core/rc_ptr.hpp"
#include "core/statistic_container.hpp"
#include "media/control_packet.hpp"
#include "media/data_packet.hpp"
#include "media/packet_header.hpp"
#include "media/packet_reader_listener.hpp"
#include "media/session.hpp"
#include "media/session_manager_statistic.hpp"
#include "media/start_packet.hpp"
#include "media/terminate_packet.hpp"

// The table of live call-leg sessions. It turns the packets the packet reader validated into
// sessions keyed by their 64-bit id, checks the data packets' sequence numbers per side, keeps each
// session's last-activity time, and hands every packet of a recorded session to its own listener
// operations, which a derived class (the recorder's writing manager) overrides. Legs that are not
// recorded, or whose first packet is not a start packet, become zombies that absorb their packets
// without a listener call; sessions silent for 300 s are timed out by the audit.
//
// Threads: constructed and destroyed by the service's main thread while the packet reader does not
// run; every other operation runs on the packet-reader thread, so the table, the activity list and
// the sessions' fields need no lock. The counters of the statistic record are written by that
// thread only and read by the statistics thread.
//
// Invariant: every session in the table is in the activity list exactly once and the other way
// round; `Session::activity_position` names its list element; the list runs from the least to the
// most recently active session.

namespace qm::media {

class SessionManager : public PacketReaderListener,
                       public StatisticContainer<SessionManagerStatistic> {
public:
    // Microseconds on a monotonic clock. Tests inject their own to move time without waiting.
    using SteadyClock = std::uint64_t (*)();

    // The session key is already a hash (the sender's CRC64 of the call id).
    struct IdentityHash {
        std::size_t operator()(std::uint64_t id) const noexcept { return id; }
    };
    using SessionTable = std::unordered_map<std::uint64_t, rc_ptr<Session>, IdentityHash>;
    using ActivityList = Session::ActivityList;

    // A session whose last activity is this old is timed out.
    static constexpr std::uint64_t SESSION_TIMEOUT_US = 300'000'000;
    // Time-outs per audit run; the rest waits for the next run.
    static constexpr int AUDIT_REMOVALS_MAX = 10;
    // Above this table size every turn of the reader loop audits, not only the idle ones.
    static constexpr std::size_t BUSY_TABLE_SIZE = 10'000;

    // CLOCK_MONOTONIC in microseconds (nanoseconds divided by 1000, truncating).
    static std::uint64_t monotonic_now_us();

    // Counts into `statistic` when given (it must outlive the manager), else into a record of its
    // own.
    explicit SessionManager(SessionManagerStatistic* statistic = nullptr,
                            SteadyClock clock = &monotonic_now_us);
    // Drops every session without a listener call.
    ~SessionManager() override;

    SessionManager(const SessionManager&) = delete;
    SessionManager& operator=(const SessionManager&) = delete;

    void on_packet(StartPacket& packet) override;
    void on_packet(TerminatePacket& packet) override;
    void on_packet(DataPacket& packet) override;
    void on_packet(ControlPacket& packet) override;
    // Audits on every turn of the reader loop while the table holds more than BUSY_TABLE_SIZE.
    void on_packet_try() override;
    // Audits; true when it timed out at least one session.
    bool on_packet_idle() override;

    // Adds a zombie for the packet with this header to the table; null when it cannot be
    // allocated. REQUIRES: the header's id is not in the table.
    Session* setup_zombie(const PacketHeader& header);
    // Removes one entry from the table and its session from the activity list.
    void erase_session(SessionTable::const_iterator position);
    // Lowers `session_zombie` by `removed`; repairs the counter to 0 if it holds fewer.
    void decrease_zombie_counter(std::uint64_t removed);
    // Times out at most AUDIT_REMOVALS_MAX of the least recently active sessions that have been
    // silent for SESSION_TIMEOUT_US; true when it removed any.
    bool audit();

    const SessionTable& sessions() const { return m_sessions; }
    const ActivityList& activity() const { return m_activity; }

protected:
    // The listener interface. `create_session` returns a new, not yet referenced session for the
    // start packet, or null: with `result` left 0 when the allocation failed, with a non-zero
    // `result` when the leg is not to be recorded (its packets then go to a zombie). The default
    // one allocates a plain Session. The `on_session_*` operations are never called for zombies.
    virtual Session* create_session(const StartPacket& packet, int& result);
    virtual void on_session_created(rc_ptr<Session> session, StartPacket& packet);
    virtual void on_session_media(rc_ptr<Session> session, DataPacket& packet);
    virtual void on_session_control(rc_ptr<Session> session, ControlPacket& packet);
    virtual void on_session_terminated(rc_ptr<Session> session, TerminatePacket& packet);
    virtual void on_session_timedout(rc_ptr<Session> session);
    // A session `create_session` returned that could not be entered in the table (out of
    // memory), just before it is dropped: the place to take back what was given to it. No other
    // `on_session_*` operation is called for it.
    virtual void on_session_not_inserted(Session& session);

    // "Now" on the manager's steady clock; derived classes stamp their sessions with it.
    std::uint64_t now_us() const { return m_clock(); }

    // Direct access for derived classes that must inspect or repair the table; any change must
    // keep the invariant above.
    SessionTable& mutable_sessions() { return m_sessions; }
    ActivityList& mutable_activity() { return m_activity; }

private:
    // `create_session`, counting and logging an allocation failure (null with `result` 0).
    Session* create_or_report(StartPacket& packet, int& result);
    void insert_session(Session* session, StartPacket& packet);
    void replace_zombie(SessionTable::iterator zombie, StartPacket& packet);
    // The session of a found entry of a data or control packet; null, and reported, when the
    // entry holds none.
    Session* session_of(SessionTable::const_iterator found, const PacketHeader& header);
    // Sequence check of one data packet; false when the packet must be dropped.
    [[nodiscard]] bool accept_sequence(Session& session, const DataPacket& packet);
    // Activity on the sender's media clock, anchored to the local clock at creation.
    void touch(Session& session, std::uint64_t mt);
    // Appends the session to the activity list and enters it in the table; false (and nothing
    // linked) when either runs out of memory.
    [[nodiscard]] bool link_session(const rc_ptr<Session>& session);
    void update_session_count();

    SteadyClock m_clock;
    // Least recently active first; holds one reference to each session.
    ActivityList m_activity;
    // Holds the second reference.
    SessionTable m_sessions;
};

}  // namespace qm::media
