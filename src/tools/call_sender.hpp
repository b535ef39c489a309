#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "tools/call_plan.hpp"

// Puts a call plan's datagrams on the wire: one unconnected UDP socket (so that a port nobody
// listens on does not turn sends into ECONNREFUSED), datagrams handed to the kernel in batches of
// up to 64 through sendmmsg, optionally paced to a rate. Encodes into a ring of preallocated
// buffers, so sending allocates nothing per datagram. Owns its socket; one thread at a time.

namespace qm::tools {

// The destination from "HOST:PORT": a dotted IPv4 address, or a name resolved once to an IPv4
// address, and a port from 1 to 65535. None for anything else.
std::optional<sockaddr_in> parse_destination(const std::string& text);
// "a.b.c.d:port".
std::string print_destination(const sockaddr_in& address);

// The socket could not be made.
class SendError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct SendResult {
    // What the plan produced for the socket; after an error, the failed batch included.
    PlanCounts counts;
    // Datagrams the kernel took.
    std::uint64_t sent = 0;
    double seconds = 0.0;
    // Empty when every datagram was sent; otherwise one line with the system's reason.
    std::string error;

    double rate() const;
};

class CallSender {
public:
    // Most datagrams handed to one sendmmsg call.
    static constexpr std::size_t BATCH = 64;

    // With `segmentation`, runs of datagrams of one size are handed over as one message that the
    // kernel cuts into those datagrams (UDP_SEGMENT), which spares it most of its work per
    // datagram; where the kernel or the route refuses that, every datagram goes on its own.
    // THROWS: SendError.
    explicit CallSender(const sockaddr_in& destination, bool segmentation = true);
    ~CallSender();
    CallSender(const CallSender&) = delete;
    CallSender& operator=(const CallSender&) = delete;

    // Sends the plan's datagrams in wire order. With a positive `rate` (datagrams per second)
    // datagram i leaves no earlier than i / rate seconds after the first, and a sender that fell
    // behind catches up by at most one batch at once; with 0 it sends as fast as the kernel takes
    // them. A send that fails for anything but a full buffer or a signal ends the run.
    SendResult send(const CallPlan& plan, double rate);

private:
    int m_socket = -1;
    sockaddr_in m_destination{};
    bool m_segmentation;
};

// "sent 50 legs: 25100 datagrams (50 start, 25000 data, 50 terminate; 12 withheld, 0 reordered,
// 0 duplicated) in 2.510 s, 10000 datagrams/s".
std::string send_summary(std::size_t legs, const SendResult& result);

}  // namespace qm::tools
