// tests/change/set_test.cpp - setting items: each setter's files, locks, sync record and daemons;
// the snmp setter never waits; one group written into the tree, missing indexed children made
// from the first; a list split into group runs, role rules consulted for the first run only.
#include <map>

#include "tests/change/fixture.h"

namespace {

using namespace qorcfg::test;

const std::string kDoc =
    "<qorconfig version=\"t\" devtype=\"AP\">\n<system><device name=\"ap\" led=\"v\"/></system>\n"
    "<network><firewall state=\"on\" max=\"8\" cur_num=\"1\"><rule name=\"r0\" action=\"drop\"/>"
    "<other x=\"1\"/></firewall><dai state=\"disable\" vap_isolate=\"disable\"/></network>\n"
    "<mgmt><accounts max=\"8\"><account user=\"admin\" "
    "pass=\"x\"/></accounts></mgmt>\n</qorconfig>\n";
const char *const kOther = "/tmp/other.xml";

class SetTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        for (const char *file : {kOther, backup_cfg_file, kSyncRecord})
            sandbox.remove(file);
        for (const char *file : {config_ram, config_rom, current_config})
            sandbox.write(file, kDoc);
        h = open_file(config_ram);
    }
    // RAM, flash, current, other and backup file: "old" (kDoc), "new" (the tree) or "-" (none);
    // the sync record; the daemons signalled.
    std::string after() {
        std::string out;
        for (const char *f : {config_ram, config_rom, current_config, kOther, backup_cfg_file}) {
            const std::string text = sandbox.exists(f) ? sandbox.read(f) : "-";
            out += (text == kDoc ? "old" : text == xml_of(h->xml) ? "new" : text) + " ";
        }
        return out + "| " + sandbox.read(kSyncRecord) + "| " + signalled();
    }
    Handle h{nullptr, &close_qorcfg};
};

using Setter = std::function<int(qorcfg_handle *, qorcfg_item *)>;
Setter to(const char *path) {
    return [path](qorcfg_handle *h, qorcfg_item *i) { return set_cfg_items_f(h, i, path); };
}

TEST_F(SetTest, EachSetterWritesItsFilesUnderItsLocksRecordsAndTellsTheDaemons) {
    const std::string x = "8080000:name=x", all = "| 101 102 103 ", rec = "| 0\n134742016\n",
                      none = "old old old - - | | ", a = "access_lock(ex) ",
                      rom = a + "qorcfg_rom(ex) ";
    // Setter, items (the first run of the failing ones is written); result; files, record and
    // daemons afterwards; the locks held while the last file is renamed into place.
    const std::tuple<Setter, std::string, int, std::string, std::string> cases[] = {
        {set_cfg_items, x, 0, "new new old - - " + rec + all, rom},
        {set_cfg_items, "8080000:name=ap", 0, "new new old - - " + rec + all, rom},  // equal
        {set_cfg_items_snmp, x, 0, "new new old - - " + rec + "| 101 ", rom},
        {to(nullptr), x, 0, "new new old - - " + rec + all, rom},
        {set_cfg_items_dependency, x, 0, "new new old - - | " + all, rom},
        {set_cfg_items_lite, x, 0, "new new old - - | " + all, rom},
        {to(config_rom), x, 0, "- new old - - | " + all, rom},
        {to(current_config), x, 0, "old old new - - | " + all, a + "qorcfg_current(ex) "},
        {to(kOther), x, 0, "old old old new - | " + all, "default_lock(ex) "},
        {to(backup_cfg_file), x, 0, "old old old - new | " + all, "qorcfg_backup(ex) "},
        {set_cfg_items, x + " 10600000:no=v", -4, none, ""},
        {set_cfg_items_snmp, x + " 10600000:no=v", -4, none + "101 ", ""},
        {set_cfg_items, "10500000:rule:8.name=x", -15, none, ""},
    };
    for (const auto &[set, list, rc, files, locked] : cases) {
        SetUp();
        std::string seen;
        os::set_call_hook(
            [&](Call kind, unsigned) { seen = kind == Call::rename ? held() : seen; });
        EXPECT_EQ(set(h.get(), items(list).get()), rc) << list;
        os::set_call_hook(nullptr);
        EXPECT_EQ(after() + seen, files + locked) << list;
        EXPECT_EQ(group_by_gid(kDevice)->changed,
                  value(h.get(), kDevice, "name") == "ap" ? 0u : 1u);
    }
}

TEST_F(SetTest, TheSnmpSetterGivesUpAtOnceWhileAnotherProcessHoldsTheAccessLock) {
    int locked[2], release[2];
    char c = 0;
    ASSERT_EQ(::pipe(locked) + ::pipe(release), 0);
    const std::string lock_file = sandbox.path("/var/lock/access_lock");
    const pid_t holder = spawn([&] {
        ::close(release[1]);
        const int fd = ::open(lock_file.c_str(), O_RDWR | O_CREAT, 0644);
        if (fd < 0 || ::flock(fd, LOCK_EX) != 0 || ::write(locked[1], "l", 1) != 1)
            return 1;
        return static_cast<int>(::read(release[0], &c, 1));  // 0 once the parent's end closes
    });
    ::close(locked[1]);
    ::close(release[0]);
    EXPECT_EQ(::read(locked[0], &c, 1), 1);
    Items list = items("8080000:name=x");
    EXPECT_EQ(set_cfg_items_snmp(h.get(), list.get()), 1);
    EXPECT_EQ(value(h.get(), kDevice, "name") + after(), "apold old old - - | | 101 ");
    EXPECT_EQ(set_cfg_items_f(h.get(), list.get(), kOther), 0);  // without the access lock
    EXPECT_EQ(set_cfg_items_f(h.get(), list.get(), backup_cfg_file), 0);
    ::close(release[1]);
    EXPECT_EQ(reap(holder), 0);
    EXPECT_EQ(set_cfg_items_snmp(h.get(), list.get()), 0);
    EXPECT_EQ(after(), "new new old new new | 0\n134742016\n| 101 101 102 103 101 102 103 101 ");
}

TEST_F(SetTest, OneGroupIsWrittenWithMissingIndexedChildrenMadeFromTheFirst) {
    const std::string e = "name=;action=;/", m = "set_cfg_group>Can't find ",
                      max = "set_cfg_group>Exceed the max number of the child nodes\n";
    // Item (value "v"); result and message; the element's like siblings afterwards ("/" after
    // each) and the parent's cur_num, or nothing when the tree is left as it was.
    const std::tuple<std::string, int, std::string, std::string, std::string> cases[] = {
        {"10500000:rule:5.name", 0, "", "network.firewall.rule",
         "name=r0;action=drop;/" + e + e + e + e + "name=v;action=;/6"},
        {"18080000:account:2.user", 0, "", "mgmt.accounts.account",
         "user=admin;pass=x;/user=;pass=;/user=v;pass=;/-"},
        {"8080000:led", 0, "", "", ""},  // an equal value
        {"8080000:sub.x.attr", -1, m + "the parent node.\n", "", ""},
        {"8080000:foo:1.attr", -1, m + "max in the parent node.\n", "", ""},
        {"10500000:nothing.a", -1, m + "index of tag_name=nothing.\n", "", ""},
        {"10500000:entry:1.x", -1, m + "the first tag node.\n", "", ""},
        {"10500000:rule:8.name", -15, max, "", ""},
        {"8080000:nosuch", -4, m + "the item_name=nosuch\n", "", ""},
        {"7f000000:name", -3, "", "", ""},
        {"10600000:x", -1, m + "subtag of item_name=nowhere.\n", "", ""},  // path below
    };
    qorcfg_group *dai = group_by_gid(kDai);
    const char *dai_path = dai->path;
    for (const auto &[item, rc, message, element, siblings] : cases) {
        SetUp();
        const std::string before = xml_of(h->xml), path = "qorconfig." + element;
        Items list = items(item + "=v");
        dai->path = "nowhere";  // a group whose path names no element and has no dot
        CaptureOutput err(STDERR_FILENO);
        const int got = change::set_cfg_group(h.get(), list.get());
        dai->path = dai_path;
        EXPECT_EQ(std::to_string(got) + " " + err.text(), std::to_string(rc) + " " + message)
            << item;
        std::string seen = element.empty() && xml_of(h->xml) != before ? "changed" : "";
        for (ezxml_node *n = element.empty() ? nullptr : element_at(h->xml, path); n; n = n->next)
            seen += attributes(n) + "/";
        const char *cur_num =
            ezxml_attr(element_at(h->xml, path.substr(0, path.rfind('.'))), "cur_num");
        EXPECT_EQ(seen + (element.empty() ? "" : cur_num ? cur_num : "-"), siblings) << item;
        const qorcfg_group *row = group_by_gid(static_cast<uint32_t>(list->gid));
        EXPECT_EQ(row ? row->changed : 0u, xml_of(h->xml) != before ? 1u : 0u) << item;
    }
    EXPECT_EQ(change::set_cfg_group(nullptr, items("8080000:led=x").get()), -1);
    EXPECT_EQ(change::set_cfg_group(h.get(), nullptr), 0);
}

TEST_F(SetTest, AListIsWrittenInGroupRunsAndRoleRulesExtendTheFirstRunOnly) {
    // A, B, A: the first run is written in reverse order, so its first "name" is the last written.
    const std::string runs = "8080000:name=1 8080000:name=2 10600000:state=on 8080000:led=off";
    // Items; cap (-1: no count); result; buffer ("V": radio 1's first VAP) and count; values
    // afterwards. The isolation rule adds the 32 VAPs, which this device does not have.
    const std::tuple<std::string, int, int, std::string> cases[] = {
        {runs, 4, 0, "A B A 0 ~ 3 1 on off"},
        {runs, 3, -5, "A B A ~ ~ 3 1 on v"},
        {runs, 0, -5, "~ ~ ~ ~ ~ 0 ap disable v"},
        {runs, -1, -5, "~ ~ ~ ~ ~ 9 ap disable v"},
        {"10600000:vap_isolate=enable", 4, -1, "B V 0 0 ~ 2 ap disable v"},
        {"10600000:state=on 10600000:vap_isolate=enable", 4, -1, "B V 0 0 ~ 2 ap on v"},
        {"8080000:name=n 10600000:vap_isolate=enable", 4, 0, "A B 0 0 ~ 2 n disable v"},
    };
    for (const auto &[list, cap, rc, after] : cases) {
        SetUp();
        uint32_t gids[5] = {~0u, ~0u, ~0u, ~0u, ~0u};
        int n = cap < 0 ? 9 : cap;
        EXPECT_EQ(
            change::set_items_by_group(h.get(), items(list).get(), gids, cap < 0 ? nullptr : &n),
            rc);
        std::map<uint32_t, std::string> letter = {
            {kDevice, "A"}, {kDai, "B"}, {gid_vap[0], "V"}, {0, "0"}, {~0u, "~"}};
        std::string seen;
        for (uint32_t gid : gids)
            seen += letter[gid] + " ";
        EXPECT_EQ(seen + std::to_string(n) + " " + value(h.get(), kDevice, "name") + " " +
                      value(h.get(), kDai, "state") + " " + value(h.get(), kDevice, "led"),
                  after)
            << list;
    }
    SetUp();  // through a setter, a group that occurs twice in one call is recorded twice
    EXPECT_EQ(set_cfg_items(h.get(), items(runs).get()), 0);
    EXPECT_EQ(sandbox.read(kSyncRecord), "1\n134742016\n274726912\n134742016\n");
    // The rules' items are spliced into the caller's list. The rules match exactly.
    Items list = items("10600000:vap_isolate=enable"),
          iso(set_vap_isolate_related(), &free_item_list);
    EXPECT_EQ(change::set_items_by_group(h.get(), list.get(), nullptr, nullptr), -1);
    EXPECT_EQ(words(list.get()), "10600000:vap_isolate=enable " + words(iso.get()));
    EXPECT_EQ(words(Items(apply_item_dependency(kRep, "state", "enable"), &free_item_list).get()),
              words(Items(set_rep_related(), &free_item_list).get()));
    const std::tuple<uint32_t, const char *, const char *> none[] = {
        {kRep, "state", "disable"},           {kRep, "State", "enable"},
        {kRep + 0x800000, "state", "enable"}, {kDai, "vap_isolate", "Enable"},
        {0x20800000, "roles", "ap,wds"},      {0x20800000, "roles", "ap"},
        {0x20800000, "roles", "ap,wds,rep"},  {kDai, nullptr, "enable"},
        {kDai, "vap_isolate", nullptr}};
    for (const auto &[gid, name, val] : none)
        EXPECT_EQ(apply_item_dependency(gid, name, val), nullptr) << gid << (name ? name : "-");
}

}  // namespace
