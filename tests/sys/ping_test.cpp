// tests/sys/ping_test.cpp - starting ping and traceroute in the background
// for the management interface: refused targets, the command lines as built,
// the result files and the background job's process ID.
#include <cerrno>
#include <string>
#include <vector>

#include "os/os.h"
#include "qorcfg.h"
#include "tests/support/sandbox.h"

namespace {

using qorcfg::os::Call;
using qorcfg::os::Command;
using qorcfg::os::Reply;

class PingTest : public qorcfg::test::SandboxTest {};

std::string ping_line(const std::string &target) {
    return "/bin/ping -c 5 " + target + " > /tmp/ping_result 2>&1 &";
}
std::string ping_pid_line(const std::string &target) {
    return "/bin/ping -c 5 " + target + " > /tmp/ping_result 2>&1 & echo $!";
}
std::string trace_pid_line(const std::string &target) {
    return "/usr/bin/traceroute -q 2 -w 2 -m 20 " + target + " > /tmp/trace_result 2>&1 & echo $!";
}

// The characters a target must not contain.
constexpr const char kRefused[] = ";<>\"'@!?&$*";

TEST_F(PingTest, PingRunsInBackgroundAndLeavesOldResult) {
    sandbox.write("/tmp/ping_result", "previous run\n");
    // The shell's status does not matter: the job is only started.
    sandbox.answer(ping_line("10.0.0.1"), "", 256);
    EXPECT_EQ(qor_ping("10.0.0.1"), 0);

    const auto &run = sandbox.runner().commands();
    ASSERT_EQ(run.size(), 1u);
    EXPECT_EQ(run[0].kind, Command::system);
    EXPECT_EQ(run[0].line, "/bin/ping -c 5 10.0.0.1 > /tmp/ping_result 2>&1 &");
    EXPECT_EQ(sandbox.read("/tmp/ping_result"), "previous run\n");
}

TEST_F(PingTest, PingPDeletesResultAndReportsJobPid) {
    sandbox.write("/tmp/ping_result", "previous run\n");
    sandbox.write("/tmp/trace_result", "previous trace\n");
    sandbox.answer(ping_pid_line("192.168.1.20"), "4321\n");
    int pid = -7;
    EXPECT_EQ(qor_ping_p("192.168.1.20", &pid), 0);
    EXPECT_EQ(pid, 4321);
    EXPECT_FALSE(sandbox.exists("/tmp/ping_result"));
    EXPECT_EQ(sandbox.read("/tmp/trace_result"), "previous trace\n");

    // The process ID is optional, and a missing result file is no obstacle.
    EXPECT_EQ(qor_ping_p("192.168.1.20", nullptr), 0);

    const auto &run = sandbox.runner().commands();
    ASSERT_EQ(run.size(), 2u);
    for (const auto &command : run) {
        EXPECT_EQ(command.kind, Command::pipe);
        EXPECT_EQ(command.line, "/bin/ping -c 5 192.168.1.20 > /tmp/ping_result 2>&1 & echo $!");
    }
}

TEST_F(PingTest, TracertPDeletesResultAndReportsJobPid) {
    sandbox.write("/tmp/ping_result", "previous run\n");
    sandbox.write("/tmp/trace_result", "previous trace\n");
    sandbox.answer(trace_pid_line("gateway.lan"), "2718\n");
    int pid = -7;
    EXPECT_EQ(qor_tracert_p("gateway.lan", &pid), 0);
    EXPECT_EQ(pid, 2718);
    EXPECT_FALSE(sandbox.exists("/tmp/trace_result"));
    EXPECT_EQ(sandbox.read("/tmp/ping_result"), "previous run\n");
    EXPECT_EQ(qor_tracert_p("gateway.lan", nullptr), 0);

    const auto &run = sandbox.runner().commands();
    ASSERT_EQ(run.size(), 2u);
    for (const auto &command : run) {
        EXPECT_EQ(command.kind, Command::pipe);
        EXPECT_EQ(command.line,
                  "/usr/bin/traceroute -q 2 -w 2 -m 20 gateway.lan > /tmp/trace_result 2>&1 & "
                  "echo $!");
    }
}

TEST_F(PingTest, JobPidMustBePositive) {
    const struct {
        const char *output;
        int rc;
        int pid;  // stored only on success
    } cases[] = {
        {"917\n", 0, 917},
        {"  65535 extra\n", 0, 65535},
        {"23", 0, 23},
        {"0\n", -8, -7},
        {"", -8, -7},
        {"-12\n", -8, -7},
        {"sh: can't fork\n", -8, -7},
    };
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string("output \"") + c.output + "\"");
        // A different target per case, so that each command line has its own reply.
        const std::string target = "10.0.1." + std::to_string(++n);
        sandbox.answer(ping_pid_line(target), c.output);
        sandbox.answer(trace_pid_line(target), c.output);
        int pid = -7;
        EXPECT_EQ(qor_ping_p(target.c_str(), &pid), c.rc);
        EXPECT_EQ(pid, c.pid);
        pid = -7;
        EXPECT_EQ(qor_tracert_p(target.c_str(), &pid), c.rc);
        EXPECT_EQ(pid, c.pid);
    }
}

TEST_F(PingTest, JobThatCannotStartIsRefused) {
    sandbox.runner().answer(ping_pid_line("10.0.0.1"), Reply{"4321\n", 0, /*fail=*/true});
    sandbox.runner().answer(trace_pid_line("10.0.0.1"), Reply{"4321\n", 0, /*fail=*/true});
    int pid = -7;
    EXPECT_EQ(qor_ping_p("10.0.0.1", &pid), -8);
    EXPECT_EQ(qor_tracert_p("10.0.0.1", &pid), -8);
    EXPECT_EQ(pid, -7);

    sandbox.answer(ping_pid_line("10.0.0.2"), "4321\n");
    sandbox.answer(trace_pid_line("10.0.0.2"), "4321\n");
    qorcfg::os::fail_nth(Call::popen, 1, EAGAIN);
    EXPECT_EQ(qor_ping_p("10.0.0.2", &pid), -8);
    qorcfg::os::fail_nth(Call::popen, 1, EAGAIN);
    EXPECT_EQ(qor_tracert_p("10.0.0.2", &pid), -8);
    EXPECT_EQ(pid, -7);
}

TEST_F(PingTest, TargetsWithShellCharactersAreRefused) {
    // Were a target let through, its job would start and report a process ID.
    sandbox.answer("/bin/ping", "4321\n");
    sandbox.answer("/usr/bin/traceroute", "4321\n");
    for (const char *c = kRefused; *c != '\0'; ++c) {
        const std::string ch(1, *c);
        for (const std::string &target :
             {"10.0.0.1" + ch + " reboot", ch + "10.0.0.1", "10.0.0.1" + ch}) {
            SCOPED_TRACE("target \"" + target + "\"");
            int pid = -7;
            EXPECT_EQ(qor_ping(target.c_str()), -8);
            EXPECT_EQ(qor_ping_p(target.c_str(), &pid), -8);
            EXPECT_EQ(qor_tracert_p(target.c_str(), &pid), -8);
            EXPECT_EQ(pid, -7);
        }
    }
    EXPECT_EQ(sandbox.commands(), std::vector<std::string>{});
}

TEST_F(PingTest, OtherCharactersArePassedOnUnquoted) {
    std::string longest_name;  // a 253-character host name, the longest DNS allows
    for (char label : {'a', 'b', 'c'})
        longest_name += std::string(63, label) + ".";
    longest_name += std::string(61, 'd');
    ASSERT_EQ(longest_name.size(), 253u);

    const std::vector<std::string> targets = {
        "10.0.0.1 -s 1000",      // extra options reach the tool
        "host|cat /etc/passwd",  // pipes are not refused
        "`reboot`",              // nor are back-quotes
        "fe80::1%eth0",
        "%s%s%n%s",  // the target is data, never a format
        "a(b)#~\\=+,[]{}^\t",
        longest_name,
    };
    std::vector<Command> expected;
    for (const auto &target : targets) {
        sandbox.answer(ping_pid_line(target), "55\n");
        sandbox.answer(trace_pid_line(target), "56\n");
        int ping_pid = 0;
        int trace_pid = 0;
        EXPECT_EQ(qor_ping(target.c_str()), 0) << target;
        EXPECT_EQ(qor_ping_p(target.c_str(), &ping_pid), 0) << target;
        EXPECT_EQ(qor_tracert_p(target.c_str(), &trace_pid), 0) << target;
        EXPECT_EQ(ping_pid, 55) << target;
        EXPECT_EQ(trace_pid, 56) << target;
        expected.push_back({Command::system, ping_line(target)});
        expected.push_back({Command::pipe, ping_pid_line(target)});
        expected.push_back({Command::pipe, trace_pid_line(target)});
    }
    const auto &run = sandbox.runner().commands();
    ASSERT_EQ(run.size(), expected.size());
    for (size_t i = 0; i < run.size(); ++i) {
        EXPECT_EQ(run[i].kind, expected[i].kind) << i;
        EXPECT_EQ(run[i].line, expected[i].line) << i;
    }
}

}  // namespace
