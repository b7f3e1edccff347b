// change/set.cpp - setting items: values written into a handle's tree,
// missing indexed children made from their template, group runs with the
// role rules' added items, the sync record and the store files written, and
// the daemons told to re-read.
#include <sys/file.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "change/change.h"
#include "os/os.h"
#include "os/owners.h"
#include "store/platform.h"
#include "store/print.h"
#include "store/store.h"

namespace qorcfg::change {
namespace {

using store::HeldLock;

// The group IDs one recorded set may touch.
constexpr int kRecordedGroups = 256;

// Elements in a run of item copies, freed with the run.
struct ItemListFree {
    void operator()(qorcfg_item *list) const { free_item_list(list); }
};
using ItemList = std::unique_ptr<qorcfg_item, ItemListFree>;

// Sets attribute `name` of `element` to `value`, the tree owning copies of
// both; false when memory runs out (nothing changes then).
bool set_copied(ezxml_node *element, const char *name, const char *value) {
    char *name_copy = os::strdup(name);
    char *value_copy = os::strdup(value);
    if (name_copy == nullptr || value_copy == nullptr) {
        std::free(name_copy);
        std::free(value_copy);
        return false;
    }
    ezxml_set_attr(ezxml_set_flag(element, EZXML_COPY), name_copy, value_copy);
    return true;
}

// Adds a child `tag` to `parent` at text offset `off` with every attribute
// of `pattern`, in its order, each with an empty value; the tree owns the
// copies. NULL when memory runs out (the child may then lack attributes).
ezxml_node *add_from_template(ezxml_node *parent, const char *tag, size_t off,
                              const ezxml_node *pattern) {
    char *name = os::strdup(tag);
    if (name == nullptr)
        return nullptr;
    ezxml_node *child = ezxml_add_child(parent, name, off);
    if (child == nullptr) {
        std::free(name);
        return nullptr;
    }
    ezxml_set_flag(child, EZXML_NAME_OWNED);
    for (char **a = pattern->attr; a != nullptr && a[0] != nullptr; a += 2) {
        if (!set_copied(child, a[0], ""))
            return nullptr;
    }
    return child;
}

// Makes the indexed element at `element_path` ("...parent.tag:N"): every
// missing child of that tag up to N, from the parent's first one. The
// element through `made`; the result code.
int make_indexed(qorcfg_handle *handle, char *element_path, bool &changed, ezxml_node *&made) {
    char *dot = std::strrchr(element_path, '.');
    if (dot == nullptr) {
        qorcfg_print("%s>Can't find subtag of item_name=%s.\n", "set_cfg_group", element_path);
        return QORCFG_ERR_FAIL;
    }
    *dot = '\0';
    char *component = dot + 1;
    ezxml_node *parent = store::find_path(handle, element_path);
    if (parent == nullptr) {
        qorcfg_print("%s>Can't find the parent node.\n", "set_cfg_group");
        return QORCFG_ERR_FAIL;
    }
    const char *max = ezxml_attr(parent, "max");
    if (max == nullptr) {
        qorcfg_print("%s>Can't find max in the parent node.\n", "set_cfg_group");
        return QORCFG_ERR_FAIL;
    }
    const int limit = std::atoi(max);
    char *colon = std::strrchr(component, ':');
    if (colon == nullptr) {
        qorcfg_print("%s>Can't find index of tag_name=%s.\n", "set_cfg_group", component);
        return QORCFG_ERR_FAIL;
    }
    *colon = '\0';
    const char *tag = component;
    const int index = std::atoi(colon + 1);
    ezxml_node *pattern = ezxml_child(parent, tag);
    if (pattern == nullptr) {
        qorcfg_print("%s>Can't find the first tag node.\n", "set_cfg_group");
        return QORCFG_ERR_FAIL;
    }
    if (index >= limit) {
        qorcfg_print("%s>Exceed the max number of the child nodes\n", "set_cfg_group");
        return QORCFG_ERR_MAX;
    }
    // A new child goes where the last existing one began in the parent's
    // text.
    size_t off = 0;
    made = nullptr;
    for (int i = 0; i <= index; ++i) {
        if (ezxml_node *existing = ezxml_idx(pattern, i)) {
            off = existing->off;
            made = existing;
            continue;
        }
        made = add_from_template(parent, tag, off, pattern);
        if (made == nullptr)
            break;
        changed = true;
    }
    if (made == nullptr)
        return QORCFG_ERR_NOMEM;
    if (ezxml_attr(parent, "cur_num") != nullptr) {
        if (!set_copied(parent, "cur_num", std::to_string(index + 1).c_str()))
            return QORCFG_ERR_NOMEM;
        changed = true;
    }
    return QORCFG_OK;
}

// Writes one item of the group at `group_path`.
int set_item(qorcfg_handle *handle, const char *group_path, const qorcfg_item *item,
             bool &changed) {
    const char *name = item->name != nullptr ? item->name : "";
    const size_t size = std::strlen(group_path) + std::strlen(name) + 2;
    os::Text path(static_cast<char *>(os::malloc(size)));
    if (!path)
        return QORCFG_ERR_NOMEM;
    std::snprintf(path.get(), size, "%s.%s", group_path, name);
    char *dot = std::strrchr(path.get(), '.');
    *dot = '\0';
    const char *attr = dot + 1;
    ezxml_node *element = store::find_path(handle, path.get());
    if (element == nullptr) {
        if (int rc = make_indexed(handle, path.get(), changed, element); rc != QORCFG_OK)
            return rc;
    }
    const char *stored = ezxml_attr(element, attr);
    if (stored == nullptr) {
        qorcfg_print("%s>Can't find the item_name=%s\n", "set_cfg_group", name);
        return QORCFG_ERR_ITEM;
    }
    const char *value = item->value != nullptr ? item->value : "";
    if (std::strcmp(stored, value) == 0)
        return QORCFG_OK;
    if (!set_copied(element, attr, value))
        return QORCFG_ERR_NOMEM;
    changed = true;
    return QORCFG_OK;
}

// The last node of a non-empty list.
qorcfg_item *last_of(qorcfg_item *list) {
    while (list->next != nullptr)
        list = list->next;
    return list;
}

// Pushes a copy of `node` at the head of `run`; false when memory runs out.
bool push_copy(ItemList &run, const qorcfg_item *node) {
    qorcfg_item *copy = get_new_item(node->gid, node->name, node->value);
    if (copy == nullptr)
        return false;
    copy->next = run.release();
    run.reset(copy);
    return true;
}

}  // namespace

int set_cfg_group(qorcfg_handle *handle, qorcfg_item *items) {
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    if (items == nullptr)
        return QORCFG_OK;
    qorcfg_group *row = group_by_gid(static_cast<uint32_t>(items->gid));
    if (row == nullptr)
        return QORCFG_ERR_GROUP;
    bool changed = false;
    for (const qorcfg_item *item = items; item != nullptr; item = item->next) {
        if (int rc = set_item(handle, row->path, item, changed); rc != QORCFG_OK)
            return rc;
    }
    if (changed)
        row->changed = 1;
    return QORCFG_OK;
}

int set_items_by_group(qorcfg_handle *handle, qorcfg_item *items, uint32_t *gids, int *count) {
    const int capacity = count != nullptr ? *count : 0;
    if (count != nullptr)
        *count = 0;
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    if (items == nullptr)
        return QORCFG_OK;
    if (gids != nullptr) {
        if (capacity <= 0)
            return QORCFG_ERR_TOOLONG;
        std::memset(gids, 0, sizeof *gids * static_cast<size_t>(capacity));
    }
    int stored = 0;
    ItemList run;
    bool opening = false;  // the node opens a run after the first
    for (qorcfg_item *node = items; node != nullptr; node = node->next) {
        if (!push_copy(run, node))
            return QORCFG_ERR_NOMEM;
        // The rules add items after every node but the one opening a later
        // run: their items are visited next, in this run or a new one.
        if (!opening) {
            if (qorcfg_item *added = apply_item_dependency(static_cast<uint32_t>(node->gid),
                                                           node->name, node->value)) {
                last_of(added)->next = node->next;
                node->next = added;
            }
        }
        opening = false;
        const qorcfg_item *next = node->next;
        if (next != nullptr && next->gid == run->gid)
            continue;
        if (gids != nullptr) {
            gids[stored] = static_cast<uint32_t>(run->gid);
            *count = ++stored;
            if (stored >= capacity)
                return QORCFG_ERR_TOOLONG;
        }
        if (int rc = set_cfg_group(handle, run.get()); rc != QORCFG_OK)
            return rc;
        run.reset();
        opening = true;
    }
    return QORCFG_OK;
}

int set_cfg_items_core(qorcfg_handle *handle, qorcfg_item *items, const char *path,
                       bool nonblocking) {
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    const char *target = path != nullptr ? path : config_ram;
    const store::Kind kind = store::file_kind(target);
    const bool locks =
        kind == store::kRamFile || kind == store::kRomFile || kind == store::kCurrentFile;
    // A network-mode handle reads the file only once the access lock is
    // held, so that what another process set just before is not lost.
    std::optional<HeldLock> access;
    if (locks && !access.emplace(store::kAccessLock, LOCK_EX | (nonblocking ? LOCK_NB : 0)).held())
        return QORCFG_BUSY;
    if (store::tree_of(handle) == nullptr)
        return QORCFG_ERR_FAIL;

    int rc = QORCFG_OK;
    if (path != nullptr) {
        rc = set_items_by_group(handle, items, nullptr, nullptr);
    } else {
        uint32_t gids[kRecordedGroups];
        int count = kRecordedGroups;
        rc = set_items_by_group(handle, items, gids, &count);
        if (rc == QORCFG_OK && items != nullptr) {
            int reboot = 0;
            check_items_need_reboot(handle, items, &reboot);
            rc = write_sync_record(gids, count, reboot);
        }
        if (items == nullptr)
            return rc;  // nothing set, nothing written
    }
    if (rc != QORCFG_OK || target[0] == '\0')
        return rc;
    os::Text text(ezxml_toxml(store::tree_of(handle)));
    rc = write_cfg_file(text.get(), target, 0);
    if (rc != QORCFG_OK)
        return rc;
    if (kind == store::kRamFile)
        return write_cfg_file(text.get(), config_rom, 0);
    if (kind == store::kRomFile) {
        // The working copy is made again from the new flash copy.
        HeldLock ram(store::kRamFile, LOCK_EX);
        if (!ram.held())
            return QORCFG_ERR_LOCK;
        os::unlink(config_ram);
    }
    return QORCFG_OK;
}

}  // namespace qorcfg::change

using qorcfg::change::set_cfg_items_core;

extern "C" {

QORCFG_API int set_cfg_items(qorcfg_handle *handle, qorcfg_item *items) {
    const int rc = set_cfg_items_core(handle, items, nullptr, false);
    if (rc == QORCFG_OK)
        qorcfg::store::signal_daemons();
    return rc;
}

QORCFG_API int set_cfg_items_snmp(qorcfg_handle *handle, qorcfg_item *items) {
    const int rc = set_cfg_items_core(handle, items, nullptr, true);
    qorcfg::store::signal_daemon(qorcfg::store::kQorcfgdPidFile);
    return rc;
}

QORCFG_API int set_cfg_items_f(qorcfg_handle *handle, qorcfg_item *items, const char *path) {
    const int rc = set_cfg_items_core(handle, items, path, false);
    if (rc == QORCFG_OK)
        qorcfg::store::signal_daemons();
    return rc;
}

QORCFG_API int set_cfg_items_dependency(qorcfg_handle *handle, qorcfg_item *items) {
    return set_cfg_items_f(handle, items, config_ram);
}

QORCFG_API int set_cfg_items_lite(qorcfg_handle *handle, qorcfg_item *items) {
    return set_cfg_items_f(handle, items, config_ram);
}

}  // extern "C"
