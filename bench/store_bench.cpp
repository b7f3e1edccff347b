// bench/store_bench.cpp - the store's item lookups measured against a raw
// walk of the same tree, on the sample device's configuration scaled to
// about 300 KB:
//   - lookups per second through get_cfg_item (group ID), get_cfg_item_by_str
//     (group name) and get_item_by_path (a group's element path), against
//     ezxml_child / ezxml_idx / ezxml_attr steps prepared outside the loop, so
//     that the cost of the group-table search and of the path handling shows
//     as a ratio;
//   - the group-table lookups (by ID, name and path) over every row: the
//     library's scan of the live table against a hash index of the same rows
//     built once (what exactness under a changing table costs);
//   - opening the working copy (init_qorcfg_direct + close_qorcfg) against
//     parsing the same file (ezxml_parse_file + ezxml_free).
// The working copy lives in a scratch root made beside the executable and
// removed at the end; nothing of the host's /tmp, /conf or /var is touched.
// After the Google Benchmark table it prints the ratios.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bench/sample_config.h"
#include "os/os.h"
#include "qorcfg.h"
#include "store/platform.h"

namespace {

namespace fs = std::filesystem;
using benchmark::State;
using qorcfg::bench::is_document;
using qorcfg::bench::Query;
using qorcfg::bench::walk;

constexpr std::uint32_t kSeed = 1;
constexpr std::size_t kTargetBytes = 300 * 1024;
constexpr std::size_t kLookups = 10000;
// get_item_by_path without a shared handle parses the whole working copy on
// every call: only this many of its answers are checked before timing.
constexpr std::size_t kOpenChecked = 100;

// ---- the configuration and the lookups ---------------------------------------------

// The sample configuration with its groups and lookups (rows whose ID or
// name repeats are left out, so that every way of naming an item names the
// same one), the scratch root and the handle.
struct Fixture : qorcfg::bench::Sample {
    int scale = 0;
    fs::path root;                    // the scratch root
    qorcfg_handle *handle = nullptr;  // init_qorcfg on the working copy, kept for the run
    std::string error;                // set when the fixture could not be made
};

Fixture fixture;

// The working and persistent copies in the scratch root, the store pointed
// at it with local reads, and the handle opened.
void set_up(Fixture &f) {
    f.doc = qorcfg::bench::document_near(kTargetBytes, &f.scale);
    f.error = qorcfg::bench::collect_queries(f, kSeed, kLookups, true);
    if (!f.error.empty()) {
        return;
    }
    f.root = qorcfg::bench::make_scratch_root("store_bench.XXXXXX");
    if (f.root.empty()) {
        f.error = "cannot make a scratch root";
        return;
    }
    // What the benchmark and the store make there, then its directories,
    // deepest first.
    qorcfg::bench::remove_scratch_on_signals(
        f.root, {config_rom, config_ram},
        {fs::path(config_rom).parent_path().string(), fs::path(config_ram).parent_path().string(),
         "var/lock", "var"});
    std::error_code ec;
    fs::create_directories(f.root / "var/lock", ec);  // the store's lock files
    if (ec || !qorcfg::bench::write_file(f.root, config_rom, f.doc) ||
        !qorcfg::bench::write_file(f.root, config_ram, f.doc)) {
        f.error = "cannot write the configuration into " + f.root.string();
        return;
    }
    qorcfg::os::set_root(f.root.string());
    set_all_net_qorcfg_mode(0);  // no daemon: every lookup reads the tree
    f.handle = init_qorcfg();
    if (f.handle == nullptr || f.handle->xml == nullptr || is_net_cfg(f.handle) != 0) {
        f.error = "init_qorcfg gave no parsed working copy";
    }
}

void tear_down(Fixture &f) {
    if (f.handle != nullptr) {
        close_qorcfg(f.handle);
        f.handle = nullptr;
    }
    qorcfg::os::set_root("");
    if (!f.root.empty()) {
        qorcfg::bench::default_signals();
        std::error_code ec;
        fs::remove_all(f.root, ec);
    }
}

// ---- lookups -------------------------------------------------------------------------

// Registers the handle as the process's shared working copy for the life of
// one benchmark, so that get_item_by_path's own open and close reuse it
// instead of parsing the file; unregistering switches the network modes
// back on, so local reads are asked for again.
class SharedWorkingCopy {
public:
    explicit SharedWorkingCopy(qorcfg_handle *handle) { set_shared_qorcfg(handle, 0); }
    ~SharedWorkingCopy() {
        set_shared_qorcfg(nullptr, 0);
        set_all_net_qorcfg_mode(0);
    }
    SharedWorkingCopy(const SharedWorkingCopy &) = delete;
    SharedWorkingCopy &operator=(const SharedWorkingCopy &) = delete;
};

// Runs `lookup` (query -> the value it gave, or null) over the queries: the
// first `checked` of them are checked first, so that a wrong lookup cannot
// pass for a fast one; then `per_iteration` of them are timed per
// iteration, cycling through the list. `cut`: the answer is a value buffer's.
template <typename Lookup>
void run_lookups(State &st, const char *who, bool cut, std::size_t checked,
                 std::size_t per_iteration, Lookup lookup) {
    const std::vector<Query> &qs = fixture.queries;
    checked = std::min(checked, qs.size());
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < checked; ++i) {
        const char *value = lookup(qs[i]);
        wrong += value == nullptr || (cut ? qs[i].cut : qs[i].value) != value;
    }
    if (wrong != 0) {
        st.SkipWithError((std::string(who) + ": " + std::to_string(wrong) + " of " +
                          std::to_string(checked) + " lookups gave no or a wrong value")
                             .c_str());
        return;
    }
    std::size_t next = 0;
    for (auto _ : st) {
        std::size_t found = 0;
        for (std::size_t i = 0; i < per_iteration; ++i) {
            found += lookup(qs[next]) != nullptr;
            next = next + 1 == qs.size() ? 0 : next + 1;
        }
        benchmark::DoNotOptimize(found);
    }
    st.SetItemsProcessed(static_cast<std::int64_t>(st.iterations()) *
                         static_cast<std::int64_t>(per_iteration));
}

void lookup_get_cfg_item(State &st) {
    char value[QORCFG_VALUE_SIZE];
    qorcfg_handle *h = fixture.handle;
    run_lookups(st, "get_cfg_item", true, kLookups, kLookups, [&](const Query &q) -> const char * {
        return get_cfg_item(h, q.group->gid, q.item->c_str(), value) == 0 ? value : nullptr;
    });
}

void lookup_get_cfg_item_by_str(State &st) {
    char value[QORCFG_VALUE_SIZE];
    qorcfg_handle *h = fixture.handle;
    run_lookups(
        st, "get_cfg_item_by_str", true, kLookups, kLookups, [&](const Query &q) -> const char * {
            return get_cfg_item_by_str(h, q.group->name.c_str(), q.item->c_str(), value) == 0
                       ? value
                       : nullptr;
        });
}

// get_item_by_path's answer copied out of its list, which is freed at once.
template <std::size_t N>
const char *item_by_path(const Query &q, char (&value)[N]) {
    qorcfg_attr *list = get_item_by_path(q.item->c_str(), q.group->path.c_str());
    const char *got = nullptr;
    if (list != nullptr && list->value != nullptr) {
        std::snprintf(value, N, "%s", list->value);
        got = value;
    }
    free_attr_list(list);
    return got;
}

// Values longer than a lookup buffer are compared whole here.
constexpr std::size_t kPathValueSize = 4096;

// With the handle registered as the shared working copy.
void lookup_get_item_by_path(State &st) {
    static char value[kPathValueSize];
    SharedWorkingCopy shared(fixture.handle);
    run_lookups(st, "get_item_by_path", false, kLookups, kLookups,
                [&](const Query &q) { return item_by_path(q, value); });
}

// With no shared handle: each call opens (parses) and closes the working
// copy, as in a process that keeps no handle registered.
void lookup_get_item_by_path_open(State &st) {
    static char value[kPathValueSize];
    run_lookups(st, "get_item_by_path", false, kOpenChecked, 1,
                [&](const Query &q) { return item_by_path(q, value); });
}

// The floor: the group's element reached by steps prepared outside the
// loop, on the handle's own tree.
void lookup_raw_walk(State &st) {
    ezxml_node *root = fixture.handle->xml;
    run_lookups(st, "raw walk", false, kLookups, kLookups, [root](const Query &q) {
        return ezxml_attr(walk(root, q.group->steps), q.item->c_str());
    });
}

// ---- the group table -----------------------------------------------------------------

// Every row's key as a caller's own text (not the table's pointers).
struct Keys {
    std::vector<std::uint32_t> gids;
    std::vector<std::string> names;
    std::vector<std::string> paths;
};

const Keys &keys() {
    static const Keys k = [] {
        Keys made;
        for (const qorcfg_group *row = group_table; row->gid != 0; ++row) {
            made.gids.push_back(row->gid);
            made.names.emplace_back(row->name != nullptr ? row->name : "");
            made.paths.emplace_back(row->path != nullptr ? row->path : "");
        }
        return made;
    }();
    return k;
}

enum class Column { gid, name, path };

// A hash index of group_table's rows as they are now, first row of a key
// winning: the speed an index gives, for comparison. The library does not
// keep one, because the table may change under it.
struct RowIndex {
    std::unordered_map<std::uint32_t, qorcfg_group *> gid;
    std::unordered_map<std::string_view, qorcfg_group *> name;
    std::unordered_map<std::string_view, qorcfg_group *> path;
};

const RowIndex &row_index() {
    static const RowIndex index = [] {
        RowIndex made;
        for (qorcfg_group *row = group_table; row->gid != 0; ++row) {
            made.gid.emplace(row->gid, row);
            made.name.emplace(row->name, row);
            made.path.emplace(row->path, row);
        }
        return made;
    }();
    return index;
}

template <typename Map, typename Key>
qorcfg_group *find_in(const Map &map, const Key &key) {
    auto it = map.find(key);
    return it != map.end() ? it->second : nullptr;
}

qorcfg_group *indexed(Column c, const Keys &k, std::size_t i) {
    const RowIndex &index = row_index();
    switch (c) {
        case Column::gid:
            return find_in(index.gid, k.gids[i]);
        case Column::name:
            return find_in(index.name, std::string_view(k.names[i]));
        case Column::path:
            return find_in(index.path, std::string_view(k.paths[i]));
    }
    return nullptr;
}

qorcfg_group *scanned(Column c, const Keys &k, std::size_t i) {
    switch (c) {
        case Column::gid:
            return group_by_gid(k.gids[i]);
        case Column::name:
            return group_by_name(k.names[i].c_str());
        case Column::path:
            return group_by_path(k.paths[i].c_str());
    }
    return nullptr;
}

// Every row looked up once per iteration; the index is first checked
// against the library's lookups.
void group_lookup(State &st, Column column, bool scan) {
    const Keys &k = keys();
    const std::size_t rows = k.gids.size();
    std::size_t differ = 0;
    for (std::size_t i = 0; i < rows; ++i) {
        differ += indexed(column, k, i) != scanned(column, k, i);
    }
    if (differ != 0) {
        st.SkipWithError((std::to_string(differ) + " of " + std::to_string(rows) +
                          " rows: the index and the library's lookup disagree")
                             .c_str());
        return;
    }
    for (auto _ : st) {
        std::size_t found = 0;
        for (std::size_t i = 0; i < rows; ++i) {
            found += (scan ? scanned(column, k, i) : indexed(column, k, i)) != nullptr;
        }
        benchmark::DoNotOptimize(found);
    }
    st.SetItemsProcessed(static_cast<std::int64_t>(st.iterations()) *
                         static_cast<std::int64_t>(rows));
}

// init_qorcfg_direct's root is wrapped in a heap cell, as init_qorcfg does
// when it parses, and given back with close_qorcfg, so the timed pair is
// the open and the close a handle goes through (no shared handle is
// registered meanwhile, so the close frees the document).
qorcfg_handle *open_direct() {
    ezxml_node *root = init_qorcfg_direct();
    if (root == nullptr) {
        return nullptr;
    }
    auto *cell = static_cast<qorcfg_handle *>(std::malloc(sizeof(qorcfg_handle)));
    if (cell == nullptr) {
        ezxml_free(root);
        return nullptr;
    }
    cell->xml = root;
    return cell;
}

void open_init_qorcfg_direct(State &st) {
    {
        qorcfg_handle *h = open_direct();
        bool ok = h != nullptr && is_document(h->xml);
        if (h != nullptr) {
            close_qorcfg(h);
        }
        if (!ok) {
            st.SkipWithError("init_qorcfg_direct: no configuration tree");
            return;
        }
    }
    for (auto _ : st) {
        qorcfg_handle *h = open_direct();
        benchmark::DoNotOptimize(h);
        close_qorcfg(h);
    }
    st.SetItemsProcessed(static_cast<std::int64_t>(st.iterations()));
}

// The floor: the same file parsed whole, with no lock and no handle.
void open_ezxml_parse_file(State &st) {
    {
        ezxml_node *root = ezxml_parse_file(config_ram);
        bool ok = is_document(root);
        ezxml_free(root);
        if (!ok) {
            st.SkipWithError("ezxml_parse_file: no configuration tree");
            return;
        }
    }
    for (auto _ : st) {
        ezxml_node *root = ezxml_parse_file(config_ram);
        benchmark::DoNotOptimize(root);
        ezxml_free(root);
    }
    st.SetItemsProcessed(static_cast<std::int64_t>(st.iterations()));
}

// ---- registration ----------------------------------------------------------------------

void register_all() {
    using Fn = void (*)(State &);
    const std::pair<const char *, Fn> lookups[] = {
        {"lookup/get_cfg_item", lookup_get_cfg_item},
        {"lookup/get_cfg_item_by_str", lookup_get_cfg_item_by_str},
        {"lookup/get_item_by_path", lookup_get_item_by_path},
        {"lookup/get_item_by_path_open", lookup_get_item_by_path_open},
        {"lookup/raw_walk", lookup_raw_walk},
    };
    for (const auto &[name, fn] : lookups) {
        benchmark::RegisterBenchmark(name, fn)->Unit(benchmark::kMicrosecond);
    }
    const std::pair<const char *, Column> columns[] = {
        {"gid", Column::gid}, {"name", Column::name}, {"path", Column::path}};
    for (const auto &[label, column] : columns) {
        for (bool scan : {false, true}) {
            std::string name =
                std::string("group/") + label + (scan ? "/library" : "/unordered_map");
            benchmark::RegisterBenchmark(name.c_str(), group_lookup, column, scan)
                ->Unit(benchmark::kMicrosecond);
        }
    }
    benchmark::RegisterBenchmark("open/init_qorcfg_direct", open_init_qorcfg_direct)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("open/ezxml_parse_file", open_ezxml_parse_file)
        ->Unit(benchmark::kMicrosecond);
}

// ---- ratio table -------------------------------------------------------------------------

// The console table, then the costs as ratios: each figure is a rate
// (items_per_second), so a cost ratio is the floor's rate over the measured
// one.
class RatioReporter : public qorcfg::bench::RateReporter {
public:
    void print_ratios() {
        std::ostream &out = GetOutputStream();
        char line[200];
        out << "\nItem lookups: time per lookup / the raw walk's (ezxml_child, ezxml_idx,\n"
               "ezxml_attr with prepared steps); the excess is group-table search and path\n"
               "handling\n";
        for (const char *name :
             {"get_cfg_item", "get_cfg_item_by_str", "get_item_by_path", "get_item_by_path_open"}) {
            row(out, name, "lookup/" + std::string(name), "lookup/raw_walk");
        }
        std::snprintf(line, sizeof line,
                      "\nGroup table (%zu rows): the library's time per lookup (a scan of the "
                      "live table) /\na hash index's (built once, blind to changes)\n",
                      keys().gids.size());
        out << line;
        for (const char *column : {"gid", "name", "path"}) {
            row(out, (std::string("group_by_") + column).c_str(),
                std::string("group/") + column + "/library",
                std::string("group/") + column + "/unordered_map");
        }
        out << "\nOpening the working copy: time per open / ezxml_parse_file's + ezxml_free's\n";
        row(out, "init_qorcfg_direct + close", "open/init_qorcfg_direct", "open/ezxml_parse_file");
        out.flush();
    }

private:
    // Time per item of benchmark `slow` / that of `fast`, i.e. fast's rate
    // over slow's.
    void row(std::ostream &out, const char *label, const std::string &slow,
             const std::string &fast) const {
        char line[200];
        const double *s = rate(slow);
        const double *f = rate(fast);
        if (s != nullptr && f != nullptr && *s > 0) {
            std::snprintf(line, sizeof line, "  %-28s %10.2f\n", label, *f / *s);
        } else {
            std::snprintf(line, sizeof line, "  %-28s %10s  (not run, failed or filtered out)\n",
                          label, "-");
        }
        out << line;
    }
};

}  // namespace

int main(int argc, char **argv) {
    register_all();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    set_up(fixture);
    if (!fixture.error.empty()) {
        std::fprintf(stderr, "qorcfg_store_bench: %s\n", fixture.error.c_str());
        tear_down(fixture);
        return 1;
    }
    std::printf(
        "Configuration: the sample device's, lists scaled x%d: %zu bytes (%.1f KiB); %zu of the "
        "%zu group-table rows have an element with attributes; %zu lookups (seed %u)\n",
        fixture.scale, fixture.doc.size(), static_cast<double>(fixture.doc.size()) / 1024.0,
        fixture.groups.size(), fixture.rows, fixture.queries.size(), kSeed);
    std::fflush(stdout);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios();
    benchmark::Shutdown();
    tear_down(fixture);
    return 0;
}
