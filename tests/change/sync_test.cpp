// tests/change/sync_test.cpp - saving a tree and the file writer; the sync record's format,
// merging and readers; whether an apply may start; and the reboot decisions.
#include "tests/change/fixture.h"

namespace {

using namespace qorcfg::test;

void put(const Sandbox &sandbox, const char *file, const std::string &text) {
    if (text == "-")
        sandbox.remove(file);
    else
        sandbox.write(file, text);
}
std::string replaced(std::string text, const std::string &from, const std::string &to) {
    const size_t at = text.find(from);
    return at == std::string::npos ? "(no " + from + ")" : text.replace(at, from.size(), to);
}

TEST_F(ChangeTest, SavingWritesTheTreeWholeAndOnlyTheNotifyingFormTellsTheDaemons) {
    sandbox.write(config_ram, config_doc("ram"));
    Handle h = open_net(config_ram);  // loaded first
    std::string seen;
    os::set_call_hook([&](Call kind, unsigned) { seen += kind == Call::rename ? held() : ""; });
    EXPECT_EQ(save_qorcfg(h.get(), config_rom), 0);
    os::set_call_hook(nullptr);
    EXPECT_EQ(seen, "qorcfg_rom(ex) ");  // the file's own lock, no access lock
    EXPECT_EQ(sandbox.read(config_rom), xml_of(h->xml));
    EXPECT_EQ(signalled(), "");
    EXPECT_EQ(save_qorcfg_r(h.get(), "/tmp/r.xml"), 0);
    EXPECT_EQ(sandbox.read("/tmp/r.xml"), xml_of(h->xml));
    EXPECT_EQ(save_qorcfg_r(h.get(), ""), -7);
    EXPECT_EQ(save_qorcfg(nullptr, "/tmp/x"), -1);
    EXPECT_EQ(signalled(), "101 102 103 ");
    sandbox.remove(config_ram);
    sandbox.remove(config_rom);
    EXPECT_EQ(save_qorcfg(open_net(config_ram).get(), "/tmp/x"), -1);  // nothing to load
    EXPECT_FALSE(sandbox.exists("/tmp/x"));

    // Text, path, length, the file's content before ("-": none); result, content after.
    const std::tuple<const char *, const char *, int, const char *, int, std::string> cases[] = {
        {"abcdef", "/tmp/w", 3, "previous", 0, "abc"},
        {"abcdef", "/tmp/w", 0, "-", 0, "abcdef"},
        {"abcdef", "/tmp/w", -1, "previous", 0, ""},
        {"abcdef", "/tmp/w", -1, "-", 0, ""},
        {nullptr, "/tmp/w", 0, "-", -6, "-"},
        {"x", "/none/w", 0, "-", -7, "-"},
        {"x", config_rom, 0, "previous", -10, "previous"}};
    for (const auto &[text, path, length, before, rc, after] : cases) {
        put(sandbox, path, before);
        if (rc == -10)
            sandbox.mkdir("/var/lock/qorcfg_rom");  // the lock file cannot be opened
        EXPECT_EQ(write_cfg_file(text, path, length), rc) << path << " " << length;
        EXPECT_EQ(sandbox.exists(path) ? sandbox.read(path) : "-", after) << path << " " << length;
    }
    EXPECT_EQ(write_cfg_file("x", nullptr, 0) + write_cfg_file("x", "", 0), -14);
}

TEST_F(ChangeTest, TheSyncRecordMergesGroupsInOrderAndItsFlagOnlyRises) {
    install_sample(sandbox);
    // Group IDs and reboot flag given; the lines added and the flag afterwards.
    const std::tuple<std::vector<uint32_t>, int, std::string, char> steps[] = {
        {{0x10600000, 0x20800000}, 0, "274726912\n545259520\n", '0'},
        {{0x10600000}, 0, "", '0'},
        {{0x20800000, 0x10500000}, 0, "273678336\n", '0'},
        {{kDevice, 0x10600000, kDevice}, 0, "134742016\n134742016\n", '0'},
        {{0x10500000}, 1, "", '1'},
        {{0x18080000}, 0, "403177472\n", '1'},
    };
    std::string groups;
    for (const auto &[gids, reboot, added, flag] : steps) {
        EXPECT_EQ(write_sync_record(gids.data(), static_cast<int>(gids.size()), reboot), 0);
        groups += added;
        EXPECT_EQ(sandbox.read(kSyncRecord), flag + ("\n" + groups));
    }
    EXPECT_EQ(write_sync_record(nullptr, 1, 0), -1);
    EXPECT_EQ(sandbox.read(kSyncRecord), "1\n" + groups);
    sandbox.remove(kSyncRecord);
    const uint32_t dai = 0x10600000;
    EXPECT_EQ(write_sync_record(&dai, 1, 1), 0);
    EXPECT_EQ(sandbox.read(kSyncRecord), "1\n274726912\n");

    sandbox.write(kSyncRecord, "1\n5 junk\n7\n");
    uint32_t *record = nullptr;
    int count = -1;
    EXPECT_EQ(read_sync_record(&record, &count, 2), 0);
    EXPECT_EQ(std::vector<uint32_t>(record, record + count + 3),
              (std::vector<uint32_t>{1, 5, 7, 0, 0}));
    std::free(record);
    sandbox.remove(kSyncRecord);
    EXPECT_EQ(read_sync_record(&record, &count, 1), 0);
    EXPECT_EQ(std::vector<uint32_t>(record, record + count + 2), (std::vector<uint32_t>{0, 0}));
    std::free(record);
}

TEST_F(ChangeTest, PendingChangesAndRebootNeedsAreReadFromTheirFiles) {
    // The record and the radio marker ("-": none); whether each says a reboot is needed.
    const std::tuple<std::string, std::string, int, int> cases[] = {{"-", "-", 0, 0},
                                                                    {"1\n", "1\n", 1, 1},
                                                                    {"0\n1\n", "2\n", 0, 0},
                                                                    {"1 x\n7\n", "1 x\n", 1, 1},
                                                                    {"", "", 0, 0}};
    for (const auto &[record, rf, apply, rf_reboot] : cases) {
        put(sandbox, kSyncRecord, record);
        put(sandbox, "/tmp/rf_need_reboot", rf);
        int pending = -1, reboot = -1;
        EXPECT_EQ(check_apply_need_reboot(), apply) << record;
        EXPECT_EQ(chk_apply_need_reboot(&pending, &reboot), 0);
        EXPECT_EQ(reboot, apply) << record;
        EXPECT_EQ(check_rf_need_reboot(), rf_reboot) << rf;
        EXPECT_EQ(chk_cfg_sync(kSyncRecord, &pending), 0);
        EXPECT_EQ(pending, record == "-" ? 0 : 1) << record;
    }
    // The record; can_apply; match_sync_record's result, lines and matching lines.
    const std::tuple<std::string, int, int, int, int> records[] = {
        {"-", 0, 0, 0, 0},
        {"", 0, 1, 0, 0},
        {"10 20 30 \n", 0, 1, 1, 1},
        {"10 20 30\n", -14, 1, 1, 0},
        {"10 20 30 \n10 20 30 \n", -14, 1, 2, 2},
        {"0\n10\n20\n30\n", -14, 1, 4, 0},
        {"x\n10 20 30 \n", -14, 1, 2, 1}};
    for (const auto &[record, rc, found, lines, matches] : records) {
        put(sandbox, kSyncRecord, record);
        int gids[] = {30, 10, 20, 0, 5}, again[] = {20, 30, 10, -1}, seen_lines = 0,
            seen_matches = 0;
        EXPECT_EQ(can_apply(gids), rc) << record;
        EXPECT_EQ(std::vector<int>(gids, gids + 5), (std::vector<int>{10, 20, 30, 0, 5}));
        EXPECT_EQ(change::match_sync_record(again, &seen_lines, &seen_matches), found) << record;
        if (found == 1)
            EXPECT_EQ(std::pair(seen_lines, seen_matches), std::pair(lines, matches)) << record;
    }
    const uint32_t gids[] = {5, 7, 9};
    EXPECT_EQ(std::vector<int>({chkGIDdup(gids, 2, 9), chkGIDdup(gids, 2, 7), chkGIDdup(gids, 3, 9),
                                chkGIDdup(gids, 0, 5), chkGIDdup(nullptr, 3, 5)}),
              std::vector<int>({0, -1, -1, 0, -1}));
}

TEST_F(ChangeTest, RebootIsNeededForSomeGroupsByDeviceTypeRolesAndRadioState) {
    const std::string flash = sample("/conf/config.xml");
    sandbox.write(current_config, replaced(flash, "<rf3 state=", "<rf3 off="));  // unreadable
    const auto device = [&](const std::string &type, const std::string &roles1,
                            const std::string &roles2) {
        std::string doc = replaced(flash, "<opmode type=\"AP\"", "<opmode type=\"" + type + "\"");
        doc = replaced(doc, "\"6\" country=\"US\" roles=\"ap\"",
                       "\"6\" country=\"US\" roles=\"" + roles1 + "\"");
        sandbox.write(config_ram, replaced(doc, "\"36\" country=\"US\" roles=\"ap\"",
                                           "\"36\" country=\"US\" roles=\"" + roles2 + "\""));
        return open_file(config_ram);
    };
    // Device type, radio 1's and radio 2's roles; the item; whether a reboot is needed.
    std::vector<std::tuple<std::string, std::string, std::string, Row, int>> cases = {
        {"AP", "ap", "ap", {0x10080000, "proto", "static"}, 1},
        {"CPE", "ap", "ap", {0x10080000, "proto", "static"}, 0},
        {"AP", "ap,rep", "ap", {0x20884000, "ssid", "x"}, 1},
        {"AP", "ap", "ap", {0x20884000, "ssid", "x"}, 0},
        {"CPE", "ap,wds,rep", "ap", {0x20800000, "channel", "1"}, 1},
        {"AP", "ap", "ap", {0x20800000, "channel", "1"}, 0},
        {"AP", "ap", "ap", {0x20800000, "state", "disable"}, 1},
        {"AP", "ap", "ap", {0x20800000, "state", "enable"}, 0},
        {"CPE", "ap", "ap", {0x20800000, "state", "disable"}, 0},
        {"AP", "ap", "ap", {0x21000000, "outdoor_use", "on"}, 1},
        {"AP", "ap", "ap", {0x21000000, "outdoor_use", "disable"}, 0},
        {"AP", "rep", "ap", {0x21000000, "channel", "1"}, 1},
        {"AP", "ap", "ap,rep", {0x21000000, "channel", "1"}, 0},
        {"AP", "ap", "ap", {0x21800000, "state", "disable"}, 1},
        {"AP", "ap", "ap", {0x22000000, "state", "disable"}, 0},
        {"AP", "ap", "ap", {kDevice, "name", "x"}, 0}};
    for (uint32_t gid : {0x08180000, 0x10100000, 0x10500000, 0x10600000, 0x10780000, 0x18680000,
                         0x18780000, 0x20a80000, 0x20a84000})
        cases.emplace_back("CPE", "ap", "ap", Row{gid, "x", "y"}, 1);
    for (const auto &[type, roles1, roles2, item, reboot] : cases) {
        Handle h = device(type, roles1, roles2);
        int flag = 0;
        EXPECT_EQ(check_items_need_reboot(h.get(), items({item}).get(), &flag), 0);
        EXPECT_EQ(flag, reboot) << type << " " << roles1 << " " << roles2 << " "
                                << std::get<0>(item) << " " << std::get<1>(item);
    }
    Handle h = device("AP", "ap", "ap");
    int flag = 7;
    EXPECT_EQ(check_items_need_reboot(h.get(), nullptr, &flag), 0);
    EXPECT_EQ(flag, 7);  // untouched
    flag = 1;
    EXPECT_EQ(check_items_need_reboot(h.get(), items({{kDevice, "name", "x"}}).get(), &flag), 0);
    EXPECT_EQ(flag, 1);  // never cleared
    EXPECT_EQ(check_items_need_reboot(nullptr, items({{kDevice, "name", "x"}}).get(), &flag), -1);
    sandbox.remove(current_config);  // opened only when needed
    EXPECT_EQ(check_items_need_reboot(h.get(), items({{kDevice, "name", "x"}}).get(), &flag), 0);
    EXPECT_EQ(
        check_items_need_reboot(h.get(), items({{0x20800000, "state", "enable"}}).get(), &flag),
        -1);
}

}  // namespace
