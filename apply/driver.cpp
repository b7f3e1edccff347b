// apply/driver.cpp - the apply driver: the sync record's groups made to take
// effect under the access lock, the VAP change table and lists, the apply
// flags, and the radio and VAP numbering of group IDs.
#include <sys/file.h>

#include <cstdio>
#include <cstring>

#include "apply/apply.h"
#include "change/change.h"
#include "os/os.h"
#include "os/owners.h"
#include "store/groups.h"
#include "store/platform.h"
#include "store/store.h"

namespace qorcfg::apply {
namespace {

using store::kVapEnd;
using store::kVapOffset;
using store::kVapStride;
using store::radio_group;

// The VAP change table: one entry per radio 0..1 and VAP 0..15.
constexpr int kVaps = 16;
constexpr int kTableSize = 32;
// Each radio's list reads this many entries of the table from radio * 16.
constexpr int kListPositions = 17;
constexpr int kListRadios = 3;

// The subgroups of a VAP whose change restarts it, by offset from its start.
constexpr uint32_t kTrackedSubgroups[] = {0x000, 0x400, 0x800, 0x1000};

uint32_t *const kRadioFlags[] = {&apply_rf0, &apply_rf1, &apply_rf2};
uint32_t *const kVapFlags[] = {&apply_rf0vap, &apply_rf1vap, &apply_rf2vap};

// The VAP lists of radios 0, 1 and 2: radio r names every i of 0..16 whose
// table entry r * 16 + i is set, as "%d ". Radio 0 thus also names 16 when
// radio 1's VAP 0 changed. Radio 1's position 16 and all of radio 2's lie
// past the table (which is followed by memory that never holds 1): they
// count as unchanged, so radio 2's list stays empty.
void make_vap_lists(const uint32_t (&table)[kTableSize], char (&lists)[kListRadios][256]) {
    for (int r = 0; r < kListRadios; ++r) {
        size_t used = 0;
        lists[r][0] = '\0';
        for (int i = 0; i < kListPositions; ++i) {
            const int entry = r * kVaps + i;
            if (entry < kTableSize && table[entry] == 1)
                used += static_cast<size_t>(
                    std::snprintf(lists[r] + used, sizeof lists[r] - used, "%d ", i));
        }
    }
}

}  // namespace

bool Item::is(const char *value) const {
    return std::strcmp(text, value) == 0;
}

bool Item::contains(const char *part) const {
    return std::strstr(text, part) != nullptr;
}

int Item::load(qorcfg_handle *handle, uint32_t gid, const char *name) {
    const int rc = get_cfg_item(handle, gid, name, text);
    if (rc != QORCFG_OK)
        text[0] = '\0';
    return rc;
}

int read_record(Record &record) {
    if (!os::File(os::fopen(change::kSyncRecord, "r")))
        return QORCFG_ERR_OPEN;
    uint32_t *entries = nullptr;
    const int rc = read_sync_record(&entries, &record.count, 0);
    record.entries.reset(entries);
    return rc;
}

int apply_groups(qorcfg_handle *handle, const uint32_t *gids, int count, uint32_t *restart) {
    uint32_t table[kTableSize] = {};
    for (int i = 0; i < count; ++i)
        mark_vap_change(gids[i], table);
    char lists[kListRadios][256];
    make_vap_lists(table, lists);

    int result = QORCFG_OK;
    for (int i = 0; i < count; ++i) {
        if (apply_cfg_group(handle, gids[i], restart, lists) != QORCFG_OK) {
            std::printf("<error>apply_cfg_group gid %d\n", static_cast<int>(gids[i]));
            result = QORCFG_ERR_GROUP;
        }
    }
    if (count > 0) {
        for (uint32_t *flag : kVapFlags)
            *flag = 0;
        for (uint32_t *flag : kRadioFlags)
            *flag = 0;
    }
    return result;
}

bool told_after_apply(const char *pid_file, bool restart) {
    // Compared as texts: the same literal may have two addresses.
    return restart || std::strcmp(pid_file, store::kSnmpdPidFile) != 0;
}

}  // namespace qorcfg::apply

using namespace qorcfg;
using namespace qorcfg::apply;

extern "C" {

QORCFG_API uint32_t apply_rf0 = 0;
QORCFG_API uint32_t apply_rf1 = 0;
QORCFG_API uint32_t apply_rf2 = 0;
QORCFG_API uint32_t apply_rf0vap = 0;
QORCFG_API uint32_t apply_rf1vap = 0;
QORCFG_API uint32_t apply_rf2vap = 0;

QORCFG_API int apply_cfg(qorcfg_handle *handle) {
    store::HeldLock apply_lock(store::kAccessLock, LOCK_EX | LOCK_NB);
    if (!apply_lock.held())
        return QORCFG_BUSY;
    if (os::write_file(kApplyingMarker, "") != 0)
        std::printf("%s cannot be generated\n", kApplyingMarker);
    // From here on, an apply that stops leaves the marker behind.
    Record record;
    int rc = read_record(record);
    if (rc != QORCFG_OK)
        return rc;
    rc = save_qorcfg(handle, current_config);
    if (rc != QORCFG_OK)
        return rc;

    uint32_t restart = 0;
    const int result = apply_groups(handle, record.gids(), record.count, &restart);
    os::unlink(change::kSyncRecord);
    os::unlink(kApplyingMarker);
    apply_lock.release();
    for (const char *pid_file : store::kDaemonPidFiles) {
        if (told_after_apply(pid_file, restart == 1))
            store::signal_daemon(pid_file);
    }
    return result;
}

QORCFG_API int radio_gid_by_index(int index) {
    if (index < 0 || index >= store::kRadioCount)
        return -1;
    return static_cast<int>(radio_group(index));
}

QORCFG_API int radio_index_of_gid(uint32_t gid) {
    for (int r = 0; r < store::kRadioCount; ++r) {
        if (gid >= radio_group(r) && gid <= radio_group(r) + store::kRadioSpan)
            return r;
    }
    return -1;
}

QORCFG_API int vap_index_of_gid(uint32_t gid) {
    const int r = radio_index_of_gid(gid);
    if (r < 0)
        return -1;
    const uint32_t start = radio_group(r) + kVapOffset;
    if (gid < start || gid >= radio_group(r) + kVapEnd)
        return -1;
    return static_cast<int>((gid - start) / kVapStride);
}

QORCFG_API void mark_vap_change(uint32_t gid, uint32_t *table) {
    const int r = radio_index_of_gid(gid);
    const int v = vap_index_of_gid(gid);
    if (table == nullptr || r < 0 || r > 2 || v < 0 || v >= kVaps)
        return;
    const uint32_t offset =
        gid - radio_group(r) - kVapOffset - static_cast<uint32_t>(v) * kVapStride;
    bool tracked = false;
    for (uint32_t subgroup : kTrackedSubgroups)
        tracked = tracked || offset == subgroup;
    // Radio 2's VAP groups are recognised but never marked.
    if (tracked && r < 2)
        table[r * kVaps + v] = 1;
}

QORCFG_API int get_radio_apply_flag(uint32_t radio_gid) {
    for (int r = 0; r < 3; ++r) {
        if (radio_gid == radio_group(r))
            return static_cast<int>(*kRadioFlags[r]);
    }
    return -1;
}

QORCFG_API void set_radio_apply_flag(uint32_t radio_gid, int value) {
    for (int r = 0; r < 3; ++r) {
        if (radio_gid == radio_group(r) && (value == 0 || value == 1))
            *kRadioFlags[r] = static_cast<uint32_t>(value);
    }
}

QORCFG_API int get_vap_apply_flag(int radio) {
    if (radio < 0 || radio > 2)
        return -1;
    return static_cast<int>(*kVapFlags[radio]);
}

QORCFG_API void set_vap_apply_flag(int radio, int value) {
    if (radio >= 0 && radio <= 2 && (value == 0 || value == 1))
        *kVapFlags[radio] = static_cast<uint32_t>(value);
}

}  // extern "C"
