// store/metadata.cpp - item metadata: the records "name|&|type|&|rule|&|
// description" that a definition tree (the rule file) holds as the values
// of its items, and the item type codes.
#include <cstdlib>
#include <cstring>

#include "os/os.h"
#include "store/print.h"
#include "store/store.h"

namespace qorcfg::store {
namespace {

constexpr size_t kFieldSize = 1000;

// Field `k` (1 name, 2 type, 3 rule, 4 description) of a metadata record
// as a new text (caller frees); NULL for an empty or missing field.
char *field(const char *record, int k) {
    if (record == nullptr)
        return nullptr;
    const char *start = record;
    for (int n = 1;; ++n) {
        const char *sep = std::strstr(start, "|&|");
        if (n == k) {
            size_t len = sep != nullptr ? static_cast<size_t>(sep - start) : std::strlen(start);
            if (len == 0)
                return nullptr;
            auto *out = static_cast<char *>(os::calloc(kFieldSize, 1));
            if (out == nullptr)
                return nullptr;
            // A field longer than the buffer is cut to it.
            std::memcpy(out, start, len < kFieldSize - 1 ? len : kFieldSize - 1);
            return out;
        }
        if (sep == nullptr)
            return nullptr;
        start = sep + 3;
    }
}

const char *attr_of(qorcfg_handle *holder, const char *attr) {
    ezxml_node *node = tree_of(holder);  // a network-mode holder is loaded first
    return node != nullptr && attr != nullptr ? ezxml_attr(node, attr) : nullptr;
}

// The type of an item whose record names none, or an unknown one.
constexpr int kNoType = -1;

int type_code(const char *name) {
    for (const qorcfg_type_entry *row = cli_cfg_type_list; row->name != nullptr; ++row) {
        if (std::strcmp(row->name, name) == 0)
            return row->code;
    }
    return kNoType;
}

// Removes every ":" and what follows it up to the next "." (or the end),
// in place: qorconfig.a:1.b:2 becomes qorconfig.a.b.
void strip_indexes(char *path) {
    char *w = path;
    for (const char *r = path; *r != '\0';) {
        if (*r == ':') {
            while (*r != '\0' && *r != '.')
                ++r;
            continue;
        }
        *w++ = *r++;
    }
    *w = '\0';
}

// The element of `item` in group `group` of the handle's definition tree,
// with the attribute name; NULL and a code when not found.
ezxml_node *item_element(qorcfg_handle *handle, const char *item, const char *group,
                         char **attr_out, int *code) {
    const qorcfg_group *row = group_by_name(group);
    if (row == nullptr) {
        qorcfg_print("ERROR: Cannot find group.\n");
        *code = QORCFG_ERR_GROUP;
        return nullptr;
    }
    size_t plen = std::strlen(row->path);
    size_t ilen = std::strlen(item);
    auto *full = static_cast<char *>(os::malloc(plen + ilen + 2));
    if (full == nullptr) {
        *code = QORCFG_ERR_NOMEM;
        return nullptr;
    }
    std::memcpy(full, row->path, plen);
    full[plen] = '.';
    std::memcpy(full + plen + 1, item, ilen + 1);
    char *dot = std::strrchr(full, '.');
    *dot = '\0';
    strip_indexes(full);
    ezxml_node *node = find_path(handle, full);
    if (node == nullptr) {
        qorcfg_print("ERROR: Cannot find NODE.\n");
        std::free(full);
        *code = QORCFG_ERR_INVALID;
        return nullptr;
    }
    *attr_out = os::strdup(dot + 1);
    std::free(full);
    if (*attr_out == nullptr) {
        *code = QORCFG_ERR_NOMEM;
        return nullptr;
    }
    return node;
}

}  // namespace

char *item_rule(qorcfg_handle *handle, const char *item, const char *group, bool &found) {
    found = false;
    if (handle == nullptr || item == nullptr || group == nullptr)
        return nullptr;
    char *attr = nullptr;
    int code = 0;
    ezxml_node *node = item_element(handle, item, group, &attr, &code);
    if (node == nullptr)
        return nullptr;
    found = true;
    qorcfg_handle holder;
    holder.xml = node;
    char *rule = get_cfg_item_rule(&holder, attr);
    std::free(attr);
    return rule;
}

}  // namespace qorcfg::store

using namespace qorcfg;
using namespace qorcfg::store;

extern "C" {

const qorcfg_type_entry cli_cfg_type_list[] = {
    {0, "int"},  {1, "string"},  {2, "mac"},      {3, "ip"},         {4, "domain"},
    {5, "band"}, {6, "channel"}, {7, "timezone"}, {8, "restricted"}, {-1, nullptr}};

QORCFG_API char *get_cfg_item_name(qorcfg_handle *holder, const char *attr) {
    return field(attr_of(holder, attr), 1);
}

QORCFG_API int get_cfg_item_type(qorcfg_handle *holder, const char *attr) {
    char *type = field(attr_of(holder, attr), 2);
    if (type == nullptr)
        return kNoType;
    int code = type_code(type);
    std::free(type);
    return code;
}

QORCFG_API char *get_cfg_item_rule(qorcfg_handle *holder, const char *attr) {
    return field(attr_of(holder, attr), 3);
}

QORCFG_API char *get_cfg_item_desc(qorcfg_handle *holder, const char *attr) {
    return field(attr_of(holder, attr), 4);
}

QORCFG_API char *get_cfg_item_rule_by_group_name(qorcfg_handle *handle, const char *item,
                                                 const char *group) {
    bool found = false;
    char *rule = item_rule(handle, item, group, found);
    if (found && rule == nullptr)
        qorcfg_print("ERROR: Cannot get rule of attribute.\n");
    return rule;
}

QORCFG_API int get_cfg_item_type_by_group_name(qorcfg_handle *handle, const char *item,
                                               const char *group) {
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    if (group == nullptr)
        return QORCFG_ERR_GROUP;
    if (item == nullptr)
        return QORCFG_ERR_ITEM;
    char *attr = nullptr;
    int code = 0;
    ezxml_node *node = item_element(handle, item, group, &attr, &code);
    if (node == nullptr)
        return code;
    qorcfg_handle holder;
    holder.xml = node;
    int type = get_cfg_item_type(&holder, attr);
    std::free(attr);
    if (type == kNoType) {
        qorcfg_print("ERROR: Cannot get type of attribute.\n");
        return QORCFG_ERR_INVALID;
    }
    return type;
}

}  // extern "C"
