// store/path.cpp - the dotted-path walk through a handle's tree, and the
// listings of an element's children.
#include <cstdlib>
#include <cstring>
#include <string>

#include "os/os.h"
#include "store/print.h"
#include "store/store.h"

namespace qorcfg::store {
namespace {

// Parses the index of a step "name:N": the digits after the ':' ("" is 0).
// False when a character is not a decimal digit.
bool step_index(const char *digits, int *index) {
    long value = 0;
    for (const char *d = digits; *d != '\0'; ++d) {
        if (*d < '0' || *d > '9')
            return false;
        value = value > 100000000 ? value : value * 10 + (*d - '0');  // far past any list
    }
    *index = static_cast<int>(value);
    return true;
}

// Appends `record` at `*tail`.
void append(qorcfg_attr **&tail, qorcfg_attr *record) {
    *tail = record;
    tail = &record->next;
}

}  // namespace

ezxml_node *find_path(qorcfg_handle *handle, const char *path) {
    if (handle == nullptr || path == nullptr)
        return nullptr;
    ezxml_node *node = tree_of(handle);
    if (node == nullptr)
        return nullptr;
    // The walk cuts its own copy of the path; short paths (all real ones)
    // are copied on the stack.
    size_t len = std::strlen(path);
    char local[256];
    char *copy = len < sizeof local ? local : static_cast<char *>(os::malloc(len + 1));
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, path, len + 1);
    char *save = nullptr;
    char *step = strtok_r(copy, ".", &save);
    // The first name is the document element's (or a later sibling's).
    while (node != nullptr &&
           (step == nullptr || node->name == nullptr || std::strcmp(node->name, step) != 0))
        node = node->sibling;
    while (node != nullptr && (step = strtok_r(nullptr, ".", &save)) != nullptr) {
        int index = 0;
        if (char *colon = std::strchr(step, ':')) {
            *colon = '\0';
            if (!step_index(colon + 1, &index)) {
                node = nullptr;
                break;
            }
        }
        node = ezxml_child(node, step);
        if (index != 0)
            node = ezxml_idx(node, index);
    }
    if (copy != local)
        std::free(copy);
    return node;
}

qorcfg_attr *new_attr(const char *name, const char *value) {
    auto *record = static_cast<qorcfg_attr *>(os::calloc(1, sizeof(qorcfg_attr)));
    if (record == nullptr)
        return nullptr;
    record->index = -1;
    record->name = name != nullptr ? os::strdup(name) : nullptr;
    record->value = value != nullptr ? os::strdup(value) : nullptr;
    if ((name != nullptr && record->name == nullptr) ||
        (value != nullptr && record->value == nullptr)) {
        std::free(record->name);
        std::free(record->value);
        std::free(record);
        return nullptr;
    }
    return record;
}

void copy_value(char *value, const char *text) {
    size_t n = 0;
    while (n < 255 && text[n] != '\0') {
        value[n] = text[n];
        ++n;
    }
    value[n] = '\0';
}

}  // namespace qorcfg::store

using namespace qorcfg;
using namespace qorcfg::store;

extern "C" {

QORCFG_API int free_attr_list(qorcfg_attr *list) {
    while (list != nullptr) {
        qorcfg_attr *next = list->next;
        std::free(list->name);
        std::free(list->value);
        std::free(list);
        list = next;
    }
    return QORCFG_OK;
}

QORCFG_API qorcfg_attr *qorcfg_list_all_child(qorcfg_handle *handle) {
    ezxml_node *node = tree_of(handle);
    if (node == nullptr)
        return nullptr;
    qorcfg_attr *list = nullptr;
    qorcfg_attr **tail = &list;
    for (ezxml_node *group = node->child; group != nullptr; group = group->sibling) {
        bool single = group->next == nullptr;
        int index = 0;
        for (ezxml_node *member = group; member != nullptr; member = member->next) {
            qorcfg_attr *record = new_attr(member->name, nullptr);
            if (record == nullptr) {
                free_attr_list(list);
                return nullptr;
            }
            record->index = single ? -1 : index++;
            append(tail, record);
        }
    }
    return list;
}

QORCFG_API qorcfg_attr *list_child_by_path(qorcfg_handle *handle, const char *path) {
    ezxml_node *found = find_path(handle, path);
    if (found == nullptr) {
        qorcfg_print("ERROR: Fail to find item.\n");
        return nullptr;
    }
    qorcfg_handle cell;
    cell.xml = found;
    qorcfg_attr *list = qorcfg_list_all_child(&cell);
    // The listed element is taken out of the caller's document with its
    // subtree. Cutting it first keeps the rest of the document whole (a
    // plain free would leave the parent pointing at freed elements); the
    // document element itself stays.
    if (found->parent != nullptr)
        ezxml_free(ezxml_cut(found));
    return list;
}

QORCFG_API qorcfg_attr *list_child_by_str(qorcfg_handle *handle, const char *name) {
    if (handle == nullptr)
        return nullptr;
    const qorcfg_group *row = group_by_name(name);
    if (row == nullptr) {
        qorcfg_print("%s>Can't find group name=%s\n", "list_child_by_str",
                     name != nullptr ? name : "(null)");
        return nullptr;
    }
    return list_child_by_path(handle, row->path);
}

QORCFG_API qorcfg_attr *list_child_by_gid(qorcfg_handle *handle, uint32_t gid) {
    if (handle == nullptr)
        return nullptr;
    const qorcfg_group *row = group_by_gid(gid);
    if (row == nullptr) {
        qorcfg_print("%s>Can't find group ID=%d\n", "list_child_by_gid", static_cast<int>(gid));
        return nullptr;
    }
    return list_child_by_path(handle, row->path);
}

}  // extern "C"
