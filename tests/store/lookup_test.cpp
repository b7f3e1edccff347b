// tests/store/lookup_test.cpp - reading single items: the core read under a
// prefix, the group-ID and group-name forms with the root's identity items,
// values cut at 255 characters, the sub-tree forms, reading by path and item
// lists, item metadata, and the daemon queries with their fallback to the file.
#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "os/os.h"
#include "qorcfg.h"
#include "store/platform.h"
#include "tests/support/daemon_wire.h"
#include "tests/support/sandbox.h"

namespace {

using qorcfg::os::Call;
using qorcfg::test::CaptureOutput;
using Handle = std::unique_ptr<qorcfg_handle, decltype(&close_qorcfg)>;

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
           "\"></device></system>\n"
           "<net><port id=\"p0\"><vlan id=\"v00\"/><vlan id=\"v01\"/></port>"
           "<port id=\"p1\" speed=\"s1\"><vlan id=\"v10\"/><vlan id=\"v11\"/><vlan id=\"v12\"/>"
           "</port><port id=\"p2\"/><mode>text only</mode></net>\n"
           "<mgmt><accounts max=\"8\" cur_num=\"2\"><account user=\"admin\"/>"
           "<account user=\"operator\"/></accounts></mgmt>\n"
           "<wlan><rf1 channel=\"6\"/></wlan>\n</qorconfig>\n";
}

// A read: its result, the value buffer afterwards (it starts as "junk") and
// what was printed.
struct Read {
    int rc;
    std::string value;
    std::string err;
};
Read run(const std::function<int(char *)> &read) {
    char value[QORCFG_VALUE_SIZE] = "junk";
    CaptureOutput err(STDERR_FILENO);
    const int rc = read(value);
    return {rc, value, err.text()};
}
void expect_read(const Read &r, int rc, const std::string &value, const std::string &err) {
    EXPECT_EQ(r.rc, rc);
    EXPECT_EQ(r.value, value);
    EXPECT_EQ(r.err, err);
}

// An allocated text handed over by the library, or "(none)".
std::string take(char *text) {
    std::string out = text == nullptr ? "(none)" : text;
    std::free(text);
    return out;
}

std::vector<std::tuple<std::string, std::string, int>> attrs(qorcfg_attr *list) {
    std::vector<std::tuple<std::string, std::string, int>> out;
    for (qorcfg_attr *a = list; a != nullptr; a = a->next)
        out.emplace_back(a->name != nullptr ? a->name : "(null)",
                         a->value != nullptr ? a->value : "(null)", a->index);
    free_attr_list(list);
    return out;
}
using Attrs = std::vector<std::tuple<std::string, std::string, int>>;

class LookupTest : public qorcfg::test::SandboxTest {
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
    // A handle on the parsed working copy.
    Handle local() {
        set_all_net_qorcfg_mode(0);
        return Handle(init_qorcfg(), &close_qorcfg);
    }
    Handle open(qorcfg_handle *h) { return Handle(h, &close_qorcfg); }
    ezxml_node *parse(const std::string &text) {
        sandbox.write("/tmp/defs.xml", text);
        return init_qorcfg_f_direct("/tmp/defs.xml");
    }
};

// ---- local reads ------------------------------------------------------------------

TEST_F(LookupTest, CoreReadResolvesPrefixAndPathAndReportsEachFailure) {
    Handle h = local();
    ASSERT_NE(h, nullptr);
    const std::string deep(3000, 'd');
    const struct {
        const char *prefix;
        std::string item;
        int rc;
        const char *value;
        std::string err;
    } cases[] = {
        {"qorconfig", "system.device.name", 0, "AP-Lab-01", ""},
        {"sys_device", "name", 0, "AP-Lab-01", ""},  // a group name stands for its path
        {"qorconfig.system.device", "name", 0, "AP-Lab-01", ""},  // so does any dotted path
        {"qorconfig.system", "device.name", 0, "AP-Lab-01", ""},
        {"mgmt_accounts", "account:1.user", 0, "operator", ""},
        {"qorconfig", "version", 0, "1.10.01", ""},
        {"qorconfig", "net.port:1.vlan:2.id", 0, "v12", ""},
        {"qorconfig", "net.port.vlan:1.id", 0, "v01", ""},
        {"qorconfig", "net.port:1.speed", 0, "s1", ""},
        {"qorconfig", "net.port:1.vlan:3.id", -1, "",
         kCore + "Can't find node=qorconfig.net.port:1.vlan:3\n"},
        {"qorconfig", "net.port:x1.id", -1, "", kCore + "Can't find node=qorconfig.net.port:x1\n"},
        {"system", "device.name", -1, "", kCore + "Can't find node=system.device\n"},
        {"no_such_group", "name", -1, "", kCore + "Can't find node=no_such_group\n"},
        {"qorconfig", deep + ".x", -1, "", kCore + "Can't find node=qorconfig." + deep + "\n"},
        {"sys_device", "nope", -4, "",
         kCore + "Can't find the item_name=qorconfig.system.device.nope\n"},
        {"qorconfig", "net.port:2.speed", -4, "",
         kCore + "Can't find the item_name=qorconfig.net.port:2.speed\n"},
        {"qorconfig", "net.port:1", -4, "",
         kCore + "Can't find the item_name=qorconfig.net.port:1\n"},
        {"qorconfig", "net.mode", -4, "", kCore + "Can't find the item_name=qorconfig.net.mode\n"},
        {nullptr, "name", -3, "", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.prefix == nullptr ? "(null)" : c.prefix) + " / " +
                     c.item.substr(0, 40));
        expect_read(run([&](char *v) {
                        return get_cfg_item_by_prefix_direct(h.get(), c.prefix, c.item.c_str(), v);
                    }),
                    c.rc, c.value, c.err);
    }
    expect_read(run([&](char *v) {
                    return get_cfg_item_by_prefix_direct(h.get(), "sys_device", nullptr, v);
                }),
                -4, "", "");
    EXPECT_EQ(get_cfg_item_by_prefix_direct(h.get(), "sys_device", "name", nullptr), -4);
    expect_read(
        run([](char *v) { return get_cfg_item_by_prefix_direct(nullptr, nullptr, nullptr, v); }),
        -1, "", "");

    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    expect_read(run([&](char *v) {
                    return get_cfg_item_by_prefix_direct(h.get(), "qorconfig", "version", v);
                }),
                -2, "", kCore + "full_item_name malloc error\n");

    set_qorcfg_debug(1);
    const Read traced = run(
        [&](char *v) { return get_cfg_item_by_prefix_direct(h.get(), "sys_device", "name", v); });
    EXPECT_EQ(traced.rc, 0);
    // The source line numbers aside: "<DEBUG:function:123>" reads "<DEBUG:function:>".
    std::string lines = traced.err;
    for (size_t at = 0; (at = lines.find("<DEBUG:", at)) != std::string::npos; ++at) {
        const size_t number = lines.find(':', at + 7) + 1;
        lines.erase(number, lines.find('>', number) - number);
    }
    EXPECT_EQ(
        lines,
        "<DEBUG:get_cfg_item_by_prefix_direct:> full_item_name = qorconfig.system.device.name\n"
        "<DEBUG:get_cfg_item_by_prefix_direct:> attr_name = name\n");
}

TEST_F(LookupTest, GroupIdAndGroupNameFormsReportTheCoreResult) {
    Handle h = local();
    ASSERT_NE(h, nullptr);
    const std::string by_id = "get_cfg_item_direct>", by_name = "get_cfg_item_by_str_direct>";
    const std::string returned = "return value of calling get_cfg_item_by_prefix_direct() = ";
    const std::string nope = kCore + "Can't find the item_name=qorconfig.system.device.nope\n";
    const struct {
        const char *group;  // null: by group ID
        uint32_t gid;
        const char *item;
        int rc;
        const char *value;
        std::string err;
    } cases[] = {
        {nullptr, kSysDevice, "name", 0, "AP-Lab-01", ""},
        {nullptr, kAccounts, "account:1.user", 0, "operator", ""},
        {nullptr, 0x12345678, "name", -3, "", by_id + "Can't find group ID=305419896\n"},
        {nullptr, 0xF0000000u, "name", -3, "", by_id + "Can't find group ID=-268435456\n"},
        {nullptr, kSysDevice, "nope", -4, "", nope + by_id + returned + "-4\n"},
        {nullptr, kRf2, "channel", -1, "",
         kCore + "Can't find node=qorconfig.wlan.rf2\n" + by_id + returned + "-1\n"},
        {nullptr, kSysDevice, nullptr, -4, "", by_id + returned + "-4\n"},
        {"sys_device", 0, "name", 0, "AP-Lab-01", ""},
        {"no_such", 0, "name", -3, "", by_name + "Can't find group name=no_such\n"},
        {"0x00", 0, "version", -3, "", by_name + "Can't find group name=0x00\n"},  // not the root
        {"sys_device", 0, "nope", -4, "", nope + by_name + returned + "-4\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.group != nullptr ? c.group : std::to_string(c.gid)) + " " +
                     (c.item != nullptr ? c.item : "(null)"));
        expect_read(run([&](char *v) {
                        return c.group != nullptr
                                   ? get_cfg_item_by_str_direct(h.get(), c.group, c.item, v)
                                   : get_cfg_item_direct(h.get(), c.gid, c.item, v);
                    }),
                    c.rc, c.value, c.err);
    }
    expect_read(run([](char *v) { return get_cfg_item_direct(nullptr, kSysDevice, "name", v); }),
                -1, "", "");
    expect_read(run([](char *v) { return get_cfg_item_by_str_direct(nullptr, "x", "name", v); }),
                -1, "", "");
}

TEST_F(LookupTest, RootIdentityItemsArePositionalAndReversedByName) {
    // The root's attributes are taken by position, whatever their names.
    ezxml_node *odd = parse("<qorconfig devtype=\"first\" version=\"second\" third=\"3\"/>");
    ASSERT_NE(odd, nullptr);
    qorcfg_handle cell{};
    cell.xml = odd;
    const struct {
        bool by_name;
        const char *group;
        const char *item;
        int rc;
        const char *value;
    } cases[] = {
        {false, nullptr, "version", 0, "first"}, {false, nullptr, "devtype", 0, "second"},
        {false, nullptr, "third", -4, ""},       {true, "0", "devtype", 0, "first"},
        {true, "0", "version", 0, "second"},     {true, "0x0", "devtype", 0, "first"},
        {true, "0x0", "version", 0, "second"},   {true, "0", "third", -4, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.by_name ? c.group : "gid 0") + " " + c.item);
        for (bool direct : {true, false}) {
            expect_read(run([&](char *v) {
                            if (c.by_name)
                                return direct
                                           ? get_cfg_item_by_str_direct(&cell, c.group, c.item, v)
                                           : get_cfg_item_by_str(&cell, c.group, c.item, v);
                            return direct ? get_cfg_item_direct(&cell, 0, c.item, v)
                                          : get_cfg_item(&cell, 0, c.item, v);
                        }),
                        c.rc, c.value, "");
        }
    }
    ezxml_free(odd);

    for (bool network : {false, true}) {  // without a daemon, network handles read the file
        SCOPED_TRACE(network ? "network handle" : "local handle");
        set_all_net_qorcfg_mode(network ? 1 : 0);
        Handle h = open(init_qorcfg());
        expect_read(run([&](char *v) { return get_version(h.get(), v); }), 0, "1.10.01", "");
        expect_read(run([&](char *v) { return get_devtype(h.get(), v); }), 0, "AP", "");
        expect_read(run([&](char *v) { return get_cfg_item_by_str(h.get(), "0", "version", v); }),
                    0, "AP", "");
    }
}

TEST_F(LookupTest, ValuesAreCutTo255CharactersInEveryForm) {
    Handle h = local();
    Handle dev = open(init_sub_qorcfg("sys_device", 0, config_ram));
    ASSERT_NE(h, nullptr);
    ASSERT_NE(dev, nullptr);
    qorcfg_handle *hp = h.get();
    qorcfg_handle *dp = dev.get();
    const std::function<int(const char *, char *)> forms[] = {
        [&](const char *i, char *v) {
            return get_cfg_item_by_prefix_direct(hp, "sys_device", i, v);
        },
        [&](const char *i, char *v) { return get_cfg_item_direct(hp, kSysDevice, i, v); },
        [&](const char *i, char *v) { return get_cfg_item_by_str_direct(hp, "sys_device", i, v); },
        [&](const char *i, char *v) { return get_cfg_item(hp, kSysDevice, i, v); },
        [&](const char *i, char *v) { return get_cfg_item_by_str(hp, "sys_device", i, v); },
        [&](const char *i, char *v) { return get_cfg_item_s(dp, kSysDevice, i, v); },
        [&](const char *i, char *v) { return get_cfg_item_by_str_s(dp, "sys_device", i, v); },
        [&](const char *i, char *v) { return get_cfg_item_by_path_gid_s(dp, "p", "g", i, v); },
    };
    for (size_t i = 0; i < std::size(forms); ++i) {
        SCOPED_TRACE("form " + std::to_string(i));
        char value[600];
        std::memset(value, 'X', sizeof value);
        EXPECT_EQ(forms[i]("desc", value), 0);
        EXPECT_EQ(std::string(value), kLong.substr(0, 255));
        EXPECT_EQ(std::string(value + 256, sizeof value - 256),
                  std::string(sizeof value - 256, 'X'));
        EXPECT_EQ(forms[i]("location", value), 0);
        EXPECT_EQ(std::string(value), std::string(255, 'l'));
    }
}

TEST_F(LookupTest, SubTreeFormsReadTheTopElementOfTheirHandle) {
    set_all_net_qorcfg_mode(0);
    Handle dev = open(init_sub_qorcfg("sys_device", 0, config_ram));
    Handle acc = open(init_sub_qorcfg("mgmt_accounts", 0, config_ram));
    ASSERT_NE(dev, nullptr);
    ASSERT_NE(acc, nullptr);
    ASSERT_STREQ(dev->xml->name, "device");
    ASSERT_STREQ(acc->xml->name, "accounts");
    qorcfg_handle none{};  // a handle without a tree
    enum Form { kByGid, kByName, kByPath, kByPrefix, kPlain, kPlainByName };
    const struct {
        Form form;
        qorcfg_handle *handle;
        uint32_t gid;
        const char *group, *item;
        int rc;
        const char *value;  // the buffer starts as "junk"
        std::string err;
    } cases[] = {
        {kByGid, dev.get(), kSysDevice, nullptr, "name", 0, "AP-Lab-01", ""},
        {kByGid, dev.get(), kRf2, nullptr, "name", 0, "AP-Lab-01", ""},  // the ID selects nothing
        {kByGid, dev.get(), kSysDevice, nullptr, "nope", -4, "",
         "get_cfg_item_s>Can't find the gid=134742016 item_name=nope\n"},
        {kByGid, acc.get(), kAccounts, nullptr, "account.user", -4, "",  // no path walk
         "get_cfg_item_s>Can't find the gid=403177472 item_name=account.user\n"},
        {kByName, dev.get(), 0, "sys_device", "name", 0, "AP-Lab-01", ""},
        {kByName, dev.get(), 0, "sys_device", "nope", -4, "junk",
         "get_cfg_item_by_str_s>Can't find the item_name=sys_device.nope\n"},
        {kByPath, acc.get(), 0, "x", "account:1.user", 0, "operator", ""},
        {kByPrefix, acc.get(), 0, "x", "max", 0, "8", ""},
        {kByPath, acc.get(), 0, "x", "account:1.nope", -4, "",
         kCore + "Can't find the item_name=accounts.account:1.nope\n"},
        // No handle, or one without a tree; only some forms clear the buffer first.
        {kPlain, nullptr, kSysDevice, nullptr, "name", -1, "", ""},
        {kPlainByName, nullptr, 0, "sys_device", "name", -1, "junk", ""},
        {kByGid, nullptr, kSysDevice, nullptr, "name", -1, "", ""},
        {kByName, nullptr, 0, "sys_device", "name", -1, "junk", ""},
        {kPlain, &none, kSysDevice, nullptr, "name", -1, "", ""},
        {kByGid, &none, kSysDevice, nullptr, "name", -1, "", ""},
        {kByName, &none, 0, "sys_device", "name", -1, "junk", ""},
        {kByPath, nullptr, 0, "x", "name", -1, "junk", ""},
        {kByPrefix, &none, 0, "x", "name", -1, "junk", ""},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        const auto &c = cases[i];
        expect_read(
            run([&](char *v) {
                switch (c.form) {
                    case kByGid:
                        return get_cfg_item_s(c.handle, c.gid, c.item, v);
                    case kByName:
                        return get_cfg_item_by_str_s(c.handle, c.group, c.item, v);
                    case kByPath:
                        return get_cfg_item_by_path_gid_s(c.handle, c.group, "y", c.item, v);
                    case kByPrefix:
                        return get_cfg_item_by_prefix_str_s(c.handle, c.group, "y", c.item, v);
                    case kPlain:
                        return get_cfg_item(c.handle, c.gid, c.item, v);
                    case kPlainByName:
                        return get_cfg_item_by_str(c.handle, c.group, c.item, v);
                }
                return 99;
            }),
            c.rc, c.value, c.err);
    }
}

TEST_F(LookupTest, ItemsByPathComeFromTheWorkingCopy) {
    EXPECT_EQ(attrs(get_item_by_path("name", "qorconfig.system.device")),
              (Attrs{{"name", "AP-Lab-01", -1}}));
    EXPECT_EQ(attrs(get_item_by_path(nullptr, "qorconfig.mgmt.accounts")),
              (Attrs{{"max", "8", -1}, {"cur_num", "2", -1}}));
    EXPECT_EQ(attrs(get_item_by_path(nullptr, "qorconfig.mgmt.accounts.account:1")),
              (Attrs{{"user", "operator", -1}}));
    EXPECT_EQ(get_item_by_path("nope", "qorconfig.system.device"), nullptr);
    EXPECT_EQ(get_item_by_path("name", "qorconfig.system.nope"), nullptr);
    EXPECT_EQ(get_item_by_path("name", "qorconfig.system:x1.device"), nullptr);
    EXPECT_EQ(get_item_by_path("name", nullptr), nullptr);
    bool listed = false;
    for (unsigned n = 1; n < 40 && !listed; ++n) {  // partial lists are released
        qorcfg::os::fail_nth(Call::alloc, n, ENOMEM);
        CaptureOutput err(STDERR_FILENO);
        qorcfg_attr *list = get_item_by_path(nullptr, "qorconfig.mgmt.accounts");
        qorcfg::os::reset_faults();
        listed = list != nullptr;
        if (listed) {
            EXPECT_EQ(attrs(list), (Attrs{{"max", "8", -1}, {"cur_num", "2", -1}}));
        }
    }
    EXPECT_TRUE(listed);

    set_all_net_qorcfg_mode(0);
    sandbox.remove(config_ram);  // and there is no flash copy
    CaptureOutput err(STDERR_FILENO);
    EXPECT_EQ(get_item_by_path("name", "qorconfig.system.device"), nullptr);
    EXPECT_EQ(err.text(), "ERROR: Fail to init configuration file.\n");
}

TEST_F(LookupTest, ItemListIsFilledUpToTheFirstFailure) {
    Handle h = local();
    EXPECT_EQ(get_cfg_items(nullptr, nullptr), -1);
    EXPECT_EQ(get_cfg_items(h.get(), nullptr), 0);
    qorcfg_item *list = append_cfg_item(nullptr, kRf1, "channel", "before");
    list = append_cfg_item(list, kAccounts, "nope", "before");
    list = append_cfg_item(list, kSysDevice, "desc", "before");
    ASSERT_NE(list, nullptr);
    CaptureOutput err(STDERR_FILENO);
    EXPECT_EQ(get_cfg_items(h.get(), list), -4);
    err.text();
    EXPECT_EQ(std::string(list->value), kLong.substr(0, 255));  // into the node's own buffer
    EXPECT_STREQ(list->next->value, "");
    EXPECT_STREQ(list->next->next->value, "before");  // never read
    std::strcpy(list->next->name, "max");
    EXPECT_EQ(get_cfg_items(h.get(), list), 0);
    EXPECT_STREQ(list->next->value, "8");
    EXPECT_STREQ(list->next->next->value, "6");
    free_item_list(list);
}

// ---- item metadata ----------------------------------------------------------------

TEST_F(LookupTest, MetadataFieldsAreSplitAtTheSeparator) {
    ezxml_node *defs = parse(
        "<defs a=\"Name A|&amp;|int|&amp;|1~10|&amp;|Desc A\" "
        "b=\"Name B|&amp;|string|&amp;||&amp;|Desc B|&amp;|extra\" c=\"Name C|&amp;|mac\" "
        "d=\"|&amp;|restricted|&amp;|r\" e=\"a|b&amp;c|&amp;|timezone|&amp;|x|&amp;|\" "
        "f=\"plain\" g=\"N|&amp;|int |&amp;|r|&amp;|d\"/>");
    ASSERT_NE(defs, nullptr);
    qorcfg_handle holder{};
    holder.xml = defs;
    const struct {
        const char *attr, *name;
        int type;
        const char *rule, *desc;
    } cases[] = {
        {"a", "Name A", 0, "1~10", "Desc A"},
        {"b", "Name B", 1, "(none)", "Desc B"},
        {"c", "Name C", 2, "(none)", "(none)"},
        {"d", "(none)", 8, "r", "(none)"},
        {"e", "a|b&c", 7, "x", "(none)"},
        {"f", "plain", -1, "(none)", "(none)"},
        {"g", "N", -1, "r", "d"},
        {"missing", "(none)", -1, "(none)", "(none)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.attr);
        EXPECT_EQ(take(get_cfg_item_name(&holder, c.attr)), c.name);
        EXPECT_EQ(get_cfg_item_type(&holder, c.attr), c.type);
        EXPECT_EQ(take(get_cfg_item_rule(&holder, c.attr)), c.rule);
        EXPECT_EQ(take(get_cfg_item_desc(&holder, c.attr)), c.desc);
    }
    ezxml_free(defs);
    const char *names[] = {"int",  "string",  "mac",      "ip",        "domain",
                           "band", "channel", "timezone", "restricted"};
    for (int code = 0; code < 9; ++code) {
        EXPECT_EQ(cli_cfg_type_list[code].code, code);
        EXPECT_STREQ(cli_cfg_type_list[code].name, names[code]);
    }
    EXPECT_EQ(cli_cfg_type_list[9].code, -1);
    EXPECT_EQ(cli_cfg_type_list[9].name, nullptr);
}

TEST_F(LookupTest, RuleAndTypeOfAnItemInAGroup) {
    std::ifstream in(qorcfg::test::devroot() + "/etc/cfg-rule.xml", std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    sandbox.write("/etc/cfg-rule.xml", text.str());
    Handle rules = open(init_qorcfg_f("/etc/cfg-rule.xml"));
    ASSERT_NE(rules, nullptr);
    qorcfg_handle *r = rules.get();
    EXPECT_EQ(take(get_cfg_item_rule_by_group_name(r, "name", "sys_device")),
              "^[A-Za-z0-9_ \\x2e\\x2d]{1,32}$");
    EXPECT_EQ(take(get_cfg_item_rule_by_group_name(r, "account:1.user", "mgmt_accounts")),
              "^[a-z][a-z0-9_\\x2e\\x2d]{0,31}$");
    EXPECT_EQ(take(get_cfg_item_rule_by_group_name(r, "ssid", "rf1_vap2")),
              "^[^\\x22\\x27]{1,32}$");
    const struct {
        const char *item, *group;
        int type;
    } types[] = {{"name", "sys_device", 1},   {"timezone", "sys_time", 7},
                 {"mode", "rf1", 5},          {"channel", "rf1", 6},
                 {"max", "mgmt_accounts", 8}, {"account.user", "mgmt_accounts", 1}};
    for (const auto &t : types)
        EXPECT_EQ(get_cfg_item_type_by_group_name(r, t.item, t.group), t.type) << t.item;

    const std::string no_rule = "ERROR: Cannot get rule of attribute.\n";
    const std::string no_group = "ERROR: Cannot find group.\n",
                      no_node = "ERROR: Cannot find NODE.\n";
    const struct {
        qorcfg_handle *handle;
        const char *item, *group;
        std::string rule_err;  // the rule lookup gives none
        int type;
        std::string type_err;
    } misses[] = {
        {r, "max", "mgmt_accounts", no_rule, 8, ""},  // an empty rule
        {r, "nope", "sys_device", no_rule, -12, "ERROR: Cannot get type of attribute.\n"},
        {r, "name", "no_such", no_group, -3, no_group},
        {r, "x.name", "sys_device", no_node, -12, no_node},
        {nullptr, "name", "sys_device", "", -1, ""},
        {r, nullptr, "sys_device", "", -4, ""},
        {r, "name", nullptr, "", -3, ""},
        {r, nullptr, nullptr, "", -3, ""},
    };
    for (const auto &m : misses) {
        SCOPED_TRACE(std::string(m.item != nullptr ? m.item : "(null)") + " in " +
                     (m.group != nullptr ? m.group : "(null)"));
        CaptureOutput rule_err(STDERR_FILENO);
        EXPECT_EQ(get_cfg_item_rule_by_group_name(m.handle, m.item, m.group), nullptr);
        EXPECT_EQ(rule_err.text(), m.rule_err);
        CaptureOutput type_err(STDERR_FILENO);
        EXPECT_EQ(get_cfg_item_type_by_group_name(m.handle, m.item, m.group), m.type);
        EXPECT_EQ(type_err.text(), m.type_err);
    }
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    EXPECT_EQ(get_cfg_item_type_by_group_name(r, "name", "sys_device"), -2);
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    EXPECT_EQ(get_cfg_item_rule_by_group_name(r, "name", "sys_device"), nullptr);

    // Indexes are stripped from the element path: the first element of a list
    // or of the VAPs describes them all.
    sandbox.write(
        "/tmp/defs.xml",
        "<qorconfig><mgmt><accounts><account user=\"U|&amp;|int|&amp;|R0\"/>"
        "<account user=\"U|&amp;|mac|&amp;|R1\"/></accounts></mgmt><wlan><rf1>"
        "<vap ssid=\"S|&amp;|ip|&amp;|S0\"/><vap ssid=\"S|&amp;|mac|&amp;|S1\"/></rf1></wlan>"
        "</qorconfig>");
    Handle crafted = open(init_qorcfg_f("/tmp/defs.xml"));
    ASSERT_NE(crafted, nullptr);
    EXPECT_EQ(
        take(get_cfg_item_rule_by_group_name(crafted.get(), "account:1.user", "mgmt_accounts")),
        "R0");
    EXPECT_EQ(get_cfg_item_type_by_group_name(crafted.get(), "account:1.user", "mgmt_accounts"), 0);
    EXPECT_EQ(take(get_cfg_item_rule_by_group_name(crafted.get(), "ssid", "rf1_vap2")), "S0");
    EXPECT_EQ(get_cfg_item_type_by_group_name(crafted.get(), "ssid", "rf1_vap2"), 3);
}

// ---- the daemon --------------------------------------------------------------------

using qorcfg::test::be32;
using qorcfg::test::FakeDaemon;
using qorcfg::test::header;
using qorcfg::test::index_record;
using qorcfg::test::kEnd;
using qorcfg::test::request;
using qorcfg::test::text_record;

std::string item_reply(const std::string &value) {
    return header(0, 0) + text_record(3, "item") + text_record(4, value) + kEnd;
}

TEST_F(LookupTest, WithoutDaemonNetworkHandlesFallBackToTheFile) {
    char v[QORCFG_VALUE_SIZE];
    EXPECT_EQ(get_cfg_item_daemon(config_ram, kSysDevice, "name", v), -10003);
    EXPECT_EQ(get_cfg_item_by_str_daemon(config_ram, "sys_device", "name", v), -10003);
    EXPECT_EQ(
        get_cfg_item_by_all_args_daemon(config_ram, -1, "sys_device", "system.device", "name", v),
        -10003);
    qorcfg_daemon_request req{};
    qorcfg_attr *list = nullptr;
    EXPECT_EQ(get_attr_from_daemon(req, &list), -10003);
    EXPECT_EQ(list, nullptr);

    const struct {
        std::function<qorcfg_handle *()> open;
        std::function<int(qorcfg_handle *, char *)> read;
        const char *value, *top;
    } forms[] = {
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
    for (size_t i = 0; i < std::size(forms); ++i) {
        SCOPED_TRACE("form " + std::to_string(i));
        set_all_net_qorcfg_mode(1);
        Handle h = open(forms[i].open());
        ASSERT_EQ(is_net_cfg(h.get()), 1);
        expect_read(run([&](char *o) { return forms[i].read(h.get(), o); }), 0, forms[i].value, "");
        EXPECT_EQ(is_net_cfg(h.get()), 0);
        ASSERT_NE(h->xml, nullptr);
        EXPECT_STREQ(h->xml->name, forms[i].top);
        EXPECT_EQ(get_net_qorcfg(0), 0);
        EXPECT_EQ(get_net_qorcfg(1), 0);
    }

    set_all_net_qorcfg_mode(1);
    Handle net = open(init_qorcfg());
    expect_read(run([&](char *o) { return test_daemon_work(net.get(), kSysDevice, "name", o); }),
                -10003, "", "");
    EXPECT_EQ(is_net_cfg(net.get()), 1);  // only asks; never reads the file
    Handle file = local();
    expect_read(run([&](char *o) { return test_daemon_work(file.get(), kSysDevice, "name", o); }),
                -1, "", "");
    expect_read(run([](char *o) { return test_daemon_work(nullptr, kSysDevice, "name", o); }), -1,
                "", "");
}

TEST_F(LookupTest, DaemonRequestsCarryEveryFieldAtItsOffset) {
    FakeDaemon daemon(std::vector<std::string>(8, item_reply("from-daemon")));
    ASSERT_TRUE(daemon.ok());
    const std::function<int(char *)> queries[] = {
        [](char *v) { return get_cfg_item_daemon(config_ram, kSysDevice, "name", v); },
        [](char *v) { return get_cfg_item_by_str_daemon(current_config, "sys_device", "name", v); },
        [](char *v) {
            return get_cfg_item_by_all_args_daemon(config_ram, -1, "mgmt_accounts", "mgmt.accounts",
                                                   "account:1.user", v);
        },
        [](char *v) {
            return get_cfg_item_by_all_args_daemon(config_ram, 0x18080000, "qorconfig",
                                                   "mgmt.accounts", "max", v);
        },
        [](char *v) {
            Handle h(init_qorcfg(), &close_qorcfg);
            return get_cfg_item(h.get(), 0xF0000000u, "x", v);
        },
        [](char *v) {
            Handle h(init_qorcfg_f(current_config), &close_qorcfg);
            return get_cfg_item_by_str(h.get(), "rf1_vap2", "ssid", v);
        },
        [](char *v) {
            Handle h(init_qorcfg(), &close_qorcfg);
            return test_daemon_work(h.get(), kSysDevice, "desc", v);
        },
    };
    for (const auto &query : queries)
        expect_read(run(query), 0, "from-daemon", "");
    const std::string expected[] = {
        request(2, config_ram, "name", "", "", static_cast<int32_t>(kSysDevice)),
        request(3, current_config, "name", "sys_device", "", -1),
        request(6, config_ram, "account:1.user", "mgmt_accounts", "mgmt.accounts", -1),
        request(5, config_ram, "max", "qorconfig", "mgmt.accounts", 0x18080000),
        request(2, config_ram, "x", "", "", static_cast<int32_t>(0xF0000000u)),
        request(3, current_config, "ssid", "rf1_vap2", "", -1),
        request(2, config_ram, "desc", "", "", static_cast<int32_t>(kSysDevice)),
    };
    const std::vector<std::string> got = daemon.stop();
    ASSERT_EQ(got.size(), std::size(expected));
    for (size_t i = 0; i < got.size(); ++i) {
        SCOPED_TRACE("request " + std::to_string(i));
        ASSERT_EQ(got[i].size(), expected[i].size());
        for (size_t b = 0; b < got[i].size(); ++b)
            ASSERT_EQ(got[i][b], expected[i][b]) << "byte " << b;
    }
}

TEST_F(LookupTest, DaemonAnswersAreFinal) {
    FakeDaemon daemon({item_reply("from-daemon"), header(0, -4) + kEnd, item_reply("sub"),
                       item_reply("by-path"), header(0, 0) + kEnd, header(0, 0) + kEnd});
    ASSERT_TRUE(daemon.ok());
    Handle net = open(init_qorcfg());
    Handle sub = open(init_sub_qorcfg("sys_device", 0, config_ram));
    qorcfg_handle *n = net.get();
    qorcfg_handle *s = sub.get();
    expect_read(run([&](char *v) { return get_cfg_item(n, kSysDevice, "name", v); }), 0,
                "from-daemon", "");
    // The file has this item, yet the daemon's "not found" is the answer.
    expect_read(run([&](char *v) { return get_cfg_item(n, kSysDevice, "name", v); }), -4, "", "");
    expect_read(run([&](char *v) { return get_cfg_item_s(s, kSysDevice, "name", v); }), 0, "sub",
                "");
    expect_read(run([&](char *v) {
                    return get_cfg_item_by_path_gid_s(s, "sys_device", "system.device", "name", v);
                }),
                0, "by-path", "");
    // Success without a record leaves the buffer as the caller set it.
    expect_read(run([](char *v) { return get_cfg_item_daemon(config_ram, kSysDevice, "name", v); }),
                0, "junk", "");
    expect_read(run([&](char *v) { return get_cfg_item(n, kSysDevice, "name", v); }), 0, "", "");
    EXPECT_EQ(is_net_cfg(n), 1);
    EXPECT_EQ(is_net_cfg(s), 1);
    EXPECT_EQ(get_net_qorcfg(0), 1);
    EXPECT_EQ(daemon.stop().size(), 6u);
}

TEST_F(LookupTest, DaemonReplyDecodesIntoRecordsAndTransportFailuresAreCodes) {
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

    const struct {
        Call call;
        int rc;
    } faults[] = {{Call::socket, -10002},
                  {Call::connect, -10003},
                  {Call::send, -10004},
                  {Call::recv, -10005}};
    FakeDaemon answering(std::vector<std::string>(8, item_reply("from-daemon")));
    ASSERT_TRUE(answering.ok());
    for (const auto &f : faults) {
        SCOPED_TRACE(f.rc);
        qorcfg::os::fail_nth(f.call, 1, EIO);
        expect_read(
            run([](char *v) { return get_cfg_item_daemon(config_ram, kSysDevice, "name", v); }),
            f.rc, "junk", "");
        set_all_net_qorcfg_mode(1);
        Handle net = open(init_qorcfg());
        qorcfg::os::fail_nth(f.call, 1, EIO);
        expect_read(run([&](char *v) { return get_cfg_item(net.get(), kSysDevice, "name", v); }), 0,
                    "AP-Lab-01", "");
        EXPECT_EQ(is_net_cfg(net.get()), 0);
    }
    answering.stop();
}

}  // namespace
