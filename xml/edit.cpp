// xml/edit.cpp - changing the tree: new documents and elements, linking and
// unlinking, texts, attributes and flags, and freeing.
//
// Ownership follows the node's flags and each attribute list's ownership
// string: the tree frees exactly the strings marked as its own, so a caller
// may hand it literals, pointers into a buffer, or copies it gives away
// (with EZXML_COPY set before the call).
#include <sys/mman.h>

#include <cstring>

#include "os/os.h"
#include "xml/pool.h"
#include "xml/tree.h"

namespace qorcfg::xml {
namespace {

char kEmptyText[] = "";

// Makes the attribute list of `xml` (with `pairs` attributes) two
// allocations of its own, pointers and ownership string, so that it can be
// resized. False when memory runs out (nothing changes).
bool make_resizable(ezxml_node *xml, size_t pairs) {
    char **attr = xml->attr;
    char *own = attr_owner(attr, pairs);
    char where = own[pairs + 1];
    if (where == kOwnSeparate)
        return true;
    auto *copy = static_cast<char *>(os::malloc(pairs + 2));
    if (copy == nullptr)
        return false;
    std::memcpy(copy, own, pairs + 1);
    copy[pairs + 1] = kOwnSeparate;
    if (where == kOwnInNode || where == kOwnInNodeNone) {  // the pointers leave the node too
        auto **array = static_cast<char **>(os::malloc((2 * pairs + 2) * sizeof(char *)));
        if (array == nullptr) {
            std::free(copy);
            return false;
        }
        std::memcpy(array, attr, (2 * pairs + 1) * sizeof(char *));
        attr = array;
        xml->attr = array;
    }
    attr[2 * pairs + 1] = copy;
    return true;
}

// Adds attribute `name` (value set by the caller) at the end of the list;
// returns its index or SIZE_MAX when memory runs out.
size_t add_attribute(ezxml_node *xml, char *name, bool owned_name) {
    char **attr = xml->attr;
    size_t pairs;
    char *own;
    if (attr == EZXML_NIL) {
        pairs = 0;
        attr = static_cast<char **>(os::malloc(4 * sizeof(char *)));
        own = static_cast<char *>(os::malloc(3));
        if (attr == nullptr || own == nullptr) {
            std::free(attr);
            std::free(own);
            return SIZE_MAX;
        }
    } else {
        pairs = attr_pairs(attr);
        if (!make_resizable(xml, pairs))
            return SIZE_MAX;
        attr = xml->attr;
        own = static_cast<char *>(os::realloc(attr_owner(attr, pairs), pairs + 3));
        if (own == nullptr)
            return SIZE_MAX;
        attr[2 * pairs + 1] = own;
        auto **grown = static_cast<char **>(os::realloc(attr, (2 * pairs + 4) * sizeof(char *)));
        if (grown == nullptr)
            return SIZE_MAX;
        attr = grown;
    }
    attr[2 * pairs] = name;
    attr[2 * pairs + 1] = nullptr;
    attr[2 * pairs + 2] = nullptr;
    attr[2 * pairs + 3] = own;
    own[pairs] = owned_name ? static_cast<char>(kOwnNameBit) : kOwnNone;
    own[pairs + 1] = '\0';
    own[pairs + 2] = kOwnSeparate;
    xml->attr = attr;
    return pairs;
}

// Removes attribute `i` of `pairs` (its strings already dealt with).
void remove_attribute(ezxml_node *xml, size_t i, size_t pairs) {
    char **attr = xml->attr;
    char *own = attr_owner(attr, pairs);
    std::memmove(attr + 2 * i, attr + 2 * i + 2, (2 * (pairs - i) - 2) * sizeof(char *));
    attr[2 * pairs - 2] = nullptr;
    attr[2 * pairs - 1] = own;
    std::memmove(own + i, own + i + 1, pairs - i + 1);  // chars after i, the zero, the marker
    xml->attr = static_cast<char **>(shrink(attr, 2 * pairs * sizeof(char *)));
}

// Frees what a root record holds besides its nodes.
void free_document_data(ezxml_root *root) {
    for (size_t i = kPredefinedStrings; root->ent[i] != nullptr; i += 2) {
        std::free(root->ent[i]);
        std::free(root->ent[i + 1]);
    }
    std::free(root->ent);
    if (reinterpret_cast<char **>(root->attr) != EZXML_NIL) {
        for (char ***list = root->attr; *list != nullptr; ++list) {
            char **d = *list;
            size_t j = 1;
            size_t triple = 0;
            while (d[j] != nullptr) {
                j += 3;
                ++triple;
            }
            const char *own = d[j + 1];
            for (size_t t = 0; t < triple; ++t) {
                if (static_cast<unsigned char>(own[t]) & kOwnValueBit)
                    std::free(d[1 + 3 * t + 1]);
            }
            std::free(d[j + 1]);
            std::free(d);
        }
        std::free(root->attr);
    }
    if (reinterpret_cast<char **>(root->pi) != EZXML_NIL) {
        for (char ***list = root->pi; *list != nullptr; ++list) {
            size_t j = 1;
            while ((*list)[j] != nullptr)
                ++j;
            std::free((*list)[j + 1]);
            std::free(*list);
        }
        std::free(root->pi);
    }
    if (root->len == kOwnedBuffer)
        std::free(root->m);
    else if (root->len != 0)
        os::munmap(root->m, root->len);
    std::free(root->u);
}

void free_node_data(ezxml_node *xml) {
    ezxml_free_attr(xml->attr);
    if (xml->flags & EZXML_TXT_OWNED)
        std::free(xml->txt);
    if (xml->flags & EZXML_NAME_OWNED)
        std::free(xml->name);
}

// Puts the name group headed by `head` back into the group chain of
// `parent` at its place in document order. `first` is the parent's first
// child in document order; `chain` the chain's first group (or NULL).
ezxml_node *relink_group(ezxml_node *first, ezxml_node *chain, ezxml_node *head) {
    ezxml_node *before = nullptr;  // last group that precedes `head`
    ezxml_node *next_group = chain;
    for (ezxml_node *n = first; n != nullptr && n != head; n = n->ordered) {
        if (n == next_group) {
            before = n;
            next_group = n->sibling;
        }
    }
    head->sibling = next_group;
    if (before == nullptr)
        return head;
    before->sibling = head;
    return chain;
}

}  // namespace
}  // namespace qorcfg::xml

using namespace qorcfg;
using namespace qorcfg::xml;

extern "C" {

QORCFG_API ezxml_node *ezxml_new(const char *name) {
    ezxml_root *root = new_root(name);
    return root != nullptr ? &root->xml : nullptr;
}

QORCFG_API ezxml_node *ezxml_insert(ezxml_node *xml, ezxml_node *dest, size_t off) {
    if (xml == nullptr || dest == nullptr)
        return xml;
    xml->next = xml->sibling = xml->ordered = nullptr;
    xml->off = off;
    xml->parent = dest;
    ezxml_node *head = dest->child;
    if (head == nullptr) {
        dest->child = xml;
        return xml;
    }
    // Document order: after every child whose offset is not greater.
    if (head->off <= off) {
        ezxml_node *cur = head;
        while (cur->ordered != nullptr && cur->ordered->off <= off)
            cur = cur->ordered;
        xml->ordered = cur->ordered;
        cur->ordered = xml;
    } else {
        xml->ordered = head;  // the new first child, which also heads the chain
    }
    // Name group: after the members whose offset is not greater, or as the
    // group's new first member, placed in the group chain by offset.
    ezxml_node *prev = nullptr;
    ezxml_node *group = head;
    while (group != nullptr && std::strcmp(group->name, xml->name) != 0) {
        prev = group;
        group = group->sibling;
    }
    ezxml_node *chain = head;
    if (group != nullptr && group->off <= off) {
        ezxml_node *cur = group;
        while (cur->next != nullptr && cur->next->off <= off)
            cur = cur->next;
        xml->next = cur->next;
        cur->next = xml;
    } else {
        if (group != nullptr) {  // the old first member leaves the chain
            if (prev != nullptr)
                prev->sibling = group->sibling;
            else
                chain = group->sibling;
            group->sibling = nullptr;
            xml->next = group;
        }
        ezxml_node *before = nullptr;
        ezxml_node *cur = chain;
        while (cur != nullptr && cur->off <= off) {
            before = cur;
            cur = cur->sibling;
        }
        xml->sibling = cur;
        if (before != nullptr)
            before->sibling = xml;
        else
            chain = xml;
    }
    dest->child = chain;
    return xml;
}

QORCFG_API ezxml_node *ezxml_add_child(ezxml_node *xml, const char *name, size_t off) {
    if (xml == nullptr)
        return nullptr;
    auto *child = static_cast<ezxml_node *>(os::calloc(1, sizeof(ezxml_node)));
    if (child == nullptr)
        return nullptr;
    child->name = const_cast<char *>(name);
    child->attr = EZXML_NIL;
    child->txt = kEmptyText;
    return ezxml_insert(child, xml, off);
}

QORCFG_API ezxml_node *ezxml_set_txt(ezxml_node *xml, const char *txt) {
    if (xml == nullptr)
        return nullptr;
    if (xml->flags & EZXML_TXT_OWNED)
        std::free(xml->txt);
    xml->flags &= static_cast<uint16_t>(~EZXML_TXT_OWNED);
    xml->txt = const_cast<char *>(txt);
    return xml;
}

QORCFG_API ezxml_node *ezxml_set_attr(ezxml_node *xml, const char *name, const char *value) {
    if (xml == nullptr || name == nullptr)
        return xml;
    const bool copies = (xml->flags & EZXML_COPY) != 0;
    size_t pairs = attr_pairs(xml->attr);
    size_t i = 0;
    while (i < pairs && std::strcmp(xml->attr[2 * i], name) != 0)
        ++i;
    if (i == pairs) {
        if (value == nullptr)
            return xml;  // removing what is not there
        i = add_attribute(xml, const_cast<char *>(name), copies);
        if (i == SIZE_MAX)
            return xml;  // out of memory: the attribute is not added
        ++pairs;
    } else {
        // A removal resizes the list, which needs its own ownership string.
        if (value == nullptr && !make_resizable(xml, pairs))
            return xml;  // out of memory: nothing changes
        if (copies)
            std::free(const_cast<char *>(name));  // the stored name stays
    }
    char **attr = xml->attr;
    char *own = attr_owner(attr, pairs);
    auto bits = static_cast<unsigned char>(own[i]);
    if (bits & kOwnValueBit)
        std::free(attr[2 * i + 1]);
    bits = copies ? (bits | kOwnValueBit) : (bits & ~kOwnValueBit);
    own[i] = static_cast<char>(bits);
    if (own[pairs + 1] == kOwnInNodeNone && (bits & (kOwnValueBit | kOwnNameBit)) != 0)
        own[pairs + 1] = kOwnInNode;
    if (value != nullptr) {
        attr[2 * i + 1] = const_cast<char *>(value);
    } else {
        if (bits & kOwnNameBit)
            std::free(attr[2 * i]);
        remove_attribute(xml, i, pairs);
    }
    xml->flags &= static_cast<uint16_t>(~EZXML_COPY);
    return xml;
}

QORCFG_API ezxml_node *ezxml_set_flag(ezxml_node *xml, short flag) {
    if (xml != nullptr)
        xml->flags |= static_cast<uint16_t>(flag);
    return xml;
}

QORCFG_API ezxml_node *ezxml_cut(ezxml_node *xml) {
    if (xml == nullptr)
        return nullptr;
    ezxml_node *parent = xml->parent;
    if (parent != nullptr && parent->child != nullptr) {
        // Document order.
        ezxml_node *first = parent->child;
        bool linked = true;
        if (first == xml) {
            first = xml->ordered;
        } else {
            ezxml_node *cur = first;
            while (cur->ordered != nullptr && cur->ordered != xml)
                cur = cur->ordered;
            if (cur->ordered == xml)
                cur->ordered = xml->ordered;
            else
                linked = false;  // already cut
        }
        if (linked) {
            // Name group and group chain.
            ezxml_node *chain = parent->child;
            ezxml_node *prev = nullptr;
            ezxml_node *group = chain;
            while (group != nullptr && std::strcmp(group->name, xml->name) != 0) {
                prev = group;
                group = group->sibling;
            }
            if (group == xml) {
                if (prev != nullptr)
                    prev->sibling = xml->sibling;
                else
                    chain = xml->sibling;
                if (xml->next != nullptr)
                    chain = relink_group(first, chain, xml->next);
            } else if (group != nullptr) {
                ezxml_node *cur = group;
                while (cur->next != nullptr && cur->next != xml)
                    cur = cur->next;
                if (cur->next == xml)
                    cur->next = xml->next;
            }
            parent->child = chain;
        }
    }
    xml->ordered = xml->next = xml->sibling = nullptr;
    return xml;
}

QORCFG_API void ezxml_free_attr(char **attr) {
    if (attr == nullptr || attr == EZXML_NIL)
        return;
    size_t pairs = attr_pairs(attr);
    char *own = attr_owner(attr, pairs);
    if (own[pairs + 1] == kOwnInNodeNone)
        return;  // nothing owned, and the list goes with its node
    for (size_t i = 0; i < pairs; ++i) {
        auto bits = static_cast<unsigned char>(own[i]);
        if (bits & kOwnNameBit)
            std::free(attr[2 * i]);
        if (bits & kOwnValueBit)
            std::free(attr[2 * i + 1]);
    }
    switch (own[pairs + 1]) {
        case kOwnSeparate:
            std::free(own);
            std::free(attr);
            break;
        case kOwnInline:
            std::free(attr);
            break;
        default:  // in the node's allocation, freed with the node
            break;
    }
}

QORCFG_API void ezxml_free(ezxml_node *xml) {
    if (xml == nullptr)
        return;
    const bool document = xml->parent == nullptr;
    // Children and document-order successors are collected on a list
    // threaded through their parent fields, which freeing no longer needs:
    // no recursion and no allocation, however large the tree.
    ezxml_node *pending = nullptr;
    auto push = [&pending](ezxml_node *n) {
        if (n != nullptr) {
            n->parent = pending;
            pending = n;
        }
    };
    push(xml->child);
    push(xml->ordered);
    NodeReleaser releaser;
    while (pending != nullptr) {
        ezxml_node *n = pending;
        pending = n->parent;
        push(n->child);
        push(n->ordered);
        free_node_data(n);
        releaser.release(n);
    }
    if (document)
        free_document_data(reinterpret_cast<ezxml_root *>(xml));
    free_node_data(xml);
    releaser.release(xml);
}

}  // extern "C"
