// The OS seam: rooted paths, recorded commands and signals, canned replies
// and injected faults. Every later test relies on these being exact.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>

#include "os/os.h"
#include "tests/support/sandbox.h"

namespace os = qorcfg::os;
using qorcfg::test::CaptureOutput;
using qorcfg::test::SandboxTest;

namespace {

std::string read_all(FILE *f) {
    std::string text;
    char buf[64];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
        text.append(buf, n);
    return text;
}

TEST_F(SandboxTest, AbsolutePathsAreRootedAndRelativeOnesAreNot) {
    sandbox.write("/etc/product.info", "MODEL=\"x\"\n");
    FILE *f = os::fopen("/etc/product.info", "r");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(read_all(f), "MODEL=\"x\"\n");
    std::fclose(f);

    EXPECT_EQ(os::host_path("/var/lock/x"), sandbox.root() + "/var/lock/x");
    EXPECT_EQ(os::host_path("relative/x"), "relative/x");

    int fd = os::open("/var/lock/new", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    os::close(fd);
    EXPECT_TRUE(sandbox.exists("/var/lock/new"));
    EXPECT_EQ(os::access("/var/lock/new", F_OK), 0);
    EXPECT_EQ(os::rename("/var/lock/new", "/var/lock/moved"), 0);
    EXPECT_EQ(os::unlink("/var/lock/moved"), 0);
    EXPECT_FALSE(sandbox.exists("/var/lock/moved"));
}

TEST_F(SandboxTest, CommandsAreRecordedAndAnsweredByTheLongestPrefix) {
    sandbox.answer("iwpriv", "generic\n", 0);
    sandbox.answer("iwpriv wifi0 get_txchainmask", "wifi0 get_txchainmask:7\n", 3 << 8);

    FILE *p = os::popen("iwpriv wifi0 get_txchainmask | cut -d: -f 2", "r");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(read_all(p), "wifi0 get_txchainmask:7\n");
    EXPECT_EQ(WEXITSTATUS(os::pclose(p)), 3);

    p = os::popen("iwpriv wifi1 get_maxPower", "r");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(read_all(p), "generic\n");
    EXPECT_EQ(os::pclose(p), 0);

    // Unanswered: empty output, status 0, and nothing runs.
    EXPECT_EQ(os::system("/sbin/reboot"), 0);
    p = os::popen("/bin/ps", "r");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(read_all(p), "");
    os::pclose(p);

    ASSERT_EQ(sandbox.runner().commands().size(), 4u);
    EXPECT_EQ(sandbox.runner().commands()[2].kind, os::Command::system);
    EXPECT_EQ(sandbox.commands(),
              (std::vector<std::string>{"iwpriv wifi0 get_txchainmask | cut -d: -f 2",
                                        "iwpriv wifi1 get_maxPower", "/sbin/reboot", "/bin/ps"}));
}

TEST_F(SandboxTest, AFailingReplyMakesTheShellUnavailable) {
    sandbox.runner().answer("/bin/ps", os::Reply{"", 0, true});
    EXPECT_EQ(os::popen("/bin/ps", "r"), nullptr);
    EXPECT_EQ(os::system("/bin/ps"), -1);
}

TEST_F(SandboxTest, SignalsAreRecordedNotSent) {
    ASSERT_EQ(os::runner(), &sandbox.runner());
    const pid_t nobody = 0x7ffffff0;  // no such process, should anything go wrong
    EXPECT_EQ(os::kill(nobody, SIGUSR2), 0);
    ASSERT_EQ(sandbox.runner().signals().size(), 1u);
    EXPECT_EQ(sandbox.runner().signals()[0].pid, nobody);
    EXPECT_EQ(sandbox.runner().signals()[0].sig, SIGUSR2);
}

TEST_F(SandboxTest, FaultsHitExactlyTheNthCallOfTheirKind) {
    sandbox.write("/tmp/a", "a");
    os::fail_nth(os::Call::open, 2, EACCES);
    FILE *first = os::fopen("/tmp/a", "r");
    ASSERT_NE(first, nullptr);
    std::fclose(first);
    errno = 0;
    EXPECT_EQ(os::fopen("/tmp/a", "r"), nullptr);
    EXPECT_EQ(errno, EACCES);
    FILE *third = os::fopen("/tmp/a", "r");
    EXPECT_NE(third, nullptr);
    if (third != nullptr)
        std::fclose(third);

    // Other kinds are not affected; fail_from keeps failing.
    os::fail_from(os::Call::alloc, 1, ENOMEM);
    EXPECT_EQ(os::malloc(8), nullptr);
    EXPECT_EQ(os::strdup("x"), nullptr);
    os::reset_faults();
    void *p = os::malloc(8);
    EXPECT_NE(p, nullptr);
    std::free(p);

    os::count_calls(true);
    os::access("/tmp/a", F_OK);
    os::access("/tmp/a", F_OK);
    EXPECT_EQ(os::calls(os::Call::access), 2u);
}

TEST_F(SandboxTest, LocksSerialiseDescriptorsOfTheSameFile) {
    int a = os::open("/var/lock/l", O_RDWR | O_CREAT | O_TRUNC, 0644);
    int b = os::open("/var/lock/l", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    EXPECT_EQ(os::flock(a, LOCK_EX), 0);
    EXPECT_EQ(os::flock(b, LOCK_EX | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    os::close(a);
    EXPECT_EQ(os::flock(b, LOCK_EX | LOCK_NB), 0);
    os::close(b);
}

// Files written whole: the old content or the new one, never a part, and no
// temporary file left behind.
TEST_F(SandboxTest, FilesAreReplacedWholeOrNotAtAll) {
    auto stat_of = [&](const char *device_path) {
        struct stat st {};
        ::lstat(sandbox.path(device_path).c_str(), &st);
        return st;
    };
    auto dir_entries = [&](const char *device_dir) {
        size_t n = 0;
        for ([[maybe_unused]] const auto &e :
             std::filesystem::directory_iterator(sandbox.path(device_dir)))
            ++n;
        return n;
    };
    const mode_t mask = ::umask(022);
    EXPECT_EQ(os::write_file("/var/run/new.pid", "12\n"), 0);
    EXPECT_EQ(sandbox.read("/var/run/new.pid"), "12\n");
    EXPECT_EQ(stat_of("/var/run/new.pid").st_mode & 07777, 0644u);

    // An existing file keeps its mode; a symbolic link is followed (its
    // absolute target is a path of the device) and stays a link.
    sandbox.write("/conf/real.xml", "old");
    ::chmod(sandbox.path("/conf/real.xml").c_str(), 0600);
    ASSERT_EQ(::symlink("/conf/real.xml", sandbox.path("/tmp/link.xml").c_str()), 0);
    const ino_t before = stat_of("/conf/real.xml").st_ino;
    EXPECT_EQ(os::write_file("/tmp/link.xml", "new"), 0);
    EXPECT_EQ(sandbox.read("/conf/real.xml"), "new");
    EXPECT_EQ(stat_of("/conf/real.xml").st_mode & 07777, 0600u);
    EXPECT_NE(stat_of("/conf/real.xml").st_ino, before);
    EXPECT_TRUE(S_ISLNK(stat_of("/tmp/link.xml").st_mode));

    // A failed write or flush leaves the old file and no temporary one.
    const size_t entries = dir_entries("/conf");
    for (os::Call kind : {os::Call::write, os::Call::fsync, os::Call::rename}) {
        os::fail_nth(kind, 1, EIO);
        errno = 0;
        EXPECT_EQ(os::write_file("/conf/real.xml", "lost"), -1);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(sandbox.read("/conf/real.xml"), "new");
        EXPECT_EQ(dir_entries("/conf"), entries);
    }

    // No temporary file can be made: an existing file is rewritten in place,
    // a missing one is not created.
    os::fail_nth(os::Call::open, 1, EACCES);
    const ino_t in_place = stat_of("/conf/real.xml").st_ino;
    EXPECT_EQ(os::write_file("/conf/real.xml", "in place"), 0);
    EXPECT_EQ(sandbox.read("/conf/real.xml"), "in place");
    EXPECT_EQ(stat_of("/conf/real.xml").st_ino, in_place);
    os::fail_nth(os::Call::open, 1, EACCES);
    EXPECT_EQ(os::write_file("/conf/missing.xml", "x"), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(sandbox.exists("/conf/missing.xml"));
    ::umask(mask);
}

TEST(Seam, WithoutConfigurationCommandsRunForReal) {
    os::reset();
    FILE *p = os::popen("echo real", "r");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(read_all(p), "real\n");
    EXPECT_EQ(os::pclose(p), 0);
    EXPECT_EQ(WEXITSTATUS(os::system("exit 4")), 4);
}

TEST(Capture, SeesStdioAndRawWrites) {
    CaptureOutput err(STDERR_FILENO);
    std::fprintf(stderr, "via stdio ");
    ssize_t n = ::write(STDERR_FILENO, "raw\n", 4);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(err.text(), "via stdio raw\n");
}

}  // namespace
