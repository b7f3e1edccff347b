// tests/store/lookup_test.cpp - reading single items: every read form over
// one case table (the core read under a prefix, the group-ID and group-name
// forms with the root's identity items, the sub-tree forms), values cut at
// 255 characters, reading by path and item lists, item metadata, and the
// daemon queries with their fallback to the file, against daemons that hang
// up or are sent requests that do not fit.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <csignal>
#include <span>
#include <thread>

#include "tests/support/daemon_wire.h"
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

constexpr uint32_t kSysDevice = 0x08080000;  // sys_device: qorconfig.system.device
constexpr uint32_t kAccounts = 0x18080000;   // mgmt_accounts: qorconfig.mgmt.accounts
const std::string kLong(300, 'L');
const std::string kCore = "get_cfg_item_by_prefix_direct>";
const std::string kConfig =  // a newline between groups, as in a file
    R"(<qorconfig version="1.10.01" devtype="AP">
<system><device name="AP-Lab-01" desc=")" +
    kLong + R"("></device></system>
<net><port/><port><vlan id="v0"/><vlan id="v1"/><vlan id="v2"/></port><mode>text only</mode></net>
<mgmt><accounts max="8" cur_num="2"><account user="x"/><account user="operator"/></accounts></mgmt>
</qorconfig>)";

// An allocated text handed over by the library, or "(none)".
std::string take(char *text) {
    std::string out = text == nullptr ? "(none)" : text;
    std::free(text);
    return out;
}

// Every read form, by letter: P prefix_direct, D direct, SD by_str_direct, G get_cfg_item,
// S by_str, GS _s, SS by_str_s, PG by_path_gid_s and PS by_prefix_str_s (prefix "p", `group`
// the group path), V get_version, T get_devtype, W test_daemon_work; the daemon queries of the
// working copy: Q get_cfg_item_daemon, A by_all_args_daemon (prefix "qorconfig").
int read_form(const std::string &f, qorcfg_handle *h, uint32_t gid, const char *group,
              const char *item, char *v) {
    return f == "P"    ? get_cfg_item_by_prefix_direct(h, group, item, v)
           : f == "D"  ? get_cfg_item_direct(h, gid, item, v)
           : f == "SD" ? get_cfg_item_by_str_direct(h, group, item, v)
           : f == "G"  ? get_cfg_item(h, gid, item, v)
           : f == "S"  ? get_cfg_item_by_str(h, group, item, v)
           : f == "GS" ? get_cfg_item_s(h, gid, item, v)
           : f == "SS" ? get_cfg_item_by_str_s(h, group, item, v)
           : f == "PG" ? get_cfg_item_by_path_gid_s(h, "p", group, item, v)
           : f == "PS" ? get_cfg_item_by_prefix_str_s(h, "p", group, item, v)
           : f == "V"  ? get_version(h, v)
           : f == "T"  ? get_devtype(h, v)
           : f == "W"  ? test_daemon_work(h, gid, item, v)
           : f == "Q"  ? get_cfg_item_daemon(config_ram, gid, item, v)
                       : get_cfg_item_by_all_args_daemon(config_ram, static_cast<int32_t>(gid),
                                                         "qorconfig", group, item, v);
}

// One read: its form, handle, group ID, group, item and the result wanted (the buffer starts
// as "junk"); for the daemon, the request it sends.
struct Row {
    const char *form;
    qorcfg_handle *h;
    uint32_t gid;
    const char *group, *item;
    Read want = {};
    std::string sent = "";
};
const auto run = [](const Row &r) {
    return read_value([&](char *v) { return read_form(r.form, r.h, r.gid, r.group, r.item, v); });
};
// Runs every row; returns the requests they send.
std::vector<std::string> expect_rows(const std::vector<Row> &rows) {
    std::vector<std::string> sent;
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(run(rows[i]), rows[i].want) << "row " << i << " " << rows[i].form;
        if (!rows[i].sent.empty())
            sent.push_back(rows[i].sent);
    }
    return sent;
}
const auto ok = [](const char *value) { return Read{0, value, ""}; };
const auto err = [](int rc, const std::string &text = "") { return Read{rc, "", text}; };
// The buffer as the caller left it.
const auto kept = [](int rc, const std::string &text = "") { return Read{rc, "junk", text}; };
// The core read's -1 for a missing node and -4 for a missing item, with their messages.
const auto core = [](int rc, const std::string &what) {
    return err(rc,
               kCore + (rc == -1 ? "Can't find node=" : "Can't find the item_name=") + what + "\n");
};

class LookupTest : public StoreTest {
protected:
    void SetUp() override { sandbox.write(config_ram, kConfig); }
};

TEST_F(LookupTest, EveryFormReportsItsResultValueAndMessage) {
    set_all_net_qorcfg_mode(0);
    Handle whole = own(init_qorcfg()), dev = own(init_sub_qorcfg("sys_device", 0, config_ram)),
           acc = own(init_sub_qorcfg("mgmt_accounts", 0, config_ram));
    sandbox.write("/tmp/odd.xml", "<qorconfig devtype=\"first\" version=\"second\" third=\"3\"/>");
    Handle odd = open_file("/tmp/odd.xml");
    qorcfg_handle none{};  // a handle without a tree
    qorcfg_handle *W = whole.get(), *dv = dev.get(), *ac = acc.get(), *od = odd.get(), *no = &none;
    const std::string deep(3000, 'd'),
        deep_item = deep + ".x", id = "get_cfg_item_direct>", name = "get_cfg_item_by_str_direct>",
        nope = core(-4, "qorconfig.system.device.nope").err,
        returned = "return value of calling get_cfg_item_by_prefix_direct() = -4\n";
    expect_rows({
        // The core read: a group name or any dotted path stands for its path; decimal indexes.
        {"P", W, 0, "qorconfig.system", "device.name", ok("AP-Lab-01")},
        {"P", W, 0, "sys_device", "desc", {0, kLong.substr(0, 255), ""}},  // cut to 255
        {"P", W, 0, "qorconfig", "net.port:1.vlan:2.id", ok("v2")},
        {"P", W, 0, "qorconfig", "net.port:1.vlan:3.id", core(-1, "qorconfig.net.port:1.vlan:3")},
        {"P", W, 0, "qorconfig", "net.port:1x.id", core(-1, "qorconfig.net.port:1x")},
        {"P", W, 0, "system", "device.name", core(-1, "system.device")},
        {"P", W, 0, "qorconfig", deep_item.c_str(), core(-1, "qorconfig." + deep)},
        {"P", W, 0, "sys_device", "nope", err(-4, nope)},
        {"P", W, 0, nullptr, "name", err(-3)},
        {"P", W, 0, "sys_device", nullptr, err(-4)},
        {"P", nullptr, 0, nullptr, nullptr, err(-1)},
        // By group ID and name: the core's result, reported once more.
        {"D", W, 0xF0000000u, nullptr, "name", err(-3, id + "Can't find group ID=-268435456\n")},
        {"D", W, kSysDevice, nullptr, "nope", err(-4, nope + id + returned)},
        {"D", nullptr, kSysDevice, nullptr, "name", err(-1)},
        {"SD", W, 0, "0x00", "version", err(-3, name + "Can't find group name=0x00\n")},
        {"SD", W, 0, "sys_device", "nope", err(-4, nope + name + returned)},
        {"SD", nullptr, 0, "x", "name", err(-1)},
        // The root's identity items are its first two attributes, by position, and reversed
        // by name ("0"/"0x0").
        {"D", od, 0, nullptr, "version", ok("first")},
        {"G", od, 0, nullptr, "devtype", ok("second")},
        {"D", od, 0, nullptr, "third", err(-4)},
        {"SD", od, 0, "0", "devtype", ok("first")},
        {"S", od, 0, "0x0", "version", ok("second")},
        // The sub-tree forms read the top element of their handle: the ID selects nothing,
        // and an item is not a path.
        {"GS", dv, kAccounts, nullptr, "name", ok("AP-Lab-01")},
        {"GS", ac, kAccounts, nullptr, "account.user",
         err(-4, "get_cfg_item_s>Can't find the gid=403177472 item_name=account.user\n")},
        {"SS", dv, 0, "sys_device", "nope",
         kept(-4, "get_cfg_item_by_str_s>Can't find the item_name=sys_device.nope\n")},
        {"PG", ac, 0, "x", "account:1.user", ok("operator")},
        {"PS", ac, 0, "x", "account:1.nope", core(-4, "accounts.account:1.nope")},
        // No handle, or one without a tree; only some forms clear the buffer first.
        {"G", nullptr, kSysDevice, nullptr, "name", err(-1)},
        {"S", nullptr, 0, "sys_device", "name", kept(-1)},
        {"GS", nullptr, kSysDevice, nullptr, "name", err(-1)},
        {"SS", nullptr, 0, "sys_device", "name", kept(-1)},
        {"PG", nullptr, 0, "x", "name", kept(-1)},
        {"G", no, kSysDevice, nullptr, "name", err(-1)},
        {"SS", no, 0, "sys_device", "name", kept(-1)},
        {"PS", no, 0, "x", "name", kept(-1)},
    });
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    EXPECT_EQ(run({"P", W, 0, "qorconfig", "version"}),
              err(-2, kCore + "full_item_name malloc error\n"));

    char value[600];  // cut to 255 characters; the buffer past the zero is not written
    std::memset(value, 'X', sizeof value);
    EXPECT_EQ(get_cfg_item_s(dv, 0, "desc", value), 0);
    EXPECT_EQ(std::string(value, 600), kLong.substr(0, 255) + '\0' + std::string(344, 'X'));
}

TEST_F(LookupTest, ItemsByPathComeFromTheWorkingCopyAndItemListsAreFilled) {
    EXPECT_EQ(attrs(get_item_by_path("name", "qorconfig.system.device")),
              (Attrs{{"name", "AP-Lab-01", -1}}));
    EXPECT_EQ(get_item_by_path("nope", "qorconfig.system.device"), nullptr);
    EXPECT_EQ(get_item_by_path("name", nullptr), nullptr);
    qorcfg_attr *list = nullptr;  // partial lists are released
    const auto all = [&] { return (list = get_item_by_path(nullptr, "qorconfig.mgmt.accounts")); };
    EXPECT_GE(sweep_allocations([&] { return stderr_of(all), list != nullptr; }, false), 1u);
    EXPECT_EQ(attrs(list), (Attrs{{"max", "8", -1}, {"cur_num", "2", -1}}));

    // Item lists are filled node by node, into each node's own buffer, up to the first failure.
    Handle h = open_file(config_ram);  // both network modes 0 from here on
    EXPECT_EQ(get_cfg_items(nullptr, nullptr), -1);
    qorcfg_item *items = append_cfg_item(nullptr, kAccounts, "max", "before");
    items = append_cfg_item(items, kAccounts, "nope", "before");
    items = append_cfg_item(items, kSysDevice, "desc", "before");
    EXPECT_EQ(read_value([&](char *) { return get_cfg_items(h.get(), items); }).rc, -4);
    const auto values = [&] {
        return std::string(items->value) + "|" + items->next->value + "|" +
               items->next->next->value;
    };
    EXPECT_EQ(values(), kLong.substr(0, 255) + "||before");  // the third is never read
    std::free(items->next->name);
    items->next->name = strdup("cur_num");
    EXPECT_EQ(get_cfg_items(h.get(), items), 0);
    EXPECT_EQ(values(), kLong.substr(0, 255) + "|2|8");
    free_item_list(items);

    sandbox.remove(config_ram);  // and there is no flash copy
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(get_item_by_path("name", "qorconfig.system"), nullptr); }),
              "ERROR: Fail to init configuration file.\n");
}

// ---- item metadata ("name|&|type|&|rule|&|description") -------------------------------

TEST_F(LookupTest, MetadataFieldsAndRulesOfItemsInGroups) {
    // An empty or missing field is none; "|&|" alone separates; a type is named exactly.
    sandbox.write("/tmp/defs.xml",
                  "<defs a=\"A|b&amp;c|&amp;|int|&amp;|1~10|&amp;|Desc A\" "
                  "b=\"B|&amp;|string|&amp;||&amp;|Desc B|&amp;|extra\" c=\"C|&amp;|int \"/>");
    Handle holder = open_file("/tmp/defs.xml");
    qorcfg_handle *hd = holder.get();
    // Name, type, rule and description.
    const std::pair<const char *, const char *> fields[] = {
        {"a", "A|b&c, 0, 1~10, Desc A"},
        {"b", "B, 1, (none), Desc B"},
        {"c", "C, -1, (none), (none)"},
        {"missing", "(none), -1, (none), (none)"},
    };
    for (const auto &[attr, want] : fields)
        EXPECT_EQ(take(get_cfg_item_name(hd, attr)) + ", " +
                      std::to_string(get_cfg_item_type(hd, attr)) + ", " +
                      take(get_cfg_item_rule(hd, attr)) + ", " + take(get_cfg_item_desc(hd, attr)),
                  want);
    std::string types;  // by code, to the table's end: -1 without a name
    for (const qorcfg_type_entry &t : std::span(cli_cfg_type_list, 10))
        types += std::to_string(t.code) + (t.name != nullptr ? t.name : "") + ",";
    EXPECT_EQ(types, "0int,1string,2mac,3ip,4domain,5band,6channel,7timezone,8restricted,-1,");

    // By group: the device's rule file, and one whose lists and VAPs differ by element, of
    // which the first describes them all (indexes are stripped from the element path).
    sandbox.write("/etc/cfg-rule.xml", sample("/etc/cfg-rule.xml"));
    Handle rules = open_file("/etc/cfg-rule.xml");
    sandbox.write("/tmp/defs.xml",
                  "<qorconfig><mgmt><accounts><account user=\"U|&amp;|int|&amp;|R0\"/>"
                  "<account user=\"U|&amp;|mac|&amp;|R1\"/></accounts></mgmt><wlan><rf1><vap "
                  "ssid=\"S|&amp;|ip|&amp;|S0\"/><vap ssid=\"S|&amp;|mac|&amp;|S1\"/></rf1></wlan>"
                  "</qorconfig>");
    Handle crafted = open_file("/tmp/defs.xml");
    qorcfg_handle *r = rules.get(), *cr = crafted.get();
    const std::string no_rule = "ERROR: Cannot get rule of attribute.\n",
                      no_group = "ERROR: Cannot find group.\n",
                      no_node = "ERROR: Cannot find NODE.\n";
    // Handle, item, group: the rule, the type, then what both lookups wrote to standard error.
    const std::tuple<qorcfg_handle *, const char *, const char *, std::string> lookups[] = {
        {r, "name", "sys_device", "^[A-Za-z0-9_ \\x2e\\x2d]{1,32}$ 1 "},
        {cr, "account:1.user", "mgmt_accounts", "R0 0 "},
        {cr, "ssid", "rf1_vap2", "S0 3 "},
        {r, "max", "mgmt_accounts", "(none) 8 " + no_rule},  // an empty rule
        {r, "nope", "sys_device",
         "(none) -12 " + no_rule + "ERROR: Cannot get type of attribute.\n"},
        {r, "name", "no_such", "(none) -3 " + no_group + no_group},
        {r, "x.name", "sys_device", "(none) -12 " + no_node + no_node},
        {nullptr, "name", "sys_device", "(none) -1 "},
        {r, nullptr, "sys_device", "(none) -4 "},
        {r, "name", nullptr, "(none) -3 "},
    };
    for (const auto &[h, item, group, want] : lookups) {
        std::string got;
        const std::string said = stderr_of([&, h = h, i = item, g = group] {
            got = take(get_cfg_item_rule_by_group_name(h, i, g)) + " ";
            got += std::to_string(get_cfg_item_type_by_group_name(h, i, g)) + " ";
        });
        EXPECT_EQ(got + said, want);
    }
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    EXPECT_EQ(get_cfg_item_type_by_group_name(r, "name", "sys_device"), -2);
}

// ---- the daemon ------------------------------------------------------------------------

const std::string kFound =
    header(0, 0) + text_record(3, "item") + text_record(4, "from-daemon") + kEnd;

// A request about the working copy.
std::string req(uint32_t code, const char *item, const char *name, const char *path, int32_t gid) {
    return request(code, config_ram, item, name, path, gid);
}

TEST_F(LookupTest, WithoutDaemonNetworkHandlesFallBackToTheFile) {
    // The whole configuration, or one group's sub-tree by ID, name or path, is loaded: the
    // handle's top element afterwards.
    const std::pair<Row, const char *> forms[] = {
        {{"V", nullptr, 0, nullptr, nullptr, ok("1.10.01")}, "qorconfig"},
        {{"T", nullptr, 0, nullptr, nullptr, ok("AP")}, "qorconfig"},
        {{"GS", nullptr, kSysDevice, nullptr, "name", ok("AP-Lab-01")}, "device"},
        {{"SS", nullptr, 0, "mgmt_accounts", "max", ok("8")}, "accounts"},
        {{"PG", nullptr, 0, "mgmt.accounts", "account:1.user", ok("operator")}, "accounts"},
    };
    for (auto [row, top] : forms) {
        Handle h = open_net();
        row.h = h.get();
        EXPECT_EQ(run(row), row.want) << row.form;
        EXPECT_STREQ(h->xml->name, top) << row.form;
        EXPECT_EQ(get_net_qorcfg(0) + get_net_qorcfg(1), 0) << row.form;
    }
    Handle net = open_net();
    EXPECT_EQ(run({"W", net.get(), kSysDevice, nullptr, "name"}), err(-10003));
    EXPECT_EQ(is_net_cfg(net.get()), 1);  // only asks; never reads the file
    EXPECT_EQ(test_daemon_work(open_file(config_ram).get(), kSysDevice, "name", nullptr), -1);
}

TEST_F(LookupTest, DaemonRequestsAndRepliesAreExactAndTransportFailuresAreCodes) {
    FakeDaemon daemon(
        {header(0, -4) + kEnd, kFound, kFound, kFound, kFound, kFound, header(0, 0) + kEnd,
         header(0, -4) + kEnd,
         header(0, 0) + text_record(3, "ssid") + text_record(4, "abc") + index_record(2) + kEnd,
         header(0, -4) + kEnd});
    ASSERT_TRUE(daemon.ok());
    Handle net = open_net(), current = open_net(current_config);
    qorcfg_handle *n = net.get(), *c = current.get();
    const Read found = ok("from-daemon");
    const std::string long_item(200, 'x');
    std::vector<std::string> sent = expect_rows({
        // The file has this item, yet the daemon's "not found" is the answer.
        {"G", n, kSysDevice, nullptr, "name", err(-4), req(2, "name", "", "", kSysDevice)},
        {"S", c, 0, "rf1_vap2", "ssid", found,
         request(3, current_config, "ssid", "rf1_vap2", "", -1)},
        {"GS", n, kSysDevice, nullptr, "desc", found, req(2, "desc", "", "", kSysDevice)},
        {"PG", n, 0, "mgmt.accounts", "account:1.user", found,
         req(6, "account:1.user", "p", "mgmt.accounts", -1)},
        {"W", n, kAccounts, nullptr, "max", found, req(2, "max", "", "", kAccounts)},
        {"A", nullptr, kAccounts, "mgmt.accounts", "max", found,
         req(5, "max", "qorconfig", "mgmt.accounts", kAccounts)},
        // Success without a record leaves the buffer as the caller set it.
        {"Q", nullptr, kSysDevice, nullptr, "name", ok("junk"), req(2, "name", "", "", kSysDevice)},
        // Name requests carry the gid -1 whatever negative value is passed.
        {"A", nullptr, uint32_t(-5), "a.b", "item", kept(-4),
         req(6, "item", "qorconfig", "a.b", -1)},
        // An item name longer than its field is not sent cut.
        {"Q", nullptr, kSysDevice, nullptr, long_item.c_str(), kept(-10001)},
    });
    EXPECT_EQ(is_net_cfg(n) + is_net_cfg(c) + get_net_qorcfg(0), 3);
    EXPECT_EQ(run({"G", n, kSysDevice, nullptr, long_item.c_str()}).rc, -4);  // read from the file

    // A request record as a caller fills it; the reply decodes into records.
    qorcfg_daemon_request rq{};
    std::strcpy(rq.file, "/tmp/config.xml");
    rq.marker[0] = '_';
    rq.code = htonl(2);
    std::strcpy(rq.item, "ssid");
    std::memcpy(rq.gid, "\x20\x88\x40\x00", 4);
    qorcfg_attr *list = nullptr;
    EXPECT_EQ(get_attr_from_daemon(rq, &list), 0);
    EXPECT_EQ(attrs(list), (Attrs{{"ssid", "abc", 2}}));
    EXPECT_EQ(get_attr_from_daemon(rq, &list), -4);
    EXPECT_EQ(list, nullptr);
    sent.insert(sent.end(), 2, request(2, "/tmp/config.xml", "ssid", "", "", 0x20884000));
    EXPECT_EQ(daemon.stop(), sent);

    // Transport failures are codes.
    FakeDaemon answering(std::vector<std::string>(8, kFound));
    for (const auto &[call, rc] : {std::pair{Call::socket, -10002},
                                   {Call::connect, -10003},
                                   {Call::send, -10004},
                                   {Call::recv, -10005}}) {
        qorcfg::os::fail_nth(call, 1, EIO);
        EXPECT_EQ(run({"Q", nullptr, kSysDevice, nullptr, "name"}), kept(rc));
    }
}

// Regression: a daemon that hangs up gave the caller SIGPIPE (the query now
// sends with MSG_NOSIGNAL).
TEST_F(LookupTest, ADaemonThatHangsUpDoesNotKillTheCaller) {
    std::signal(SIGPIPE, SIG_DFL);  // as in a program that does not ignore it
    const int fd = bind_daemon_socket(true);
    ASSERT_GE(fd, 0);
    std::thread server([fd] {
        for (int c; (c = ::accept(fd, nullptr, nullptr)) >= 0;)
            ::close(c);  // hangs up without reading
    });
    for (int i = 0; i < 20; ++i) {
        const int r = run({"Q", nullptr, kSysDevice, nullptr, "nnnnn"}).rc;
        EXPECT_TRUE(r == -10004 || r == -10005 || r == 0) << r;
    }
    Handle net = open_net();
    EXPECT_EQ(run({"G", net.get(), kSysDevice, nullptr, "name"}), ok("AP-Lab-01"));
    ::shutdown(fd, SHUT_RDWR);
    ::close(fd);
    server.join();
}

}  // namespace
