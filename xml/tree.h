// xml/tree.h - internals shared by the document tree's sources: attribute
// list layout, the predefined entities, the entity decoder and root access.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "os/os.h"
#include "qorcfg/xml.h"

namespace qorcfg::xml {

// Length field of a root whose buffer was allocated by the library.
constexpr size_t kOwnedBuffer = SIZE_MAX;

// Ownership characters of an attribute list (one per attribute).
constexpr char kOwnNone = ' ';                           // neither string owned
constexpr char kOwnDecoded = '@';                        // value allocated by decoding
constexpr unsigned char kOwnValueBit = EZXML_TXT_OWNED;  // 0x40
constexpr unsigned char kOwnNameBit = EZXML_NAME_OWNED;  // 0x80

// Every ownership string the library makes carries one byte after its
// terminating zero that says where the list lives: kOwnSeparate, the string
// and the pointer array are allocations of their own; kOwnInline, the string
// follows the pointers in the array's allocation; kOwnInNode, both follow
// the node record in the node's allocation (lists the parser makes for
// elements). Lists that are not separate are moved out before a resize.
constexpr char kOwnSeparate = 0;
constexpr char kOwnInline = 1;
constexpr char kOwnInNode = 2;
// As kOwnInNode, and the list owns none of its strings, so freeing it has
// nothing to do.
constexpr char kOwnInNodeNone = 3;

// Bytes of a list with `pairs` attributes laid out in one block: pointers,
// then the ownership string with its zero and its marker.
constexpr size_t attr_block_size(size_t pairs) {
    return (2 * pairs + 2) * sizeof(char *) + pairs + 2;
}

// The predefined entities: five (name, replacement) pairs and a NULL.
constexpr size_t kPredefinedStrings = 10;
extern char *const kPredefinedEntities[kPredefinedStrings + 1];

// White space of the markup: tab, line feed, carriage return, blank.
inline bool is_space(unsigned char c) {
    return c == ' ' || c == '\n' || c == '\t' || c == '\r';
}

// The document root above `node` (the topmost node of its parent chain).
inline ezxml_root *root_of(ezxml_node *node) {
    while (node->parent != nullptr)
        node = node->parent;
    return reinterpret_cast<ezxml_root *>(node);
}

// Number of name/value pairs of an attribute list.
inline size_t attr_pairs(char **attr) {
    size_t n = 0;
    while (attr[2 * n] != nullptr)
        ++n;
    return n;
}

// The ownership string of a list with `pairs` attributes.
inline char *attr_owner(char **attr, size_t pairs) {
    return attr[2 * pairs + 1];
}

// Gives back the end of an allocation (shrinking to `size` bytes). Not a
// fault point of the seam: a failed shrink keeps the larger block, which is
// still correct, so nothing depends on it.
inline void *shrink(void *p, size_t size) {
    void *fit = std::realloc(p, size);
    return fit != nullptr ? fit : p;
}

// Open addressing with linear probing: makes room for one more entry in a
// table of `cap` slots of `used` (kept at most half full; the first table
// has 64 slots), moving the entries into a larger table when needed. A slot
// for which `is_free` holds is free (a zeroed slot must be free), `hash_of`
// gives a used slot's hash. False when memory runs out (nothing changes).
template <typename T, typename IsFree, typename HashOf>
bool make_room(T *&slots, size_t &cap, size_t used, IsFree is_free, HashOf hash_of) {
    if ((used + 1) * 2 <= cap)
        return true;
    const size_t grown = cap == 0 ? 64 : cap * 2;
    auto *fresh = static_cast<T *>(os::calloc(grown, sizeof(T)));
    if (fresh == nullptr)
        return false;
    for (size_t i = 0; i < cap; ++i) {
        if (is_free(slots[i]))
            continue;
        size_t j = hash_of(slots[i]) & (grown - 1);
        while (!is_free(fresh[j]))
            j = (j + 1) & (grown - 1);
        fresh[j] = slots[i];
    }
    std::free(slots);
    slots = fresh;
    cap = grown;
    return true;
}

// A new empty root record named `name` (not copied), or NULL when memory
// runs out.
ezxml_root *new_root(const char *name);

// Limit on the text that entity references may insert into one document,
// so that nested entities cannot expand without bound.
struct ExpansionBudget {
    size_t left;
    bool exceeded = false;
};

class EntityList;

// Decodes the NUL-terminated text `s` of length `len` as a text of kind
// `type` ('&' element text, ' ' CDATA attribute, '*' other attribute,
// 'c' CDATA section, '%' entity value) against the entities `ent`.
// Returns `s` itself when the result fits in place, a new allocation when an
// entity replacement was longer than its reference (`*moved` is then set),
// or NULL when memory ran out or the budget was exhausted.
char *decode(char *s, size_t len, const EntityList &ent, char type, ExpansionBudget &budget,
             bool *moved);

}  // namespace qorcfg::xml
