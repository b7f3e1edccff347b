// tests/store/print_test.cpp - diagnostic printing: the QORCFG_PRINT_ERR
// switch, read once per process, and the debug lines switched on by
// set_qorcfg_debug.
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "qorcfg.h"
#include "store/print.h"
#include "tests/support/sandbox.h"

namespace {

using qorcfg::test::CaptureOutput;

constexpr const char *kSwitch = "QORCFG_PRINT_ERR";

// Writes one debug line from a function of known name; returns the source
// line of the debug statement.
int emit_debug_probe(int value) {
    QORCFG_DEBUG("probe value=%d\n", value);
    return __LINE__ - 1;
}

// A POSIX extended regular expression matching `text` literally.
std::string literal(std::string_view text) {
    std::string pattern;
    for (char c : text) {
        if (c != '\0' && std::strchr(".[]{}()\\*+?^$|", c) != nullptr)
            pattern += '\\';
        pattern += c;
    }
    return pattern;
}

std::string shown(const char *value) {
    return value == nullptr ? std::string("unset") : "\"" + std::string(value) + "\"";
}

// What the two probe prints write when printing is on.
const std::string kFirst = "probe_function>code=-11 name=wlan0\n";
const std::string kSecond = "rate  12.5% [q] 0xff";  // no newline is added

struct SwitchCase {
    const char *at_start;     // QORCFG_PRINT_ERR before the first print (null: unset)
    const char *after_first;  // changed to this after the first print (null: unchanged)
    bool on;
};

class PrintTest : public qorcfg::test::SandboxTest {
protected:
    // The switch is decided once per process, so every environment setting
    // is tried in a forked child ("fast" death tests: a fork, no re-exec, so
    // it also works under user-mode emulation). The parent may have printed
    // (other tests of the program run first when it runs as one process), so
    // each child first forgets the decision, as a new process starts.
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "fast"); }
    static void fresh_process() { qorcfg::store::forget_print_switch(); }
    void TearDown() override { set_qorcfg_debug(0); }

    // Ends a child started by EXPECT_EXIT with status 0 after writing
    // `report` to standard error for the parent to match. _Exit skips the
    // fixture's teardown: the device root is the parent's, which removes it.
    [[noreturn]] void finish_child(const std::string &report) {
        std::fwrite(report.data(), 1, report.size(), stderr);
        std::fflush(stderr);
        std::_Exit(0);
    }

    [[noreturn]] void print_twice(const SwitchCase &c) {
        fresh_process();
        if (c.at_start != nullptr)
            setenv(kSwitch, c.at_start, 1);
        else
            unsetenv(kSwitch);
        int first = -1;
        int second = -1;
        std::string text;
        {
            CaptureOutput err(STDERR_FILENO);
            first = qorcfg_print("%s>code=%d name=%s\n", "probe_function", -11, "wlan0");
            if (c.after_first != nullptr)
                setenv(kSwitch, c.after_first, 1);
            second = qorcfg_print("rate %5.1f%% [%c] 0x%x", 12.5, 'q', 255u);
            text = err.text();
        }
        finish_child("counts=" + std::to_string(first) + "," + std::to_string(second) + " text=[" +
                     text + "]");
    }

    [[noreturn]] void print_long_message() {
        fresh_process();
        unsetenv(kSwitch);
        const std::string message(5000, 'm');
        int count = -1;
        std::string text;
        {
            CaptureOutput err(STDERR_FILENO);
            count = qorcfg_print("%s|\n", message.c_str());
            text = err.text();
        }
        finish_child("count=" + std::to_string(count) + " length=" + std::to_string(text.size()) +
                     " whole=" + (text == message + "|\n" ? "yes" : "no"));
    }

    [[noreturn]] void debug_while_silenced() {
        fresh_process();
        setenv(kSwitch, "0", 1);
        set_qorcfg_debug(1);
        int count = -1;
        std::string text;
        {
            CaptureOutput err(STDERR_FILENO);
            count = qorcfg_print("hidden %d\n", 1);
            emit_debug_probe(7);
            text = err.text();
        }
        finish_child("count=" + std::to_string(count) + " text=[" + text + "]");
    }
};

TEST_F(PrintTest, PrintSwitchIsReadOnceFromEnvironment) {
    const SwitchCase cases[] = {
        {nullptr, nullptr, true},  // absent: on
        {"0", nullptr, false},     // exactly "0": off
        {"1", nullptr, true},     {"", nullptr, true},   {"00", nullptr, true},
        {" 0", nullptr, true},    {"0 ", nullptr, true}, {"off", nullptr, true},
        {"0", "1", false},  // decided at the first print, for the whole process
        {nullptr, "0", true},     {"1", "0", true},
    };
    const std::string on_report = "counts=" + std::to_string(kFirst.size()) + "," +
                                  std::to_string(kSecond.size()) + " text=[" + kFirst + kSecond +
                                  "]";
    for (const auto &c : cases) {
        SCOPED_TRACE("at start " + shown(c.at_start) + ", after the first print " +
                     shown(c.after_first));
        EXPECT_EXIT(print_twice(c), ::testing::ExitedWithCode(0),
                    literal(c.on ? on_report : "counts=0,0 text=[]"));
    }
}

TEST_F(PrintTest, LongMessageIsPrintedWhole) {
    EXPECT_EXIT(print_long_message(), ::testing::ExitedWithCode(0),
                literal("count=5002 length=5002 whole=yes"));
}

TEST_F(PrintTest, DebugLinesIgnorePrintSwitch) {
    const int line = emit_debug_probe(0);  // debugging is off here: only the line is wanted
    EXPECT_EXIT(debug_while_silenced(), ::testing::ExitedWithCode(0),
                literal("count=0 text=[<DEBUG:emit_debug_probe:" + std::to_string(line) +
                        "> probe value=7\n]"));
}

TEST_F(PrintTest, DebuggingStartsOff) {
    EXPECT_EXIT(finish_child("debug=[" + std::to_string(enable_qorcfg_debug) + "]"),
                ::testing::ExitedWithCode(0), literal("debug=[0]"));
}

TEST_F(PrintTest, SetQorcfgDebugSetsExportedFlagAndReturnsValue) {
    for (int value : {1, 0, 7, -1, INT_MAX, INT_MIN, 0}) {
        EXPECT_EQ(set_qorcfg_debug(value), value);
        EXPECT_EQ(enable_qorcfg_debug, value);
    }
}

// Standard error and standard output while emit_debug_probe(42) runs.
struct ProbeOutput {
    std::string err;
    std::string out;
    int line = 0;
};
ProbeOutput run_probe() {
    ProbeOutput result;
    CaptureOutput out(STDOUT_FILENO);
    CaptureOutput err(STDERR_FILENO);
    result.line = emit_debug_probe(42);
    result.err = err.text();
    result.out = out.text();
    return result;
}

TEST_F(PrintTest, DebugLineNamesFunctionAndLineOnlyWhileOn) {
    for (int value : {1, 7, -1}) {
        set_qorcfg_debug(value);
        const ProbeOutput probe = run_probe();
        EXPECT_EQ(probe.err,
                  "<DEBUG:emit_debug_probe:" + std::to_string(probe.line) + "> probe value=42\n")
            << "debug value " << value;
        EXPECT_EQ(probe.out, "");
    }

    set_qorcfg_debug(0);
    EXPECT_EQ(run_probe().err, "");

    // The exported flag itself is the switch, however it was set.
    enable_qorcfg_debug = 5;
    const ProbeOutput direct = run_probe();
    EXPECT_EQ(direct.err,
              "<DEBUG:emit_debug_probe:" + std::to_string(direct.line) + "> probe value=42\n");
    enable_qorcfg_debug = 0;
    EXPECT_EQ(run_probe().err, "");
}

TEST_F(PrintTest, DebugLineWritesTextExactlyAsFormatted) {
    set_qorcfg_debug(1);
    const std::string long_text(3000, 'd');
    std::string text;
    {
        CaptureOutput err(STDERR_FILENO);
        qorcfg::store::debug_line("apply_cfg_group", 1234, "gid=0x%08x rc=%d", 0x20800001u, -3);
        qorcfg::store::debug_line("scan", 7, "%s\n", long_text.c_str());
        text = err.text();
    }
    // No newline is added, and long text is not cut.
    EXPECT_EQ(text, "<DEBUG:apply_cfg_group:1234> gid=0x20800001 rc=-3<DEBUG:scan:7> " + long_text +
                        "\n");
}

}  // namespace
