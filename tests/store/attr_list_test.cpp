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
using Reader = std::function<qorcfg_attr *(qorcfg_handle *)>;

constexpr uint32_t kAccounts = 0x18080000;  // mgmt_accounts: qorconfig.mgmt.accounts
constexpr uint32_t kLanDhcp = 0x10200400;   // lan_dhcp: qorconfig.network.lan.dhcp
constexpr uint32_t kSyslog = 0x18100000;    // syslog: qorconfig.mgmt.syslog
constexpr uint32_t kRf1 = 0x20800000;       // rf1: not in the document

// Group elements sit at their group-table paths. Under accounts: "session" is a group,
// "sess" is not, but its path is part of "qorconfig.mgmt.accounts.session"; "x:5" ends in a
// colon and digits, "x:y" does not; "password" follows a skipped element.
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
</qorconfig>
)";

Attrs cat(Attrs a, const Attrs &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
const Attrs kRoot = {{"version", "1.10.01", -1}, {"devtype", "AP", -1}};
const Attrs kOwn = {{"max", "8", -1}, {"cur_num", "2", -1}};
// The accounts' own attributes, then children first, then same-name elements, then siblings;
// what follows a skipped element under the same parent is left out with it.
const Attrs kWalk = {{"max", "8", -1},        {"cur_num", "2", -1}, {"user", "admin", 0},
                     {"level", "1", 0},       {"id", "k0", 0},      {"id", "k1", 1},
                     {"user", "operator", 1}, {"level", "2", 1},    {"id", "k2", -1},
                     {"text", "hi", -1},      {"a", "xy", -1}};
const Attrs kAdmin = {{"user", "admin", -1}, {"level", "1", -1}};
const Attrs kAdminKeys = cat(kAdmin, {{"id", "k0", 0}, {"id", "k1", 1}});
const Attrs kOperatorKeys = {{"user", "operator", -1}, {"level", "2", -1}, {"id", "k2", -1}};
// The statics under lan_dhcp, walked from the first.
const Attrs kStatics = {{"mac", "m0", -1}, {"ip", "i0", -1}, {"k", "a", -1}, {"mac", "m1", 0},
                        {"ip", "i1", 0},   {"mac", "m2", 1}, {"ip", "i2", 1}};
const Attrs kStatic1 = {{"mac", "m1", -1}, {"ip", "i1", -1}};
const Attrs kFromDaemon = {{"ssid", "Lab-Corp", 0}, {"vlan", "10", -1}};

// A reader bound to its arguments (converted to the parameter types), for tables.
template <class... A>
Reader call(qorcfg_attr *(*read)(qorcfg_handle *, A...), std::type_identity_t<A>... args) {
    return [=](qorcfg_handle *h) { return read(h, args...); };
}
namespace rd {  // the readers by short name
constexpr auto gid_f = &get_attr_list_by_gid_direct_f, gid_s = &get_attr_list_by_gid_s;
constexpr auto gid_d = &get_attr_list_by_gid_direct, gid = &get_attr_list_by_gid;
constexpr auto name_f = &get_attr_list_by_group_name_direct_f,
               name_s = &get_attr_list_by_group_name_s,
               prefix_f = &get_attr_list_by_prefix_direct_f, prefix_s = &get_attr_list_by_prefix_s;
constexpr auto name_d = &get_attr_list_by_group_name_direct, name = &get_attr_list_by_group_name,
               prefix_d = &get_attr_list_by_prefix_direct, prefix = &get_attr_list_by_prefix;
}  // namespace rd

// What is read, the reader and the list it gives.
using Case = std::tuple<const char *, Reader, Attrs>;
void expect_cases(qorcfg_handle *h, const std::vector<Case> &cases) {
    for (const auto &[what, read, want] : cases)
        EXPECT_EQ(attrs(read(h)), want) << what;
}
// A read with a fresh network-mode handle, and the handle's root element afterwards (null: no
// tree; "net": still in network mode).
void expect_net(const Case &c, const char *root) {
    const auto &[what, read, want] = c;
    Handle h = open_net();
    EXPECT_EQ(attrs(read(h.get())), want) << what;
    const bool net = std::string(root ? root : "") == "net";
    EXPECT_EQ(is_net_cfg(h.get()) + get_net_qorcfg(0), net ? 2 : 0) << what;
    EXPECT_STREQ(net ? "net" : h->xml ? h->xml->name : nullptr, root) << what;
}

// ---- the daemon's byte formats ----------------------------------------------------

std::string rec(const std::string &name, const std::string &value, int32_t index = -1) {
    return text_record(3, name) + text_record(4, value) + (index == -1 ? "" : index_record(index));
}
const std::vector<std::string> kDaemonReply = {header(0, 0) + rec("ssid", "Lab-Corp", 0) +
                                               rec("vlan", "10") + kEnd};

class AttrListTest : public StoreTest {
protected:
    void SetUp() override {
        sandbox.write(config_ram, kConfig);
        sandbox.write(config_rom, kConfig);
    }
};

// ---- local reads ------------------------------------------------------------------

// The walk visits children, then same-name elements, then siblings, and skips the
// elements of other groups; flags, sub-paths and the root forms follow each reader.
TEST_F(AttrListTest, WalkFlagsSubPathsAndRootFormsFollowEachReader) {
    Handle h = open_file(config_ram);
    ASSERT_NE(h, nullptr);
    expect_cases(
        h.get(),
        {
            // "session" (a group), "sess" (inside a group's path) and "x:5" (a colon and
            // digits) are left out with everything below and after them; "x:y" is kept.
            {"accounts", call(rd::gid_f, kAccounts, nullptr, 0), kWalk},
            // Started at the first of several: it reports -1 and the next ones count from 0;
            // an indexed start skips the same-name elements after it.
            {"static", call(rd::prefix_f, "lan_dhcp", "static", 0), kStatics},
            {"static:1", call(rd::prefix_f, "lan_dhcp", "static:1", 0), kStatic1},
            {"path prefix", call(rd::prefix_f, "qorconfig.mgmt", "accounts", 0), kWalk},
            {"qorconfig prefix, flags 1",
             call(rd::prefix_f, "qorconfig", "mgmt.syslog", 1),
             {{"state", "enable", -1}, {"level", "6", -1}}},
            {"prefix without sub", call(rd::prefix_f, "qorconfig.mgmt.accounts", nullptr, 1), kOwn},
            // Flags above 0 leave children out; the group-name reader keeps only bit value 1.
            {"gid flags 4", call(rd::gid_f, kAccounts, nullptr, 4), kOwn},
            {"name flags -1", call(rd::name_d, "mgmt_accounts", nullptr), kOwn},
            {"name flags 4", call(rd::name_f, "mgmt_accounts", nullptr, 4), kWalk},
            // The gid reader puts sub below the root element, the name reader below the group.
            {"gid sub", call(rd::gid_f, kAccounts, "mgmt.accounts.account", 0), kAdminKeys},
            {"name sub", call(rd::name_d, "mgmt_accounts", "account"), kAdmin},
            // The plain prefix reader is the group-name reader with flags -1.
            {"prefix crossed, path", call(rd::prefix_d, "qorconfig.mgmt", "accounts"), {}},
            {"prefix crossed, 0x0", call(rd::prefix_d, "0x0", nullptr), kRoot},
            // The root's first two attributes, in document order, whatever sub and flags.
            {"gid 0", call(rd::gid_f, 0, "mgmt", 1), kRoot},
            {"name 0", call(rd::name_f, "0", "x", 0), kRoot},
        });

    // Flags bit value 2 (flags -1 included): the walk starts at the handle's root element
    // and sub is not used; without it, element paths start at the handle's root element.
    Handle sub = own(init_sub_qorcfg("mgmt_accounts", 0, config_rom));
    ASSERT_STREQ(sub->xml->name, "accounts");
    expect_cases(sub.get(), {{"bit 2", call(rd::gid_f, kAccounts, "nope", 2), kOwn},
                             {"name_d", call(rd::name_d, "mgmt_accounts", nullptr), kOwn},
                             {"sub", call(rd::gid_f, kAccounts, "account:1", 0), kOperatorKeys}});

    // A network-mode handle is switched first: to the group's sub-tree, or (group-name reader
    // without sub) to the whole configuration.
    expect_net({"gid_d", call(rd::gid_d, kAccounts, "nope"), kWalk}, "accounts");
    expect_net({"prefix", call(rd::prefix_f, "qorconfig.mgmt", "accounts", 2), kOwn}, "accounts");
    expect_net({"name_d", call(rd::name_d, "mgmt_accounts", nullptr), kOwn}, "qorconfig");
}

TEST_F(AttrListTest, WalksDeeperThanAHundredLevelsGrowTheStack) {
    constexpr int kDepth = 160;  // every level leaves its sibling on the stack
    std::string doc = "<qorconfig><mgmt><syslog state=\"on\">", leaves;
    Attrs want = {{"state", "on", -1}}, after;
    for (int i = 0; i < kDepth; ++i) {
        doc += "<node i=\"" + std::to_string(i) + "\">";
        leaves = "<leaf j=\"" + std::to_string(i) + "\"/></node>" + leaves;
        want.emplace_back("i", std::to_string(i), -1);
        after.emplace(after.begin(), "j", std::to_string(i), -1);
    }
    sandbox.write(config_ram, doc + leaves + "</syslog></mgmt></qorconfig>\n");
    EXPECT_EQ(
        attrs(get_attr_list_by_gid_direct_f(open_file(config_ram).get(), kSyslog, nullptr, 0)),
        cat(want, after));
}

TEST_F(AttrListTest, FailuresAndAllocationFailuresGiveNullWithoutMessages) {
    Handle h = open_file(config_ram);
    const std::string deep(3000, 'd');
    const std::pair<qorcfg_handle *, Reader> cases[] = {
        {h.get(), call(rd::gid_d, 0xF0000000u, nullptr)},                // unknown
        {h.get(), call(rd::gid_f, kRf1, nullptr, 0)},                    // not present
        {h.get(), call(rd::gid_f, kAccounts, deep.c_str(), 0)},          // long sub
        {h.get(), call(rd::name_d, "0x00", nullptr)},                    // unknown
        {h.get(), call(rd::name_d, "mgmt_accounts", deep.c_str())},      // long sub
        {h.get(), call(rd::prefix_f, "no_such", "x", 0)},                // unknown
        {h.get(), call(rd::prefix_f, nullptr, "x", 0)},                  // none
        {h.get(), call(rd::prefix_f, "qorconfig", "mgmt.none", 0)},      // not present
        {nullptr, call(rd::gid_f, kAccounts, nullptr, 0)},               // no handle
        {nullptr, call(rd::name_f, "0x0", nullptr, 0)},                  // no handle
        {nullptr, call(rd::prefix_f, "qorconfig.mgmt", "accounts", 0)},  // no handle
        {nullptr, call(rd::gid_s, kAccounts, nullptr, 0)},               // no handle
        {nullptr, call(rd::name_s, "mgmt_accounts", nullptr, 0)},        // no handle
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto read = [&] { EXPECT_EQ(attrs(cases[i].second(cases[i].first)), Attrs{}) << i; };
        EXPECT_EQ(stderr_of(read), "") << i;
    }

    // Records come from the failable allocator; a failure gives no list and leaks nothing (the
    // asan preset's leak checker sees every block).
    for (const Reader &read :
         {call(rd::gid_d, kAccounts, nullptr), call(rd::prefix_f, "lan_dhcp", "static", 0)}) {
        const Attrs want = attrs(read(h.get()));
        qorcfg_attr *list = nullptr;
        EXPECT_GE(sweep_allocations([&] { return (list = read(h.get())) != nullptr; }), 1u);
        EXPECT_EQ(attrs(list), want);
    }
    EXPECT_EQ(free_attr_list(nullptr), 0);
}

// ---- the daemon-first forms -------------------------------------------------------

TEST_F(AttrListTest, DaemonFormsSendTheirRequestAndReturnTheJoinedReplyAsItStands) {
    const std::string first = header(2, 0) + rec("ssid", "Lab-Corp", 0);
    std::vector<std::vector<std::string>> replies(5, kDaemonReply);
    replies.insert(replies.end(),
                   {{first + rec("vlan", "10") + kEnd, rec("ssid", "Lab-Guest", 1) + kEnd,
                     header(0, 0) + rec("state", "enable") + kEnd},
                    {first + kEnd, kEnd},
                    // Without the flag a reply is one chunk, whatever follows.
                    {header(0, 0) + rec("ssid", "Lab-Corp", 0) + kEnd, rec("vlan", "10") + kEnd}});
    FakeDaemon daemon(replies);
    ASSERT_TRUE(daemon.ok());
    const std::string ram = config_ram, current = current_config;
    // The file asked about, the reader, and its request (no item): an empty sub is none.
    const std::tuple<const std::string &, Reader, std::string> forms[] = {
        {ram, call(rd::gid, kAccounts, nullptr), request(2, ram, "", "", "", kAccounts)},
        {current, call(rd::gid_s, kLanDhcp, "static:1", 0),
         request(5, current, "", "", "static:1", kLanDhcp)},
        {ram, call(rd::name, "mgmt_accounts", ""), request(3, ram, "", "mgmt_accounts", "", -1)},
        {ram, call(rd::name_s, "lan_dhcp", "static", 0),
         request(6, ram, "", "lan_dhcp", "static", -1)},
        {ram, call(rd::prefix, "qorconfig.mgmt", "accounts"),
         request(6, ram, "", "qorconfig.mgmt", "accounts", -1)},
    };
    std::vector<std::string> sent;
    for (const auto &[file, read, bytes] : forms) {
        Handle h = open_net(file.c_str());
        EXPECT_EQ(attrs(read(h.get())), kFromDaemon) << sent.size();
        EXPECT_EQ(is_net_cfg(h.get()), 1);
        sent.push_back(bytes);
    }
    // Chunked replies are joined; an empty chunk drops everything.
    for (const Attrs &want : {cat(kFromDaemon, {{"ssid", "Lab-Guest", 1}, {"state", "enable", -1}}),
                              Attrs{}, Attrs{{"ssid", "Lab-Corp", 0}}}) {
        Handle h = open_net();
        EXPECT_EQ(attrs(get_attr_list_by_gid(h.get(), kAccounts, nullptr)), want);
        EXPECT_EQ(is_net_cfg(h.get()), 1);  // an empty reply is not a transport failure
        sent.push_back(request(2, config_ram, "", "", "", kAccounts));
    }
    EXPECT_EQ(daemon.stop(), sent);
}

TEST_F(AttrListTest, FallbacksDependOnTheFormAndTheCode) {
    const Reader gid = call(rd::gid, kAccounts, nullptr),
                 gid_s = call(rd::gid_s, kAccounts, nullptr, 0),
                 name = call(rd::name, "mgmt_accounts", nullptr),
                 name_s = call(rd::name_s, "mgmt_accounts", nullptr, 0),
                 prefix = call(rd::prefix, "mgmt_accounts", "account"),
                 prefix_s = call(rd::prefix_s, "qorconfig.mgmt", "accounts", 0);
    // Local gid reads (flags -1) of the whole configuration start at its root element.
    const Attrs whole =
        attrs(get_attr_list_by_gid_direct(open_file(config_ram).get(), kAccounts, nullptr));
    ASSERT_GT(whole.size(), kWalk.size() + 3);
    ASSERT_EQ(Attrs(whole.begin(), whole.begin() + 3), cat(kRoot, {{"extra", "x", -1}}));
    // No daemon listens (-10003): the whole configuration, or the group's sub-tree with bit
    // value 2 added, or no tree when that sub-tree is not a group.
    expect_net({"gid", gid, whole}, "qorconfig");
    expect_net({"name", name, kOwn}, "qorconfig");
    expect_net({"prefix: the name reader", prefix, kAdmin}, "qorconfig");
    expect_net({"gid_s", call(rd::gid_s, kAccounts, "account:1", 0), kOwn}, "accounts");
    expect_net({"gid_s 0", call(rd::gid_s, 0, nullptr, 0), kRoot}, "qorconfig");
    expect_net({"name_s", name_s, kWalk}, "accounts");
    // With a sub: no tree, as there is no such group.
    expect_net({"name_s sub", call(rd::name_s, "mgmt_accounts", "account", 0), {}}, nullptr);
    expect_net({"name_s 0x0", call(rd::name_s, "0x0", nullptr, 0), kRoot}, "qorconfig");
    expect_net({"prefix_s", prefix_s, kOwn}, "accounts");
    expect_net({"prefix_s 0", call(rd::prefix_s, "0", nullptr, 0), {}}, "qorconfig");

    // The daemon answers without records: only the group-name form reads the file.
    const std::tuple<int32_t, Case, const char *> answered[] = {
        {-3, {"gid", gid, {}}, "net"},
        {-4, {"gid_s", gid_s, {}}, "net"},
        {-1, {"name_s", name_s, {}}, "net"},
        {0, {"name", name, kOwn}, "qorconfig"},
    };
    std::vector<std::vector<std::string>> replies;
    for (const auto &a : answered)
        replies.push_back({header(0, std::get<0>(a)) + kEnd});
    replies.insert(replies.end(), 4, kDaemonReply);  // one for the failing receive; spares
    FakeDaemon daemon(replies);
    ASSERT_TRUE(daemon.ok());
    for (const auto &[code, c, root] : answered)
        expect_net(c, root);
    // A failed receive is a transport failure (-10005), whatever the daemon sent.
    qorcfg::os::fail_nth(Call::recv, 1, EIO);
    expect_net({"gid, receive fails", gid, whole}, "qorconfig");
    // Handles not in network mode read locally at once, with the caller's flags.
    expect_cases(
        open_file(config_ram).get(),
        {{"gid_s", gid_s, kWalk}, {"prefix", prefix, kAdmin}, {"prefix_s", prefix_s, kWalk}});
    EXPECT_EQ(daemon.stop().size(), std::size(answered) + 1);
}

}  // namespace
