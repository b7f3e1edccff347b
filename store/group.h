// store/group.h - lookups in tables of the group-table form.
#pragma once

#include <cstdint>

#include "qorcfg.h"

namespace qorcfg::store {

// Linear scans of `table` (rows up to the one whose gid is 0), first match
// winning; texts match when they have the same length and bytes. The
// exported group_by_* are these scans over the platform's group_table.
qorcfg_group *scan_group_by_gid(qorcfg_group *table, uint32_t gid);
qorcfg_group *scan_group_by_name(qorcfg_group *table, const char *name);
qorcfg_group *scan_group_by_path(qorcfg_group *table, const char *path);

}  // namespace qorcfg::store
