// xml/elements.cpp - the parser's markup loop and elements: start and
// closing tags, their attributes (decoded by their declared type), the
// children's two orders, and the text pieces joined when an element closes.
// The members defined here are called from this file only (join_text
// aside), so they are defined inline.
#include "xml/parser.h"

namespace qorcfg::xml {

ezxml_node *Parser::run(char *s) {
    char *p = std::strchr(s, '<');
    if (p == nullptr)
        return error(end_, "root tag missing");
    // The root record is the open element until its start tag names it.
    if (!open_element(&root_->xml))
        return out_of_memory(p);
    while (p != nullptr) {
        p = markup(p);
        if (failed_ || p == nullptr)
            return &root_->xml;
        p = character_content(p);
        if (failed_)
            return &root_->xml;
    }
    if (root_->xml.name == nullptr)
        return error(end_, "root tag missing");
    if (depth_ > 0)
        return error(end_, "unclosed tag <%s>", frames_[depth_ - 1].node->name);
    root_->cur = nullptr;
    return &root_->xml;
}

// The markup at `p` (a '<'); where the text after it begins, or NULL after
// an error.
QORCFG_PARSE_STEP char *Parser::markup(char *p) {
    char *m = p + 1;
    unsigned char c = static_cast<unsigned char>(*m);
    if (is_name_start(c))
        return element(m);
    if (c == '/')
        return closing_tag(m);
    if (starts_with(m, "!--")) {
        char *q = std::strstr(m + 3, "--");
        if (q == nullptr || (q[2] != '>' && !ends_with_gt(q + 2)))
            return (error(p, "unclosed <!--"), nullptr);
        return q[2] == '>' ? q + 3 : q + 2;
    }
    if (starts_with(m, "![CDATA[")) {
        char *q = std::strstr(m + 8, "]]>");
        if (q == nullptr)
            return (error(p, "unclosed <![CDATA["), nullptr);
        if (!add_text(m + 8, static_cast<size_t>(q - m - 8), 'c'))
            return (out_of_memory(p), nullptr);
        return q + 3;
    }
    if (starts_with(m, "!DOCTYPE"))
        return doctype(m);
    if (c == '?')
        return processing_instruction(m);
    return (error(p, "unexpected <"), nullptr);
}

// The character content at `p` up to the next markup, added to the open
// element; the position of that '<', or NULL at the end of the text (text
// after the last markup is ignored) or after an error.
QORCFG_PARSE_STEP char *Parser::character_content(char *p) {
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
        return nullptr;
    if (q > p && !add_text(p, static_cast<size_t>(q - p), dirty ? '&' : 0))
        return (budget_.exceeded ? error(p, "entity expansion limit exceeded") : out_of_memory(p),
                nullptr);
    return q;
}

inline bool Parser::open_element(ezxml_node *node) {
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
QORCFG_PARSE_STEP ezxml_node *Parser::new_child(char *name, AttrBuilder &attrs) {
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
inline ezxml_node **Parser::group_tail(Frame &f, const char *name) {
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

inline bool Parser::close_element() {
    bool ok = join_text(frames_[depth_ - 1]);
    if (--depth_ == 0)
        root_closed_ = true;
    return ok;
}

// Adds a piece of character content to the open element, decoded (type 0:
// the caller saw nothing to decode). The pieces are joined when the element
// closes.
inline bool Parser::add_text(char *s, size_t len, char type) {
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
inline char **Parser::defaults_of(const char *tag) const {
    for (char ***list = root_->attr; *list != nullptr; ++list) {
        if (std::strcmp((*list)[0], tag) == 0)
            return *list;
    }
    return nullptr;
}

// Normalisation type of attribute `name`: its declared type, else ' '.
inline char Parser::type_of_attribute(char **defaults, const char *name) const {
    if (defaults != nullptr) {
        for (size_t j = 1; defaults[j] != nullptr; j += 3) {
            if (std::strcmp(defaults[j], name) == 0)
                return defaults[j + 2][0];
        }
    }
    return ' ';
}

// <name attributes...> or <name attributes.../>; `p` is at the name.
QORCFG_PARSE_STEP char *Parser::element(char *p) {
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
    p = attributes(p, tag, name, attrs, &unterminated);
    if (p == nullptr)
        return nullptr;

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
    return place_element(tag, name, attrs, empty) ? after : nullptr;
}

// The attributes of the tag at `tag` named `name`, from `p` up to the '/',
// '>' or end that ends them; that position, or NULL after an error.
// `unterminated` becomes the end of an attribute name that is not followed
// by a value.
QORCFG_PARSE_STEP char *Parser::attributes(char *p, char *tag, const char *name, AttrBuilder &attrs,
                                           char **unterminated) {
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
            if (*p == '"' || *p == '\'') {
                const char type =
                    defaults != nullptr ? type_of_attribute(defaults, attr_name) : ' ';
                p = quoted_value(p, tag, type, &value, &own);
                if (p == nullptr)
                    return nullptr;
            }
        } else {
            *unterminated = p;  // the attribute name ends at '/', '>' or the end
        }
        if (!attrs.add(attr_name, value, own)) {
            if (own == kOwnDecoded)
                std::free(value);
            return (out_of_memory(attr_name), nullptr);
        }
        p = skip_spaces(p);
    }
    return p;
}

// The value quoted at `p`, decoded with normalisation `type`: into `value`
// (with `own` kOwnDecoded when decoding moved it out of the buffer). The
// position after the closing quote, or NULL after an error.
QORCFG_PARSE_STEP char *Parser::quoted_value(char *p, char *tag, char type, char **value,
                                             char *own) {
    const char quote = *p;
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
    *value = v;
    if (dirty || type != ' ') {
        bool moved = false;
        *value = decode(v, static_cast<size_t>(close - v), general_, type, budget_, &moved);
        if (*value == nullptr)
            return (
                budget_.exceeded ? error(v, "entity expansion limit exceeded") : out_of_memory(v),
                nullptr);
        if (moved)
            *own = kOwnDecoded;
    }
    return close + 1;
}

// Puts the element read at `tag` into the tree: the document element takes
// its name and attributes (its record is open from the start: text before
// it is its text); any other becomes a child of the open element, opened
// unless `empty`. False after an error.
QORCFG_PARSE_STEP bool Parser::place_element(char *tag, char *name, AttrBuilder &attrs,
                                             bool empty) {
    if (root_->xml.name == nullptr) {
        char **list = attrs.finish();
        if (list == nullptr)
            return (out_of_memory(tag), false);
        root_->xml.name = name;
        root_->xml.attr = list;
        if (empty && !close_element())
            return (out_of_memory(tag), false);
        return true;
    }
    ezxml_node *node = new_child(name, attrs);
    if (node == nullptr || (!empty && !open_element(node)))
        return (out_of_memory(tag), false);
    return true;
}

// </name>; `p` is at the '/'.
inline char *Parser::closing_tag(char *p) {
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

}  // namespace qorcfg::xml
