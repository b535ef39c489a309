#include "media/media_session_manager.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "packet_bytes.hpp"

namespace qm::media {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t T0 = 1'000'000'000'000;
constexpr std::uint64_t TIMEOUT = SessionManager::SESSION_TIMEOUT_US;
constexpr std::uint64_t ID = 0x0123456789abcdefULL;
const std::string UUID_TEXT = "00112233-4455-6677-8899-aabbccddeeff";

// The manager's steady clock; each test starts at T0 and moves it by hand.
struct FakeClock {
    static std::uint64_t now() { return m_now; }
    static inline std::uint64_t m_now = T0;
};

enum class Call { CREATED, MEDIA, CONTROL, TERMINATED, TIMEDOUT };

struct CallRecord {
    Call call;
    rc_ptr<Session> session;
    // The delivered data packet's seq; 0 for the other calls.
    std::uint32_t seq = 0;
};

// A session that reports its destruction, to see who held the last reference.
class TrackedSession : public Session {
public:
    TrackedSession(const StartPacket& packet, std::uint64_t now_us, int& destroyed)
        : Session(packet, now_us), m_destroyed(destroyed) {}
    ~TrackedSession() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

// A listener as the recorder builds one: derives from the manager and records every call. It may
// decline sessions (null with a non-zero result) or fail their allocation (null with result 0).
class RecordingManager : public SessionManager {
public:
    RecordingManager(SessionManagerStatistic& statistic, std::vector<CallRecord>& calls,
                     int& destroyed_sessions)
        : SessionManager(&statistic, &FakeClock::now),
          m_calls(calls),
          m_destroyed_sessions(destroyed_sessions) {}

    int decline_result = 0;
    bool fail_allocation = false;
    int create_calls = 0;

    using SessionManager::mutable_activity;
    using SessionManager::mutable_sessions;

protected:
    Session* create_session(const StartPacket& packet, int& result) override {
        ++create_calls;
        if (decline_result != 0) {
            result = decline_result;
            return nullptr;
        }
        if (fail_allocation) {
            return nullptr;
        }
        return new TrackedSession(packet, now_us(), m_destroyed_sessions);
    }
    void on_session_created(rc_ptr<Session> session, StartPacket& /*packet*/) override {
        m_calls.push_back({Call::CREATED, session});
    }
    void on_session_media(rc_ptr<Session> session, DataPacket& packet) override {
        m_calls.push_back({Call::MEDIA, session, packet.seq});
    }
    void on_session_control(rc_ptr<Session> session, ControlPacket& /*packet*/) override {
        m_calls.push_back({Call::CONTROL, session});
    }
    void on_session_terminated(rc_ptr<Session> session, TerminatePacket& /*packet*/) override {
        m_calls.push_back({Call::TERMINATED, session});
    }
    void on_session_timedout(rc_ptr<Session> session) override {
        m_calls.push_back({Call::TIMEDOUT, session});
    }

private:
    std::vector<CallRecord>& m_calls;
    int& m_destroyed_sessions;
};

media::HeaderFields header_of(std::uint64_t id, std::uint64_t mt = 1000, std::uint16_t flags = 0) {
    media::HeaderFields header;
    header.id = id;
    header.mt = mt;
    header.flags = flags;
    return header;
}

class SessionManagerTest : public ::testing::Test {
protected:
    SessionManagerTest() { FakeClock::m_now = T0; }

    void start(std::uint64_t id, std::uint64_t mt = 1000, const std::string& call_id = "call-1",
               std::uint64_t ts = 42) {
        media::StartFields fields;
        fields.header = header_of(id, mt);
        fields.call_id = call_id;
        fields.ts = ts;
        test::PacketBytes bytes(media::encode_start(fields));
        manager->on_packet(bytes.as<StartPacket>());
    }
    void data(std::uint64_t id, std::uint32_t seq, std::uint8_t side = 0, std::uint64_t mt = 1000) {
        media::DataFields fields;
        fields.header = header_of(id, mt, side);
        fields.seq = seq;
        test::PacketBytes bytes(media::encode_data(fields));
        manager->on_packet(bytes.as<DataPacket>());
    }
    void control(std::uint64_t id, std::uint64_t mt = 1000) {
        media::ControlFields fields;
        fields.header = header_of(id, mt);
        test::PacketBytes bytes(media::encode_control(fields));
        manager->on_packet(bytes.as<ControlPacket>());
    }
    void terminate(std::uint64_t id, std::uint64_t mt = 1000) {
        media::TerminateFields fields;
        fields.header = header_of(id, mt);
        test::PacketBytes bytes(media::encode_terminate(fields));
        manager->on_packet(bytes.as<TerminatePacket>());
    }

    rc_ptr<Session> find(std::uint64_t id) const {
        const auto found = manager->sessions().find(id);
        return found == manager->sessions().end() ? rc_ptr<Session>() : found->second;
    }
    std::vector<Call> call_kinds() const {
        std::vector<Call> kinds;
        for (const CallRecord& record : calls) {
            kinds.push_back(record.call);
        }
        return kinds;
    }
    std::vector<std::uint32_t> delivered_seqs() const {
        std::vector<std::uint32_t> seqs;
        for (const CallRecord& record : calls) {
            if (record.call == Call::MEDIA) {
                seqs.push_back(record.seq);
            }
        }
        return seqs;
    }
    // Ids of the activity list, least recently active first.
    std::vector<std::uint64_t> activity_ids() const {
        std::vector<std::uint64_t> ids;
        for (const rc_ptr<Session>& session : manager->activity()) {
            ids.push_back(session->id);
        }
        return ids;
    }
    bool audit_by_idle() { return manager->on_packet_idle(); }

    test::LogCapture log{log::Level::TRACE};
    SessionManagerStatistic statistic;
    std::vector<CallRecord> calls;
    int destroyed_sessions = 0;
    std::unique_ptr<RecordingManager> manager =
        std::make_unique<RecordingManager>(statistic, calls, destroyed_sessions);
};

TEST_F(SessionManagerTest, StartPacketCreatesSessionFromItsFields) {
    FakeClock::m_now = T0 + 7;
    start(ID, 5000, "call-7@example.org", 1633954638004211ULL);

    const rc_ptr<Session> session = find(ID);
    ASSERT_TRUE(session);
    EXPECT_EQ(media::DEFAULT_UUID, session->uuid);
    EXPECT_EQ(ID, session->id);
    EXPECT_EQ(1633954638004211ULL, session->ts);
    EXPECT_EQ(5000u, session->first_mt);
    EXPECT_EQ(T0 + 7, session->created_us);
    EXPECT_EQ(T0 + 7, session->last_activity_us);
    EXPECT_THAT(session->last_seq, ElementsAre(0u, 0u));
    EXPECT_EQ("call-7@example.org", session->call_id);
    EXPECT_FALSE(session->zombie);
    EXPECT_EQ(session.get(), session->activity_position->get());
    EXPECT_EQ(1u, statistic.session);
    EXPECT_EQ(0u, statistic.session_zombie);
    ASSERT_THAT(call_kinds(), ElementsAre(Call::CREATED));
    EXPECT_EQ(session.get(), calls[0].session.get());
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(SessionManagerTest, DefaultCreateSessionMakesPlainSession) {
    SessionManager plain(&statistic, &FakeClock::now);
    media::StartFields fields;
    fields.header = header_of(ID, 77);
    test::PacketBytes bytes(media::encode_start(fields));
    plain.on_packet(bytes.as<StartPacket>());

    ASSERT_EQ(1u, plain.sessions().size());
    const Session& session = *plain.sessions().at(ID);
    EXPECT_EQ(77u, session.first_mt);
    EXPECT_EQ(T0, session.created_us);
    EXPECT_EQ(fields.call_id, session.call_id);
    EXPECT_EQ(1u, statistic.session);
}

TEST_F(SessionManagerTest, ManagerWithoutGivenRecordCountsIntoItsOwn) {
    SessionManager own(nullptr, &FakeClock::now);
    test::PacketBytes bytes(media::encode_data());
    own.on_packet(bytes.as<DataPacket>());

    EXPECT_EQ(1u, own.statistic().session_unknown_index_errors);
    EXPECT_EQ(1u, own.statistic().session_zombie);
    EXPECT_EQ(0u, statistic.session_unknown_index_errors);
}

TEST_F(SessionManagerTest, SecondStartForLiveIdIsRejectedAsPossibleCollision) {
    start(ID, 1000, "call-1", 42);
    FakeClock::m_now = T0 + 50;
    start(ID, 9000, "call-2", 43);

    const rc_ptr<Session> session = find(ID);
    ASSERT_TRUE(session);
    EXPECT_EQ("call-1", session->call_id);
    EXPECT_EQ(42u, session->ts);
    EXPECT_EQ(1000u, session->first_mt);
    EXPECT_EQ(T0, session->created_us);
    EXPECT_EQ(T0, session->last_activity_us);
    EXPECT_EQ(1u, statistic.session_existing_index_errors);
    EXPECT_EQ(1u, statistic.session);
    EXPECT_EQ(1, manager->create_calls);
    EXPECT_THAT(call_kinds(), ElementsAre(Call::CREATED));
    EXPECT_THAT(log.texts(log::Level::ERROR),
                ElementsAre("SESSION_MANAGER: Session " + UUID_TEXT +
                            " already exists: check call id as this may be a CRC64 collision"));
}

TEST_F(SessionManagerTest, ForwardGapsCountLostPacketsAndOldSeqsBreakTheSequence) {
    start(ID);
    data(ID, 5, 0, 1100);
    data(ID, 6, 0, 1200);
    data(ID, 9, 0, 1300);
    EXPECT_EQ(2u, statistic.session_lost_packets);
    EXPECT_EQ(0u, statistic.session_sequence_break_errors);

    data(ID, 9, 0, 1400);
    EXPECT_EQ(1u, statistic.session_sequence_break_errors);
    data(ID, 3, 0, 1500);
    EXPECT_EQ(2u, statistic.session_sequence_break_errors);

    EXPECT_EQ(2u, statistic.session_lost_packets);
    EXPECT_THAT(delivered_seqs(), ElementsAre(5u, 6u, 9u));
    const rc_ptr<Session> session = find(ID);
    EXPECT_EQ(9u, session->last_seq[0]);
    // Dropped packets do not count as activity.
    EXPECT_EQ(T0 + 300, session->last_activity_us);
}

TEST_F(SessionManagerTest, SidesKeepTheirOwnSequence) {
    start(ID);
    data(ID, 1, 0);
    data(ID, 1, 1);
    data(ID, 3, 1);
    data(ID, 2, 0);

    EXPECT_EQ(0u, statistic.session_sequence_break_errors);
    EXPECT_EQ(1u, statistic.session_lost_packets);
    EXPECT_THAT(delivered_seqs(), ElementsAre(1u, 1u, 3u, 2u));
    EXPECT_THAT(find(ID)->last_seq, ElementsAre(2u, 3u));
}

TEST_F(SessionManagerTest, SeqZeroSkipsTheTestForTheNextPacket) {
    start(ID);
    data(ID, 0);
    data(ID, 7);
    EXPECT_EQ(0u, statistic.session_lost_packets);
    data(ID, 9);
    EXPECT_EQ(1u, statistic.session_lost_packets);
    EXPECT_EQ(0u, statistic.session_sequence_break_errors);
    EXPECT_THAT(delivered_seqs(), ElementsAre(0u, 7u, 9u));
}

TEST_F(SessionManagerTest, DataPacketsMoveActivityOnTheSendersMediaClock) {
    start(1, 1000);
    FakeClock::m_now = T0 + 10;
    start(2, 1000);
    EXPECT_THAT(activity_ids(), ElementsAre(1u, 2u));

    FakeClock::m_now = T0 + 99;
    data(1, 1, 0, 1500);

    EXPECT_EQ(T0 + 500, find(1)->last_activity_us);
    EXPECT_THAT(activity_ids(), ElementsAre(2u, 1u));
    EXPECT_EQ(find(1).get(), find(1)->activity_position->get());
}

TEST_F(SessionManagerTest, ControlPacketsMoveActivityAndReachTheListener) {
    start(1, 1000);
    start(2, 1000);
    control(1, 4000);

    EXPECT_EQ(T0 + 3000, find(1)->last_activity_us);
    EXPECT_THAT(activity_ids(), ElementsAre(2u, 1u));
    EXPECT_THAT(call_kinds(), ElementsAre(Call::CREATED, Call::CREATED, Call::CONTROL));
    EXPECT_EQ(find(1).get(), calls[2].session.get());
}

TEST_F(SessionManagerTest, DataPacketForUnknownIdMakesZombie) {
    data(ID, 4, 1, 2500);

    const rc_ptr<Session> zombie = find(ID);
    ASSERT_TRUE(zombie);
    EXPECT_TRUE(zombie->zombie);
    EXPECT_EQ(media::DEFAULT_UUID, zombie->uuid);
    EXPECT_EQ(0u, zombie->ts);
    EXPECT_EQ(2500u, zombie->first_mt);
    EXPECT_EQ(T0, zombie->created_us);
    EXPECT_EQ(T0, zombie->last_activity_us);
    EXPECT_THAT(zombie->last_seq, ElementsAre(0u, 4u));
    EXPECT_EQ("", zombie->call_id);
    EXPECT_EQ(1u, statistic.session_unknown_index_errors);
    EXPECT_EQ(1u, statistic.session_zombie);
    EXPECT_EQ(1u, statistic.session);
    EXPECT_THAT(call_kinds(), IsEmpty());
    EXPECT_THAT(log.texts(log::Level::WARNING), ElementsAre("DATA  | mt: 2500, uuid: " + UUID_TEXT +
                                                            ", side: 1, seq: 4 | unknown session"));
    EXPECT_THAT(log.lines(),
                ElementsAre(::testing::StartsWith("WARNING | media_session_manager.cpp:")));

    // Its later packets are absorbed: tracked, but neither counted as unknown nor delivered.
    data(ID, 6, 1, 2600);
    EXPECT_EQ(1u, statistic.session_unknown_index_errors);
    EXPECT_EQ(1u, statistic.session_lost_packets);
    EXPECT_EQ(T0 + 100, zombie->last_activity_us);
    EXPECT_THAT(call_kinds(), IsEmpty());
}

TEST_F(SessionManagerTest, UnknownDataIsNotLoggedWhenWarningsAreOff) {
    test::LogCapture errors_only(log::Level::ERROR);
    data(ID, 4);

    EXPECT_THAT(errors_only.texts(), IsEmpty());
    EXPECT_EQ(1u, statistic.session_unknown_index_errors);
    EXPECT_EQ(1u, statistic.session_zombie);
}

TEST_F(SessionManagerTest, ControlPacketForUnknownIdMakesZombie) {
    control(ID, 3000);

    const rc_ptr<Session> zombie = find(ID);
    ASSERT_TRUE(zombie);
    EXPECT_TRUE(zombie->zombie);
    EXPECT_EQ(3000u, zombie->first_mt);
    EXPECT_EQ(1u, statistic.session_unknown_index_errors);
    EXPECT_EQ(1u, statistic.session_zombie);
    EXPECT_THAT(log.texts(log::Level::WARNING),
                ElementsAre("CTRL  | mt: 3000, uuid: " + UUID_TEXT + " | unknown session"));

    control(ID, 3500);
    EXPECT_EQ(T0 + 500, zombie->last_activity_us);
    EXPECT_THAT(call_kinds(), IsEmpty());
}

TEST_F(SessionManagerTest, TerminatePacketForUnknownIdMakesNoZombie) {
    terminate(ID, 3000);

    EXPECT_EQ(1u, statistic.session_unknown_index_errors);
    EXPECT_EQ(0u, statistic.session_zombie);
    EXPECT_EQ(0u, statistic.session);
    EXPECT_TRUE(manager->sessions().empty());
    EXPECT_TRUE(manager->activity().empty());
    EXPECT_THAT(log.texts(log::Level::WARNING),
                ElementsAre("TERM  | mt: 3000, uuid: " + UUID_TEXT + " | unknown session"));
}

TEST_F(SessionManagerTest, StartAfterZombieInheritsItsTimeBase) {
    data(ID, 4, 1, 2500);
    const rc_ptr<Session> zombie = find(ID);
    FakeClock::m_now = T0 + 20;
    start(7);
    FakeClock::m_now = T0 + 30;
    data(7, 1, 0, 1040);  // session 7 is now the most recently active, at T0 + 60
    FakeClock::m_now = T0 + 60;
    start(ID, 9000);

    const rc_ptr<Session> session = find(ID);
    ASSERT_TRUE(session);
    EXPECT_NE(zombie.get(), session.get());
    EXPECT_FALSE(session->zombie);
    EXPECT_EQ(2500u, session->first_mt);
    EXPECT_EQ(T0, session->created_us);
    EXPECT_EQ(T0 + 61, session->last_activity_us);
    EXPECT_THAT(activity_ids(), ElementsAre(7u, ID));
    EXPECT_EQ(0u, statistic.session_zombie);
    EXPECT_EQ(2u, statistic.session);
    EXPECT_THAT(call_kinds(), ElementsAre(Call::CREATED, Call::MEDIA, Call::CREATED));
    EXPECT_EQ(session.get(), calls[2].session.get());
    EXPECT_THAT(log.texts(log::Level::INFO), ElementsAre("SESSION_MANAGER: Session " + UUID_TEXT +
                                                         " was created out the zombie"));
    // The zombie left the table and the list: only this test still holds it.
    EXPECT_EQ(1, zombie->reference_count());
    EXPECT_EQ(manager->activity().end(),
              Session::ActivityList::const_iterator(zombie->activity_position));
}

TEST_F(SessionManagerTest, ZombieCounterReturnsToItsFormerValueAfterHandOver) {
    data(1, 1);
    data(ID, 1);
    EXPECT_EQ(2u, statistic.session_zombie);
    start(ID);
    EXPECT_EQ(1u, statistic.session_zombie);
    EXPECT_TRUE(find(1)->zombie);
}

TEST_F(SessionManagerTest, DeclinedStartMakesZombieThatAbsorbsTheLeg) {
    manager->decline_result = 1;
    start(ID, 1000);

    const rc_ptr<Session> zombie = find(ID);
    ASSERT_TRUE(zombie);
    EXPECT_TRUE(zombie->zombie);
    EXPECT_EQ(1000u, zombie->first_mt);
    EXPECT_EQ(0u, zombie->ts);
    EXPECT_EQ(1u, statistic.session_zombie);
    EXPECT_EQ(0u, statistic.session_allocation_errors);

    data(ID, 1);
    control(ID);
    EXPECT_EQ(0u, statistic.session_unknown_index_errors);
    EXPECT_THAT(call_kinds(), IsEmpty());
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(SessionManagerTest, DeclinedStartLeavesExistingZombie) {
    data(ID, 1, 0, 2500);
    const rc_ptr<Session> zombie = find(ID);
    log.clear();
    manager->decline_result = 2;
    start(ID);

    EXPECT_EQ(zombie.get(), find(ID).get());
    EXPECT_EQ(1u, statistic.session_zombie);
    EXPECT_EQ(1u, statistic.session);
    EXPECT_EQ(0u, statistic.session_allocation_errors);
    EXPECT_THAT(call_kinds(), IsEmpty());
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(SessionManagerTest, FailedAllocationOfStartIsCountedAndMakesNoZombie) {
    manager->fail_allocation = true;
    start(ID);

    EXPECT_TRUE(manager->sessions().empty());
    EXPECT_EQ(1u, statistic.session_allocation_errors);
    EXPECT_EQ(0u, statistic.session_zombie);
    EXPECT_THAT(log.texts(log::Level::ERROR),
                ElementsAre("SESSION_MANAGER: Session " + UUID_TEXT + " allocation failed"));
}

TEST_F(SessionManagerTest, FailedAllocationOfStartForZombieLeavesTheZombie) {
    data(ID, 1);
    const rc_ptr<Session> zombie = find(ID);
    manager->fail_allocation = true;
    start(ID);

    EXPECT_EQ(zombie.get(), find(ID).get());
    EXPECT_EQ(1u, statistic.session_allocation_errors);
    EXPECT_EQ(1u, statistic.session_zombie);
    EXPECT_THAT(log.texts(log::Level::ERROR),
                ElementsAre("SESSION_MANAGER: Session " + UUID_TEXT + " allocation failed"));
}

TEST_F(SessionManagerTest, TerminatePacketForZombieRemovesItWithoutListener) {
    data(ID, 1);
    terminate(ID);

    EXPECT_TRUE(manager->sessions().empty());
    EXPECT_TRUE(manager->activity().empty());
    EXPECT_EQ(0u, statistic.session_zombie);
    EXPECT_EQ(0u, statistic.session);
    EXPECT_EQ(1u, statistic.session_unknown_index_errors);
    EXPECT_THAT(call_kinds(), IsEmpty());
}

TEST_F(SessionManagerTest, AfterTerminateTheListenerHoldsTheLastReference) {
    start(ID);
    data(ID, 1);
    terminate(ID);

    EXPECT_TRUE(manager->sessions().empty());
    EXPECT_TRUE(manager->activity().empty());
    EXPECT_EQ(0u, statistic.session);
    ASSERT_THAT(call_kinds(), ElementsAre(Call::CREATED, Call::MEDIA, Call::TERMINATED));
    Session* session = calls[2].session.get();
    EXPECT_EQ(session, calls[0].session.get());
    // One reference per record: the table's and the list's are gone.
    EXPECT_EQ(3, session->reference_count());
    EXPECT_EQ(manager->activity().end(),
              Session::ActivityList::const_iterator(session->activity_position));

    calls.clear();
    EXPECT_EQ(1, destroyed_sessions);
    EXPECT_FALSE(log.contains("RC_PTR"));
}

TEST_F(SessionManagerTest, DestructionDropsSessionsWithoutListenerCalls) {
    start(1);
    start(2);
    data(3, 1);
    calls.clear();
    const rc_ptr<Session> zombie = find(3);
    EXPECT_EQ(0, destroyed_sessions);
    EXPECT_EQ(3, zombie->reference_count());

    manager.reset();
    EXPECT_EQ(2, destroyed_sessions);
    EXPECT_EQ(1, zombie->reference_count());
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_FALSE(log.contains("RC_PTR"));
}

TEST_F(SessionManagerTest, NullEntryIsReportedAndNeverDereferenced) {
    manager->mutable_sessions()[ID] = rc_ptr<Session>();
    data(ID, 1);
    control(ID);
    EXPECT_THAT(log.texts(log::Level::ERROR),
                ElementsAre("SESSION_MANAGER: Memory corruption may be happened: session " +
                                UUID_TEXT + " is null but must exist",
                            "SESSION_MANAGER: Memory corruption may be happened: session " +
                                UUID_TEXT + " is null but must exist"));
    start(ID);
    EXPECT_EQ(1u, statistic.session_existing_index_errors);

    log.clear();
    terminate(ID);
    EXPECT_TRUE(manager->sessions().empty());
    EXPECT_EQ(0u, statistic.session);
    EXPECT_THAT(
        log.texts(log::Level::ERROR),
        ElementsAre("SESSION_MANAGER: Trying to remove null session (while iterator is valid)",
                    "SESSION_MANAGER: Memory corruption might have happened: session " + UUID_TEXT +
                        " is null but must exist"));
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(SessionManagerTest, EraseOfEndIsReported) {
    start(ID);
    manager->erase_session(manager->sessions().end());

    EXPECT_EQ(1u, manager->sessions().size());
    EXPECT_EQ(1u, statistic.session);
    EXPECT_THAT(log.texts(log::Level::ERROR),
                ElementsAre("SESSION_MANAGER: Trying to remove empty iterator"));
}

TEST_F(SessionManagerTest, ZombieCounterRepairsItselfWhenItHoldsTooFew) {
    data(1, 1);
    data(2, 1);
    log.clear();
    manager->decrease_zombie_counter(1);
    EXPECT_EQ(1u, statistic.session_zombie);
    EXPECT_THAT(log.texts(), IsEmpty());

    manager->decrease_zombie_counter(3);
    EXPECT_EQ(0u, statistic.session_zombie);
    EXPECT_THAT(log.texts(log::Level::WARNING),
                ElementsAre("SESSION_MANAGER: Statistic corruption detected:: current zombies (1), "
                            "actually removed (3)"));
}

TEST_F(SessionManagerTest, SilentZombieTimesOutAfter300Seconds) {
    data(ID, 1, 0, 2500);
    log.clear();

    FakeClock::m_now = T0 + TIMEOUT - 1;
    EXPECT_FALSE(audit_by_idle());
    EXPECT_EQ(1u, statistic.session_zombie);

    FakeClock::m_now = T0 + TIMEOUT;
    EXPECT_TRUE(audit_by_idle());
    EXPECT_TRUE(manager->sessions().empty());
    EXPECT_TRUE(manager->activity().empty());
    EXPECT_EQ(0u, statistic.session_zombie);
    EXPECT_EQ(0u, statistic.session);
    EXPECT_EQ(2u, statistic.session_audit_calls);
    EXPECT_EQ(1u, statistic.session_audit_executions);
    EXPECT_THAT(call_kinds(), IsEmpty());
    EXPECT_THAT(log.texts(),
                ElementsAre("SESSION_MANAGER: Timeout for session " + UUID_TEXT + ": " +
                            std::to_string(T0) + " " + std::to_string(T0 + TIMEOUT)));
    EXPECT_THAT(log.lines(),
                ElementsAre(::testing::StartsWith("WARNING | media_session_manager.cpp:")));
}

TEST_F(SessionManagerTest, SilentSessionTimesOutThroughTheListener) {
    start(ID);
    FakeClock::m_now = T0 + TIMEOUT;
    EXPECT_TRUE(audit_by_idle());

    ASSERT_THAT(call_kinds(), ElementsAre(Call::CREATED, Call::TIMEDOUT));
    EXPECT_EQ(calls[0].session.get(), calls[1].session.get());
    EXPECT_EQ(2, calls[1].session->reference_count());
    EXPECT_TRUE(manager->sessions().empty());
    EXPECT_EQ(0u, statistic.session);
    EXPECT_EQ(0u, statistic.session_zombie);
    EXPECT_EQ(1u, statistic.session_audit_executions);
    EXPECT_EQ(1u, log.count("SESSION_MANAGER: Timeout for session " + UUID_TEXT + ": " +
                            std::to_string(T0) + " " + std::to_string(T0 + TIMEOUT)));
}

TEST_F(SessionManagerTest, FifteenExpiredSessionsLeaveInTwoAuditsOfTenAndFive) {
    for (std::uint64_t id = 1; id <= 15; ++id) {
        FakeClock::m_now = T0 + id;
        start(id);
    }
    calls.clear();
    FakeClock::m_now = T0 + 15 + TIMEOUT;

    EXPECT_TRUE(audit_by_idle());
    EXPECT_EQ(5u, statistic.session);
    EXPECT_THAT(activity_ids(), ElementsAre(11u, 12u, 13u, 14u, 15u));
    EXPECT_TRUE(audit_by_idle());
    EXPECT_EQ(0u, statistic.session);
    EXPECT_FALSE(audit_by_idle());

    EXPECT_EQ(3u, statistic.session_audit_calls);
    EXPECT_EQ(2u, statistic.session_audit_executions);
    ASSERT_EQ(15u, calls.size());
    for (std::uint64_t index = 0; index < 15; ++index) {
        EXPECT_EQ(Call::TIMEDOUT, calls[index].call);
        EXPECT_EQ(index + 1, calls[index].session->id);
    }
}

TEST_F(SessionManagerTest, AuditStopsAtTheFirstYoungSession) {
    start(1);
    FakeClock::m_now = T0 + 10;
    start(2);
    FakeClock::m_now = T0 + TIMEOUT + 5;

    EXPECT_TRUE(audit_by_idle());
    EXPECT_THAT(activity_ids(), ElementsAre(2u));
    EXPECT_EQ(1u, statistic.session);
}

TEST_F(SessionManagerTest, AuditWithNothingToRemoveOnlyCountsTheCall) {
    start(1);
    data(2, 1);
    log.clear();
    FakeClock::m_now = T0 + TIMEOUT - 1;

    EXPECT_FALSE(manager->audit());
    EXPECT_FALSE(audit_by_idle());
    EXPECT_EQ(1u, statistic.session_audit_calls);
    EXPECT_EQ(0u, statistic.session_audit_executions);
    EXPECT_EQ(2u, statistic.session);
    EXPECT_EQ(1u, statistic.session_zombie);
    EXPECT_THAT(call_kinds(), ElementsAre(Call::CREATED));
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(SessionManagerTest, NullActivityElementIsRemovedByTheAudit) {
    start(1);
    manager->mutable_activity().push_front(rc_ptr<Session>());

    EXPECT_TRUE(manager->audit());
    EXPECT_THAT(activity_ids(), ElementsAre(1u));
    EXPECT_THAT(
        log.texts(log::Level::ERROR),
        ElementsAre(
            "SESSION_MANAGER: Trying to remove null session (while audit iterator is valid)"));
}

TEST_F(SessionManagerTest, TryAuditsOnlyAboveTenThousandSessions) {
    media::StartFields fields;
    test::PacketBytes bytes(media::encode_start(fields));
    StartPacket& packet = bytes.as<StartPacket>();
    for (std::uint64_t id = 1; id <= SessionManager::BUSY_TABLE_SIZE; ++id) {
        packet.header.id = id;
        manager->on_packet(packet);
    }
    calls.clear();
    FakeClock::m_now = T0 + TIMEOUT;

    manager->on_packet_try();
    EXPECT_EQ(0u, statistic.session_audit_calls);
    EXPECT_EQ(10'000u, statistic.session);

    packet.header.id = SessionManager::BUSY_TABLE_SIZE + 1;
    manager->on_packet(packet);
    calls.clear();
    manager->on_packet_try();
    EXPECT_EQ(1u, statistic.session_audit_calls);
    EXPECT_EQ(1u, statistic.session_audit_executions);
    EXPECT_EQ(10'001u - 10u, statistic.session);
    EXPECT_EQ(std::vector<Call>(10, Call::TIMEDOUT), call_kinds());
}

TEST_F(SessionManagerTest, SessionWithStillMediaClockAgesByTheLocalClock) {
    start(ID, 1000);
    FakeClock::m_now = T0 + 100'000'000;
    data(ID, 1, 0, 1000 + 100'000'000);
    FakeClock::m_now = T0 + 250'000'000;
    data(ID, 2, 0, 1000 + 100'000'000);
    EXPECT_EQ(T0 + 100'000'000, find(ID)->last_activity_us);

    FakeClock::m_now = T0 + 100'000'000 + TIMEOUT - 1;
    EXPECT_FALSE(audit_by_idle());
    FakeClock::m_now = T0 + 100'000'000 + TIMEOUT;
    EXPECT_TRUE(audit_by_idle());
    EXPECT_THAT(call_kinds(), ElementsAre(Call::CREATED, Call::MEDIA, Call::MEDIA, Call::TIMEDOUT));
}

}  // namespace
}  // namespace qm::media
