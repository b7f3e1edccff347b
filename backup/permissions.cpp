// backup/permissions.cpp - which user group a user belongs to, and which
// permission value guards a configuration group or an operation: linear
// scans of the platform library's tables, first match winning. A row whose
// first word is 0 ends each table, so the ID 0 is never found.
#include <cctype>
#include <cstring>

#include "store/platform.h"

namespace {

// The first row of `table` for which `match` holds, or null.
template <typename Row, typename Match>
const Row *first_row(const Row *table, Match match) {
    for (const Row *row = table; row->id != 0; ++row) {
        if (match(*row))
            return row;
    }
    return nullptr;
}

uint32_t permission_named(const qorcfg_perm *table, const char *name) {
    if (name == nullptr)
        return 0;
    const qorcfg_perm *row = first_row(table, [name](const qorcfg_perm &r) {
        return r.name != nullptr && std::strcmp(r.name, name) == 0;
    });
    return row != nullptr ? row->perm : 0;
}

uint32_t permission_of(const qorcfg_perm *table, uint32_t id) {
    const qorcfg_perm *row = first_row(table, [id](const qorcfg_perm &r) { return r.id == id; });
    return row != nullptr ? row->perm : 0;
}

}  // namespace

extern "C" {

QORCFG_API int getUserGroup(const char *name) {
    if (name == nullptr)
        return -1;
    for (const qorcfg_user *row = user_table; row->group != 0; ++row) {
        if (row->name != nullptr && std::strcmp(row->name, name) == 0)
            return static_cast<int>(row->group);
    }
    return -1;
}

QORCFG_API uint32_t getConfigPermissionByName(const char *name) {
    return permission_named(conf_perm_table, name);
}

QORCFG_API uint32_t getConfigPermissionByGID(uint32_t gid) {
    return permission_of(conf_perm_table, gid);
}

QORCFG_API uint32_t getOperationPermissionByName(const char *name) {
    return permission_named(oper_perm_table, name);
}

QORCFG_API uint32_t getOperationPermissionByOID(uint32_t oid) {
    return permission_of(oper_perm_table, oid);
}

QORCFG_API int upperCase(char *text) {
    if (text == nullptr)
        return 0;
    for (char *c = text; *c != '\0'; ++c)
        *c = static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
    return 0;
}

}  // extern "C"
