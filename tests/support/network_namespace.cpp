#include "network_namespace.hpp"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace qm::test {
namespace {

bool bring_loopback_up() {
    const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe == -1) {
        return false;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ::ioctl(probe, SIOCGIFFLAGS, &request) == 0;
    if (up) {
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
        up = ::ioctl(probe, SIOCSIFFLAGS, &request) == 0;
    }
    ::close(probe);
    return up;
}

}  // namespace

bool NetworkNamespace::enter() {
    const int previous = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (previous == -1) {
        return false;
    }
    if (::unshare(CLONE_NEWNET) != 0) {
        ::close(previous);
        return false;
    }
    m_previous = previous;
    return bring_loopback_up();
}

NetworkNamespace::~NetworkNamespace() {
    if (m_previous != -1) {
        static_cast<void>(::setns(m_previous, CLONE_NEWNET));
        ::close(m_previous);
    }
}

}  // namespace qm::test
