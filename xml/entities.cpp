// xml/entities.cpp - entity lists of a document being parsed: lookups by
// name with the first declaration winning, appending declarations, and
// the check that a declaration does not refer back to itself.
//
// Short lists (the predefined entities of every document) are searched in
// order, as they are stored. A list that grows past kIndexFrom strings gets
// an index, so that a document declaring many entities costs time linear in
// their number: a hash of the names, and a hash of the names its values
// refer to, which settles most circularity checks without a search.
#include "xml/entities.h"

#include <cstring>

#include "os/os.h"

namespace qorcfg::xml {
namespace {

// Strings (two per entity) a list holds before it is indexed.
constexpr size_t kIndexFrom = 16;
// Names referred to are noted up to this length; a longer name is always
// searched for.
constexpr size_t kLongestNoted = 256;

uint32_t hash_text(const char *s, size_t len) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < len; ++i)
        h = (h ^ static_cast<unsigned char>(s[i])) * 16777619u;
    return h;
}

// Length of `s` up to and with its first ';', looking at most `limit`
// bytes; 0 when there is none there.
size_t up_to_semicolon(const char *s, size_t limit) {
    for (size_t i = 0; i < limit && s[i] != '\0'; ++i) {
        if (s[i] == ';')
            return i + 1;
    }
    return 0;
}

uint64_t referenced_key(const char *s, size_t len) {
    return (uint64_t{hash_text(s, len)} << 32) | len;  // len > 0: never 0
}

// Grows an array of `T` to at least `need` elements (doubling); false when
// memory runs out.
template <typename T>
bool reserve(T *&array, size_t &cap, size_t need) {
    if (need <= cap)
        return true;
    size_t grown = cap < 8 ? 8 : cap;
    while (grown < need)
        grown *= 2;
    auto *p = static_cast<T *>(os::realloc(array, grown * sizeof(T)));
    if (p == nullptr)
        return false;
    array = p;
    cap = grown;
    return true;
}

}  // namespace

EntityList::EntityList(char ***list, char mark) : list_(list), mark_(mark) {
    while ((*list_)[count_] != nullptr)
        count_ += 2;
    capacity_ = count_ + 1;
}

EntityList::~EntityList() {
    std::free(names_);
    std::free(odd_);
    std::free(referenced_);
    std::free(stamps_);
    std::free(pending_);
}

long EntityList::find(const char *ref) const {
    char **ent = pairs();
    if (!indexed_) {
        for (size_t i = 0; i < count_; i += 2) {
            const char *name = ent[i];
            if (name[0] == ref[0] && std::strncmp(ref, name, std::strlen(name)) == 0)
                return static_cast<long>(i);
        }
        return -1;
    }
    long best = -1;
    // A name without an inner ';' matches only the text up to the first ';'.
    if (size_t len = up_to_semicolon(ref, longest_); len != 0) {
        const uint32_t h = hash_text(ref, len);
        for (size_t i = h & (names_cap_ - 1);; i = (i + 1) & (names_cap_ - 1)) {
            const Slot &s = names_[i];
            if (s.entity == 0)
                break;
            const char *name = ent[2 * (s.entity - 1)];
            if (s.hash == h && std::strncmp(name, ref, len) == 0 && name[len] == '\0') {
                best = 2 * static_cast<long>(s.entity - 1);
                break;
            }
        }
    }
    for (size_t i = 0; i < odd_used_ && (best < 0 || odd_[i] < best); ++i) {
        const char *name = ent[odd_[i]];
        if (std::strncmp(ref, name, std::strlen(name)) == 0)
            return odd_[i];
    }
    return best;
}

bool EntityList::names_room() {
    return make_room(
        names_, names_cap_, names_used_, [](const Slot &s) { return s.entity == 0; },
        [](const Slot &s) { return s.hash; });
}

bool EntityList::referenced_room() {
    return make_room(
        referenced_, referenced_cap_, referenced_used_, [](uint64_t key) { return key == 0; },
        [](uint64_t key) { return static_cast<uint32_t>(key >> 32); });
}

// Enters the entity `name` at `at` into the name index (a name already there
// keeps its first entity).
bool EntityList::index_name(long at, const char *name) {
    const size_t len = std::strlen(name);
    if (up_to_semicolon(name, len) != len) {
        if (!reserve(odd_, odd_cap_, odd_used_ + 1))
            return false;
        odd_[odd_used_++] = at;
        return true;
    }
    if (!names_room())
        return false;
    const uint32_t h = hash_text(name, len);
    for (size_t i = h & (names_cap_ - 1);; i = (i + 1) & (names_cap_ - 1)) {
        Slot &s = names_[i];
        if (s.entity == 0) {
            s = Slot{h, static_cast<uint32_t>(at / 2 + 1)};
            ++names_used_;
            if (len > longest_)
                longest_ = len;
            return true;
        }
        if (s.hash == h && std::strcmp(pairs()[2 * (s.entity - 1)], name) == 0)
            return true;
    }
}

// Notes the names that the references in `value` may name. Noting one too
// many only costs a search later.
bool EntityList::note_references(const char *value) {
    for (const char *p = std::strchr(value, mark_); p != nullptr; p = std::strchr(p + 1, mark_)) {
        // A reference with no ';' in reach can only name a longer name,
        // which is always searched for.
        const size_t len = up_to_semicolon(p + 1, kLongestNoted);
        if (len == 0)
            continue;
        if (!referenced_room())
            return false;
        const uint64_t key = referenced_key(p + 1, len);
        size_t i = (key >> 32) & (referenced_cap_ - 1);
        while (referenced_[i] != 0 && referenced_[i] != key)
            i = (i + 1) & (referenced_cap_ - 1);
        if (referenced_[i] == 0) {
            referenced_[i] = key;
            ++referenced_used_;
        }
    }
    return true;
}

bool EntityList::build_index() {
    char **ent = pairs();
    for (size_t i = 0; i < count_; i += 2) {
        if (!index_name(static_cast<long>(i), ent[i]) || !note_references(ent[i + 1]))
            return false;
    }
    indexed_ = true;
    return true;
}

bool EntityList::append(char *name, char *value) {
    if (!reserve(*list_, capacity_, count_ + 3))
        return false;
    if (!indexed_ && count_ + 2 > kIndexFrom && !build_index())
        return false;
    // Noted references first: should the name not fit into the index
    // after them, the extra notes only cost a search.
    if (indexed_ && (!note_references(value) || !index_name(static_cast<long>(count_), name)))
        return false;
    char **ent = *list_;
    ent[count_] = name;
    ent[count_ + 1] = value;
    ent[count_ + 2] = nullptr;
    count_ += 2;
    return true;
}

bool EntityList::directly_refers(const char *value, const char *name, size_t len) const {
    for (const char *p = std::strchr(value, mark_); p != nullptr; p = std::strchr(p + 1, mark_)) {
        if (std::strncmp(p + 1, name, len) == 0)
            return true;
    }
    return false;
}

EntityList::Check EntityList::check_circular(const char *name, const char *value,
                                             ExpansionBudget &budget) {
    const size_t len = std::strlen(name);
    if (directly_refers(value, name, len))
        return Check::circular;
    // Through other entities, a circle needs a value that refers to this
    // name. When no value has a reference that can be one, and no entity
    // answers to the name already, there is nothing to search.
    if (indexed_ && len <= kLongestNoted && up_to_semicolon(name, len) == len && find(name) < 0) {
        if (referenced_cap_ == 0)
            return Check::fine;
        const uint64_t key = referenced_key(name, len);
        size_t i = (key >> 32) & (referenced_cap_ - 1);
        while (referenced_[i] != 0 && referenced_[i] != key)
            i = (i + 1) & (referenced_cap_ - 1);
        if (referenced_[i] == 0)
            return Check::fine;
    }
    return search(name, value, budget);
}

// Depth-first over the values reachable from `value`, each entity visited
// once per search.
EntityList::Check EntityList::search(const char *name, const char *value, ExpansionBudget &budget) {
    const size_t entities = count_ / 2;
    if (entities + 1 > scratch_cap_) {
        size_t cap = scratch_cap_;
        size_t pending_cap = scratch_cap_;
        if (!reserve(pending_, pending_cap, entities + 1) || !reserve(stamps_, cap, entities + 1))
            return Check::no_memory;
        std::memset(stamps_ + scratch_cap_, 0, (cap - scratch_cap_) * sizeof(uint32_t));
        scratch_cap_ = cap < pending_cap ? cap : pending_cap;
    }
    if (++stamp_ == 0) {  // wrapped: forget every visit
        std::memset(stamps_, 0, scratch_cap_ * sizeof(uint32_t));
        stamp_ = 1;
    }
    const size_t len = std::strlen(name);
    char **ent = pairs();
    size_t n = 0;
    pending_[n++] = value;
    while (n > 0) {
        const char *s = pending_[--n];
        const size_t scanned = std::strlen(s);
        if (scanned > budget.left) {
            budget.exceeded = true;
            return Check::over_budget;
        }
        budget.left -= scanned;
        for (const char *p = std::strchr(s, mark_); p != nullptr; p = std::strchr(p + 1, mark_)) {
            if (std::strncmp(p + 1, name, len) == 0)
                return Check::circular;
            const long i = find(p + 1);
            if (i >= 0 && stamps_[i / 2] != stamp_) {
                stamps_[i / 2] = stamp_;
                pending_[n++] = ent[i + 1];
            }
        }
    }
    return Check::fine;
}

}  // namespace qorcfg::xml
