// store/group.cpp - the three lookups in the group table: by group ID, by
// name and by path.
//
// The table is the platform's data. Its lookups are defined as scans from
// the first row to the row whose gid is 0, the first match winning. Every
// lookup and open of the store goes through them, so they are answered
// from hash indexes built on first use, which give the same rows: each key
// maps to the first row that has it.
#include "store/group.h"

#include <cstring>

#include "os/os.h"
#include "store/platform.h"

namespace qorcfg {

qorcfg_group *scan_group_by_gid(qorcfg_group *table, uint32_t gid) {
    for (qorcfg_group *row = table; row->gid != 0; ++row) {
        if (row->gid == gid)
            return row;
    }
    return nullptr;
}

namespace {

// Same length and bytes, with `len` = strlen(text) taken once.
bool same_text(const char *row, const char *text, size_t len) {
    return row != nullptr && std::strncmp(row, text, len) == 0 && row[len] == '\0';
}

qorcfg_group *scan_text(qorcfg_group *table, const char *text, const char *qorcfg_group::*column) {
    if (text == nullptr)
        return nullptr;
    size_t len = std::strlen(text);
    for (qorcfg_group *row = table; row->gid != 0; ++row) {
        if (same_text(row->*column, text, len))
            return row;
    }
    return nullptr;
}

uint32_t hash_text(const char *s, size_t len) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < len; ++i)
        h = (h ^ static_cast<unsigned char>(s[i])) * 16777619u;
    return h;
}

uint32_t hash_gid(uint32_t gid) {
    gid ^= gid >> 16;
    gid *= 0x7feb352du;
    gid ^= gid >> 15;
    return gid;
}

// Open-addressing index from a key to the first row that has it.
class Index {
public:
    bool build(qorcfg_group *table) {
        size_t rows = 0;
        while (table[rows].gid != 0)
            ++rows;
        cap_ = 16;
        while (cap_ < rows * 2)
            cap_ *= 2;
        auto **slots = static_cast<qorcfg_group **>(os::calloc(3 * cap_, sizeof(qorcfg_group *)));
        if (slots == nullptr)
            return false;
        by_gid_ = slots;
        by_name_ = slots + cap_;
        by_path_ = slots + 2 * cap_;
        // Rows in table order: a key already present keeps its first row.
        for (size_t i = 0; i < rows; ++i) {
            qorcfg_group *row = &table[i];
            insert(by_gid_, hash_gid(row->gid), row,
                   [row](const qorcfg_group *o) { return o->gid == row->gid; });
            if (row->name != nullptr)
                insert_text(by_name_, row, &qorcfg_group::name);
            if (row->path != nullptr)
                insert_text(by_path_, row, &qorcfg_group::path);
        }
        return true;
    }

    qorcfg_group *gid(uint32_t gid) const {
        for (size_t i = hash_gid(gid) & (cap_ - 1);; i = (i + 1) & (cap_ - 1)) {
            if (by_gid_[i] == nullptr || by_gid_[i]->gid == gid)
                return by_gid_[i];
        }
    }

    qorcfg_group *text(const char *text, const char *qorcfg_group::*column) const {
        qorcfg_group *const *slots = column == &qorcfg_group::name ? by_name_ : by_path_;
        size_t len = std::strlen(text);
        for (size_t i = hash_text(text, len) & (cap_ - 1);; i = (i + 1) & (cap_ - 1)) {
            if (slots[i] == nullptr || same_text(slots[i]->*column, text, len))
                return slots[i];
        }
    }

private:
    template <typename Same>
    void insert(qorcfg_group **slots, uint32_t h, qorcfg_group *row, Same same) {
        for (size_t i = h & (cap_ - 1);; i = (i + 1) & (cap_ - 1)) {
            if (slots[i] == nullptr) {
                slots[i] = row;
                return;
            }
            if (same(slots[i]))
                return;  // the first row with this key stays
        }
    }

    void insert_text(qorcfg_group **slots, qorcfg_group *row, const char *qorcfg_group::*column) {
        const char *key = row->*column;
        size_t len = std::strlen(key);
        insert(slots, hash_text(key, len), row, [key, len, column](const qorcfg_group *o) {
            return same_text(o->*column, key, len);
        });
    }

    size_t cap_ = 0;
    qorcfg_group **by_gid_ = nullptr;
    qorcfg_group **by_name_ = nullptr;
    qorcfg_group **by_path_ = nullptr;
};

// The index of the platform's table, built once; NULL when it could not be
// built (the lookups then scan). A table still empty at the first lookup
// (read before the platform filled it) is never indexed, so no lookup can
// be frozen on an empty table.
const Index *table_index() {
    static Index index;
    static const bool built = group_table[0].gid != 0 && index.build(group_table);
    return built ? &index : nullptr;
}

}  // namespace

qorcfg_group *scan_group_by_name(qorcfg_group *table, const char *name) {
    return scan_text(table, name, &qorcfg_group::name);
}

qorcfg_group *scan_group_by_path(qorcfg_group *table, const char *path) {
    return scan_text(table, path, &qorcfg_group::path);
}

}  // namespace qorcfg

using namespace qorcfg;

extern "C" {

QORCFG_API qorcfg_group *group_by_gid(uint32_t gid) {
    if (gid == 0)
        return nullptr;  // 0 ends the table
    const Index *index = table_index();
    return index != nullptr ? index->gid(gid) : scan_group_by_gid(group_table, gid);
}

QORCFG_API qorcfg_group *group_by_name(const char *name) {
    if (name == nullptr)
        return nullptr;
    const Index *index = table_index();
    return index != nullptr ? index->text(name, &qorcfg_group::name)
                            : scan_group_by_name(group_table, name);
}

QORCFG_API qorcfg_group *group_by_path(const char *path) {
    if (path == nullptr)
        return nullptr;
    const Index *index = table_index();
    return index != nullptr ? index->text(path, &qorcfg_group::path)
                            : scan_group_by_path(group_table, path);
}

}  // extern "C"
