// xml/parse.cpp - the in-place parser: markup, attributes, text, the
// internal DTD subset, processing instructions and UTF-16 input, and the
// file-descriptor and file entry points.
//
// The parser works on the caller's buffer: it writes terminating zeros into
// it and leaves names, values and texts there unless decoding lengthened
// them. It never reads past the buffer: the last byte is replaced by a zero
// (remembered, since a '>' there still ends the markup it belongs to), every
// scan stops at a zero, and nothing steps over the final one.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "os/os.h"
#include "xml/entities.h"
#include "xml/pool.h"
#include "xml/tree.h"

namespace qorcfg::xml {

ezxml_root *new_root(const char *name) {
    auto *root = static_cast<ezxml_root *>(os::calloc(1, sizeof(ezxml_root)));
    if (root == nullptr)
        return nullptr;
    auto **ent = static_cast<char **>(os::malloc(sizeof kPredefinedEntities));
    if (ent == nullptr) {
        std::free(root);
        return nullptr;
    }
    std::memcpy(ent, kPredefinedEntities, sizeof kPredefinedEntities);
    root->xml.name = const_cast<char *>(name);
    root->xml.txt = const_cast<char *>("");
    root->xml.attr = EZXML_NIL;
    root->cur = &root->xml;
    root->ent = ent;
    root->attr = reinterpret_cast<char ***>(EZXML_NIL);
    root->pi = reinterpret_cast<char ***>(EZXML_NIL);
    return root;
}

namespace {

char kEmpty[] = "";

constexpr const char *kSpaces = "\t\r\n ";

bool starts_with(const char *s, const char *prefix) {
    return std::strncmp(s, prefix, std::strlen(prefix)) == 0;
}

bool is_name_start(unsigned char c) {
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

    char *element(char *p);
    char *closing_tag(char *p);
    char *doctype(char *p);
    char *processing_instruction(char *p);
    bool store_instruction(char *s, size_t len);
    bool read_subset(char *s, size_t len);
    char *entity_declaration(char *p, EntityList &parameters);
    char *attlist_declaration(char *p);
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

ezxml_node *Parser::error(const char *pos, const char *format, ...) {
    int line = 1;
    for (const char *t = root_->s; t != nullptr && t < pos; ++t) {
        t = static_cast<const char *>(std::memchr(t, '\n', static_cast<size_t>(pos - t)));
        if (t == nullptr)
            break;
        ++line;
    }
    char message[EZXML_ERRL];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(message, sizeof message, format, ap);
    va_end(ap);
    char full[EZXML_ERRL + 40];  // the prefix, then the message; cut to the record's size
    std::snprintf(full, sizeof full, "[error near line %d]: %s", line, message);
    std::memcpy(root_->err, full, EZXML_ERRL - 1);
    root_->err[EZXML_ERRL - 1] = '\0';
    root_->cur = depth_ > 0 ? frames_[depth_ - 1].node : (root_closed_ ? nullptr : &root_->xml);
    failed_ = true;
    // The partial tree stays reachable: its open elements get their text so
    // far (what cannot be joined for want of memory is dropped).
    for (size_t i = depth_; i > 0; --i)
        join_text(frames_[i - 1]);
    return &root_->xml;
}

bool Parser::open_element(ezxml_node *node) {
    if (depth_ == frames_cap_) {
        size_t cap = frames_cap_ == 0 ? 32 : frames_cap_ * 2;
        auto *frames = static_cast<Frame *>(os::realloc(frames_, cap * sizeof(Frame)));
        if (frames == nullptr)
            return false;
        frames_ = frames;
        frames_cap_ = cap;
    }
    Frame &f = frames_[depth_++];
    f.node = node;
    f.txt_len = 0;
    f.pieces = npieces_;
    f.last = nullptr;
    f.group = nullptr;
    f.groups = 0;
    return true;
}

// A new element under the open one, at the end of its document order and of
// its name group, with `off` = the parent's text length so far.
ezxml_node *Parser::new_child(char *name, AttrBuilder &attrs) {
    Frame &f = frames_[depth_ - 1];
    // The node and its attribute list share one allocation.
    size_t n = attrs.size();
    size_t bytes = sizeof(ezxml_node) + (n > 0 ? attr_block_size(n) : 0);
    auto *node = static_cast<ezxml_node *>(pool_.allocate(bytes, static_cast<size_t>(end_ - name)));
    if (node == nullptr)
        return nullptr;
    std::memset(node, 0, sizeof(ezxml_node));
    node->name = name;
    node->attr =
        n > 0 ? attrs.place(node + 1, attrs.owns_any() ? kOwnInNode : kOwnInNodeNone) : EZXML_NIL;
    node->txt = kEmpty;
    node->off = f.txt_len;
    node->parent = f.node;
    if (f.last != nullptr && same_name(f.last->name, name)) {
        // Runs of like-named children (lists) take the fastest path; the
        // index's tail of this group is brought up to date when the group
        // is resumed after another one.
        f.last->next = node;
    } else {
        ezxml_node **slot = group_tail(f, name);
        if (slot == nullptr) {
            ezxml_free_attr(node->attr);
            pool_.undo(node, bytes);
            return nullptr;
        }
        ezxml_node *&tail = *slot;
        if (tail != nullptr) {
            while (tail->next != nullptr)  // each member is stepped over once
                tail = tail->next;
            tail->next = node;
        } else if (f.group != nullptr) {
            f.group->sibling = node;
            f.group = node;
        } else {
            f.group = node;
        }
        tail = node;
    }
    if (f.last != nullptr)
        f.last->ordered = node;
    else
        f.node->child = node;
    f.last = node;
    return node;
}

// Where the tail of the name group `name` among `f`'s children is kept: its
// slot (holding NULL for a new group), or NULL when memory runs out.
ezxml_node **Parser::group_tail(Frame &f, const char *name) {
    if (f.groups != kIndexed) {
        for (size_t i = 0; i < f.groups; ++i) {
            if (same_name(f.tails[i]->name, name))
                return &f.tails[i];
        }
        if (f.groups < Frame::kFew) {
            f.tails[f.groups] = nullptr;
            return &f.tails[f.groups++];
        }
        // Many names under one parent: from now on in the index.
        for (size_t i = 0; i < f.groups; ++i) {
            size_t slot = groups_.find(f.node, f.tails[i]->name);
            if (slot == SIZE_MAX)
                return nullptr;
            groups_.tail(slot) = f.tails[i];
        }
        f.groups = kIndexed;
    }
    size_t slot = groups_.find(f.node, name);
    return slot != SIZE_MAX ? &groups_.tail(slot) : nullptr;
}

// Joins the pieces of `f`'s text into its txt: leading pieces that decoded
// to nothing are dropped, a single piece is used where it is, several are
// copied into one allocation. False when memory runs out (the pieces are
// then dropped).
bool Parser::join_text(Frame &f) {
    size_t first = f.pieces;
    while (first < npieces_ && pieces_[first].len == 0) {
        if (pieces_[first].owned)
            std::free(pieces_[first].text);
        ++first;
    }
    size_t count = npieces_ - first;
    bool ok = true;
    ezxml_node *node = f.node;
    if (count == 1) {
        node->txt = pieces_[first].text;
        if (pieces_[first].owned)
            node->flags |= EZXML_TXT_OWNED;
    } else if (count > 1) {
        auto *txt = static_cast<char *>(os::malloc(f.txt_len + 1));
        ok = txt != nullptr;
        size_t at = 0;
        for (size_t i = first; i < npieces_; ++i) {
            if (ok) {
                std::memcpy(txt + at, pieces_[i].text, pieces_[i].len);
                at += pieces_[i].len;
            }
            if (pieces_[i].owned)
                std::free(pieces_[i].text);
        }
        if (ok) {
            txt[at] = '\0';
            node->txt = txt;
            node->flags |= EZXML_TXT_OWNED;
        }
    }
    npieces_ = f.pieces;
    return ok;
}

bool Parser::close_element() {
    bool ok = join_text(frames_[depth_ - 1]);
    if (--depth_ == 0)
        root_closed_ = true;
    return ok;
}

// Adds a piece of character content to the open element, decoded (type 0:
// the caller saw nothing to decode). The pieces are joined when the element
// closes.
bool Parser::add_text(char *s, size_t len, char type) {
    if (depth_ == 0 || len == 0)
        return true;
    s[len] = '\0';
    bool moved = false;
    char *d = s;
    size_t dlen = len;
    if (type != 0) {
        d = decode(s, len, general_, type, budget_, &moved);
        if (d == nullptr)
            return false;
        dlen = std::strlen(d);
    }
    if (npieces_ == pieces_cap_) {
        size_t cap = pieces_cap_ == 0 ? 64 : pieces_cap_ * 2;
        auto *grown = static_cast<Piece *>(os::realloc(pieces_, cap * sizeof(Piece)));
        if (grown == nullptr) {
            if (moved)
                std::free(d);
            return false;
        }
        pieces_ = grown;
        pieces_cap_ = cap;
    }
    pieces_[npieces_++] = Piece{d, dlen, moved};
    frames_[depth_ - 1].txt_len += dlen;
    return true;
}

// The default-attribute list declared for `tag`, or NULL.
char **Parser::defaults_of(const char *tag) const {
    for (char ***list = root_->attr; *list != nullptr; ++list) {
        if (std::strcmp((*list)[0], tag) == 0)
            return *list;
    }
    return nullptr;
}

// Normalisation type of attribute `name`: its declared type, else ' '.
char Parser::type_of_attribute(char **defaults, const char *name) const {
    if (defaults != nullptr) {
        for (size_t j = 1; defaults[j] != nullptr; j += 3) {
            if (std::strcmp(defaults[j], name) == 0)
                return defaults[j + 2][0];
        }
    }
    return ' ';
}

// <name attributes...> or <name attributes.../>; `p` is at the name.
char *Parser::element(char *p) {
    char *tag = p - 1;
    if (root_closed_)
        return (error(tag, "markup outside of root element"), nullptr);
    char *name = p;
    p = skip_to(p, kNameEnd);
    // A name or attribute name ended by '/' or '>' is terminated only once
    // that character has been read.
    char *unterminated = nullptr;
    if (is_space(static_cast<unsigned char>(*p))) {
        *p = '\0';
        p = skip_spaces(p + 1);
    } else {
        unterminated = p;
    }

    AttrBuilder attrs;
    char **defaults = nullptr;
    bool looked_up = false;
    while (*p != '\0' && *p != '/' && *p != '>') {
        if (!looked_up) {
            defaults = root_->attr[0] != nullptr ? defaults_of(name) : nullptr;
            looked_up = true;
        }
        char *attr_name = p;
        p = skip_to(p, kAttrNameEnd);
        char *value = kEmpty;
        char own = kOwnNone;
        if (*p == '=' || is_space(static_cast<unsigned char>(*p))) {
            *p++ = '\0';
            while (is_space(static_cast<unsigned char>(*p)) || *p == '=')
                ++p;
            char quote = *p;
            if (quote == '"' || quote == '\'') {
                char *v = p + 1;
                char *close = v;
                bool dirty = false;
                for (;;) {
                    close = skip_to(close, kValueStop);
                    if (*close == quote || *close == '\0')
                        break;
                    dirty |= kValueSpecial.in[static_cast<unsigned char>(*close)];
                    ++close;
                }
                if (*close == '\0')
                    return (error(tag, "missing %c", quote), nullptr);
                *close = '\0';
                p = close + 1;
                value = v;
                char type = defaults != nullptr ? type_of_attribute(defaults, attr_name) : ' ';
                if (dirty || type != ' ') {
                    bool moved = false;
                    value =
                        decode(v, static_cast<size_t>(close - v), general_, type, budget_, &moved);
                    if (value == nullptr)
                        return (budget_.exceeded ? error(v, "entity expansion limit exceeded")
                                                 : out_of_memory(v),
                                nullptr);
                    if (moved)
                        own = kOwnDecoded;
                }
            }
        } else {
            unterminated = p;  // the attribute name ends at '/', '>' or the end
        }
        if (!attrs.add(attr_name, value, own)) {
            if (own == kOwnDecoded)
                std::free(value);
            return (out_of_memory(attr_name), nullptr);
        }
        p = skip_spaces(p);
    }

    bool empty = false;
    char *after;
    if (*p == '/' && (p[1] == '>' || ends_with_gt(p + 1))) {
        empty = true;
        after = p[1] == '>' ? p + 2 : p + 1;
    } else if (*p == '>' || ends_with_gt(p)) {
        after = *p == '>' ? p + 1 : p;
    } else {
        return (error(tag, "missing >"), nullptr);
    }
    if (unterminated != nullptr)
        *unterminated = '\0';
    *p = '\0';
    if (root_->xml.name == nullptr) {
        // The document element: its record is open from the start (text
        // before it is its text), it only takes its name and attributes.
        char **list = attrs.finish();
        if (list == nullptr)
            return (out_of_memory(tag), nullptr);
        root_->xml.name = name;
        root_->xml.attr = list;
        if (empty && !close_element())
            return (out_of_memory(tag), nullptr);
        return after;
    }
    ezxml_node *node = new_child(name, attrs);
    if (node == nullptr || (!empty && !open_element(node)))
        return (out_of_memory(tag), nullptr);
    return after;
}

// </name>; `p` is at the '/'.
char *Parser::closing_tag(char *p) {
    char *tag = p - 1;
    char *name = p + 1;
    char *q = skip_to(name, kClosingNameEnd);
    char *r = skip_spaces(q);
    char *after = *r == '>' ? r + 1 : r;
    if (*r != '>' && !ends_with_gt(r))
        return (error(tag, "missing >"), nullptr);
    *q = '\0';
    const char *open = depth_ > 0 ? frames_[depth_ - 1].node->name : nullptr;
    if (open == nullptr || std::strcmp(open, name) != 0)
        return (error(tag, "unexpected closing tag </%s>", name), nullptr);
    if (!close_element())
        return (out_of_memory(tag), nullptr);
    return after;
}

// <!DOCTYPE ...> with an optional [internal subset]; `p` is at the '!'.
char *Parser::doctype(char *p) {
    char *tag = p - 1;
    char *subset = nullptr;
    char *q = p + 8;
    for (;;) {
        q += std::strcspn(q, "[]>");
        if (*q == '\0') {
            // The end of the text closes the declaration only where the
            // remembered last byte '>' completes it.
            bool closed = false;
            if (ends_with_gt(q)) {
                if (subset == nullptr) {
                    closed = true;
                } else {
                    char *b = q;
                    while (b > subset && is_space(static_cast<unsigned char>(b[-1])))
                        --b;
                    closed = b > subset && b[-1] == ']';
                    if (closed && !read_subset(subset, static_cast<size_t>(b - 1 - subset)))
                        return nullptr;
                }
            }
            return closed ? q : (error(tag, "unclosed <!DOCTYPE"), nullptr);
        }
        if (*q == '[' && subset == nullptr) {
            subset = q + 1;
        } else if (*q == '>' && subset == nullptr) {
            return q + 1;
        } else if (*q == ']' && subset != nullptr) {
            char *r = skip_spaces(q + 1);
            if (*r == '>' || ends_with_gt(r)) {
                if (!read_subset(subset, static_cast<size_t>(q - subset)))
                    return nullptr;
                return *r == '>' ? r + 1 : r;
            }
        }
        ++q;
    }
}

// <?target text?>; `p` is at the '?'.
char *Parser::processing_instruction(char *p) {
    char *tag = p - 1;
    char *body = p + 1;
    char *q = std::strstr(body, "?>");
    char *after;
    if (q != nullptr) {
        after = q + 2;
    } else if (ends_with_gt(end_) && end_ > body && end_[-1] == '?') {
        q = end_ - 1;  // "?>" at the very end, its '>' remembered
        after = end_;
    } else {
        return (error(tag, "unclosed <?"), nullptr);
    }
    if (!store_instruction(body, static_cast<size_t>(q - body)))
        return (out_of_memory(tag), nullptr);
    return after;
}

// Stores an instruction (target, white space, text). The XML declaration
// only sets `standalone`.
bool Parser::store_instruction(char *s, size_t len) {
    s[len] = '\0';
    char *target = s;
    char *text = s + std::strcspn(s, kSpaces);
    if (*text != '\0') {
        *text = '\0';
        text = skip_spaces(text + 1);
    }
    if (std::strcmp(target, "xml") == 0) {
        if (char *sa = std::strstr(text, "standalone")) {
            sa += 10;
            sa += std::strspn(sa, "\t\r\n ='\"");
            if (starts_with(sa, "yes"))
                root_->standalone = 1;
        }
        return true;
    }
    size_t i = 0;
    while (root_->pi[i] != nullptr && std::strcmp(root_->pi[i][0], target) != 0)
        ++i;
    if (root_->pi[i] == nullptr) {  // a new target: list {target, NULL, ""}
        char ***pi = grow_array(root_->pi, i + 1, 1);
        if (pi == nullptr)
            return false;
        root_->pi = pi;
        pi[i] = nullptr;
        auto **list = static_cast<char **>(os::malloc(3 * sizeof(char *)));
        char *where = static_cast<char *>(os::calloc(1, 1));
        if (list == nullptr || where == nullptr) {
            std::free(list);
            std::free(where);
            return false;
        }
        list[0] = target;
        list[1] = nullptr;
        list[2] = where;
        pi[i] = list;
        pi[i + 1] = nullptr;
    }
    char **list = root_->pi[i];
    size_t j = 1;
    while (list[j] != nullptr)
        ++j;
    // {target, texts (j - 1 of them), NULL, positions} -> one more text.
    char *where = static_cast<char *>(os::realloc(list[j + 1], j + 1));
    if (where == nullptr)
        return false;
    list[j + 1] = where;
    auto **grown = static_cast<char **>(os::realloc(list, (j + 3) * sizeof(char *)));
    if (grown == nullptr)
        return false;
    root_->pi[i] = grown;
    where[j - 1] = root_->xml.name != nullptr ? '>' : '<';
    where[j] = '\0';
    grown[j] = text;
    grown[j + 1] = nullptr;
    grown[j + 2] = where;
    return true;
}

// ---- the internal DTD subset --------------------------------------------------------

void free_entities(char **list, size_t from) {
    for (size_t i = from; list[i] != nullptr; i += 2) {
        std::free(list[i]);
        std::free(list[i + 1]);
    }
}

bool Parser::read_subset(char *s, size_t len) {
    s[len] = '\0';
    // Parameter entities live only while the subset is read.
    auto **pe = static_cast<char **>(os::calloc(1, sizeof(char *)));
    if (pe == nullptr)
        return (out_of_memory(s), false);
    EntityList parameters(&pe, '%');
    char *p = s;
    while (p != nullptr && *p != '\0' && !failed_) {
        p += std::strcspn(p, "<%");
        if (*p == '\0')
            break;
        if (starts_with(p, "<!ENTITY")) {
            p = entity_declaration(p, parameters);
        } else if (starts_with(p, "<!--")) {
            char *q = std::strstr(p + 4, "-->");
            p = q != nullptr ? q + 3 : nullptr;
        } else if (starts_with(p, "<!ATTLIST")) {
            p = attlist_declaration(p);
        } else if (starts_with(p, "<?")) {
            char *q = std::strstr(p + 2, "?>");
            if (q != nullptr && !store_instruction(p + 2, static_cast<size_t>(q - p - 2)))
                out_of_memory(p);
            p = q != nullptr ? q + 2 : nullptr;
        } else if (*p == '<') {
            char *q = std::strchr(p, '>');
            p = q != nullptr ? q + 1 : nullptr;
        } else if (root_->standalone) {
            ++p;  // a parameter-entity reference outside a declaration
        } else {
            break;
        }
    }
    free_entities(pe, 0);
    std::free(pe);
    return !failed_;
}

// <!ENTITY [%] name "value">; returns where reading goes on (NULL: stop).
char *Parser::entity_declaration(char *p, EntityList &parameters) {
    char *c = skip_spaces(p + 8);
    bool parameter = *c == '%';
    char *n = c + std::strspn(c, "\t\r\n %");
    char *name_end = n + std::strcspn(n, kSpaces);
    if (*name_end == '\0')
        return nullptr;
    char *v = skip_spaces(name_end + 1);
    char quote = *v;
    if (quote != '"' && quote != '\'') {  // external entity: not read
        char *gt = std::strchr(v, '>');
        return gt != nullptr ? gt + 1 : nullptr;
    }
    ++v;
    char *close = std::strchr(v, quote);
    char *next = nullptr;
    if (close != nullptr) {
        *close = '\0';
        next = close + 1;
    }
    size_t name_len = static_cast<size_t>(name_end - n);
    auto *name = static_cast<char *>(os::malloc(name_len + 2));
    if (name == nullptr)
        return (out_of_memory(v), nullptr);
    std::memcpy(name, n, name_len);
    name[name_len] = ';';
    name[name_len + 1] = '\0';

    bool moved = false;
    char *decoded = decode(v, std::strlen(v), parameters, '%', budget_, &moved);
    char *value = decoded;
    if (decoded != nullptr && !moved)
        value = os::strdup(decoded);  // entity values are owned by their list
    if (value == nullptr) {
        std::free(name);
        budget_.exceeded ? error(v, "entity expansion limit exceeded") : out_of_memory(v);
        return nullptr;
    }
    EntityList &list = parameter ? parameters : general_;
    const EntityList::Check check = list.check_circular(name, value, budget_);
    if (check != EntityList::Check::fine || !list.append(name, value)) {
        switch (check) {
            case EntityList::Check::circular:
                error(v, "circular entity declaration &%s", name);
                break;
            case EntityList::Check::over_budget:
                error(v, "entity expansion limit exceeded");
                break;
            default:
                out_of_memory(v);
                break;
        }
        std::free(name);
        std::free(value);
        return nullptr;
    }
    return next;
}

// Adds (name, value, type) to the default-attribute list of `tag`:
// {tag, (name, value, type)..., NULL, ownership string}.
bool Parser::append_default(char *tag, char *name, char *value, bool owned, const char *type) {
    size_t i = 0;
    while (root_->attr[i] != nullptr && std::strcmp(root_->attr[i][0], tag) != 0)
        ++i;
    if (root_->attr[i] == nullptr) {
        char ***lists = grow_array(root_->attr, i + 1, 1);
        if (lists == nullptr)
            return false;
        root_->attr = lists;
        lists[i] = nullptr;
        auto **list = static_cast<char **>(os::malloc(3 * sizeof(char *)));
        char *own = static_cast<char *>(os::calloc(2, 1));
        if (list == nullptr || own == nullptr) {
            std::free(list);
            std::free(own);
            return false;
        }
        list[0] = tag;
        list[1] = nullptr;
        list[2] = own;
        lists[i] = list;
        lists[i + 1] = nullptr;
    }
    char **list = root_->attr[i];
    size_t j = 1;
    while (list[j] != nullptr)
        j += 3;
    size_t triples = (j - 1) / 3;
    char *own = static_cast<char *>(os::realloc(list[j + 1], triples + 3));
    if (own == nullptr)
        return false;
    list[j + 1] = own;
    auto **grown = static_cast<char **>(os::realloc(list, (j + 5) * sizeof(char *)));
    if (grown == nullptr)
        return false;
    root_->attr[i] = grown;
    grown[j] = name;
    grown[j + 1] = value;
    grown[j + 2] = const_cast<char *>(type);
    grown[j + 3] = nullptr;
    grown[j + 4] = own;
    own[triples] = owned ? kOwnDecoded : kOwnNone;
    own[triples + 1] = '\0';
    own[triples + 2] = kOwnSeparate;
    return true;
}

// <!ATTLIST tag (name type [#FIXED] default)...>; returns where reading goes
// on (NULL: stop).
char *Parser::attlist_declaration(char *p) {
    static const char kCdata[] = " ";
    static const char kOther[] = "*";
    char *t = skip_spaces(p + 9);
    if (*t == '\0')
        return (error(t, "unclosed <!ATTLIST"), nullptr);
    char *s = t + std::strcspn(t, "\t\r\n >");
    if (*s == '>')
        return s + 1;
    if (*s == '\0')
        return (error(t, "unclosed <!ATTLIST"), nullptr);
    *s = '\0';
    for (;;) {
        char *n = skip_spaces(s + 1);
        if (*n == '\0' || *n == '>')
            return *n == '>' ? n + 1 : nullptr;
        s = n + std::strcspn(n, kSpaces);
        if (*s == '\0')
            return (error(t, "malformed <!ATTLIST"), nullptr);
        *s = '\0';
        s = skip_spaces(s + 1);
        const char *type = starts_with(s, "CDATA") ? kCdata : kOther;
        if (starts_with(s, "NOTATION"))
            s = skip_spaces(s + 8);
        if (*s == '(') {
            s = std::strchr(s, ')');
            if (s == nullptr)
                return (error(t, "malformed <!ATTLIST"), nullptr);
        } else {
            s += std::strcspn(s, kSpaces);
        }
        s += std::strspn(s, "\t\r\n )");
        if (starts_with(s, "#FIXED"))
            s = skip_spaces(s + 6);
        char *value = nullptr;
        bool owned = false;
        if (*s == '#') {  // #REQUIRED, #IMPLIED: no default value
            s += std::strcspn(s, "\t\r\n >");
            if (*s == '\0')
                return nullptr;
            if (*s == '>')
                --s;  // let the loop see the '>'
            if (type == kCdata)
                continue;  // CDATA without a default: nothing to record
        } else if ((*s == '"' || *s == '\'') && std::strchr(s + 1, *s) != nullptr) {
            char *v = s + 1;
            s = std::strchr(v, *s);
            *s = '\0';
            value = decode(v, static_cast<size_t>(s - v), general_, type[0], budget_, &owned);
            if (value == nullptr)
                return (budget_.exceeded ? error(v, "entity expansion limit exceeded")
                                         : out_of_memory(v),
                        nullptr);
        } else {
            return (error(t, "malformed <!ATTLIST"), nullptr);
        }
        if (!append_default(t, n, value, owned, type)) {
            if (owned)
                std::free(value);
            return (out_of_memory(t), nullptr);
        }
    }
}

ezxml_node *Parser::run(char *s) {
    char *p = std::strchr(s, '<');
    if (p == nullptr)
        return error(end_, "root tag missing");
    // The root record is the open element until its start tag names it.
    if (!open_element(&root_->xml))
        return out_of_memory(p);
    for (;;) {
        // `p` is at a '<'.
        char *m = p + 1;
        unsigned char c = static_cast<unsigned char>(*m);
        if (is_name_start(c)) {
            p = element(m);
        } else if (c == '/') {
            p = closing_tag(m);
        } else if (starts_with(m, "!--")) {
            char *q = std::strstr(m + 3, "--");
            if (q == nullptr || (q[2] != '>' && !ends_with_gt(q + 2)))
                return error(p, "unclosed <!--");
            p = q[2] == '>' ? q + 3 : q + 2;
        } else if (starts_with(m, "![CDATA[")) {
            char *q = std::strstr(m + 8, "]]>");
            if (q == nullptr)
                return error(p, "unclosed <![CDATA[");
            if (!add_text(m + 8, static_cast<size_t>(q - m - 8), 'c'))
                return out_of_memory(p);
            p = q + 3;
        } else if (starts_with(m, "!DOCTYPE")) {
            p = doctype(m);
        } else if (c == '?') {
            p = processing_instruction(m);
        } else {
            return error(p, "unexpected <");
        }
        if (failed_ || p == nullptr)
            return &root_->xml;
        // Character content up to the next markup; text after the last
        // markup is ignored.
        char *q = p;
        bool dirty = false;
        for (;;) {
            q = skip_to(q, kTextStop);
            if (*q == '<' || *q == '\0')
                break;
            dirty = true;  // '&' or CR
            ++q;
        }
        if (*q == '\0')
            break;
        if (q > p && !add_text(p, static_cast<size_t>(q - p), dirty ? '&' : 0))
            return budget_.exceeded ? error(p, "entity expansion limit exceeded")
                                    : out_of_memory(p);
        p = q;
    }
    if (root_->xml.name == nullptr)
        return error(end_, "root tag missing");
    if (depth_ > 0)
        return error(end_, "unclosed tag <%s>", frames_[depth_ - 1].node->name);
    root_->cur = nullptr;
    return &root_->xml;
}

// Converts UTF-16 input (recognised by its byte-order mark) to UTF-8.
// Returns false when memory runs out; *s and *len then stay unchanged.
bool utf16_to_utf8(ezxml_root *root, char **s, size_t *len) {
    const auto *in = reinterpret_cast<const unsigned char *>(*s);
    size_t n = *len;
    if (n < 2)
        return true;
    bool big;
    if (in[0] == 0xFE && in[1] == 0xFF)
        big = true;
    else if (in[0] == 0xFF && in[1] == 0xFE)
        big = false;
    else
        return true;
    // A unit gives at most three bytes, a pair four.
    auto *u = static_cast<char *>(os::malloc(n / 2 * 3 + 1));
    if (u == nullptr)
        return false;
    auto unit = [&](size_t i) -> uint32_t {
        return big ? (uint32_t{in[i]} << 8) | in[i + 1] : (uint32_t{in[i + 1]} << 8) | in[i];
    };
    size_t l = 0;
    for (size_t i = 2; i + 1 < n; i += 2) {
        uint32_t c = unit(i);
        if (c >= 0xD800 && c <= 0xDFFF && i + 3 < n) {
            i += 2;
            c = (((c & 0x3FF) << 10) | (unit(i) & 0x3FF)) + 0x10000;
        }
        if (c < 0x80) {
            u[l++] = static_cast<char>(c);
        } else if (c < 0x800) {
            u[l++] = static_cast<char>(0xC0 | (c >> 6));
            u[l++] = static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            u[l++] = static_cast<char>(0xE0 | (c >> 12));
            u[l++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            u[l++] = static_cast<char>(0x80 | (c & 0x3F));
        } else {
            u[l++] = static_cast<char>(0xF0 | (c >> 18));
            u[l++] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            u[l++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            u[l++] = static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    u[l] = '\0';
    root->u = u;
    *s = u;
    *len = l;
    return true;
}

}  // namespace
}  // namespace qorcfg::xml

using namespace qorcfg;
using namespace qorcfg::xml;

extern "C" {

QORCFG_API char *EZXML_NIL[] = {nullptr};

QORCFG_API ezxml_node *ezxml_parse_str(char *s, size_t len) {
    ezxml_root *root = new_root(nullptr);
    if (root == nullptr)
        return nullptr;
    root->m = s;
    if (s == nullptr || len == 0) {
        std::snprintf(root->err, EZXML_ERRL, "[error near line 1]: root tag missing");
        return &root->xml;
    }
    if (!utf16_to_utf8(root, &s, &len)) {
        std::snprintf(root->err, EZXML_ERRL, "[error near line 1]: out of memory");
        return &root->xml;
    }
    root->s = s;
    root->e = s + len;
    if (len == 0) {  // a byte-order mark and nothing else
        std::snprintf(root->err, EZXML_ERRL, "[error near line 1]: root tag missing");
        return &root->xml;
    }
    return Parser(root, s, len).run(s);
}

QORCFG_API ezxml_node *ezxml_parse_fd(int fd) {
    if (fd < 0)
        return nullptr;
    struct stat st;
    if (os::fstat(fd, &st) != 0)
        return nullptr;
    auto size = static_cast<size_t>(st.st_size);
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t mapped = (size + page - 1) / page * page;
    void *m = size > 0 ? os::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0)
                       : MAP_FAILED;
    if (m != MAP_FAILED) {
        madvise(m, mapped, MADV_SEQUENTIAL);
        ezxml_node *xml = ezxml_parse_str(static_cast<char *>(m), size);
        madvise(m, mapped, MADV_NORMAL);
        if (xml == nullptr) {
            os::munmap(m, mapped);
            return nullptr;
        }
        reinterpret_cast<ezxml_root *>(xml)->len = mapped;
        return xml;
    }
    // No mapping: read the file into an allocated buffer.
    auto *buf = static_cast<char *>(os::malloc(size > 0 ? size : 1));
    if (buf == nullptr)
        return nullptr;
    size_t got = 0;
    while (got < size) {
        ssize_t n = os::read(fd, buf + got, size - got);
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    ezxml_node *xml = ezxml_parse_str(buf, got);
    if (xml == nullptr) {
        std::free(buf);
        return nullptr;
    }
    reinterpret_cast<ezxml_root *>(xml)->len = kOwnedBuffer;
    return xml;
}

QORCFG_API ezxml_node *ezxml_parse_file(const char *path) {
    int fd = path != nullptr ? os::open(path, O_RDONLY) : -1;
    if (fd < 0)
        return nullptr;
    ezxml_node *xml = ezxml_parse_fd(fd);
    os::close(fd);
    return xml;
}

}  // extern "C"
