// store/platform.h - what the device's platform extension library
// (libvq19ext.so.1) supplies to the configuration library: file paths, the
// group table, the permission and system-item tables, the radio group IDs,
// the product magic, and a few interface and link queries.
//
// Declared here only; defined only in platform/ (the stand-in that
// describes the sample device) or, on a device, by the real library.
#pragma once

#include "qorcfg.h"

extern "C" {

// Configuration files (absolute paths).
extern const char config_ram[];         // working copy, in RAM
extern const char config_rom[];         // persistent copy, in flash
extern const char current_config[];     // the configuration last applied
extern const char backup_cfg_file[];    // backup file
extern const char restored_cfg_file[];  // uploaded configuration to restore

// Every configuration group; ends at the row whose gid is 0. The changed
// mark of a row is written when a value of the group changes.
extern qorcfg_group group_table[];

// Users' groups and permission values; each ends at a row whose first
// word is 0.
extern const qorcfg_user user_table[];
extern const qorcfg_perm conf_perm_table[];
extern const qorcfg_perm oper_perm_table[];

// Run-time values of the system, by name; ends at a row with a null name.
extern const qorcfg_sys_item sys_item_list[];

// Group IDs of radio r (gid_rf[r]) and of its VAP v (gid_vap[r * 16 + v]),
// radios and VAPs counted from 0.
extern const uint32_t gid_rf[];
extern const uint32_t gid_vap[];

// The product's ID, looked up in prd_id_tbl for its 8-character code.
extern const uint32_t magic;

// Writes the LAN interface name into `ifname` (at least 16 bytes); 0.
int get_lan_ifname(char *ifname);

// The items that must change with the repeater state (an item list the
// caller frees with free_item_list), or NULL.
qorcfg_item *set_rep_related(void);

// Undoes the repeater arrangement; the result carries no meaning.
int leave_rep(void);

// Interface name of link `link` of radio `radio` of kind `kind` (2: WDS
// link) into `name` (at least 16 bytes); non-zero when there is one.
int get_ifname_by_idx(int kind, int radio, int link, char *name);

// State of the WDS link on interface `ifname`: 1 active, 2 backup,
// 0 disconnected.
int isWDSLinkAlive(const char *ifname);

// Link figures of the WDS link on `ifname` as text into `buf` (at least 64
// bytes); non-zero when `buf` was filled.
int getWDSLinkTxRate(const char *ifname, char *buf);
int getWDSLinkQuality(const char *ifname, char *buf);
int getWDSLinkHealth(const char *ifname, char *buf);
int getWDSLinkTxTotal(const char *ifname, char *buf);
int getWDSLinkTxFail(const char *ifname, char *buf);

// Not part of a device's platform library: the stand-in reads its /proc
// and /sys files under this root, which the OS seam passes on when a test
// or the offline tool sets one. Weak, so that the library also links
// against a platform library without it.
int vq19ext_set_root(const char *root) __attribute__((weak));

}  // extern "C"
