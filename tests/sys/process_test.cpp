// tests/sys/process_test.cpp - finding a process by name in the "/bin/ps"
// listing, running shell commands, reading one rc environment variable and
// reading the first line of a file.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include "tests/support/fixture_files.h"
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;
using qorcfg::os::Reply;

// The one diagnostic of these helpers goes through qorcfg_print, which is
// silenced only by QORCFG_PRINT_ERR=0: the fixture switches it on, so that
// the test does not depend on the environment it is started from.
using ProcessTest = StoreTest;

constexpr const char *kPs = "/bin/ps";

// The listing is read through one read pipe of exactly "/bin/ps" per call
// (its reading is the parser's, tested on captured listings).
TEST_F(ProcessTest, GetPidReadsTheListingOfPs) {
    sandbox.answer(kPs, fixture("sys/fixtures/ps_device.txt"));
    EXPECT_EQ(get_pid("hostapd"), 640);
    EXPECT_EQ(get_pid("no_such_daemon"), 0);
    EXPECT_EQ(sandbox.runs(), std::vector<std::string>(2, "pipe: /bin/ps"));

    sandbox.answer(kPs, "", 1);  // a failing ps still gives a readable pipe
    EXPECT_EQ(get_pid("init"), 0);
    sandbox.runner().answer(kPs, Reply{"  1 init\n", 0, /*fail=*/true});
    EXPECT_EQ(get_pid("init"), -1);
    sandbox.answer(kPs, "  812 init\n");
    qorcfg::os::fail_nth(Call::popen, 1, EMFILE);
    EXPECT_EQ(get_pid("init"), -1);
    EXPECT_EQ(get_pid("init"), 812);  // the next listing is read again
}

TEST_F(ProcessTest, GetPidFindsOwnChildInRealListing) {
    // A child running "sleep 3600" under a name no other process has (the
    // listing shows the program's file name, and some listings its argv[0],
    // so both carry the name); the trailing "z" keeps one test's name from
    // being a prefix of another concurrently running test's name. The
    // listing of the real ps holds the processes of this user on this
    // terminal, or those without a terminal when there is none; the child
    // shares this process's terminal (or lack of one), as does the ps started
    // through the pipe.
    std::string name = "qgp" + std::to_string(getpid()) + "z";
    const std::string program = sandbox.path("/bin/" + name);
    sandbox.mkdir("/bin");
    ASSERT_EQ(::symlink("/bin/sleep", program.c_str()), 0);
    char seconds[] = "3600";
    char *argv[] = {name.data(), seconds, nullptr};
    // Killed and reaped when the test ends.
    struct Child {
        pid_t pid = -1;
        ~Child() {
            if (pid > 0)
                ::kill(pid, SIGKILL), ::waitpid(pid, nullptr, 0);
        }
    } child;
    // posix_spawn returns once the child has replaced its image, so the
    // listing already shows it by its new name.
    ASSERT_EQ(posix_spawn(&child.pid, program.c_str(), nullptr, nullptr, argv, environ), 0);

    qorcfg::os::set_runner(nullptr);
    EXPECT_EQ(get_pid(name.c_str()), child.pid);
    EXPECT_EQ(get_pid(("qorcfg-absent-process-" + name).c_str()), 0);
}

TEST_F(ProcessTest, QorSystemRunsLineAsBuiltAndReturnsRawStatus) {
    const std::pair<std::string, int> cases[] = {
        {"/etc/rc.d/rc.wlan restart 3", 0},
        {"/bin/rm -f /tmp/config.xml", 256},  // system()'s status, not the exit code
        {"echo \"a  b\" > /tmp/x; kill -USR2 `cat /var/run/snmpd.pid` | true", 512},
        {"/bin/echo " + std::string(4000, 'L'), 3 << 8},
    };
    std::vector<std::string> expected;
    for (const auto &[line, status] : cases) {
        sandbox.answer(line, "", status);
        EXPECT_EQ(qor_system(line.c_str()), status) << line.substr(0, 60);
        expected.push_back("system: " + line);
    }
    EXPECT_EQ(qor_system(nullptr), 1);  // runs nothing
    EXPECT_EQ(sandbox.runs(), expected);
    sandbox.runner().answer("/sbin/firewall_mod.sh", Reply{"", 0, /*fail=*/true});
    EXPECT_EQ(qor_system("/sbin/firewall_mod.sh start"), -1);

    qorcfg::os::set_runner(nullptr);  // the real shell
    const int failed = qor_system("exit 3");
    ASSERT_TRUE(WIFEXITED(failed));
    EXPECT_EQ(WEXITSTATUS(failed), 3);
    EXPECT_EQ(qor_system("exit 0"), 0);
}

std::string rc_command(const std::string &name) {
    return ". /etc/rc.d/rc.env; echo -n \"$" + name + "\"";
}

// Calls get_rc_env into a buffer of `size` bytes followed by guard bytes and
// checks that the guard bytes are untouched.
std::string rc_env(const char *name, int size) {
    std::vector<char> buf(static_cast<size_t>(size) + 64, '#');
    char *result = get_rc_env(name, buf.data(), size);
    EXPECT_EQ(result, buf.data());
    EXPECT_EQ(std::string(buf.end() - 64, buf.end()), std::string(64, '#'))
        << "written beyond a buffer of " << size;
    return result != nullptr ? std::string(result) : "<null>";
}

TEST_F(ProcessTest, GetRcEnvReadsOneLineCutToTheBufferOrRefuses) {
    std::string long_value;
    for (int i = 0; i < 300; ++i)
        long_value += static_cast<char>('a' + i % 26);
    const std::string short_value = "192.168.1.1";
    sandbox.answer(rc_command("LAN_IPADDR"), short_value);
    sandbox.answer(rc_command("SSID_LIST"), long_value);
    sandbox.answer(rc_command("BANNER"), "first\nsecond\n");
    sandbox.runner().answer(rc_command("BROKEN"), Reply{"10.0.0.1", 0, /*fail=*/true});
    const std::tuple<const char *, std::string, int> cases[] = {
        {"LAN_IPADDR", "", 1},
        {"LAN_IPADDR", "192", 4},
        {"LAN_IPADDR", short_value, 255},
        {"LAN_IPADDR", short_value, 300},
        {"SSID_LIST", long_value.substr(0, 254), 255},
        {"SSID_LIST", long_value.substr(0, 255), 256},
        {"SSID_LIST", long_value.substr(0, 255), 300},  // one line of at most 255 is read
        {"BANNER", "first\n", 256},                     // the first line only
        {"UNDEFINED_VAR", "", 256},                     // unanswered: echo prints nothing
    };
    std::vector<std::string> expected;  // one pipe per call
    for (const auto &[name, value, size] : cases) {
        EXPECT_EQ(rc_env(name, size), value) << name << ", size " << size;
        expected.push_back("pipe: " + rc_command(name));
    }

    // Refused: the name, the size, and the first byte of the buffer
    // afterwards (a present buffer is emptied first unless the size leaves
    // no room); the last call runs, but its pipe cannot be opened.
    const std::tuple<const char *, int, char> refused[] = {
        {nullptr, 32, '\0'},     {"", 32, '\0'},       {"LAN_IPADDR", 0, '#'},
        {"LAN_IPADDR", -1, '#'}, {"BROKEN", 32, '\0'},
    };
    for (const auto &[name, size, first] : refused) {
        std::vector<char> buf(64, '#');
        EXPECT_EQ(get_rc_env(name, buf.data(), size), nullptr) << size;
        EXPECT_EQ(buf[0], first) << size;
    }
    EXPECT_EQ(get_rc_env("LAN_IPADDR", nullptr, 32), nullptr);
    expected.push_back("pipe: " + rc_command("BROKEN"));
    EXPECT_EQ(sandbox.runs(), expected);
}

TEST_F(ProcessTest, GetFileContentGivesFirstLineCutsProcVersionReportsUnopenable) {
    const std::tuple<const char *, std::string, std::string> cases[] = {
        {"/etc/product.info", "model=QX100\nrev=2\n", "model=QX100\n"},
        {"/proc/version",
         "Linux version 2.6.31 (builder@lab) (gcc version 4.3.3 (GCC) ) #1 PREEMPT\n",
         "Linux version 2.6.31 "},
        {"/proc/version", "Linux version 5.4.0 #1 SMP\n", "Linux version 5.4.0 #1 SMP\n"},
        {"/tmp/proc/version", "kept (whole)\n", "kept (whole)\n"},  // only the exact path is cut
        {"/etc/last_line", "no newline", "no newline"},
        {"/etc/huge", std::string(1000, 'h') + "\nsecond\n", std::string(255, 'h')},
    };
    CaptureOutput err(STDERR_FILENO);
    for (const auto &[path, content, expected] : cases) {
        SCOPED_TRACE(path);
        sandbox.write(path, content);
        std::vector<char> buf(512, '#');
        EXPECT_EQ(get_file_content(path, buf.data()), 0);
        EXPECT_EQ(std::string(buf.data()), expected);
        EXPECT_EQ(std::string(buf.begin() + 256, buf.end()), std::string(256, '#'));
    }
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(sandbox.commands().empty());

    // A file that is missing or cannot be opened is reported.
    std::vector<char> buf(512, '#');
    const auto report = [&buf](const char *path) {
        return stderr_of([&] { EXPECT_EQ(get_file_content(path, buf.data()), -11) << path; });
    };
    EXPECT_EQ(report("/etc/absent.conf"), "can not open file : /etc/absent.conf\n");
    qorcfg::os::fail_nth(Call::open, 1, EACCES);
    EXPECT_EQ(report("/etc/product.info"), "can not open file : /etc/product.info\n");
}

}  // namespace
