// platform/tables.cpp - the data of the stand-in platform library: file
// paths, the group table of the sample device, the radio and VAP group IDs,
// user and permission tables, and the product magic.
#include <cstddef>

#include "platform/device.h"
#include "store/platform.h"

namespace {

using qorcfg::device::radio_base;
using qorcfg::device::vap_gid;

constexpr size_t kMaxGroups = 1024;

}  // namespace

extern "C" {

const char config_ram[] = "/tmp/config.xml";
const char config_rom[] = "/conf/config.xml";
const char current_config[] = "/tmp/current_config.xml";
const char backup_cfg_file[] = "/tmp/config_backup.cfg";
const char restored_cfg_file[] = "/tmp/restored_config.xml";

// Filled from the device description when the library is loaded; the rows
// after the last group stay zero (gid 0 ends the table).
qorcfg_group group_table[kMaxGroups + 1];

const uint32_t gid_rf[qorcfg::device::kRadios] = {radio_base(0), radio_base(1), radio_base(2),
                                                  radio_base(3)};

#define QORCFG_VAPS_OF(r)                                                                     \
    vap_gid(r, 0), vap_gid(r, 1), vap_gid(r, 2), vap_gid(r, 3), vap_gid(r, 4), vap_gid(r, 5), \
        vap_gid(r, 6), vap_gid(r, 7), vap_gid(r, 8), vap_gid(r, 9), vap_gid(r, 10),           \
        vap_gid(r, 11), vap_gid(r, 12), vap_gid(r, 13), vap_gid(r, 14), vap_gid(r, 15)
const uint32_t gid_vap[qorcfg::device::kRadios * qorcfg::device::kVaps] = {
    QORCFG_VAPS_OF(0), QORCFG_VAPS_OF(1), QORCFG_VAPS_OF(2), QORCFG_VAPS_OF(3)};
#undef QORCFG_VAPS_OF

// The product: QAP-2230 (see prd_id_tbl).
const uint32_t magic = 0x0002000e;

// User groups: 1 administrators, 2 operators, 3 guests (read only).
const qorcfg_user user_table[] = {{1, "admin"}, {1, "root"},    {2, "operator"}, {2, "support"},
                                  {3, "guest"}, {3, "monitor"}, {0, nullptr}};

// Permission values: which user groups may change a part of the
// configuration or run an operation (bit 0 administrators, bit 1
// operators, bit 2 guests).
const qorcfg_perm conf_perm_table[] = {{0x08080000, "SYSTEM_DEVICE", 0x3},
                                       {0x08100000, "SYSTEM_TIME", 0x3},
                                       {0x08180000, "OPMODE", 0x1},
                                       {0x08200000, "AUTO_REBOOT", 0x1},
                                       {0x10080000, "WAN", 0x1},
                                       {0x10100000, "L2", 0x1},
                                       {0x10200000, "LAN", 0x1},
                                       {0x10200400, "LAN_DHCP", 0x3},
                                       {0x10500000, "FIREWALL", 0x1},
                                       {0x10600000, "DAI", 0x1},
                                       {0x29000000, "VLAN", 0x1},
                                       {0x18080000, "ACCOUNTS", 0x1},
                                       {0x18100000, "SYSLOG", 0x3},
                                       {0x18180400, "SNMP", 0x1},
                                       {0x18180800, "HTTP", 0x1},
                                       {0x18200000, "REMOTE_ACCESS", 0x1},
                                       {0x20800000, "RADIO1", 0x3},
                                       {0x21000000, "RADIO2", 0x3},
                                       {0x21800000, "RADIO3", 0x3},
                                       {0x20884000, "RADIO1_VAP1", 0x3},
                                       {0x21084000, "RADIO2_VAP1", 0x3},
                                       {0x20980000, "RADIO1_SCAN", 0x3},
                                       {0x30042800, "PORTAL_POLICY", 0x3},
                                       {0x30041000, "AUTH_SERVER", 0x1},
                                       {0, nullptr, 0}};

const qorcfg_perm oper_perm_table[] = {
    {1, "REBOOT", 0x1},  {2, "RESET", 0x1},     {3, "BACKUP", 0x3},     {4, "RESTORE", 0x1},
    {5, "UPGRADE", 0x1}, {6, "APPLY", 0x3},     {7, "PING", 0x7},       {8, "TRACEROUTE", 0x7},
    {9, "SCAN", 0x3},    {10, "LOG_VIEW", 0x7}, {11, "LOG_CLEAR", 0x1}, {12, "KICK_STATION", 0x3},
    {13, "SHELL", 0x1},  {0, nullptr, 0}};

}  // extern "C"

namespace {

// Runs when the library is loaded, before any program code.
struct FillGroupTable {
    FillGroupTable() {
        size_t n = 0;
        for (const qorcfg::device::Group &g : qorcfg::device::groups()) {
            if (n == kMaxGroups)
                break;
            group_table[n++] = qorcfg_group{g.gid, g.name.c_str(), 0, g.path.c_str()};
        }
    }
} fill_group_table;

}  // namespace
