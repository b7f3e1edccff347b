// tests/support/fixtures.h - what the tests of every subsystem share: the
// sample device's files, documents parsed from exact-size buffers, the
// element at a dotted path, attribute lists and value reads as comparable
// values, and the allocation fault sweep.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "os/os.h"
#include "qorcfg.h"
#include "store/platform.h"
#include "tests/support/sandbox.h"

namespace qorcfg::test {

using os::Call;

// ---- files -------------------------------------------------------------------

// Files of the sample device root: "/conf/config.xml" (flash copy),
// "/etc/default-config.xml" (factory default), "/etc/cfg-rule.xml" (rules).
std::string sample(const char *device_path);
// The flash copy, the working copy (its text may be given) and the current
// configuration of the sample device.
void install_sample(const Sandbox &sandbox,
                    const std::string &working = sample("/conf/config.xml"));

// ---- documents ---------------------------------------------------------------

// A configuration whose paths follow the device's group table, labelled `label` in its
// version, its device name and its last element, padded with `entries` elements (so that
// writing it takes a while). Group elements have closing tags, so that each can be opened
// alone.
std::string config_doc(const std::string &label, int entries = 0);
// A parsed tree, freed at the end of its scope.
using Tree = std::unique_ptr<ezxml_node, decltype(&ezxml_free)>;
inline Tree own(ezxml_node *root) {
    return Tree(root, &ezxml_free);
}

// `text` parsed in place from a heap block of exactly its size (no final NUL,
// so that the sanitizers see any read past it); the block lives as long as
// the tree.
class Parsed {
public:
    explicit Parsed(std::string_view text);
    ~Parsed();
    Parsed(const Parsed &) = delete;
    Parsed &operator=(const Parsed &) = delete;
    ezxml_node *root() const { return root_; }
    ezxml_root *doc() const { return reinterpret_cast<ezxml_root *>(root_); }
    std::string error() const { return ezxml_error(root_); }
    const char *buffer() const { return buf_; }
    bool in_buffer(const char *p) const;

private:
    size_t size_;
    char *buf_;
    ezxml_node *root_ = nullptr;
};

// The serialised text of `node` (the allocation is given back).
std::string xml_of(ezxml_node *node);
// The element at a dotted path ("qorconfig.a.b:2"): the first name is the
// root's, then children by name and the N-th for ":N"; `strip_index` drops
// every index (as rule lookups do). NULL when missing.
ezxml_node *element_at(ezxml_node *root, const std::string &path, bool strip_index = false);
// "name=value;" for each own attribute, in order.
std::string attributes(const ezxml_node *node);

// ---- store results -----------------------------------------------------------

// The (name, value, index) records of an attribute list, which is freed.
using Attrs = std::vector<std::tuple<std::string, std::string, int>>;
Attrs attrs(qorcfg_attr *list);

// A value read: its result, the buffer afterwards (it starts as "junk") and
// what went to standard error.
struct Read {
    int rc;
    std::string value;
    std::string err;
    bool operator==(const Read &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Read &r);
Read read_value(const std::function<int(char *)> &read);

// A handle closed at the end of its scope.
using Handle = std::unique_ptr<qorcfg_handle, decltype(&close_qorcfg)>;
inline Handle own(qorcfg_handle *h) {
    return Handle(h, &close_qorcfg);
}
// A handle on the parsed file, in whatever network mode the process is
// (both modes are switched to 0 first when `local`).
Handle open_file(const char *file, bool local = true);
// The lock files under "/var/lock" that can be opened, sorted, each marked with how another
// process could take it now: "name" (anyhow), "name(sh)" (shared only: it is held shared),
// "name(ex)" (not at all: it is held exclusively).
std::string locks(const Sandbox &sandbox);
// A network-mode handle on `file` (the working copy or the current
// configuration), both modes switched to 1 first.
Handle open_net(const char *file = config_ram);
// What `body` writes to standard error.
std::string stderr_of(const std::function<void()> &body);

// Fixture of the store's tests: a sandbox, the library's messages switched on, and
// afterwards nothing shared and both network modes 1, as a process starts.
class StoreTest : public SandboxTest {
protected:
    StoreTest() { setenv("QORCFG_PRINT_ERR", "1", 1); }
    void TearDown() override {
        set_shared_qorcfg(nullptr, 0);
        set_shared_qorcfg(nullptr, 1);
    }
};

// ---- faults ------------------------------------------------------------------

// Runs `attempt` with the n-th allocation failing, for n = 1, 2, ... until a
// run no longer reaches the n-th allocation. `attempt` tells whether its call
// succeeded: when `strict`, it must fail exactly in the runs where the fault
// was reached; otherwise the sweep ends at the first success. Returns the
// number of runs before the last.
unsigned sweep_allocations(const std::function<bool()> &attempt, bool strict = true);

// Whether the POSIX extended regular expression `ere` matches in `text`
// (regcomp: <regex> draws warnings from some compilers' sanitized builds).
bool matches_ere(const std::string &ere, const std::string &text);

}  // namespace qorcfg::test
