// tests/store/attr_list_test.cpp - attribute lists: the walk's visiting order,
// reported indexes and skipped sub-elements, the group-ID, group-name and
// prefix readers with their flags and sub-paths, the daemon-first forms with
// their requests, chunked replies and fallbacks, deep walks, allocation
// failures and freeing.
#include <type_traits>

#include "tests/support/daemon_wire.h"
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;
using Read = std::function<qorcfg_attr *(qorcfg_handle *)>;

constexpr uint32_t kAccounts = 0x18080000;  // mgmt_accounts: qorconfig.mgmt.accounts
constexpr uint32_t kLanDhcp = 0x10200400;   // lan_dhcp: qorconfig.network.lan.dhcp
constexpr uint32_t kRf1 = 0x20800000;       // rf1: qorconfig.wlan.rf1
constexpr uint32_t kRf1Vap1 = 0x20884000;   // rf1_vap1: qorconfig.wlan.rf1.vap:0
constexpr uint32_t kSyslog = 0x18100000;    // syslog: qorconfig.mgmt.syslog

// Group elements sit at their group-table paths. Under accounts: "sess" is
// not a group, but its path is part of "qorconfig.mgmt.accounts.session";
// "x:5" ends in a colon and digits, "x:y" does not.
const char kConfig[] = R"(<qorconfig version="1.10.01" devtype="AP" extra="x">
<network><lan ip="192.168.1.1"><dhcp state="enable" max="32" cur_num="3">
<static mac="m0" ip="i0"><opt k="a"/></static><static mac="m1" ip="i1"/><static mac="m2" ip="i2"/>
</dhcp></lan></network>
<mgmt><accounts max="8" cur_num="2">
<account user="admin" level="1"><key id="k0"/><key id="k1"/></account>
<banner text="hi"/>
<account user="operator" level="2"><key id="k2"/><x:5 a="5"/></account>
<x:y a="xy"/>
<sess t="1"><deep d="1"/></sess>
<session timeout="600"><inner i="1"/></session>
<password min_len="8"></password>
</accounts><syslog state="enable" level="6"></syslog></mgmt>
<wlan><rf1 state="enable" channel="6"><ht mode="20"/>
<vap ssid="Lab-Corp" vlan="10"><macacl policy="disable"><entry mac="e0"/></macacl><security mode="wpa2"></security></vap>
<vap ssid="Lab-Guest" vlan="20"><iapp state="disable"></iapp></vap>
<antenna gain="3"/>
</rf1></wlan>
</qorconfig>
)";

Attrs cat(Attrs a, const Attrs &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
const Attrs kRoot = {{"version", "1.10.01", -1}, {"devtype", "AP", -1}};
const Attrs kOwn = {{"max", "8", -1}, {"cur_num", "2", -1}};
const Attrs kWalkedChildren = {{"user", "admin", 0}, {"level", "1", 0},       {"id", "k0", 0},
                               {"id", "k1", 1},      {"user", "operator", 1}, {"level", "2", 1},
                               {"id", "k2", -1},     {"text", "hi", -1},      {"a", "xy", -1}};
const Attrs kWalk = cat(kOwn, kWalkedChildren);
const Attrs kAdmin = {{"user", "admin", -1}, {"level", "1", -1}};
const Attrs kStatics = {{"mac", "m0", -1}, {"ip", "i0", -1}, {"k", "a", -1}, {"mac", "m1", 0},
                        {"ip", "i1", 0},   {"mac", "m2", 1}, {"ip", "i2", 1}};
const Attrs kDhcp = {{"state", "enable", -1}, {"max", "32", -1}, {"cur_num", "3", -1},
                     {"mac", "m0", 0},        {"ip", "i0", 0},   {"k", "a", -1},
                     {"mac", "m1", 1},        {"ip", "i1", 1},   {"mac", "m2", 2},
                     {"ip", "i2", 2}};
const Attrs kStatic1 = {{"mac", "m1", -1}, {"ip", "i1", -1}};
const Attrs kOperatorKeys = {{"user", "operator", -1}, {"level", "2", -1}, {"id", "k2", -1}};
const Attrs kAdminKeys = cat(kAdmin, {{"id", "k0", 0}, {"id", "k1", 1}});
const Attrs kFromDaemon = {{"ssid", "Lab-Corp", 0}, {"vlan", "10", -1}};

// A reader bound to its arguments (converted to the parameter types), for tables.
template <class... A>
Read call(qorcfg_attr *(*read)(qorcfg_handle *, A...), std::type_identity_t<A>... args) {
    return [=](qorcfg_handle *h) { return read(h, args...); };
}
namespace rd {
constexpr auto gid_f = &get_attr_list_by_gid_direct_f;
constexpr auto gid_d = &get_attr_list_by_gid_direct;
constexpr auto name_f = &get_attr_list_by_group_name_direct_f;
constexpr auto name_d = &get_attr_list_by_group_name_direct;
constexpr auto prefix_f = &get_attr_list_by_prefix_direct_f;
constexpr auto prefix_d = &get_attr_list_by_prefix_direct;
constexpr auto gid = &get_attr_list_by_gid;
constexpr auto gid_s = &get_attr_list_by_gid_s;
constexpr auto name = &get_attr_list_by_group_name;
constexpr auto name_s = &get_attr_list_by_group_name_s;
constexpr auto prefix = &get_attr_list_by_prefix;
constexpr auto prefix_s = &get_attr_list_by_prefix_s;
}  // namespace rd

// ---- the daemon's byte formats ----------------------------------------------------

std::string rec(const std::string &name, const std::string &value, int32_t index = -1) {
    return text_record(3, name) + text_record(4, value) + (index == -1 ? "" : index_record(index));
}
const std::vector<std::string> kDaemonReply = {header(0, 0) + rec("ssid", "Lab-Corp", 0) +
                                               rec("vlan", "10") + kEnd};
// The 1,011 bytes of a list request (the item field stays empty).
std::string request(uint32_t code, const std::string &file, const std::string &name,
                    const std::string &path, int32_t gid) {
    return qorcfg::test::request(code, file, "", name, path, gid);
}

class AttrListTest : public SandboxTest {
protected:
    void SetUp() override {
        setenv("QORCFG_PRINT_ERR", "1", 1);
        sandbox.write(config_ram, kConfig);
        sandbox.write(config_rom, kConfig);
    }
    void TearDown() override { qorcfg::os::reset_faults(); }
    // A handle on the parsed working copy.
    Handle local() {
        set_all_net_qorcfg_mode(0);
        return Handle(init_qorcfg(), &close_qorcfg);
    }
    // A network-mode handle on the working copy.
    Handle net() {
        set_all_net_qorcfg_mode(1);
        Handle h(init_qorcfg(), &close_qorcfg);
        EXPECT_EQ(is_net_cfg(h.get()), 1);
        return h;
    }
};

struct Case {
    const char *what;
    Read read;
    Attrs want;
};
void expect_cases(qorcfg_handle *h, const std::vector<Case> &cases) {
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(attrs(c.read(h)), c.want);
    }
}

// ---- local reads ------------------------------------------------------------------

// The walk visits children, then same-name elements, then siblings, and
// skips the elements of other groups; flags, sub-paths and the root forms
// follow each reader.
TEST_F(AttrListTest, WalkFlagsSubPathsAndRootFormsFollowEachReader) {
    Handle h = local();
    Handle sub(init_sub_qorcfg("mgmt_accounts", 0, config_rom), &close_qorcfg);
    ASSERT_NE(h, nullptr);
    ASSERT_NE(sub, nullptr);
    ASSERT_STREQ(sub->xml->name, "accounts");
    const Attrs rf1 = {{"state", "enable", -1}, {"channel", "6", -1}, {"mode", "20", -1}};
    const std::vector<Case> cases = {
        // "session" (a group), "sess" (inside a group's path) and "x:5" (a colon and
        // digits) are left out with everything below them; "x:y" is kept.
        {"accounts", call(rd::gid_f, kAccounts, nullptr, 0), kWalk},
        {"dhcp", call(rd::gid_f, kLanDhcp, nullptr, 0), kDhcp},
        // "qorconfig.wlan.rf1.vap" lies inside the VAP groups' paths: the VAPs are left
        // out, and with them what follows them ("antenna").
        {"rf1", call(rd::gid_f, kRf1, nullptr, 0), rf1},
        {"rf1_vap1",
         call(rd::gid_f, kRf1Vap1, nullptr, 0),
         {{"ssid", "Lab-Corp", -1}, {"vlan", "10", -1}}},
        {"rf1_vap1_security",
         call(rd::gid_f, kRf1Vap1 + 0x800, nullptr, 0),
         {{"mode", "wpa2", -1}}},
        // Started at the first of several: it reports -1 and the next ones count from 0,
        // so the second of two reports -1 as well.
        {"static", call(rd::prefix_f, "lan_dhcp", "static", 0), kStatics},
        {"account", call(rd::prefix_f, "mgmt_accounts", "account", 0),
         cat(kAdminKeys, kOperatorKeys)},
        // An indexed start: the same-name elements after it are skipped.
        {"static:1", call(rd::prefix_f, "lan_dhcp", "static:1", 0), kStatic1},
        {"qorconfig, static:1", call(rd::prefix_f, "qorconfig", "network.lan.dhcp.static:1", 0),
         kStatic1},
        {"path prefix", call(rd::prefix_f, "qorconfig.mgmt", "accounts", 0), kWalk},
        {"qorconfig prefix",
         call(rd::prefix_f, "qorconfig", "mgmt.syslog", 1),
         {{"state", "enable", -1}, {"level", "6", -1}}},
        {"gid flags 0", call(rd::gid_f, kAccounts, nullptr, 0), kWalk},
        {"gid flags 4", call(rd::gid_f, kAccounts, nullptr, 4), kOwn},
        // The group-name reader keeps only bit value 1 of the flags.
        {"name", call(rd::name_d, "mgmt_accounts", nullptr), kOwn},
        {"name flags 0", call(rd::name_f, "mgmt_accounts", nullptr, 0), kWalk},
        {"name flags 4", call(rd::name_f, "mgmt_accounts", nullptr, 4), kWalk},
        {"name flags 5", call(rd::name_f, "mgmt_accounts", nullptr, 5), kOwn},
        // The gid reader puts sub below the root element, the name reader below the
        // group; the start prefix is the group's path either way.
        {"gid sub", call(rd::gid_f, kAccounts, "mgmt.accounts.account", 0), kAdminKeys},
        {"gid sub below group", call(rd::gid_f, kAccounts, "account", 0), {}},
        {"name sub", call(rd::name_d, "mgmt_accounts", "account"), kAdmin},
        {"name sub flags 0", call(rd::name_f, "mgmt_accounts", "account", 0), kAdminKeys},
        {"name sub below root", call(rd::name_d, "mgmt_accounts", "mgmt.accounts.account"), {}},
        // The plain prefix reader is the group-name reader with flags -1.
        {"prefix crossed", call(rd::prefix_d, "mgmt_accounts", "account"), kAdmin},
        {"prefix crossed, path", call(rd::prefix_d, "qorconfig.mgmt", "accounts"), {}},
        {"prefix crossed, 0x0", call(rd::prefix_d, "0x0", nullptr), kRoot},
        {"prefix_f 0x0", call(rd::prefix_f, "0x0", "mgmt", 0), {}},
        {"prefix_f no sub", call(rd::prefix_f, "qorconfig.mgmt.accounts", nullptr, 1), kOwn},
        {"prefix_f path not a group",
         call(rd::prefix_f, "qorconfig.network.lan", "dhcp.static:1", 0),
         {}},
        // The root's first two attributes, in document order, whatever sub and flags.
        {"gid 0", call(rd::gid_d, 0, nullptr), kRoot},
        {"gid 0 sub", call(rd::gid_f, 0, "mgmt", 1), kRoot},
        {"name 0", call(rd::name_d, "0", nullptr), kRoot},
        {"name 0x0", call(rd::name_f, "0x0", "x", 0), kRoot},
    };
    expect_cases(h.get(), cases);

    // Flags bit value 2 (flags -1 included): the walk starts at the handle's root element
    // and sub is not used; without it, element paths start at the handle's root element.
    const std::vector<Case> sub_cases = {
        {"bit 2", call(rd::gid_f, kAccounts, "nope", 2), kOwn},
        {"gid_d", call(rd::gid_d, kAccounts, nullptr), kWalk},
        {"prefix_f -1", call(rd::prefix_f, "qorconfig.mgmt", "accounts", -1), kWalk},
        {"name_d", call(rd::name_d, "mgmt_accounts", nullptr), kOwn},
        {"group path", call(rd::gid_f, kAccounts, nullptr, 0), {}},
        {"sub", call(rd::gid_f, kAccounts, "account:1", 0), kOperatorKeys}};
    expect_cases(sub.get(), sub_cases);
    sandbox.write("/tmp/tiny.xml",
                  "<qorconfig version=\"1\" devtype=\"AP\"><mgmt><syslog "
                  "state=\"on\"><x a=\"1\"/></syslog></mgmt></qorconfig>\n");
    Handle tiny(init_qorcfg_f("/tmp/tiny.xml"), &close_qorcfg);
    ASSERT_NE(tiny, nullptr);
    const Attrs tiny_root = {
        {"version", "1", -1}, {"devtype", "AP", -1}, {"state", "on", -1}, {"a", "1", -1}};
    expect_cases(
        tiny.get(),
        {{"gid_d", call(rd::gid_d, kSyslog, "nope"), tiny_root},
         {"prefix_f -1", call(rd::prefix_f, "qorconfig", "mgmt.syslog", -1), tiny_root},
         {"gid_f 0", call(rd::gid_f, kSyslog, nullptr, 0), {{"state", "on", -1}, {"a", "1", -1}}}});

    // A network-mode handle is switched first: to the group's sub-tree, or (group-name
    // reader without sub) to the whole configuration.
    const struct {
        Case c;
        const char *root;
    } switching[] = {
        {{"gid", call(rd::gid_f, kAccounts, nullptr, 3), kOwn}, "accounts"},
        {{"gid_d", call(rd::gid_d, kAccounts, "nope"), kWalk}, "accounts"},
        {{"prefix", call(rd::prefix_f, "qorconfig.mgmt", "accounts", 2), kOwn}, "accounts"},
        {{"name_d", call(rd::name_d, "mgmt_accounts", nullptr), kOwn}, "qorconfig"},
    };
    for (const auto &s : switching) {
        SCOPED_TRACE(s.c.what);
        Handle n = net();
        EXPECT_EQ(attrs(s.c.read(n.get())), s.c.want);
        EXPECT_EQ(is_net_cfg(n.get()), 0);
        ASSERT_NE(n->xml, nullptr);
        EXPECT_STREQ(n->xml->name, s.root);
    }
}

TEST_F(AttrListTest, WalksDeeperThanAHundredLevelsGrowTheStack) {
    constexpr int kDepth = 160;  // every level leaves its sibling on the stack
    std::string doc = "<qorconfig version=\"1\" devtype=\"AP\"><mgmt><syslog state=\"on\">";
    Attrs want = {{"state", "on", -1}};
    for (int i = 0; i < kDepth; ++i) {
        doc += "<node i=\"" + std::to_string(i) + "\">";
        want.emplace_back("i", std::to_string(i), -1);
    }
    for (int i = kDepth - 1; i >= 0; --i) {
        doc += "<leaf j=\"" + std::to_string(i) + "\"/></node>";
        want.emplace_back("j", std::to_string(i), -1);
    }
    sandbox.write(config_ram, doc + "</syslog></mgmt></qorconfig>\n");
    Handle h = local();
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(attrs(get_attr_list_by_gid_direct_f(h.get(), kSyslog, nullptr, 0)), want);
    EXPECT_EQ(attrs(get_attr_list_by_gid_direct_f(h.get(), kSyslog, nullptr, 1)),
              (Attrs{{"state", "on", -1}}));
}

TEST_F(AttrListTest, FailuresGiveNullWithoutMessages) {
    Handle h = local();
    qorcfg_handle empty{};
    const std::string deep(3000, 'd');
    const struct {
        const char *what;
        qorcfg_handle *handle;
        Read read;
    } cases[] = {
        {"gid unknown", h.get(), call(rd::gid_d, 0xF0000000u, nullptr)},
        {"gid not in document", h.get(), call(rd::gid_f, kRf1Vap1 + 0x8000, nullptr, 0)},
        {"gid bad index", h.get(), call(rd::gid_f, kAccounts, "mgmt.accounts.account:x1", 0)},
        {"gid long sub", h.get(), call(rd::gid_f, kAccounts, deep.c_str(), 0)},
        {"name unknown", h.get(), call(rd::name_d, "no_such", nullptr)},
        {"name 0x00", h.get(), call(rd::name_d, "0x00", nullptr)},
        {"name null", h.get(), call(rd::name_d, nullptr, nullptr)},
        {"name long sub", h.get(), call(rd::name_d, "mgmt_accounts", deep.c_str())},
        {"prefix unknown", h.get(), call(rd::prefix_f, "no_such", "x", 0)},
        {"prefix null", h.get(), call(rd::prefix_f, nullptr, "x", 0)},
        {"prefix no element", h.get(), call(rd::prefix_f, "qorconfig", "mgmt.none", 0)},
        {"gid no tree", &empty, call(rd::gid_d, kAccounts, nullptr)},
        {"name no tree", &empty, call(rd::name_d, "mgmt_accounts", nullptr)},
        {"gid_f", nullptr, call(rd::gid_f, kAccounts, nullptr, 0)},
        {"name_f 0x0", nullptr, call(rd::name_f, "0x0", nullptr, 0)},
        {"prefix_f", nullptr, call(rd::prefix_f, "qorconfig.mgmt", "accounts", 0)},
        {"prefix_d", nullptr, call(rd::prefix_d, "mgmt_accounts", nullptr)},
        {"gid", nullptr, call(rd::gid, kAccounts, nullptr)},
        {"gid_s", nullptr, call(rd::gid_s, kAccounts, nullptr, 0)},
        {"name", nullptr, call(rd::name, "mgmt_accounts", nullptr)},
        {"name_s", nullptr, call(rd::name_s, "mgmt_accounts", nullptr, 0)},
        {"prefix", nullptr, call(rd::prefix, "mgmt_accounts", nullptr)},
        {"prefix_s", nullptr, call(rd::prefix_s, "mgmt_accounts", nullptr, 0)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        CaptureOutput err(STDERR_FILENO);
        qorcfg_attr *list = c.read(c.handle);
        EXPECT_EQ(err.text(), "");
        EXPECT_EQ(list, nullptr);
        free_attr_list(list);
    }
}

// Records come from the failable allocator; a failure gives no list and
// leaks nothing (the asan preset's leak checker sees every block).
TEST_F(AttrListTest, AllocationFailuresGiveNull) {
    Handle h = local();
    for (const Read &read :
         {call(rd::gid_d, kAccounts, nullptr), call(rd::gid_d, 0, nullptr),
          call(rd::name_d, "0x0", nullptr), call(rd::prefix_f, "lan_dhcp", "static", 0)}) {
        const Attrs want = attrs(read(h.get()));
        qorcfg_attr *list = nullptr;
        EXPECT_GE(sweep_allocations([&] { return (list = read(h.get())) != nullptr; }), 1u);
        EXPECT_EQ(attrs(list), want);
    }
    EXPECT_EQ(free_attr_list(nullptr), 0);
    // free_attr_list releases names, values and records, missing texts included.
    qorcfg_attr *list = nullptr;
    for (int i = 0; i < 3; ++i) {
        auto *a = static_cast<qorcfg_attr *>(std::malloc(sizeof(qorcfg_attr)));
        *a = {i == 1 ? nullptr : strdup("name"), i == 2 ? nullptr : strdup("value"), i, list};
        list = a;
    }
    EXPECT_EQ(free_attr_list(list), 0);
}

// ---- the daemon-first forms -------------------------------------------------------

TEST_F(AttrListTest, DaemonFormsSendTheirRequestAndReturnTheReplyAsItStands) {
    FakeDaemon daemon(std::vector<std::vector<std::string>>(9, kDaemonReply));
    ASSERT_TRUE(daemon.ok());
    const std::string ram = config_ram, current = current_config;
    const struct {
        const char *what;
        const std::string &file;
        Read read;
        std::string request;
    } forms[] = {
        {"gid", ram, call(rd::gid, kAccounts, nullptr), request(2, ram, "", "", kAccounts)},
        {"gid empty sub", ram, call(rd::gid, kAccounts, ""), request(2, ram, "", "", kAccounts)},
        {"gid_s sub", ram, call(rd::gid_s, kAccounts, "account:1", 0),
         request(5, ram, "", "account:1", kAccounts)},
        {"gid_s", ram, call(rd::gid_s, kRf1Vap1, nullptr, 1), request(2, ram, "", "", kRf1Vap1)},
        {"name", ram, call(rd::name, "mgmt_accounts", nullptr),
         request(3, ram, "mgmt_accounts", "", -1)},
        {"name_s sub", ram, call(rd::name_s, "rf1_vap1", "security", 0),
         request(6, ram, "rf1_vap1", "security", -1)},
        {"prefix sub", ram, call(rd::prefix, "qorconfig.mgmt", "accounts"),
         request(6, ram, "qorconfig.mgmt", "accounts", -1)},
        {"prefix_s", ram, call(rd::prefix_s, "lan_dhcp", nullptr, 0),
         request(3, ram, "lan_dhcp", "", -1)},
        {"current, gid sub", current, call(rd::gid, kLanDhcp, "static:1"),
         request(5, current, "", "static:1", kLanDhcp)},
    };
    for (const auto &f : forms) {
        SCOPED_TRACE(f.what);
        set_all_net_qorcfg_mode(1);
        Handle h(init_qorcfg_f(f.file.c_str()), &close_qorcfg);
        ASSERT_EQ(is_net_cfg(h.get()), 1);
        EXPECT_EQ(attrs(f.read(h.get())), kFromDaemon);
        EXPECT_EQ(is_net_cfg(h.get()), 1);
    }
    const std::vector<std::string> got = daemon.stop();
    ASSERT_EQ(got.size(), std::size(forms));
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_EQ(got[i], forms[i].request) << forms[i].what;
}

TEST_F(AttrListTest, ChunkedRepliesAreJoinedAndAnEmptyChunkDropsEverything) {
    const std::string first = header(2, 0) + rec("ssid", "Lab-Corp", 0);
    const std::vector<std::vector<std::string>> replies = {
        {first + rec("vlan", "10") + kEnd, rec("ssid", "Lab-Guest", 1) + rec("vlan", "20") + kEnd,
         header(0, 0) + rec("state", "enable") + kEnd},
        {first + kEnd, kEnd},
        {first + kEnd, kEnd},
        // Without the flag a reply is one chunk, whatever follows.
        {header(0, 0) + rec("ssid", "Lab-Corp", 0) + kEnd, rec("vlan", "10") + kEnd},
    };
    FakeDaemon daemon(replies);
    ASSERT_TRUE(daemon.ok());
    const Attrs joined =
        cat(kFromDaemon, {{"ssid", "Lab-Guest", 1}, {"vlan", "20", -1}, {"state", "enable", -1}});
    const struct {
        Case c;
        int net_after;
    } cases[] = {
        {{"three chunks", call(rd::gid, kAccounts, nullptr), joined}, 1},
        {{"empty second chunk", call(rd::gid, kAccounts, nullptr), {}}, 1},
        {{"empty second chunk, by name", call(rd::name, "mgmt_accounts", nullptr), kOwn}, 0},
        {{"one chunk", call(rd::gid, kAccounts, nullptr), {{"ssid", "Lab-Corp", 0}}}, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.c.what);
        Handle h = net();
        EXPECT_EQ(attrs(c.c.read(h.get())), c.c.want);
        EXPECT_EQ(is_net_cfg(h.get()), c.net_after);
    }
    EXPECT_EQ(daemon.stop().size(), replies.size());
}

TEST_F(AttrListTest, FallbacksDependOnTheFormAndTheCode) {
    const Read gid = call(rd::gid, kAccounts, nullptr);
    const Read gid_s = call(rd::gid_s, kAccounts, nullptr, 0);
    const Read name = call(rd::name, "mgmt_accounts", nullptr);
    const Read name_s = call(rd::name_s, "mgmt_accounts", nullptr, 0);
    const Read prefix = call(rd::prefix, "mgmt_accounts", "account");
    const Read prefix_s = call(rd::prefix_s, "qorconfig.mgmt", "accounts", 0);
    // Local gid reads (flags -1) of the whole configuration start at its root element.
    Attrs whole;
    {
        Handle l = local();
        whole = attrs(get_attr_list_by_gid_direct(l.get(), kAccounts, nullptr));
        ASSERT_GT(whole.size(), kWalk.size() + 3);
        ASSERT_EQ(Attrs(whole.begin(), whole.begin() + 3), cat(kRoot, {{"extra", "x", -1}}));
    }
    struct Row {
        Case c;
        const char *root;  // the handle's root element afterwards; null: none
    };
    const auto check = [&](const Row &r, bool stays_net) {
        SCOPED_TRACE(r.c.what);
        Handle h = net();
        EXPECT_EQ(attrs(r.c.read(h.get())), r.c.want);
        EXPECT_EQ(is_net_cfg(h.get()), stays_net ? 1 : 0);
        EXPECT_EQ(get_net_qorcfg(0), stays_net ? 1 : 0);
        if (!stays_net) {
            ASSERT_EQ(h->xml == nullptr, r.root == nullptr);
            if (r.root != nullptr) {
                EXPECT_STREQ(h->xml->name, r.root);
            }
        }
    };

    // No daemon listens (-10003).
    const Row unreachable[] = {
        {{"gid", gid, whole}, "qorconfig"},
        {{"gid sub", call(rd::gid, kAccounts, "mgmt.accounts.account"), whole}, "qorconfig"},
        {{"name", name, kOwn}, "qorconfig"},
        {{"prefix: the name reader", prefix, kAdmin}, "qorconfig"},
        {{"prefix path: the name reader", call(rd::prefix, "qorconfig.mgmt", "accounts"), {}},
         "qorconfig"},
        {{"gid_s: sub-tree, bit 2", call(rd::gid_s, kAccounts, "account:1", 0), kOwn}, "accounts"},
        {{"gid_s 0", call(rd::gid_s, 0, nullptr, 0), kRoot}, "qorconfig"},
        {{"name_s flags 0", name_s, kWalk}, "accounts"},
        {{"name_s flags 1", call(rd::name_s, "mgmt_accounts", nullptr, 1), kOwn}, "accounts"},
        {{"name_s sub: no such group", call(rd::name_s, "mgmt_accounts", "account", 0), {}},
         nullptr},
        {{"name_s 0x0", call(rd::name_s, "0x0", nullptr, 0), kRoot}, "qorconfig"},
        {{"prefix_s", prefix_s, kOwn}, "accounts"},
        {{"prefix_s 0", call(rd::prefix_s, "0", nullptr, 0), {}}, "qorconfig"},
    };
    for (const Row &r : unreachable)
        check(r, false);

    // The daemon answers without records: only the group-name form reads the file.
    const struct {
        int32_t code;
        Row row;
    } answered[] = {
        {-3, {{"gid", gid, {}}, nullptr}},           {0, {{"prefix", prefix, {}}, nullptr}},
        {-4, {{"gid_s", gid_s, {}}, nullptr}},       {-1, {{"name_s", name_s, {}}, nullptr}},
        {-3, {{"prefix_s", prefix_s, {}}, nullptr}}, {-3, {{"name", name, kOwn}, "qorconfig"}},
        {0, {{"name", name, kOwn}, "qorconfig"}},
    };
    std::vector<std::vector<std::string>> replies;
    for (const auto &a : answered)
        replies.push_back({header(0, a.code) + kEnd});
    replies.push_back(kDaemonReply);                 // for the failing receive below
    replies.insert(replies.end(), 6, kDaemonReply);  // spare: local handles must not ask
    FakeDaemon daemon(replies);
    ASSERT_TRUE(daemon.ok());
    for (const auto &a : answered)
        check(a.row, a.row.root == nullptr);

    // A failed receive is a transport failure (-10005), whatever the daemon sent.
    qorcfg::os::fail_nth(Call::recv, 1, EIO);
    check({{"gid, receive fails", gid, whole}, "qorconfig"}, false);
    qorcfg::os::reset_faults();

    // Handles not in network mode read locally at once, with the caller's flags.
    Handle h = local();
    expect_cases(h.get(), {{"gid", gid, whole},
                           {"gid_s", gid_s, kWalk},
                           {"name", name, kOwn},
                           {"name_s", name_s, kWalk},
                           {"prefix", prefix, kAdmin},
                           {"prefix_s", prefix_s, kWalk}});
    EXPECT_EQ(daemon.stop().size(), std::size(answered) + 1);
}

}  // namespace
