#pragma once

#include <memory>

#include "app/configured_service.hpp"
#include "catalog/catalog_writer.hpp"
#include "media/media_packet_reader.hpp"
#include "net/net_socket.hpp"
#include "net/nft_port_rule.hpp"
#include "net/packet_ring.hpp"
#include "recorder/configuration.hpp"
#include "writer/open_legs.hpp"

namespace qm::recorder {

// The recorder: the frame loads its configuration from /etc/varnholt/quillmar/writer.conf (or
// "--config") and the "--args" assignments; `on_start` then builds the pipeline (UDP socket,
// writing manager with its media writer, packet reader), reads datagrams on the main thread until
// a stop signal and takes the pipeline down again. Supports daemon mode. `main` owns the one object
// on its stack.
//
// Threads: created on the main thread; every hook runs there. Whatever `on_start` builds it owns
// and destroys itself before it returns; the worker threads it starts are stopped and joined by
// then, and they run with every signal blocked so that signals reach the main thread's wait.
class Service : public app::Service<Configuration, false> {
public:
    Service();

protected:
    // Logs the build identification.
    void on_pre_start() override;
    // Runs the recorder until SIGINT, SIGQUIT or SIGTERM: true after an orderly stop, false when
    // start-up failed (no storage, storage not usable, socket not bound). Throws when the
    // configured log level is SYSTEM; nothing catches that, so the process aborts. With
    // `storage_mode_mask` set, that mask is the process's umask from here on.
    // REQUIRES: the configuration is loaded (`do_start` succeeded).
    [[nodiscard]] bool on_start() override;

private:
    // With `catalog` set, builds the catalogue writer (its thread starts with the recording) and
    // turns the leg summaries on. False when the catalogue is an SQLite file that cannot be
    // opened as one: that is the recorder's own file and a mistake to fix, where a PostgreSQL
    // server that does not answer yet is an outage the writer rides out.
    bool prepare_catalog();

    // Sizes the socket's receive buffer and, with `receive_ring_size` set, opens `ring` on the
    // socket's port, and with `receive_ring_nft` also puts `rule` in place so that the socket's
    // copies stop before UDP. The report watches the drops of what is read: the ring's when it is
    // open, else the socket's.
    void prepare_receiving(net::Socket& socket, net::PacketRing& ring, net::NftPortRule& rule);

    // Builds the writing manager and the packet reader behind the open `socket` (or `ring` when
    // open), receives until a stop, and takes them down in reverse: the media writer drains
    // before this returns. Every recorded leg counts in `open_legs`, when given, while it is open,
    // and goes to the catalogue writer, when there is one, once it is closed.
    // False when a part could not be built or started.
    bool record(net::Socket& socket, net::PacketRing& ring, net::Socket::ReadBuffer& read_buffer,
                writer::OpenLegs* open_legs);

    // Hands every datagram to `reader` until a stop: a block at a time from an open `ring`, else
    // one recv per datagram, or with `receive_batch` above 1 a batch per call; the reader is woken
    // once per block or batch. With `allowed_sources` set, a datagram from another sender is
    // counted in the report's `refused_sources` and not handed on.
    void receive(net::Socket& socket, net::PacketRing& ring, net::Socket::ReadBuffer& read_buffer,
                 media::PacketReader& reader);

    // Built by `prepare_catalog`, stopped at the end of `on_start` after everything that feeds it.
    std::unique_ptr<catalog::CatalogWriter> m_catalog;
};

}  // namespace qm::recorder
