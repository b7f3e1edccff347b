// The OS seam: rooted paths, recorded commands and signals, canned replies
// and injected faults, and the whole-file writer. Every later test relies on
// these being exact.
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>

#include "tests/support/fixtures.h"

namespace os = qorcfg::os;
using qorcfg::test::SandboxTest;

namespace {

// What a stream gives until its end ("(null)" for no stream), which is then
// closed; a pipe through the seam, its exit status following after "|".
std::string read_all(FILE *f, bool pipe = false) {
    std::string text = f == nullptr ? "(null)" : "";
    char buf[64];
    for (size_t n; f != nullptr && (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
        text.append(buf, n);
    if (f != nullptr && pipe)
        return text + "|" + std::to_string(WEXITSTATUS(os::pclose(f)));
    return f != nullptr && std::fclose(f) != 0 ? text + "(not closed)" : text;
}

TEST_F(SandboxTest, AbsolutePathsAreRootedRelativeOnesAreNotAndLocksHold) {
    sandbox.write("/etc/product.info", "MODEL=\"x\"\n");
    EXPECT_EQ(read_all(os::fopen("/etc/product.info", "r")), "MODEL=\"x\"\n");
    EXPECT_EQ(os::host_path("/var/lock/x"), sandbox.root() + "/var/lock/x");
    EXPECT_EQ(os::host_path("relative/x"), "relative/x");
    // Descriptors of one file, opened twice, lock each other out.
    const int a = os::open("/tmp/l", O_RDWR | O_CREAT | O_TRUNC, 0644);
    const int b = os::open("/tmp/l", O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_TRUE(a >= 0 && b >= 0 && sandbox.exists("/tmp/l"));
    EXPECT_EQ(os::flock(a, LOCK_EX), 0);
    EXPECT_TRUE(os::flock(b, LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK);
    os::close(a);
    EXPECT_TRUE(os::flock(b, LOCK_EX | LOCK_NB) == 0 && os::close(b) == 0);
    EXPECT_TRUE(os::access("/tmp/l", F_OK) == 0 && os::rename("/tmp/l", "/tmp/m") == 0 &&
                os::unlink("/tmp/m") == 0 && !sandbox.exists("/tmp/m") &&
                !sandbox.exists("/tmp/l"));
}

TEST_F(SandboxTest, CommandsAndSignalsAreRecordedAndAnsweredByTheLongestPrefix) {
    ASSERT_EQ(os::runner(), &sandbox.runner());  // nothing below may run or be sent for real
    sandbox.answer("iwpriv", "generic\n", 0);
    sandbox.answer("iwpriv wifi0 get_txchainmask", "wifi0 get_txchainmask:7\n", 3 << 8);
    sandbox.runner().answer("/bin/false", os::Reply{"", 0, true});  // the shell cannot start
    EXPECT_EQ(read_all(os::popen("iwpriv wifi0 get_txchainmask | cut -d: -f 2", "r"), true),
              "wifi0 get_txchainmask:7\n|3");
    EXPECT_EQ(read_all(os::popen("iwpriv wifi1 get_maxPower", "r"), true), "generic\n|0");
    // Unanswered: empty output, status 0, and nothing runs.
    EXPECT_EQ(os::system("/sbin/reboot"), 0);
    EXPECT_EQ(read_all(os::popen("/bin/ps", "r"), true), "|0");
    EXPECT_TRUE(os::popen("/bin/false", "r") == nullptr && os::system("/bin/false") == -1);
    EXPECT_EQ(sandbox.runs(), (std::vector<std::string>{
                                  "pipe: iwpriv wifi0 get_txchainmask | cut -d: -f 2",
                                  "pipe: iwpriv wifi1 get_maxPower", "system: /sbin/reboot",
                                  "pipe: /bin/ps", "pipe: /bin/false", "system: /bin/false"}));
    // Signals are recorded, not sent.
    EXPECT_EQ(os::kill(0x7ffffff0, SIGUSR2), 0);  // no such process, should anything go wrong
    const auto &signals = sandbox.runner().signals();
    EXPECT_TRUE(signals.size() == 1 && signals[0].pid == 0x7ffffff0 && signals[0].sig == SIGUSR2);
}

TEST_F(SandboxTest, FaultsHitExactlyTheNthCallOfTheirKind) {
    sandbox.write("/tmp/a", "a");
    os::fail_nth(os::Call::open, 2, EACCES);
    EXPECT_EQ(read_all(os::fopen("/tmp/a", "r")), "a");
    errno = 0;
    EXPECT_TRUE(os::fopen("/tmp/a", "r") == nullptr && errno == EACCES);
    EXPECT_EQ(read_all(os::fopen("/tmp/a", "r")), "a");
    // Other kinds are not affected; fail_from keeps failing.
    os::fail_from(os::Call::alloc, 1, ENOMEM);
    EXPECT_TRUE(os::malloc(8) == nullptr && os::strdup("x") == nullptr);
    os::reset_faults();
    std::unique_ptr<char, decltype(&std::free)> copy(os::strdup("x"), &std::free);
    EXPECT_STREQ(copy.get(), "x");
    os::count_calls(true);
    os::access("/tmp/a", F_OK), os::access("/tmp/a", F_OK);
    EXPECT_EQ(os::calls(os::Call::access), 2u);
}

// Files written whole: the old content or the new one, never a part, and no
// temporary file left behind.
TEST_F(SandboxTest, FilesAreReplacedWholeOrNotAtAll) {
    auto stat_of = [&](const char *device_path) {
        struct stat st {};
        ::lstat(sandbox.path(device_path).c_str(), &st);
        return st;
    };
    const mode_t mask = ::umask(022);
    EXPECT_EQ(os::write_file("/var/run/new.pid", "12\n"), 0);
    EXPECT_TRUE(sandbox.read("/var/run/new.pid") == "12\n" &&
                (stat_of("/var/run/new.pid").st_mode & 07777) == 0644);

    // An existing file keeps its mode; a symbolic link is followed (its
    // absolute target is a path of the device) and stays a link.
    sandbox.write("/conf/real.xml", "old");
    ::chmod(sandbox.path("/conf/real.xml").c_str(), 0600);
    ASSERT_EQ(::symlink("/conf/real.xml", sandbox.path("/tmp/link.xml").c_str()), 0);
    const ino_t before = stat_of("/conf/real.xml").st_ino;
    EXPECT_EQ(os::write_file("/tmp/link.xml", "new"), 0);
    const struct stat after = stat_of("/conf/real.xml");
    EXPECT_TRUE(sandbox.read("/conf/real.xml") == "new" && (after.st_mode & 07777) == 0600 &&
                after.st_ino != before && S_ISLNK(stat_of("/tmp/link.xml").st_mode));

    // A failed write, flush or rename leaves the old file and no temporary
    // one (the directory holds the file alone).
    for (os::Call kind : {os::Call::write, os::Call::fsync, os::Call::rename}) {
        os::fail_nth(kind, 1, EIO);
        errno = 0;
        EXPECT_TRUE(os::write_file("/conf/real.xml", "lost") == -1 && errno == EIO);
        EXPECT_TRUE(sandbox.read("/conf/real.xml") == "new" &&
                    std::distance(std::filesystem::directory_iterator(sandbox.path("/conf")),
                                  std::filesystem::directory_iterator()) == 1);
    }

    // No temporary file can be made: an existing file is rewritten in place,
    // a missing one is not created.
    os::fail_nth(os::Call::open, 1, EACCES);
    const ino_t in_place = stat_of("/conf/real.xml").st_ino;
    EXPECT_TRUE(os::write_file("/conf/real.xml", "in place") == 0 &&
                sandbox.read("/conf/real.xml") == "in place" &&
                stat_of("/conf/real.xml").st_ino == in_place);
    os::fail_nth(os::Call::open, 1, EACCES);
    EXPECT_TRUE(os::write_file("/conf/missing.xml", "x") == -1 && errno == EACCES &&
                !sandbox.exists("/conf/missing.xml"));
    ::umask(mask);
}

// Without a runner commands run for real; what they and the test write to a
// descriptor is captured at the descriptor level.
TEST(Seam, WithoutConfigurationCommandsRunForReal) {
    os::reset();
    EXPECT_EQ(read_all(os::popen("echo real", "r"), true), "real\n|0");
    qorcfg::test::CaptureOutput err(STDERR_FILENO);
    std::fprintf(stderr, "via stdio ");
    EXPECT_EQ(WEXITSTATUS(os::system("echo raw >&2; exit 4")), 4);
    EXPECT_EQ(err.text(), "via stdio raw\n");
}

}  // namespace
