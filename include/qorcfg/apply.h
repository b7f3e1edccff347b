/* qorcfg/apply.h - applying pending changes: the apply driver, group service commands, radio and
 * VAP restarts, system actions and system items. */
#ifndef QORCFG_APPLY_H
#define QORCFG_APPLY_H

#include "qorcfg/base.h"
#include "qorcfg/store.h"

QORCFG_BEGIN_DECLS

/* Getter of a system item: fills buf from the row's first and third arguments; its result is
 * ignored. */
typedef int (*qorcfg_sys_getter)(uint32_t arg, char *buf, uint32_t extra);

/* A row of the system-item table; the table ends at a row whose name is null. */
typedef struct qorcfg_sys_item {
    const char *name;         /* text key of the item; null ends the table */
    uint32_t arg;             /* first argument handed to the getter */
    qorcfg_sys_getter getter; /* fills the output buffer */
    uint32_t extra;           /* third argument handed to the getter */
} qorcfg_sys_item;

/* Apply flags: 1 once a radio's settings (apply_rfN) or its VAPs (apply_rfNvap) have been applied
   in the current apply run; all are 0 outside an apply run. */
QORCFG_API extern uint32_t apply_rf0;
QORCFG_API extern uint32_t apply_rf1;
QORCFG_API extern uint32_t apply_rf2;
QORCFG_API extern uint32_t apply_rf0vap;
QORCFG_API extern uint32_t apply_rf1vap;
QORCFG_API extern uint32_t apply_rf2vap;

/* Applies every group of "/tmp/sync_config" under the access lock (never waits), then deletes the
   record and "/tmp/applying" and signals the daemons. 0; 1 lock held; -7 no record; -3 a group
   failed; other negative codes from reading the record or saving the current configuration. */
QORCFG_API int apply_cfg(qorcfg_handle *handle);

/* Base group ID of radio index 0..3 (0x20800000 + index * 0x800000); -1 for any other index. */
QORCFG_API int radio_gid_by_index(int index);

/* Radio index 0..3 that gid belongs to; -1 when it belongs to no radio. */
QORCFG_API int radio_index_of_gid(uint32_t gid);

/* VAP index of a VAP group ID; -1 outside every VAP range. */
QORCFG_API int vap_index_of_gid(uint32_t gid);

/* Sets table[radio * 16 + vap] to 1 when gid is a change-tracked VAP subgroup of radio 0 or 1.
   table holds 32 entries. */
QORCFG_API void mark_vap_change(uint32_t gid, uint32_t *table);

/* Value of apply_rf0, apply_rf1 or apply_rf2 for the radio base group ID radio_gid; -1 for another
 * ID. */
QORCFG_API int get_radio_apply_flag(uint32_t radio_gid);

/* Stores value (only 0 or 1; others are ignored) in the radio apply flag of radio_gid. */
QORCFG_API void set_radio_apply_flag(uint32_t radio_gid, int value);

/* Value of apply_rf0vap, apply_rf1vap or apply_rf2vap for radio 0..2; -1 for another index. */
QORCFG_API int get_vap_apply_flag(int radio);

/* Stores value (only 0 or 1; others are ignored) in the VAP apply flag of radio 0..2. */
QORCFG_API void set_vap_apply_flag(int radio, int value);

/* Runs the service commands of one changed group; *restart is set to 1 when a radio was restarted.
   vap_lists: the "%d " lists of changed VAPs of radios 0, 1, 2. 0; -1 no handle; -3 group without
   an entry; or the result of the radio or VAP apply. */
QORCFG_API int apply_cfg_group(qorcfg_handle *handle, uint32_t gid, uint32_t *restart,
                               char vap_lists[3][256]);

/* Re-creates the VAPs of gid's radio listed in vap_lists, once per apply run; sets *restart to 1.
   0; -1 gid outside every radio; -17 the radio needs a reboot; or the error of reading "state". */
QORCFG_API int apply_vap_group(qorcfg_handle *handle, uint32_t gid, uint32_t *restart,
                               char vap_lists[3][256]);

/* Renews the parameters of gid's radio, once per apply run; sets *restart to 1.
   0; -1 no handle or gid outside every radio; -17 the radio needs a reboot. */
QORCFG_API int apply_radio_group(qorcfg_handle *handle, uint32_t gid, uint32_t *restart);

/* Device-wide action: 0 reboot in the background (returns -1 even when started), 1 restart syslogd,
   2 check the DHCP client, 3 copy the system log to "/tmp/syslog_messages"; the command's status,
   or -1 for any other action. */
QORCFG_API int apply_sys(int action);

/* Fills buf (size agreed with the item's getter) with the run-time value of the system item name.
   buf's first byte is cleared first. 0; -4 no such item. */
QORCFG_API int get_sys_item(const char *name, char *buf);

QORCFG_END_DECLS

#endif /* QORCFG_APPLY_H */
