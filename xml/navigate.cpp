// xml/navigate.cpp - reading the tree: children by name, members of a name
// group, attributes with their declared defaults, paths, processing
// instructions and the parse error.
#include <cstdarg>
#include <cstring>

#include "xml/tree.h"

using namespace qorcfg::xml;

namespace {

inline bool same(const char *a, const char *b) {
    return a[0] == b[0] && std::strcmp(a, b) == 0;
}

}  // namespace

extern "C" {

QORCFG_API ezxml_node *ezxml_child(ezxml_node *xml, const char *name) {
    if (xml == nullptr || name == nullptr)
        return nullptr;
    // One step per name group, not per child.
    for (ezxml_node *group = xml->child; group != nullptr; group = group->sibling) {
        if (same(group->name, name))
            return group;
    }
    return nullptr;
}

QORCFG_API ezxml_node *ezxml_idx(ezxml_node *xml, int idx) {
    if (idx < 0)
        return nullptr;  // walking a finite group backwards reaches its end
    for (; xml != nullptr && idx > 0; --idx)
        xml = xml->next;
    return xml;
}

QORCFG_API const char *ezxml_attr(ezxml_node *xml, const char *attr) {
    if (xml == nullptr || xml->attr == nullptr || attr == nullptr)
        return nullptr;
    for (char **a = xml->attr; *a != nullptr; a += 2) {
        if (same(*a, attr))
            return a[1];
    }
    // Not set on the element: the default its tag declares, if any.
    ezxml_root *root = root_of(xml);
    if (root->attr == nullptr || root->attr[0] == nullptr || xml->name == nullptr)
        return nullptr;
    for (char ***list = root->attr; *list != nullptr; ++list) {
        if (std::strcmp((*list)[0], xml->name) != 0)
            continue;
        for (char **d = *list + 1; *d != nullptr; d += 3) {
            if (std::strcmp(*d, attr) == 0)
                return d[1];
        }
        return nullptr;
    }
    return nullptr;
}

QORCFG_API ezxml_node *ezxml_vget(ezxml_node *xml, va_list ap) {
    for (;;) {
        const char *name = va_arg(ap, const char *);
        if (name == nullptr || name[0] == '\0')
            return xml;
        int idx = va_arg(ap, int);
        xml = ezxml_child(xml, name);
        if (idx < 0)
            return xml;
        xml = ezxml_idx(xml, idx);
    }
}

QORCFG_API ezxml_node *ezxml_get(ezxml_node *xml, ...) {
    va_list ap;
    va_start(ap, xml);
    ezxml_node *found = ezxml_vget(xml, ap);
    va_end(ap);
    return found;
}

QORCFG_API char **ezxml_pi(ezxml_node *xml, const char *target) {
    if (xml == nullptr || target == nullptr)
        return EZXML_NIL;
    ezxml_root *root = root_of(xml);
    for (char ***list = root->pi; *list != nullptr; ++list) {
        if (std::strcmp((*list)[0], target) == 0)
            return *list + 1;
    }
    return EZXML_NIL;
}

QORCFG_API const char *ezxml_error(ezxml_node *xml) {
    return xml != nullptr ? root_of(xml)->err : "";
}

}  // extern "C"
