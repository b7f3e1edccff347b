// apply/groups.cpp - what makes one changed group take effect: a table of
// rows, each a set of group IDs with the message printed first and the
// service commands run in order, or the radio routine the row hands over to.
#include <cstdio>
#include <iterator>

#include "apply/apply.h"
#include "store/groups.h"
#include "store/platform.h"
#include "sys/command.h"

namespace qorcfg::apply {
namespace {

using store::radio_group;

constexpr const char *kRcLed = "/etc/rc.d/rc.led";
constexpr const char *kRcSystime = "/etc/rc.d/rc.systime";
constexpr const char *kRcDdns = "/etc/rc.d/rc.ddns";
constexpr const char *kRcRadius = "/etc/rc.d/rc.radius";
constexpr const char *kBfirewall = "/etc/rc.d/bfirewall.sh";
constexpr const char *kDai = "/etc/rc.d/DAI.sh";
constexpr const char *kSmtpRedir = "/ramfs/bin/smtp_redir.sh";
constexpr const char *kIpPass = "/ramfs/bin/ip_pass.sh";
constexpr const char *kMacPass = "/ramfs/bin/mac_pass.sh";
constexpr const char *kSessionLimit = "/ramfs/bin/session_limit.sh";

// The group IDs of a row: first, first + step, ... up to last.
struct Ids {
    uint32_t first, last, step;

    constexpr bool has(uint32_t gid) const {
        return gid >= first && gid <= last && (step == 0 || (gid - first) % step == 0);
    }
    constexpr int count() const {
        return step == 0 ? 1 : static_cast<int>((last - first) / step) + 1;
    }
};

constexpr Ids one(uint32_t gid) {
    return {gid, gid, 0};
}
constexpr Ids range(uint32_t first, uint32_t last, uint32_t step) {
    return {first, last, step};
}
// Subgroup `offset` of each of radio r's sixteen VAPs.
constexpr Ids vaps(int r, uint32_t offset) {
    const uint32_t first = radio_group(r) + store::kVapOffset + offset;
    return {first, first + 15 * store::kVapStride, store::kVapStride};
}
// Radio r's eight radio-level groups after the VAPs (its base group is one
// more).
constexpr Ids radio_params(int r) {
    return range(radio_group(r) + 0x100400, radio_group(r) + 0x102000, 0x400);
}
// Radio r's four WME (access category) groups.
constexpr Ids wme(int r) {
    return range(radio_group(r) + 0x300000, radio_group(r) + 0x300c00, 0x400);
}

enum class Action {
    kRun,            // the row's commands, then 0
    kLanDhcp,        // the DHCP server restarted on the LAN interface
    kRestartRadio3,  // the row's commands, and the radios count as restarted
    kVap,            // apply_vap_group
    kRadio,          // apply_radio_group
    kWme,            // configure_wme on radio 0 or 1; radio 2 runs nothing
};

// A command line: "<script> <argument>", or the script alone.
struct Command {
    const char *script;
    const char *argument;
};

struct Row {
    Ids ids;
    Action action;
    const char *message;  // printed first, or none
    Command commands[4];
};

constexpr Action kRun = Action::kRun;

constexpr Row kRows[] = {
    // System.
    {one(0x08080000), kRun, "Commit System Device information\n", {{kRcLed, "Light"}}},
    {one(0x08100000), kRun, "Commit System Time information\n", {{kRcSystime, "setup_time"}}},
    {one(0x08180000), kRun, "Commit Operation Mode.\n", {}},
    {one(0x08200000), kRun, "Apply GID_AUTO_REBOOT\n", {{kRcMgnt, "restart_crond"}}},
    // Network.
    {one(0x10080000),
     kRun,
     nullptr,
     {{kRcNet, "setup_dns"},
      {kRcBridge, "restart"},
      {kRcNet, "restart_wan"},
      {kFirewallMod, "BWC"}}},
    {one(0x10100000),
     kRun,
     nullptr,
     {{kRcBridge, "restart"}, {kRcNet, "restart_wan"}, {kRcWlan, "start_hostapd"}}},
    {one(0x10200000), kRun, "Apply GID_LAN..\n", {{kRcNet, "restart_lan"}}},
    {one(0x10200400), Action::kLanDhcp, "Apply GID_LAN_DHCP..\n", {}},
    {one(0x10280400), kRun, nullptr, {{kFirewallMod, "URLF"}}},
    {one(0x10280800), kRun, nullptr, {{kFirewallMod, "DMZ"}}},
    {one(0x10280c00), kRun, nullptr, {{kFirewallMod, "RED"}}},
    {one(0x10300000), kRun, "Apply GID_UPNP\n", {{kFirewallMod, "UPNP"}}},
    {one(0x10380000), kRun, "Apply DDNS...\n", {{kRcDdns, "&"}}},  // in the background
    {one(0x10500000), kRun, "Apply firewall...\n", {{kBfirewall, nullptr}}},
    {one(0x10580000), kRun, "Commit firewall service...\n", {}},
    {one(0x10600000), kRun, "Apply DAI...\n", {{kDai, "restart"}}},
    // Management.
    {range(0x18080000, 0x18080800, 0x400), kRun, nullptr, {}},
    {one(0x18100000), kRun, nullptr, {{kRcMgnt, "restart_syslog"}}},
    {one(0x18180400), kRun, nullptr, {{kRcMgnt, "restart_snmp"}, {kRcMgnt, "restart_syslog"}}},
    {one(0x18280000), kRun, nullptr, {{kRcMgnt, "restart_agent"}}},
    {range(0x18300000, 0x18300400, 0x400), kRun, nullptr, {{kRcMgnt, "restart_syslog"}}},
    {one(0x18380000), kRun, nullptr, {}},
    {one(0x18380400), kRun, nullptr, {{kRcMgnt, "restart_syslog"}}},
    {one(0x18500000), kRun, nullptr, {{kSmtpRedir, nullptr}}},
    {one(0x18580000), kRun, nullptr, {{kRcMgnt, "write_mgmtip"}}},
    {one(0x18600000), kRun, nullptr, {{kRcMgnt, "restart_wes"}}},
    {one(0x18780000), kRun, nullptr, {{kRcMgnt, "debug"}}},
    // Access control.
    {one(0x29880000), kRun, nullptr, {}},
    {range(0x29888800, 0x29894800, 0x4000), kRun, nullptr, {{kRcRadius, "write_map"}}},
    {range(0x29898000, 0x29898400, 0x400), kRun, nullptr, {{kRcMgnt, "reload_ether_print"}}},
    {range(0x29984000, 0x29986400, 0x400), kRun, nullptr, {{kRcMgnt, "restart_ether_print"}}},
    {range(0x29a84000, 0x29a85400, 0x400), kRun, nullptr, {{kRcMgnt, "write_blacklist"}}},
    {one(0x29b04000), kRun, nullptr, {{kIpPass, nullptr}}},
    {one(0x29b08000), kRun, nullptr, {{kMacPass, nullptr}}},
    // Captive portal: each VLAN's policy, and its page (nothing to run).
    {range(0x30042800, 0x30062800, 0x2000), kRun, nullptr, {{kSessionLimit, nullptr}}},
    {range(0x30042c00, 0x30062c00, 0x2000), kRun, nullptr, {}},
    // Radios: the VAPs' change-tracked subgroups, ...
    {vaps(0, 0x000), Action::kVap, nullptr, {}},
    {vaps(0, 0x400), Action::kVap, nullptr, {}},
    {vaps(0, 0x800), Action::kVap, nullptr, {}},
    {vaps(0, 0x1000), Action::kVap, nullptr, {}},
    {vaps(1, 0x000), Action::kVap, nullptr, {}},
    {vaps(1, 0x400), Action::kVap, nullptr, {}},
    {vaps(1, 0x800), Action::kVap, nullptr, {}},
    {vaps(1, 0x1000), Action::kVap, nullptr, {}},
    {vaps(2, 0x000), Action::kVap, nullptr, {}},
    {vaps(2, 0x400), Action::kVap, nullptr, {}},
    {vaps(2, 0x800), Action::kVap, nullptr, {}},
    {vaps(2, 0x1000), Action::kVap, nullptr, {}},
    // ... the groups that re-create the VAPs as well (the fourth radio's
    // are taken and left alone by the VAP apply), ...
    {one(0x20a00000), Action::kVap, nullptr, {}},
    {range(0x20a04000, 0x20a04400, 0x400), Action::kVap, nullptr, {}},
    {one(0x20a80000), Action::kVap, nullptr, {}},
    {one(0x20a84000), Action::kVap, nullptr, {}},
    {one(0x21200000), Action::kVap, nullptr, {}},
    {one(0x21204000), Action::kVap, nullptr, {}},
    {one(0x21280000), Action::kVap, nullptr, {}},
    {one(0x21284000), Action::kVap, nullptr, {}},
    {one(0x21a00000), Action::kVap, nullptr, {}},
    {one(0x21a04000), Action::kVap, nullptr, {}},
    {one(0x21a80000), Action::kVap, nullptr, {}},
    {one(0x21a84000), Action::kVap, nullptr, {}},
    {range(0x22100400, 0x22102000, 0x400), Action::kVap, nullptr, {}},
    // ... the radio-level groups, ...
    {one(radio_group(0)), Action::kRadio, nullptr, {}},
    {one(radio_group(1)), Action::kRadio, nullptr, {}},
    {one(radio_group(2)), Action::kRadio, nullptr, {}},
    {radio_params(0), Action::kRadio, nullptr, {}},
    {radio_params(1), Action::kRadio, nullptr, {}},
    {radio_params(2), Action::kRadio, nullptr, {}},
    // ... the WME groups, ...
    {wme(0), Action::kWme, nullptr, {}},
    {wme(1), Action::kWme, nullptr, {}},
    {wme(2), Action::kWme, nullptr, {}},
    // ... and the fourth radio, restarted as a whole.
    {one(0x22000000), Action::kRestartRadio3, nullptr, {{kRcWlan, "restart 3"}}},
    {one(0x22180000), Action::kRestartRadio3, nullptr, {{kRcWlan, "restart 3"}}},
};

constexpr int entries() {
    int n = 0;
    for (const Row &row : kRows)
        n += row.ids.count();
    return n;
}
static_assert(entries() == 343, "the table has 343 group IDs");

// No group ID is in two rows (the first would hide the second).
constexpr bool disjoint() {
    for (size_t a = 0; a < std::size(kRows); ++a) {
        const Ids &ids = kRows[a].ids;
        for (uint32_t gid = ids.first;; gid += ids.step) {
            for (size_t b = a + 1; b < std::size(kRows); ++b) {
                if (kRows[b].ids.has(gid))
                    return false;
            }
            if (ids.step == 0 || gid >= ids.last)
                break;
        }
    }
    return true;
}
static_assert(disjoint(), "each group ID has one row");

const Row *row_of(uint32_t gid) {
    for (const Row &row : kRows) {
        if (row.ids.has(gid))
            return &row;
    }
    return nullptr;
}

void run_commands(const Row &row) {
    for (const Command &c : row.commands) {
        if (c.script == nullptr)
            break;
        if (c.argument != nullptr)
            sys::run(kCommandSize, "%s %s", c.script, c.argument);
        else
            sys::run(kCommandSize, "%s", c.script);
    }
}

void restart_lan_dhcp() {
    char ifname[256] = "";
    get_lan_ifname(ifname);
    ifname[sizeof ifname - 1] = '\0';
    std::printf("LAN if: %s\n", ifname);
    if (ifname[0] == '\0')
        return;
    const sys::CommandLine line(kCommandSize, "%s %s restart", kUdhcpd, ifname);
    if (!line.ok())
        return;
    std::printf("Exec: %s\n", line.c_str());
    qor_system(line.c_str());
}

}  // namespace
}  // namespace qorcfg::apply

using namespace qorcfg;
using namespace qorcfg::apply;

extern "C" {

QORCFG_API int apply_cfg_group(qorcfg_handle *handle, uint32_t gid, uint32_t *restart,
                               char vap_lists[3][256]) {
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    std::printf("apply gid %d\n", static_cast<int>(gid));
    // Read as every apply of a group reads it; the radio routines read
    // their own.
    Item type;
    type.load(handle, store::kDeviceGroup, "type");

    const Row *row = row_of(gid);
    if (row == nullptr)
        return QORCFG_ERR_GROUP;
    if (row->message != nullptr)
        std::fputs(row->message, stdout);
    switch (row->action) {
        case Action::kRun:
            run_commands(*row);
            return QORCFG_OK;
        case Action::kLanDhcp:
            restart_lan_dhcp();
            return QORCFG_OK;
        case Action::kRestartRadio3:
            run_commands(*row);
            if (restart != nullptr)
                *restart = 1;
            return QORCFG_OK;
        case Action::kVap:
            return apply_vap_group(handle, gid, restart, vap_lists);
        case Action::kRadio:
            return apply_radio_group(handle, gid, restart);
        case Action::kWme: {
            const int r = radio_index_of_gid(gid);
            if (r == 0 || r == 1)
                sys::run(kCommandSize, "%s configure_wme %d", kRcWlan, r);
            return QORCFG_OK;
        }
    }
    return QORCFG_ERR_GROUP;
}

}  // extern "C"
