#pragma once

// The recorder's receive loop, on the main thread: it waits for a datagram or a signal in one
// wait (the socket and the service's signal doorbell, polled together), logs the lines of the
// signals that arrived, and hands each datagram, read with one recv, to `consume`. It returns once
// a stop signal has been received, also when the stop arrived before the loop began or between
// its look at the flag and its wait: the doorbell stays readable until the signal is logged.
//
// Every loop takes an `admit(const sockaddr_in& source)` that says whether a datagram's sender is
// allowed: a datagram it refuses is not handed to `consume` (`admit` counts it; see
// AllowedSources in allowed_sources.hpp). The default, AnySource, admits every sender without
// looking, and the one-by-one loop then reads with recv as it did before senders were checked.
//
// REQUIRES: the socket is open; `signals_subscribe` has run; called from the thread that the
// process's signals are delivered to (the main thread: every worker blocks them).

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "app/app_service.hpp"
#include "net/net_socket.hpp"
#include "net/packet_ring.hpp"
#include "net/receive_batch.hpp"

namespace qm::recorder {

// Admits every sender.
struct AnySource {
    bool operator()(const sockaddr_in&) const { return true; }
};

// True when `Admit` looks at senders, so that the loops must learn them.
template <typename Admit>
inline constexpr bool CHECKS_SOURCE = !std::is_same_v<std::remove_cvref_t<Admit>, AnySource>;

// `consume(const std::uint8_t* data, std::uint64_t length)` is called for every admitted datagram
// of at least one byte. `SocketT` is net::Socket, or in tests a socket that derives from it.
template <typename SocketT, typename Consume, typename Admit = AnySource>
void receive_until_stopped(SocketT& socket, net::Socket::ReadBuffer& buffer, Consume&& consume,
                           Admit&& admit = {}) {
    while (!app::ServiceBase::stop_requested()) {
        const net::Socket::Wake wake = socket.wait(app::ServiceBase::signal_doorbell());
        app::ServiceBase::log_pending_signals();
        if (wake == net::Socket::Wake::DOORBELL) {
            socket.log_interrupted();
            continue;
        }
        std::int64_t length = 0;
        if constexpr (CHECKS_SOURCE<Admit>) {
            length = socket.read_from(buffer);
            if (length < 0 || !admit(buffer.source)) {
                continue;
            }
        } else {
            length = socket.read(buffer);
        }
        if (length > 0) {
            consume(buffer.data, static_cast<std::uint64_t>(length));
        }
    }
}

// The batched loop: every turn reads the datagrams waiting, as many as `batch` holds, with one
// call, hands each admitted one of at least one byte to `consume`, and then calls `flush()` once
// (the packet reader's thread is woken once per batch, not per datagram). A read that leaves the
// socket empty is followed by a wait as in the loop above, except that after a read that found
// datagrams and with `delay_us` > 0 the loop sleeps that long instead: on a busy socket the thread
// then wakes once per `delay_us` for a batch rather than once per datagram, while the receive
// buffer holds what arrives meanwhile. The doorbell ends both waits, so a stop is seen at once.
template <typename SocketT, typename Consume, typename Flush, typename Admit = AnySource>
void receive_batches_until_stopped(SocketT& socket, net::ReceiveBatch& batch,
                                   std::uint64_t delay_us, Consume&& consume, Flush&& flush,
                                   Admit&& admit = {}) {
    while (!app::ServiceBase::stop_requested()) {
        const std::size_t count = socket.read_batch(batch);
        for (std::size_t i = 0; i < count; ++i) {
            if (admit(batch.source(i)) && batch.length(i) > 0) {
                consume(batch.data(i), batch.length(i));
            }
        }
        if (count > 0) {
            flush();
        }
        if (count == batch.capacity()) {
            continue;
        }
        const bool interrupted =
            count > 0 && delay_us > 0
                ? socket.pause(app::ServiceBase::signal_doorbell(), delay_us)
                : socket.wait(app::ServiceBase::signal_doorbell()) == net::Socket::Wake::DOORBELL;
        app::ServiceBase::log_pending_signals();
        if (interrupted) {
            socket.log_interrupted();
        }
    }
}

// Takes every datagram waiting in `socket` and throws it away, `batch` at a time, showing each
// sender to `admit`: the socket receives every datagram to the port, the ring beside it only
// those it admits, so the refusals are counted here, once each.
template <typename SocketT, typename Admit = AnySource>
void drain_socket(SocketT& socket, net::ReceiveBatch& batch, Admit&& admit = {}) {
    std::size_t count = 0;
    do {
        count = socket.drain(batch);
        if constexpr (CHECKS_SOURCE<Admit>) {
            for (std::size_t i = 0; i < count; ++i) {
                static_cast<void>(admit(batch.source(i)));
            }
        }
    } while (count == batch.capacity());
}

// The ring's loop: every turn hands the datagrams of each block the system has handed over to
// `consume`, calls `flush()` once per block and drains the copies that `socket`, bound to the same
// port, received meanwhile; when no block waits it waits for one or for the doorbell, as the loops
// above wait for a datagram. The ring takes only the senders its filter allows: `admit` sees the
// senders of the drained copies.
template <typename RingT, typename SocketT, typename Consume, typename Flush,
          typename Admit = AnySource>
void receive_blocks_until_stopped(RingT& ring, SocketT& socket, net::ReceiveBatch& drain,
                                  Consume&& consume, Flush&& flush, Admit&& admit = {}) {
    while (!app::ServiceBase::stop_requested()) {
        const bool handed_over = ring.read_block(consume);
        if (handed_over) {
            flush();
        }
        drain_socket(socket, drain, admit);
        if (handed_over) {
            continue;
        }
        const bool interrupted =
            ring.wait(app::ServiceBase::signal_doorbell()) == net::Socket::Wake::DOORBELL;
        app::ServiceBase::log_pending_signals();
        if (interrupted) {
            ring.log_interrupted();
        }
    }
}

}  // namespace qm::recorder
