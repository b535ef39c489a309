#pragma once

// The recorder's receive loop, on the main thread: it waits for a datagram or a signal in one
// wait (the socket and the service's signal doorbell, polled together), logs the lines of the
// signals that arrived, and hands each datagram, read with one recv, to `consume`. It returns once
// a stop signal has been received, also when the stop arrived before the loop began or between
// its look at the flag and its wait: the doorbell stays readable until the signal is logged.
//
// REQUIRES: the socket is open; `signals_subscribe` has run; called from the thread that the
// process's signals are delivered to (the main thread: every worker blocks them).

#include <cstdint>

#include "app/app_service.hpp"
#include "net/net_socket.hpp"

namespace qm::writer {

// `consume(const std::uint8_t* data, std::uint64_t length)` is called for every datagram of at
// least one byte. `SocketT` is net::Socket, or in tests a socket that derives from it.
template <typename SocketT, typename Consume>
void receive_until_stopped(SocketT& socket, net::Socket::ReadBuffer& buffer, Consume&& consume) {
    while (!app::ServiceBase::stop_requested()) {
        const net::Socket::Wake wake = socket.wait(app::ServiceBase::signal_doorbell());
        app::ServiceBase::log_pending_signals();
        if (wake == net::Socket::Wake::DOORBELL) {
            socket.log_interrupted();
            continue;
        }
        const std::int64_t length = socket.read(buffer);
        if (length > 0) {
            consume(buffer.data, static_cast<std::uint64_t>(length));
        }
    }
}

}  // namespace qm::writer
