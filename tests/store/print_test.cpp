// tests/store/print_test.cpp - diagnostic printing: the QORCFG_PRINT_ERR
// switch, read once per process, and the debug lines switched on by
// set_qorcfg_debug or the exported flag itself.
#include <gmock/gmock.h>

#include "store/print.h"
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;
using ::testing::HasSubstr;

// Writes one debug line from a function of known name; returns the source
// line of the debug statement.
int emit_debug_probe(int value) {
    QORCFG_DEBUG("probe value=%d\n", value);
    return __LINE__ - 1;
}

class PrintTest : public SandboxTest {
protected:
    // The switch is decided once per process, so every environment setting
    // is tried in a forked child ("fast" death tests: a fork, no re-exec, so
    // it also works under user-mode emulation). The parent may have printed,
    // so each child first forgets the decision, as a new process starts.
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "fast"); }
    void TearDown() override { set_qorcfg_debug(0); }

    // In a child: sets the switch (null: unset), runs `body` with standard
    // error captured, and reports "count=N text=[...]" to the parent. _Exit
    // skips the fixture's teardown: the device root is the parent's.
    [[noreturn]] static void child(const char *at_start, const std::function<int()> &body) {
        qorcfg::store::forget_print_switch();
        if (at_start != nullptr)
            setenv("QORCFG_PRINT_ERR", at_start, 1);
        else
            unsetenv("QORCFG_PRINT_ERR");
        CaptureOutput err(STDERR_FILENO);
        const int count = body();
        const std::string report = "count=" + std::to_string(count) + " text=[" + err.text() + "]";
        std::fwrite(report.data(), 1, report.size(), stderr);
        std::fflush(stderr);
        std::_Exit(0);
    }
};

TEST_F(PrintTest, PrintSwitchIsReadOnceFromEnvironment) {
    // At start (null: unset), after the first print (null: unchanged), on.
    const std::tuple<const char *, const char *, bool> cases[] = {
        {nullptr, nullptr, true}, {"0", nullptr, false},  // exactly "0": off
        {"1", nullptr, true},     {"", nullptr, true},   {"00", nullptr, true},
        {" 0", nullptr, true},    {"0 ", nullptr, true}, {"off", nullptr, true},
        {"0", "1", false},  // decided at the first print, for the whole process
        {nullptr, "0", true},     {"1", "0", true},
    };
    const std::string first = "probe_function>code=-11 name=wlan0\n";
    const std::string second = "rate  12.5% [q] 0xff";  // no newline is added
    for (const auto &[at_start, after_first, on] : cases) {
        const auto prints = [after = after_first] {
            const int a = qorcfg_print("%s>code=%d name=%s\n", "probe_function", -11, "wlan0");
            if (after != nullptr)
                setenv("QORCFG_PRINT_ERR", after, 1);
            return a * 1000 + qorcfg_print("rate %5.1f%% [%c] 0x%x", 12.5, 'q', 255u);
        };
        const std::string report =
            on ? "count=" + std::to_string(first.size() * 1000 + second.size()) + " text=[" +
                     first + second + "]"
               : "count=0 text=[]";
        EXPECT_EXIT(child(at_start, prints), ::testing::ExitedWithCode(0), HasSubstr(report))
            << (at_start ? at_start : "unset") << " / " << (after_first ? after_first : "-");
    }
    const std::string message(5000, 'm');  // printed whole
    EXPECT_EXIT(child(nullptr, [&] { return qorcfg_print("%s|\n", message.c_str()); }),
                ::testing::ExitedWithCode(0), HasSubstr("count=5002 text=[" + message + "|\n]"));
    // Debugging starts off, and its lines ignore the print switch.
    EXPECT_EXIT(child("0", [] { return enable_qorcfg_debug; }), ::testing::ExitedWithCode(0),
                HasSubstr("count=0 text=[]"));
    const int line = emit_debug_probe(0);  // debugging is off here: only the line is wanted
    EXPECT_EXIT(child("0",
                      [] {
                          set_qorcfg_debug(1);
                          emit_debug_probe(7);
                          return qorcfg_print("hidden %d\n", 1);
                      }),
                ::testing::ExitedWithCode(0),
                HasSubstr("count=0 text=[<DEBUG:emit_debug_probe:" + std::to_string(line) +
                          "> probe value=7\n]"));
}

TEST_F(PrintTest, DebugLinesNameFunctionAndLineOnlyWhileOn) {
    // Standard error and standard output while emit_debug_probe(42) runs.
    const auto probe = [] {
        CaptureOutput out(STDOUT_FILENO);
        CaptureOutput err(STDERR_FILENO);
        const int line = emit_debug_probe(42);
        const std::string text = err.text();
        EXPECT_EQ(out.text(), "");
        return std::pair{line, text};
    };
    EXPECT_EQ(set_qorcfg_debug(-1), -1);
    EXPECT_EQ(enable_qorcfg_debug, -1);
    auto [line, text] = probe();
    EXPECT_EQ(text, "<DEBUG:emit_debug_probe:" + std::to_string(line) + "> probe value=42\n");
    EXPECT_EQ(set_qorcfg_debug(0), 0);
    EXPECT_EQ(probe().second, "");
    enable_qorcfg_debug = 5;  // the exported flag itself is the switch
    EXPECT_EQ(probe().second, text);
    enable_qorcfg_debug = 0;

    // No newline is added, and long text is not cut.
    set_qorcfg_debug(1);
    const std::string long_text(3000, 'd');
    CaptureOutput err(STDERR_FILENO);
    qorcfg::store::debug_line("apply_cfg_group", 1234, "gid=0x%08x rc=%d", 0x20800001u, -3);
    qorcfg::store::debug_line("scan", 7, "%s\n", long_text.c_str());
    EXPECT_EQ(err.text(), "<DEBUG:apply_cfg_group:1234> gid=0x20800001 rc=-3<DEBUG:scan:7> " +
                              long_text + "\n");
}

}  // namespace
