// store/item_list.cpp - item lists: the (group ID, name, value) chains that
// carry several items through one call, kept in ascending group-ID order.
#include <cstdlib>
#include <cstring>

#include "os/os.h"
#include "store/print.h"
#include "store/store.h"

namespace {

// Value storage of a node appended to a list: room for a value read back
// into it (255 characters and a zero).
constexpr int kAppendedValue = 256;

// A new node. `size` 0 copies the value exactly; a positive size gives a
// zeroed buffer of that many bytes holding at most size - 1 characters; no
// value (or a negative size) leaves it NULL. NULL when memory runs out.
qorcfg_item *make_node(int32_t gid, const char *name, const char *value, int size) {
    auto *node = static_cast<qorcfg_item *>(qorcfg::os::calloc(1, sizeof(qorcfg_item)));
    if (node == nullptr)
        return nullptr;
    node->gid = gid;
    if (name != nullptr && (node->name = qorcfg::os::strdup(name)) == nullptr) {
        std::free(node);
        return nullptr;
    }
    if (value == nullptr || size < 0)
        return node;
    if (size == 0) {
        node->value = qorcfg::os::strdup(value);
    } else if ((node->value =
                    static_cast<char *>(qorcfg::os::calloc(static_cast<size_t>(size), 1)))) {
        std::strncpy(node->value, value, static_cast<size_t>(size) - 1);
    }
    if (node->value == nullptr) {
        std::free(node->name);
        std::free(node);
        return nullptr;
    }
    return node;
}

}  // namespace

extern "C" {

QORCFG_API qorcfg_item *get_new_item(int32_t gid, const char *name, const char *value) {
    return make_node(gid, name, value, 0);
}

QORCFG_API qorcfg_item *append_cfg_item(qorcfg_item *list, int32_t gid, const char *name,
                                        const char *value) {
    // NULL, not the list: callers that assign the result back lose their
    // list, which is how this call behaves; they check their arguments.
    if (name == nullptr || value == nullptr)
        return nullptr;
    qorcfg_item *node = make_node(gid, name, value, kAppendedValue);
    if (node == nullptr) {
        qorcfg_print("Memory allocate error, can't get new item\n");
        return nullptr;
    }
    // Before the first node of an equal or greater gid: a new node goes
    // ahead of older ones of its group.
    qorcfg_item **at = &list;
    while (*at != nullptr && (*at)->gid < gid)
        at = &(*at)->next;
    node->next = *at;
    *at = node;
    return list;
}

QORCFG_API qorcfg_item *append_cfg_item_by_str(qorcfg_item *list, const char *group,
                                               const char *name, const char *value) {
    const qorcfg_group *row = group_by_name(group);
    if (row == nullptr)
        return nullptr;
    return append_cfg_item(list, static_cast<int32_t>(row->gid), name, value);
}

QORCFG_API qorcfg_item *check_item_exist(qorcfg_item *list, const char *name) {
    if (name == nullptr)
        return nullptr;
    for (qorcfg_item *node = list; node != nullptr; node = node->next) {
        if (node->name != nullptr && std::strcmp(node->name, name) == 0)
            return node;
    }
    return nullptr;
}

QORCFG_API void print_list(qorcfg_item *list) {
    int n = 1;
    for (qorcfg_item *node = list; node != nullptr; node = node->next, ++n) {
        qorcfg_print("%d. Gid = %d, Name=%s Value=%s\n", n, node->gid,
                     node->name != nullptr ? node->name : "(null)",
                     node->value != nullptr ? node->value : "(null)");
    }
}

QORCFG_API int free_item_list(qorcfg_item *list) {
    while (list != nullptr) {
        qorcfg_item *next = list->next;  // read before the node goes
        std::free(list->name);
        std::free(list->value);
        std::free(list);
        list = next;
    }
    return QORCFG_OK;
}

}  // extern "C"
