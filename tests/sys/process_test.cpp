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
#include "tests/support/fixture_files.h"
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

// The listing is read through one read pipe of exactly "/bin/ps" per call
// (its reading is the parser's, tested on captured listings).
TEST_F(ProcessTest, GetPidReadsTheListingOfPs) {
    sandbox.answer(kPs, qorcfg::test::fixture("sys/fixtures/ps_device.txt"));
    EXPECT_EQ(get_pid("hostapd"), 640);
    EXPECT_EQ(get_pid("no_such_daemon"), 0);
    const auto &run = sandbox.runner().commands();
    ASSERT_EQ(run.size(), 2u);
    for (const auto &command : run) {
        EXPECT_EQ(command.kind, Command::pipe);
        EXPECT_EQ(command.line, kPs);
    }

    sandbox.answer(kPs, "", 1);  // a failing ps still gives a readable pipe
    EXPECT_EQ(get_pid("init"), 0);
    sandbox.runner().answer(kPs, Reply{"  1 init\n", 0, /*fail=*/true});
    EXPECT_EQ(get_pid("init"), -1);
    sandbox.answer(kPs, "  812 init\n");
    qorcfg::os::fail_nth(Call::popen, 1, EMFILE);
    EXPECT_EQ(get_pid("init"), -1);
    EXPECT_EQ(get_pid("init"), 812);  // the next listing is read again
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

    EXPECT_EQ(qor_system(nullptr), 1);  // runs nothing
    EXPECT_EQ(run.size(), std::size(cases));
    sandbox.runner().answer("/sbin/firewall_mod.sh", Reply{"", 0, /*fail=*/true});
    EXPECT_EQ(qor_system("/sbin/firewall_mod.sh start"), -1);

    qorcfg::os::set_runner(nullptr);  // the real shell
    const int failed = qor_system("exit 3");
    ASSERT_TRUE(WIFEXITED(failed));
    EXPECT_EQ(WEXITSTATUS(failed), 3);
    EXPECT_EQ(qor_system("exit 0"), 0);
}

// ---- get_rc_env --------------------------------------------------------------

std::string rc_command(const std::string &name) {
    return ". /etc/rc.d/rc.env; echo -n \"$" + name + "\"";
}

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

TEST_F(ProcessTest, GetRcEnvReadsOneLineCutToTheBuffer) {
    std::string long_value;
    for (int i = 0; i < 300; ++i)
        long_value += static_cast<char>('a' + i % 26);
    const std::string short_value = "192.168.1.1";
    sandbox.answer(rc_command("LAN_IPADDR"), short_value);
    sandbox.answer(rc_command("SSID_LIST"), long_value);
    sandbox.answer(rc_command("BANNER"), "first\nsecond\n");
    const struct {
        const char *name;
        const std::string value;
        int size;
    } cases[] = {
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
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.name) + ", size " + std::to_string(c.size));
        EXPECT_EQ(rc_env(c.name, c.size), c.value);
        ASSERT_FALSE(sandbox.runner().commands().empty());
        EXPECT_EQ(sandbox.runner().commands().back().kind, Command::pipe);
        EXPECT_EQ(sandbox.runner().commands().back().line, rc_command(c.name));
    }
    EXPECT_EQ(sandbox.commands().size(), std::size(cases));
}

TEST_F(ProcessTest, GetRcEnvRefusesBadArgumentsAndFailingPipe) {
    std::vector<char> buf(64, '#');
    EXPECT_EQ(get_rc_env(nullptr, buf.data(), 32), nullptr);
    EXPECT_EQ(buf[0], '\0');  // a present buffer is emptied first
    buf.assign(64, '#');
    EXPECT_EQ(get_rc_env("", buf.data(), 32), nullptr);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(get_rc_env("LAN_IPADDR", nullptr, 32), nullptr);
    for (int size : {0, -1}) {
        buf.assign(64, '#');
        EXPECT_EQ(get_rc_env("LAN_IPADDR", buf.data(), size), nullptr) << size;
        EXPECT_EQ(buf[0], '#') << "size " << size << " must leave the buffer alone";
    }
    EXPECT_TRUE(sandbox.commands().empty());

    sandbox.runner().answer(rc_command("LAN_IPADDR"), Reply{"10.0.0.1", 0, /*fail=*/true});
    buf.assign(64, '#');
    EXPECT_EQ(get_rc_env("LAN_IPADDR", buf.data(), 32), nullptr);
    EXPECT_EQ(buf[0], '\0');
}

// ---- get_file_content --------------------------------------------------------

TEST_F(ProcessTest, GetFileContentGivesFirstLineAndCutsProcVersion) {
    const struct {
        const char *path;
        std::string content;
        std::string expected;
    } cases[] = {
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
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path);
        sandbox.write(c.path, c.content);
        std::vector<char> buf(512, '#');
        EXPECT_EQ(get_file_content(c.path, buf.data()), 0);
        EXPECT_EQ(std::string(buf.data()), c.expected);
        EXPECT_EQ(std::string(buf.begin() + 256, buf.end()), std::string(256, '#'));
    }
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(sandbox.commands().empty());
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
