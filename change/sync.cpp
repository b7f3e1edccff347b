// change/sync.cpp - the sync record of groups changed since the last apply
// ("/tmp/sync_config": the reboot flag, then one group ID per line), the
// reboot checks, and whether an apply of a set of groups may start.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "change/change.h"
#include "os/os.h"
#include "os/owners.h"
#include "store/groups.h"
#include "store/platform.h"
#include "store/store.h"

namespace qorcfg::change {
namespace {

constexpr const char *kRfRebootMarker = "/tmp/rf_need_reboot";
constexpr size_t kLine = 256;        // a record line, as the record is read
constexpr size_t kMatchLine = 2048;  // a line, as can_apply compares it

// The number a line starts with, as decimal conversion reads it.
uint32_t number_of(const char *line) {
    return static_cast<uint32_t>(std::strtol(line, nullptr, 10));
}

// 1 when the first line of `path` reads 1, else 0 (also without the file).
int first_line_is_one(const char *path) {
    long number = 0;
    return store::first_line_number(path, number) && number == 1 ? 1 : 0;
}

bool contains(const char *text, const char *part) {
    return std::strstr(text, part) != nullptr;
}

// Groups whose change always needs a reboot.
constexpr uint32_t kRebootGroups[] = {0x08180000, 0x10100000, 0x10500000, 0x10600000, 0x10780000,
                                      0x18680000, 0x18780000, 0x20a80000, 0x20a84000};
constexpr uint32_t kRadioGroups[] = {0x20800000, 0x21000000, 0x21800000, 0x22000000};

bool one_of(uint32_t gid, const auto &table) {
    return std::find(std::begin(table), std::end(table), gid) != std::end(table);
}

// Reads whether changing `item` needs a reboot; the current configuration is
// opened into `current` on first need. False when it cannot be opened.
bool needs_reboot(const qorcfg_item *item, const char *type, const char *roles,
                  qorcfg_handle *&current, bool &reboot) {
    const auto gid = static_cast<uint32_t>(item->gid);
    if (one_of(gid, kRebootGroups)) {
        reboot = true;
    } else if (gid == 0x10080000) {
        reboot = std::strcmp(type, "CPE") != 0;
    } else if (gid == 0x20884000) {
        reboot = contains(roles, "rep");
    } else if (one_of(gid, kRadioGroups)) {
        // The roles are radio 0's, whichever radio the item belongs to.
        if (contains(roles, "rep")) {
            reboot = true;
        } else if (std::strcmp(type, "AP") == 0 && item->name != nullptr &&
                   (std::strcmp(item->name, "state") == 0 ||
                    std::strcmp(item->name, "outdoor_use") == 0)) {
            if (current == nullptr && (current = init_qorcfg_f(current_config)) == nullptr)
                return false;
            char applied[kLine] = "";
            reboot = get_cfg_item(current, gid, item->name, applied) != QORCFG_OK ||
                     std::strcmp(applied, item->value != nullptr ? item->value : "") != 0;
        }
    }
    return true;
}

}  // namespace

int match_sync_record(int *gids, int *lines, int *matches) {
    *lines = *matches = 0;
    size_t n = 0;
    while (gids != nullptr && gids[n] > 0)
        ++n;
    if (n > 0)
        std::sort(gids, gids + n);
    os::Text line(static_cast<char *>(os::malloc(kMatchLine)));  // the record's lines
    if (!line)
        return QORCFG_ERR_NOMEM;
    // The set as one line: "%d " per group ID, then a newline. A set too
    // long for the line buffer equals no line read with it.
    std::string set;
    for (size_t i = 0; i < n; ++i)
        set += std::to_string(gids[i]) + " ";
    set += "\n";
    const bool comparable = set.size() < kMatchLine;
    os::File record(os::fopen(kSyncRecord, "r"));
    if (!record)
        return 0;
    while (std::fgets(line.get(), kMatchLine, record.get()) != nullptr) {
        ++*lines;
        if (comparable && set == line.get())
            ++*matches;
    }
    return 1;
}

}  // namespace qorcfg::change

using namespace qorcfg;
using qorcfg::change::kSyncRecord;

extern "C" {

QORCFG_API int read_sync_record(uint32_t **record, int *count, int extra) {
    if (record == nullptr || count == nullptr)
        return QORCFG_ERR_FAIL;
    *record = nullptr;
    *count = 0;
    os::File f(os::fopen(kSyncRecord, "r"));
    char line[change::kLine];
    if (f) {
        int lines = 0;
        while (std::fgets(line, sizeof line, f.get()) != nullptr)
            ++lines;
        // An empty record holds no group IDs (not minus one).
        *count = std::max(lines - 1, 0);
        std::rewind(f.get());
    }
    const size_t size = static_cast<size_t>(*count) + 1 + static_cast<size_t>(std::max(extra, 0));
    auto *entries = static_cast<uint32_t *>(os::calloc(size, sizeof(uint32_t)));
    if (entries == nullptr) {
        *count = 0;
        return QORCFG_ERR_NOMEM;
    }
    // A record that grew since it was counted is read up to the count.
    for (int i = 0; f && i <= *count && std::fgets(line, sizeof line, f.get()) != nullptr; ++i)
        entries[i] = change::number_of(line);
    *record = entries;
    return QORCFG_OK;
}

QORCFG_API int write_sync_record(const uint32_t *gids, int count, int reboot) {
    // The device type and radio 0's roles are read as a change is
    // recorded; they play no part in the record.
    qorcfg_handle *handle = init_qorcfg();
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    char type[change::kLine] = "", roles[change::kLine] = "";
    get_cfg_item(handle, store::kDeviceGroup, "type", type);
    get_cfg_item(handle, store::radio_group(0), "roles", roles);
    close_qorcfg(handle);
    if (gids == nullptr)
        return QORCFG_ERR_FAIL;
    count = std::max(count, 0);
    uint32_t *entries = nullptr;
    int recorded = 0;
    if (int rc = read_sync_record(&entries, &recorded, count); rc != QORCFG_OK)
        return rc;
    os::Memory<uint32_t> owner(entries);
    // New group IDs are compared with the record, not with each other: one
    // given twice is recorded twice.
    int n = recorded;
    for (int i = 0; i < count; ++i) {
        if (std::find(entries + 1, entries + 1 + recorded, gids[i]) == entries + 1 + recorded)
            entries[1 + n++] = gids[i];
    }
    // The flag only rises between applies.
    if (reboot == 1 || check_apply_need_reboot() == 1)
        entries[0] = 1;
    std::string text;
    for (int i = 0; i <= n; ++i)
        text += std::to_string(static_cast<int>(entries[i])) + "\n";
    return os::write_file(kSyncRecord, text) == 0 ? QORCFG_OK : QORCFG_ERR_OPEN;
}

QORCFG_API int check_items_need_reboot(qorcfg_handle *handle, const qorcfg_item *items,
                                       int *need_reboot) {
    if (handle == nullptr || need_reboot == nullptr)
        return QORCFG_ERR_FAIL;
    if (items == nullptr)
        return QORCFG_OK;
    char type[change::kLine] = "", roles[change::kLine] = "";
    get_cfg_item(handle, store::kDeviceGroup, "type", type);
    get_cfg_item(handle, store::radio_group(0), "roles", roles);
    qorcfg_handle *current = nullptr;
    int rc = QORCFG_OK;
    for (const qorcfg_item *item = items; item != nullptr && *need_reboot != 1; item = item->next) {
        bool reboot = false;
        if (!change::needs_reboot(item, type, roles, current, reboot)) {
            rc = QORCFG_ERR_FAIL;
            break;
        }
        if (reboot)
            *need_reboot = 1;
    }
    if (current != nullptr)
        close_qorcfg(current);
    return rc;
}

QORCFG_API int check_apply_need_reboot(void) {
    return change::first_line_is_one(kSyncRecord);
}

QORCFG_API int chk_apply_need_reboot(void *, int *need_reboot) {
    if (need_reboot != nullptr)
        *need_reboot = check_apply_need_reboot();
    return QORCFG_OK;
}

QORCFG_API int check_rf_need_reboot(void) {
    return change::first_line_is_one(change::kRfRebootMarker);
}

QORCFG_API int chk_cfg_sync(const char *path, int *exists) {
    if (exists != nullptr)
        *exists = path != nullptr && os::File(os::fopen(path, "r")) ? 1 : 0;
    return QORCFG_OK;
}

QORCFG_API int can_apply(int *gids) {
    int lines = 0, matches = 0;
    const int rc = change::match_sync_record(gids, &lines, &matches);
    if (rc < 0)
        return QORCFG_ERR_PENDING;
    // The record's lines are compared with the whole set on one line.
    if (rc == 0 || lines == 0 || (lines == 1 && matches == 1))
        return QORCFG_OK;
    return QORCFG_ERR_PENDING;
}

QORCFG_API int chkGIDdup(const uint32_t *gids, int count, uint32_t gid) {
    if (gids == nullptr)
        return QORCFG_ERR_FAIL;
    for (int i = 0; i < count; ++i) {
        if (gids[i] == gid)
            return QORCFG_ERR_FAIL;
    }
    return QORCFG_OK;
}

}  // extern "C"
