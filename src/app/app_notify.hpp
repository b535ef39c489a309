#pragma once

#include <string_view>

// Tells a service manager how the recorder is doing, through the socket it names in the
// environment variable NOTIFY_SOCKET ("READY=1" once the recorder takes packets, "STOPPING=1" at a
// stop, "STATUS=..." every report period). Without the variable nothing is sent and nothing
// changes. Uses libsystemd's sd_notify where the build found it, else writes the datagram itself.
// Any thread; nothing is kept between calls.

namespace qm::app {

// Sends `state` to the service manager; false when none listens or the send failed. Telling is
// best effort (most runs have no manager), so callers may ignore the result.
bool notify_service_manager(std::string_view state);

// Sends `state` as one datagram to the Unix datagram socket `path` ("@name" for the abstract
// namespace), as a service manager expects it; false when the socket cannot be reached.
[[nodiscard]] bool notify_socket_send(const char* path, std::string_view state);

}  // namespace qm::app
