#include "tools/call_sender.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <sstream>

#include "utils/str.hpp"

namespace qm::tools {
namespace {

constexpr int SEND_BUFFER_BYTES = 4 << 20;
constexpr std::int64_t NANOSECONDS_PER_SECOND = 1000000000;
// How long a full socket buffer is left to drain before the send is tried again, and how long
// in a row it may stay full before the run gives up.
constexpr std::int64_t FULL_BUFFER_WAIT_NS = 100000;
constexpr std::int64_t FULL_BUFFER_GIVE_UP_NS = 5 * NANOSECONDS_PER_SECOND;
// Bytes of datagrams in one segmented message: well within what one UDP send may carry.
constexpr std::size_t MAX_SEGMENTED_BYTES = 60000;

std::int64_t monotonic_ns() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NANOSECONDS_PER_SECOND + now.tv_nsec;
}

timespec to_timespec(std::int64_t ns) {
    return {static_cast<time_t>(ns / NANOSECONDS_PER_SECOND),
            static_cast<long>(ns % NANOSECONDS_PER_SECOND)};
}

// Sleeps until the monotonic clock reads `ns`; a signal only cuts the sleep short.
void sleep_until(std::int64_t ns) {
    const timespec until = to_timespec(ns);
    ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

bool is_dotted(const std::string& host) {
    return host.find_first_not_of("0123456789.") == std::string::npos;
}

bool resolve_ipv4(const std::string& host, in_addr& out) {
    if (::inet_pton(AF_INET, host.c_str(), &out) == 1) {
        return true;
    }
    if (is_dotted(host)) {
        // Not a name, and not an address either: no lookup for "1.2.3" or "300.1.1.1".
        return false;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) {
        return false;
    }
    out = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
    ::freeaddrinfo(found);
    return true;
}

bool is_full_buffer(int error) {
    return error == ENOBUFS || error == EAGAIN || error == EWOULDBLOCK;
}

// What a kernel or a route without UDP segmentation answers to a segmented message.
bool is_segmentation_refused(int error) {
    return error == EIO || error == EINVAL || error == EMSGSIZE || error == ENOPROTOOPT ||
           error == EOPNOTSUPP;
}

// The datagrams of one batch, encoded into buffers reused from batch to batch, and the messages
// that hand them to the kernel. With segmentation, a run of datagrams of one size goes as one
// message that the kernel cuts into those datagrams (UDP generic segmentation offload): the
// receiver sees the same datagrams, and the stack is walked once per run instead of once per
// datagram, which is most of what sending costs.
class Batch {
public:
    Batch(sockaddr_in& destination, bool segmentation) : m_segmentation(segmentation) {
        for (std::size_t i = 0; i < CallSender::BATCH; ++i) {
            m_buffers[i].reserve(media::PACKET_MAX_LENGTH);
            m_messages[i].msg_hdr.msg_name = &destination;
            m_messages[i].msg_hdr.msg_namelen = sizeof destination;
            cmsghdr* const control = reinterpret_cast<cmsghdr*>(m_controls[i].bytes);
            control->cmsg_level = SOL_UDP;
            control->cmsg_type = UDP_SEGMENT;
            control->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
        }
    }

    // Encodes up to `wanted` (at most BATCH) datagrams; how many there were.
    std::size_t fill(CallPlan::Cursor& cursor, std::size_t wanted) {
        m_count = 0;
        while (m_count < wanted && cursor.next(m_buffers[m_count])) {
            m_iovecs[m_count].iov_base = m_buffers[m_count].data();
            m_iovecs[m_count].iov_len = m_buffers[m_count].size();
            ++m_count;
        }
        return m_count;
    }

    // Hands the datagrams filled to the kernel, going on after partial sends, signals and full
    // buffers, and adds those it took to `sent`; 0 once all are sent, otherwise the errno that
    // ended it. Segmentation refused once is not tried again.
    int send(int socket, std::uint64_t& sent) {
        std::size_t next = 0;
        std::size_t messages = build(next);
        std::size_t at = 0;
        std::int64_t full_since = 0;
        while (next < m_count) {
            const int taken =
                ::sendmmsg(socket, &m_messages[at], static_cast<unsigned>(messages - at), 0);
            if (taken > 0) {
                for (int i = 0; i < taken; ++i, ++at) {
                    next += m_datagrams[at];
                    sent += m_datagrams[at];
                }
                full_since = 0;
                continue;
            }
            const int error = taken < 0 ? errno : EIO;
            if (error == EINTR) {
                continue;
            }
            if (m_segmentation && is_segmentation_refused(error)) {
                m_segmentation = false;
                messages = build(next);
                at = 0;
                continue;
            }
            if (!is_full_buffer(error)) {
                return error;
            }
            const std::int64_t now = monotonic_ns();
            if (full_since == 0) {
                full_since = now;
            } else if (now - full_since > FULL_BUFFER_GIVE_UP_NS) {
                return error;
            }
            sleep_until(now + FULL_BUFFER_WAIT_NS);
        }
        return 0;
    }

private:
    // Room for one UDP_SEGMENT control message.
    struct Control {
        alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(std::uint16_t))];
    };

    // Lays out the messages of datagrams [first, count); how many there are.
    std::size_t build(std::size_t first) {
        std::size_t messages = 0;
        for (std::size_t begin = first; begin < m_count; ++messages) {
            const std::size_t size = m_iovecs[begin].iov_len;
            std::size_t end = begin + 1;
            if (m_segmentation) {
                const std::size_t most = std::min(CallSender::BATCH, MAX_SEGMENTED_BYTES / size);
                while (end < m_count && end - begin < most && m_iovecs[end].iov_len == size) {
                    ++end;
                }
            }
            msghdr& message = m_messages[messages].msg_hdr;
            message.msg_iov = &m_iovecs[begin];
            message.msg_iovlen = end - begin;
            if (end - begin > 1) {
                const auto segment = static_cast<std::uint16_t>(size);
                std::memcpy(CMSG_DATA(reinterpret_cast<cmsghdr*>(m_controls[messages].bytes)),
                            &segment, sizeof segment);
                message.msg_control = m_controls[messages].bytes;
                message.msg_controllen = sizeof m_controls[messages].bytes;
            } else {
                message.msg_control = nullptr;
                message.msg_controllen = 0;
            }
            m_datagrams[messages] = end - begin;
            begin = end;
        }
        return messages;
    }

    bool m_segmentation;
    std::size_t m_count = 0;
    std::array<media::Datagram, CallSender::BATCH> m_buffers;
    std::array<iovec, CallSender::BATCH> m_iovecs{};
    std::array<mmsghdr, CallSender::BATCH> m_messages{};
    std::array<Control, CallSender::BATCH> m_controls{};
    // Per message, how many datagrams it carries.
    std::array<std::size_t, CallSender::BATCH> m_datagrams{};
};

}  // namespace

std::optional<sockaddr_in> parse_destination(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return std::nullopt;
    }
    unsigned short port = 0;
    if (!utils::str::try_parse_value<unsigned short, 10>(text.substr(colon + 1), port) ||
        port == 0 || !std::isdigit(static_cast<unsigned char>(text[colon + 1]))) {
        return std::nullopt;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (!resolve_ipv4(text.substr(0, colon), address.sin_addr)) {
        return std::nullopt;
    }
    return address;
}

std::string print_destination(const sockaddr_in& address) {
    char host[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(address.sin_port));
}

double SendResult::rate() const {
    return seconds > 0.0 ? static_cast<double>(sent) / seconds : 0.0;
}

CallSender::CallSender(const sockaddr_in& destination, bool segmentation)
    : m_destination(destination), m_segmentation(segmentation) {
    m_socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_socket < 0) {
        throw SendError(std::string("cannot open a UDP socket: ") + std::strerror(errno));
    }
    // A deep buffer rides out the receiver's stalls instead of the sender's ENOBUFS; the kernel
    // caps it at its own limit, which is good enough when it does.
    const int bytes = SEND_BUFFER_BYTES;
    ::setsockopt(m_socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

CallSender::~CallSender() {
    ::close(m_socket);
}

SendResult CallSender::send(const CallPlan& plan, double rate) {
    // A few kilobytes of buffers and headers, made once per run rather than on the stack.
    const auto batch = std::make_unique<Batch>(m_destination, m_segmentation);
    CallPlan::Cursor cursor(plan);
    SendResult result;
    const std::int64_t start = monotonic_ns();
    // Datagram i is due at origin + i / rate; the origin moves on when the sender falls behind.
    std::int64_t origin = start;
    const double ns_per_datagram = rate > 0.0 ? NANOSECONDS_PER_SECOND / rate : 0.0;
    for (;;) {
        std::size_t wanted = BATCH;
        if (rate > 0.0) {
            const std::int64_t now = monotonic_ns();
            auto due = static_cast<std::uint64_t>(
                           std::floor(static_cast<double>(now - origin) / ns_per_datagram)) +
                       1;
            if (due > result.sent + BATCH) {
                // More than a batch behind: what was missed is not sent in one burst.
                due = result.sent + BATCH;
                origin = now - static_cast<std::int64_t>(
                                   std::ceil(static_cast<double>(due - 1) * ns_per_datagram));
            }
            if (due <= result.sent) {
                sleep_until(origin + static_cast<std::int64_t>(std::ceil(
                                         static_cast<double>(result.sent) * ns_per_datagram)));
                continue;
            }
            wanted = static_cast<std::size_t>(due - result.sent);
        }
        const std::size_t count = batch->fill(cursor, wanted);
        if (count == 0) {
            break;
        }
        const int error = batch->send(m_socket, result.sent);
        if (error != 0) {
            result.error =
                "sendmmsg to " + print_destination(m_destination) + ": " + std::strerror(error);
            break;
        }
    }
    result.seconds = static_cast<double>(monotonic_ns() - start) / NANOSECONDS_PER_SECOND;
    result.counts = cursor.counts();
    return result;
}

std::string send_summary(std::size_t legs, const SendResult& result) {
    const PlanCounts& counts = result.counts;
    std::ostringstream out;
    out << "sent " << legs << (legs == 1 ? " leg: " : " legs: ") << result.sent << " datagrams ("
        << counts.start << " start, " << counts.data << " data, " << counts.terminate
        << " terminate; " << counts.withheld << " withheld, " << counts.reordered << " reordered, "
        << counts.duplicated << " duplicated) in " << utils::str::print_double<3>(result.seconds)
        << " s, " << std::llround(result.rate()) << " datagrams/s";
    return out.str();
}

}  // namespace qm::tools
