// apply/apply.h - what the apply sources share: the scripts they run, the
// marker of a running apply, and the steps of an apply that a dry run
// repeats without its effects on files.
#pragma once

#include <cstddef>
#include <cstdint>

#include "os/owners.h"
#include "qorcfg.h"

namespace qorcfg::apply {

// Exists while an apply runs; an apply that stops before its groups ran
// leaves it behind, and front ends then show an apply in progress.
inline constexpr const char *kApplyingMarker = "/tmp/applying";

// Every command line of an apply is built in a buffer of this size.
inline constexpr size_t kCommandSize = 256;

// The device's service scripts.
inline constexpr const char *kRcWlan = "/etc/rc.d/rc.wlan";
inline constexpr const char *kRcMgnt = "/etc/rc.d/rc.mgnt";
inline constexpr const char *kRcNet = "/etc/rc.d/rc.net";
inline constexpr const char *kRcBridge = "/etc/rc.d/rc.bridge";
inline constexpr const char *kRcBonding = "/etc/rc.d/rc.bonding";
inline constexpr const char *kRcSplitTunnel = "/etc/rc.d/rc.split_tunnel";
inline constexpr const char *kUdhcpd = "/etc/rc.d/udhcpd.sh";
inline constexpr const char *kFirewallMod = "/sbin/firewall_mod.sh";

// A text item read the way the apply reads it: into a 256-byte buffer,
// which is empty when the item cannot be read.
struct Item {
    char text[256] = "";
    int load(qorcfg_handle *handle, uint32_t gid, const char *name);
    bool is(const char *value) const;
    bool contains(const char *part) const;
};

// The sync record as an apply reads it.
struct Record {
    os::Memory<uint32_t> entries;  // the reboot flag, then the group IDs
    int count = 0;                 // group IDs
    const uint32_t *gids() const { return entries.get() + 1; }
};
// QORCFG_ERR_OPEN when there is no record (nothing to apply), else
// read_sync_record's result.
int read_record(Record &record);

// The groups of a sync record applied in record order: the VAP lists made
// from the record, every group's service commands run, and, when the record
// named a group, the apply flags reset. *restart becomes 1 when a group
// restarted a radio. 0, or QORCFG_ERR_GROUP when a group failed.
int apply_groups(qorcfg_handle *handle, const uint32_t *gids, int count, uint32_t *restart);

// Whether the daemon of `pid_file` (one of store::kDaemonPidFiles, which
// are told in their order) is told after an apply: the SNMP daemon only
// when a radio was restarted.
bool told_after_apply(const char *pid_file, bool restart);

}  // namespace qorcfg::apply
