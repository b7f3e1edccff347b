// store/attr_list.cpp - attribute lists: every setting of a group, with
// those of its repeated sub-elements, as (name, value, index) records; read
// locally by group ID, group name or prefix, or asked of the daemon first.
#include <cstdlib>
#include <cstring>

#include "os/os.h"
#include "os/owners.h"
#include "store/platform.h"
#include "store/print.h"
#include "store/store.h"

namespace qorcfg::store {
namespace {

// A text joined from pieces, allocated; NULL when memory runs out.
char *join(const char *a, const char *sep, const char *b) {
    size_t la = std::strlen(a);
    size_t ls = std::strlen(sep);
    size_t lb = std::strlen(b);
    auto *out = static_cast<char *>(os::malloc(la + ls + lb + 1));
    if (out == nullptr)
        return nullptr;
    std::memcpy(out, a, la);
    std::memcpy(out + la, sep, ls);
    std::memcpy(out + la + ls, b, lb + 1);
    return out;
}

// True when `prefix` occurs inside the path of a group-table row: the
// element is a group of its own.
bool inside_a_group_path(const char *prefix) {
    for (const qorcfg_group *row = group_table; row->gid != 0; ++row) {
        if (row->path != nullptr && std::strstr(row->path, prefix) != nullptr)
            return true;
    }
    return false;
}

// True when the text after the first ':' of `prefix` is an index: decimal
// digits up to the next '.' or the end.
bool has_index(const char *prefix) {
    const char *colon = std::strchr(prefix, ':');
    if (colon == nullptr)
        return false;
    char index[257];
    std::strncpy(index, colon + 1, sizeof index - 1);
    index[sizeof index - 1] = '\0';
    QORCFG_DEBUG("check existence of index %s\n", index);
    const char *d = index;
    if (*d < '0' || *d > '9')
        return false;
    while (*d >= '0' && *d <= '9')
        ++d;
    return *d == '\0' || *d == '.';
}

}  // namespace

AttrWalk::~AttrWalk() {
    for (size_t i = 0; i < n_; ++i)
        std::free(stack_[i].prefix);
    std::free(stack_);
}

bool AttrWalk::push(ezxml_node *node, char *prefix, int index) {
    if (prefix == nullptr)
        return false;
    if (n_ == cap_) {  // grows as needed, however deep the tree
        const size_t cap = cap_ == 0 ? 100 : cap_ * 2;
        auto *grown = static_cast<Entry *>(os::realloc(stack_, cap * sizeof(Entry)));
        if (grown == nullptr) {
            std::free(prefix);
            return false;
        }
        stack_ = grown;
        cap_ = cap;
    }
    stack_[n_++] = Entry{node, prefix, index};
    return true;
}

bool AttrWalk::start(ezxml_node *start, const char *start_prefix, int flags) {
    start_ = start;
    flags_ = flags;
    failed_ = !push(start, os::strdup(start_prefix), -1);
    return !failed_;
}

void AttrWalk::identity(ezxml_node *root) {
    if (root != nullptr && root->attr[0] != nullptr && root->attr[2] != nullptr) {
        attr_ = root->attr;
        left_ = 2;  // the first two attributes only
    }
}

// Children first, then further same-name elements, then siblings;
// sub-elements that are groups of their own, and indexed prefixes, are
// skipped. An element's successors are stacked before its attributes are
// given out, which keeps that order.
bool AttrWalk::next(AttrRecord &record) {
    for (;;) {
        if (attr_ != nullptr && attr_[0] != nullptr && left_ != 0) {
            record = AttrRecord{attr_[0], attr_[1], reported_};
            attr_ += 2;
            --left_;
            return true;
        }
        attr_ = nullptr;
        if (failed_ || n_ == 0)
            return false;
        const Entry entry = stack_[--n_];
        ezxml_node *e = entry.node;
        os::Text p(entry.prefix);
        const int i = entry.index;
        QORCFG_DEBUG("cur_prefix = %s\n", p.get());
        QORCFG_DEBUG("cur_idx    = %d\n", i);
        QORCFG_DEBUG("cur_node   = %s\n", e->name);
        if (i >= 0) {
            if (inside_a_group_path(p.get())) {
                QORCFG_DEBUG("current prefix matches group table, skip\n");
                continue;
            }
            if (has_index(p.get())) {
                QORCFG_DEBUG("cur_prefix has index, skip\n");
                continue;
            }
        }
        // The last of several same-name elements reports -1 when it is the
        // first (index 0) of them; a repeated one reports its index.
        reported_ = i != -1 && (e->next != nullptr || i > 0) ? i : -1;
        if (!push_successors(e, p.get(), i)) {
            failed_ = true;
            return false;
        }
        attr_ = e->attr;
        left_ = -1;
    }
}

bool AttrWalk::push_successors(ezxml_node *e, const char *p, int i) {
    if (e->sibling != nullptr && e != start_) {
        if (const char *dot = std::strrchr(p, '.')) {
            const size_t keep = static_cast<size_t>(dot - p) + 1;
            const size_t name = std::strlen(e->sibling->name);
            auto *sp = static_cast<char *>(os::malloc(keep + name + 1));
            if (sp != nullptr) {
                std::memcpy(sp, p, keep);
                std::memcpy(sp + keep, e->sibling->name, name + 1);
            }
            if (!push(e->sibling, sp, 0))
                return false;
        }
    }
    if (e->next != nullptr && !push(e->next, os::strdup(p), i + 1))
        return false;
    if (e->child != nullptr && flags_ <= 0 && !push(e->child, join(p, ".", e->child->name), 0))
        return false;
    return true;
}

qorcfg_attr *collect(AttrWalk &walk) {
    AttrList list;
    qorcfg_attr **tail = nullptr;
    AttrRecord r;
    while (walk.next(r)) {
        qorcfg_attr *record = new_attr(r.name, r.value);
        if (record == nullptr)
            return nullptr;
        record->index = r.index;
        if (tail == nullptr)
            list.reset(record);
        else
            *tail = record;
        tail = &record->next;
    }
    return walk.failed() ? nullptr : list.release();
}

namespace {

bool root_name(const char *name) {
    return name != nullptr && (std::strcmp(name, "0") == 0 || std::strcmp(name, "0x0") == 0);
}

bool empty(const char *s) {
    return s == nullptr || s[0] == '\0';
}

// A handle that holds a tree (not a network-mode one, not emptied).
bool has_tree(const qorcfg_handle *handle) {
    return handle != nullptr && !is_net(handle) && handle->xml != nullptr;
}

// True when the handle holds one group's subtree rather than a whole
// configuration (whose root element is the first step of every path).
bool holds_subtree(qorcfg_handle *handle, const qorcfg_group *row) {
    ezxml_node *root = tree_of(handle);
    if (root == nullptr || root->name == nullptr)
        return false;
    size_t n = std::strcspn(row->path, ".");
    return std::strncmp(row->path, root->name, n) != 0 || root->name[n] != '\0';
}

}  // namespace

}  // namespace qorcfg::store

using namespace qorcfg;
using namespace qorcfg::store;

namespace qorcfg::store {

bool walk_by_gid(qorcfg_handle *handle, uint32_t gid, const char *sub, int flags, AttrWalk &walk) {
    if (handle == nullptr)
        return false;
    if (gid == 0) {
        walk.identity(tree_of(handle));
        return true;
    }
    const qorcfg_group *row = group_by_gid(gid);
    if (row == nullptr)
        return false;
    ezxml_node *element;
    if (flags & 2) {
        refresh_sub(handle, nullptr, gid);
        element = tree_of(handle);
    } else if (sub != nullptr) {
        ezxml_node *root = tree_of(handle);
        os::Text path(root != nullptr ? join(root->name, ".", sub) : nullptr);
        element = path ? find_path(handle, path.get()) : nullptr;
    } else {
        element = find_path(handle, row->path);
    }
    return element != nullptr && walk.start(element, row->path, flags);
}

bool walk_by_name(qorcfg_handle *handle, const char *name, const char *sub, int flags,
                  AttrWalk &walk) {
    if (handle == nullptr)
        return false;
    if (root_name(name)) {
        walk.identity(tree_of(handle));
        return true;
    }
    const qorcfg_group *row = group_by_name(name);
    if (row == nullptr)
        return false;
    ezxml_node *element;
    if (sub != nullptr) {
        os::Text path(join(row->path, ".", sub));
        element = path ? find_path(handle, path.get()) : nullptr;
    } else if ((flags & 2) && (refresh(handle), holds_subtree(handle, row))) {
        // The handle holds the group's element itself (the _s forms switch
        // it so); on a whole configuration the group's path is read, which
        // is what a group-name read returns.
        element = tree_of(handle);
    } else {
        element = find_path(handle, row->path);
    }
    return element != nullptr && walk.start(element, row->path, flags & 1);
}

bool walk_by_prefix(qorcfg_handle *handle, const char *prefix, const char *sub, int flags,
                    AttrWalk &walk) {
    if (handle == nullptr || prefix == nullptr)
        return false;
    // Without a sub-path the full path is the prefix alone.
    os::Text full(sub != nullptr ? join(prefix, ".", sub) : os::strdup(prefix));
    if (!full)
        return false;
    QORCFG_DEBUG("full_path = %s\n", full.get());
    const qorcfg_group *row = group_by_path(full.get());
    if (row == nullptr && std::strcmp(prefix, "qorconfig") != 0) {
        row = group_by_name(prefix);
        if (row == nullptr)
            return false;
        full.reset(sub != nullptr ? join(row->path, ".", sub) : os::strdup(row->path));
        if (!full)
            return false;
        QORCFG_DEBUG("fixed full_path = %s\n", full.get());
    }
    ezxml_node *element;
    if (flags & 2) {
        refresh_sub(handle, full.get(), 0);
        element = tree_of(handle);
    } else {
        element = find_path(handle, sub != nullptr || row == nullptr ? full.get() : row->path);
    }
    if (element == nullptr)
        return false;
    QORCFG_DEBUG("find node, get attr by full path\n");
    return walk.start(element, full.get(), flags);
}

}  // namespace qorcfg::store

extern "C" {

QORCFG_API qorcfg_attr *get_attr_list_by_gid_direct_f(qorcfg_handle *handle, uint32_t gid,
                                                      const char *sub, int flags) {
    AttrWalk walk;
    return walk_by_gid(handle, gid, sub, flags, walk) ? collect(walk) : nullptr;
}

QORCFG_API qorcfg_attr *get_attr_list_by_gid_direct(qorcfg_handle *handle, uint32_t gid,
                                                    const char *sub) {
    return get_attr_list_by_gid_direct_f(handle, gid, sub, -1);
}

QORCFG_API qorcfg_attr *get_attr_list_by_group_name_direct_f(qorcfg_handle *handle,
                                                             const char *name, const char *sub,
                                                             int flags) {
    AttrWalk walk;
    return walk_by_name(handle, name, sub, flags, walk) ? collect(walk) : nullptr;
}

QORCFG_API qorcfg_attr *get_attr_list_by_group_name_direct(qorcfg_handle *handle, const char *name,
                                                           const char *sub) {
    return get_attr_list_by_group_name_direct_f(handle, name, sub, -1);
}

QORCFG_API qorcfg_attr *get_attr_list_by_prefix_direct_f(qorcfg_handle *handle, const char *prefix,
                                                         const char *sub, int flags) {
    AttrWalk walk;
    return walk_by_prefix(handle, prefix, sub, flags, walk) ? collect(walk) : nullptr;
}

QORCFG_API qorcfg_attr *get_attr_list_by_prefix_direct(qorcfg_handle *handle, const char *prefix,
                                                       const char *sub) {
    // The group-name reader, not the prefix reader: kept so on purpose.
    return get_attr_list_by_group_name_direct_f(handle, prefix, sub, -1);
}

}  // extern "C"

namespace {

// The daemon's list, when it gives one (a list is the only final answer of
// the list forms; otherwise the handle falls back as `fallback` says).
Answer list_from_daemon(qorcfg_handle *handle, const Fallback &fallback, qorcfg_attr **list,
                        bool by_gid, uint32_t gid, const char *name, const char *sub) {
    return ask_daemon_first(handle, fallback, [&](const char *file) {
        Answer answer;
        *list = by_gid ? attr_list_by_gid_daemon(file, gid, sub, &answer.code)
                       : attr_list_by_name_daemon(file, name, sub, &answer.code);
        answer.final = *list != nullptr;
        return answer;
    });
}

}  // namespace

extern "C" {

QORCFG_API qorcfg_attr *get_attr_list_by_gid(qorcfg_handle *handle, uint32_t gid, const char *sub) {
    qorcfg_attr *list = nullptr;
    if (list_from_daemon(handle, Fallback{}, &list, true, gid, nullptr, sub).final)
        return list;
    return has_tree(handle) ? get_attr_list_by_gid_direct(handle, gid, sub) : nullptr;
}

QORCFG_API qorcfg_attr *get_attr_list_by_gid_s(qorcfg_handle *handle, uint32_t gid, const char *sub,
                                               int flags) {
    // A transport failure reads the group's subtree (the root's items of
    // gid 0 need the whole configuration).
    const Fallback fallback{gid != 0 ? Fallback::kSubtree : Fallback::kWhole, nullptr, gid};
    qorcfg_attr *list = nullptr;
    const Answer answer = list_from_daemon(handle, fallback, &list, true, gid, nullptr, sub);
    if (answer.final)
        return list;
    if (answer.switched && gid != 0)
        flags |= 2;
    if (!has_tree(handle))
        return nullptr;
    QORCFG_DEBUG("daemon error\n");
    return get_attr_list_by_gid_direct_f(handle, gid, sub, flags);
}

QORCFG_API qorcfg_attr *get_attr_list_by_group_name(qorcfg_handle *handle, const char *name,
                                                    const char *sub) {
    // This form reads the file whatever the daemon answered without a list.
    Fallback fallback;
    fallback.after_any_answer = true;
    qorcfg_attr *list = nullptr;
    if (list_from_daemon(handle, fallback, &list, false, 0, name, sub).final)
        return list;
    return has_tree(handle) ? get_attr_list_by_group_name_direct(handle, name, sub) : nullptr;
}

}  // extern "C"

namespace {

// The _s forms by name or prefix: daemon first; on a transport failure the
// handle is switched to the subtree at "name.sub" (or the whole
// configuration for the root's names) and read with bit value 2 added.
qorcfg_attr *by_name_s(qorcfg_handle *handle, const char *name, const char *sub, int flags,
                       qorcfg_attr *(*local)(qorcfg_handle *, const char *, const char *, int)) {
    // The subtree's path, needed only when the daemon is asked.
    os::Text at(!is_net(handle) || name == nullptr ? nullptr
                : !empty(sub)                      ? join(name, ".", sub)
                                                   : os::strdup(name));
    const Fallback fallback{root_name(name) ? Fallback::kWhole : Fallback::kSubtree, at.get(), 0};
    qorcfg_attr *list = nullptr;
    const Answer answer = list_from_daemon(handle, fallback, &list, false, 0, name, sub);
    if (answer.final)
        return list;
    if (answer.switched && !root_name(name))
        flags |= 2;
    if (!has_tree(handle))
        return nullptr;
    QORCFG_DEBUG("daemon error\n");
    return local(handle, name, sub, flags);
}

}  // namespace

extern "C" {

QORCFG_API qorcfg_attr *get_attr_list_by_group_name_s(qorcfg_handle *handle, const char *name,
                                                      const char *sub, int flags) {
    return by_name_s(handle, name, sub, flags, get_attr_list_by_group_name_direct_f);
}

QORCFG_API qorcfg_attr *get_attr_list_by_prefix_s(qorcfg_handle *handle, const char *prefix,
                                                  const char *sub, int flags) {
    return by_name_s(handle, prefix, sub, flags, get_attr_list_by_prefix_direct_f);
}

QORCFG_API qorcfg_attr *get_attr_list_by_prefix(qorcfg_handle *handle, const char *prefix,
                                                const char *sub) {
    qorcfg_attr *list = nullptr;
    if (list_from_daemon(handle, Fallback{}, &list, false, 0, prefix, sub).final)
        return list;
    // The group-name reader: kept crossed on purpose.
    return has_tree(handle) ? get_attr_list_by_group_name_direct(handle, prefix, sub) : nullptr;
}

}  // extern "C"
