// tests/sys/ping_test.cpp - starting ping and traceroute in the background
// for the management interface: refused targets, the command lines as built,
// the result files and the background job's process ID.
#include "tests/support/fixtures.h"

namespace {

using qorcfg::os::Call;
using qorcfg::os::Reply;
using PingTest = qorcfg::test::SandboxTest;

std::string ping_line(const std::string &target) {
    return "/bin/ping -c 5 " + target + " > /tmp/ping_result 2>&1 &";
}
std::string ping_pid_line(const std::string &target) {
    return ping_line(target) + " echo $!";
}
std::string trace_pid_line(const std::string &target) {
    return "/usr/bin/traceroute -q 2 -w 2 -m 20 " + target + " > /tmp/trace_result 2>&1 & echo $!";
}

// Every target that is not refused reaches the tool as it stands, unquoted;
// the _p forms delete their own result file first and report the job's
// process ID, qor_ping leaves the old result.
TEST_F(PingTest, TargetsReachTheToolsAsTheyStand) {
    // A 253-character host name, the longest DNS allows.
    const std::string longest_name = std::string(63, 'a') + "." + std::string(63, 'b') + "." +
                                     std::string(63, 'c') + "." + std::string(61, 'd');
    const std::vector<std::string> targets = {
        "10.0.0.1",
        "10.0.0.1 -s 1000",      // extra options reach the tool
        "host|cat /etc/passwd",  // pipes are not refused
        "`reboot`",              // nor are back-quotes
        "fe80::1%eth0",
        "%s%s%n%s",  // the target is data, never a format
        "a(b)#~\\=+,[]{}^\t",
        longest_name,
    };
    std::vector<std::string> expected;
    for (const auto &target : targets) {
        SCOPED_TRACE(target);
        sandbox.write("/tmp/ping_result", "previous ping\n");
        sandbox.write("/tmp/trace_result", "previous trace\n");
        sandbox.answer(ping_line(target), "", 256);  // the shell's status does not matter
        sandbox.answer(ping_pid_line(target), "55\n");
        sandbox.answer(trace_pid_line(target), "  56 extra\n");
        EXPECT_EQ(qor_ping(target.c_str()), 0);
        EXPECT_EQ(sandbox.read("/tmp/ping_result"), "previous ping\n");
        int ping_pid = 0;
        int trace_pid = 0;
        EXPECT_EQ(qor_ping_p(target.c_str(), &ping_pid), 0);
        EXPECT_FALSE(sandbox.exists("/tmp/ping_result"));
        EXPECT_EQ(sandbox.read("/tmp/trace_result"), "previous trace\n");
        EXPECT_EQ(qor_tracert_p(target.c_str(), &trace_pid), 0);
        EXPECT_FALSE(sandbox.exists("/tmp/trace_result"));
        EXPECT_EQ(ping_pid, 55);
        EXPECT_EQ(trace_pid, 56);
        EXPECT_EQ(qor_ping_p(target.c_str(), nullptr), 0);  // the process ID is optional
        expected.insert(expected.end(),
                        {"system: " + ping_line(target), "pipe: " + ping_pid_line(target),
                         "pipe: " + trace_pid_line(target), "pipe: " + ping_pid_line(target)});
    }
    EXPECT_EQ(sandbox.runs(), expected);
}

TEST_F(PingTest, TargetsWithShellCharactersAndJobsThatDoNotStartAreRefused) {
    // Were a target let through, its job would start and report a process ID.
    sandbox.answer("/bin/ping", "4321\n");
    sandbox.answer("/usr/bin/traceroute", "4321\n");
    for (const char *c = ";<>\"'@!?&$*"; *c != '\0'; ++c) {
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
    EXPECT_EQ(qor_ping(nullptr), -8);
    EXPECT_EQ(sandbox.commands(), std::vector<std::string>{});

    // A job that does not start (no positive process ID printed, or no
    // pipe) is refused too: -8 and no ID stored.
    int n = 0;
    for (const std::string output : {"0\n", "", "-12\n", "sh: can't fork\n"}) {
        const std::string target = "10.0.1." + std::to_string(++n);
        sandbox.answer(ping_pid_line(target), output);
        sandbox.answer(trace_pid_line(target), output);
        int pid = -7;
        EXPECT_EQ(qor_ping_p(target.c_str(), &pid), -8) << output;
        EXPECT_EQ(qor_tracert_p(target.c_str(), &pid), -8) << output;
        EXPECT_EQ(pid, -7);
    }
    sandbox.runner().answer(ping_pid_line("10.0.0.1"), Reply{"4321\n", 0, /*fail=*/true});
    int pid = -7;
    EXPECT_EQ(qor_ping_p("10.0.0.1", &pid), -8);
    sandbox.answer(trace_pid_line("10.0.0.2"), "4321\n");
    qorcfg::os::fail_nth(Call::popen, 1, EAGAIN);
    EXPECT_EQ(qor_tracert_p("10.0.0.2", &pid), -8);
    EXPECT_EQ(pid, -7);
}

}  // namespace
