#include "app/app_notify.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#ifdef QM_HAVE_LIBSYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace qm::app {

bool notify_service_manager(std::string_view state) {
    const char* path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || *path == '\0') {
        return false;
    }
#ifdef QM_HAVE_LIBSYSTEMD
    return ::sd_notify(0, std::string(state).c_str()) > 0;
#else
    return notify_socket_send(path, state);
#endif
}

bool notify_socket_send(const char* path, std::string_view state) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(path);
    if (length == 0 || length >= sizeof address.sun_path) {
        return false;
    }
    std::memcpy(address.sun_path, path, length);
    // An abstract socket's name starts with a zero byte where the variable has "@".
    if (path[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    const ssize_t sent = ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr*>(&address), size);
    ::close(fd);
    return sent == static_cast<ssize_t>(state.size());
}

}  // namespace qm::app
