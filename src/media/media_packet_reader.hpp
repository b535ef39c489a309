#pragma once

#include <cstdint>

#include "core/queue_idle_reader.hpp"
#include "core/rc_ptr.hpp"
#include "media/control_packet.hpp"
#include "media/data_packet.hpp"
#include "media/packet_buffer.hpp"
#include "media/packet_reader_listener.hpp"
#include "media/packet_reader_statistic.hpp"
#include "media/start_packet.hpp"
#include "media/terminate_packet.hpp"

// Decouples the socket from the session logic. The receiving thread hands every datagram to
// `read_from`, which only checks its length, copies it into a pooled PacketBuffer and queues it;
// the reader's own thread takes the buffers from the queue, validates marker, version, type and
// length, logs the packet's trace line and calls the listener with the record seen in place.
// Every datagram is counted in exactly one counter of PacketReaderStatistic; nothing refused is
// logged and nothing on this path throws.
//
// Threads: the owner (the service's main thread) constructs the reader and calls `start`, `stop`
// and the destructor. The receiving thread alone calls `read_from`; it allocates from the packet
// buffer pool (so it must be the pool's one allocating thread) and writes the "dropped" counters
// and the queue's `passed_elements` and `dropped_elements`. The reader thread runs `run` and
// everything it calls (`on_queue_*`, `notify`, every listener call) and writes all other
// counters. The listener pointer is set at construction and only read afterwards.
// REQUIRES: the listener, and the statistic record if one is given, outlive the reader.

namespace qm::media {

class PacketReader
    : public QueueIdleReader<rc_ptr<PacketBuffer>, 100000, 1000000000, PacketReaderStatistic> {
public:
    using Base = QueueIdleReader<rc_ptr<PacketBuffer>, 100000, 1000000000, PacketReaderStatistic>;

    // Counts into `statistic`, or into a record of its own when it is null.
    PacketReader(PacketReaderStatistic* statistic, PacketReaderListener& listener);
    // Stops the thread if it still runs; buffers still queued go back to the pool.
    ~PacketReader() override;

    // Checks the length of one datagram, copies it into a pooled buffer and queues it; a datagram
    // that is too short or too long, finds no free buffer or a full queue is only counted.
    // REQUIRES: called only by the receiving thread; `data` points to `length` readable bytes.
    // `wake` false queues without waking a sleeping reader thread: the receiving thread reads a
    // batch of datagrams and then wakes it once with `wake_reader`.
    void read_from(const void* data, std::uint64_t length, bool wake = true);

    // Logs the thread's start, then runs the idle-reader loop until `stop`.
    void run() override;

    // Returns 0 at once when the thread is not running; otherwise ends it, logs how the join went
    // and returns the join's result. Queued buffers are not drained.
    [[nodiscard]] int stop() override;

    // Validates one buffer and hands it to the matching `notify`; an empty value (the reader's
    // one-second tick) does nothing.
    void on_queue_read(rc_ptr<PacketBuffer> buffer) override;
    void on_queue_try() override;
    bool on_queue_idle() override;

    // Count, log and forward one valid record.
    void notify(StartPacket& packet);
    void notify(DataPacket& packet);
    void notify(ControlPacket& packet);
    void notify(TerminatePacket& packet);

private:
    // Checks the buffer's length against the rule of Packet and notifies, or counts it corrupted.
    template <typename Packet>
    void dispatch(PacketBuffer& buffer);

    PacketReaderListener* m_listener;
};

}  // namespace qm::media
