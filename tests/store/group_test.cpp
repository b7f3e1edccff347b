// tests/store/group_test.cpp - the group table lookups by group ID, name and
// element path, and item lists. Rows are scanned from the first to the row
// whose gid is 0, texts match only with the same length and bytes, and the
// first matching row wins; the exported lookups over the device's table give
// exactly the row such a scan of the live table gives, by reference into it.
// Item lists keep ascending group-ID order and carry 256-byte value buffers.
#include "store/group.h"
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;
using qorcfg::store::scan_group_by_gid;
using qorcfg::store::scan_group_by_name;
using qorcfg::store::scan_group_by_path;

TEST(GroupScan, TextsMatchWholeInTheirOwnColumnAndTheFirstRowWins) {
    qorcfg_group t[] = {
        // Longer names first, so a comparison bounded by the input's length
        // would stop at the wrong row.
        {0x20884000, "rf1_vap1", 0, "qorconfig.wlan.rf1.vap"},
        {0x20800040, "rf10", 0, "qorconfig.wlan.rf10"},
        {0x20800000, "rf1", 0, "qorconfig.wlan.rf1"},
        // Each row's name is the other's path: a lookup reads only its column.
        {0x10600000, "qorconfig.net.dai", 0, "dai"},
        {0x10680000, "dai", 0, "qorconfig.net.dai"},
        {0x10200000, "lan", 0, "qorconfig.net.lan"},
        {0x10200400, "lan", 0, "qorconfig.net.lan.dhcp"},         // same name
        {0x10200000, "lan_again", 0, "qorconfig.net.lan_again"},  // same gid
        {0x10280000, "fw", 0, "qorconfig.net.lan.dhcp"},          // same path
        {0, "end", 0, "qorconfig.end"},  // terminator with texts of its own
        {0x30000000, "after", 0, "qorconfig.after"},
        {0, nullptr, 0, nullptr},
    };
    // text, row found by name, row found by path (-1: none)
    const std::tuple<const char *, int, int> hits[] = {{"rf1", 2, -1},
                                                       {"rf10", 1, -1},
                                                       {"qorconfig.wlan.rf1", -1, 2},
                                                       {"lan", 5, -1},
                                                       {"lan_again", 7, -1},
                                                       {"qorconfig.wlan.rf10", -1, 1},
                                                       {"dai", 4, 3},
                                                       {"qorconfig.net.dai", 3, 4},
                                                       {"qorconfig.net.lan.dhcp", -1, 6}};
    auto row = [&](int i) { return i < 0 ? nullptr : &t[i]; };
    for (const auto &[text, by_name, by_path] : hits) {
        EXPECT_EQ(scan_group_by_name(t, text), row(by_name)) << text;
        EXPECT_EQ(scan_group_by_path(t, text), row(by_path)) << text;
    }
    // Found by neither: parts, extensions and other cases of texts, the
    // terminator's texts and those of rows after it.
    for (const char *text : {"rf", "rf1_", "rf1_vap10", "RF1", "lan ", "", "qorconfig.wlan.rf",
                             "qorconfig.wlan.rf1.vap:0", "qorconfig.wlan.rf1.vap.", "end",
                             "qorconfig.end", "after", "qorconfig.after"}) {
        EXPECT_EQ(scan_group_by_name(t, text), nullptr) << text;
        EXPECT_EQ(scan_group_by_path(t, text), nullptr) << text;
    }
    const std::pair<uint32_t, int> gids[] = {
        {0x10200000, 5}, {0x10280000, 8}, {0x20800000, 2}, {0, -1}, {0x30000000, -1}};
    for (const auto &[gid, found] : gids)
        EXPECT_EQ(scan_group_by_gid(t, gid), row(found)) << gid;
    EXPECT_EQ(scan_group_by_name(t, nullptr), nullptr);
    EXPECT_EQ(scan_group_by_path(t, nullptr), nullptr);
    qorcfg_group empty[] = {{0, nullptr, 0, nullptr}};
    EXPECT_EQ(scan_group_by_gid(empty, 0x20800000), nullptr);
    EXPECT_EQ(scan_group_by_name(empty, ""), nullptr);
    EXPECT_EQ(scan_group_by_path(empty, "qorconfig"), nullptr);
}

// The table is the platform's and may change while a process runs: every
// lookup answers as the table reads at the moment of the call, also after
// earlier lookups (and after many changes, when the lookups stop indexing).
// Callers keep the row they get and set its changed mark, which must land in
// the table itself.
TEST(GroupTable, LookupsFollowTheLiveTableAndGiveItsOwnRows) {
    size_t rows = 0;
    while (rows < 100000 && group_table[rows].gid != 0)
        ++rows;
    ASSERT_GT(rows, 10u);
    ASSERT_LT(rows, 100000u) << "group_table has no terminating row";
    for (size_t i = 0; i < rows; ++i) {
        const qorcfg_group &own = group_table[i];
        EXPECT_EQ(group_by_gid(own.gid), scan_group_by_gid(group_table, own.gid)) << own.name;
        EXPECT_EQ(group_by_name(own.name), scan_group_by_name(group_table, own.name)) << own.name;
        EXPECT_EQ(group_by_path(own.path), scan_group_by_path(group_table, own.path)) << own.name;
    }
    group_by_name(group_table[1].name)->changed += 7;
    EXPECT_EQ(group_by_gid(group_table[1].gid)->changed, group_table[1].changed);
    EXPECT_EQ(group_table[1].changed, scan_group_by_gid(group_table, group_table[1].gid)->changed);
    group_table[1].changed -= 7;
    const size_t k = rows / 2;
    qorcfg_group &row = group_table[k];
    const qorcfg_group saved = row, saved_earlier = group_table[k - 1];
    group_table[k - 1].gid = 0;  // the table now ends before the row
    EXPECT_EQ(group_by_gid(saved.gid), nullptr);
    EXPECT_EQ(group_by_name(saved.name), nullptr);
    EXPECT_EQ(group_by_path(saved.path), nullptr);
    group_table[k - 1] = saved_earlier;
    group_table[k - 1].path = saved.path;  // an earlier row with the same path wins
    EXPECT_EQ(group_by_path(saved.path), &group_table[k - 1]);
    group_table[k - 1] = saved_earlier;
    row.gid = 0x7ffffff1;
    EXPECT_EQ(group_by_gid(0x7ffffff1), &row);
    EXPECT_EQ(group_by_gid(saved.gid), nullptr);
    const std::string names[] = {"first-name", "second-name"};
    for (int i = 0; i < 40; ++i) {
        row.name = names[i % 2].c_str();
        EXPECT_EQ(group_by_name(names[i % 2].c_str()), &row) << i;
        EXPECT_EQ(group_by_name(names[(i + 1) % 2].c_str()), nullptr) << i;
        EXPECT_EQ(group_by_name(saved.name), nullptr) << i;
    }
    row = saved;  // back again: found again
    EXPECT_EQ(group_by_name(saved.name), &row);
    EXPECT_EQ(group_by_path(saved.path), &row);
    EXPECT_EQ(group_by_gid(0), nullptr);
    EXPECT_EQ(group_by_name(nullptr), nullptr);
    EXPECT_EQ(group_by_path(nullptr), nullptr);
}

constexpr int32_t kSysDevice = 0x08080000;  // group "sys_device"
constexpr int32_t kAccounts = 0x18080000;   // group "mgmt_accounts"

// "gid:name=value" of every node, head first.
std::string nodes(const qorcfg_item *list) {
    std::string out;
    for (int n = 0; list != nullptr && n < 100; list = list->next, ++n)
        out += std::to_string(list->gid) + ":" + (list->name ? list->name : "(null)") + "=" +
               (list->value ? list->value : "(null)") + " ";
    return out;
}

using ItemListTest = StoreTest;

TEST_F(ItemListTest, NewItemsAreExactCopiesAndAppendedOnesKeepGidOrder) {
    const std::string value(300, 'v');  // an exact copy is not cut
    qorcfg_item *item = get_new_item(-7, "account:1.user", value.c_str());
    EXPECT_EQ(nodes(item), "-7:account:1.user=" + value + " ");
    EXPECT_NE(item->value, value.c_str());
    EXPECT_EQ(free_item_list(item), 0);
    item = get_new_item(1, nullptr, nullptr);  // name and value may be missing
    EXPECT_EQ(nodes(item), "1:(null)=(null) ");
    EXPECT_EQ(free_item_list(item), 0);
    EXPECT_EQ(free_item_list(nullptr), 0);
    EXPECT_EQ(sweep_allocations([] {
                  qorcfg_item *made = get_new_item(2, "name", "value");
                  free_item_list(made);
                  return made != nullptr;
              }),
              3u);

    // Before the first node of a gid >= the new one (so newest first within
    // a gid); gids compare signed: those with the top bit set come first.
    qorcfg_item *list = nullptr;
    const std::pair<uint32_t, const char *> steps[] = {
        {5, "first5"}, {3, "3"},       {5, "second5"},       {1, "1"},
        {9, "tail"},   {~0u, "minus"}, {0x90000000u, "high"}};
    for (const auto &[gid, name] : steps)
        list = append_cfg_item(list, static_cast<int32_t>(gid), name, "x");
    EXPECT_EQ(nodes(list),
              "-1879048192:high=x -1:minus=x 1:1=x 3:3=x 5:second5=x 5:first5=x 9:tail=x ");
    const std::string before = nodes(list);
    CaptureOutput err(STDERR_FILENO);
    EXPECT_EQ(append_cfg_item(list, 1, nullptr, "v"), nullptr);
    EXPECT_EQ(append_cfg_item(list, 1, "n", nullptr), nullptr);
    EXPECT_EQ(append_cfg_item_by_str(list, "no_such_group", "name", "x"), nullptr);
    EXPECT_EQ(append_cfg_item_by_str(list, "qorconfig.system.device", "name", "x"), nullptr);
    EXPECT_EQ(append_cfg_item_by_str(list, nullptr, "name", "x"), nullptr);
    EXPECT_EQ(append_cfg_item_by_str(list, "sys_device", nullptr, "x"), nullptr);
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(nodes(list), before);
    // Out of memory: a message, none, and the list as it was.
    EXPECT_GE(sweep_allocations([&] {
                  const std::string was = nodes(list);
                  CaptureOutput oom(STDERR_FILENO);
                  qorcfg_item *head = append_cfg_item(list, 1, "n", "v");
                  if (head != nullptr)
                      return (list = head) != nullptr;
                  EXPECT_EQ(oom.text(), "Memory allocate error, can't get new item\n");
                  EXPECT_EQ(nodes(list), was);
                  return false;
              }),
              1u);
    free_item_list(list);

    // By group name: the group's ID. Appended values live in zeroed buffers of
    // 256 bytes, cut to 255 characters.
    list = append_cfg_item_by_str(nullptr, "mgmt_accounts", "max", value.c_str());
    list = append_cfg_item_by_str(list, "sys_device", "name", "ap");
    EXPECT_EQ(nodes(list), "134742016:name=ap 403177472:max=" + value.substr(0, 255) + " ");
    EXPECT_EQ(std::string(list->value, QORCFG_VALUE_SIZE), "ap" + std::string(254, '\0'));
    free_item_list(list);
}

TEST_F(ItemListTest, NodesAreFoundByNameAndPrintedInOrder) {
    qorcfg_item *list = append_cfg_item(nullptr, 3, "ssid", "later");
    list = append_cfg_item(list, 1, "ssid", "first");
    list = append_cfg_item(list, 2, "channel", "6");
    EXPECT_STREQ(check_item_exist(list, "ssid")->value, "first");  // the gid is not compared
    EXPECT_EQ(check_item_exist(list, "channel"), list->next);
    for (const char *miss : {"ssi", "ssid ", "SSID"})
        EXPECT_EQ(check_item_exist(list, miss), nullptr) << miss;
    EXPECT_EQ(check_item_exist(list, nullptr), nullptr);
    EXPECT_EQ(check_item_exist(nullptr, "ssid"), nullptr);
    free_item_list(list);

    list = append_cfg_item(nullptr, kAccounts, "account:1.user", "operator");
    list = append_cfg_item(list, static_cast<int32_t>(0xF0000000u), "x", "");
    list = append_cfg_item(list, kSysDevice, "name", "AP 01 %s");
    CaptureOutput err(STDERR_FILENO);
    print_list(list);
    print_list(nullptr);
    EXPECT_EQ(err.text(),
              "1. Gid = -268435456, Name=x Value=\n"
              "2. Gid = 134742016, Name=name Value=AP 01 %s\n"
              "3. Gid = 403177472, Name=account:1.user Value=operator\n");
    free_item_list(list);
}

}  // namespace
