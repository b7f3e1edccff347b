// bench/change_bench.cpp - what one set costs, end to end and by step, on
// the sample device's configuration scaled to about 300 KB:
//   - set_cfg_items of one item (its value alternates, so that every set
//     really changes the tree): the access lock, the value set, the reboot
//     check and the sync record, serialising the tree, the power-safe
//     writes of the working copy and the flash copy, the daemons' pid files;
//   - its steps alone: serialising (ezxml_toxml), one power-safe write
//     (os::write_file: temporary file, fsync, rename, directory fsync) and
//     the sync record written;
//   - the floor: the same bytes written plainly (fopen, fwrite, fclose),
//     and plainly with an fsync.
// The files live in a scratch root beside the executable, removed at the
// end. Times are wall-clock (the writes wait for the device). After the
// table it prints each step as a share of the set.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "bench/sample_config.h"
#include "os/os.h"
#include "qorcfg.h"
#include "store/platform.h"

namespace {

namespace fs = std::filesystem;
using benchmark::State;

constexpr std::size_t kTargetBytes = 300 * 1024;
constexpr uint32_t kGroup = 0x08080000;  // sys_device
constexpr const char *kItem = "location";
constexpr const char *kPlainFile = "/conf/plain.xml";

struct Fixture {
    std::string doc;
    int scale = 0;
    fs::path root;
    qorcfg_handle *handle = nullptr;
    std::string error;
} fixture;

void set_up(Fixture &f) {
    f.doc = qorcfg::bench::document_near(kTargetBytes, &f.scale);
    f.root = qorcfg::bench::make_scratch_root("change_bench.XXXXXX");
    if (f.root.empty()) {
        f.error = "cannot make a scratch root";
        return;
    }
    qorcfg::bench::remove_scratch_on_signals(
        f.root, {config_rom, config_ram, kPlainFile, "/tmp/sync_config"},
        {fs::path(config_rom).parent_path().string(), fs::path(config_ram).parent_path().string(),
         "var/lock", "var"});
    std::error_code ec;
    fs::create_directories(f.root / "var/lock", ec);
    if (ec || !qorcfg::bench::write_file(f.root, config_rom, f.doc) ||
        !qorcfg::bench::write_file(f.root, config_ram, f.doc)) {
        f.error = "cannot write the configuration into " + f.root.string();
        return;
    }
    qorcfg::os::set_root(f.root.string());
    set_all_net_qorcfg_mode(0);  // no daemon: the handle holds the parsed tree
    f.handle = init_qorcfg();
    if (f.handle == nullptr || is_net_cfg(f.handle) != 0)
        f.error = "init_qorcfg gave no parsed working copy";
}

void tear_down(Fixture &f) {
    if (f.handle != nullptr)
        close_qorcfg(f.handle);
    qorcfg::os::set_root("");
    if (!f.root.empty()) {
        qorcfg::bench::default_signals();
        std::error_code ec;
        fs::remove_all(f.root, ec);
    }
}

void set_one_item(State &st) {
    const char *values[] = {"Building 2, floor 3, lab", "Building 3, roof"};
    unsigned n = 0;
    for (auto _ : st) {
        qorcfg_item *item = get_new_item(static_cast<int32_t>(kGroup), kItem, values[++n % 2]);
        const int rc = set_cfg_items(fixture.handle, item);
        free_item_list(item);
        if (rc != QORCFG_OK) {
            st.SkipWithError(("set_cfg_items gave " + std::to_string(rc)).c_str());
            return;
        }
    }
    char value[QORCFG_VALUE_SIZE] = "";
    if (get_cfg_item(fixture.handle, kGroup, kItem, value) != 0 ||
        std::string(value) != values[n % 2])
        st.SkipWithError("the last value set is not in the tree");
    st.SetItemsProcessed(st.iterations());
}

void serialise(State &st) {
    for (auto _ : st) {
        char *text = ezxml_toxml(fixture.handle->xml);
        benchmark::DoNotOptimize(text);
        std::free(text);
    }
    st.SetItemsProcessed(st.iterations());
}

void power_safe_write(State &st) {
    for (auto _ : st) {
        if (qorcfg::os::write_file(config_ram, fixture.doc) != 0) {
            st.SkipWithError("os::write_file failed");
            return;
        }
    }
    st.SetItemsProcessed(st.iterations());
}

void sync_record(State &st) {
    const uint32_t gid = kGroup;
    for (auto _ : st) {
        if (write_sync_record(&gid, 1, 0) != QORCFG_OK) {
            st.SkipWithError("write_sync_record failed");
            return;
        }
    }
    st.SetItemsProcessed(st.iterations());
}

// The same bytes written in place without a temporary file; with `sync`,
// flushed to the device before the close.
void plain_write(State &st, bool sync) {
    const std::string path = (fixture.root / (kPlainFile + 1)).string();
    for (auto _ : st) {
        std::FILE *f = std::fopen(path.c_str(), "w");
        const bool ok =
            f != nullptr &&
            std::fwrite(fixture.doc.data(), 1, fixture.doc.size(), f) == fixture.doc.size() &&
            std::fflush(f) == 0 && (!sync || ::fsync(fileno(f)) == 0);
        if (f == nullptr || std::fclose(f) != 0 || !ok) {
            st.SkipWithError("plain write failed");
            return;
        }
    }
    st.SetItemsProcessed(st.iterations());
}

}  // namespace

int main(int argc, char **argv) {
    benchmark::RegisterBenchmark("set_cfg_items/one_item", set_one_item)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("step/serialise", serialise)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("step/power_safe_write", power_safe_write)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("step/sync_record", sync_record)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("floor/plain_write", plain_write, false)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("floor/plain_write_fsync", plain_write, true)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    set_up(fixture);
    if (!fixture.error.empty()) {
        std::fprintf(stderr, "qorcfg_change_bench: %s\n", fixture.error.c_str());
        tear_down(fixture);
        return 1;
    }
    std::printf("Configuration: the sample device's, lists scaled x%d: %zu bytes (%.1f KiB)\n",
                fixture.scale, fixture.doc.size(),
                static_cast<double>(fixture.doc.size()) / 1024.0);
    std::fflush(stdout);
    qorcfg::bench::RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double set = reporter.seconds_per_item("set_cfg_items/one_item");
    if (set > 0) {
        std::printf("\nShare of one set_cfg_items (%.2f ms):\n", set * 1e3);
        const std::pair<const char *, double> steps[] = {{"step/serialise", 1},
                                                         {"step/power_safe_write", 2},
                                                         {"step/sync_record", 1},
                                                         {"floor/plain_write", 2},
                                                         {"floor/plain_write_fsync", 2}};
        for (const auto &[name, times] : steps) {
            const double t = reporter.seconds_per_item(name);
            if (t > 0)
                std::printf("  %-26s x%.0f  %7.2f ms  %5.1f %%\n", name, times, t * times * 1e3,
                            100.0 * t * times / set);
        }
    }
    benchmark::Shutdown();
    tear_down(fixture);
    return 0;
}
