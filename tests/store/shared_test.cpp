// Registered network-mode handles, and the daemon client against daemons
// that misbehave: the flows where a handle is loaded in place, closed while
// registered, or asked through a connection the daemon drops.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

#include "os/os.h"
#include "qorcfg.h"
#include "store/platform.h"
#include "tests/support/sandbox.h"

namespace {

std::string device_config() {
    std::ifstream in(qorcfg::test::devroot() + "/conf/config.xml", std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// A daemon stand-in: accepts connections on the library's socket path and
// hands each to `serve`, until stopped.
class FakeDaemon {
public:
    explicit FakeDaemon(std::function<void(int)> serve) : serve_(std::move(serve)) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, qorcfg::os::daemon_socket_path().c_str(),
                     sizeof addr.sun_path - 1);
        ::unlink(addr.sun_path);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_EQ(::listen(fd_, 8), 0);
        thread_ = std::thread([this] {
            for (;;) {
                int c = ::accept(fd_, nullptr, nullptr);
                if (c < 0 || stop_)
                    break;
                ++connections;
                serve_(c);
                ::close(c);
            }
        });
    }
    ~FakeDaemon() {
        stop_ = true;
        ::shutdown(fd_, SHUT_RDWR);
        ::close(fd_);
        thread_.join();
    }
    std::atomic<int> connections{0};

private:
    std::function<void(int)> serve_;
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class SharedTest : public qorcfg::test::SandboxTest {
protected:
    void SetUp() override {
        sandbox.write("/conf/config.xml", device_config());
        sandbox.write("/tmp/config.xml", device_config());
    }
};

TEST_F(SharedTest, ARegisteredNetworkHandleIsLoadedInPlaceAndSurvivesCloses) {
    qorcfg_handle *h = init_qorcfg();
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(is_net_cfg(h), 1);
    set_shared_qorcfg(h, 0);

    // Closing it while registered and still in network mode leaves it alone.
    EXPECT_EQ(close_qorcfg(h), 0);
    EXPECT_EQ(is_net_cfg(h), 1);

    // No daemon: the lookup loads the registered handle itself, once.
    char value[256];
    EXPECT_EQ(get_cfg_item(h, 0x08080000, "name", value), 0);
    EXPECT_STREQ(value, "AP-Lab-01");
    EXPECT_EQ(is_net_cfg(h), 0);
    EXPECT_EQ(get_shared_qorcfg(0), h);
    // Later opens hand out the shared handle; closes leave it.
    qorcfg_handle *again = init_qorcfg();
    EXPECT_EQ(again, h);
    EXPECT_EQ(close_qorcfg(again), 0);
    EXPECT_EQ(get_cfg_item_by_str(h, "rf1_vap1", "ssid", value), 0);
    EXPECT_STREQ(value, "Lab-Corp");

    set_shared_qorcfg(nullptr, 0);
    EXPECT_EQ(close_qorcfg(h), 0);  // no longer registered: freed
}

TEST_F(SharedTest, ARegisteredNetworkHandleRefreshedForOneGroup) {
    qorcfg_handle *h = init_qorcfg();
    ASSERT_NE(h, nullptr);
    set_shared_qorcfg(h, 0);
    char value[256];
    // The one-group refresh of a working-copy handle serves the registered
    // handle (the whole document), loaded in place; read relative to the
    // document element, the group's item is then not found.
    EXPECT_EQ(get_cfg_item_by_path_gid_s(h, "x", "system.device", "name", value), -4);
    EXPECT_EQ(is_net_cfg(h), 0);
    EXPECT_EQ(get_cfg_item(h, 0x08080000, "location", value), 0);
    EXPECT_STREQ(value, "Building 2, floor 3, lab");
    set_shared_qorcfg(nullptr, 0);
    close_qorcfg(h);
}

TEST_F(SharedTest, ADaemonThatHangsUpBeforeReadingIsATransportFailure) {
    std::signal(SIGPIPE, SIG_DFL);  // as in a program that does not ignore it
    FakeDaemon daemon([](int) {});  // accepts, then closes at once
    char value[256];
    for (int i = 0; i < 20; ++i) {
        SCOPED_TRACE(i);
        int r = get_cfg_item_daemon(config_ram, 0x08080000, std::string(5, 'n').c_str(), value);
        EXPECT_TRUE(r == -10004 || r == -10005 || r == 0) << r;
    }
    qorcfg_handle *h = init_qorcfg();
    EXPECT_EQ(get_cfg_item(h, 0x08080000, "name", value), 0);
    EXPECT_STREQ(value, "AP-Lab-01");
    close_qorcfg(h);
}

TEST_F(SharedTest, RequestsAreSentWholeOrNotAtAll) {
    std::string gid_bytes;
    FakeDaemon daemon([&gid_bytes](int c) {
        unsigned char req[1011];
        size_t got = 0;
        while (got < sizeof req) {
            ssize_t n = ::recv(c, req + got, sizeof req - got, 0);
            if (n <= 0)
                return;
            got += static_cast<size_t>(n);
        }
        gid_bytes.assign(reinterpret_cast<char *>(req + 1007), 4);
        unsigned char reply[] = {1, 0, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFC, 0, 0, 0};
        ::send(c, reply, sizeof reply, MSG_NOSIGNAL);
    });
    char value[256] = "untouched";
    // A name request carries the gid -1 whatever negative value is passed.
    EXPECT_EQ(get_cfg_item_by_all_args_daemon(config_ram, -5, "p", "a.b", "item", value), -4);
    EXPECT_EQ(gid_bytes, std::string(4, '\xFF'));
    EXPECT_EQ(daemon.connections, 1);

    // An item name longer than its field is not sent cut: the query fails as
    // a transport failure and the lookup reads the file.
    std::string long_item(200, 'x');
    EXPECT_EQ(get_cfg_item_daemon(config_ram, 0x08080000, long_item.c_str(), value), -10001);
    EXPECT_EQ(daemon.connections, 1);
    qorcfg_handle *h = init_qorcfg();
    EXPECT_EQ(get_cfg_item(h, 0x08080000, long_item.c_str(), value), -4);
    EXPECT_EQ(daemon.connections, 1);
    close_qorcfg(h);
}

TEST_F(SharedTest, LocksAreNotInheritedByCommands) {
    int fd = lock_qorcfg(6, 2);
    ASSERT_GE(fd, 0);
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    unlock_qorcfg(fd);
}

}  // namespace
