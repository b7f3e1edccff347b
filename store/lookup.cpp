// store/lookup.cpp - reading single items: by group ID, group name or
// prefix, from the handle's tree (the _direct forms), from the daemon first
// for network-mode handles (the plain forms), or from a handle opened on
// one group's element (the _s forms); and reading an element's attributes
// or a list of items.
//
// An item is an attribute of the element named by the path before its last
// ".": prefix (a group's path) joined with the item name. Values are cut to
// 255 characters and a terminating zero.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "os/os.h"
#include "store/print.h"
#include "store/store.h"

namespace qorcfg::store {
namespace {

// The value of the handle's root element's attribute number `which`
// (0 first, 1 second) into `value`; -4 when it has none or no buffer.
int root_identity(qorcfg_handle *handle, int which, char *value) {
    ezxml_node *root = tree_of(handle);
    if (root == nullptr)
        return QORCFG_ERR_FAIL;
    if (value == nullptr)
        return QORCFG_ERR_ITEM;
    char **attr = root->attr;
    if (attr[0] == nullptr || (which == 1 && attr[2] == nullptr))
        return QORCFG_ERR_ITEM;
    copy_value(value, attr[2 * which + 1]);
    return QORCFG_OK;
}

const char *text(const char *s) {
    return s != nullptr ? s : "(null)";
}

// The root's identity items, read for group ID 0 and group names "0" and
// "0x0": `first` names the item held in the root's first attribute,
// `second` the one in its second; any other item is unknown (-4).
int identity_item(qorcfg_handle *handle, const char *item, char *value, const char *first,
                  const char *second) {
    if (item != nullptr && std::strcmp(item, first) == 0)
        return root_identity(handle, 0, value);
    if (item != nullptr && std::strcmp(item, second) == 0)
        return root_identity(handle, 1, value);
    return QORCFG_ERR_ITEM;
}

// The core read of `item` in the element of the group `row`; a failure is
// reported under the name of `caller`.
int read_in_group(qorcfg_handle *handle, const qorcfg_group *row, const char *item, char *value,
                  const char *caller) {
    int result = get_cfg_item_by_prefix_direct(handle, row->path, item, value);
    if (result != 0)
        qorcfg_print("%s>return value of calling get_cfg_item_by_prefix_direct() = %d\n", caller,
                     result);
    return result;
}

}  // namespace
}  // namespace qorcfg::store

using namespace qorcfg;
using namespace qorcfg::store;

extern "C" {

QORCFG_API int get_cfg_item_by_prefix_direct(qorcfg_handle *handle, const char *prefix,
                                             const char *item, char *value) {
    if (value != nullptr)
        value[0] = '\0';
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    if (prefix == nullptr)
        return QORCFG_ERR_GROUP;
    if (item == nullptr || value == nullptr)
        return QORCFG_ERR_ITEM;
    // A group name stands for its path; any other prefix is a path itself.
    if (std::strcmp(prefix, "qorconfig") != 0) {
        if (const qorcfg_group *row = group_by_name(prefix))
            prefix = row->path;
    }
    size_t plen = std::strlen(prefix);
    size_t ilen = std::strlen(item);
    auto *full = static_cast<char *>(os::malloc(plen + ilen + 2));
    if (full == nullptr) {
        qorcfg_print("%s>full_item_name malloc error\n", __func__);
        return QORCFG_ERR_NOMEM;
    }
    std::memcpy(full, prefix, plen);
    full[plen] = '.';
    std::memcpy(full + plen + 1, item, ilen + 1);
    QORCFG_DEBUG("full_item_name = %s\n", full);
    char *dot = std::strrchr(full, '.');
    *dot = '\0';
    const char *attr_name = dot + 1;
    QORCFG_DEBUG("attr_name = %s\n", attr_name);
    int result;
    ezxml_node *node = find_path(handle, full);
    if (node == nullptr) {
        qorcfg_print("%s>Can't find node=%s\n", __func__, full);
        result = QORCFG_ERR_FAIL;
    } else if (const char *found = ezxml_attr(node, attr_name)) {
        copy_value(value, found);
        result = 0;
    } else {
        qorcfg_print("%s>Can't find the item_name=%s.%s\n", __func__, full, attr_name);
        result = QORCFG_ERR_ITEM;
    }
    std::free(full);
    return result;
}

QORCFG_API int get_cfg_item_direct(qorcfg_handle *handle, uint32_t gid, const char *item,
                                   char *value) {
    if (value != nullptr)
        value[0] = '\0';
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    if (gid == 0)  // the configuration's identity: its version, then its device type
        return identity_item(handle, item, value, "version", "devtype");
    const qorcfg_group *row = group_by_gid(gid);
    if (row == nullptr) {
        qorcfg_print("%s>Can't find group ID=%d\n", __func__, static_cast<int>(gid));
        return QORCFG_ERR_GROUP;
    }
    return read_in_group(handle, row, item, value, __func__);
}

QORCFG_API int get_cfg_item_by_str_direct(qorcfg_handle *handle, const char *group,
                                          const char *item, char *value) {
    if (value != nullptr)
        value[0] = '\0';
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    if (group != nullptr && (std::strcmp(group, "0") == 0 || std::strcmp(group, "0x0") == 0)) {
        // By name the identity reads the other way round ("devtype" is the
        // root's first attribute); kept so, callers depend on it.
        return identity_item(handle, item, value, "devtype", "version");
    }
    const qorcfg_group *row = group_by_name(group);
    if (row == nullptr) {
        qorcfg_print("%s>Can't find group name=%s\n", __func__, text(group));
        return QORCFG_ERR_GROUP;
    }
    return read_in_group(handle, row, item, value, __func__);
}

QORCFG_API int get_cfg_item(qorcfg_handle *handle, uint32_t gid, const char *item, char *value) {
    if (value != nullptr)
        value[0] = '\0';
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    const Answer answer = ask_daemon_first(handle, Fallback{}, [&](const char *file) {
        return item_answer(get_cfg_item_daemon(file, gid, item, value));
    });
    if (answer.final)
        return answer.code;
    if (tree_of(handle) == nullptr)
        return QORCFG_ERR_FAIL;
    return get_cfg_item_direct(handle, gid, item, value);
}

QORCFG_API int get_cfg_item_by_str(qorcfg_handle *handle, const char *group, const char *item,
                                   char *value) {
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    const Answer answer = ask_daemon_first(handle, Fallback{}, [&](const char *file) {
        return item_answer(get_cfg_item_by_str_daemon(file, group, item, value));
    });
    if (answer.final)
        return answer.code;
    if (tree_of(handle) == nullptr)
        return QORCFG_ERR_FAIL;
    return get_cfg_item_by_str_direct(handle, group, item, value);
}

}  // extern "C"

namespace {

// The local read of the _s forms: `item` of the root element of the
// handle's subtree, for the exported function `caller`. `report` prints
// the message of a missing item.
template <typename Report>
int subtree_item(qorcfg_handle *handle, const char *item, char *value, const char *caller,
                 Report report) {
    if (is_net(handle) || handle->xml == nullptr)
        return QORCFG_ERR_FAIL;
    if (enable_qorcfg_debug)
        qorcfg::store::debug_line(caller, __LINE__, "daemon error\n");
    const char *found = item != nullptr ? ezxml_attr(handle->xml, item) : nullptr;
    if (found == nullptr || value == nullptr) {
        report(caller);
        return QORCFG_ERR_ITEM;
    }
    copy_value(value, found);
    return QORCFG_OK;
}

}  // namespace

extern "C" {

QORCFG_API int get_cfg_item_s(qorcfg_handle *handle, uint32_t gid, const char *item, char *value) {
    if (value != nullptr)
        value[0] = '\0';
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    // On a transport failure only the group's subtree is read, by gid.
    const Answer answer = ask_daemon_first(
        handle, Fallback{Fallback::kSubtree, nullptr, gid},
        [&](const char *file) { return item_answer(get_cfg_item_daemon(file, gid, item, value)); });
    if (answer.final)
        return answer.code;
    return subtree_item(handle, item, value, __func__, [&](const char *caller) {
        qorcfg_print("%s>Can't find the gid=%d item_name=%s\n", caller, static_cast<int>(gid),
                     text(item));
    });
}

QORCFG_API int get_cfg_item_by_str_s(qorcfg_handle *handle, const char *group, const char *item,
                                     char *value) {
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    const Answer answer =
        ask_daemon_first(handle, Fallback{Fallback::kSubtree, group, 0}, [&](const char *file) {
            return item_answer(get_cfg_item_by_str_daemon(file, group, item, value));
        });
    if (answer.final)
        return answer.code;
    return subtree_item(handle, item, value, __func__, [&](const char *caller) {
        qorcfg_print("%s>Can't find the item_name=%s.%s\n", caller, text(group), text(item));
    });
}

}  // extern "C"

namespace {

// The body of the two prefix-and-group-path forms: daemon first, then the
// group's subtree at "qorconfig.<group path>" (formed in a 129-byte buffer,
// cut alike), read with its root's name as the prefix. `traced`: the
// exported function that writes a debug line before the local read.
int by_path_s(qorcfg_handle *handle, const char *prefix, const char *group_path, const char *item,
              char *value, const char *traced) {
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    char path[129];
    std::snprintf(path, sizeof path, "qorconfig.%s", group_path != nullptr ? group_path : "");
    const Answer answer =
        ask_daemon_first(handle, Fallback{Fallback::kSubtree, path, 0}, [&](const char *file) {
            return item_answer(
                get_cfg_item_by_all_args_daemon(file, -1, prefix, group_path, item, value));
        });
    if (answer.final)
        return answer.code;
    if (is_net(handle) || handle->xml == nullptr)
        return QORCFG_ERR_FAIL;
    if (traced != nullptr && enable_qorcfg_debug)
        qorcfg::store::debug_line(traced, __LINE__, "daemon error\n");
    return get_cfg_item_by_prefix_direct(handle, handle->xml->name, item, value);
}

}  // namespace

extern "C" {

QORCFG_API int get_cfg_item_by_path_gid_s(qorcfg_handle *handle, const char *prefix,
                                          const char *group_path, const char *item, char *value) {
    return by_path_s(handle, prefix, group_path, item, value, nullptr);
}

QORCFG_API int get_cfg_item_by_prefix_str_s(qorcfg_handle *handle, const char *prefix,
                                            const char *group_path, const char *item, char *value) {
    return by_path_s(handle, prefix, group_path, item, value, __func__);
}

QORCFG_API int get_devtype(qorcfg_handle *handle, char *value) {
    return get_cfg_item(handle, 0, "devtype", value);
}

QORCFG_API int get_version(qorcfg_handle *handle, char *value) {
    return get_cfg_item(handle, 0, "version", value);
}

QORCFG_API qorcfg_attr *get_item_by_path(const char *attr, const char *path) {
    if (path == nullptr)
        return nullptr;
    qorcfg_handle *handle = init_qorcfg();
    if (handle == nullptr) {
        qorcfg_print("ERROR: Fail to init configuration file.\n");
        return nullptr;
    }
    qorcfg_attr *list = nullptr;
    if (ezxml_node *node = find_path(handle, path)) {
        if (attr != nullptr) {
            if (const char *value = ezxml_attr(node, attr))
                list = new_attr(attr, value);
        } else {
            qorcfg_attr **tail = &list;
            for (char **a = node->attr; *a != nullptr; a += 2) {
                qorcfg_attr *record = new_attr(a[0], a[1]);
                if (record == nullptr) {
                    free_attr_list(list);
                    list = nullptr;
                    break;
                }
                *tail = record;
                tail = &record->next;
            }
        }
    }
    close_qorcfg(handle);
    return list;
}

QORCFG_API int get_cfg_items(qorcfg_handle *handle, qorcfg_item *list) {
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    for (qorcfg_item *node = list; node != nullptr; node = node->next) {
        int result =
            get_cfg_item(handle, static_cast<uint32_t>(node->gid), node->name, node->value);
        if (result != 0)
            return result;
    }
    return QORCFG_OK;
}

QORCFG_API int test_daemon_work(qorcfg_handle *handle, uint32_t gid, const char *item,
                                char *value) {
    if (value != nullptr)
        value[0] = '\0';
    qorcfg_net_record *record = net_record(handle);
    if (record == nullptr)
        return QORCFG_ERR_FAIL;
    return get_cfg_item_daemon(record->path, gid, item, value);
}

}  // extern "C"
