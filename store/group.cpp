// store/group.cpp - the three lookups in the group table: by group ID, by
// name and by path.
//
// The table is the platform's data, and a process may change it at any
// time (a row's gid, name or path). Every lookup answers as a scan from the
// first row to the one whose gid is 0, first match winning, gives at the
// moment of the call:
//   - by gid, it is that scan (checking an index against every row before
//     its hit would cost as much);
//   - by name and by path, a hash index of the texts gives the first row
//     that had the text when the index was made, and that answer is used
//     only after the live rows up to it are checked: each still has its gid
//     not 0 and the same text pointer, and the hit's text is still the key
//     (or, for a text not indexed, every row up to the end). A changed row
//     makes a new index. A table that keeps changing is scanned for good
//     after kMaxIndexes indexes, so memory stays bounded.
// Readers take the current index without a lock; an index, once published,
// never changes and stays allocated (reachable from the current one) for
// the process's life.
#include "store/group.h"

#include <atomic>
#include <cstring>

#include "os/os.h"
#include "store/platform.h"

namespace qorcfg::store {
namespace {

// The row's text has the bytes of `text` (`len` of them, no zero among
// them) and ends there. Stops at the first byte that differs, so a shorter
// row text is never read past its end.
inline bool same_text(const char *row, const char *text, size_t len) {
    if (row == nullptr)
        return false;
    for (size_t i = 0; i < len; ++i) {
        if (row[i] != text[i])
            return false;
    }
    return row[len] == '\0';
}

uint32_t hash_text(const char *s, size_t len) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < len; ++i)
        h = (h ^ static_cast<unsigned char>(s[i])) * 16777619u;
    return h;
}

qorcfg_group *scan_text(qorcfg_group *table, const char *text, const char *qorcfg_group::*column) {
    if (text == nullptr)
        return nullptr;
    const size_t len = std::strlen(text);
    for (qorcfg_group *row = table; row->gid != 0; ++row) {
        if (same_text(row->*column, text, len))
            return row;
    }
    return nullptr;
}

// One text column of group_table as it read when the index was made: the
// rows' text pointers, and slots (row + 1, 0 free) of the first row of each
// text.
struct Column {
    const char **texts;
    uint32_t *slots;

    // The row the index gives for `text`, or `rows` when it has none.
    size_t find(const char *text, size_t len, size_t cap, size_t rows) const {
        for (size_t i = hash_text(text, len) & (cap - 1);; i = (i + 1) & (cap - 1)) {
            if (slots[i] == 0)
                return rows;
            const size_t row = slots[i] - 1;
            if (same_text(texts[row], text, len))
                return row;
        }
    }
};

struct Index {
    size_t rows;  // rows before the one whose gid was 0
    size_t cap;   // slots per column, a power of two
    Column name;
    Column path;
    const Index *previous;  // the index this one replaced: readers may still use it
};

constexpr int kMaxIndexes = 8;

// The current index, which leads to every earlier one; after kMaxIndexes
// the lookups scan.
std::atomic<Index *> g_current{nullptr};
std::atomic<int> g_made{0};
std::atomic<bool> g_scan_only{false};

void insert(Column &c, size_t cap, size_t row) {
    const char *text = c.texts[row];
    if (text == nullptr)
        return;
    const size_t len = std::strlen(text);
    for (size_t i = hash_text(text, len) & (cap - 1);; i = (i + 1) & (cap - 1)) {
        if (c.slots[i] == 0) {
            c.slots[i] = static_cast<uint32_t>(row + 1);
            return;
        }
        if (same_text(c.texts[c.slots[i] - 1], text, len))
            return;  // the first row with this text stays
    }
}

// An index of the table as it reads now, to replace `previous`, or NULL:
// out of memory (this lookup scans), or kMaxIndexes made already (every
// lookup scans from now on).
Index *make_index(const Index *previous) {
    if (g_made.load() >= kMaxIndexes) {
        g_scan_only.store(true);
        return nullptr;
    }
    size_t rows = 0;
    while (group_table[rows].gid != 0)
        ++rows;
    size_t cap = 16;
    while (cap < rows * 2)
        cap *= 2;
    // One block: the record, both text columns, both slot arrays.
    const size_t bytes =
        sizeof(Index) + 2 * rows * sizeof(const char *) + 2 * cap * sizeof(uint32_t);
    auto *block = static_cast<unsigned char *>(os::calloc(1, bytes));
    if (block == nullptr)
        return nullptr;
    auto *index = reinterpret_cast<Index *>(block);
    index->rows = rows;
    index->cap = cap;
    index->previous = previous;
    auto **texts = reinterpret_cast<const char **>(block + sizeof(Index));
    auto *slots = reinterpret_cast<uint32_t *>(texts + 2 * rows);
    index->name = Column{texts, slots};
    index->path = Column{texts + rows, slots + cap};
    for (size_t r = 0; r < rows; ++r) {
        index->name.texts[r] = group_table[r].name;
        index->path.texts[r] = group_table[r].path;
        insert(index->name, cap, r);
        insert(index->path, cap, r);
    }
    return index;
}

// Makes the index that replaces `seen` current; the current index (another
// thread's, should one have come first), or NULL when none can be made.
Index *replace_index(Index *seen) {
    Index *fresh = make_index(seen);
    if (fresh == nullptr)
        return nullptr;
    if (!g_current.compare_exchange_strong(seen, fresh, std::memory_order_acq_rel)) {
        std::free(fresh);
        return seen;  // the winner's
    }
    g_made.fetch_add(1);
    return fresh;
}

// Whether the live table still gives `row` (or, when row == rows, no row)
// for a text the index answers that way: every row before it has its gid
// not 0 and its text pointer unchanged, the row itself too, and the text
// behind the hit's pointer is still the key; or the table still ends at
// `rows`.
bool still_holds(const Index &index, const char *qorcfg_group::*column, const Column &c, size_t row,
                 const char *text, size_t len) {
    for (size_t r = 0; r < row; ++r) {
        if (group_table[r].gid == 0 || group_table[r].*column != c.texts[r])
            return false;
    }
    if (row == index.rows)
        return group_table[row].gid == 0;
    return group_table[row].gid != 0 && group_table[row].*column == c.texts[row] &&
           same_text(c.texts[row], text, len);
}

qorcfg_group *lookup_text(const char *text, const char *qorcfg_group::*column,
                          Column Index::*which) {
    if (text == nullptr)
        return nullptr;
    const size_t len = std::strlen(text);
    Index *index = g_current.load(std::memory_order_acquire);
    for (int attempt = 0; attempt < 2 && !g_scan_only.load(std::memory_order_relaxed); ++attempt) {
        if (index == nullptr || attempt > 0) {
            index = replace_index(index);
            if (index == nullptr)
                break;
        }
        const Column &c = index->*which;
        const size_t row = c.find(text, len, index->cap, index->rows);
        if (still_holds(*index, column, c, row, text, len))
            return row < index->rows ? &group_table[row] : nullptr;
    }
    return scan_text(group_table, text, column);
}

}  // namespace

qorcfg_group *scan_group_by_gid(qorcfg_group *table, uint32_t gid) {
    if (gid == 0)
        return nullptr;  // 0 ends the table
    for (qorcfg_group *row = table; row->gid != 0; ++row) {
        if (row->gid == gid)
            return row;
    }
    return nullptr;
}

qorcfg_group *scan_group_by_name(qorcfg_group *table, const char *name) {
    return scan_text(table, name, &qorcfg_group::name);
}

qorcfg_group *scan_group_by_path(qorcfg_group *table, const char *path) {
    return scan_text(table, path, &qorcfg_group::path);
}

}  // namespace qorcfg::store

using namespace qorcfg;
using namespace qorcfg::store;

extern "C" {

QORCFG_API qorcfg_group *group_by_gid(uint32_t gid) {
    return scan_group_by_gid(group_table, gid);
}

QORCFG_API qorcfg_group *group_by_name(const char *name) {
    return lookup_text(name, &qorcfg_group::name, &Index::name);
}

QORCFG_API qorcfg_group *group_by_path(const char *path) {
    return lookup_text(path, &qorcfg_group::path, &Index::path);
}

}  // extern "C"
