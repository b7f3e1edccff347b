// tests/daemon/server_test.cpp - the configuration daemon: its reply bytes,
// its answers against the library's local reads of the same files for every
// group, item and attribute list, the fallback of clients when it is absent
// or dies, re-reading on request and on SIGUSR2, clean shutdown, and hostile
// or slow clients that must not stall the others.
#include <poll.h>
#include <sys/un.h>
#include <sys/wait.h>

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
using qorcfg::daemon::Server;

constexpr size_t kChunk = qorcfg::wire::kChunkSize;

// ---- fixture files ---------------------------------------------------------

std::string sample_config() {
    return sample("/conf/config.xml");
}

// The sample configuration with `count` more entries in the VLAN group's
// element, so that its attribute list needs several reply chunks.
std::string config_with_vlan_entries(size_t count) {
    std::string config = sample_config();
    const std::string anchor = "<entry id=\"20\" name=\"guest\"/>";
    std::string entries;
    for (size_t i = 0; i < count; ++i)
        entries += "\n      <entry id=\"" + std::to_string(100 + i) + "\" name=\"vlan-entry-" +
                   std::to_string(i) + "\"/>";
    size_t at = config.find(anchor);
    if (at != std::string::npos)
        config.insert(at + anchor.size(), entries);
    return config;
}

// A small configuration for checking reply bytes.
const char kSmallConfig[] =
    "<qorconfig version=\"1.10.01\" devtype=\"AP\">\n"
    "  <system>\n"
    "    <device name=\"AP-1\" desc=\"lab\"></device>\n"
    "  </system>\n"
    "  <network>\n"
    "    <vlan state=\"enable\" max=\"16\" cur_num=\"2\">\n"
    "      <entry id=\"1\" name=\"default\"/>\n"
    "      <entry id=\"10\" name=\"staff\"/>\n"
    "    </vlan>\n"
    "  </network>\n"
    "</qorconfig>\n";

// ---- requests and replies --------------------------------------------------

using qorcfg::test::be16;
using qorcfg::test::be32;
// The 1,011 bytes a client puts on the socket (texts are cut to their
// fields, so tests can pass over-long ones on purpose).
constexpr auto request_bytes = qorcfg::test::request;

qorcfg_daemon_request request_record(uint32_t code, const std::string &file,
                                     const std::string &item, const std::string &name,
                                     const std::string &path, int32_t gid) {
    std::string bytes = request_bytes(code, file, item, name, path, gid);
    return qorcfg::daemon::request_from_bytes(bytes.data(), bytes.size());
}

// A reply taken apart strictly: whole chunks, each a header, records and an
// end record followed by zero padding only.
struct Reply {
    bool well_formed = false;
    std::string problem;
    std::vector<int32_t> results;
    std::vector<uint32_t> flags;
    Attrs records;
    size_t chunks() const { return results.size(); }
    int32_t result() const { return results.empty() ? INT32_MIN : results.front(); }
};

uint32_t get32(const std::string &s, size_t at) {
    auto b = [&](size_t i) { return static_cast<uint32_t>(static_cast<unsigned char>(s[at + i])); };
    return (b(0) << 24) | (b(1) << 16) | (b(2) << 8) | b(3);
}

Reply decode(const std::string &bytes) {
    Reply out;
    auto fail = [&](const std::string &why) {
        out.problem = why;
        return out;
    };
    if (bytes.empty() || bytes.size() % kChunk != 0)
        return fail("size " + std::to_string(bytes.size()) + " is not a whole number of chunks");
    for (size_t base = 0; base < bytes.size(); base += kChunk) {
        const std::string chunk = bytes.substr(base, kChunk);
        size_t pos = 0;
        auto len_at = [&](size_t p) {
            return (static_cast<size_t>(static_cast<unsigned char>(chunk[p + 1])) << 8) |
                   static_cast<unsigned char>(chunk[p + 2]);
        };
        if (chunk[0] != 1 || len_at(0) != 12)
            return fail("chunk without a header");
        if (get32(chunk, 3) != 0)
            return fail("header's first word not zero");
        out.flags.push_back(get32(chunk, 7));
        out.results.push_back(static_cast<int32_t>(get32(chunk, 11)));
        pos = 15;
        bool ended = false;
        while (pos + 3 <= kChunk) {
            const unsigned char type = static_cast<unsigned char>(chunk[pos]);
            const size_t len = len_at(pos);
            if (type == 0) {
                if (len != 0)
                    return fail("end record with a length");
                ended = true;
                pos += 3;
                break;
            }
            if (type == 3 || type == 4) {
                if (pos + 3 + len + 1 > kChunk || chunk[pos + 3 + len] != '\0')
                    return fail("text record not terminated");
                std::string text = chunk.substr(pos + 3, len);
                if (text.find('\0') != std::string::npos)
                    return fail("text record with a zero inside");
                if (type == 3) {
                    out.records.emplace_back(text, "", -1);
                } else {
                    if (out.records.empty() || !std::get<1>(out.records.back()).empty())
                        return fail("value without a name");
                    std::get<1>(out.records.back()) = text;
                }
                pos += 3 + len + 1;
            } else if (type == 5) {
                if (len != 4)
                    return fail("index record of length " + std::to_string(len));
                std::get<2>(out.records.back()) = static_cast<int32_t>(get32(chunk, pos + 3));
                pos += 7;
            } else {
                return fail("record of type " + std::to_string(type));
            }
        }
        if (!ended)
            return fail("chunk without an end record");
        if (chunk.find_first_not_of('\0', pos) != std::string::npos)
            return fail("padding not zero");
    }
    out.well_formed = true;
    return out;
}

// ---- raw clients -------------------------------------------------------------

int connect_raw() {
    const std::string &path = qorcfg::os::daemon_socket_path();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return -1;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool send_all(int fd, const std::string &bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Whether `fd` becomes readable (data or end) within `limit`.
bool readable(int fd, std::chrono::milliseconds limit) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, static_cast<int>(limit.count())) > 0;
}

// What arrives on `fd` until the daemon closes it; `closed` tells whether
// the orderly end came (rather than the time limit or an error), `reset`
// whether the connection was reset instead.
std::string read_to_end(int fd, bool *closed = nullptr, std::chrono::milliseconds limit = 60s,
                        bool *reset = nullptr) {
    std::string out;
    char buf[kChunk];
    const auto deadline = std::chrono::steady_clock::now() + limit;
    if (closed != nullptr)
        *closed = false;
    if (reset != nullptr)
        *reset = false;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left <= 0ms || !readable(fd, left))
            return out;
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n == 0) {
            if (closed != nullptr)
                *closed = true;
            return out;
        }
        if (n < 0) {
            if (reset != nullptr)
                *reset = errno == ECONNRESET;
            return out;
        }
        out.append(buf, static_cast<size_t>(n));
    }
}

// One request on a fresh connection; the whole reply.
std::string exchange(const std::string &request, bool *closed = nullptr) {
    int fd = connect_raw();
    if (fd < 0)
        return "";
    std::string reply;
    if (send_all(fd, request))
        reply = read_to_end(fd, closed);
    ::close(fd);
    return reply;
}

bool wait_until(const std::function<bool()> &done, std::chrono::milliseconds limit = 60s) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// ---- daemons -----------------------------------------------------------------

// The daemon on a thread of the test, on the sandbox's files and socket.
class ThreadDaemon {
public:
    explicit ThreadDaemon(Options options = {}) : server_(options) {
        started_ = server_.start();
        if (started_)
            thread_ = std::thread([this] { server_.run(); });
        // The daemon parses its files itself; this process's handles ask it.
        set_all_net_qorcfg_mode(1);
    }
    ~ThreadDaemon() { stop(); }
    ThreadDaemon(const ThreadDaemon &) = delete;
    ThreadDaemon &operator=(const ThreadDaemon &) = delete;

    bool started() const { return started_; }
    Server &server() { return server_; }
    void stop() {
        server_.request_stop();
        if (thread_.joinable())
            thread_.join();
    }
    // Re-reads the files on the daemon's thread; true once that is done.
    bool reload() {
        const unsigned before = server_.reloads();
        server_.request_reload();
        bool done = wait_until([&] { return server_.reloads() > before; });
        set_all_net_qorcfg_mode(1);
        return done;
    }

private:
    Server server_;
    bool started_ = false;
    std::thread thread_;
};

// ---- handles -----------------------------------------------------------------

// A handle that holds the parsed file, as the daemon's own.
qorcfg_handle *parsed(const char *file) {
    const int mode = get_net_qorcfg(0);
    set_all_net_qorcfg_mode(0);
    qorcfg_handle *h = init_qorcfg_f(file);
    set_all_net_qorcfg_mode(mode);
    return h;
}

// A network-mode handle of `file` (the working copy or the current
// configuration).
qorcfg_handle *networked(const char *file) {
    set_all_net_qorcfg_mode(1);
    return init_qorcfg_f(file);
}

std::vector<std::string> attribute_names(ezxml_node *node) {
    std::vector<std::string> names;
    if (node != nullptr) {
        for (char **a = node->attr; a != nullptr && *a != nullptr; a += 2)
            names.emplace_back(a[0]);
    }
    return names;
}

// Sub-paths below a group's element for list requests: each child name,
// with ":1" for the second of repeated children.
std::vector<std::string> child_subs(ezxml_node *node) {
    std::vector<std::string> subs;
    if (node == nullptr)
        return subs;
    for (ezxml_node *c = node->child; c != nullptr; c = c->sibling) {
        subs.emplace_back(c->name);
        if (c->next != nullptr)
            subs.push_back(std::string(c->name) + ":1");
    }
    return subs;
}

struct Answer {
    int result;
    std::string value;
    bool operator==(const Answer &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Answer &r) {
    return out << r.result << " \"" << r.value << "\"";
}

template <typename F>
Answer read_with(F f) {
    char value[QORCFG_VALUE_SIZE] = "";
    int result = f(value);
    return Answer{result, value};
}

std::vector<const qorcfg_group *> all_groups() {
    std::vector<const qorcfg_group *> rows;
    for (const qorcfg_group *row = group_table; row->gid != 0; ++row)
        rows.push_back(row);
    return rows;
}

uint32_t gid_of(const char *name) {
    const qorcfg_group *row = group_by_name(name);
    return row != nullptr ? row->gid : 0;
}

// =============================================================================
// The reply bytes
// =============================================================================

class DaemonAnswer : public SandboxTest {
protected:
    void SetUp() override {
        sandbox.write("/tmp/config.xml", kSmallConfig);
        sandbox.write("/tmp/current_config.xml", kSmallConfig);
        ram = parsed(config_ram);
        current = parsed(current_config);
        ASSERT_NE(ram, nullptr);
        ASSERT_NE(current, nullptr);
    }
    void TearDown() override {
        close_qorcfg(ram);
        close_qorcfg(current);
    }
    std::string answer(uint32_t code, const std::string &item, const std::string &name,
                       const std::string &path, int32_t gid, const std::string &file = config_ram) {
        return qorcfg::daemon::answer(ram, current,
                                      request_record(code, file, item, name, path, gid));
    }
    qorcfg_handle *ram = nullptr;
    qorcfg_handle *current = nullptr;
};

TEST_F(DaemonAnswer, ItemAndFailureRepliesAreExactBytes) {
    const uint32_t device = gid_of("sys_device");
    ASSERT_NE(device, 0u);
    const std::string header_ok = std::string("\x01\x00\x0c", 3) + be32(0) + be32(0) + be32(0);
    const std::string end(3, '\0');

    std::string expected = header_ok + std::string("\x03\x00\x04", 3) + "name" + '\0' +
                           std::string("\x04\x00\x04", 3) + "AP-1" + '\0' + end;
    expected.resize(kChunk, '\0');
    EXPECT_EQ(answer(QORCFG_REQ_BY_GID, "name", "", "", static_cast<int32_t>(device)), expected);
    EXPECT_EQ(answer(QORCFG_REQ_BY_NAME, "name", "sys_device", "", -1), expected);

    // A failure is a header with the local read's code, nothing else.
    std::string missing =
        std::string("\x01\x00\x0c", 3) + be32(0) + be32(0) + be32(0xFFFFFFFC) + end;
    missing.resize(kChunk, '\0');
    EXPECT_EQ(answer(QORCFG_REQ_BY_GID, "nothere", "", "", static_cast<int32_t>(device)), missing);
}

TEST_F(DaemonAnswer, ListRepliesCarryIndexRecordsOnlyForRepeatedElements) {
    const uint32_t vlan = gid_of("vlan");
    ASSERT_NE(vlan, 0u);
    std::string bytes = answer(QORCFG_REQ_BY_GID, "", "", "", static_cast<int32_t>(vlan));
    // By group ID the walk starts at the handle's root element (the whole
    // document, less the elements of other groups); the entries of the
    // repeated element carry their index in an index record.
    auto text = [](char type, const std::string &s) {
        return std::string(1, type) + be16(static_cast<uint32_t>(s.size())) + s + '\0';
    };
    auto attribute = [&](const std::string &name, const std::string &value) {
        return text(3, name) + text(4, value);
    };
    auto index = [](uint32_t i) { return std::string("\x05\x00\x04", 3) + be32(i); };
    std::string expected = std::string("\x01\x00\x0c", 3) + be32(0) + be32(0) + be32(0) +
                           attribute("version", "1.10.01") + attribute("devtype", "AP") +
                           attribute("name", "AP-1") + attribute("desc", "lab") +
                           attribute("state", "enable") + attribute("max", "16") +
                           attribute("cur_num", "2") + attribute("id", "1") + index(0) +
                           attribute("name", "default") + index(0) + attribute("id", "10") +
                           index(1) + attribute("name", "staff") + index(1) + std::string(3, '\0');
    expected.resize(kChunk, '\0');
    EXPECT_EQ(bytes, expected);

    // (Every form of list, by gid and by name with and without sub-paths,
    // is compared with the local read for every group: DaemonDifferential.)
}

// Unknown request codes, text fields without their terminating zero and
// files the daemon has not parsed answer -1; the longest texts that fit are
// read as usual. Only the current configuration's path picks it; anything
// else is the working copy.
TEST_F(DaemonAnswer, ResultsOfRequestsByCodeFieldAndFile) {
    const int32_t device = static_cast<int32_t>(gid_of("sys_device"));
    const std::string i64(64, 'i'), i65(65, 'i'), n128(128, 'n'), n129(129, 'n'), p257(257, 'p'),
        f513(513, 'f');
    const struct {
        bool ram, current;
        uint32_t code;
        std::string file, item, name, path;
        int32_t gid, result;
    } cases[] = {
        {true, true, 0, config_ram, "name", "sys_device", "", device, -1},
        {true, true, 1, config_ram, "name", "sys_device", "", device, -1},
        {true, true, 4, config_ram, "name", "sys_device", "", device, -1},
        {true, true, 7, config_ram, "name", "sys_device", "", device, -1},
        {true, true, 0x02000000u, config_ram, "name", "sys_device", "", device, -1},
        {true, true, 0xFFFFFFFFu, config_ram, "name", "sys_device", "", device, -1},
        {true, true, 3, config_ram, i64, "sys_device", "", -1, -4},
        {true, true, 3, config_ram, "name", n128, "", -1, -3},
        {true, true, 2, config_ram, i65, "", "", device, -1},
        {true, true, 3, config_ram, "name", n129, "", -1, -1},
        {true, true, 6, config_ram, "name", "sys_device", p257, -1, -1},
        {true, true, 2, f513, "name", "", "", device, -1},
        {true, false, 2, "/elsewhere.xml", "name", "", "", device, 0},
        {true, false, 2, current_config, "name", "", "", device, -1},
        {true, false, 3, current_config, "", "vlan", "", -1, -1},
        {false, true, 2, current_config, "name", "", "", device, 0},
    };
    for (const auto &c : cases) {
        const Reply r = decode(
            qorcfg::daemon::answer(c.ram ? ram : nullptr, c.current ? current : nullptr,
                                   request_record(c.code, c.file, c.item, c.name, c.path, c.gid)));
        ASSERT_TRUE(r.well_formed) << r.problem;
        EXPECT_EQ(r.result(), c.result) << c.code << " " << c.file.substr(0, 20) << " "
                                        << c.item.size() << " " << c.name.size();
        EXPECT_EQ(r.records.empty(), c.result != 0);
    }
    EXPECT_EQ(qorcfg::daemon::answer(ram, nullptr, request_record(2, "", "name", "", "", device)),
              answer(2, "name", "", "", device));
    // An unterminated marker field is refused as every other text field is.
    qorcfg_daemon_request marked = request_record(2, config_ram, "name", "", "", device);
    std::memset(marked.marker, '_', sizeof marked.marker);
    EXPECT_EQ(decode(qorcfg::daemon::answer(ram, current, marked)).result(), -1);
}

// Values are cut as the local read cuts them (a list carries the whole
// value, as the local list does); long lists split into chunks at attribute
// boundaries; an attribute too long for a chunk sends the client to the file.
TEST_F(DaemonAnswer, LongValuesAndListsAsTheLocalReadGivesThem) {
    const auto reparse = [&](const std::string &config) {
        sandbox.write("/tmp/config.xml", config);
        close_qorcfg(ram);
        ram = parsed(config_ram);
    };
    std::string config = kSmallConfig;
    const std::string long_value(300, 'v');
    reparse(config.replace(config.find("desc=\"lab\""), 10, "desc=\"" + long_value + "\""));
    Reply r = decode(answer(QORCFG_REQ_BY_NAME, "desc", "sys_device", "", -1));
    EXPECT_EQ(r.records, (Attrs{{"desc", std::string(255, 'v'), -1}}));
    r = decode(answer(QORCFG_REQ_BY_NAME, "", "sys_device", "", -1));
    EXPECT_EQ(r.records, attrs(get_attr_list_by_group_name_direct(ram, "sys_device", nullptr)));
    EXPECT_EQ(std::get<1>(r.records.at(1)), long_value);

    reparse(config.replace(config.find(long_value), 300, std::string(5000, 'x')));
    r = decode(answer(QORCFG_REQ_BY_NAME, "", "sys_device", "", -1));
    ASSERT_TRUE(r.well_formed) << r.problem;
    EXPECT_EQ(r.result(), QORCFG_ERR_DAEMON);
    EXPECT_TRUE(r.records.empty());

    reparse(config_with_vlan_entries(400));
    const uint32_t vlan = gid_of("vlan");
    std::string bytes = answer(QORCFG_REQ_BY_GID, "", "", "", static_cast<int32_t>(vlan));
    r = decode(bytes);
    ASSERT_TRUE(r.well_formed) << r.problem;
    EXPECT_GT(r.chunks(), 3u);
    EXPECT_EQ(r.flags, std::vector<uint32_t>(r.chunks(), qorcfg::wire::kMoreChunks));
    EXPECT_EQ(r.results, std::vector<int32_t>(r.chunks(), 0));
    EXPECT_EQ(r.records, attrs(get_attr_list_by_gid_direct(ram, vlan, nullptr)));
    // Every chunk starts with a name record right after its header: a value
    // or an index never begins a chunk.
    for (size_t base = 0; base < bytes.size(); base += kChunk)
        EXPECT_EQ(bytes[base + 15], 3) << "chunk at " << base;
}

TEST_F(DaemonAnswer, PathReadsNeverWaitForAWritersLock) {
    // A path read parses the file under its shared lock. While a writer
    // (here: this process, through another descriptor) holds the lock, the
    // daemon must not wait: it sends the client to the file instead.
    const int32_t device = static_cast<int32_t>(gid_of("sys_device"));
    const std::string before = answer(QORCFG_REQ_BY_GID_PATH, "name", "", "system.device", device);
    ASSERT_TRUE(decode(before).well_formed);
    const int writer = lock_qorcfg(1, LOCK_EX);
    ASSERT_GE(writer, 0);
    Reply busy = decode(answer(QORCFG_REQ_BY_GID_PATH, "name", "", "system.device", device));
    unlock_qorcfg(writer);
    ASSERT_TRUE(busy.well_formed) << busy.problem;
    EXPECT_EQ(busy.result(), QORCFG_ERR_DAEMON);
    EXPECT_TRUE(busy.records.empty());
    EXPECT_EQ(answer(QORCFG_REQ_BY_GID_PATH, "name", "", "system.device", device), before);
}

// =============================================================================
// Through the socket, against the local reads
// =============================================================================

class DaemonDifferential : public SandboxTest {
protected:
    void start(const std::string &working = sample_config()) {
        install_sample(sandbox, working);
        local_ram = parsed(config_ram);
        local_current = parsed(current_config);
        ASSERT_NE(local_ram, nullptr);
        ASSERT_NE(local_current, nullptr);
        daemon = std::make_unique<ThreadDaemon>();
        ASSERT_TRUE(daemon->started());
    }
    void TearDown() override {
        daemon.reset();
        if (local_ram != nullptr)
            close_qorcfg(local_ram);
        if (local_current != nullptr)
            close_qorcfg(local_current);
    }
    std::unique_ptr<ThreadDaemon> daemon;
    qorcfg_handle *local_ram = nullptr;
    qorcfg_handle *local_current = nullptr;
};

TEST_F(DaemonDifferential, EveryItemOfEveryGroupMatchesTheLocalRead) {
    start();
    CaptureOutput quiet(2);  // the local reads report every miss
    size_t compared = 0;
    for (const char *file : {config_ram, current_config}) {
        SCOPED_TRACE(file);
        qorcfg_handle *local = file == config_ram ? local_ram : local_current;
        qorcfg_handle *net = networked(file);
        ASSERT_EQ(is_net_cfg(net), 1);
        for (const qorcfg_group *row : all_groups()) {
            std::vector<std::string> items = attribute_names(element_at(local->xml, row->path));
            items.emplace_back("no_such_item");
            items.emplace_back("child:1.no_such_item");
            for (const std::string &item : items) {
                SCOPED_TRACE(std::string(row->name) + " " + item);
                const char *i = item.c_str();
                Answer want =
                    read_with([&](char *v) { return get_cfg_item_direct(local, row->gid, i, v); });
                EXPECT_EQ(read_with([&](char *v) { return get_cfg_item(net, row->gid, i, v); }),
                          want);
                EXPECT_EQ(
                    read_with([&](char *v) { return get_cfg_item_daemon(file, row->gid, i, v); }),
                    want);
                want = read_with(
                    [&](char *v) { return get_cfg_item_by_str_direct(local, row->name, i, v); });
                EXPECT_EQ(
                    read_with([&](char *v) { return get_cfg_item_by_str(net, row->name, i, v); }),
                    want);
                compared += 2;
            }
        }
        // Unknown groups, and the root's identity items both ways round.
        for (uint32_t gid : {0x7FFFFFF0u, 0u}) {
            for (const char *item : {"version", "devtype", "name"}) {
                SCOPED_TRACE(std::to_string(gid) + " " + item);
                EXPECT_EQ(
                    read_with([&](char *v) { return get_cfg_item(net, gid, item, v); }),
                    read_with([&](char *v) { return get_cfg_item_direct(local, gid, item, v); }));
            }
        }
        for (const char *group : {"no_such_group", "0", "0x0", ""}) {
            for (const char *item : {"version", "devtype", "name"}) {
                SCOPED_TRACE(std::string(group) + " " + item);
                EXPECT_EQ(
                    read_with([&](char *v) { return get_cfg_item_by_str(net, group, item, v); }),
                    read_with([&](char *v) {
                        return get_cfg_item_by_str_direct(local, group, item, v);
                    }));
            }
        }
        EXPECT_EQ(read_with([&](char *v) { return get_version(net, v); }).result, 0);
        // Every answer came from the daemon: the handle never fell back.
        EXPECT_EQ(is_net_cfg(net), 1);
        close_qorcfg(net);
    }
    EXPECT_GT(compared, 2000u);
}

TEST_F(DaemonDifferential, EveryAttributeListMatchesTheLocalRead) {
    start();
    CaptureOutput quiet(2);
    size_t non_empty = 0;
    for (const char *file : {config_ram, current_config}) {
        SCOPED_TRACE(file);
        qorcfg_handle *local = file == config_ram ? local_ram : local_current;
        qorcfg_handle *net = networked(file);
        for (const qorcfg_group *row : all_groups()) {
            SCOPED_TRACE(row->name);
            const std::string path = row->path;
            ezxml_node *element = element_at(local->xml, path);
            // The daemon's own answer, record by record, with its result.
            auto ask = [&](uint32_t code, const std::string &name, const std::string &sub) {
                qorcfg_attr *list = nullptr;
                int result = get_attr_from_daemon(
                    request_record(code, file, "", name, sub, static_cast<int32_t>(row->gid)),
                    &list);
                EXPECT_EQ(result, 0);
                return attrs(list);
            };
            Attrs want = attrs(get_attr_list_by_gid_direct(local, row->gid, nullptr));
            EXPECT_EQ(ask(QORCFG_REQ_BY_GID, "", ""), want);
            EXPECT_EQ(attrs(get_attr_list_by_gid(net, row->gid, nullptr)), want);
            non_empty += want.empty() ? 0 : 1;

            want = attrs(get_attr_list_by_group_name_direct(local, row->name, nullptr));
            EXPECT_EQ(ask(QORCFG_REQ_BY_NAME, row->name, ""), want);
            EXPECT_EQ(attrs(get_attr_list_by_group_name(net, row->name, nullptr)), want);

            // Sub-paths: below the root's name by gid, below the group's path
            // by name.
            const std::string below_root = path.substr(path.find('.') + 1);
            want = attrs(get_attr_list_by_gid_direct(local, row->gid, below_root.c_str()));
            EXPECT_EQ(ask(QORCFG_REQ_BY_GID_PATH, "", below_root), want);
            EXPECT_EQ(attrs(get_attr_list_by_gid(net, row->gid, below_root.c_str())), want);
            for (const std::string &sub : child_subs(element)) {
                SCOPED_TRACE(sub);
                want = attrs(get_attr_list_by_group_name_direct(local, row->name, sub.c_str()));
                EXPECT_EQ(ask(QORCFG_REQ_BY_NAME_PATH, row->name, sub), want);
                EXPECT_EQ(attrs(get_attr_list_by_group_name(net, row->name, sub.c_str())), want);
            }
            // A name-based list that comes back empty sends the client to its
            // file for good; start again with a fresh network-mode handle.
            if (is_net_cfg(net) != 1) {
                close_qorcfg(net);
                net = networked(file);
            }
        }
        // Unknown groups: result 0 and no list, final for the by-gid form.
        EXPECT_EQ(get_attr_list_by_gid(net, 0x7FFFFFF0u, nullptr), nullptr);
        EXPECT_EQ(is_net_cfg(net), 1);
        qorcfg_attr *list = nullptr;
        EXPECT_EQ(get_attr_from_daemon(request_record(3, file, "", "no_such_group", "", -1), &list),
                  0);
        EXPECT_EQ(list, nullptr);
        // Group 0 and "0x0": the root's identity.
        EXPECT_EQ(attrs(get_attr_list_by_gid(net, 0, nullptr)),
                  attrs(get_attr_list_by_gid_direct(local, 0, nullptr)));
        EXPECT_EQ(attrs(get_attr_list_by_group_name(net, "0x0", nullptr)),
                  attrs(get_attr_list_by_group_name_direct(local, "0x0", nullptr)));
        EXPECT_EQ(is_net_cfg(net), 1);
        close_qorcfg(net);
    }
    EXPECT_GT(non_empty, 400u);
}

TEST_F(DaemonDifferential, PathRequestsMatchTheClientsOwnFallback) {
    start();
    CaptureOutput quiet(2);
    // What each path read gives through the daemon (code 6, and code 5 with
    // the group's ID) ...
    struct Case {
        std::string prefix, group_path, item;
        uint32_t gid;
        Answer via_daemon;
    };
    std::vector<Case> cases;
    qorcfg_handle *net = networked(config_ram);
    for (const qorcfg_group *row : all_groups()) {
        const std::string path = row->path;
        std::vector<std::string> items = attribute_names(element_at(local_ram->xml, path));
        items.emplace_back("no_such_item");
        for (const std::string &item : items) {
            Case c{row->name, path.substr(std::strlen("qorconfig.")), item, row->gid, {}};
            c.via_daemon = read_with([&](char *v) {
                return get_cfg_item_by_path_gid_s(net, c.prefix.c_str(), c.group_path.c_str(),
                                                  c.item.c_str(), v);
            });
            EXPECT_EQ(read_with([&](char *v) {
                          return get_cfg_item_by_all_args_daemon(
                              config_ram, static_cast<int32_t>(c.gid), c.prefix.c_str(),
                              c.group_path.c_str(), c.item.c_str(), v);
                      }),
                      c.via_daemon)
                << c.group_path << " " << c.item;
            cases.push_back(c);
        }
    }
    EXPECT_EQ(is_net_cfg(net), 1);
    close_qorcfg(net);
    size_t found = 0;
    for (const Case &c : cases)
        found += c.via_daemon.result == 0 ? 1 : 0;
    EXPECT_GT(found, 100u);

    // ... equals what a client reads itself when no daemon answers.
    daemon.reset();
    for (const Case &c : cases) {
        qorcfg_handle *h = networked(config_ram);
        EXPECT_EQ(read_with([&](char *v) {
                      return get_cfg_item_by_path_gid_s(h, c.prefix.c_str(), c.group_path.c_str(),
                                                        c.item.c_str(), v);
                  }),
                  c.via_daemon)
            << c.group_path << " " << c.item;
        EXPECT_EQ(is_net_cfg(h), 0);  // it did fall back
        close_qorcfg(h);
    }
}

// =============================================================================
// Re-reading and shutting down
// =============================================================================

std::string renamed_config(const std::string &name) {
    std::string config = sample_config();
    const std::string old = "name=\"AP-Lab-01\"";
    config.replace(config.find(old), old.size(), "name=\"" + name + "\"");
    return config;
}

TEST_F(SandboxTest, ReloadServesTheChangedFile) {
    install_sample(sandbox);
    ThreadDaemon daemon;
    ASSERT_TRUE(daemon.started());
    const uint32_t device = gid_of("sys_device");
    char value[QORCFG_VALUE_SIZE] = "";
    sandbox.write("/tmp/config.xml", renamed_config("AP-Renamed"));
    // Until it re-reads, the daemon answers from what it parsed.
    EXPECT_EQ(get_cfg_item_daemon(config_ram, device, "name", value), 0);
    EXPECT_STREQ(value, "AP-Lab-01");
    ASSERT_TRUE(daemon.reload());
    EXPECT_EQ(get_cfg_item_daemon(config_ram, device, "name", value), 0);
    EXPECT_STREQ(value, "AP-Renamed");
    EXPECT_EQ(daemon.server().reloads(), 1u);

    // A file that disappears answers -1, as a local read of it would, until
    // it is back.
    sandbox.remove("/tmp/current_config.xml");
    ASSERT_TRUE(daemon.reload());
    EXPECT_EQ(get_cfg_item_daemon(current_config, device, "name", value), -1);
    qorcfg_attr *list = nullptr;
    EXPECT_EQ(
        get_attr_from_daemon(request_record(3, current_config, "", "sys_device", "", -1), &list),
        -1);
    EXPECT_EQ(list, nullptr);
    sandbox.write("/tmp/current_config.xml", sample("/etc/default-config.xml"));
    ASSERT_TRUE(daemon.reload());
    EXPECT_EQ(get_cfg_item_daemon(current_config, device, "name", value), 0);
    EXPECT_STREQ(value, "AP-Lab-01");

    // While a writer holds the working copy's lock, a re-read waits for
    // nothing: the daemon keeps answering from the trees it has (a daemon
    // stuck on the lock would not answer this process, which holds it), and
    // re-reads once the lock is free.
    sandbox.write("/tmp/config.xml", renamed_config("AP-Locked"));
    const int writer = lock_qorcfg(1, LOCK_EX);
    ASSERT_GE(writer, 0);
    daemon.server().request_reload();
    EXPECT_EQ(get_cfg_item_daemon(config_ram, device, "name", value), 0);
    EXPECT_STREQ(value, "AP-Renamed");
    EXPECT_EQ(daemon.server().reloads(), 3u);
    unlock_qorcfg(writer);
    EXPECT_TRUE(wait_until([&] { return daemon.server().reloads() == 4u; }));
    EXPECT_EQ(get_cfg_item_daemon(config_ram, device, "name", value), 0);
    EXPECT_STREQ(value, "AP-Locked");
}

TEST_F(SandboxTest, ADamagedFileIsReportedAndServedAsFarAsItReads) {
    const std::string config = sample("/conf/config.xml");
    install_sample(sandbox, config.substr(0, config.find("<wlan")));
    CaptureOutput err(STDERR_FILENO);
    {
        ThreadDaemon daemon;
        ASSERT_TRUE(daemon.started());
        char value[QORCFG_VALUE_SIZE] = "";
        EXPECT_EQ(get_cfg_item_daemon(config_ram, gid_of("sys_device"), "name", value), 0);
        EXPECT_STREQ(value, "AP-Lab-01");
    }
    EXPECT_NE(
        err.text().find("qorcfgd: " + std::string(config_ram) + " is damaged: [error near line "),
        std::string::npos)
        << err.text();
}

// The program as a device runs it. A wrong root or argument is a usage
// error (2) that says what is wrong. Started, it detaches once it listens
// (0), its pid complete in the pid file; it answers, re-reads on SIGUSR2,
// keeps its clients' failed lookups out of its log, and on SIGTERM ends,
// removing its socket and pid file, with a client halfway through a request
// holding nothing up. Clients read the file when no daemon listens, also
// after one was killed and left its socket behind; the next daemon replaces
// that socket.
TEST_F(SandboxTest, TheDaemonProgramAsADeviceRunsIt) {
    install_sample(sandbox);
    sandbox.mkdir("/bare");
    const std::string log = sandbox.path("/daemon.log");
    auto qorcfgd = [&](const std::string &args) {
        const int status = std::system((std::string(QORCFG_EMULATOR) + " " + QORCFGD + " " + args +
                                        " </dev/null >/dev/null 2>>" + log)
                                           .c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    const uint32_t device = gid_of("sys_device");
    char value[QORCFG_VALUE_SIZE] = "";
    auto local_fallback = [&](const char *expected) {
        EXPECT_EQ(get_cfg_item_daemon(config_ram, device, "name", value), -10003);
        qorcfg_handle *net = networked(config_ram);
        EXPECT_EQ(get_cfg_item(net, device, "name", value), 0);
        EXPECT_STREQ(value, expected);
        EXPECT_EQ(is_net_cfg(net), 0);  // it read the file
        close_qorcfg(net);
    };
    local_fallback("AP-Lab-01");

    EXPECT_EQ(qorcfgd("--root " + sandbox.path("/bare")), 2);
    EXPECT_EQ(qorcfgd("--bogus"), 2);
    ASSERT_EQ(qorcfgd("--root " + sandbox.root()), 0);
    const std::string pid_text = sandbox.read("/var/run/read_qorcfgd.pid");
    const pid_t pid = std::stoi(pid_text);
    EXPECT_EQ(pid_text, std::to_string(pid) + "\n");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(get_cfg_item_daemon(config_ram, device, "nothing", value), -4);
    sandbox.write("/tmp/config.xml", renamed_config("AP-Signalled"));
    ASSERT_EQ(::kill(pid, SIGUSR2), 0);  // the daemon this test started
    EXPECT_TRUE(wait_until([&] {
        return get_cfg_item_daemon(config_ram, device, "name", value) == 0 &&
               std::string(value) == "AP-Signalled";
    }));
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    EXPECT_TRUE(wait_until(
        [&] { return get_cfg_item_daemon(config_ram, device, "name", value) == -10003; }));
    EXPECT_TRUE(sandbox.exists("/tmp/qorcfgd_socket"));  // left behind
    local_fallback("AP-Signalled");

    ASSERT_EQ(qorcfgd("--root " + sandbox.root()), 0);
    int slow = connect_raw();
    ASSERT_TRUE(send_all(slow, std::string(100, '\0')));
    ASSERT_EQ(::kill(std::stoi(sandbox.read("/var/run/read_qorcfgd.pid")), SIGTERM), 0);
    EXPECT_TRUE(wait_until([&] { return !sandbox.exists("/var/run/read_qorcfgd.pid"); }));
    EXPECT_TRUE(wait_until([&] { return !sandbox.exists("/tmp/qorcfgd_socket"); }));
    bool closed = false;
    bool reset = false;
    EXPECT_EQ(read_to_end(slow, &closed, 60s, &reset), "");
    EXPECT_TRUE(closed || reset);
    ::close(slow);

    const std::string text = sandbox.read("/daemon.log");
    EXPECT_NE(text.find("/bare: no directory "), std::string::npos) << text;
    EXPECT_NE(text.find("--bogus: unknown argument"), std::string::npos) << text;
    EXPECT_EQ(text.find("nothing"), std::string::npos) << text;
}

TEST_F(SandboxTest, AHungDaemonCostsAClientItsTimeLimitThenTheFile) {
    install_sample(sandbox);
    // A socket that accepts (the backlog does) and never answers.
    const std::string &path = qorcfg::os::daemon_socket_path();
    int hung = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    ASSERT_EQ(::bind(hung, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(hung, 8), 0);
    qorcfg::os::set_daemon_timeout(200ms);
    const uint32_t device = gid_of("sys_device");
    char value[QORCFG_VALUE_SIZE] = "";
    EXPECT_EQ(get_cfg_item_daemon(config_ram, device, "name", value), QORCFG_ERR_DAEMON_RECV);
    qorcfg_handle *net = networked(config_ram);
    EXPECT_EQ(get_cfg_item(net, device, "name", value), 0);
    EXPECT_STREQ(value, "AP-Lab-01");
    EXPECT_EQ(is_net_cfg(net), 0);
    close_qorcfg(net);
    ::close(hung);
}

TEST_F(SandboxTest, OneDaemonPerSocketAndAStaleSocketIsReplaced) {
    install_sample(sandbox);
    const std::string &path = qorcfg::os::daemon_socket_path();
    {
        // A socket file nobody listens on, as a killed daemon leaves it.
        int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        ::close(fd);
    }
    ThreadDaemon daemon;
    ASSERT_TRUE(daemon.started());
    {
        CaptureOutput err(2);
        Server second;
        EXPECT_FALSE(second.start());
        EXPECT_NE(err.text().find("another daemon"), std::string::npos) << err.text();
    }
    char value[QORCFG_VALUE_SIZE] = "";
    EXPECT_EQ(get_cfg_item_daemon(config_ram, gid_of("sys_device"), "name", value), 0);
    EXPECT_STREQ(value, "AP-Lab-01");
    daemon.stop();
    EXPECT_FALSE(sandbox.exists("/tmp/qorcfgd_socket"));
}

// =============================================================================
// Slow, hostile and vanishing clients
// =============================================================================

class DaemonRobustness : public SandboxTest {
protected:
    void start(Options options = {}) {
        install_sample(sandbox, config_with_vlan_entries(400));
        daemon = std::make_unique<ThreadDaemon>(options);
        ASSERT_TRUE(daemon->started());
    }
    void TearDown() override { daemon.reset(); }
    // A normal client still gets the right answer.
    void expect_served() {
        Reply r = decode(
            exchange(request_bytes(QORCFG_REQ_BY_NAME, config_ram, "name", "sys_device", "", -1)));
        ASSERT_TRUE(r.well_formed) << r.problem;
        EXPECT_EQ(r.result(), 0);
        EXPECT_EQ(r.records, (Attrs{{"name", "AP-Lab-01", -1}}));
    }
    std::string long_list_request() {
        return request_bytes(QORCFG_REQ_BY_GID, config_ram, "", "", "",
                             static_cast<int32_t>(gid_of("vlan")));
    }
    std::unique_ptr<ThreadDaemon> daemon;
};

// Partial, garbage, over-long and vanishing clients: none stalls another,
// each gets what its request deserves, and the daemon forgets them.
TEST_F(DaemonRobustness, HostileClientsStallNobody) {
    start();
    const std::string request =
        request_bytes(QORCFG_REQ_BY_NAME, config_ram, "desc", "sys_device", "", -1);
    int slow = connect_raw();
    ASSERT_TRUE(send_all(slow, request.substr(0, 100)));
    expect_served();
    EXPECT_FALSE(readable(slow, 0ms));             // no answer to half a request
    for (size_t i = 100; i < request.size(); ++i)  // the rest, a byte at a time
        ASSERT_TRUE(send_all(slow, request.substr(i, 1)));
    bool closed = false;
    Reply r = decode(read_to_end(slow, &closed));
    ::close(slow);
    EXPECT_TRUE(closed);
    EXPECT_EQ(r.records, (Attrs{{"desc", "Enterprise dual-band access point", -1}}));

    std::mt19937 random(20260101);
    for (int round = 0; round < 50; ++round) {  // garbage answers -1
        std::string garbage(QORCFG_REQUEST_SENT, '\0');
        for (char &c : garbage)
            c = static_cast<char>(random() & 0xFF);
        r = decode(exchange(garbage));
        ASSERT_TRUE(r.well_formed) << r.problem;
        EXPECT_EQ(r.result(), -1);
    }

    // Bytes beyond the request are ignored, the reply still ends in order;
    // of two requests on one connection only the first is answered.
    const std::string list = long_list_request();
    r = decode(exchange(list + std::string(3000, 'x'), &closed));
    EXPECT_TRUE(closed);
    EXPECT_GT(r.chunks(), 3u);
    qorcfg_handle *local = parsed(config_ram);
    EXPECT_EQ(r.records, attrs(get_attr_list_by_gid_direct(local, gid_of("vlan"), nullptr)));
    close_qorcfg(local);
    r = decode(
        exchange(request_bytes(QORCFG_REQ_BY_NAME, config_ram, "name", "sys_device", "", -1) + list,
                 &closed));
    EXPECT_TRUE(closed);
    EXPECT_EQ(r.records, (Attrs{{"name", "AP-Lab-01", -1}}));

    // Connects and leaves; leaves halfway through its request; right after
    // sending it; after a little of the reply.
    for (int i = 0; i < 20; ++i) {
        ::close(connect_raw());
        int fd = connect_raw();
        ASSERT_TRUE(send_all(fd, list.substr(0, 500)));
        ::close(fd);
        fd = connect_raw();
        ASSERT_TRUE(send_all(fd, list));
        ::close(fd);
        fd = connect_raw();
        ASSERT_TRUE(send_all(fd, list));
        char some[100];
        ASSERT_TRUE(readable(fd, 60s));
        EXPECT_GT(::recv(fd, some, sizeof some, 0), 0);
        ::close(fd);
    }
    expect_served();
    EXPECT_TRUE(wait_until([&] { return daemon->server().clients() == 0; }));
}

// A reply far larger than a socket's buffer: the daemon must wait for the
// reader, not block on it, and serve others meanwhile. A reader cut off
// mid-reply would see a short list (the close ends a reply), so a waiting
// reader outlives newer clients that sent nothing when room is made.
TEST_F(DaemonRobustness, ASlowReaderGetsItsWholeReplyWhileOthersAreServedOrDropped) {
    install_sample(sandbox, config_with_vlan_entries(12000));
    qorcfg_handle *local = parsed(config_ram);
    const uint32_t vlan = gid_of("vlan");
    const Attrs want = attrs(get_attr_list_by_gid_direct(local, vlan, nullptr));
    close_qorcfg(local);
    for (bool crowded : {false, true}) {
        ThreadDaemon d(crowded ? Options{3, 60s} : Options{});
        ASSERT_TRUE(d.started());
        int reader = connect_raw();
        ASSERT_TRUE(send_all(reader, request_bytes(QORCFG_REQ_BY_GID, config_ram, "", "", "",
                                                   static_cast<int32_t>(vlan))));
        // The first chunk is there; others are served in turn meanwhile.
        ASSERT_TRUE(readable(reader, 60s));
        std::vector<int> silent;
        for (int i = 0; i < 5 && !crowded; ++i) {
            Reply r = decode(exchange(
                request_bytes(QORCFG_REQ_BY_NAME, config_ram, "name", "sys_device", "", -1)));
            EXPECT_EQ(r.records, (Attrs{{"name", "AP-Lab-01", -1}}));
        }
        if (!crowded) {
            EXPECT_TRUE(wait_until([&] { return d.server().clients() == 1; }));  // still served
        }
        for (int i = 0; i < 3 && crowded; ++i)
            silent.push_back(connect_raw());  // accepted in this order
        if (crowded) {
            // The third silent client took the room of the first, not the reader's.
            EXPECT_TRUE(readable(silent[0], 60s));
            char byte;
            EXPECT_EQ(::recv(silent[0], &byte, 1, 0), 0);
        }
        bool closed = false;
        const std::string bytes = read_to_end(reader, &closed, 60s);
        ::close(reader);
        EXPECT_TRUE(closed);
        Reply r = decode(bytes);
        ASSERT_TRUE(r.well_formed) << r.problem;
        EXPECT_GT(bytes.size(), 400000u);
        EXPECT_EQ(r.records, want);
        for (int fd : silent)
            ::close(fd);
    }
}

TEST_F(DaemonRobustness, AReplyCutShortIsResetNeverEndedInOrder) {
    // A reader that stops for longer than the idle limit, and one still
    // reading when the daemon stops: both connections are reset, so the
    // library's client takes the reply for failed (-10005) and reads the
    // file, never taking a part of the list for the whole.
    install_sample(sandbox, config_with_vlan_entries(12000));
    for (bool stopping : {false, true}) {
        ThreadDaemon d(Options{256, stopping ? 60000ms : 300ms});
        ASSERT_TRUE(d.started());
        int reader = connect_raw();
        ASSERT_TRUE(send_all(reader, long_list_request()));
        char chunk[kChunk];
        ASSERT_TRUE(readable(reader, 60s));
        ASSERT_GT(::recv(reader, chunk, sizeof chunk, 0), 0);
        if (stopping)
            d.stop();
        else
            ASSERT_TRUE(wait_until([&] { return d.server().clients() == 0; }));
        bool closed = false;
        bool reset = false;
        read_to_end(reader, &closed, 60s, &reset);
        EXPECT_TRUE(reset) << (stopping ? "stopped" : "idle");
        EXPECT_FALSE(closed);
        ::close(reader);
    }
    // A client idle before its request is complete is simply closed.
    ThreadDaemon d(Options{256, 300ms});
    int idle = connect_raw();
    ASSERT_TRUE(send_all(idle, std::string(10, '\0')));
    bool closed = false;
    EXPECT_EQ(read_to_end(idle, &closed, 60s), "");
    EXPECT_TRUE(closed);
    ::close(idle);
}

TEST_F(DaemonRobustness, PastTheLimitTheLongestIdleClientMakesRoom) {
    start(Options{4, 60s});
    std::vector<int> idle;
    for (int i = 0; i < 4; ++i) {
        int fd = connect_raw();
        ASSERT_GE(fd, 0);
        idle.push_back(fd);
        ASSERT_TRUE(wait_until([&] { return daemon->server().clients() == idle.size(); }));
    }
    expect_served();
    // The first connection was dropped for the new one; the others wait on.
    EXPECT_TRUE(readable(idle[0], 60s));
    char byte;
    EXPECT_EQ(::recv(idle[0], &byte, 1, 0), 0);
    for (size_t i = 1; i < idle.size(); ++i)
        EXPECT_FALSE(readable(idle[i], 0ms)) << i;
    // A flood of connections never exceeds the limit.
    std::vector<int> flood;
    for (int i = 0; i < 50; ++i)
        flood.push_back(connect_raw());
    expect_served();
    EXPECT_LE(daemon->server().clients(), 4u);
    for (int fd : flood)
        ::close(fd);
    for (int fd : idle)
        ::close(fd);
    expect_served();
}

}  // namespace
