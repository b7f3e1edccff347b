// tests/change/set_test.cpp - setting items: each setter's files, locks, sync record and daemons;
// the snmp setter never waits; one group written into the tree, missing indexed children made
// from the first; a list split into group runs, role rules consulted for the first run only.
#include "tests/change/fixture.h"

namespace {

using namespace qorcfg::test;

const std::string kDoc =
    "<qorconfig version=\"t\" devtype=\"AP\">\n<system><device name=\"ap\" led=\"v\"/></system>\n"
    "<network><firewall state=\"on\" max=\"8\" cur_num=\"1\"><rule name=\"r0\" action=\"drop\"/>"
    "<other x=\"1\"/></firewall><dai state=\"disable\" vap_isolate=\"disable\"/></network>\n"
    "<mgmt><accounts max=\"8\"><account user=\"admin\" pass=\"x\"/></accounts></mgmt>\n"
    "</qorconfig>\n";
const std::string kOther = "/tmp/other.xml", kAll = "101 102 103 ";

class SetTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        for (const char *file : {config_ram, config_rom, current_config})
            sandbox.write(file, kDoc);
        for (const char *file : {kOther.c_str(), backup_cfg_file, kSyncRecord})
            sandbox.remove(file);
    }
    // Each of the RAM, flash, current, other and backup files: "old" (kDoc), "new" (the handle's
    // tree) or "-" (none); then the sync record.
    std::string files(qorcfg_handle *h) const {
        std::string out;
        for (const char *f :
             {config_ram, config_rom, current_config, kOther.c_str(), backup_cfg_file}) {
            const std::string text = sandbox.read(f);
            out += !sandbox.exists(f)       ? "- "
                   : text == kDoc           ? "old "
                   : text == xml_of(h->xml) ? "new "
                                            : "? ";
        }
        return out + "| " + sandbox.read(kSyncRecord);
    }
};

using Setter = std::function<int(qorcfg_handle *, qorcfg_item *)>;
Setter to(const char *path) {
    return [path](qorcfg_handle *h, qorcfg_item *i) { return set_cfg_items_f(h, i, path); };
}

TEST_F(SetTest, EachSetterWritesItsFilesUnderItsLocksRecordsAndTellsTheDaemons) {
    const std::string both = "new new old - - | ", rec = both + "0\n134742016\n",
                      none = "old old old - - | ",
                      ram = "access_lock(ex) qorcfg_ram(ex) ;access_lock(ex) qorcfg_rom(ex) ;",
                      failing = "8080000:name=x 10600000:no=v";  // the first run is written
    // Setter, items, result; files afterwards; locks held as each file is renamed into place;
    // daemons told.
    const std::tuple<Setter, std::string, int, std::string, std::string, std::string> cases[] = {
        {set_cfg_items, "8080000:name=x", 0, rec, ram, kAll},
        {set_cfg_items, "8080000:name=ap", 0, rec, ram, kAll},  // an equal value
        {set_cfg_items_snmp, "8080000:name=x", 0, rec, ram, "101 "},
        {to(nullptr), "8080000:name=x", 0, rec, ram, kAll},
        {set_cfg_items_dependency, "8080000:name=x", 0, both, ram, kAll},
        {set_cfg_items_lite, "8080000:name=x", 0, both, ram, kAll},
        {to(config_ram), "8080000:name=x", 0, both, ram, kAll},
        {to(config_rom), "8080000:name=x", 0, "- new old - - | ",
         "access_lock(ex) qorcfg_rom(ex) ;", kAll},
        {to(current_config), "8080000:name=x", 0, "old old new - - | ",
         "access_lock(ex) qorcfg_current(ex) ;", kAll},
        {to(kOther.c_str()), "8080000:name=x", 0, "old old old new - | ", "default_lock(ex) ;",
         kAll},
        {to(backup_cfg_file), "8080000:name=x", 0, "old old old - new | ", "qorcfg_backup(ex) ;",
         kAll},
        {set_cfg_items, failing, -4, none, "", ""},
        {set_cfg_items_snmp, failing, -4, none, "", "101 "},
        {set_cfg_items_snmp, "7f000000:name=x", -3, none, "", "101 "},
        {set_cfg_items, "10500000:rule:8.name=x", -15, none, "", ""},
    };
    for (const auto &[set, list, rc, after, locked, told] : cases) {
        SetUp();
        Handle h = open_file(config_ram);
        std::string seen;
        os::set_call_hook([&](Call kind, unsigned) {
            const std::string now = kind == Call::rename ? held() : "";
            if (!now.empty() && now != "access_lock(ex) ")  // the sync record has no lock
                seen += now + ";";
        });
        EXPECT_EQ(set(h.get(), items(list).get()), rc) << list;
        os::set_call_hook(nullptr);
        EXPECT_EQ(files(h.get()) + seen + "|" + signalled(), after + locked + "|" + told) << list;
        EXPECT_EQ(group_by_gid(kDevice)->changed,
                  value(h.get(), kDevice, "name") == "ap" ? 0u : 1u);
    }
    for (const Setter &set : {Setter(set_cfg_items), Setter(set_cfg_items_snmp)})
        EXPECT_EQ(set(nullptr, items("8080000:name=x").get()), -1);
    EXPECT_EQ(signalled(), "101 ");
    SetUp();  // the working copy cannot be locked to drop it once the flash copy is written
    Handle h = open_file(config_ram);
    sandbox.remove("/var/lock/qorcfg_ram");
    sandbox.mkdir("/var/lock/qorcfg_ram");
    EXPECT_EQ(to(config_rom)(h.get(), items("8080000:name=x").get()), -10);
    EXPECT_EQ(files(h.get()) + signalled(), "old new old - - | ");
}

TEST_F(SetTest, TheSnmpSetterGivesUpAtOnceWhileAnotherProcessHoldsTheAccessLock) {
    int locked[2], release[2];
    ASSERT_EQ(::pipe(locked) + ::pipe(release), 0);
    const std::string lock_file = sandbox.path("/var/lock/access_lock");
    const pid_t holder = spawn([&] {
        ::close(release[1]);
        const int fd = ::open(lock_file.c_str(), O_RDWR | O_CREAT, 0644);
        char c = 'l';
        if (fd < 0 || ::flock(fd, LOCK_EX) != 0 || ::write(locked[1], &c, 1) != 1)
            return 1;
        return ::read(release[0], &c, 1) == 0 ? 0 : 2;  // until the parent's end closes
    });
    ::close(locked[1]);
    ::close(release[0]);
    char c = 0;
    EXPECT_EQ(::read(locked[0], &c, 1), 1);
    Handle h = open_file(config_ram);
    Items list = items("8080000:name=x");
    EXPECT_EQ(set_cfg_items_snmp(h.get(), list.get()), 1);
    EXPECT_EQ(value(h.get(), kDevice, "name"), "ap");
    EXPECT_EQ(files(h.get()) + signalled(), "old old old - - | 101 ");
    EXPECT_EQ(set_cfg_items_f(h.get(), list.get(), kOther.c_str()), 0);  // no access lock
    EXPECT_EQ(set_cfg_items_f(h.get(), list.get(), backup_cfg_file), 0);
    ::close(release[1]);
    EXPECT_EQ(reap(holder), 0);
    EXPECT_EQ(set_cfg_items_snmp(h.get(), list.get()), 0);
    EXPECT_EQ(files(h.get()) + signalled(),
              "new new old new new | 0\n134742016\n101 " + kAll + kAll + "101 ");
    ::close(locked[0]);
}

TEST_F(SetTest, OneGroupIsWrittenWithMissingIndexedChildrenMadeFromTheFirst) {
    const std::string blank = "name=;action=;|", m = "set_cfg_group>Can't find ",
                      max = "set_cfg_group>Exceed the max number of the child nodes\n";
    const char *rule = "qorconfig.network.firewall.rule";
    // Item; result and message; an element with its like siblings afterwards ("|" after each)
    // and the parent's cur_num (no element: the tree stays as it was unless the item changed it).
    const std::tuple<std::string, int, std::string, const char *, std::string> cases[] = {
        {"10500000:rule:5.name=v", 0, "", rule,
         "name=r0;action=drop;|" + blank + blank + blank + blank + "name=v;action=;|6"},
        {"18080000:account:2.user=v", 0, "", "qorconfig.mgmt.accounts.account",
         "user=admin;pass=x;|user=;pass=;|user=v;pass=;|-"},
        {"10500000:rule.action=v", 0, "", rule, "name=r0;action=v;|1"},
        {"8080000:led=v", 0, "", nullptr, ""},  // an equal value
        {"8080000:sub.x.attr=v", -1, m + "the parent node.\n", nullptr, ""},
        {"8080000:foo:1.attr=v", -1, m + "max in the parent node.\n", nullptr, ""},
        {"10500000:nothing.a=v", -1, m + "index of tag_name=nothing.\n", nullptr, ""},
        {"10500000:entry:1.x=v", -1, m + "the first tag node.\n", nullptr, ""},
        {"10500000:rule:8.name=v", -15, max, rule, "name=r0;action=drop;|1"},
        {"10500000:rule:9.name=v", -15, max, nullptr, ""},
        {"8080000:nosuch=v", -4, m + "the item_name=nosuch\n", nullptr, ""},
        {"7f000000:name=v", -3, "", nullptr, ""},
        {"10600000:x=v", -1, m + "subtag of item_name=nowhere.\n", nullptr, ""},  // path below
    };
    qorcfg_group *dai = group_by_gid(kDai);
    const char *dai_path = dai->path;
    for (const auto &[item, rc, message, element, siblings] : cases) {
        ChangeTest::SetUp();
        Handle h = open_file(config_ram);
        const std::string before = xml_of(h->xml);
        Items list = items(item);
        dai->path = "nowhere";  // a group whose path names no element and has no dot
        CaptureOutput err(STDERR_FILENO);
        EXPECT_EQ(change::set_cfg_group(h.get(), list.get()), rc) << item;
        dai->path = dai_path;
        EXPECT_EQ(err.text(), message);
        const std::string path = element ? element : "", after = xml_of(h->xml);
        std::string seen = element || after == before ? "" : "changed";
        for (ezxml_node *n = element_at(h->xml, path); n != nullptr; n = n->next)
            seen += attributes(n) + "|";
        const char *cur_num =
            ezxml_attr(element_at(h->xml, path.substr(0, path.rfind('.'))), "cur_num");
        EXPECT_EQ(seen + (!element ? "" : cur_num ? cur_num : "-"), siblings) << item;
        const qorcfg_group *row = group_by_gid(static_cast<uint32_t>(list->gid));
        EXPECT_EQ(row ? row->changed : 0u, after != before ? 1u : 0u) << item;
    }
    EXPECT_EQ(change::set_cfg_group(nullptr, items("8080000:led=x").get()), -1);
    EXPECT_EQ(change::set_cfg_group(open_file(config_ram).get(), nullptr), 0);
}

TEST_F(SetTest, AListIsWrittenInGroupRunsCountedInTheBuffer) {
    // Runs A, B, A; the first written in reverse order, so its first "name" is the last written.
    const std::string list = "8080000:name=1 8080000:name=2 10600000:state=on 8080000:led=off";
    // Capacity (-1: a buffer without a count, -2: neither); result; buffer and count; values.
    const std::tuple<int, int, std::string, std::string> cases[] = {
        {4, 0, "A B A 0 ~ 3", "1 on off"},       {3, -5, "A B A ~ ~ 3", "1 on v"},
        {2, -5, "A B ~ ~ ~ 2", "1 disable v"},   {0, -5, "~ ~ ~ ~ ~ 0", "ap disable v"},
        {-1, -5, "~ ~ ~ ~ ~ 9", "ap disable v"}, {-2, 0, "~ ~ ~ ~ ~ 9", "1 on off"},
    };
    for (const auto &[capacity, rc, buffer, written] : cases) {
        Handle h = open_file(config_ram);
        uint32_t gids[5] = {~0u, ~0u, ~0u, ~0u, ~0u};
        int n = capacity < 0 ? 9 : capacity;
        EXPECT_EQ(
            change::set_items_by_group(h.get(), items(list).get(), capacity == -2 ? nullptr : gids,
                                       capacity < 0 ? nullptr : &n),
            rc);
        std::string seen;
        for (uint32_t gid : gids)
            seen += gid == kDevice ? "A "
                    : gid == kDai  ? "B "
                    : gid == 0     ? "0 "
                    : gid == ~0u   ? "~ "
                                   : "? ";
        EXPECT_EQ(seen + std::to_string(n), buffer);
        EXPECT_EQ(value(h.get(), kDevice, "name") + " " + value(h.get(), kDai, "state") + " " +
                      value(h.get(), kDevice, "led"),
                  written)
            << capacity;
    }
    int n = 4;
    EXPECT_EQ(change::set_items_by_group(nullptr, items(list).get(), nullptr, &n), -1);
    EXPECT_EQ(n, 0);
    Handle h = open_file(config_ram);  // a group occurring twice in one call is recorded twice
    EXPECT_EQ(set_cfg_items(h.get(), items(list).get()), 0);
    EXPECT_EQ(sandbox.read(kSyncRecord), "1\n134742016\n274726912\n134742016\n");
}

TEST_F(SetTest, RoleRulesAddItemsAfterEachItemOfTheFirstRunOnly) {
    install_sample(sandbox);
    Items rep(set_rep_related(), &free_item_list), iso(set_vap_isolate_related(), &free_item_list);
    // The caller's list, and the items the rules add at its end.
    const std::pair<std::string, const qorcfg_item *> cases[] = {
        {"20a80000:state=enable", rep.get()},
        {"20a80000:uplink=x 20a80000:state=enable", rep.get()},
        {"8080000:name=n 20a80000:state=enable", nullptr},
        {"10600000:vap_isolate=enable", iso.get()},
        {"8080000:name=n 10600000:vap_isolate=enable", nullptr}};
    for (const auto &[given, added] : cases) {
        Handle h = open_file(config_ram);
        Items list = items(given);
        uint32_t gids[64] = {};
        int n = 64;
        EXPECT_EQ(change::set_items_by_group(h.get(), list.get(), gids, &n), 0);
        EXPECT_EQ(words(list.get()), words(items(given).get()) + words(added));
        std::vector<uint32_t> runs;
        for (const qorcfg_item *i = list.get(); i != nullptr; i = i->next) {
            if (runs.empty() || runs.back() != static_cast<uint32_t>(i->gid))
                runs.push_back(static_cast<uint32_t>(i->gid));
            EXPECT_EQ(value(h.get(), static_cast<uint32_t>(i->gid), i->name), i->value) << i->name;
        }
        EXPECT_EQ(std::vector<uint32_t>(gids, gids + n), runs) << given;
    }
    // The rules themselves match group, name and value exactly.
    EXPECT_EQ(words(Items(apply_item_dependency(kRep, "state", "enable"), &free_item_list).get()),
              words(rep.get()));
    EXPECT_EQ(
        words(Items(apply_item_dependency(kDai, "vap_isolate", "enable"), &free_item_list).get()),
        words(iso.get()));
    const std::tuple<uint32_t, const char *, const char *> none[] = {
        {kRep, "state", "disable"},          {kRep, "state", "Enable"},
        {kRep, "State", "enable"},           {kRep + 0x800000, "state", "enable"},
        {kDai, "vap_isolate", "disable"},    {kDai, "vap_isolate ", "enable"},
        {0x20800000, "roles", "ap,wds"},     {0x20800000, "roles", "ap"},
        {0x20800000, "roles", "ap,wds,rep"}, {0x21000000, "roles", "ap"},
        {kDai, nullptr, "enable"},           {kDai, "vap_isolate", nullptr}};
    for (const auto &[gid, name, val] : none)
        EXPECT_EQ(apply_item_dependency(gid, name, val), nullptr) << gid << (name ? name : "-");
}

}  // namespace
