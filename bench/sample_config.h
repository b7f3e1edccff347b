// bench/sample_config.h - what the store and daemon benchmarks share: the
// lookups drawn from the sample device's configuration, the scratch device
// root it is written into, and the console reporter that keeps each
// benchmark's rate.
//
// The lookups are random items of random groups of group_table: a group
// whose element (reached by the group's dotted path) carries attributes,
// then one of those attributes, with the value the document holds. The
// scratch root is a directory made beside the executable (else in the
// current directory) that the OS seam is pointed at; what the run makes in
// it is listed beforehand, so that a signal that ends the run early (an
// interrupt, SIGTERM, SIGHUP, a closed output pipe) can still remove it.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "qorcfg.h"

namespace qorcfg::bench {

// What a value buffer of get_cfg_item holds at most, the final NUL aside.
inline constexpr std::size_t kValueChars = QORCFG_VALUE_SIZE - 1;

// ---- the configuration and the lookups -------------------------------------------------

// One step of a dotted path: a child's name and its index among the
// children of that name (0 for a plain step).
struct Step {
    std::string name;
    int index;
};

// A group of the table whose element carries attributes, as the raw walk
// and the store name it.
struct Group {
    std::uint32_t gid;
    std::string name;
    std::string path;
    std::vector<Step> steps;  // below the root element
    std::vector<std::string> items;
};

// One lookup: an item of a group, with the value the document holds.
struct Query {
    const Group *group;
    const std::string *item;
    std::string value;  // the whole attribute value
    std::string cut;    // what a 256-byte value buffer receives
};

// Splits "qorconfig.a.b:2.c" into its steps; false when an index is not
// decimal. The first step (the root element) is returned in `root`.
bool split_path(const std::string &path, std::string &root, std::vector<Step> &steps);

// The element reached from `root` by `steps` (ezxml_child, then ezxml_idx
// for an indexed step), or null.
ezxml_node *walk(ezxml_node *root, const std::vector<Step> &steps);

// A configuration document with its groups and lookups. The queries point
// into the groups, so a sample is never copied.
struct Sample {
    std::string doc;
    std::size_t rows = 0;  // rows of group_table
    std::vector<Group> groups;
    std::vector<Query> queries;

    Sample() = default;
    Sample(const Sample &) = delete;
    Sample &operator=(const Sample &) = delete;
};

// The groups of the table with their items, read from a parsed copy of
// `s.doc`; rows that a first-match lookup by ID (and by name, with
// `unique_names`) would not reach, i.e. a repeated ID or name, are left
// out, so that every way of naming an item names the same one. Then
// `count` random items of random groups, picked with std::mt19937 from
// `seed` (its output is fixed by the standard: the same seed picks the
// same items with any compiler). Empty, or what went wrong.
std::string collect_queries(Sample &s, std::uint32_t seed, std::size_t count, bool unique_names);

// The sample device's configuration with its lists scaled so that its
// size is closest to `target_bytes`; the scale through `scale`.
std::string document_near(std::size_t target_bytes, int *scale);

// True when `root` is a parsed configuration tree: no parse error and the
// root element "qorconfig".
bool is_document(ezxml_node *root);

// ---- the scratch root and what ends the run early ----------------------------------------

// A directory `name_template` (ending in XXXXXX, as for mkdtemp) beside the
// executable (in the build tree), else in the current directory; a base
// where the directory's path would be `max_length` characters or longer is
// passed over. Empty when none could be made.
std::filesystem::path make_scratch_root(const char *name_template,
                                        std::size_t max_length = SIZE_MAX);

// Lists what a run ended early by a signal must remove below `root`: the
// `files` (device paths, such as config_ram), the store's lock files in
// var/lock, then the `dirs` (device paths, deepest first) and `root`
// itself; then handles the ending signals. The handler calls `first` (when
// given; it must be async-signal-safe), unlinks the files, removes the
// directories and ends the process by the same signal.
void remove_scratch_on_signals(const std::filesystem::path &root,
                               const std::vector<std::string> &files,
                               const std::vector<std::string> &dirs, void (*first)() = nullptr);

// The ending signals back to their default action: for a forked child,
// which must never run the parent's clean-up, and once the run removes the
// scratch root itself.
void default_signals();

// Writes `text` to device path `path` below `root`, making its directories.
bool write_file(const std::filesystem::path &root, const char *path, const std::string &text);

// ---- the console table -----------------------------------------------------------------

// Google Benchmark's console table (in colour on a terminal), keeping each
// benchmark's items_per_second by name: the run itself, or the median when
// repetitions were asked for. Failed runs are not kept.
class RateReporter : public benchmark::ConsoleReporter {
public:
    RateReporter();

    void ReportRuns(const std::vector<Run> &runs) override;

    // Items per second of benchmark `name`, or null when it did not run.
    const double *rate(const std::string &name) const;

    // Seconds per item of benchmark `name`, or a negative value when it did
    // not run.
    double seconds_per_item(const std::string &name) const;

private:
    std::map<std::string, double> rates_;
};

}  // namespace qorcfg::bench
