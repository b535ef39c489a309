#pragma once

#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "media/packet_header.hpp"
#include "media/packet_reader_listener.hpp"

// A packet-reader listener for tests: records which `on_packet` overload was called with which
// field values, and counts the loop's "try" and "idle" calls. The reader thread calls it while a
// test thread reads what it recorded, so the records sit behind a mutex and the counts are
// atomics. `block()` makes the next `on_packet` call wait until `release()`, to hold the reader
// thread inside a listener call. No GoogleTest dependency, so the fuzzer uses it as well.

namespace qm::test {

struct RecordedPacket {
    media::PacketType type{};
    std::uint64_t id = 0;
    std::uint64_t mt = 0;
    std::uint16_t flags = 0;
    // Start packets.
    std::uint64_t ts = 0;
    std::string call_id{};
    // Data packets.
    std::uint32_t seq = 0;
    std::uint32_t off = 0;
    std::vector<std::uint8_t> payload{};
    // Start packets, and control packets of the 42-byte form.
    std::optional<std::array<std::uint8_t, 2>> ft{};
};

class RecordingListener : public media::PacketReaderListener {
public:
    void on_packet(media::StartPacket& packet) override {
        RecordedPacket recorded = header_of(packet.header);
        recorded.ts = packet.ts;
        recorded.call_id = std::string(packet.call_id());
        recorded.ft = std::array<std::uint8_t, 2>{packet.ft[0], packet.ft[1]};
        record(std::move(recorded));
    }
    void on_packet(media::TerminatePacket& packet) override { record(header_of(packet.header)); }
    void on_packet(media::DataPacket& packet) override {
        RecordedPacket recorded = header_of(packet.header);
        recorded.seq = packet.seq;
        recorded.off = packet.off;
        recorded.payload.assign(packet.payload(), packet.payload() + packet.payload_size());
        record(std::move(recorded));
    }
    void on_packet(media::ControlPacket& packet) override {
        RecordedPacket recorded = header_of(packet.header);
        if (packet.has_ft()) {
            recorded.ft = std::array<std::uint8_t, 2>{packet.ft[0], packet.ft[1]};
        }
        record(std::move(recorded));
    }
    void on_packet_try() override {
        m_thread_id.store(::gettid(), std::memory_order_relaxed);
        m_tries.fetch_add(1, std::memory_order_relaxed);
    }
    bool on_packet_idle() override {
        m_idles.fetch_add(1, std::memory_order_relaxed);
        return m_idle_result.load(std::memory_order_relaxed);
    }

    std::vector<RecordedPacket> packets() const {
        std::lock_guard lock(m_mutex);
        return m_packets;
    }
    std::size_t packet_count() const {
        std::lock_guard lock(m_mutex);
        return m_packets.size();
    }
    void clear() {
        std::lock_guard lock(m_mutex);
        m_packets.clear();
    }
    std::uint64_t tries() const { return m_tries.load(std::memory_order_relaxed); }
    // Kernel id of the thread that made the last "try" call (0 before the first).
    pid_t thread_id() const { return m_thread_id.load(std::memory_order_relaxed); }
    std::uint64_t idles() const { return m_idles.load(std::memory_order_relaxed); }
    // What `on_packet_idle` returns from now on (false at construction).
    void set_idle_result(bool result) { m_idle_result.store(result, std::memory_order_relaxed); }

    // The next `on_packet` call waits, after recording its packet, until `release()`.
    void block() {
        std::lock_guard lock(m_mutex);
        m_blocking = true;
    }
    // True once a call is waiting because of `block()`.
    bool blocked() const {
        std::lock_guard lock(m_mutex);
        return m_waiting;
    }
    void release() {
        {
            std::lock_guard lock(m_mutex);
            m_blocking = false;
        }
        m_released.notify_all();
    }

private:
    static RecordedPacket header_of(const media::PacketHeader& header) {
        RecordedPacket recorded{static_cast<media::PacketType>(header.type)};
        recorded.id = header.id;
        recorded.mt = header.mt;
        recorded.flags = header.flags;
        return recorded;
    }

    void record(RecordedPacket packet) {
        std::unique_lock lock(m_mutex);
        m_packets.push_back(std::move(packet));
        if (m_blocking) {
            m_waiting = true;
            m_released.wait(lock, [this] { return !m_blocking; });
            m_waiting = false;
        }
    }

    mutable std::mutex m_mutex;
    std::condition_variable m_released;
    std::vector<RecordedPacket> m_packets;
    bool m_blocking = false;
    bool m_waiting = false;
    // Written by the reader thread, polled by the test; all relaxed, because each only reports
    // itself and no other data is published through it.
    std::atomic<pid_t> m_thread_id{0};
    std::atomic<std::uint64_t> m_tries{0};
    std::atomic<std::uint64_t> m_idles{0};
    // Set by the test, read by the reader thread; relaxed, because it is a setting on its own.
    std::atomic<bool> m_idle_result{false};
};

}  // namespace qm::test
