// platform/repeater.cpp - what the repeater state of the sample device
// drags along.
#include <cstdlib>
#include <cstring>

#include "platform/device.h"
#include "store/platform.h"

namespace {

// A list node made the way the configuration library frees it
// (free_item_list): node, name and value from malloc.
qorcfg_item *node(uint32_t gid, const char *name, const char *value, qorcfg_item *next) {
    auto *n = static_cast<qorcfg_item *>(std::calloc(1, sizeof(qorcfg_item)));
    if (n == nullptr)
        return next;
    n->gid = static_cast<int32_t>(gid);
    n->name = strdup(name);
    n->value = strdup(value);
    n->next = next;
    if (n->name == nullptr || n->value == nullptr) {
        std::free(n->name);
        std::free(n->value);
        std::free(n);
        return next;
    }
    return n;
}

}  // namespace

extern "C" {

// Turning the repeater on makes radio 1 a repeater as well as an access
// point, on its own uplink network, and takes band steering off its first
// VAP (the two do not mix).
qorcfg_item *set_rep_related(void) {
    using qorcfg::device::radio_base;
    using qorcfg::device::vap_gid;
    qorcfg_item *list = nullptr;
    list = node(vap_gid(0, 0), "band_steer", "disable", list);
    list = node(radio_base(0), "roles", "ap,rep", list);  // ascending group IDs
    return list;
}

// Nothing to undo on the stand-in: the roles item itself carries the change.
int leave_rep(void) {
    return 0;
}

}  // extern "C"
