// xml/parser.h - the in-place parser's parts, shared by its sources:
// xml/parse.cpp (the entry points, the markup loop and errors),
// xml/elements.cpp (tags, attributes and text), xml/prologue.cpp (the
// DOCTYPE with its internal subset, and processing instructions) and
// xml/encoding.cpp (UTF-16 input).
//
// The parser works on the caller's buffer: it writes terminating zeros into
// it and leaves names, values and texts there unless decoding lengthened
// them. It never reads past the buffer: the last byte is replaced by a zero
// (remembered, since a '>' there still ends the markup it belongs to), every
// scan stops at a zero, and nothing steps over the final one.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "os/os.h"
#include "xml/entities.h"
#include "xml/pool.h"
#include "xml/tree.h"

// The steps of the markup loop that run for every element and attribute,
// each called from one place, are inlined into the loop (defined in
// xml/elements.cpp, which alone calls them): as separate calls they cost a
// quarter more instructions per parse.
#define QORCFG_PARSE_STEP [[gnu::always_inline]] inline

namespace qorcfg::xml {

inline char kEmpty[] = "";

constexpr const char *kSpaces = "\t\r\n ";

inline bool starts_with(const char *s, const char *prefix) {
    return std::strncmp(s, prefix, std::strlen(prefix)) == 0;
}

inline bool is_name_start(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':' || c >= 0x80;
}

// Bytes that end an element name: tab, CR, LF, blank, '/', '>' and zero.
struct CharSet {
    bool in[256];
};
constexpr CharSet make_set(const char *chars) {
    CharSet set{};
    set.in[0] = true;
    for (const char *c = chars; *c != '\0'; ++c)
        set.in[static_cast<unsigned char>(*c)] = true;
    return set;
}
constexpr CharSet kNameEnd = make_set("\t\r\n />");
constexpr CharSet kAttrNameEnd = make_set("\t\r\n =/>");
constexpr CharSet kClosingNameEnd = make_set("\t\r\n >");
// What makes a value of an undeclared or CDATA attribute need decoding;
// values of other declared types are always decoded (their blanks are
// squeezed). Texts need it for '&' and CR.
constexpr CharSet kValueSpecial = make_set("&\r\n\t");
// Where scanning a value or a text must look closer.
constexpr CharSet kValueStop = make_set("&\r\n\t\"'");
constexpr CharSet kTextStop = make_set("&\r<");

// The first byte of `p` that is in `set` (every set holds the zero), four
// bytes a step where it can.
inline char *skip_to(char *p, const CharSet &set) {
    auto in = [&set](char c) { return set.in[static_cast<unsigned char>(c)]; };
    while (!in(p[0]) && !in(p[1]) && !in(p[2]) && !in(p[3]))
        p += 4;
    while (!in(*p))
        ++p;
    return p;
}

inline bool same_name(const char *a, const char *b) {
    while (*a == *b && *a != '\0') {
        ++a;
        ++b;
    }
    return *a == *b;
}

inline char *skip_spaces(char *p) {
    while (is_space(static_cast<unsigned char>(*p)))
        ++p;
    return p;
}

// ---- growable arrays of pointers, allocated through the seam ---------------

// Appends `n` pointers to a NULL-terminated array that may still be
// EZXML_NIL; returns the new array (the old one is gone) or NULL.
template <typename T>
T *grow_array(T *array, size_t used, size_t extra) {
    void *old = reinterpret_cast<void *>(array) == reinterpret_cast<void *>(EZXML_NIL)
                    ? nullptr
                    : reinterpret_cast<void *>(array);
    return static_cast<T *>(os::realloc(old, (used + extra) * sizeof(*array)));
}

// ---- children of one parent, appended in constant time -----------------------

// While parsing, children only ever go to the end of their parent's
// document order and of their name group. The index maps (parent, name) to
// the last member of that group so that a new child of a known name is
// linked without walking the groups.
class GroupIndex {
public:
    ~GroupIndex() { std::free(slots_); }

    // Slot of the group `name` under `parent`, creating an empty one.
    // SIZE_MAX when memory runs out.
    size_t find(const ezxml_node *parent, const char *name) {
        if (!make_room(
                slots_, cap_, used_, [](const Slot &s) { return s.parent == nullptr; },
                [](const Slot &s) { return s.hash; }))
            return SIZE_MAX;
        uint32_t h = hash(parent, name);
        size_t mask = cap_ - 1;
        for (size_t i = h & mask;; i = (i + 1) & mask) {
            Slot &s = slots_[i];
            if (s.parent == nullptr) {
                s = Slot{parent, name, h, nullptr};
                ++used_;
                return i;
            }
            if (s.hash == h && s.parent == parent && std::strcmp(s.name, name) == 0)
                return i;
        }
    }
    ezxml_node *&tail(size_t slot) { return slots_[slot].tail; }

private:
    struct Slot {
        const ezxml_node *parent;
        const char *name;
        uint32_t hash;
        ezxml_node *tail;
    };

    static uint32_t hash(const ezxml_node *parent, const char *name) {
        uint32_t h = 2166136261u ^ static_cast<uint32_t>(reinterpret_cast<uintptr_t>(parent) >> 4);
        for (const unsigned char *p = reinterpret_cast<const unsigned char *>(name); *p; ++p)
            h = (h ^ *p) * 16777619u;
        return h;
    }

    Slot *slots_ = nullptr;
    size_t cap_ = 0;
    size_t used_ = 0;
};

// ---- attributes of the tag being read ----------------------------------------

class AttrBuilder {
public:
    ~AttrBuilder() { discard(); }

    bool add(char *name, char *value, char own) {
        if (n_ == cap_) {
            size_t cap = cap_ * 2;
            auto *grown = static_cast<Entry *>(
                os::malloc(cap * sizeof(Entry)));  // the first 16 live on the stack
            if (grown == nullptr)
                return false;
            std::memcpy(grown, entries_, n_ * sizeof(Entry));
            if (entries_ != local_)
                std::free(entries_);
            entries_ = grown;
            cap_ = cap;
        }
        entries_[n_++] = Entry{name, value, own};
        return true;
    }

    size_t size() const { return n_; }
    bool owns_any() const {
        for (size_t i = 0; i < n_; ++i) {
            if (entries_[i].own != kOwnNone)
                return true;
        }
        return false;
    }

    // Writes the list in its final layout into `block` (attr_block_size
    // bytes): the pointers, then the ownership string marked `where`. The
    // builder is empty afterwards.
    char **place(void *block, char where) {
        auto **list = static_cast<char **>(block);
        char *own = reinterpret_cast<char *>(list + 2 * n_ + 2);
        for (size_t i = 0; i < n_; ++i) {
            list[2 * i] = entries_[i].name;
            list[2 * i + 1] = entries_[i].value;
            own[i] = entries_[i].own;
        }
        list[2 * n_] = nullptr;
        list[2 * n_ + 1] = own;
        own[n_] = '\0';
        own[n_ + 1] = where;
        n_ = 0;
        return list;
    }

    // The list as an allocation of its own; EZXML_NIL when there are no
    // attributes, NULL when memory runs out.
    char **finish() {
        if (n_ == 0)
            return EZXML_NIL;
        void *block = os::malloc(attr_block_size(n_));
        return block != nullptr ? place(block, kOwnInline) : nullptr;
    }

    // Frees the values decoding allocated and forgets the rest.
    void discard() {
        for (size_t i = 0; i < n_; ++i) {
            if (entries_[i].own == kOwnDecoded)
                std::free(entries_[i].value);
        }
        n_ = 0;
        if (entries_ != local_) {
            std::free(entries_);
            entries_ = local_;
            cap_ = kLocal;
        }
    }

private:
    struct Entry {
        char *name;
        char *value;
        char own;
    };
    static constexpr size_t kLocal = 16;
    Entry local_[kLocal];
    Entry *entries_ = local_;
    size_t n_ = 0;
    size_t cap_ = kLocal;
};

// ---- the parser -----------------------------------------------------------------

class Parser {
public:
    Parser(ezxml_root *root, char *s, size_t len)
        : root_(root),
          end_(s + len - 1),
          last_(*end_),
          budget_{4 * len + (size_t{1} << 20)},
          general_(&root->ent, '&'),
          pool_(len) {
        *end_ = '\0';
    }
    ~Parser() {
        for (size_t i = 0; i < npieces_; ++i) {
            if (pieces_[i].owned)
                std::free(pieces_[i].text);
        }
        std::free(pieces_);
        std::free(frames_);
    }

    // Parses the document whose first byte is `s`.
    ezxml_node *run(char *s);

private:
    // An open element and what the parser keeps about it until it closes.
    struct Frame {
        ezxml_node *node;
        size_t txt_len;     // length of the text so far
        size_t pieces;      // its first piece on the piece stack
        ezxml_node *last;   // last child in document order
        ezxml_node *group;  // first member of the last name group
        // The children's name groups (a tail may lag behind its group's
        // end): kept here while there are few, in the index beyond that.
        static constexpr size_t kFew = 8;
        ezxml_node *tails[kFew];
        size_t groups;  // in `tails`, or kIndexed
    };
    static constexpr size_t kIndexed = SIZE_MAX;

    // A piece of character content waiting for its element to close.
    struct Piece {
        char *text;
        size_t len;
        bool owned;  // allocated by decoding
    };

    ezxml_node *error(const char *pos, const char *format, ...) QORCFG_PRINTF(3, 4);
    ezxml_node *out_of_memory(const char *pos) { return error(pos, "out of memory"); }

    // True when `p` is the position of the replaced last byte and it was '>'.
    bool ends_with_gt(const char *p) const { return p == end_ && last_ == '>'; }
    bool open_element(ezxml_node *node);
    ezxml_node *new_child(char *name, AttrBuilder &attrs);
    ezxml_node **group_tail(Frame &f, const char *name);
    bool close_element();
    bool join_text(Frame &f);
    bool add_text(char *s, size_t len, char type);
    char type_of_attribute(char **defaults, const char *name) const;
    char **defaults_of(const char *tag) const;

    char *markup(char *p);
    char *character_content(char *p);
    char *element(char *p);
    char *attributes(char *p, char *tag, const char *name, AttrBuilder &attrs, char **unterminated);
    char *quoted_value(char *p, char *tag, char type, char **value, char *own);
    bool place_element(char *tag, char *name, AttrBuilder &attrs, bool empty);
    char *closing_tag(char *p);
    char *doctype(char *p);
    char *processing_instruction(char *p);
    bool store_instruction(char *s, size_t len);
    size_t list_of(char ****lists, char *key, size_t string_size);
    bool read_subset(char *s, size_t len);
    char *entity_declaration(char *p, EntityList &parameters);
    bool add_entity(EntityList &list, char *name, char *value, const char *at);
    char *attlist_declaration(char *p);
    char *attribute_definition(char *tag, char *n);
    bool append_default(char *tag, char *name, char *value, bool owned, const char *type);

    ezxml_root *root_;
    char *end_;  // position of the document's last byte (now a zero)
    char last_;  // what that byte was
    ExpansionBudget budget_;
    EntityList general_;  // the root's entity list
    NodePool pool_;
    GroupIndex groups_;
    Frame *frames_ = nullptr;
    size_t depth_ = 0;
    size_t frames_cap_ = 0;
    Piece *pieces_ = nullptr;
    size_t npieces_ = 0;
    size_t pieces_cap_ = 0;
    bool root_closed_ = false;
    bool failed_ = false;  // an error was recorded; stop
};

// Converts UTF-16 input (recognised by its byte-order mark) to UTF-8.
// Returns false when memory runs out; *s and *len then stay unchanged.
bool utf16_to_utf8(ezxml_root *root, char **s, size_t *len);

}  // namespace qorcfg::xml
