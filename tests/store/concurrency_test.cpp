// tests/store/concurrency_test.cpp - locking between real processes on the
// real lock files: readers wait while a writer holds the working copy, a
// missing working copy is rebuilt under the flash copy's lock taken before the
// working copy's, and readers never see a working copy half written.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qorcfg.h"
#include "store/platform.h"
#include "tests/support/sandbox.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kSysDevice = 0x08080000;  // qorconfig.system.device
// Generous bounds, only to turn a hang into a failure (valgrind is slow).
constexpr auto kTimeout = std::chrono::seconds(120);

// A complete configuration labelled `label` in its device name, its root and
// its last element, padded with `entries` elements so that writing it takes a while.
std::string config_doc(const std::string &label, int entries) {
    std::string doc = "<qorconfig version=\"" + label +
                      "\" devtype=\"AP\">\n<system><device name=\"" + label +
                      "\"/></system>\n<pad>\n";
    for (int i = 0; i < entries; ++i)
        doc += "  <entry id=\"" + std::to_string(i) + "\" value=\"" + label + "\"/>\n";
    return doc + "</pad>\n<tail mark=\"" + label + "\"/>\n</qorconfig>\n";
}

// Child processes of one test; any still running at the end are killed.
class Children {
public:
    ~Children() {
        for (pid_t pid : pids_) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    // Runs `body` in a child whose exit status is body's result.
    pid_t spawn(const std::function<int()> &body) {
        std::fflush(nullptr);
        const pid_t pid = ::fork();
        if (pid == 0) {
            int rc = 99;
            try {
                rc = body();
            } catch (...) {
            }
            std::_Exit(rc);
        }
        if (pid > 0)
            pids_.push_back(pid);
        return pid;
    }
    // Whether the child has not ended yet (it is not reaped).
    static bool running(pid_t pid) {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }
    // The child's exit status; -1 when it has not ended in time (it is killed).
    int finish(pid_t pid, std::chrono::seconds timeout = kTimeout) {
        const auto deadline = Clock::now() + timeout;
        int status = 0;
        while (Clock::now() < deadline && running(pid))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const bool ended = !running(pid);
        if (!ended)
            ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        pids_.erase(std::remove(pids_.begin(), pids_.end(), pid), pids_.end());
        if (!ended)
            return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    std::vector<pid_t> pids_;
};

bool eventually(const std::function<bool()> &condition) {
    const auto deadline = Clock::now() + kTimeout;
    while (Clock::now() < deadline) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

// Whether the kernel's lock table lists process `pid` as holding (or, with
// `waiting`, as queued for) a flock lock on the file with inode `inode`.
bool in_lock_table(pid_t pid, ino_t inode, bool waiting) {
    std::ifstream table("/proc/locks");
    const std::string inode_suffix = ":" + std::to_string(inode);
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string id, kind;
        fields >> id >> kind;
        const bool queued = kind == "->";
        if (queued)
            fields >> kind;
        std::string advisory, mode, holder, device;
        fields >> advisory >> mode >> holder >> device;
        if (queued == waiting && kind == "FLOCK" && holder == std::to_string(pid) &&
            device.size() > inode_suffix.size() &&
            device.compare(device.size() - inode_suffix.size(), inode_suffix.size(),
                           inode_suffix) == 0)
            return true;
    }
    return false;
}

// Waits until `pid` is queued for the lock on `inode`, which this process
// holds. Where the lock table does not show this process's own lock (no
// /proc/locks, another pid namespace) nothing can be waited for; the test
// then still checks what the readers finally read.
bool queued_behind_us(pid_t pid, ino_t inode) {
    if (!in_lock_table(::getpid(), inode, false))
        return true;
    return eventually([&] { return in_lock_table(pid, inode, true); });
}

// Child body: opens the working copy and checks its root's version.
int read_version(const std::string &expected) {
    ezxml_node *root = init_qorcfg_direct();
    if (root == nullptr)
        return 1;
    const char *version = ezxml_attr(root, "version");
    const bool ok = ezxml_error(root)[0] == '\0' && version != nullptr && version == expected;
    ezxml_free(root);
    return ok ? 0 : 2;
}

class ConcurrencyTest : public qorcfg::test::SandboxTest {
protected:
    void SetUp() override { setenv("QORCFG_PRINT_ERR", "1", 1); }
    ino_t inode_of(const char *device_path) const {
        struct stat st {};
        return ::stat(sandbox.path(device_path).c_str(), &st) == 0 ? st.st_ino : 0;
    }
    Children children;
};

TEST_F(ConcurrencyTest, ReadersWaitWhileAWriterHoldsTheWorkingCopy) {
    sandbox.write(config_ram, config_doc("before", 10));
    const int writer = lock_qorcfg(1, LOCK_EX);
    ASSERT_GE(writer, 0);
    sandbox.write(config_ram, "<qorconfig version=\"half\"><system><dev");  // midway
    const ino_t lock_file = inode_of("/var/lock/qorcfg_ram");
    std::vector<pid_t> readers;
    for (int i = 0; i < 4; ++i)
        readers.push_back(children.spawn([] { return read_version("after"); }));
    for (pid_t reader : readers) {
        ASSERT_GT(reader, 0);
        EXPECT_TRUE(queued_behind_us(reader, lock_file));
        EXPECT_TRUE(Children::running(reader));
    }
    sandbox.write(config_ram, config_doc("after", 10));
    EXPECT_EQ(unlock_qorcfg(writer), 0);
    for (pid_t reader : readers)
        EXPECT_EQ(children.finish(reader), 0);

    // Readers do not wait for each other.
    const int shared = lock_qorcfg(1, LOCK_SH);
    ASSERT_GE(shared, 0);
    const pid_t reader = children.spawn([] { return read_version("after"); });
    EXPECT_EQ(children.finish(reader, std::chrono::seconds(60)), 0);
    unlock_qorcfg(shared);
}

TEST_F(ConcurrencyTest, MissingWorkingCopyTakesTheFlashLockBeforeTheRamLock) {
    const std::string flash = config_doc("flash", 10);
    sandbox.write(config_rom, flash);
    const int ram = lock_qorcfg(1, LOCK_EX);
    ASSERT_GE(ram, 0);
    const ino_t ram_lock = inode_of("/var/lock/qorcfg_ram");
    const pid_t child = children.spawn([] { return read_version("flash"); });
    ASSERT_GT(child, 0);
    // While it waits for the RAM lock, the child holds the flash lock (shared).
    EXPECT_TRUE(eventually([] {
        const int fd = lock_qorcfg(2, LOCK_EX | LOCK_NB);
        if (fd >= 0)
            unlock_qorcfg(fd);
        return fd == -10;
    }));
    EXPECT_TRUE(queued_behind_us(child, ram_lock));
    EXPECT_TRUE(Children::running(child));
    EXPECT_FALSE(sandbox.exists(config_ram));  // not touched before its lock is held
    const int shared_flash = lock_qorcfg(2, LOCK_SH | LOCK_NB);
    EXPECT_GE(shared_flash, 0);  // a shared hold, not an exclusive one
    unlock_qorcfg(shared_flash);

    EXPECT_EQ(unlock_qorcfg(ram), 0);
    EXPECT_EQ(children.finish(child), 0);
    EXPECT_EQ(sandbox.read(config_ram), flash);
    const int rom = lock_qorcfg(2, LOCK_EX | LOCK_NB);  // released again
    EXPECT_GE(rom, 0);
    unlock_qorcfg(rom);
}

TEST_F(ConcurrencyTest, ReadersNeverSeeAHalfWrittenWorkingCopy) {
    const std::string alpha = config_doc("alpha", 400);
    const std::string bravo = config_doc("bravo", 400);
    sandbox.write(config_ram, alpha);
    const std::string file = sandbox.path(config_ram);
    int stop[2];
    ASSERT_EQ(::pipe(stop), 0);
    // Rewrites the working copy in pieces under the exclusive RAM lock until
    // the parent closes its end of the pipe.
    const pid_t writer = children.spawn([&] {
        ::close(stop[1]);
        for (long i = 0; i < 10000000; ++i) {
            pollfd end{stop[0], POLLIN, 0};
            if (::poll(&end, 1, 0) != 0)
                return 0;
            const std::string &text = i % 2 == 0 ? bravo : alpha;
            const int lock = lock_qorcfg(1, LOCK_EX);
            const int fd = ::open(file.c_str(), O_WRONLY | O_TRUNC);
            if (lock < 0 || fd < 0)
                return 1;
            for (size_t at = 0; at < text.size(); at += 1024) {
                const size_t n = std::min<size_t>(1024, text.size() - at);
                if (::write(fd, text.data() + at, n) != static_cast<ssize_t>(n))
                    return 2;
                sched_yield();
            }
            ::close(fd);
            unlock_qorcfg(lock);
        }
        return 3;
    });
    ::close(stop[0]);
    ASSERT_GT(writer, 0);

    std::vector<pid_t> readers;
    for (int r = 0; r < 8; ++r) {
        readers.push_back(children.spawn([] {
            for (int i = 0; i < 50; ++i) {
                auto *cell = static_cast<qorcfg_handle *>(std::malloc(sizeof(qorcfg_handle)));
                if (cell == nullptr)
                    return 10;
                cell->xml = init_qorcfg_direct();
                if (cell->xml == nullptr) {
                    std::free(cell);
                    return 11;
                }
                char name[QORCFG_VALUE_SIZE], mark[QORCFG_VALUE_SIZE];
                const int by_gid = get_cfg_item_direct(cell, kSysDevice, "name", name);
                const int by_path =
                    get_cfg_item_by_prefix_direct(cell, "qorconfig", "tail.mark", mark);
                close_qorcfg(cell);
                if (by_gid != 0 || by_path != 0)
                    return 12;
                const std::string seen = name;
                if (seen != mark || (seen != "alpha" && seen != "bravo"))
                    return 13;
            }
            return 0;
        }));
    }
    for (pid_t reader : readers)
        EXPECT_EQ(children.finish(reader), 0) << "reader " << reader;
    ::close(stop[1]);
    EXPECT_EQ(children.finish(writer), 0);
}

}  // namespace
