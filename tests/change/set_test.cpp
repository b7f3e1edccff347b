// tests/change/set_test.cpp - setting items: each setter's files, sync record and daemons; the snmp
// setter never waits; one group written into the tree, missing indexed children made from the
// first; a list split into group runs, role rules consulted for the first run only.
#include <utility>

#include "tests/change/fixture.h"

namespace {

using namespace qorcfg::test;

const std::string kDoc =
    "<qorconfig version=\"t\" devtype=\"AP\">\n<system><device name=\"ap\" led=\"v\"/></system>\n"
    "<network><firewall state=\"on\" max=\"8\" cur_num=\"1\"><rule name=\"r0\" action=\"drop\"/>"
    "<other x=\"1\"/></firewall><dai state=\"disable\" vap_isolate=\"disable\"/></network>\n"
    "<mgmt><accounts max=\"8\"><account user=\"admin\" pass=\"x\"/></accounts></mgmt>\n"
    "</qorconfig>\n";
const char *const kOther = "/tmp/other.xml";

class SetTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        for (const char *file : {kOther, kSyncRecord})
            sandbox.remove(file);
        for (const char *file : {config_ram, config_rom, current_config})
            sandbox.write(file, kDoc);
        h = open_file(config_ram);
    }
    // RAM, flash, current and other file: "old" (kDoc), "new" (the tree) or "-" (none); the sync
    // record; the daemons signalled.
    std::string after() {
        std::string out;
        for (const char *f : {config_ram, config_rom, current_config, kOther}) {
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

TEST_F(SetTest, EachSetterWritesItsFilesRecordsAndTellsTheDaemons) {
    const std::string x = "8080000:name=x", bad = x + " 10600000:no=v", all = "| 101 102 103 ",
                      both = "new new old - | ", rec = "0\n134742016\n",
                      none = "old old old - | | ";
    // Setter, items (the first run of failing ones is written); result; files, record, daemons.
    const std::tuple<Setter, std::string, int, std::string> cases[] = {
        {set_cfg_items, x, 0, both + rec + all},
        {set_cfg_items, "8080000:name=ap", 0, both + rec + all},  // an equal value
        {set_cfg_items_snmp, x, 0, both + rec + "| 101 "},
        {to(nullptr), x, 0, both + rec + all},
        {set_cfg_items_dependency, x, 0, both + all},
        {set_cfg_items_lite, x, 0, both + all},
        {to(config_rom), x, 0, "- new old - | " + all},
        {to(current_config), x, 0, "old old new - | " + all},
        {to(kOther), x, 0, "old old old new | " + all},
        {set_cfg_items, bad, -4, none},
        {set_cfg_items_snmp, bad, -4, none + "101 "},
    };
    for (const auto &[set, list, rc, files] : cases) {
        SetUp();
        EXPECT_EQ(set(h.get(), items(list).get()), rc) << list;
        EXPECT_EQ(after(), files) << list;
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
    EXPECT_EQ(value(h.get(), kDevice, "name") + after(), "apold old old - | | 101 ");
    EXPECT_EQ(set_cfg_items_f(h.get(), list.get(), kOther), 0);  // without the access lock
    ::close(release[1]);
    EXPECT_EQ(reap(holder), 0);
    EXPECT_EQ(set_cfg_items_snmp(h.get(), list.get()), 0);
    EXPECT_EQ(after(), "new new old new | 0\n134742016\n| 101 101 102 103 101 ");
}

TEST_F(SetTest, OneGroupIsWrittenWithMissingIndexedChildrenMadeFromTheFirst) {
    const std::string e = "name=;action=;/", m = " set_cfg_group>Can't find ";
    // Item (value "v"); result and message, then when the tree changed the written element's like
    // siblings ("/" after each) and the parent's cur_num ("-": none).
    const std::pair<std::string, std::string> cases[] = {
        {"10500000:rule:5.name", "0 name=r0;action=drop;/" + e + e + e + e + "name=v;action=;/6"},
        {"18080000:account:2.user", "0 user=admin;pass=x;/user=;pass=;/user=v;pass=;/-"},
        {"8080000:led", "0 "},  // an equal value
        {"8080000:sub.x.attr", "-1" + m + "the parent node.\n"},
        {"8080000:foo:1.attr", "-1" + m + "max in the parent node.\n"},
        {"10500000:nothing.a", "-1" + m + "index of tag_name=nothing.\n"},
        {"10500000:entry:1.x", "-1" + m + "the first tag node.\n"},
        {"10500000:rule:8.name", "-15 set_cfg_group>Exceed the max number of the child nodes\n"},
        {"8080000:nosuch", "-4" + m + "the item_name=nosuch\n"},
        {"7f000000:name", "-3 "},
        {"10600000:x", "-1" + m + "subtag of item_name=nowhere.\n"},  // a path naming no element
    };
    qorcfg_group *dai = group_by_gid(kDai);
    const char *dai_path = std::exchange(dai->path, "nowhere");
    for (const auto &[item, want] : cases) {
        SetUp();
        const std::string before = xml_of(h->xml);
        Items list = items(item + "=v");
        CaptureOutput err(STDERR_FILENO);
        const int rc = change::set_cfg_group(h.get(), list.get());
        std::string seen = std::to_string(rc) + " " + err.text();
        const qorcfg_group *row = group_by_gid(static_cast<uint32_t>(list->gid));
        const bool changed = xml_of(h->xml) != before;
        if (changed) {  // the written element's like siblings, then the parent's cur_num
            const std::string parent = row->path, name = list->name;
            for (ezxml_node *n = element_at(h->xml, parent + "." + name.substr(0, name.find(':')));
                 n != nullptr; n = n->next)
                seen += attributes(n) + "/";
            const char *cur_num = ezxml_attr(element_at(h->xml, parent), "cur_num");
            seen += cur_num ? cur_num : "-";
        }
        EXPECT_EQ(seen, want) << item;
        EXPECT_EQ(row ? row->changed : 0u, changed ? 1u : 0u) << item;
    }
    dai->path = dai_path;
}

TEST_F(SetTest, AListIsWrittenInGroupRunsAndRoleRulesExtendTheFirstRunOnly) {
    // A, B, A: the first run is written in reverse order, so its first "name" is the last written.
    const std::string runs = "8080000:name=1 8080000:name=2 10600000:state=on 8080000:led=off";
    // Items; cap (-1: no count); result, buffer (hex, primed with ffffffff) and count, values
    // afterwards. The isolation rule adds the 32 VAPs (the first 20884000), which this device
    // does not have.
    const std::tuple<std::string, int, std::string> cases[] = {
        {runs, 4, "0 8080000 10600000 8080000 0 ffffffff 3 1 on off"},
        {runs, 3, "-5 8080000 10600000 8080000 ffffffff ffffffff 3 1 on v"},
        {runs, -1, "-5 ffffffff ffffffff ffffffff ffffffff ffffffff 9 ap disable v"},
        {"10600000:state=on 10600000:vap_isolate=enable", 4,
         "-1 10600000 20884000 0 0 ffffffff 2 ap on v"},
        {"8080000:name=n 10600000:vap_isolate=enable", 4,
         "0 8080000 10600000 0 0 ffffffff 2 n disable v"},
    };
    for (const auto &[list, cap, after] : cases) {
        SetUp();
        uint32_t gids[5] = {~0u, ~0u, ~0u, ~0u, ~0u};
        int n = cap < 0 ? 9 : cap;
        std::ostringstream seen;
        seen << change::set_items_by_group(h.get(), items(list).get(), gids,
                                           cap < 0 ? nullptr : &n);
        for (uint32_t gid : gids)
            seen << " " << std::hex << gid;
        seen << " " << n << " " << value(h.get(), kDevice, "name") << " "
             << value(h.get(), kDai, "state") << " " << value(h.get(), kDevice, "led");
        EXPECT_EQ(seen.str(), after) << list;
    }
    // The rules' items are spliced into the caller's list.
    Items list = items("10600000:vap_isolate=enable"),
          iso(set_vap_isolate_related(), &free_item_list);
    EXPECT_EQ(change::set_items_by_group(h.get(), list.get(), nullptr, nullptr), -1);
    EXPECT_EQ(words(list.get()), "10600000:vap_isolate=enable " + words(iso.get()));
}

}  // namespace
