// change/change.h - what the change sources share: the steps of a set
// (one group's items into the tree, a list split into group runs, the
// common body of the five setters) and the sync record's comparison.
#pragma once

#include <cstdint>

#include "qorcfg.h"

namespace qorcfg::change {

// The sync record of groups changed since the last apply.
inline constexpr const char *kSyncRecord = "/tmp/sync_config";

// Writes the items of one group (the first item's) into the handle's tree,
// creating missing indexed children from their template. Sets the group
// row's changed mark when a value really changed. 0; -1, -2, -3, -4, -15.
int set_cfg_group(qorcfg_handle *handle, qorcfg_item *items);

// Splits `items` into runs of one group and writes each run with
// set_cfg_group; the role rules add items after every item of the first
// run. With `gids`, *count is its capacity on entry and the number of
// group IDs stored on return; more runs than that give -5.
int set_items_by_group(qorcfg_handle *handle, qorcfg_item *items, uint32_t *gids, int *count);

// The common body of the five setters: `path` NULL records the changes and
// writes the working copy and the flash copy; `nonblocking` returns 1 at
// once when the access lock is held.
int set_cfg_items_core(qorcfg_handle *handle, qorcfg_item *items, const char *path,
                       bool nonblocking);

// 0 without a record, 1 with one, after counting in *lines its lines and
// in *matches those equal to the sorted "%d " text of `gids` (ended by a
// value of 0 or less, sorted in place); -2 when memory runs out.
int match_sync_record(int *gids, int *lines, int *matches);

}  // namespace qorcfg::change
