/* qorcfg/change.h - setting items, saving the store files, the sync record of changed groups,
 * reboot checks and role dependency rules. */
#ifndef QORCFG_CHANGE_H
#define QORCFG_CHANGE_H

#include "qorcfg/base.h"
#include "qorcfg/store.h"

QORCFG_BEGIN_DECLS

/* Setting items. The item list stays the caller's (free it with free_item_list); items added by
   the role rules are spliced into it. Values are written into the handle's tree, then the files. */

/* Sets the items under the access lock (blocking), records the changed groups in
   "/tmp/sync_config", writes config_ram then config_rom; on success signals the three daemons. 0; 1
   lock not taken; -1, -2, -3, -4, -5, -6, -7, -10, -15. */
QORCFG_API int set_cfg_items(qorcfg_handle *handle, qorcfg_item *items);

/* As set_cfg_items, but returns 1 at once when the access lock is held; whatever the result,
   signals the configuration reader daemon only. */
QORCFG_API int set_cfg_items_snmp(qorcfg_handle *handle, qorcfg_item *items);

/* Sets the items and writes the tree to path (access lock only for the RAM, flash and current
   files); a null path behaves as set_cfg_items. Changes are recorded only when path is null. Codes
   as set_cfg_items. */
QORCFG_API int set_cfg_items_f(qorcfg_handle *handle, qorcfg_item *items, const char *path);

/* set_cfg_items_f with config_ram as the path: nothing is recorded in the sync record.
   On success the RAM and flash files are written and the three daemons signalled. */
QORCFG_API int set_cfg_items_dependency(qorcfg_handle *handle, qorcfg_item *items);

/* Same behaviour as set_cfg_items_dependency, under a second name. */
QORCFG_API int set_cfg_items_lite(qorcfg_handle *handle, qorcfg_item *items);

/* Saving and the sync record. */

/* Serialises the handle's tree and writes it whole to path; takes no access lock.
   0; -1 no handle or tree; -6, -7, -10 from write_cfg_file. */
QORCFG_API int save_qorcfg(qorcfg_handle *handle, const char *path);

/* save_qorcfg, then on success signals the three daemons (SIGUSR2). Same result codes. */
QORCFG_API int save_qorcfg_r(qorcfg_handle *handle, const char *path);

/* Writes text to path under the path's own file lock: length > 0 bytes, the whole text when 0,
   nothing when negative. 0; -6 no text; -7 no path or cannot open; -10 lock not taken. */
QORCFG_API int write_cfg_file(const char *text, const char *path, int length);

/* Reads "/tmp/sync_config" into a new zeroed array of count + 1 + extra entries (entry 0 the reboot
   flag, then the group IDs); *count = number of group IDs. Caller frees *record with free. 0 or -2.
 */
QORCFG_API int read_sync_record(uint32_t **record, int *count, int extra);

/* Merges count group IDs into "/tmp/sync_config" (new ones appended in order) and raises its reboot
   flag when reboot is 1. 0; -1 store not opened or no array; -2 out of memory; -7 cannot open. */
QORCFG_API int write_sync_record(const uint32_t *gids, int count, int reboot);

/* Sets *need_reboot to 1 when the change set needs a reboot of the device; never clears it.
   0; -1 no handle, or the current configuration cannot be opened. */
QORCFG_API int check_items_need_reboot(qorcfg_handle *handle, const qorcfg_item *items,
                                       int *need_reboot);

/* 1 when the first line of "/tmp/sync_config" is 1, else 0 (also when the record is missing). */
QORCFG_API int check_apply_need_reboot(void);

/* Stores check_apply_need_reboot() in *need_reboot; the first argument is not used. Returns 0. */
QORCFG_API int chk_apply_need_reboot(void *unused, int *need_reboot);

/* 1 when the first line of "/tmp/rf_need_reboot" is 1, else 0 (also when the file is missing). */
QORCFG_API int check_rf_need_reboot(void);

/* Stores 1 in *exists when path opens for reading, else 0; returns 0.
   With "/tmp/sync_config" it tells whether changes are pending. */
QORCFG_API int chk_cfg_sync(const char *path, int *exists);

/* gids: group IDs ended by a value of 0 or less, sorted in place. 0 when an apply of this set may
   start (no record, an empty record, or one matching line); -14 otherwise or on error. */
QORCFG_API int can_apply(int *gids);

/* -1 when gid occurs among the first count entries of gids or gids is null; 0 otherwise. */
QORCFG_API int chkGIDdup(const uint32_t *gids, int count, uint32_t gid);

/* Role dependency rules. */

/* Items that must be set together with (gid, name, value), or null when none (also for a null
   name or value). Caller frees the returned list with free_item_list. */
QORCFG_API qorcfg_item *apply_item_dependency(uint32_t gid, const char *name, const char *value);

QORCFG_END_DECLS

#endif /* QORCFG_CHANGE_H */
