#include "app/app_notify.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "temp_directory.hpp"

namespace qm::app {
namespace {

// A service manager's end: a Unix datagram socket bound to a path, or to an abstract name when
// the path starts with "@".
class ListeningManager {
public:
    explicit ListeningManager(const std::string& name) : m_name(name) {
        m_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name[0] == '@') {
            address.sun_path[0] = '\0';
        }
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(::bind(m_fd, reinterpret_cast<const sockaddr*>(&address), size), 0);
    }
    ~ListeningManager() { ::close(m_fd); }

    // The next datagram, or "" when none waits.
    std::string heard() const {
        char buffer[512];
        const ssize_t size = ::recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT);
        return size <= 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(size));
    }

    const std::string& name() const { return m_name; }

private:
    std::string m_name;
    int m_fd = -1;
};

TEST(NotifySocketTest, StateArrivesAsOneDatagramOnAPath) {
    test::TempDirectory directory;
    const ListeningManager manager((directory.path() / "notify").string());

    EXPECT_TRUE(notify_socket_send(manager.name().c_str(), "READY=1"));

    EXPECT_EQ(manager.heard(), "READY=1");
    EXPECT_EQ(manager.heard(), "");
}

TEST(NotifySocketTest, AbstractNameIsReachedWithTheAtSign) {
    const ListeningManager manager("@quillmarwriter-notify-test-" + std::to_string(::getpid()));

    EXPECT_TRUE(notify_socket_send(manager.name().c_str(), "STOPPING=1"));

    EXPECT_EQ(manager.heard(), "STOPPING=1");
}

TEST(NotifySocketTest, NoListenerOrAnImpossiblePathFails) {
    test::TempDirectory directory;
    EXPECT_FALSE(notify_socket_send((directory.path() / "nobody").c_str(), "READY=1"));
    EXPECT_FALSE(notify_socket_send("", "READY=1"));
    EXPECT_FALSE(notify_socket_send(std::string(200, 'x').c_str(), "READY=1"));
}

TEST(NotifyServiceManagerTest, WithoutTheVariableNothingIsSent) {
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(notify_service_manager("READY=1"));
}

TEST(NotifyServiceManagerTest, TheVariableNamesTheManagersSocket) {
    test::TempDirectory directory;
    const ListeningManager manager((directory.path() / "notify").string());
    ::setenv("NOTIFY_SOCKET", manager.name().c_str(), 1);

    const bool sent = notify_service_manager("STATUS=3 sessions");
    ::unsetenv("NOTIFY_SOCKET");

    EXPECT_TRUE(sent);
    EXPECT_EQ(manager.heard(), "STATUS=3 sessions");
}

}  // namespace
}  // namespace qm::app
