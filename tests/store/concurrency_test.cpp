// tests/store/concurrency_test.cpp - locking between real processes on the
// real lock files: readers wait while a writer holds the working copy, a
// missing working copy is rebuilt under the flash copy's lock taken before the
// working copy's, and readers never see a working copy half written.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;
using Clock = std::chrono::steady_clock;

// Whether `condition` comes to hold. The bound is generous, only there to
// turn a hang into a failure (valgrind is slow).
bool eventually(const std::function<bool()> &condition) {
    for (const auto deadline = Clock::now() + std::chrono::seconds(120); !condition();) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// Child processes of one test; any still running at the end are killed.
class Children {
public:
    ~Children() {
        for (pid_t pid : pids_)
            ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
    }
    // Runs `body` in a child whose exit status is body's result (99: it threw).
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
    // The child's exit status; -1 when there is none or it has not ended in time.
    int finish(pid_t pid) {
        int status = 0;
        if (pid <= 0 || !eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }))
            return -1;
        pids_.erase(std::remove(pids_.begin(), pids_.end(), pid), pids_.end());
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    std::vector<pid_t> pids_;
};

// Waits until `pid` is queued for the working copy's lock, which this
// process holds, as the kernel's lock table shows: "1: FLOCK  ADVISORY  WRITE
// 4321 fe:00:5423993 0 EOF" for the holder, and "-> " (indented by the depth
// of the queue) before "FLOCK" for a waiter. Where the table does not show
// this process's own lock (no /proc/locks, another pid namespace) nothing can
// be waited for; the test then still checks what the readers finally read.
bool queued_behind_us(const Sandbox &sandbox, pid_t pid) {
    struct stat st {};
    if (::stat(sandbox.path("/var/lock/qorcfg_ram").c_str(), &st) != 0)
        return false;
    const auto listed = [&st](pid_t holder, const std::string &queued) {
        const std::string entry("^[0-9]+: " + queued + "FLOCK +[[:alnum:]_]+ +[[:alnum:]_]+ +" +
                                std::to_string(holder) +
                                " +[0-9a-f]+:[0-9a-f]+:" + std::to_string(st.st_ino) + " ");
        std::ifstream table("/proc/locks");
        for (std::string line; std::getline(table, line);)
            if (qorcfg::test::matches_ere(entry, line))
                return true;
        return false;
    };
    return !listed(::getpid(), "") || eventually([&] { return listed(pid, " *-> "); });
}

// In a child: the label of the working copy, opened as init_qorcfg_direct
// does (under its lock), which config_doc writes into the root's version,
// the device name and the last element; "" when the three differ or the
// document has an error.
std::string label() {
    const Tree root = own(init_qorcfg_direct());
    if (root == nullptr || ezxml_error(root.get())[0] != '\0')
        return "";
    const char *version = ezxml_attr(root.get(), "version");
    const char *name = ezxml_attr(element_at(root.get(), "qorconfig.system.device"), "name");
    const char *mark = ezxml_attr(element_at(root.get(), "qorconfig.tail"), "mark");
    const bool same =
        version && name && mark && std::string(version) == name && std::string(name) == mark;
    return same ? version : "";
}

class ConcurrencyTest : public StoreTest {
protected:
    Children children;
};

TEST_F(ConcurrencyTest, ReadersWaitWhileAWriterHoldsTheWorkingCopy) {
    sandbox.write(config_ram, config_doc("before", 10));
    const int writer = lock_qorcfg(1, LOCK_EX);
    ASSERT_GE(writer, 0);
    sandbox.write(config_ram, "<qorconfig version=\"half\"><system><dev");  // midway
    const auto reads_after = [] { return label() == "after" ? 0 : 1; };
    std::vector<pid_t> readers;
    for (int i = 0; i < 4; ++i)
        readers.push_back(children.spawn(reads_after));
    for (pid_t reader : readers) {
        ASSERT_GT(reader, 0);
        EXPECT_TRUE(queued_behind_us(sandbox, reader));
    }
    sandbox.write(config_ram, config_doc("after", 10));
    EXPECT_EQ(unlock_qorcfg(writer), 0);
    for (pid_t reader : readers)
        EXPECT_EQ(children.finish(reader), 0);

    // Readers do not wait for each other.
    const int shared = lock_qorcfg(1, LOCK_SH);
    ASSERT_GE(shared, 0);
    EXPECT_EQ(children.finish(children.spawn(reads_after)), 0);
    unlock_qorcfg(shared);
}

TEST_F(ConcurrencyTest, MissingWorkingCopyTakesTheFlashLockBeforeTheRamLock) {
    const std::string flash = config_doc("flash", 10);
    sandbox.write(config_rom, flash);
    const int ram = lock_qorcfg(1, LOCK_EX);
    ASSERT_GE(ram, 0);
    const pid_t child = children.spawn([] { return label() == "flash" ? 0 : 1; });
    ASSERT_GT(child, 0);
    // While it waits for the RAM lock, the child holds the flash lock, shared.
    EXPECT_TRUE(eventually([&] { return locks(sandbox) == "qorcfg_ram(ex) qorcfg_rom(sh) "; }))
        << locks(sandbox);
    EXPECT_TRUE(queued_behind_us(sandbox, child));
    EXPECT_FALSE(sandbox.exists(config_ram));  // not touched before its lock is held
    EXPECT_EQ(unlock_qorcfg(ram), 0);
    EXPECT_EQ(children.finish(child), 0);
    EXPECT_EQ(sandbox.read(config_ram), flash);
    EXPECT_EQ(locks(sandbox), "qorcfg_ram qorcfg_rom ");  // both released again
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
            for (int i = 0; i < 50; ++i)
                if (const std::string seen = label(); seen != "alpha" && seen != "bravo")
                    return 1;
            return 0;
        }));
    }
    for (pid_t reader : readers)
        EXPECT_EQ(children.finish(reader), 0) << "reader " << reader;
    ::close(stop[1]);
    EXPECT_EQ(children.finish(writer), 0);
}

}  // namespace
