// tests/change/sync_test.cpp - saving and the file writer; the sync record's format, merging and
// reader; whether an apply may start; and the reboot decisions.
#include "tests/change/fixture.h"

namespace {

using namespace qorcfg::test;

void put(const Sandbox &sandbox, const char *file, const std::string &text) {
    text == "-" ? sandbox.remove(file) : sandbox.write(file, text);
}
// `text` with the first `from` after the first `after` replaced by `to`.
std::string replaced(std::string text, const std::string &from, const std::string &to,
                     const std::string &after = "") {
    return text.replace(text.find(from, text.find(after)), from.size(), to);
}

TEST_F(ChangeTest, SavingWritesTheTreeWholeAndOnlyTheNotifyingFormTellsTheDaemons) {
    sandbox.write(config_ram, config_doc("ram"));
    Handle h = open_net(config_ram);  // loaded first
    EXPECT_EQ(std::vector<int>({save_qorcfg(h.get(), config_rom), save_qorcfg_r(h.get(), "/tmp/r"),
                                save_qorcfg_r(h.get(), ""), save_qorcfg(nullptr, "/tmp/x")}),
              std::vector<int>({0, 0, -7, -1}));
    EXPECT_EQ(sandbox.read(config_rom) + sandbox.read("/tmp/r") + signalled(),
              xml_of(h->xml) + xml_of(h->xml) + "101 102 103 ");
    // Text, path, length, the file before ("-": none); result, the file after.
    const std::tuple<const char *, const char *, int, const char *, int, std::string> cases[] = {
        {"abcdef", "/tmp/w", 3, "before", 0, "abc"}, {"abcdef", "/tmp/w", 0, "-", 0, "abcdef"},
        {"abcdef", "/tmp/w", -1, "before", 0, ""},   {nullptr, "/tmp/w", 0, "-", -6, "-"},
        {"x", "/none/w", 0, "-", -7, "-"},           {"x", "", 0, "-", -7, "-"},
    };
    for (const auto &[text, path, length, before, rc, after] : cases) {
        put(sandbox, path, before);
        EXPECT_EQ(write_cfg_file(text, path, length), rc) << path << " " << length;
        EXPECT_EQ(sandbox.exists(path) ? sandbox.read(path) : "-", after) << path << " " << length;
    }
    EXPECT_EQ(write_cfg_file("x", nullptr, 0), -7);
}

TEST_F(ChangeTest, TheSyncRecordMergesGroupsInOrderAndItsFlagOnlyRises) {
    install_sample(sandbox);
    // Group IDs and reboot flag given; the lines added and the flag afterwards.
    const std::tuple<std::vector<uint32_t>, int, std::string, char> steps[] = {
        {{kDai, 0x20800000}, 0, "274726912\n545259520\n", '0'},
        {{0x20800000, 0x10500000}, 0, "273678336\n", '0'},
        {{kDevice, kDai, kDevice}, 0, "134742016\n134742016\n", '0'},  // twice in one call
        {{0x10500000}, 1, "", '1'},
        {{0x18080000}, 0, "403177472\n", '1'},
    };
    std::string groups;
    for (const auto &[gids, reboot, added, flag] : steps) {
        EXPECT_EQ(write_sync_record(gids.data(), static_cast<int>(gids.size()), reboot), 0);
        EXPECT_EQ(sandbox.read(kSyncRecord), flag + ("\n" + (groups += added)));
    }
    EXPECT_EQ(write_sync_record(nullptr, 1, 0), -1);
}

TEST_F(ChangeTest, PendingChangesRebootMarksAndApplyPermissionAreReadFromTheirFiles) {
    // The record and the radio marker ("-": none); check_apply_need_reboot, chk_apply_need_reboot
    // and its flag, check_rf_need_reboot, chk_cfg_sync and its flag.
    for (const auto &[record, rf, want] :
         {std::tuple<std::string, std::string, std::vector<int>>{"-", "1 x\n", {0, 0, 0, 1, 0, 0}},
          {"1 x\n7\n", "-", {1, 0, 1, 0, 0, 1}},
          {"0\n1\n", "2\n", {0, 0, 0, 0, 0, 1}}}) {
        put(sandbox, kSyncRecord, record);
        put(sandbox, "/tmp/rf_need_reboot", rf);
        int pending = -1, reboot = -1;
        EXPECT_EQ(std::vector<int>(
                      {check_apply_need_reboot(), chk_apply_need_reboot(&pending, &reboot), reboot,
                       check_rf_need_reboot(), chk_cfg_sync(kSyncRecord, &pending), pending}),
                  want)
            << record;
    }
    // The record and whether an apply of the group IDs 30, 10, 20 (sorted in place) may start.
    for (const auto &[record, rc] :
         {std::pair<std::string, int>{"-", 0}, {"10 20 30 \n", 0}, {"10 20 30\n", -14}}) {
        put(sandbox, kSyncRecord, record);
        int gids[] = {30, 10, 20, 0, 5};
        EXPECT_EQ(can_apply(gids), rc) << record;
        EXPECT_EQ(std::vector<int>(gids, gids + 5), std::vector<int>({10, 20, 30, 0, 5}));
    }
    const uint32_t gids[] = {5, 7};
    EXPECT_EQ(
        std::vector<int>({chkGIDdup(gids, 2, 9), chkGIDdup(gids, 2, 7), chkGIDdup(nullptr, 1, 5)}),
        std::vector<int>({0, -1, -1}));
}

TEST_F(ChangeTest, RebootIsNeededForSomeGroupsByDeviceTypeRolesAndRadioState) {
    const std::string flash = sample("/conf/config.xml");  // type "AP", radios' roles "ap"
    sandbox.write(current_config, replaced(flash, "<rf3 state=", "<rf3 off="));
    // Device type, radio 1's and radio 2's roles, the item, whether a reboot is needed.
    std::vector<std::string> cases = {
        "AP ap ap 10080000:proto=static 1",  "CPE ap ap 10080000:proto=static 0",
        "AP ap,rep ap 20884000:ssid=x 1",    "CPE ap,wds,rep ap 20800000:channel=1 1",
        "AP ap ap 20800000:state=disable 1", "AP ap ap 21000000:outdoor_use=on 1",
        "AP rep ap 21000000:channel=1 1",    "AP ap ap 21800000:state=disable 1",
        "AP ap ap 22000000:state=disable 0",  // rf3 unreadable
        "AP ap ap 8080000:name=x 0"};
    for (const char *gid : {"8180000", "10100000", "10500000", "10600000", "10780000", "18680000",
                            "18780000", "20a80000", "20a84000"})
        cases.push_back(std::string("CPE ap ap ") + gid + ":x=y 1");
    for (const std::string &c : cases) {
        std::istringstream in(c);
        std::string type, roles1, roles2, item;
        int reboot = -1, flag = 0;
        in >> type >> roles1 >> roles2 >> item >> reboot;
        const std::string doc =
            replaced(flash, "<opmode type=\"AP\"", "<opmode type=\"" + type + "\"");
        sandbox.write(config_ram,
                      replaced(replaced(doc, "roles=\"ap\"", "roles=\"" + roles1 + "\""),
                               "roles=\"ap\"", "roles=\"" + roles2 + "\"", "<rf2 "));
        EXPECT_EQ(check_items_need_reboot(open_file(config_ram).get(), items(item).get(), &flag),
                  0);
        EXPECT_EQ(flag, reboot) << c;
    }
    sandbox.write(config_ram, flash);
    Handle h = open_file(config_ram);
    Items any = items("8080000:a=b");
    int flag = 1, kept = 7;  // a flag once set is never cleared; no items leave it as it is
    EXPECT_EQ(std::vector<int>({check_items_need_reboot(h.get(), any.get(), &flag),
                                check_items_need_reboot(h.get(), nullptr, &kept),
                                check_items_need_reboot(nullptr, any.get(), &flag), flag, kept}),
              std::vector<int>({0, 0, -1, 1, 7}));
    sandbox.remove(current_config);  // opened only when needed
    EXPECT_EQ(std::vector<int>(
                  {check_items_need_reboot(h.get(), any.get(), &(flag = 0)),
                   check_items_need_reboot(h.get(), items("20800000:state=on").get(), &flag)}),
              std::vector<int>({0, -1}));
}

}  // namespace
