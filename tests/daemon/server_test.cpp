// tests/daemon/server_test.cpp - the configuration daemon: its reply bytes, its
// answers against the library's local reads for every group, item and list,
// clients' fallback when it is absent, dead or hung, re-reading, the program
// itself, and hostile or slow clients that must not stall the others.
#include <poll.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <random>
#include <thread>

#include "daemon/server.h"
#include "store/wire.h"
#include "tests/support/daemon_wire.h"
#include "tests/support/fixtures.h"

namespace {

using namespace std::chrono_literals;
using namespace qorcfg::test;
using qorcfg::daemon::Options;

constexpr size_t kChunk = qorcfg::wire::kChunkSize;
constexpr int32_t kSysDevice = 0x08080000, kVlan = 0x29000000;  // "sys_device" and "vlan"

// The sample working copy with the first `old` replaced by `now`.
std::string sample_with(const std::string &old, const std::string &now) {
    std::string config = sample("/conf/config.xml");
    return config.replace(config.find(old), old.size(), now);
}

// The sample configuration with `count` more entries in the VLAN group's
// element, so that its attribute list needs several reply chunks.
std::string config_with_vlan_entries(size_t count) {
    const std::string anchor = "<entry id=\"20\" name=\"guest\"/>";
    std::string entries = anchor;
    for (size_t i = 0; i < count; ++i)
        entries += "\n      <entry id=\"" + std::to_string(100 + i) + "\" name=\"vlan-entry-" +
                   std::to_string(i) + "\"/>";
    return sample_with(anchor, entries);
}

// A small configuration for checking reply bytes.
const char kSmallConfig[] =
    "<qorconfig version=\"1.10.01\" devtype=\"AP\">\n"
    "<system><device name=\"AP-1\" desc=\"lab\"></device></system>\n"
    "<network><vlan state=\"enable\" max=\"16\" cur_num=\"2\">\n"
    "<entry id=\"1\" name=\"default\"/><entry id=\"10\" name=\"staff\"/></vlan></network>\n"
    "</qorconfig>\n";

// The request record of request bytes, as the daemon takes it.
qorcfg_daemon_request record(const std::string &bytes) {
    return qorcfg::daemon::request_from_bytes(bytes.data(), bytes.size());
}

std::string name_request(const char *item = "name") {
    return request(QORCFG_REQ_BY_NAME, config_ram, item, "sys_device", "", -1);
}

// A reply taken apart strictly: whole chunks, each exactly what the shared
// record writers make of its header and records (a name, its value, and an
// index for an entry of a repeated element, all in one chunk), then an end
// record and zero padding. Every chunk carries the reply's result, and each
// chunk of a reply of several the flag that more follow.
struct Reply {
    bool well_formed = false;
    int32_t result = INT32_MIN;
    size_t chunks = 0;
    Attrs records;
    bool operator==(const Reply &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Reply &r) {
    return out << (r.well_formed ? "" : "malformed, ") << "result " << r.result << ", " << r.chunks
               << " chunks, " << testing::PrintToString(r.records);
}

Reply decode(const std::string &bytes) {
    Reply out;
    out.well_formed = !bytes.empty() && bytes.size() % kChunk == 0;
    for (size_t base = 0; out.well_formed && base < bytes.size(); base += kChunk, ++out.chunks) {
        const std::string chunk = bytes.substr(base, kChunk) + kEnd + kEnd;  // room to read on
        const auto *u = reinterpret_cast<const unsigned char *>(chunk.data());
        const size_t first = out.records.size();  // records never span chunks
        if (base == 0)
            out.result = static_cast<int32_t>(qorcfg::wire::get_be32(u + 11));
        std::string again =
            header(bytes.size() > kChunk ? qorcfg::wire::kMoreChunks : 0, out.result);
        for (size_t pos = 15; pos + 3 < kChunk && chunk[pos] != 0; pos = again.size()) {
            const char type = chunk[pos];
            const std::string text = chunk.c_str() + pos + 3;  // up to its zero
            const bool named = out.records.size() > first;
            if (type == 3)
                out.records.emplace_back(text, "", -1);
            else if (type == 4 && named && std::get<1>(out.records.back()).empty())
                std::get<1>(out.records.back()) = text;
            else if (type == 5 && named)
                std::get<2>(out.records.back()) =
                    static_cast<int32_t>(qorcfg::wire::get_be32(u + pos + 3));
            else
                break;  // no such record here: the comparison fails
            again +=
                type == 5 ? index_record(std::get<2>(out.records.back())) : text_record(type, text);
        }
        again += kEnd;
        out.well_formed =
            again.size() <= kChunk &&
            bytes.compare(base, kChunk, again.append(kChunk - again.size(), '\0')) == 0;
    }
    return out;
}

bool send_all(int fd, const std::string &bytes) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

// Whether `fd` becomes readable (data or end) within `limit`.
bool readable(int fd, std::chrono::milliseconds limit) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, static_cast<int>(limit.count())) > 0;
}

// What arrives on `fd` until the daemon ends the connection, then closes
// `fd`; `end` tells how it ended: "closed" in order, "reset", or ""
// (nothing for 60 s, or an error).
std::string read_to_end(int fd, std::string *end = nullptr) {
    const timeval limit{60, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string out;
    char buf[kChunk];
    ssize_t n;
    while ((n = ::recv(fd, buf, sizeof buf, 0)) > 0)
        out.append(buf, static_cast<size_t>(n));
    if (end != nullptr)
        *end = n == 0 ? "closed" : errno == ECONNRESET ? "reset" : "";
    ::close(fd);
    return out;
}

// One request on a fresh connection; the whole reply.
std::string exchange(const std::string &request, std::string *end = nullptr) {
    const int fd = connect_daemon_socket();
    send_all(fd, request);  // a failure shows as an empty reply
    return read_to_end(fd, end);
}

bool wait_until(const std::function<bool()> &done) {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (!done() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    return done();
}

// A value read, `read(args..., value)`: its result and the value.
using Answer = std::pair<int, std::string>;

template <typename Read, typename... Args>
Answer read_with(Read read, Args... args) {
    char value[QORCFG_VALUE_SIZE] = "";
    const int result = read(args..., value);
    return {result, value};
}

// ---- the reply bytes -----------------------------------------------------------

class DaemonAnswer : public SandboxTest {
protected:
    void SetUp() override { load(kSmallConfig); }
    void load(const std::string &config) {
        sandbox.write("/tmp/config.xml", config);
        sandbox.write("/tmp/current_config.xml", kSmallConfig);
        ram = open_file(config_ram);
        current = open_file(current_config);
    }
    std::string answer(uint32_t code, const std::string &item, const std::string &name,
                       const std::string &path, int32_t gid) {
        return qorcfg::daemon::answer(ram.get(), current.get(),
                                      record(request(code, config_ram, item, name, path, gid)));
    }
    Handle ram{nullptr, &close_qorcfg};
    Handle current{nullptr, &close_qorcfg};
};

// Each request's reply, decoded strictly (so exactly the bytes of its
// records): one item; a failure, a header with the local read's code and
// nothing else; a list, whose entries of the repeated element carry their
// index. By group ID a list walks from the handle's root element (the whole
// document less the elements of other groups). Unknown request codes (also
// a known one in the wrong byte order), text fields without their
// terminating zero and files the daemon has not parsed answer -1; the
// longest texts that fit are read as usual. Only the current
// configuration's path picks it; anything else is the working copy.
TEST_F(DaemonAnswer, RepliesByCodeFieldAndFile) {
    const std::string i64(64, 'i'), i65(65, 'i'), n128(128, 'n'), n129(129, 'n'), p257(257, 'p');
    const Attrs ap1 = {{"name", "AP-1", -1}};
    const Attrs list = {{"version", "1.10.01", -1}, {"devtype", "AP", -1},
                        {"name", "AP-1", -1},       {"desc", "lab", -1},
                        {"state", "enable", -1},    {"max", "16", -1},
                        {"cur_num", "2", -1},       {"id", "1", 0},
                        {"name", "default", 0},     {"id", "10", 1},
                        {"name", "staff", 1}};
    struct Case {
        bool ram, current;
        uint32_t code;
        std::string file, item, name, path;
        int32_t gid, result;
        Attrs records;
    };
    std::vector<Case> cases = {
        {true, true, 2, config_ram, "name", "", "", kSysDevice, 0, ap1},
        {true, true, 3, config_ram, "name", "sys_device", "", -1, 0, ap1},
        {true, true, 2, config_ram, "nothere", "", "", kSysDevice, -4, {}},
        {true, true, 2, config_ram, "", "", "", kVlan, 0, list},
        {true, true, 3, config_ram, i64, "sys_device", "", -1, -4, {}},
        {true, true, 3, config_ram, "name", n128, "", -1, -3, {}},
        {true, true, 2, config_ram, i65, "", "", kSysDevice, -1, {}},
        {true, true, 3, config_ram, "name", n129, "", -1, -1, {}},
        {true, true, 6, config_ram, "name", "sys_device", p257, -1, -1, {}},
        {true, true, 2, std::string(513, 'f'), "name", "", "", kSysDevice, -1, {}},
        {true, false, 2, "", "name", "", "", kSysDevice, 0, ap1},
        {true, false, 2, "/elsewhere.xml", "name", "", "", kSysDevice, 0, ap1},
        {true, false, 2, current_config, "name", "", "", kSysDevice, -1, {}},
        {true, false, 3, current_config, "", "vlan", "", -1, -1, {}},
        {false, true, 2, current_config, "name", "", "", kSysDevice, 0, ap1},
    };
    for (uint32_t code : {0u, 1u, 4u, 7u, 0x02000000u, 0xFFFFFFFFu})
        cases.push_back({true, true, code, config_ram, "name", "", "", kSysDevice, -1, {}});
    for (const Case &c : cases) {
        const Reply r = decode(
            qorcfg::daemon::answer(c.ram ? ram.get() : nullptr, c.current ? current.get() : nullptr,
                                   record(request(c.code, c.file, c.item, c.name, c.path, c.gid))));
        EXPECT_EQ(r, (Reply{true, c.result, 1, c.records})) << "case " << &c - cases.data();
    }
    // An unterminated marker field is refused as every other text field is.
    qorcfg_daemon_request marked = record(request(2, config_ram, "name", "", "", kSysDevice));
    std::memset(marked.marker, '_', sizeof marked.marker);
    EXPECT_EQ(decode(qorcfg::daemon::answer(ram.get(), current.get(), marked)).result, -1);
}

// Values are cut as the local read cuts them (a list carries the whole
// value, as the local list does); an attribute too long for a chunk sends
// the client to the file.
TEST_F(DaemonAnswer, LongValuesAndListsAsTheLocalReadGivesThem) {
    std::string config = kSmallConfig;
    const std::string long_value(300, 'v');
    load(config.replace(config.find("desc=\"lab\""), 10, "desc=\"" + long_value + "\""));
    Reply r = decode(answer(QORCFG_REQ_BY_NAME, "desc", "sys_device", "", -1));
    EXPECT_EQ(r.records, (Attrs{{"desc", std::string(255, 'v'), -1}}));
    r = decode(answer(QORCFG_REQ_BY_NAME, "", "sys_device", "", -1));
    EXPECT_EQ(r.records,
              attrs(get_attr_list_by_group_name_direct(ram.get(), "sys_device", nullptr)));
    EXPECT_EQ(std::get<1>(r.records.at(1)), long_value);

    load(config.replace(config.find(long_value), 300, std::string(5000, 'x')));
    EXPECT_EQ(decode(answer(QORCFG_REQ_BY_NAME, "", "sys_device", "", -1)),
              (Reply{true, QORCFG_ERR_DAEMON, 1, {}}));
}

// The daemon on a thread of the test, on the sandbox's files and socket,
// and normal clients of it.
class DaemonTest : public SandboxTest {
protected:
    // The daemon on the sample with `entries` more VLAN entries (400 make a
    // list of a few chunks, 12,000 one far larger than a socket's buffer).
    void start(Options options = {}, size_t entries = 400) {
        stop();
        install_sample(sandbox, config_with_vlan_entries(entries));
        server = std::make_unique<qorcfg::daemon::Server>(options);
        ASSERT_TRUE(server->start());
        thread = std::thread([this] { server->run(); });
    }
    void stop() {
        if (thread.joinable()) {
            server->request_stop();
            thread.join();
        }
    }
    void TearDown() override { stop(); }
    // A normal client still gets the right answer.
    void expect_served() {
        EXPECT_EQ(decode(exchange(name_request())),
                  (Reply{true, 0, 1, {{"name", "AP-Lab-01", -1}}}));
    }
    const std::string long_list = request(QORCFG_REQ_BY_GID, config_ram, "", "", "", kVlan);
    Attrs local_long_list() {
        return attrs(get_attr_list_by_gid_direct(open_file(config_ram).get(), kVlan, nullptr));
    }
    std::unique_ptr<qorcfg::daemon::Server> server;
    std::thread thread;
};

// ---- through the socket, against the local reads -------------------------------

// Every item of every group, by ID, by name and by the group's path, each
// group's attribute list by ID and by name, below the root's name and below
// each child: asked of the daemon directly and through a network-mode
// handle, always as the local read of the file gives it, and never sending
// the handle to the file. A path read through the daemon (code 6, and code
// 5 with the group's ID) gives what a client reads itself when no daemon
// answers.
TEST_F(DaemonTest, EveryItemAndListMatchesTheLocalRead) {
    start({}, 0);
    CaptureOutput quiet(2);  // the local reads report every miss
    std::vector<std::tuple<std::string, std::string, std::string, Answer>> path_reads;
    size_t found = 0, lists = 0, found_by_path = 0;
    for (const char *file : {config_ram, current_config}) {
        SCOPED_TRACE(file);
        const Handle local = open_file(file);
        Handle net = open_net(file);
        // An item by ID through the handle and of the daemon, and by name.
        auto same_item = [&](uint32_t gid, const char *group, const char *item) {
            const Answer want = read_with(get_cfg_item_direct, local.get(), gid, item);
            EXPECT_EQ(read_with(get_cfg_item, net.get(), gid, item), want);
            EXPECT_EQ(read_with(get_cfg_item_daemon, file, gid, item), want);
            EXPECT_EQ(read_with(get_cfg_item_by_str, net.get(), group, item),
                      read_with(get_cfg_item_by_str_direct, local.get(), group, item));
            return want.first == 0 ? 1 : 0;
        };
        // A list by ID or by name, whole or below `sub`: the daemon's own with
        // its result, then the handle's.
        auto same_list = [&](bool by_gid, uint32_t gid, const char *group, const std::string &sub) {
            SCOPED_TRACE(sub);
            const char *s = sub.empty() ? nullptr : sub.c_str();
            const Attrs want =
                attrs(by_gid ? get_attr_list_by_gid_direct(local.get(), gid, s)
                             : get_attr_list_by_group_name_direct(local.get(), group, s));
            const uint32_t code = by_gid ? (s ? QORCFG_REQ_BY_GID_PATH : QORCFG_REQ_BY_GID)
                                         : (s ? QORCFG_REQ_BY_NAME_PATH : QORCFG_REQ_BY_NAME);
            const std::string asked = request(code, file, "", by_gid ? "" : group, sub, gid);
            qorcfg_attr *list = nullptr;
            EXPECT_EQ(get_attr_from_daemon(record(asked), &list), 0);
            EXPECT_EQ(attrs(list), want);
            EXPECT_EQ(attrs(by_gid ? get_attr_list_by_gid(net.get(), gid, s)
                                   : get_attr_list_by_group_name(net.get(), group, s)),
                      want);
            return want.empty() ? 0 : 1;
        };
        for (const qorcfg_group *row = group_table; row->gid != 0; ++row) {
            SCOPED_TRACE(row->name);
            const uint32_t gid = row->gid;
            const std::string path = row->path, below_root = path.substr(path.find('.') + 1);
            ezxml_node *element = element_at(local->xml, path);
            std::vector<std::string> items = {"no_such_item", "child:1.no_such_item"};
            for (char **a = element != nullptr ? element->attr : nullptr; a && *a; a += 2)
                items.emplace_back(a[0]);
            for (const std::string &item : items) {
                SCOPED_TRACE(item);
                const char *i = item.c_str();
                found += same_item(gid, row->name, i);
                if (file != config_ram)
                    continue;
                const Answer by_path = read_with(get_cfg_item_by_path_gid_s, net.get(), row->name,
                                                 below_root.c_str(), i);
                EXPECT_EQ(read_with(get_cfg_item_by_all_args_daemon, file, gid, row->name,
                                    below_root.c_str(), i),
                          by_path);
                found_by_path += by_path.first == 0 ? 1 : 0;
                path_reads.emplace_back(row->name, below_root, item, by_path);
            }
            EXPECT_EQ(is_net_cfg(net.get()), 1);
            lists += same_list(true, gid, row->name, "");
            same_list(true, gid, row->name, below_root);
            same_list(false, gid, row->name, "");
            for (ezxml_node *c = element != nullptr ? element->child : nullptr; c; c = c->sibling)
                for (const std::string &sub : {std::string(c->name), std::string(c->name) + ":1"})
                    same_list(false, gid, row->name, sub);
            // A name-based list that comes back empty sends the handle to
            // its file for good; go on with a fresh one.
            if (is_net_cfg(net.get()) != 1)
                net = open_net(file);
        }
        // Unknown groups, and the root's identity (group 0, "0", "0x0").
        const std::pair<uint32_t, const char *> others[] = {
            {0x7FFFFFF0u, "no_such_group"}, {0, "0"}, {0, "0x0"}, {0, ""}};
        for (const char *item : {"version", "devtype", "name"})
            for (const auto &[gid, group] : others)
                same_item(gid, group, item);
        EXPECT_EQ(get_attr_list_by_gid(net.get(), 0x7FFFFFF0u, nullptr), nullptr);
        same_list(true, 0, "", "");
        same_list(false, 0, "0x0", "");
        EXPECT_EQ(is_net_cfg(net.get()), 1);
    }
    EXPECT_GT(found, 500u);
    EXPECT_GT(lists, 400u);
    EXPECT_GT(found_by_path, 1000u);

    stop();
    for (const auto &[group, sub, item, by_path] : path_reads) {
        const Handle h = open_net(config_ram);
        EXPECT_EQ(read_with(get_cfg_item_by_path_gid_s, h.get(), group.c_str(), sub.c_str(),
                            item.c_str()),
                  by_path)
            << sub << " " << item;
        EXPECT_EQ(is_net_cfg(h.get()), 0);  // it did fall back
    }
}

// ---- re-reading, damaged files and the program ---------------------------------

TEST_F(DaemonTest, ReloadServesTheChangedFileOrReportsItDamaged) {
    start({}, 0);
    auto reload = [&] {  // true once the daemon's thread has re-read the files
        const unsigned before = server->reloads();
        server->request_reload();
        return wait_until([&] { return server->reloads() > before; });
    };
    auto name = [](const char *f) { return read_with(get_cfg_item_daemon, f, kSysDevice, "name"); };
    auto name_by_path = [] {
        return read_with(get_cfg_item_by_all_args_daemon, config_ram, kSysDevice, "sys_device",
                         "system.device", "name");
    };
    sandbox.write("/tmp/config.xml", sample_with("name=\"AP-Lab-01\"", "name=\"AP-Renamed\""));
    // Until it re-reads, the daemon answers from what it parsed.
    EXPECT_EQ(name(config_ram), (Answer{0, "AP-Lab-01"}));
    ASSERT_TRUE(reload());
    EXPECT_EQ(name(config_ram), (Answer{0, "AP-Renamed"}));

    // A file that disappears answers -1, as a local read of it would, until
    // it is back.
    sandbox.remove("/tmp/current_config.xml");
    ASSERT_TRUE(reload());
    EXPECT_EQ(name(current_config), (Answer{-1, ""}));
    sandbox.write("/tmp/current_config.xml", sample("/etc/default-config.xml"));
    ASSERT_TRUE(reload());
    EXPECT_EQ(name(current_config), (Answer{0, "AP-Lab-01"}));

    // While a writer holds the working copy's lock, a re-read waits for
    // nothing: the daemon keeps answering from the trees it has (a daemon
    // stuck on the lock would not answer this process, which holds it), and
    // re-reads once the lock is free. A path read, which parses the file
    // under its shared lock, does not wait either: it sends the client to
    // the file.
    sandbox.write("/tmp/config.xml", sample_with("name=\"AP-Lab-01\"", "name=\"AP-Locked\""));
    const int writer = lock_qorcfg(1, LOCK_EX);
    ASSERT_GE(writer, 0);
    server->request_reload();
    EXPECT_EQ(name(config_ram), (Answer{0, "AP-Renamed"}));
    EXPECT_EQ(name_by_path(), (Answer{QORCFG_ERR_DAEMON, ""}));
    EXPECT_EQ(server->reloads(), 3u);
    unlock_qorcfg(writer);
    EXPECT_TRUE(wait_until([&] { return server->reloads() == 4u; }));
    EXPECT_EQ(name(config_ram), (Answer{0, "AP-Locked"}));
    EXPECT_EQ(name_by_path(), (Answer{0, "AP-Locked"}));

    // A damaged file is reported, and served as far as it reads.
    const std::string config = sample("/conf/config.xml");
    sandbox.write("/tmp/config.xml", config.substr(0, config.find("<wlan")));
    const std::string err = stderr_of([&] { ASSERT_TRUE(reload()); });
    EXPECT_NE(err.find("qorcfgd: " + std::string(config_ram) + " is damaged: [error near line "),
              std::string::npos)
        << err;
    EXPECT_EQ(name(config_ram), (Answer{0, "AP-Lab-01"}));
}

// The program as a device runs it. A wrong root or argument is a usage
// error (2) that says what is wrong. Started, it detaches once it listens
// (0), its pid complete in the pid file, and a second one on its socket
// fails to start (1), leaving it serving; it answers, re-reads on SIGUSR2,
// keeps its clients' failed lookups out of its log, and on SIGTERM ends,
// removing its socket and pid file, with a client halfway through a request
// holding nothing up. Clients read the file when no daemon listens, also
// after one was killed and left its socket behind (the next daemon replaces
// that socket), and after their time limit when one hangs.
TEST_F(SandboxTest, TheDaemonProgramAsADeviceRunsIt) {
    install_sample(sandbox);
    sandbox.mkdir("/bare");
    auto qorcfgd = [&](const std::string &args) {
        const std::string line = std::string(QORCFG_EMULATOR) + " " + QORCFGD + " " + args +
                                 " </dev/null >/dev/null 2>>" + sandbox.path("/daemon.log");
        const int status = std::system(line.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    auto ask = [] { return read_with(get_cfg_item_daemon, config_ram, kSysDevice, "name"); };
    auto local_fallback = [&](int daemon_result, const char *expected) {
        EXPECT_EQ(ask().first, daemon_result);
        const Handle net = open_net(config_ram);
        EXPECT_EQ(read_with(get_cfg_item, net.get(), kSysDevice, "name"), (Answer{0, expected}));
        EXPECT_EQ(is_net_cfg(net.get()), 0);  // it read the file
    };
    local_fallback(QORCFG_ERR_DAEMON_CONNECT, "AP-Lab-01");

    EXPECT_EQ(qorcfgd("--root " + sandbox.path("/bare")), 2);
    EXPECT_EQ(qorcfgd("--bogus"), 2);
    ASSERT_EQ(qorcfgd("--root " + sandbox.root()), 0);
    const std::string pid_text = sandbox.read("/var/run/read_qorcfgd.pid");
    const pid_t pid = std::stoi(pid_text);
    EXPECT_EQ(pid_text, std::to_string(pid) + "\n");
    EXPECT_EQ(qorcfgd("--root " + sandbox.root()), 1);
    EXPECT_EQ(sandbox.read("/var/run/read_qorcfgd.pid"), pid_text);
    EXPECT_EQ(read_with(get_cfg_item_daemon, config_ram, kSysDevice, "nothing").first, -4);
    sandbox.write("/tmp/config.xml", sample_with("name=\"AP-Lab-01\"", "name=\"AP-Signalled\""));
    ASSERT_EQ(::kill(pid, SIGUSR2), 0);  // the daemon this test started
    EXPECT_TRUE(wait_until([&] { return ask() == Answer{0, "AP-Signalled"}; }));
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    EXPECT_TRUE(wait_until([&] { return ask().first == QORCFG_ERR_DAEMON_CONNECT; }));
    EXPECT_TRUE(sandbox.exists("/tmp/qorcfgd_socket"));  // left behind
    local_fallback(QORCFG_ERR_DAEMON_CONNECT, "AP-Signalled");

    ASSERT_EQ(qorcfgd("--root " + sandbox.root()), 0);
    const int slow = connect_daemon_socket();
    ASSERT_TRUE(send_all(slow, std::string(100, '\0')));
    ASSERT_EQ(::kill(std::stoi(sandbox.read("/var/run/read_qorcfgd.pid")), SIGTERM), 0);
    EXPECT_TRUE(wait_until([&] { return !sandbox.exists("/var/run/read_qorcfgd.pid"); }));
    EXPECT_TRUE(wait_until([&] { return !sandbox.exists("/tmp/qorcfgd_socket"); }));
    std::string end;
    EXPECT_EQ(read_to_end(slow, &end), "");
    EXPECT_TRUE(end == "closed" || end == "reset") << end;

    // A socket that accepts (the backlog does) and never answers.
    const int hung = bind_daemon_socket(true);
    ASSERT_GE(hung, 0);
    qorcfg::os::set_daemon_timeout(200ms);
    local_fallback(QORCFG_ERR_DAEMON_RECV, "AP-Signalled");
    ::close(hung);

    const std::string text = sandbox.read("/daemon.log");
    EXPECT_NE(text.find("/bare: no directory "), std::string::npos) << text;
    EXPECT_NE(text.find("--bogus: unknown argument"), std::string::npos) << text;
    EXPECT_NE(text.find("another daemon answers on this socket"), std::string::npos) << text;
    EXPECT_EQ(text.find("nothing"), std::string::npos) << text;
}

// ---- slow, hostile and vanishing clients ---------------------------------------

// Partial, garbage, over-long and vanishing clients: none stalls another,
// each gets what its request deserves, and the daemon forgets them.
TEST_F(DaemonTest, HostileClientsStallNobody) {
    start();
    const std::string desc = name_request("desc");
    const int slow = connect_daemon_socket();
    ASSERT_TRUE(send_all(slow, desc.substr(0, 100)));
    expect_served();
    EXPECT_FALSE(readable(slow, 0ms));          // no answer to half a request
    for (size_t i = 100; i < desc.size(); ++i)  // the rest, a byte at a time
        ASSERT_TRUE(send_all(slow, desc.substr(i, 1)));
    std::string end;
    EXPECT_EQ(decode(read_to_end(slow, &end)),
              (Reply{true, 0, 1, {{"desc", "Enterprise dual-band access point", -1}}}));
    EXPECT_EQ(end, "closed");

    std::mt19937 random(20260101);
    for (int round = 0; round < 50; ++round) {  // garbage answers -1
        std::string garbage(QORCFG_REQUEST_SENT, '\0');
        std::generate(garbage.begin(), garbage.end(), [&] { return static_cast<char>(random()); });
        EXPECT_EQ(decode(exchange(garbage)), (Reply{true, -1, 1, {}}));
    }

    // Bytes beyond the request, here a second request and garbage, are
    // ignored: only the first request is answered, its long list split into
    // chunks at attribute boundaries, and the reply still ends in order.
    const Reply r = decode(exchange(long_list + name_request() + std::string(3000, 'x'), &end));
    ASSERT_TRUE(r.well_formed);
    EXPECT_EQ(end, "closed");
    EXPECT_GT(r.chunks, 3u);
    EXPECT_EQ(r.records, local_long_list());

    // Connects and leaves: at once, halfway through its request, right after
    // sending it, after a little of the reply.
    const size_t sent[] = {0, 500, long_list.size(), long_list.size()};
    for (size_t i = 0; i < 80; ++i) {
        const int fd = connect_daemon_socket();
        ASSERT_TRUE(send_all(fd, long_list.substr(0, sent[i % 4])));
        char some[100];
        EXPECT_TRUE(i % 4 != 3 || (readable(fd, 60s) && ::recv(fd, some, sizeof some, 0) > 0));
        ::close(fd);
    }
    expect_served();
    EXPECT_TRUE(wait_until([&] { return server->clients() == 0; }));
}

// A reply far larger than a socket's buffer: the daemon must wait for the
// reader, not block on it, and serve others meanwhile. Past the limit of
// connections the one idle longest makes room, but a reader waiting for the
// rest of its reply outlives newer clients that sent nothing (cut off, it
// would have to read the file after all); a flood never exceeds the limit.
TEST_F(DaemonTest, ASlowReaderGetsItsWholeReplyWhileOthersAreServedOrMakeRoom) {
    start(Options{4, 60s}, 12000);
    const Attrs want = local_long_list();
    const int reader = connect_daemon_socket();
    ASSERT_TRUE(send_all(reader, long_list));
    ASSERT_TRUE(readable(reader, 60s));  // the first chunk is there
    for (int i = 0; i < 5; ++i)
        expect_served();
    EXPECT_TRUE(wait_until([&] { return server->clients() == 1; }));  // still served
    std::vector<int> idle;
    for (int i = 0; i < 3; ++i) {
        idle.push_back(connect_daemon_socket());
        ASSERT_TRUE(wait_until([&] { return server->clients() == idle.size() + 1; }));
    }
    expect_served();
    // The first silent connection was dropped for the new one; the others wait on.
    std::string end;
    EXPECT_EQ(read_to_end(std::exchange(idle[0], -1), &end), "");
    EXPECT_EQ(end, "closed");
    for (size_t i = 1; i < idle.size(); ++i)
        EXPECT_FALSE(readable(idle[i], 0ms)) << i;
    for (int i = 0; i < 50; ++i)
        idle.push_back(connect_daemon_socket());
    expect_served();
    EXPECT_LE(server->clients(), 4u);
    for (int fd : idle)
        ::close(fd);

    const Reply r = decode(read_to_end(reader, &end));
    EXPECT_EQ(end, "closed");
    ASSERT_TRUE(r.well_formed);
    EXPECT_GT(r.chunks, 100u);
    EXPECT_EQ(r.records, want);
}

// A reader that stops for longer than the idle limit, and one still reading
// when the daemon stops: both connections are reset, so the library's
// client takes the reply for failed (-10005) and reads the file, never
// taking a part of the list for the whole. A client that had not completed
// its request is simply closed.
TEST_F(DaemonTest, AReplyCutShortIsResetNeverEndedInOrder) {
    for (bool stopping : {false, true}) {
        start(Options{256, stopping ? 60000ms : 300ms}, 12000);
        const int idle = connect_daemon_socket(), reader = connect_daemon_socket();
        ASSERT_TRUE(send_all(idle, std::string(10, '\0')) && send_all(reader, long_list));
        char chunk[kChunk];
        ASSERT_TRUE(readable(reader, 60s));
        ASSERT_GT(::recv(reader, chunk, sizeof chunk, 0), 0);
        if (stopping)
            stop();
        else
            ASSERT_TRUE(wait_until([&] { return server->clients() == 0; }));
        std::string idle_end, end;
        EXPECT_EQ(read_to_end(idle, &idle_end), "");
        read_to_end(reader, &end);
        EXPECT_EQ(idle_end + ", " + end, "closed, reset") << (stopping ? "stopped" : "idle");
    }
}

}  // namespace
