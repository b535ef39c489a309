// The baseline receiver of the throughput harness: the least a program can do with the recorder's
// traffic, one recv per datagram on a UDP socket of the requested receive buffer, counting what
// it takes. It prints "received N" when SIGINT or SIGTERM ends it.
//
//   recv_loop PORT [RECEIVE_BUFFER_BYTES]

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

volatile sig_atomic_t g_stop = 0;

void on_stop(int) {
    g_stop = 1;
}

int open_socket(int port, int buffer) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        return -1;
    }
    // As the recorder does: the plain request, then the forced one past net.core.rmem_max.
    if (buffer > 0) {
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<std::uint16_t>(port));
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: recv_loop PORT [RECEIVE_BUFFER_BYTES]\n");
        return 2;
    }
    const int fd = open_socket(std::atoi(argv[1]), argc > 2 ? std::atoi(argv[2]) : 0);
    if (fd < 0) {
        std::perror("recv_loop");
        return 1;
    }
    // Without SA_RESTART, so that the signal ends a blocked recv.
    struct sigaction action {};
    action.sa_handler = on_stop;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    static std::uint8_t buffer[65536];
    std::uint64_t received = 0;
    while (g_stop == 0) {
        if (::recv(fd, buffer, sizeof buffer, 0) >= 0) {
            ++received;
        } else if (errno != EINTR) {
            std::perror("recv_loop");
            return 1;
        }
    }
    std::printf("received %llu\n", static_cast<unsigned long long>(received));
    return 0;
}
