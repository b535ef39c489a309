#pragma once

#include <sys/types.h>

#include <cstdint>
#include <sstream>
#include <string>

#include "conf/configuration.hpp"
#include "conf/log_extension.hpp"
#include "conf/port_extension.hpp"
#include "conf/stat_extension.hpp"
#include "net/source_filter.hpp"
#include "storage/cleanup_settings.hpp"
#include "writer/recording_settings.hpp"

// The recorder's settings. Ownership: created with its defaults by the service frame, shared
// through rc_ptr<Configuration>. Threads: written only by the main thread while it parses the file
// and the "--args" string at start-up, before any worker thread exists; read-only by every thread
// afterwards, so the fields are plain.
namespace qm::recorder {

using storage::cleanup_algo;
using storage::cleanup_policy;

// "df" or "du", exactly; leaves `out` alone otherwise.
bool try_parse_cleanup_algo(const std::string& text, cleanup_algo& out);

// "disabled", "minute", "hour" or "day", exactly; leaves `out` alone otherwise.
bool try_parse_cleanup_policy(const std::string& text, cleanup_policy& out);

// A size in bytes or a percentage: a number (std::strtold), then optionally white space and one
// suffix: "%" stores the number negated (90% gives -90); "K"/"KB", "M"/"MB", "G"/"GB", "T"/"TB" in
// any case multiply by powers of 1024. A number or a product that is not finite ("nan", "inf",
// "infinity", out of range) is refused. Once a finite number was read `out` holds it, even when the
// suffix or the product is then refused.
bool try_parse_cleanup_threshold(const std::string& text, long double& out);

// A count of bytes for the socket: a whole or fractional number with the size suffixes of
// `try_parse_cleanup_threshold` ("32M", "1.5K", "65536"), no percentage, at most 2147483647
// (the system takes an int). Leaves `out` alone when refused.
bool try_parse_socket_bytes(const std::string& text, std::uint64_t& out);

// Permission bits in octal: one or more digits 0 to 7 worth at most 0777 ("027", "0027", "077"),
// nothing else, not even a sign or white space. Leaves `out` alone when refused.
bool try_parse_mode_mask(const std::string& text, mode_t& out);

// A retention age: "0", or a whole number of seconds, minutes, hours or days ("s", "m", "h",
// "d") within the timer's limit (`utils::time::try_parse_timer`). A bare number other than 0 and
// the timer's smaller units are refused: "90" meant as days would remove every minute recorded.
// Leaves `out` alone when refused.
bool try_parse_max_age(const std::string& text, std::uint64_t& out);

// The recording pipeline's and the cleanup's settings are bases of their own, so that each of
// those subsystems is handed what it needs without knowing the recorder's configuration.
class Configuration
    : public conf::StatExtension<conf::PortExtension<conf::LogExtenstion<conf::Configuration>>>,
      public writer::RecordingSettings,
      public storage::CleanupSettings {
public:
    // Receive buffer requested for the UDP socket, in bytes; 0 keeps the system's default.
    std::uint64_t receive_buffer_size = 0;
    // Datagrams read with one call, 1 to MAX_RECEIVE_BATCH; 1 reads them one by one.
    std::uint64_t receive_batch = 1;
    // With batches: how long, in microseconds, the receiving thread sleeps after a read that
    // found datagrams but left the socket empty; 0 waits for the next datagram instead.
    std::uint64_t receive_batch_delay = 0;

    // Bytes of a packet ring to receive through instead of reading the socket (whole blocks of
    // 128 KiB); 0 reads the socket. Needs CAP_NET_RAW, else the socket is read after a WARNING.
    std::uint64_t receive_ring_size = 0;
    // With a ring: stop the UDP socket's copies of what the ring takes before UDP with an nftables
    // rule, instead of draining them (needs nft and CAP_NET_ADMIN, else they are drained after a
    // WARNING).
    bool receive_ring_nft = false;

    // At an orderly stop, hand every open leg's current buffer to the media writer before it
    // drains, so that its file ends at the last accepted packet; false drops those buffers.
    bool flush_open_sessions_on_stop = false;
    // File the counters are written to every report period, in the Prometheus text format;
    // empty writes none.
    std::string metrics_file;
    // The senders whose datagrams are taken; the others' are counted and dropped before the
    // packet reader sees them. Empty (the default, also "allowed_sources =" with no value) takes
    // every sender.
    net::SourceFilter allowed_sources;
    // Where the closed legs are catalogued: "sqlite:PATH" (relative to the storage) or a
    // "postgresql://" URI; empty (the default, also "catalog =" with no value) keeps none. A
    // catalogue needs the leg summaries, so it writes them whatever `write_leg_summary` says.
    std::string catalog;

    static constexpr std::uint64_t MAX_RECEIVE_BATCH = 1024;

protected:
    int set_flag(const std::string& key, std::ostringstream& detail) override;
    int set_value(const std::string& key, const std::string& value,
                  std::ostringstream& detail) override;
};

}  // namespace qm::recorder
