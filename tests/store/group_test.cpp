// tests/store/group_test.cpp - the group table lookups: by group ID, by group
// name and by element path. Rows are scanned from the first to the row whose
// gid is 0, texts match only with the same length and bytes, and the first
// matching row wins; the exported lookups over the device's table give
// exactly the row such a scan of the live table gives, by reference into it.
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "qorcfg.h"
#include "store/group.h"
#include "store/platform.h"

namespace {

using qorcfg::store::scan_group_by_gid;
using qorcfg::store::scan_group_by_name;
using qorcfg::store::scan_group_by_path;

constexpr size_t kMaxRows = 100000;  // far beyond any device's table

// Number of rows of group_table before its terminating row.
size_t table_rows() {
    size_t n = 0;
    while (n < kMaxRows && group_table[n].gid != 0)
        ++n;
    return n;
}

// ---- tables built by the test ------------------------------------------------

TEST(GroupScan, GidZeroEndsTheTable) {
    qorcfg_group table[] = {
        {0x08080000, "device", 0, "qorconfig.sys.device"},
        {0x08180000, "opmode", 0, "qorconfig.sys.opmode"},
        {0, "end", 0, "qorconfig.end"},  // terminator with texts of its own
        {0x20800000, "rf1", 0, "qorconfig.wlan.rf1"},
        {0, nullptr, 0, nullptr},
    };
    EXPECT_EQ(scan_group_by_gid(table, 0x08180000), &table[1]);
    EXPECT_EQ(scan_group_by_gid(table, 0), nullptr);
    // Neither the terminator nor anything after it is seen, by any column.
    EXPECT_EQ(scan_group_by_name(table, "end"), nullptr);
    EXPECT_EQ(scan_group_by_path(table, "qorconfig.end"), nullptr);
    EXPECT_EQ(scan_group_by_gid(table, 0x20800000), nullptr);
    EXPECT_EQ(scan_group_by_name(table, "rf1"), nullptr);
    EXPECT_EQ(scan_group_by_path(table, "qorconfig.wlan.rf1"), nullptr);
}

TEST(GroupScan, TextsMatchOnlyWithTheSameLengthAndBytes) {
    // Longer names come first, so a comparison bounded by the input's length
    // would stop at the wrong row.
    qorcfg_group table[] = {
        {0x20884000, "rf1_vap1", 0, "qorconfig.wlan.rf1.vap"},
        {0x20800040, "rf10", 0, "qorconfig.wlan.rf10"},
        {0x20800000, "rf1", 0, "qorconfig.wlan.rf1"},
        {0x10200000, "lan", 0, "qorconfig.net.lan"},
        {0, nullptr, 0, nullptr},
    };
    const struct {
        const char *text;
        qorcfg_group *by_name;
        qorcfg_group *by_path;
    } cases[] = {
        {"rf1", &table[2], nullptr},
        {"rf10", &table[1], nullptr},
        {"rf", nullptr, nullptr},         // prefix of several names
        {"rf1_", nullptr, nullptr},       // prefix of "rf1_vap1"
        {"rf1_vap10", nullptr, nullptr},  // a row's name is a prefix of it
        {"RF1", nullptr, nullptr},        // bytes, not letters
        {"lan ", nullptr, nullptr},
        {"", nullptr, nullptr},
        {"qorconfig.wlan.rf1", nullptr, &table[2]},
        {"qorconfig.wlan.rf10", nullptr, &table[1]},
        {"qorconfig.wlan.rf", nullptr, nullptr},
        {"qorconfig.wlan", nullptr, nullptr},
        {"qorconfig.wlan.rf1.vap:0", nullptr, nullptr},
        {"qorconfig.wlan.rf1.vap.", nullptr, nullptr},
        {"qorconfig.net.LAN", nullptr, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string("\"") + c.text + "\"");
        EXPECT_EQ(scan_group_by_name(table, c.text), c.by_name);
        EXPECT_EQ(scan_group_by_path(table, c.text), c.by_path);
    }
    EXPECT_EQ(scan_group_by_name(table, nullptr), nullptr);
    EXPECT_EQ(scan_group_by_path(table, nullptr), nullptr);
}

TEST(GroupScan, NamesAndPathsAreSeparateColumns) {
    // Row 0's name is row 1's path text and row 1's name is row 0's path:
    // each lookup must read only its own column.
    qorcfg_group table[] = {
        {0x10600000, "qorconfig.net.dai", 0, "dai"},
        {0x10680000, "dai", 0, "qorconfig.net.dai"},
        {0x18100000, "syslog", 0, "qorconfig.mgmt.syslog"},
        {0, nullptr, 0, nullptr},
    };
    EXPECT_EQ(scan_group_by_name(table, "dai"), &table[1]);
    EXPECT_EQ(scan_group_by_path(table, "dai"), &table[0]);
    EXPECT_EQ(scan_group_by_name(table, "qorconfig.net.dai"), &table[0]);
    EXPECT_EQ(scan_group_by_path(table, "qorconfig.net.dai"), &table[1]);
    EXPECT_EQ(scan_group_by_path(table, "syslog"), nullptr);
    EXPECT_EQ(scan_group_by_name(table, "qorconfig.mgmt.syslog"), nullptr);
}

TEST(GroupScan, FirstOfEqualRowsWins) {
    qorcfg_group table[] = {
        {0x18080000, "accounts", 0, "qorconfig.mgmt.accounts"},
        {0x10200000, "lan", 0, "qorconfig.net.lan"},
        {0x10200400, "lan", 0, "qorconfig.net.lan.dhcp"},         // same name
        {0x10200000, "lan_again", 0, "qorconfig.net.lan_again"},  // same gid
        {0x10280000, "fw", 0, "qorconfig.net.lan.dhcp"},          // same path
        {0, nullptr, 0, nullptr},
    };
    EXPECT_EQ(scan_group_by_name(table, "lan"), &table[1]);
    EXPECT_EQ(scan_group_by_gid(table, 0x10200000), &table[1]);
    EXPECT_EQ(scan_group_by_path(table, "qorconfig.net.lan.dhcp"), &table[2]);
    // The later duplicates stay reachable by their other, unique columns.
    EXPECT_EQ(scan_group_by_name(table, "lan_again"), &table[3]);
    EXPECT_EQ(scan_group_by_gid(table, 0x10280000), &table[4]);
}

TEST(GroupScan, EmptyTableFindsNothing) {
    qorcfg_group table[] = {{0, nullptr, 0, nullptr}};
    EXPECT_EQ(scan_group_by_gid(table, 0), nullptr);
    EXPECT_EQ(scan_group_by_gid(table, 0x20800000), nullptr);
    EXPECT_EQ(scan_group_by_name(table, ""), nullptr);
    EXPECT_EQ(scan_group_by_name(table, "rf1"), nullptr);
    EXPECT_EQ(scan_group_by_path(table, ""), nullptr);
    EXPECT_EQ(scan_group_by_path(table, "qorconfig"), nullptr);
}

// ---- the device's table ------------------------------------------------------

// The table is the platform's and may change while a process runs: every
// lookup answers as the table reads at the moment of the call, also after
// earlier lookups.
TEST(GroupTable, LookupsFollowTheLiveTable) {
    const size_t rows = table_rows();
    ASSERT_LT(rows, kMaxRows) << "group_table has no terminating row";
    ASSERT_GT(rows, 10u);
    const size_t k = rows / 2;
    qorcfg_group &row = group_table[k];
    const qorcfg_group saved = row;
    const qorcfg_group saved_earlier = group_table[k - 1];
    ASSERT_EQ(group_by_gid(saved.gid), &row);
    ASSERT_EQ(group_by_name(saved.name), &row);
    ASSERT_EQ(group_by_path(saved.path), &row);

    group_table[k - 1].gid = 0;  // the table now ends before the row
    EXPECT_EQ(group_by_gid(saved.gid), nullptr);
    EXPECT_EQ(group_by_name(saved.name), nullptr);
    EXPECT_EQ(group_by_path(saved.path), nullptr);
    group_table[k - 1] = saved_earlier;

    row.name = "renamed-by-the-test";
    row.gid = 0x7ffffff1;
    EXPECT_EQ(group_by_name("renamed-by-the-test"), &row);
    EXPECT_EQ(group_by_name(saved.name), nullptr);
    EXPECT_EQ(group_by_gid(0x7ffffff1), &row);
    EXPECT_EQ(group_by_gid(saved.gid), nullptr);
    row = saved;  // back again: found again
    EXPECT_EQ(group_by_name(saved.name), &row);
    EXPECT_EQ(group_by_gid(saved.gid), &row);
    EXPECT_EQ(group_by_name("renamed-by-the-test"), nullptr);

    group_table[k - 1].path = saved.path;  // an earlier row with the same path wins
    EXPECT_EQ(group_by_path(saved.path), &group_table[k - 1]);
    group_table[k - 1] = saved_earlier;
    EXPECT_EQ(group_by_path(saved.path), &row);

    // A table that keeps changing is still read as it is.
    const std::string names[] = {"first-name", "second-name"};
    for (int i = 0; i < 40; ++i) {
        row.name = names[i % 2].c_str();
        EXPECT_EQ(group_by_name(names[i % 2].c_str()), &row) << i;
        EXPECT_EQ(group_by_name(names[(i + 1) % 2].c_str()), nullptr) << i;
    }
    row = saved;
    EXPECT_EQ(group_by_name(saved.name), &row);

    EXPECT_EQ(group_by_gid(0), nullptr);
    EXPECT_EQ(group_by_name(nullptr), nullptr);
    EXPECT_EQ(group_by_path(nullptr), nullptr);
}

// Callers keep the row they get and set its changed mark; the mark must land
// in the table itself, where every later lookup sees it.
TEST(GroupTable, RowsAreTheTablesOwn) {
    const size_t rows = table_rows();
    ASSERT_GT(rows, 0u);
    ASSERT_LT(rows, kMaxRows);
    for (size_t i = 0; i < rows; ++i) {
        qorcfg_group *own = scan_group_by_gid(group_table, group_table[i].gid);
        if (own != &group_table[i])
            continue;  // a later duplicate gid; the first row answers for it
        SCOPED_TRACE("row " + std::to_string(i) + " (" + own->name + ")");
        qorcfg_group *found[] = {group_by_gid(own->gid), group_by_name(own->name),
                                 group_by_path(own->path)};
        for (qorcfg_group *row : found) {
            ASSERT_NE(row, nullptr);
            if (row != own)
                continue;  // an earlier row shares this name or path (checked above)
            const uint32_t saved = own->changed;
            row->changed = saved + 7;
            EXPECT_EQ(group_table[i].changed, saved + 7);
            EXPECT_EQ(group_by_gid(own->gid)->changed, saved + 7);
            row->changed = saved;
        }
        EXPECT_EQ(found[0], own);
    }
}

}  // namespace
