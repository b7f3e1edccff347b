// tests/store/lookup_test.cpp - reading single items: every read form over
// one case table (the core read under a prefix, the group-ID and group-name
// forms with the root's identity items, the sub-tree forms), values cut at
// 255 characters, reading by path and item lists, item metadata, and the
// daemon queries with their fallback to the file, against daemons that hang
// up or are sent requests that do not fit.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "tests/support/daemon_wire.h"
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

constexpr uint32_t kSysDevice = 0x08080000;  // sys_device: qorconfig.system.device
constexpr uint32_t kAccounts = 0x18080000;   // mgmt_accounts: qorconfig.mgmt.accounts
constexpr uint32_t kRf1 = 0x20800000;        // rf1: qorconfig.wlan.rf1
constexpr uint32_t kRf2 = 0x21000000;        // rf2: not in the document below
const std::string kLong(300, 'L');
const std::string kCore = "get_cfg_item_by_prefix_direct>";

std::string config() {
    return "<qorconfig version=\"1.10.01\" devtype=\"AP\">\n<system><device name=\"AP-Lab-01\" "
           "desc=\"" +
           kLong + "\" location=\"" + std::string(255, 'l') +
           "\"></device></system>\n<net><port id=\"p0\"><vlan id=\"v00\"/><vlan id=\"v01\"/>"
           "</port><port id=\"p1\" speed=\"s1\"><vlan id=\"v10\"/><vlan id=\"v11\"/><vlan "
           "id=\"v12\"/></port><port id=\"p2\"/><mode>text only</mode></net>\n<mgmt><accounts "
           "max=\"8\" cur_num=\"2\"><account user=\"admin\"/><account user=\"operator\"/>"
           "</accounts></mgmt>\n<wlan><rf1 channel=\"6\"/></wlan>\n</qorconfig>\n";
}

// An allocated text handed over by the library, or "(none)".
std::string take(char *text) {
    std::string out = text == nullptr ? "(none)" : text;
    std::free(text);
    return out;
}

// Every read form, by letter: P prefix_direct, D direct, SD by_str_direct,
// G get_cfg_item, S by_str, GS _s, SS by_str_s, PG by_path_gid_s and PS
// by_prefix_str_s (both with group path "y").
int read_form(const std::string &form, qorcfg_handle *h, uint32_t gid, const char *group,
              const char *item, char *v) {
    if (form == "P")
        return get_cfg_item_by_prefix_direct(h, group, item, v);
    if (form == "D")
        return get_cfg_item_direct(h, gid, item, v);
    if (form == "SD")
        return get_cfg_item_by_str_direct(h, group, item, v);
    if (form == "G")
        return get_cfg_item(h, gid, item, v);
    if (form == "S")
        return get_cfg_item_by_str(h, group, item, v);
    if (form == "GS")
        return get_cfg_item_s(h, gid, item, v);
    if (form == "SS")
        return get_cfg_item_by_str_s(h, group, item, v);
    if (form == "PG")
        return get_cfg_item_by_path_gid_s(h, group, "y", item, v);
    return get_cfg_item_by_prefix_str_s(h, group, "y", item, v);
}

class LookupTest : public SandboxTest {
protected:
    void SetUp() override {
        setenv("QORCFG_PRINT_ERR", "1", 1);
        sandbox.write(config_ram, config());
    }
    void TearDown() override {
        set_qorcfg_debug(0);
        set_shared_qorcfg(nullptr, 0);
        set_shared_qorcfg(nullptr, 1);
    }
};

TEST_F(LookupTest, EveryFormReportsItsResultValueAndMessage) {
    set_all_net_qorcfg_mode(0);
    Handle whole = own(init_qorcfg());
    Handle dev = own(init_sub_qorcfg("sys_device", 0, config_ram));
    Handle acc = own(init_sub_qorcfg("mgmt_accounts", 0, config_ram));
    sandbox.write("/tmp/odd.xml", "<qorconfig devtype=\"first\" version=\"second\" third=\"3\"/>");
    Handle odd = open_file("/tmp/odd.xml");
    qorcfg_handle none{};  // a handle without a tree
    qorcfg_handle *W = whole.get(), *dv = dev.get(), *ac = acc.get(), *od = odd.get(), *no = &none;
    const std::string deep(3000, 'd'),
        by_id = "get_cfg_item_direct>", by_name = "get_cfg_item_by_str_direct>",
        returned = "return value of calling get_cfg_item_by_prefix_direct() = ";
    const std::string deep_item = deep + ".x";
    // Results: a value, or -1 for a missing node and -4 for a missing item
    // with the core's message.
    const auto ok = [](const char *value) { return Read{0, value, ""}; };
    const auto no_node = [](const std::string &node) {
        return Read{-1, "", kCore + "Can't find node=" + node + "\n"};
    };
    const auto no_item = [](const std::string &item) {
        return Read{-4, "", kCore + "Can't find the item_name=" + item + "\n"};
    };
    const std::string nope = no_item("qorconfig.system.device.nope").err,
                      id_err = by_id + "Can't find group ID=",
                      name_err = by_name + "Can't find group name=",
                      gs = "get_cfg_item_s>Can't find the gid=",
                      ss = "get_cfg_item_by_str_s>Can't find the item_name=";
    const struct {
        const char *form;
        qorcfg_handle *h;
        uint32_t gid;
        const char *group, *item;
        Read want;  // the buffer starts as "junk"
    } cases[] = {
        // The core read: a group name or any dotted path stands for its path.
        {"P", W, 0, "qorconfig", "system.device.name", ok("AP-Lab-01")},
        {"P", W, 0, "sys_device", "name", ok("AP-Lab-01")},
        {"P", W, 0, "qorconfig.system.device", "name", ok("AP-Lab-01")},
        {"P", W, 0, "qorconfig.system", "device.name", ok("AP-Lab-01")},
        {"P", W, 0, "mgmt_accounts", "account:1.user", ok("operator")},
        {"P", W, 0, "qorconfig", "version", ok("1.10.01")},
        {"P", W, 0, "qorconfig", "net.port:1.vlan:2.id", ok("v12")},
        {"P", W, 0, "qorconfig", "net.port.vlan:1.id", ok("v01")},
        {"P", W, 0, "qorconfig", "net.port:1.vlan:3.id", no_node("qorconfig.net.port:1.vlan:3")},
        {"P", W, 0, "qorconfig", "net.port:x1.id", no_node("qorconfig.net.port:x1")},
        {"P", W, 0, "system", "device.name", no_node("system.device")},
        {"P", W, 0, "no_such_group", "name", no_node("no_such_group")},
        {"P", W, 0, "qorconfig", deep_item.c_str(), no_node("qorconfig." + deep)},
        {"P", W, 0, "sys_device", "nope", {-4, "", nope}},
        {"P", W, 0, "qorconfig", "net.port:2.speed", no_item("qorconfig.net.port:2.speed")},
        {"P", W, 0, "qorconfig", "net.port:1", no_item("qorconfig.net.port:1")},
        {"P", W, 0, "qorconfig", "net.mode", no_item("qorconfig.net.mode")},
        {"P", W, 0, nullptr, "name", {-3, "", ""}},
        {"P", W, 0, "sys_device", nullptr, {-4, "", ""}},
        {"P", nullptr, 0, nullptr, nullptr, {-1, "", ""}},
        // By group ID and name: the core result, reported once more.
        {"D", W, kAccounts, nullptr, "account:1.user", ok("operator")},
        {"D", W, 0x12345678, nullptr, "name", {-3, "", id_err + "305419896\n"}},
        {"D", W, 0xF0000000u, nullptr, "name", {-3, "", id_err + "-268435456\n"}},
        {"D", W, kSysDevice, nullptr, "nope", {-4, "", nope + by_id + returned + "-4\n"}},
        {"D",
         W,
         kRf2,
         nullptr,
         "channel",
         {-1, "", no_node("qorconfig.wlan.rf2").err + by_id + returned + "-1\n"}},
        {"D", W, kSysDevice, nullptr, nullptr, {-4, "", by_id + returned + "-4\n"}},
        {"D", nullptr, kSysDevice, nullptr, "name", {-1, "", ""}},
        {"SD", W, 0, "sys_device", "name", ok("AP-Lab-01")},
        {"SD", W, 0, "no_such", "name", {-3, "", name_err + "no_such\n"}},
        {"SD", W, 0, "0x00", "version", {-3, "", name_err + "0x00\n"}},
        {"SD", W, 0, "sys_device", "nope", {-4, "", nope + by_name + returned + "-4\n"}},
        {"SD", nullptr, 0, "x", "name", {-1, "", ""}},
        // The root's identity items are its first two attributes, by
        // position, and reversed by name ("0"/"0x0").
        {"D", od, 0, nullptr, "version", ok("first")},
        {"G", od, 0, nullptr, "devtype", ok("second")},
        {"D", od, 0, nullptr, "third", {-4, "", ""}},
        {"SD", od, 0, "0", "devtype", ok("first")},
        {"S", od, 0, "0", "version", ok("second")},
        {"SD", od, 0, "0x0", "version", ok("second")},
        {"S", od, 0, "0x0", "devtype", ok("first")},
        {"SD", od, 0, "0", "third", {-4, "", ""}},
        // The sub-tree forms read the top element of their handle; the ID
        // selects nothing, and there is no path walk by ID.
        {"GS", dv, kSysDevice, nullptr, "name", ok("AP-Lab-01")},
        {"GS", dv, kRf2, nullptr, "name", ok("AP-Lab-01")},
        {"GS", dv, kSysDevice, nullptr, "nope", {-4, "", gs + "134742016 item_name=nope\n"}},
        {"GS",
         ac,
         kAccounts,
         nullptr,
         "account.user",
         {-4, "", gs + "403177472 item_name=account.user\n"}},
        {"SS", dv, 0, "sys_device", "name", ok("AP-Lab-01")},
        {"SS", dv, 0, "sys_device", "nope", {-4, "junk", ss + "sys_device.nope\n"}},
        {"PG", ac, 0, "x", "account:1.user", ok("operator")},
        {"PS", ac, 0, "x", "max", ok("8")},
        {"PG", ac, 0, "x", "account:1.nope", no_item("accounts.account:1.nope")},
        // No handle, or one without a tree; only some forms clear the buffer first.
        {"G", nullptr, kSysDevice, nullptr, "name", {-1, "", ""}},
        {"S", nullptr, 0, "sys_device", "name", {-1, "junk", ""}},
        {"GS", nullptr, kSysDevice, nullptr, "name", {-1, "", ""}},
        {"SS", nullptr, 0, "sys_device", "name", {-1, "junk", ""}},
        {"G", no, kSysDevice, nullptr, "name", {-1, "", ""}},
        {"GS", no, kSysDevice, nullptr, "name", {-1, "", ""}},
        {"SS", no, 0, "sys_device", "name", {-1, "junk", ""}},
        {"PG", nullptr, 0, "x", "name", {-1, "junk", ""}},
        {"PS", no, 0, "x", "name", {-1, "junk", ""}},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto &c = cases[i];
        EXPECT_EQ(
            read_value([&](char *v) { return read_form(c.form, c.h, c.gid, c.group, c.item, v); }),
            c.want)
            << "case " << i << " " << c.form << " " << (c.item ? c.item : "(null)");
    }
    EXPECT_EQ(get_cfg_item_by_prefix_direct(W, "sys_device", "name", nullptr), -4);
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    EXPECT_EQ(read_value([&](char *v) { return read_form("P", W, 0, "qorconfig", "version", v); }),
              (Read{-2, "", kCore + "full_item_name malloc error\n"}));
    // Debug lines name the function (its source line aside).
    set_qorcfg_debug(1);
    std::string lines =
        read_value([&](char *v) { return read_form("P", W, 0, "sys_device", "name", v); }).err;
    for (size_t at = 0; (at = lines.find("<DEBUG:", at)) != std::string::npos; ++at) {
        const size_t number = lines.find(':', at + 7) + 1;
        lines.erase(number, lines.find('>', number) - number);
    }
    EXPECT_EQ(
        lines,
        "<DEBUG:get_cfg_item_by_prefix_direct:> full_item_name = qorconfig.system.device.name\n"
        "<DEBUG:get_cfg_item_by_prefix_direct:> attr_name = name\n");
    set_qorcfg_debug(0);

    // Values are cut to 255 characters in every form; the buffer past the
    // terminating zero is not written.
    for (const char *form : {"P", "D", "SD", "G", "S", "GS", "SS", "PG"}) {
        const std::string f = form;
        qorcfg_handle *h = f == "GS" || f == "SS" || f == "PG" ? dev.get() : W;
        char value[600];
        std::memset(value, 'X', sizeof value);
        EXPECT_EQ(read_form(form, h, kSysDevice, "sys_device", "desc", value), 0) << form;
        EXPECT_EQ(std::string(value), kLong.substr(0, 255)) << form;
        EXPECT_EQ(std::string(value + 256, 344), std::string(344, 'X')) << form;
        EXPECT_EQ(read_form(form, h, kSysDevice, "sys_device", "location", value), 0) << form;
        EXPECT_EQ(std::string(value), std::string(255, 'l')) << form;
    }
    // Without a daemon, network handles read the file.
    set_all_net_qorcfg_mode(1);
    Handle net = own(init_qorcfg());
    EXPECT_EQ(read_value([&](char *v) { return get_version(net.get(), v); }),
              (Read{0, "1.10.01", ""}));
    EXPECT_EQ(read_value([&](char *v) { return get_devtype(net.get(), v); }), (Read{0, "AP", ""}));
}

TEST_F(LookupTest, ItemsByPathComeFromTheWorkingCopyAndItemListsAreFilled) {
    EXPECT_EQ(attrs(get_item_by_path("name", "qorconfig.system.device")),
              (Attrs{{"name", "AP-Lab-01", -1}}));
    EXPECT_EQ(attrs(get_item_by_path(nullptr, "qorconfig.mgmt.accounts.account:1")),
              (Attrs{{"user", "operator", -1}}));
    for (const auto &[attr, path] : {std::pair{"nope", "qorconfig.system.device"},
                                     {"name", "qorconfig.system.nope"},
                                     {"name", "qorconfig.system:x1.device"},
                                     {"name", nullptr}})
        EXPECT_EQ(get_item_by_path(attr, path), nullptr);
    qorcfg_attr *list = nullptr;
    EXPECT_GE(sweep_allocations(
                  [&] {  // partial lists are released
                      CaptureOutput err(STDERR_FILENO);
                      return (list = get_item_by_path(nullptr, "qorconfig.mgmt.accounts")) !=
                             nullptr;
                  },
                  false),
              1u);
    EXPECT_EQ(attrs(list), (Attrs{{"max", "8", -1}, {"cur_num", "2", -1}}));
    set_all_net_qorcfg_mode(0);
    sandbox.remove(config_ram);  // and there is no flash copy
    CaptureOutput err(STDERR_FILENO);
    EXPECT_EQ(get_item_by_path("name", "qorconfig.system.device"), nullptr);
    EXPECT_EQ(err.text(), "ERROR: Fail to init configuration file.\n");

    sandbox.write(config_ram, config());
    Handle h = open_file(config_ram);
    EXPECT_EQ(get_cfg_items(nullptr, nullptr), -1);
    EXPECT_EQ(get_cfg_items(h.get(), nullptr), 0);
    qorcfg_item *items = append_cfg_item(nullptr, kRf1, "channel", "before");
    items = append_cfg_item(items, kAccounts, "nope", "before");
    items = append_cfg_item(items, kSysDevice, "desc", "before");
    EXPECT_EQ(read_value([&](char *) { return get_cfg_items(h.get(), items); }).rc, -4);
    EXPECT_EQ(std::string(items->value), kLong.substr(0, 255));  // into the node's own buffer
    EXPECT_STREQ(items->next->value, "");
    EXPECT_STREQ(items->next->next->value, "before");  // never read
    std::strcpy(items->next->name, "max");
    EXPECT_EQ(get_cfg_items(h.get(), items), 0);
    EXPECT_STREQ(items->next->value, "8");
    EXPECT_STREQ(items->next->next->value, "6");
    free_item_list(items);
}

// ---- item metadata ("name|&|type|&|rule|&|description") -------------------------------

TEST_F(LookupTest, MetadataFieldsAndRulesOfItemsInGroups) {
    sandbox.write(
        "/tmp/defs.xml",
        "<defs a=\"Name A|&amp;|int|&amp;|1~10|&amp;|Desc A\" "
        "b=\"Name B|&amp;|string|&amp;||&amp;|Desc B|&amp;|extra\" c=\"Name C|&amp;|mac\" "
        "d=\"|&amp;|restricted|&amp;|r\" e=\"a|b&amp;c|&amp;|timezone|&amp;|x|&amp;|\" "
        "f=\"plain\" g=\"N|&amp;|int |&amp;|r|&amp;|d\"/>");
    Handle holder = open_file("/tmp/defs.xml");
    const std::tuple<const char *, const char *, int, const char *, const char *> cases[] = {
        {"a", "Name A", 0, "1~10", "Desc A"},
        {"b", "Name B", 1, "(none)", "Desc B"},
        {"c", "Name C", 2, "(none)", "(none)"},
        {"d", "(none)", 8, "r", "(none)"},
        {"e", "a|b&c", 7, "x", "(none)"},
        {"f", "plain", -1, "(none)", "(none)"},
        {"g", "N", -1, "r", "d"},
        {"missing", "(none)", -1, "(none)", "(none)"},
    };
    for (const auto &[attr, name, type, rule, desc] : cases) {
        EXPECT_EQ(take(get_cfg_item_name(holder.get(), attr)), name) << attr;
        EXPECT_EQ(get_cfg_item_type(holder.get(), attr), type) << attr;
        EXPECT_EQ(take(get_cfg_item_rule(holder.get(), attr)), rule) << attr;
        EXPECT_EQ(take(get_cfg_item_desc(holder.get(), attr)), desc) << attr;
    }
    const char *names[] = {"int",  "string",  "mac",      "ip",         "domain",
                           "band", "channel", "timezone", "restricted", nullptr};
    for (int code = 0; code < 10; ++code) {
        EXPECT_EQ(cli_cfg_type_list[code].code, code < 9 ? code : -1);
        EXPECT_STREQ(cli_cfg_type_list[code].name, names[code]);
    }

    sandbox.write("/etc/cfg-rule.xml", sample("/etc/cfg-rule.xml"));
    Handle rules = open_file("/etc/cfg-rule.xml");
    qorcfg_handle *r = rules.get();
    const std::tuple<const char *, const char *, const char *> rule_cases[] = {
        {"name", "sys_device", "^[A-Za-z0-9_ \\x2e\\x2d]{1,32}$"},
        {"account:1.user", "mgmt_accounts", "^[a-z][a-z0-9_\\x2e\\x2d]{0,31}$"},
        {"ssid", "rf1_vap2", "^[^\\x22\\x27]{1,32}$"}};
    for (const auto &[item, group, rule] : rule_cases)
        EXPECT_EQ(take(get_cfg_item_rule_by_group_name(r, item, group)), rule) << item;
    const std::tuple<const char *, const char *, int> type_cases[] = {
        {"name", "sys_device", 1},   {"timezone", "sys_time", 7},
        {"mode", "rf1", 5},          {"channel", "rf1", 6},
        {"max", "mgmt_accounts", 8}, {"account.user", "mgmt_accounts", 1}};
    for (const auto &[item, group, type] : type_cases)
        EXPECT_EQ(get_cfg_item_type_by_group_name(r, item, group), type) << item;
    const std::string no_rule = "ERROR: Cannot get rule of attribute.\n",
                      no_group = "ERROR: Cannot find group.\n",
                      no_node = "ERROR: Cannot find NODE.\n";
    // handle, item, group, message of the rule lookup (which gives none), type, its message
    const std::tuple<qorcfg_handle *, const char *, const char *, std::string, int, std::string>
        misses[] = {
            {r, "max", "mgmt_accounts", no_rule, 8, ""},  // an empty rule
            {r, "nope", "sys_device", no_rule, -12, "ERROR: Cannot get type of attribute.\n"},
            {r, "name", "no_such", no_group, -3, no_group},
            {r, "x.name", "sys_device", no_node, -12, no_node},
            {nullptr, "name", "sys_device", "", -1, ""},
            {r, nullptr, "sys_device", "", -4, ""},
            {r, "name", nullptr, "", -3, ""},
            {r, nullptr, nullptr, "", -3, ""},
        };
    for (const auto &[h, item, group, rule_err, type, type_err] : misses) {
        CaptureOutput err(STDERR_FILENO);
        EXPECT_EQ(get_cfg_item_rule_by_group_name(h, item, group), nullptr);
        EXPECT_EQ(err.text(), rule_err);
        CaptureOutput err2(STDERR_FILENO);
        EXPECT_EQ(get_cfg_item_type_by_group_name(h, item, group), type);
        EXPECT_EQ(err2.text(), type_err);
    }
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    EXPECT_EQ(get_cfg_item_type_by_group_name(r, "name", "sys_device"), -2);
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    EXPECT_EQ(get_cfg_item_rule_by_group_name(r, "name", "sys_device"), nullptr);

    // Indexes are stripped from the element path: the first element of a
    // list or of the VAPs describes them all.
    sandbox.write("/tmp/defs.xml",
                  "<qorconfig><mgmt><accounts><account user=\"U|&amp;|int|&amp;|R0\"/>"
                  "<account user=\"U|&amp;|mac|&amp;|R1\"/></accounts></mgmt><wlan><rf1><vap "
                  "ssid=\"S|&amp;|ip|&amp;|S0\"/><vap ssid=\"S|&amp;|mac|&amp;|S1\"/></rf1></wlan>"
                  "</qorconfig>");
    Handle crafted = open_file("/tmp/defs.xml");
    EXPECT_EQ(
        take(get_cfg_item_rule_by_group_name(crafted.get(), "account:1.user", "mgmt_accounts")),
        "R0");
    EXPECT_EQ(get_cfg_item_type_by_group_name(crafted.get(), "account:1.user", "mgmt_accounts"), 0);
    EXPECT_EQ(take(get_cfg_item_rule_by_group_name(crafted.get(), "ssid", "rf1_vap2")), "S0");
    EXPECT_EQ(get_cfg_item_type_by_group_name(crafted.get(), "ssid", "rf1_vap2"), 3);
}

// ---- the daemon ------------------------------------------------------------------------

std::string item_reply(const std::string &value) {
    return header(0, 0) + text_record(3, "item") + text_record(4, value) + kEnd;
}

TEST_F(LookupTest, WithoutDaemonNetworkHandlesFallBackToTheFile) {
    const std::function<int(char *)> queries[] = {
        [](char *v) { return get_cfg_item_daemon(config_ram, kSysDevice, "name", v); },
        [](char *v) { return get_cfg_item_by_str_daemon(config_ram, "sys_device", "name", v); },
        [](char *v) {
            return get_cfg_item_by_all_args_daemon(config_ram, -1, "sys_device", "system.device",
                                                   "name", v);
        }};
    for (const auto &query : queries)
        EXPECT_EQ(read_value(query).rc, -10003);
    qorcfg_attr *list = nullptr;
    EXPECT_EQ(get_attr_from_daemon(qorcfg_daemon_request{}, &list), -10003);
    EXPECT_EQ(list, nullptr);

    // Opener, read, value, the handle's top element afterwards.
    using Reader = std::function<int(qorcfg_handle *, char *)>;
    const std::tuple<std::function<qorcfg_handle *()>, Reader, const char *, const char *> forms[] =
        {
            {init_qorcfg,
             [](qorcfg_handle *h, char *o) { return get_cfg_item(h, kSysDevice, "name", o); },
             "AP-Lab-01", "qorconfig"},
            {init_qorcfg,
             [](qorcfg_handle *h, char *o) {
                 return get_cfg_item_by_str(h, "mgmt_accounts", "account:1.user", o);
             },
             "operator", "qorconfig"},
            {[] { return init_sub_qorcfg("sys_device", 0, config_ram); },
             [](qorcfg_handle *h, char *o) { return get_cfg_item_s(h, kSysDevice, "name", o); },
             "AP-Lab-01", "device"},
            {[] { return init_sub_qorcfg(nullptr, kAccounts, config_ram); },
             [](qorcfg_handle *h, char *o) {
                 return get_cfg_item_by_str_s(h, "mgmt_accounts", "max", o);
             },
             "8", "accounts"},
            {init_qorcfg,
             [](qorcfg_handle *h, char *o) {
                 return get_cfg_item_by_path_gid_s(h, "mgmt_accounts", "mgmt.accounts",
                                                   "account:1.user", o);
             },
             "operator", "accounts"},
            {init_qorcfg,
             [](qorcfg_handle *h, char *o) {
                 return get_cfg_item_by_prefix_str_s(h, "sys_device", "system.device", "name", o);
             },
             "AP-Lab-01", "device"},
        };
    for (const auto &[opener, read, value, top] : forms) {
        set_all_net_qorcfg_mode(1);
        Handle h = own(opener());
        ASSERT_EQ(is_net_cfg(h.get()), 1);
        EXPECT_EQ(read_value([&](char *v) { return read(h.get(), v); }), (Read{0, value, ""}));
        EXPECT_STREQ(h->xml->name, top);
        EXPECT_EQ(get_net_qorcfg(0) + get_net_qorcfg(1), 0);
    }
    set_all_net_qorcfg_mode(1);
    Handle net = own(init_qorcfg());
    EXPECT_EQ(
        read_value([&](char *o) { return test_daemon_work(net.get(), kSysDevice, "name", o); }),
        (Read{-10003, "", ""}));
    EXPECT_EQ(is_net_cfg(net.get()), 1);  // only asks; never reads the file
    Handle file = open_file(config_ram);
    EXPECT_EQ(test_daemon_work(file.get(), kSysDevice, "name", nullptr), -1);
    EXPECT_EQ(test_daemon_work(nullptr, kSysDevice, "name", nullptr), -1);
}

TEST_F(LookupTest, DaemonRequestsCarryEveryFieldAtItsOffsetAndItsAnswersAreFinal) {
    FakeDaemon daemon({item_reply("from-daemon"), item_reply("from-daemon"),
                       item_reply("from-daemon"), item_reply("from-daemon"),
                       item_reply("from-daemon"), item_reply("from-daemon"),
                       item_reply("from-daemon"), header(0, -4) + kEnd, item_reply("sub"),
                       header(0, 0) + kEnd, header(0, 0) + kEnd});
    ASSERT_TRUE(daemon.ok());
    Handle net = own(init_qorcfg());
    Handle current = own(init_qorcfg_f(current_config));
    Handle sub = own(init_sub_qorcfg("sys_device", 0, config_ram));
    const std::pair<std::function<int(char *)>, Read> queries[] = {
        {[](char *v) { return get_cfg_item_daemon(config_ram, kSysDevice, "name", v); },
         {0, "from-daemon", ""}},
        {[](char *v) {
             return get_cfg_item_by_str_daemon(current_config, "sys_device", "name", v);
         },
         {0, "from-daemon", ""}},
        {[](char *v) {
             return get_cfg_item_by_all_args_daemon(config_ram, -1, "mgmt_accounts",
                                                    "mgmt.accounts", "account:1.user", v);
         },
         {0, "from-daemon", ""}},
        {[](char *v) {
             return get_cfg_item_by_all_args_daemon(config_ram, kAccounts, "qorconfig",
                                                    "mgmt.accounts", "max", v);
         },
         {0, "from-daemon", ""}},
        {[&](char *v) { return get_cfg_item(net.get(), 0xF0000000u, "x", v); },
         {0, "from-daemon", ""}},
        {[&](char *v) { return get_cfg_item_by_str(current.get(), "rf1_vap2", "ssid", v); },
         {0, "from-daemon", ""}},
        {[&](char *v) { return test_daemon_work(net.get(), kSysDevice, "desc", v); },
         {0, "from-daemon", ""}},
        // The file has this item, yet the daemon's "not found" is the answer.
        {[&](char *v) { return get_cfg_item(net.get(), kSysDevice, "name", v); }, {-4, "", ""}},
        {[&](char *v) { return get_cfg_item_s(sub.get(), kSysDevice, "name", v); }, {0, "sub", ""}},
        // Success without a record leaves the buffer as the caller set it,
        // or empty from the lookups that clear it.
        {[](char *v) { return get_cfg_item_daemon(config_ram, kSysDevice, "name", v); },
         {0, "junk", ""}},
        {[&](char *v) { return get_cfg_item(net.get(), kSysDevice, "name", v); }, {0, "", ""}},
    };
    for (size_t i = 0; i < std::size(queries); ++i)
        EXPECT_EQ(read_value(queries[i].first), queries[i].second) << "query " << i;
    EXPECT_EQ(is_net_cfg(net.get()) + is_net_cfg(sub.get()) + get_net_qorcfg(0), 3);
    const std::string expected[] = {
        request(2, config_ram, "name", "", "", static_cast<int32_t>(kSysDevice)),
        request(3, current_config, "name", "sys_device", "", -1),
        request(6, config_ram, "account:1.user", "mgmt_accounts", "mgmt.accounts", -1),
        request(5, config_ram, "max", "qorconfig", "mgmt.accounts",
                static_cast<int32_t>(kAccounts)),
        request(2, config_ram, "x", "", "", static_cast<int32_t>(0xF0000000u)),
        request(3, current_config, "ssid", "rf1_vap2", "", -1),
        request(2, config_ram, "desc", "", "", static_cast<int32_t>(kSysDevice)),
    };
    const std::vector<std::string> got = daemon.stop();
    ASSERT_EQ(got.size(), std::size(queries));
    for (size_t i = 0; i < std::size(expected); ++i)
        EXPECT_EQ(got[i], expected[i]) << "request " << i;
}

TEST_F(LookupTest, DaemonRepliesDecodeIntoRecordsAndTransportFailuresAreCodes) {
    FakeDaemon daemon(
        {header(0, 0) + text_record(3, "ssid") + text_record(4, "abc") + index_record(2) + kEnd,
         header(0, -4) + kEnd});
    ASSERT_TRUE(daemon.ok());
    qorcfg_daemon_request req{};
    std::strcpy(req.file, "/tmp/config.xml");
    req.marker[0] = '_';
    req.code = htonl(2);
    std::strcpy(req.item, "ssid");
    std::memcpy(req.gid, "\x20\x88\x40\x00", 4);
    qorcfg_attr *list = nullptr;
    EXPECT_EQ(get_attr_from_daemon(req, &list), 0);
    EXPECT_EQ(attrs(list), (Attrs{{"ssid", "abc", 2}}));
    list = nullptr;
    EXPECT_EQ(get_attr_from_daemon(req, &list), -4);
    EXPECT_EQ(list, nullptr);
    const std::string sent(reinterpret_cast<const char *>(&req), QORCFG_REQUEST_SENT);
    EXPECT_EQ(daemon.stop(), (std::vector<std::string>{sent, sent}));

    FakeDaemon answering(std::vector<std::string>(8, item_reply("from-daemon")));
    for (const auto &[call, rc] : {std::pair{Call::socket, -10002},
                                   {Call::connect, -10003},
                                   {Call::send, -10004},
                                   {Call::recv, -10005}}) {
        qorcfg::os::fail_nth(call, 1, EIO);
        EXPECT_EQ(read_value([](char *v) {
                      return get_cfg_item_daemon(config_ram, kSysDevice, "name", v);
                  }),
                  (Read{rc, "junk", ""}));
        set_all_net_qorcfg_mode(1);
        Handle net = own(init_qorcfg());
        qorcfg::os::fail_nth(call, 1, EIO);
        EXPECT_EQ(
            read_value([&](char *v) { return get_cfg_item(net.get(), kSysDevice, "name", v); }),
            (Read{0, "AP-Lab-01", ""}));
        EXPECT_EQ(is_net_cfg(net.get()), 0);
    }
    answering.stop();
}

// Regressions: a daemon that hangs up gave the caller SIGPIPE (the query now
// sends with MSG_NOSIGNAL); name requests carry the gid -1 whatever negative
// value is passed; an item name longer than its field is not sent cut.
TEST_F(LookupTest, MisbehavingDaemonsAndOverlongRequests) {
    std::signal(SIGPIPE, SIG_DFL);  // as in a program that does not ignore it
    std::atomic<bool> hang_up{true};
    std::atomic<int> connections{0};
    std::string gid_bytes;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, qorcfg::os::daemon_socket_path().c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(fd, 8), 0);
    std::thread server([&] {
        for (int c; (c = ::accept(fd, nullptr, nullptr)) >= 0; ::close(c)) {
            ++connections;
            unsigned char req[QORCFG_REQUEST_SENT];
            size_t got = 0;
            for (ssize_t n = 1; !hang_up && got < sizeof req && n > 0;
                 got += static_cast<size_t>(n))
                n = ::recv(c, req + got, sizeof req - got, 0);
            if (hang_up || got < sizeof req)
                continue;
            gid_bytes.assign(reinterpret_cast<char *>(req + 1007), 4);
            const unsigned char reply[] = {1, 0, 12,   0,    0,    0,    0, 0, 0,
                                           0, 0, 0xFF, 0xFF, 0xFF, 0xFC, 0, 0, 0};
            ::send(c, reply, sizeof reply, MSG_NOSIGNAL);
        }
    });
    for (int i = 0; i < 20; ++i) {
        const int r = read_value([](char *v) {
                          return get_cfg_item_daemon(config_ram, kSysDevice, "nnnnn", v);
                      }).rc;
        EXPECT_TRUE(r == -10004 || r == -10005 || r == 0) << r;
    }
    EXPECT_EQ(read_value([](char *v) {
                  return get_cfg_item(own(init_qorcfg()).get(), kSysDevice, "name", v);
              }),
              (Read{0, "AP-Lab-01", ""}));
    hang_up = false;
    const int before = connections;
    EXPECT_EQ(read_value([](char *v) {
                  return get_cfg_item_by_all_args_daemon(config_ram, -5, "p", "a.b", "item", v);
              }).rc,
              -4);
    EXPECT_EQ(gid_bytes, std::string(4, '\xFF'));
    const std::string long_item(200, 'x');
    EXPECT_EQ(read_value([&](char *v) {
                  return get_cfg_item_daemon(config_ram, kSysDevice, long_item.c_str(), v);
              }).rc,
              -10001);
    set_all_net_qorcfg_mode(1);
    EXPECT_EQ(read_value([&](char *v) {
                  return get_cfg_item(own(init_qorcfg()).get(), kSysDevice, long_item.c_str(), v);
              }).rc,
              -4);  // the lookup reads the file
    EXPECT_EQ(connections, before + 1);
    ::shutdown(fd, SHUT_RDWR);
    ::close(fd);
    server.join();
}

}  // namespace
