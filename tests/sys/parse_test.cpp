// tests/sys/parse_test.cpp - the parsers of tool output, on captured
// listings: the process finder's reading of ps, and a background job's
// process ID.
#include <string>

#include "sys/parse.h"
#include "tests/support/fixture_files.h"
#include "tests/support/sandbox.h"

namespace {

using qorcfg::sys::job_pid;
using qorcfg::sys::pid_in_listing;
using qorcfg::test::fixture;

TEST(ToolOutput, PidIsTheFirstFieldOfTheLastLineHoldingTheName) {
    const std::string device = fixture("sys/fixtures/ps_device.txt");
    const std::string desktop = fixture("sys/fixtures/ps_procps.txt");
    const std::string args(1000, 'x');  // lines far longer than the 256-byte line buffer
    const std::string long_lines = "  300 admin 100 S /bin/longjob " + args + "\n  301 admin S " +
                                   args + "\n  302 admin 100 S wanted\n";
    const struct {
        const std::string &listing;
        const char *name;
        int pid;
    } cases[] = {
        {device, "init", 812},           // "init" itself, then "/etc/init.d" in a later line
        {device, "hostapd", 640},        // the later line wins even with a lower PID
        {device, "syslogd", 214},        // matched in the middle of a line
        {device, "ath0", 1502},          // matched inside an argument
        {device, "qorsic", 77},          // no blank before the first field
        {device, "qorcfgd", 903},        // runs of blanks give no empty tokens
        {device, "watchdog_tail", 950},  // last line without a newline
        {device, "admin", 950},          // every line but the header matches
        {device, "no_such_daemon", 0},   // nothing matches: 0, not -1
        {device, nullptr, 0},
        {desktop, "qorcfgd", 4388},
        {desktop, "PID", 0},  // the header's first field is no number
        {long_lines, "longjob", 300},
        {long_lines, "wanted", 302},  // long lines hide nothing after them
        {long_lines, "xxxx", 0},      // the rest of a long line is a "line" of its own
        {"", "init", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name != nullptr ? c.name : "(null)");
        EXPECT_EQ(pid_in_listing(c.listing, c.name), c.pid);
    }
}

TEST(ToolOutput, JobPidIsTheNumberPrinted) {
    const struct {
        const char *output;
        int pid;
    } cases[] = {{"917\n", 917}, {"  65535 extra\n", 65535}, {"23", 23}, {"0\n", 0},
                 {"", 0},        {"sh: can't fork\n", 0}};
    for (const auto &c : cases)
        EXPECT_EQ(job_pid(c.output), c.pid) << c.output;
}

}  // namespace
