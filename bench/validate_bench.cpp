// bench/validate_bench.cpp - what validating one value costs, and where the
// time goes: input_validation_by_item of an integer item and of a pattern
// item of the sample device, against its steps alone (opening the rule file,
// which parses it whole, and the item's check) and a lookup of the item's
// type in a tree already parsed. After the table it prints each as a share
// of one validation.
//
// The rule file lives in a scratch root beside the executable, removed at
// the end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#include "bench/sample_config.h"
#include "os/os.h"
#include "qorcfg.h"
#include "validate/validate.h"

namespace {

namespace fs = std::filesystem;
using benchmark::State;

fs::path g_root;

void validate(State &st, const char *group, const char *item, const char *value) {
    for (auto _ : st) {
        if (input_validation_by_item(group, value, item) != QORCFG_OK) {
            st.SkipWithError("the sample value was rejected");
            return;
        }
    }
    st.SetItemsProcessed(st.iterations());
}

void open_rule_file(State &st) {
    for (auto _ : st) {
        qorcfg_handle *rules = init_qorcfg_f(qorcfg::validate::kRuleFile);
        if (rules == nullptr) {
            st.SkipWithError("the rule file does not open");
            return;
        }
        close_qorcfg(rules);
    }
    st.SetItemsProcessed(st.iterations());
}

void type_lookup(State &st) {
    qorcfg_handle *rules = init_qorcfg_f(qorcfg::validate::kRuleFile);
    for (auto _ : st)
        benchmark::DoNotOptimize(get_cfg_item_type_by_group_name(rules, "interval", "sys_time"));
    close_qorcfg(rules);
    st.SetItemsProcessed(st.iterations());
}

void int_check(State &st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(qorcfg_item_int_check("1~168", "24"));
    st.SetItemsProcessed(st.iterations());
}

void pattern_check(State &st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(
            qorcfg_item_regex_check("^[A-Za-z0-9_ \\x2e\\x2d]{1,32}$", "AP-Lab-01"));
    st.SetItemsProcessed(st.iterations());
}

bool set_up() {
    std::ifstream in(QORCFG_DEVROOT "/etc/cfg-rule.xml", std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    g_root = qorcfg::bench::make_scratch_root("validate_bench.XXXXXX");
    if (!in || g_root.empty())
        return false;
    qorcfg::bench::remove_scratch_on_signals(g_root, {qorcfg::validate::kRuleFile},
                                             {"/etc", "/var/lock", "/var"});
    std::error_code ec;
    fs::create_directories(g_root / "var/lock", ec);
    if (ec || !qorcfg::bench::write_file(g_root, qorcfg::validate::kRuleFile, text.str()))
        return false;
    qorcfg::os::set_root(g_root.string());
    std::printf("Rule file: the sample device's, %zu bytes\n", text.str().size());
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    setenv("QORCFG_PRINT_ERR", "0", 1);
    benchmark::RegisterBenchmark("validate/int_item", validate, "sys_time", "interval", "24")
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("validate/pattern_item", validate, "sys_device", "name",
                                 "AP-Lab-01")
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("step/open_rule_file", open_rule_file)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("step/type_lookup", type_lookup)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("step/int_check", int_check)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("step/pattern_check", pattern_check)
        ->Unit(benchmark::kMicrosecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const bool ready = set_up();
    if (ready) {
        qorcfg::bench::RateReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        const std::pair<const char *, const char *> shares[] = {
            {"validate/int_item", "step/open_rule_file"},
            {"validate/int_item", "step/int_check"},
            {"validate/pattern_item", "step/pattern_check"},
            {"validate/pattern_item", "step/type_lookup"}};
        std::printf("\nShare of one validation:\n");
        for (const auto &[whole, step] : shares) {
            const double w = reporter.seconds_per_item(whole), s = reporter.seconds_per_item(step);
            if (w > 0 && s > 0)
                std::printf("  %-20s of %-22s %6.1f %%\n", step, whole, 100.0 * s / w);
        }
    } else {
        std::fprintf(stderr, "qorcfg_validate_bench: cannot set up a scratch root\n");
    }
    benchmark::Shutdown();
    qorcfg::os::set_root("");
    if (!g_root.empty()) {
        qorcfg::bench::default_signals();
        std::error_code ec;
        fs::remove_all(g_root, ec);
    }
    return ready ? 0 : 1;
}
