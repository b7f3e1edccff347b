// xml/entities.h - a document's entity lists while it is parsed: the
// general entities (the root's `ent`, which the tree keeps) and the
// parameter entities of the internal subset. A few entities are searched
// in order; past that an index keeps declaring and resolving them linear
// in their number.
#pragma once

#include <cstddef>
#include <cstdint>

#include "xml/tree.h"

namespace qorcfg::xml {

// A list of entities in the document's layout, pairs of (name with its
// ';', replacement text), NULL-terminated, which stays where it is (a
// root's `ent`, or the parser's parameter list) and grows in place. A
// reference to one of its entities is `mark` ('&' or '%') followed by the
// name; the first entity whose name is a prefix of the text after the mark
// wins, so the first declaration of a name is the one found.
class EntityList {
public:
    EntityList(char ***list, char mark);
    ~EntityList();
    EntityList(const EntityList &) = delete;
    EntityList &operator=(const EntityList &) = delete;

    char mark() const { return mark_; }
    char **pairs() const { return *list_; }

    // The position in pairs() of the entity a reference names, `ref` being
    // the text after the mark; -1 when none.
    long find(const char *ref) const;

    enum class Check { fine, circular, over_budget, no_memory };
    // Whether an entity `name` (with its ';') whose replacement is `value`
    // would refer back to itself, directly or through the entities of this
    // list. The values searched are charged to `budget`.
    Check check_circular(const char *name, const char *value, ExpansionBudget &budget);

    // Appends (name, value), both allocated; the list then owns them. False
    // when memory runs out (nothing is changed).
    bool append(char *name, char *value);

private:
    struct Slot {
        uint32_t hash;
        uint32_t entity;  // its position in pairs() / 2, plus 1; 0: free
    };
    bool build_index();
    bool index_name(long at, const char *name);
    bool note_references(const char *value);
    bool names_room();
    bool referenced_room();
    bool directly_refers(const char *value, const char *name, size_t len) const;
    Check search(const char *name, const char *value, ExpansionBudget &budget);

    char ***list_;
    char mark_;
    size_t count_ = 0;     // strings in the list (twice the entities)
    size_t capacity_ = 0;  // pointers the list has room for
    bool indexed_ = false;
    // Entities by their whole name, when it holds no ';' before its last
    // byte; the first of a name only.
    Slot *names_ = nullptr;
    size_t names_cap_ = 0;
    size_t names_used_ = 0;
    size_t longest_ = 0;  // longest name in names_
    // Positions of entities whose names hold an inner ';' (a reference may
    // match one of them at any of its ';'), in order.
    long *odd_ = nullptr;
    size_t odd_used_ = 0;
    size_t odd_cap_ = 0;
    // Hashes of the names that references in the entities' values may
    // name: the text after each mark up to and with the first ';'. A new
    // entity whose name none of them is cannot close a circle.
    uint64_t *referenced_ = nullptr;
    size_t referenced_cap_ = 0;
    size_t referenced_used_ = 0;
    // Scratch of the circle search, kept between searches.
    uint32_t *stamps_ = nullptr;  // per entity: the search that last saw it
    const char **pending_ = nullptr;
    size_t scratch_cap_ = 0;  // entities the scratch has room for
    uint32_t stamp_ = 0;
};

}  // namespace qorcfg::xml
