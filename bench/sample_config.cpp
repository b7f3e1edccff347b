// bench/sample_config.cpp - the lookups drawn from the sample device's
// configuration, the scratch device root and the rate-keeping console
// reporter that the store and daemon benchmarks share.
#include "bench/sample_config.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <system_error>
#include <utility>

#include "store/group.h"
#include "store/platform.h"
#include "tools/devdoc.h"

namespace qorcfg::bench {

namespace fs = std::filesystem;

// ---- the configuration and the lookups -------------------------------------------------

bool split_path(const std::string &path, std::string &root, std::vector<Step> &steps) {
    std::size_t start = 0;
    bool first = true;
    while (start <= path.size()) {
        std::size_t dot = path.find('.', start);
        std::string part = path.substr(start, dot == std::string::npos ? dot : dot - start);
        int index = 0;
        if (std::size_t colon = part.find(':'); colon != std::string::npos) {
            std::string digits = part.substr(colon + 1);
            if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
                return false;
            }
            index = std::atoi(digits.c_str());
            part.resize(colon);
        }
        if (first) {
            root = part;
            first = false;
        } else {
            steps.push_back({part, index});
        }
        if (dot == std::string::npos) {
            break;
        }
        start = dot + 1;
    }
    return true;
}

ezxml_node *walk(ezxml_node *root, const std::vector<Step> &steps) {
    ezxml_node *node = root;
    for (const Step &s : steps) {
        node = ezxml_child(node, s.name.c_str());
        if (s.index > 0) {
            node = ezxml_idx(node, s.index);
        }
    }
    return node;
}

std::string collect_queries(Sample &s, std::uint32_t seed, std::size_t count, bool unique_names) {
    std::string copy = s.doc;
    ezxml_node *tree = ezxml_parse_str(copy.data(), copy.size());
    if (tree == nullptr || *ezxml_error(tree) != '\0') {
        std::string error = std::string("the document does not parse: ") +
                            (tree != nullptr ? ezxml_error(tree) : "no tree");
        ezxml_free(tree);
        return error;
    }
    for (qorcfg_group *row = group_table; row->gid != 0; ++row) {
        ++s.rows;
        // Group names "0" and "0x0" read the root's identity instead.
        if (row->name == nullptr || row->path == nullptr || std::strcmp(row->name, "0") == 0 ||
            std::strcmp(row->name, "0x0") == 0 ||
            qorcfg::store::scan_group_by_gid(group_table, row->gid) != row ||
            (unique_names && qorcfg::store::scan_group_by_name(group_table, row->name) != row)) {
            continue;
        }
        Group g{row->gid, row->name, row->path, {}, {}};
        std::string root_name;
        if (!split_path(g.path, root_name, g.steps) || root_name != tree->name) {
            continue;
        }
        ezxml_node *node = walk(tree, g.steps);
        if (node == nullptr) {
            continue;
        }
        for (char **a = node->attr; a[0] != nullptr; a += 2) {
            g.items.emplace_back(a[0]);
        }
        if (!g.items.empty()) {
            s.groups.push_back(std::move(g));
        }
    }
    std::mt19937 rng(seed);
    s.queries.reserve(count);
    for (std::size_t i = 0; i < count && !s.groups.empty(); ++i) {
        const Group &g = s.groups[rng() % s.groups.size()];
        const std::string &item = g.items[rng() % g.items.size()];
        const char *value = ezxml_attr(walk(tree, g.steps), item.c_str());
        std::string v = value != nullptr ? value : "";
        s.queries.push_back({&g, &item, v, v.substr(0, kValueChars)});
    }
    ezxml_free(tree);
    if (s.queries.empty()) {
        return "no group of the table has an element with attributes";
    }
    return {};
}

std::string document_near(std::size_t target_bytes, int *scale) {
    std::string below;
    for (int n = 1;; ++n) {
        std::string doc = qorcfg::device::document(false, n);
        if (doc.size() >= target_bytes || n == 1000) {
            const bool take_below =
                !below.empty() && target_bytes - below.size() < doc.size() - target_bytes;
            *scale = take_below ? n - 1 : n;
            return take_below ? below : doc;
        }
        below = std::move(doc);
    }
}

bool is_document(ezxml_node *root) {
    return root != nullptr && *ezxml_error(root) == '\0' &&
           std::strcmp(root->name, "qorconfig") == 0;
}

// ---- the scratch root and what ends the run early ----------------------------------------

fs::path make_scratch_root(const char *name_template, std::size_t max_length) {
    std::error_code ec;
    std::vector<fs::path> bases;
    if (fs::path exe = fs::read_symlink("/proc/self/exe", ec); !ec) {
        bases.push_back(exe.parent_path());
    }
    bases.push_back(fs::current_path(ec));
    for (const fs::path &base : bases) {
        std::string tmpl = (base / name_template).string();
        if (tmpl.size() >= max_length) {
            continue;
        }
        if (mkdtemp(tmpl.data()) != nullptr) {
            return tmpl;
        }
    }
    return {};
}

namespace {

// Made before the handler is installed; the handler only reads them.
std::vector<std::string> scratch_files;
std::vector<std::string> scratch_dirs;
void (*before_removal)() = nullptr;
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

// Only the hook, unlink and rmdir, on data made beforehand: safe in a
// signal handler.
void remove_scratch_and_end(int sig) {
    if (before_removal != nullptr) {
        before_removal();
    }
    for (const std::string &p : scratch_files) {
        unlink(p.c_str());
    }
    for (const std::string &p : scratch_dirs) {
        rmdir(p.c_str());
    }
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

}  // namespace

void remove_scratch_on_signals(const fs::path &root, const std::vector<std::string> &files,
                               const std::vector<std::string> &dirs, void (*first)()) {
    for (const std::string &p : files) {
        scratch_files.push_back((root / fs::path(p).relative_path()).string());
    }
    for (const char *lock : {"qorcfg_ram", "qorcfg_rom", "qorcfg_backup", "qorcfg_restored",
                             "qorcfg_current", "access_lock", "default_lock"}) {
        scratch_files.push_back((root / "var/lock" / lock).string());
    }
    for (const std::string &p : dirs) {
        scratch_dirs.push_back((root / fs::path(p).relative_path()).string());
    }
    scratch_dirs.push_back(root.string());
    before_removal = first;
    for (int sig : kEndingSignals) {
        std::signal(sig, remove_scratch_and_end);
    }
}

void default_signals() {
    for (int sig : kEndingSignals) {
        std::signal(sig, SIG_DFL);
    }
}

bool write_file(const fs::path &root, const char *path, const std::string &text) {
    fs::path host = root / fs::path(path).relative_path();
    std::error_code ec;
    fs::create_directories(host.parent_path(), ec);
    std::ofstream out(host, std::ios::binary);
    out << text;
    out.close();
    return !ec && out.good();
}

// ---- the console table -----------------------------------------------------------------

RateReporter::RateReporter()
    : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_ColorTabular : OO_Tabular) {}

void RateReporter::ReportRuns(const std::vector<Run> &runs) {
    for (const Run &run : runs) {
        bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
        if (run.error_occurred || (run.run_type != Run::RT_Iteration && !median)) {
            continue;
        }
        if (auto it = run.counters.find("items_per_second"); it != run.counters.end()) {
            rates_[run.run_name.function_name] = it->second.value;
        }
    }
    ConsoleReporter::ReportRuns(runs);
}

const double *RateReporter::rate(const std::string &name) const {
    auto it = rates_.find(name);
    return it == rates_.end() ? nullptr : &it->second;
}

double RateReporter::seconds_per_item(const std::string &name) const {
    const double *r = rate(name);
    return r == nullptr || *r <= 0 ? -1.0 : 1.0 / *r;
}

}  // namespace qorcfg::bench
