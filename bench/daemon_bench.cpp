// bench/daemon_bench.cpp - asking the configuration daemon against reading
// the file yourself, on the sample device's configuration (the device's
// own list sizes):
//   - get_cfg_item through the daemon (network-mode handles) from 1, 8 and
//     64 client processes at once: queries per second, median and
//     99th-percentile latency per lookup;
//   - the same lookups on a locally parsed handle, per lookup, and the cost
//     of one parse of the working copy (init_qorcfg_direct + ezxml_free),
//     both with Google Benchmark;
//   - the break-even number of lookups per process above which parsing the
//     file yourself is cheaper than asking the daemon:
//       parse cost / (daemon latency - local lookup latency);
//   - big replies: on a configuration of about 1.5 MB, 0, 20 and 40 clients
//     that ask for a whole-document attribute list and never read it, the
//     daemon's resident memory and the latency of ordinary lookups meanwhile.
// The daemon (qorcfg::daemon::Server) runs in a forked child and serves a
// scratch device root made beside the executable; the clients are forked
// children that time every lookup with CLOCK_MONOTONIC and send their
// latencies back through a pipe. The daemon is stopped with SIGTERM and
// reaped at the end, and the scratch root removed, also when a signal ends
// the run. Nothing of the host's /tmp, /conf or /var is touched.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/types.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "bench/sample_config.h"
#include "daemon/server.h"
#include "os/os.h"
#include "qorcfg.h"
#include "store/group.h"
#include "store/platform.h"
#include "tools/devdoc.h"

namespace {

namespace fs = std::filesystem;
using benchmark::State;
using qorcfg::bench::default_signals;
using qorcfg::bench::is_document;
using qorcfg::bench::Query;

constexpr std::uint32_t kSeed = 1;
constexpr int kListScale = 1;             // the device's own configuration
constexpr std::size_t kQueries = 10000;   // random items, shared by every measure
constexpr std::size_t kChecked = 200;     // daemon answers checked before timing
constexpr std::size_t kPerClient = 2000;  // timed lookups per client process
constexpr std::size_t kWarmUp = 10;       // untimed lookups per client first
constexpr std::array<std::size_t, 3> kConcurrency = {1, 8, 64};
constexpr std::size_t kMaxClients = 64;
static_assert(kConcurrency.back() <= kMaxClients, "the largest round fits client_pids");
constexpr unsigned kClientSeconds = 120;  // a client that takes longer is ended
constexpr const char *kSocketName = "/tmp/qorcfgd_socket";
constexpr std::size_t kBigBytes = 1536 * 1024;  // the big-reply configuration
constexpr std::array<std::size_t, 3> kPending = {0, 20, 40};
constexpr std::size_t kBigLookups = 200;  // ordinary lookups timed per row

// ---- the configuration and the lookups ---------------------------------------------

// The sample configuration with its groups and lookups (rows whose ID
// repeats are left out), the scratch root, the daemon's socket and the
// local handle.
struct Fixture : qorcfg::bench::Sample {
    fs::path root;                   // the scratch root
    std::string socket;              // the daemon's socket in it
    qorcfg_handle *local = nullptr;  // init_qorcfg with local reads, kept for the run
    std::string error;               // set when the fixture could not be made
};

Fixture fixture;

// Commands and signals the library might send (a factory reset when the
// flash copy is unusable) are recorded instead: nothing reaches this host.
qorcfg::os::Runner offline;

// ---- the processes and what ends the run early ---------------------------------------

// The processes the run started: the daemon and the clients of one round.
// Written before a signal can need them; the handler only reads them.
volatile pid_t daemon_pid = 0;
std::array<volatile pid_t, kMaxClients> client_pids{};

void sleep_ms(long ms) {
    timespec t{ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&t, &t) != 0 && errno == EINTR) {
    }
}

// Stops the daemon with SIGTERM and reaps it, waiting at most five
// seconds before SIGKILL. Async-signal-safe. The wait status, or -1.
int stop_daemon() {
    pid_t pid = daemon_pid;
    if (pid <= 0) {
        return -1;
    }
    ::kill(pid, SIGTERM);
    int status = -1;
    for (int i = 0; i < 500; ++i) {
        if (waitpid(pid, &status, WNOHANG) == pid) {
            daemon_pid = 0;
            return status;
        }
        sleep_ms(10);
    }
    ::kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    daemon_pid = 0;
    return status;
}

// Ends the clients of the round and the daemon before a signal ends the
// run: only kill, waitpid and nanosleep, on data made beforehand, so safe in
// a signal handler.
void end_children() {
    for (volatile pid_t &p : client_pids) {
        if (p > 0) {
            ::kill(p, SIGKILL);
            waitpid(p, nullptr, 0);
            p = 0;
        }
    }
    stop_daemon();
}

std::uint64_t now_ns() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<std::uint64_t>(t.tv_sec) * 1000000000ULL +
           static_cast<std::uint64_t>(t.tv_nsec);
}

// ---- the daemon ------------------------------------------------------------------------

// Forks the daemon: Server::start(), then run() until SIGTERM. The parent
// waits (at most ten seconds) for the child to say that it listens.
bool start_daemon(Fixture &f) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
        f.error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        f.error = std::string("fork: ") + std::strerror(errno);
        close(ready[0]);
        close(ready[1]);
        return false;
    }
    if (pid == 0) {
        close(ready[0]);
        default_signals();
        std::signal(SIGPIPE, SIG_IGN);  // replies go out with MSG_NOSIGNAL
        int status = 1;
        {
            qorcfg::daemon::Server server;
            char ok = server.handle_signals() && server.start() ? 1 : 0;
            ssize_t sent = write(ready[1], &ok, 1);
            close(ready[1]);
            if (ok == 1 && sent == 1) {
                status = server.run();
            }
        }
        _exit(status);
    }
    daemon_pid = pid;
    close(ready[1]);
    pollfd p{ready[0], POLLIN, 0};
    char ok = 0;
    bool listening = poll(&p, 1, 10000) == 1 && read(ready[0], &ok, 1) == 1 && ok == 1;
    close(ready[0]);
    if (!listening) {
        f.error = "the daemon did not start";
        return false;
    }
    return true;
}

// A few answers through the daemon against the local read of the same
// items (and the document): the network-mode handle must stay one, i.e.
// no answer may come from the library's fallback to the file.
bool check_daemon_answers(Fixture &f) {
    set_all_net_qorcfg_mode(1);
    qorcfg_handle *net = init_qorcfg();
    set_all_net_qorcfg_mode(0);
    if (net == nullptr || is_net_cfg(net) == 0) {
        f.error = "init_qorcfg in network mode gave no network-mode handle";
        if (net != nullptr) {
            close_qorcfg(net);
        }
        return false;
    }
    char remote[QORCFG_VALUE_SIZE];
    char local[QORCFG_VALUE_SIZE];
    std::size_t wrong = 0;
    std::size_t checked = std::min(kChecked, f.queries.size());
    for (std::size_t i = 0; i < checked; ++i) {
        const Query &q = f.queries[i];
        int r = get_cfg_item(net, q.group->gid, q.item->c_str(), remote);
        int l = get_cfg_item(f.local, q.group->gid, q.item->c_str(), local);
        wrong += r != 0 || l != 0 || std::strcmp(remote, local) != 0 || q.cut != remote;
    }
    bool still_net = is_net_cfg(net) != 0;
    close_qorcfg(net);
    if (!still_net) {
        f.error = "a lookup through the daemon failed and fell back to the file";
        return false;
    }
    if (wrong != 0) {
        f.error = std::to_string(wrong) + " of " + std::to_string(checked) +
                  " daemon answers differ from the local read";
        return false;
    }
    return true;
}

// ---- the set-up ---------------------------------------------------------------------

// The configuration as the flash copy, the working copy and the current
// configuration in the scratch root, the OS seam pointed at it, the daemon
// started, one local handle opened and the daemon's answers checked.
void set_up(Fixture &f) {
    f.doc = qorcfg::device::document(false, kListScale);
    f.error = qorcfg::bench::collect_queries(f, kSeed, kQueries, false);
    if (!f.error.empty()) {
        return;
    }
    // A short name, so that the socket path fits in a socket address.
    f.root = qorcfg::bench::make_scratch_root(
        "dbench.XXXXXX", sizeof(sockaddr_un{}.sun_path) - std::strlen(kSocketName));
    if (f.root.empty()) {
        f.error = "cannot make a scratch root whose socket path fits in a socket address";
        return;
    }
    f.socket = f.root.string() + kSocketName;
    // What the benchmark, the store and the daemon make there, then its
    // directories, deepest first; the clients and the daemon are ended first.
    qorcfg::bench::remove_scratch_on_signals(
        f.root, {config_rom, config_ram, current_config, kSocketName, qorcfg::daemon::kPidFile},
        {"conf", "tmp", "var/lock", "var/run", "var"}, end_children);
    std::error_code ec;
    fs::create_directories(f.root / "var/lock", ec);  // the store's lock files
    fs::create_directories(f.root / "var/run", ec);   // the daemon's pid file
    fs::create_directories(f.root / "tmp", ec);       // the socket
    if (ec || !qorcfg::bench::write_file(f.root, config_rom, f.doc) ||
        !qorcfg::bench::write_file(f.root, config_ram, f.doc) ||
        !qorcfg::bench::write_file(f.root, current_config, f.doc)) {
        f.error = "cannot write the configuration into " + f.root.string();
        return;
    }
    qorcfg::os::set_root(f.root.string());
    qorcfg::os::set_runner(&offline);
    qorcfg::os::set_daemon_socket_path(f.socket);
    if (!start_daemon(f)) {
        return;
    }
    set_all_net_qorcfg_mode(0);
    f.local = init_qorcfg();
    if (f.local == nullptr || f.local->xml == nullptr || is_net_cfg(f.local) != 0) {
        f.error = "init_qorcfg with local reads gave no parsed working copy";
        return;
    }
    check_daemon_answers(f);
}

// Stops the daemon; false (with a message) when it did not end cleanly.
bool tear_down(Fixture &f) {
    bool clean = true;
    if (daemon_pid > 0) {
        int status = stop_daemon();
        if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            std::fprintf(stderr, "qorcfg_daemon_bench: the daemon did not end cleanly (%s %d)\n",
                         WIFSIGNALED(status) ? "signal" : "status",
                         WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
            clean = false;
        }
    }
    if (f.local != nullptr) {
        close_qorcfg(f.local);
        f.local = nullptr;
    }
    qorcfg::os::set_root("");
    qorcfg::os::set_runner(nullptr);
    if (!f.root.empty()) {
        default_signals();
        std::error_code ec;
        fs::remove_all(f.root, ec);
    }
    for (const std::string &line : offline.lines()) {
        std::fprintf(stderr, "qorcfg_daemon_bench: not run: %s\n", line.c_str());
    }
    return clean;
}

// ---- local figures (Google Benchmark) -------------------------------------------------

// Every query on the parsed handle per iteration; all answers checked first.
void local_get_cfg_item(State &st) {
    char value[QORCFG_VALUE_SIZE];
    qorcfg_handle *h = fixture.local;
    const std::vector<Query> &qs = fixture.queries;
    std::size_t wrong = 0;
    for (const Query &q : qs) {
        wrong += get_cfg_item(h, q.group->gid, q.item->c_str(), value) != 0 || q.cut != value;
    }
    if (wrong != 0) {
        st.SkipWithError((std::to_string(wrong) + " of " + std::to_string(qs.size()) +
                          " local lookups gave no or a wrong value")
                             .c_str());
        return;
    }
    for (auto _ : st) {
        std::size_t found = 0;
        for (const Query &q : qs) {
            found += get_cfg_item(h, q.group->gid, q.item->c_str(), value) == 0;
        }
        benchmark::DoNotOptimize(found);
    }
    st.SetItemsProcessed(static_cast<std::int64_t>(st.iterations()) *
                         static_cast<std::int64_t>(qs.size()));
}

// One parse of the working copy, as a process that reads the file itself
// pays it: init_qorcfg_direct (lock, read, parse) + ezxml_free.
void local_parse(State &st) {
    {
        ezxml_node *root = init_qorcfg_direct();
        bool ok = is_document(root);
        ezxml_free(root);
        if (!ok) {
            st.SkipWithError("init_qorcfg_direct: no configuration tree");
            return;
        }
    }
    for (auto _ : st) {
        ezxml_node *root = init_qorcfg_direct();
        benchmark::DoNotOptimize(root);
        ezxml_free(root);
    }
    st.SetItemsProcessed(static_cast<std::int64_t>(st.iterations()));
}

constexpr const char *kLocalLookup = "local/get_cfg_item";
constexpr const char *kLocalParse = "local/init_qorcfg_direct+ezxml_free";

void register_all() {
    benchmark::RegisterBenchmark(kLocalLookup, local_get_cfg_item)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(kLocalParse, local_parse)->Unit(benchmark::kMicrosecond);
}

// ---- daemon figures (client processes) --------------------------------------------------

// What a client sends back before its latencies.
struct ClientHeader {
    std::uint64_t lookups;    // latencies that follow
    std::uint64_t wrong;      // failed lookups and wrong answers
    std::uint64_t fell_back;  // 1: the handle fell back to the file (a transport failure)
    std::uint64_t start_ns;   // CLOCK_MONOTONIC at the first timed lookup
    std::uint64_t end_ns;     // and after the last
};

bool write_all(int fd, const void *data, std::size_t size) {
    const auto *p = static_cast<const char *>(data);
    while (size > 0) {
        ssize_t n = write(fd, p, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

// A client process: a network-mode handle, a few untimed lookups, then
// waits for the start (the parent closes `go`) and does its lookups, each
// timed alone; its answers are checked outside the timed spans.
[[noreturn]] void client(std::size_t index, int go, int out) {
    default_signals();
    alarm(kClientSeconds);
    const std::vector<Query> &qs = fixture.queries;
    std::vector<std::uint64_t> latencies(kPerClient);
    ClientHeader head{kPerClient, 0, 0, 0, 0};
    set_all_net_qorcfg_mode(1);
    qorcfg_handle *h = init_qorcfg();
    char value[QORCFG_VALUE_SIZE];
    for (std::size_t i = 0; i < kWarmUp; ++i) {
        const Query &q = qs[(index * 7919 + i) % qs.size()];
        get_cfg_item(h, q.group->gid, q.item->c_str(), value);
    }
    char byte;
    while (read(go, &byte, 1) < 0 && errno == EINTR) {
    }
    close(go);
    head.start_ns = now_ns();
    for (std::size_t i = 0; i < kPerClient; ++i) {
        const Query &q = qs[(index * kPerClient + i) % qs.size()];
        std::uint64_t t0 = now_ns();
        int result = get_cfg_item(h, q.group->gid, q.item->c_str(), value);
        std::uint64_t t1 = now_ns();
        latencies[i] = t1 - t0;
        head.wrong += result != 0 || q.cut != value;
    }
    head.end_ns = now_ns();
    head.fell_back = h == nullptr || is_net_cfg(h) == 0 ? 1 : 0;
    bool sent = write_all(out, &head, sizeof head) &&
                write_all(out, latencies.data(), latencies.size() * sizeof latencies[0]);
    close(out);
    _exit(sent ? 0 : 1);
}

// Everything a client sent, until it closed the pipe.
std::string read_all(int fd) {
    std::string data;
    char buf[16384];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        data.append(buf, static_cast<std::size_t>(n));
    }
    return data;
}

struct Round {
    std::size_t clients = 0;
    std::size_t lookups = 0;
    std::size_t wrong = 0;
    std::size_t fell_back = 0;  // clients whose handle fell back to the file
    std::size_t failed = 0;     // clients that ended badly or sent nothing usable
    double wall_s = 0;          // first client's start to last client's end
    double qps = 0;
    double median_us = 0;
    double p99_us = 0;
    double mean_us = 0;
    std::string error;
};

// `n` clients at once.
Round run_round(std::size_t n) {
    Round round;
    round.clients = n;
    int go[2];
    if (pipe(go) != 0) {
        round.error = std::string("pipe: ") + std::strerror(errno);
        return round;
    }
    std::vector<int> outs;
    std::fflush(nullptr);
    for (std::size_t i = 0; i < n; ++i) {
        int out[2];
        if (pipe(out) != 0) {
            round.error = std::string("pipe: ") + std::strerror(errno);
            break;
        }
        pid_t pid = fork();
        if (pid < 0) {
            round.error = std::string("fork: ") + std::strerror(errno);
            close(out[0]);
            close(out[1]);
            break;
        }
        if (pid == 0) {
            close(go[1]);
            close(out[0]);
            for (int earlier : outs) {
                close(earlier);
            }
            client(i, go[0], out[1]);
        }
        client_pids[i] = pid;
        close(out[1]);
        outs.push_back(out[0]);
    }
    close(go[0]);
    close(go[1]);  // the start: every client's read ends
    std::vector<std::uint64_t> all;
    all.reserve(n * kPerClient);
    std::uint64_t first = UINT64_MAX;
    std::uint64_t last = 0;
    for (std::size_t i = 0; i < outs.size(); ++i) {
        std::string data = read_all(outs[i]);
        close(outs[i]);
        int status = 0;
        pid_t pid = client_pids[i];
        bool exited =
            waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        client_pids[i] = 0;
        ClientHeader head{};
        if (!exited || data.size() < sizeof head) {
            ++round.failed;
            continue;
        }
        std::memcpy(&head, data.data(), sizeof head);
        if (data.size() != sizeof head + head.lookups * sizeof(std::uint64_t)) {
            ++round.failed;
            continue;
        }
        std::size_t at = all.size();
        all.resize(at + head.lookups);
        std::memcpy(all.data() + at, data.data() + sizeof head,
                    head.lookups * sizeof(std::uint64_t));
        round.wrong += head.wrong;
        round.fell_back += head.fell_back;
        first = std::min(first, head.start_ns);
        last = std::max(last, head.end_ns);
    }
    round.lookups = all.size();
    if (all.empty() || last <= first) {
        if (round.error.empty()) {
            round.error = "no client sent its latencies";
        }
        return round;
    }
    round.wall_s = static_cast<double>(last - first) / 1e9;
    round.qps = static_cast<double>(all.size()) / round.wall_s;
    double sum = 0;
    for (std::uint64_t ns : all) {
        sum += static_cast<double>(ns);
    }
    round.mean_us = sum / static_cast<double>(all.size()) / 1e3;
    std::sort(all.begin(), all.end());
    round.median_us = static_cast<double>(all[all.size() / 2]) / 1e3;
    std::size_t p99 = (all.size() * 99 + 99) / 100;  // ceil(0.99 n), counted from 1
    round.p99_us = static_cast<double>(all[std::min(p99, all.size()) - 1]) / 1e3;
    return round;
}

// ---- the summary ------------------------------------------------------------------------

// Lookups per process above which one parse plus local lookups costs less
// than asking the daemon each time; negative when the daemon is never
// slower per lookup.
// ---- big replies ------------------------------------------------------------------

// The daemon's resident memory in KiB (VmRSS), or -1.
long daemon_rss_kib() {
    FILE *f = std::fopen(("/proc/" + std::to_string(daemon_pid) + "/status").c_str(), "r");
    if (f == nullptr) {
        return -1;
    }
    long kib = -1;
    char line[256];
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (std::strncmp(line, "VmRSS:", 6) == 0) {
            kib = std::atol(line + 6);
        }
    }
    std::fclose(f);
    return kib;
}

// A connection that sent `request` and reads nothing; -1 on failure.
int send_and_stall(const Fixture &f, const std::string &request) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, f.socket.c_str(), f.socket.size() + 1);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 ||
        !write_all(fd, request.data(), request.size())) {
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    return fd;
}

struct BigRow {
    std::size_t pending = 0;
    long rss_kib = -1;
    double median_us = 0;
    double p99_us = 0;
    double max_us = 0;
    std::size_t wrong = 0;
};

// The daemon restarted on a configuration of about kBigBytes; for each
// number of stalled whole-document list requests, its memory once every
// one is being answered, and ordinary lookups timed meanwhile.
std::vector<BigRow> big_replies(Fixture &f, std::size_t *bytes) {
    std::vector<BigRow> rows;
    std::string big;
    for (int scale = 1; big.size() < kBigBytes && scale < 1000; ++scale) {
        big = qorcfg::device::document(false, scale);
    }
    *bytes = big.size();
    stop_daemon();
    if (!qorcfg::bench::write_file(f.root, config_ram, big) ||
        !qorcfg::bench::write_file(f.root, current_config, big) || !start_daemon(f)) {
        return rows;
    }
    // A by-gid list spans the whole document.
    qorcfg_daemon_request req{};
    req.marker[0] = '_';
    const unsigned char code[4] = {0, 0, 0, QORCFG_REQ_BY_GID};
    std::memcpy(&req.code, code, 4);
    std::memcpy(req.file, config_ram, std::strlen(config_ram));
    const qorcfg_group *vlan = group_by_name("vlan");
    const std::uint32_t gid = vlan != nullptr ? vlan->gid : 0;
    for (int i = 0; i < 4; ++i) {
        req.gid[i] = static_cast<unsigned char>(gid >> (24 - 8 * i));
    }
    const std::string request(reinterpret_cast<const char *>(&req), QORCFG_REQUEST_SENT);
    std::vector<int> stalled;
    for (std::size_t pending : kPending) {
        // The requests arrive at once, the ordinary lookups right behind them.
        while (stalled.size() < pending) {
            int fd = send_and_stall(f, request);
            if (fd < 0) {
                break;
            }
            stalled.push_back(fd);
        }
        BigRow row;
        row.pending = stalled.size();
        std::vector<double> us;
        char value[QORCFG_VALUE_SIZE];
        for (std::size_t i = 0; i < kBigLookups; ++i) {
            const Query &q = f.queries[i % f.queries.size()];
            const std::uint64_t t0 = now_ns();
            const int rc = get_cfg_item_daemon(config_ram, q.group->gid, q.item->c_str(), value);
            us.push_back(static_cast<double>(now_ns() - t0) / 1000.0);
            row.wrong += rc != 0 || q.cut != value;
        }
        // Every stalled client has its first chunk: its reply is under way.
        for (int fd : stalled) {
            pollfd p{fd, POLLIN, 0};
            poll(&p, 1, 60000);
        }
        row.rss_kib = daemon_rss_kib();
        std::sort(us.begin(), us.end());
        row.median_us = us[us.size() / 2];
        row.p99_us = us[us.size() * 99 / 100];
        row.max_us = us.back();
        rows.push_back(row);
    }
    for (int fd : stalled) {
        close(fd);
    }
    return rows;
}

void print_big(const std::vector<BigRow> &rows, std::size_t bytes) {
    std::printf(
        "\nBig replies: a %.1f MiB configuration; clients that ask for a whole-document "
        "attribute\nlist and never read it, then %zu ordinary lookups (get_cfg_item_daemon) "
        "timed meanwhile.\n\n",
        static_cast<double>(bytes) / (1024.0 * 1024.0), kBigLookups);
    std::printf("%8s %12s %10s %10s %10s %6s\n", "stalled", "daemon MiB", "median us", "p99 us",
                "max us", "wrong");
    for (const BigRow &r : rows) {
        std::printf("%8zu %12.1f %10.1f %10.1f %10.1f %6zu\n", r.pending,
                    static_cast<double>(r.rss_kib) / 1024.0, r.median_us, r.p99_us, r.max_us,
                    r.wrong);
    }
}

double break_even(double parse_us, double daemon_us, double local_us) {
    return daemon_us > local_us ? parse_us / (daemon_us - local_us) : -1.0;
}

void print_summary(const std::vector<Round> &rounds, const qorcfg::bench::RateReporter &reporter,
                   long cores) {
    double local_us = reporter.seconds_per_item(kLocalLookup) * 1e6;
    double parse_us = reporter.seconds_per_item(kLocalParse) * 1e6;
    bool have_local = local_us > 0 && parse_us > 0;
    std::printf(
        "\nget_cfg_item through the daemon: %zu timed lookups per client process (random items "
        "of\nrandom groups, every answer checked), one connection per lookup. The machine has "
        "%ld\ncores: the daemon (one thread) and all its clients share them, so with 8 and 64 "
        "clients\nthe clients queue for the CPU as much as for the daemon.\n\n",
        kPerClient, cores);
    std::printf("%8s %9s %8s %10s %10s %10s %10s %6s %11s\n", "clients", "lookups", "wall s", "QPS",
                "median us", "p99 us", "mean us", "wrong", "break-even");
    for (const Round &r : rounds) {
        if (r.lookups == 0) {
            std::printf("%8zu  (failed: %s)\n", r.clients, r.error.c_str());
            continue;
        }
        char even[32] = "-";
        if (have_local) {
            double b = break_even(parse_us, r.median_us, local_us);
            if (b >= 0) {
                std::snprintf(even, sizeof even, "%.2f", b);
            } else {
                std::snprintf(even, sizeof even, "never");
            }
        }
        std::printf("%8zu %9zu %8.3f %10.0f %10.1f %10.1f %10.1f %6zu %11s\n", r.clients, r.lookups,
                    r.wall_s, r.qps, r.median_us, r.p99_us, r.mean_us, r.wrong, even);
        if (r.fell_back != 0 || r.failed != 0 || !r.error.empty()) {
            std::printf("%8s  %zu client(s) fell back to the file, %zu ended badly%s%s\n", "",
                        r.fell_back, r.failed, r.error.empty() ? "" : "; ", r.error.c_str());
        }
    }
    std::printf(
        "(wall: first client's first lookup to last client's last; QPS: all lookups / wall;\n"
        "latencies pooled over all clients; break-even from the median, below)\n\n");
    if (!have_local) {
        std::printf("Local figures: not run, failed or filtered out; no break-even.\n");
        return;
    }
    std::printf("Local lookup (get_cfg_item on a parsed handle): %10.3f us per lookup\n", local_us);
    std::printf("One parse (init_qorcfg_direct + ezxml_free):    %10.1f us\n", parse_us);
    const Round *one = nullptr;
    for (const Round &r : rounds) {
        if (r.clients == 1 && r.lookups != 0) {
            one = &r;
        }
    }
    if (one == nullptr) {
        std::printf("Break-even: no single-client figure.\n");
        return;
    }
    double b = break_even(parse_us, one->median_us, local_us);
    if (b < 0) {
        std::printf(
            "Break-even: never (daemon median %.1f us is not slower than the local lookup "
            "%.3f us)\n",
            one->median_us, local_us);
        return;
    }
    std::printf(
        "Break-even (1 client): parse %.1f us / (daemon median %.1f us - local %.3f us) = %.1f "
        "lookups per process: a process doing more lookups than that is faster parsing the "
        "file itself.\n",
        parse_us, one->median_us, local_us, b);
}

}  // namespace

int main(int argc, char **argv) {
    register_all();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    set_up(fixture);
    if (!fixture.error.empty()) {
        std::fprintf(stderr, "qorcfg_daemon_bench: %s\n", fixture.error.c_str());
        tear_down(fixture);
        return 1;
    }
    long cores = sysconf(_SC_NPROCESSORS_ONLN);
    std::printf(
        "Configuration: the sample device's (list scale %d): %zu bytes (%.1f KiB); %zu groups "
        "with attributes; %zu random lookups (seed %u); %zu daemon answers checked against the "
        "local read. Daemon socket: %s. Cores: %ld.\n",
        kListScale, fixture.doc.size(), static_cast<double>(fixture.doc.size()) / 1024.0,
        fixture.groups.size(), fixture.queries.size(), kSeed,
        std::min(kChecked, fixture.queries.size()), fixture.socket.c_str(), cores);
    std::fflush(stdout);
    qorcfg::bench::RateReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::fflush(stdout);
    std::vector<Round> rounds;
    for (std::size_t n : kConcurrency) {
        rounds.push_back(run_round(n));
    }
    print_summary(rounds, reporter, cores);
    std::size_t big_bytes = 0;
    const std::vector<BigRow> big = big_replies(fixture, &big_bytes);
    print_big(big, big_bytes);
    benchmark::Shutdown();
    bool clean = tear_down(fixture);
    bool ok = clean;
    for (const Round &r : rounds) {
        ok = ok && r.lookups == r.clients * kPerClient && r.wrong == 0 && r.fell_back == 0;
    }
    ok = ok && big.size() == kPending.size();
    for (const BigRow &r : big) {
        ok = ok && r.wrong == 0;
    }
    return ok ? 0 : 1;
}
