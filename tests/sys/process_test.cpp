// tests/sys/process_test.cpp - finding a process by name in the "/bin/ps"
// listing, running shell commands, reading one rc environment variable and
// reading the first line of a file.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "os/os.h"
#include "qorcfg.h"
#include "tests/support/sandbox.h"

namespace {

using qorcfg::os::Call;
using qorcfg::os::Command;
using qorcfg::os::Reply;
using qorcfg::test::CaptureOutput;

class ProcessTest : public qorcfg::test::SandboxTest {
protected:
    // The one diagnostic of these helpers goes through qorcfg_print, which is
    // silenced only by QORCFG_PRINT_ERR=0; keep the test independent of the
    // environment it is started from.
    void SetUp() override { setenv("QORCFG_PRINT_ERR", "1", 1); }
};

// ---- get_pid -----------------------------------------------------------------

constexpr const char *kPs = "/bin/ps";

// A device-style listing: right-aligned PIDs, names also occurring in other
// lines' arguments, a line without leading blanks, runs of blanks between
// fields and a last line without a newline.
constexpr const char *kListing =
    "  PID USER       VSZ STAT COMMAND\n"
    "    1 admin     1412 S    init\n"
    "  214 admin      980 S    /sbin/syslogd -n\n"
    " 1502 admin     2100 S    hostapd /var/run/hostapd-ath0.conf\n"
    "  640 admin      300 S    hostapd_cli -a /bin/wpa_action\n"
    "  812 admin     1200 S    /sbin/udhcpc -s /etc/init.d/dhcp.script\n"
    "77 admin 900 S qorsic\n"
    "    903    admin    1100 S    qorcfgd   -f\n"
    "  950 admin      700 R    watchdog_tail";

TEST_F(ProcessTest, GetPidTakesFirstFieldOfLastLineContainingName) {
    sandbox.answer(kPs, kListing);
    const struct {
        const char *name;
        int pid;
    } cases[] = {
        {"init", 812},           // "init" itself, then "/etc/init.d" in a later line
        {"hostapd", 640},        // the later line wins even with a lower PID
        {"syslogd", 214},        // matched in the middle of a line
        {"ath0", 1502},          // matched inside an argument
        {"qorsic", 77},          // no blank before the first field
        {"qorcfgd", 903},        // runs of blanks give no empty tokens
        {"watchdog_tail", 950},  // last line without a newline
        {"admin", 950},          // every line but the header matches
        {"no_such_daemon", 0},   // nothing matches: 0, not -1
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(get_pid(c.name), c.pid);
    }
    // Every call reads the listing through one read pipe of exactly "/bin/ps".
    const auto &run = sandbox.runner().commands();
    ASSERT_EQ(run.size(), std::size(cases));
    for (const auto &command : run) {
        EXPECT_EQ(command.kind, Command::pipe);
        EXPECT_EQ(command.line, kPs);
    }
}

TEST_F(ProcessTest, GetPidSurvivesLongLines) {
    // Lines far longer than the 256-byte line buffer neither overflow it nor
    // hide the lines after them.
    const std::string args(1000, 'x');
    sandbox.answer(kPs, "  300 admin 100 S /bin/longjob " + args + "\n" + "  301 admin 100 S " +
                            args + "\n" + "  302 admin 100 S wanted\n");
    EXPECT_EQ(get_pid("longjob"), 300);
    EXPECT_EQ(get_pid("wanted"), 302);
}

TEST_F(ProcessTest, GetPidOfEmptyListingIsZero) {
    sandbox.answer(kPs, "", 1);  // a failing ps still gives a readable pipe
    EXPECT_EQ(get_pid("init"), 0);
}

TEST_F(ProcessTest, GetPidReportsUnreadableProcessList) {
    sandbox.runner().answer(kPs, Reply{kListing, 0, /*fail=*/true});
    EXPECT_EQ(get_pid("init"), -1);

    qorcfg::os::Runner listing;
    listing.answer(kPs, kListing);
    qorcfg::os::set_runner(&listing);
    qorcfg::os::fail_nth(Call::popen, 1, EMFILE);
    EXPECT_EQ(get_pid("init"), -1);
    EXPECT_EQ(get_pid("init"), 812);  // the next listing is read again
    qorcfg::os::set_runner(&sandbox.runner());
}

// A child of this test running "sleep 3600" under a name no other process has
// (the listing shows the program's file name, and some listings its argv[0],
// so both carry the name). Killed and reaped when the test ends.
class Sleeper {
public:
    Sleeper(const std::string &program, const std::string &name) {
        std::vector<char> arg0(name.begin(), name.end());
        arg0.push_back('\0');
        char seconds[] = "3600";
        char *argv[] = {arg0.data(), seconds, nullptr};
        // posix_spawn returns once the child has replaced its image, so the
        // listing already shows it by its new name.
        if (posix_spawn(&pid_, program.c_str(), nullptr, nullptr, argv, environ) != 0)
            pid_ = -1;
    }
    ~Sleeper() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    Sleeper(const Sleeper &) = delete;
    Sleeper &operator=(const Sleeper &) = delete;
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

TEST_F(ProcessTest, GetPidFindsOwnChildInRealListing) {
    // The listing of the real ps holds the processes of this user on this
    // terminal, or those without a terminal when there is none; the child
    // shares this process's terminal (or lack of one), as does the ps started
    // through the pipe. The trailing "z" keeps one test's name from being a
    // prefix of another concurrently running test's name.
    const std::string name = "qgp" + std::to_string(getpid()) + "z";
    sandbox.mkdir("/bin");
    const std::string program = sandbox.path("/bin/" + name);
    ASSERT_EQ(::symlink("/bin/sleep", program.c_str()), 0);
    Sleeper child(program, name);
    ASSERT_GT(child.pid(), 0);

    qorcfg::os::set_runner(nullptr);
    EXPECT_EQ(get_pid(name.c_str()), child.pid());
    EXPECT_EQ(get_pid(("qorcfg-absent-process-" + name).c_str()), 0);
}

// ---- qor_system --------------------------------------------------------------

TEST_F(ProcessTest, QorSystemRunsLineAsBuiltAndReturnsRawStatus) {
    const std::string long_line = "/bin/echo " + std::string(4000, 'L');
    const struct {
        std::string line;
        int status;
    } cases[] = {
        {"/etc/rc.d/rc.wlan restart 3", 0},
        {"/bin/rm -f /tmp/config.xml", 256},  // system()'s status, not the exit code
        {"echo \"a  b\" > /tmp/x; kill -USR2 `cat /var/run/snmpd.pid` | true", 512},
        {long_line, 3 << 8},
    };
    for (const auto &c : cases)
        sandbox.answer(c.line, "", c.status);
    for (const auto &c : cases)
        EXPECT_EQ(qor_system(c.line.c_str()), c.status) << c.line.substr(0, 60);

    const auto &run = sandbox.runner().commands();
    ASSERT_EQ(run.size(), std::size(cases));
    for (size_t i = 0; i < run.size(); ++i) {
        EXPECT_EQ(run[i].kind, Command::system);
        EXPECT_EQ(run[i].line, cases[i].line);
    }
}

TEST_F(ProcessTest, QorSystemNullRunsNothingAndShellFailureIsPassedOn) {
    EXPECT_EQ(qor_system(nullptr), 1);
    EXPECT_TRUE(sandbox.commands().empty());

    sandbox.runner().answer("/sbin/firewall_mod.sh", Reply{"", 0, /*fail=*/true});
    EXPECT_EQ(qor_system("/sbin/firewall_mod.sh start"), -1);
}

TEST_F(ProcessTest, QorSystemReturnsRealShellStatus) {
    qorcfg::os::set_runner(nullptr);
    const int failed = qor_system("exit 3");
    ASSERT_TRUE(WIFEXITED(failed));
    EXPECT_EQ(WEXITSTATUS(failed), 3);
    EXPECT_EQ(qor_system("exit 0"), 0);
}

// ---- get_rc_env --------------------------------------------------------------

const std::string kLanIpCommand = ". /etc/rc.d/rc.env; echo -n \"$LAN_IPADDR\"";

// Calls get_rc_env into a buffer of `size` bytes followed by guard bytes and
// checks that the guard bytes are untouched.
std::string rc_env(const char *name, int size) {
    std::vector<char> buf(static_cast<size_t>(size) + 64, '#');
    char *result = get_rc_env(name, buf.data(), size);
    EXPECT_EQ(result, buf.data());
    for (size_t i = static_cast<size_t>(size); i < buf.size(); ++i)
        if (buf[i] != '#') {
            ADD_FAILURE() << "byte " << i << " written beyond a buffer of " << size;
            break;
        }
    return result != nullptr ? std::string(result) : "<null>";
}

TEST_F(ProcessTest, GetRcEnvCutsValueToBufferSize) {
    std::string long_value;
    for (int i = 0; i < 300; ++i)
        long_value += static_cast<char>('a' + i % 26);
    const std::string short_value = "192.168.1.1";
    const std::string long_command = ". /etc/rc.d/rc.env; echo -n \"$SSID_LIST\"";
    sandbox.answer(kLanIpCommand, short_value);
    sandbox.answer(long_command, long_value);
    const struct {
        const char *name;
        const std::string &command;
        const std::string &value;
        int size;
        size_t length;
    } cases[] = {
        {"LAN_IPADDR", kLanIpCommand, short_value, 1, 0},
        {"LAN_IPADDR", kLanIpCommand, short_value, 4, 3},
        {"LAN_IPADDR", kLanIpCommand, short_value, 255, 11},
        {"LAN_IPADDR", kLanIpCommand, short_value, 256, 11},
        {"LAN_IPADDR", kLanIpCommand, short_value, 300, 11},
        {"SSID_LIST", long_command, long_value, 1, 0},
        {"SSID_LIST", long_command, long_value, 4, 3},
        {"SSID_LIST", long_command, long_value, 255, 254},
        {"SSID_LIST", long_command, long_value, 256, 255},
        {"SSID_LIST", long_command, long_value, 300, 255},  // one line of at most 255 is read
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.name) + ", size " + std::to_string(c.size));
        EXPECT_EQ(rc_env(c.name, c.size), c.value.substr(0, c.length));
        ASSERT_FALSE(sandbox.runner().commands().empty());
        EXPECT_EQ(sandbox.runner().commands().back().kind, Command::pipe);
        EXPECT_EQ(sandbox.runner().commands().back().line, c.command);
    }
    EXPECT_EQ(sandbox.commands().size(), std::size(cases));
}

TEST_F(ProcessTest, GetRcEnvReadsOneLineAndEmptyForUndefined) {
    // Unanswered: rc.env does not define the variable, echo prints nothing.
    EXPECT_EQ(rc_env("UNDEFINED_VAR", 256), "");
    EXPECT_EQ(sandbox.commands(),
              std::vector<std::string>{". /etc/rc.d/rc.env; echo -n \"$UNDEFINED_VAR\""});

    sandbox.answer(". /etc/rc.d/rc.env; echo -n \"$BANNER\"", "first\nsecond\n");
    const std::string banner = rc_env("BANNER", 256);
    EXPECT_EQ(banner.rfind("first", 0), 0u) << banner;
    EXPECT_EQ(banner.find("second"), std::string::npos) << banner;
}

TEST_F(ProcessTest, GetRcEnvRefusesBadArgumentsAndFailingPipe) {
    std::vector<char> buf(64, '#');
    EXPECT_EQ(get_rc_env(nullptr, buf.data(), 32), nullptr);
    EXPECT_EQ(buf[0], '\0');  // a present buffer is emptied first
    buf.assign(64, '#');
    EXPECT_EQ(get_rc_env("", buf.data(), 32), nullptr);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(get_rc_env("LAN_IPADDR", nullptr, 32), nullptr);
    for (int size : {0, -1, -256}) {
        buf.assign(64, '#');
        EXPECT_EQ(get_rc_env("LAN_IPADDR", buf.data(), size), nullptr) << size;
        EXPECT_EQ(buf[0], '#') << "size " << size << " must leave the buffer alone";
    }
    EXPECT_TRUE(sandbox.commands().empty());

    sandbox.runner().answer(kLanIpCommand, Reply{"10.0.0.1", 0, /*fail=*/true});
    buf.assign(64, '#');
    EXPECT_EQ(get_rc_env("LAN_IPADDR", buf.data(), 32), nullptr);
    EXPECT_EQ(buf[0], '\0');

    // Unanswered, WAN_IPADDR would read as an empty value; the pipe fails.
    qorcfg::os::fail_nth(Call::popen, 1, ENFILE);
    buf.assign(64, '#');
    EXPECT_EQ(get_rc_env("WAN_IPADDR", buf.data(), 32), nullptr);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_NE(get_rc_env("WAN_IPADDR", buf.data(), 32), nullptr);
}

// ---- get_file_content --------------------------------------------------------

TEST_F(ProcessTest, GetFileContentGivesFirstLineAndCutsProcVersion) {
    const struct {
        const char *path;
        const char *content;
        const char *expected;
    } cases[] = {
        {"/etc/product.info", "model=QX100\nrev=2\n", "model=QX100\n"},
        {"/proc/version",
         "Linux version 2.6.31 (builder@lab) (gcc version 4.3.3 (GCC) ) #1 PREEMPT\n",
         "Linux version 2.6.31 "},
        {"/proc/version", "Linux version 5.4.0 #1 SMP\n", "Linux version 5.4.0 #1 SMP\n"},
        {"/proc/version", "(no name)\n", ""},
        {"/tmp/proc/version", "kept (whole)\n", "kept (whole)\n"},  // only the exact path is cut
        {"/etc/last_line", "no newline", "no newline"},
    };
    CaptureOutput err(STDERR_FILENO);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path);
        sandbox.write(c.path, c.content);
        std::vector<char> buf(512, '#');
        EXPECT_EQ(get_file_content(c.path, buf.data()), 0);
        EXPECT_STREQ(buf.data(), c.expected);
    }
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(sandbox.commands().empty());
}

TEST_F(ProcessTest, GetFileContentStopsLongLineAtBuffer) {
    sandbox.write("/etc/huge", std::string(1000, 'h') + "\nsecond\n");
    std::vector<char> buf(512, '#');
    ASSERT_EQ(get_file_content("/etc/huge", buf.data()), 0);
    EXPECT_EQ(std::string(buf.data()), std::string(255, 'h'));
    EXPECT_EQ(std::string(buf.begin() + 256, buf.end()), std::string(256, '#'));
}

TEST_F(ProcessTest, GetFileContentReportsUnopenableFile) {
    std::vector<char> buf(512, '#');
    CaptureOutput missing(STDERR_FILENO);
    EXPECT_EQ(get_file_content("/etc/absent.conf", buf.data()), -11);
    EXPECT_EQ(missing.text(), "can not open file : /etc/absent.conf\n");

    sandbox.write("/etc/product.info", "model=QX100\n");
    CaptureOutput refused(STDERR_FILENO);
    qorcfg::os::fail_nth(Call::open, 1, EACCES);
    EXPECT_EQ(get_file_content("/etc/product.info", buf.data()), -11);
    EXPECT_EQ(refused.text(), "can not open file : /etc/product.info\n");
}

}  // namespace
