// tests/backup/permissions_test.cpp - the user group of a user name and the permission values of
// configuration groups and operations, looked up in the sample device's tables: exact,
// case-sensitive names, and "not found" (-1 for users, 0 for permissions).
#include "tests/support/fixtures.h"

namespace {

TEST(Permissions, LookupsByNameAndIdInTheDevicesTables) {
    const std::pair<const char *, int> users[] = {
        {"admin", 1},          {"root", 1},   {"operator", 2}, {"support", 2}, {"guest", 3},
        {"monitor", 3},        {"Admin", -1}, {"ADMIN", -1},   {"admin ", -1}, {"adm", -1},
        {"administrator", -1}, {"", -1},      {nullptr, -1}};
    for (const auto &[name, group] : users)
        EXPECT_EQ(getUserGroup(name), group) << (name ? name : "(null)");
    // A name and an ID, each looked up in both tables; the configuration permission wanted by
    // name and by group ID, the operation permission by name and by operation ID.
    const std::tuple<const char *, uint32_t, uint32_t, uint32_t> rows[] = {
        {"SYSTEM_DEVICE", 0x08080000, 0x3, 0},
        {"OPMODE", 0x08180000, 0x1, 0},
        {"AUTH_SERVER", 0x30041000, 0x1, 0},
        {"REBOOT", 1, 0, 0x1},
        {"PING", 7, 0, 0x7},
        {"SHELL", 13, 0, 0x1},
        {"system_device", 0x08080001, 0, 0},
        {"ping", 14, 0, 0},
        {"PING ", 0xFFFFFFFF, 0, 0},
        {"", 0, 0, 0},
        {nullptr, 0, 0, 0}};
    for (const auto &[name, id, config, operation] : rows)
        EXPECT_EQ(
            std::make_tuple(getConfigPermissionByName(name), getConfigPermissionByGID(id),
                            getOperationPermissionByName(name), getOperationPermissionByOID(id)),
            std::make_tuple(config, config, operation, operation))
            << (name ? name : "(null)") << " " << std::hex << id;
}

TEST(Permissions, UpperCaseConvertsInPlace) {
    char text[] = "rf1_vap1 ok\xe9~", empty[] = "", group[] = "system_device";
    EXPECT_EQ(upperCase(text) + upperCase(empty) + upperCase(nullptr) + upperCase(group), 0);
    EXPECT_EQ(std::string(text) + "|" + empty, "RF1_VAP1 OK\xe9~|");
    EXPECT_EQ(getConfigPermissionByName(group), 0x3u);  // upper-cased, the name is found
}

}  // namespace
