#pragma once

#include "media/control_packet.hpp"
#include "media/data_packet.hpp"
#include "media/start_packet.hpp"
#include "media/terminate_packet.hpp"

// What the packet reader drives: one call per valid packet, with the record seen in place in its
// packet buffer, and the reader loop's two hooks. Every operation is called on the packet-reader
// thread only, so an implementation needs no lock for state that only these calls touch.
//
// A record is valid only during the call; a listener that keeps data copies it. The reader does
// not own its listener. REQUIRES: the listener outlives the reader's thread.

namespace qm::media {

class PacketReaderListener {
public:
    virtual void on_packet(StartPacket& packet) = 0;
    virtual void on_packet(TerminatePacket& packet) = 0;
    virtual void on_packet(DataPacket& packet) = 0;
    virtual void on_packet(ControlPacket& packet) = 0;
    // At the top of every pass of the reader loop, before the queue is looked at.
    virtual void on_packet_try() = 0;
    // When a pass finds the queue empty. True: work was done and the reader must not sleep; false
    // lets it wait up to one second for the next packet.
    virtual bool on_packet_idle() = 0;
    virtual ~PacketReaderListener() = default;
};

}  // namespace qm::media
