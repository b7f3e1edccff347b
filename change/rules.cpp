// change/rules.cpp - the role dependency rules: the items that a change of
// the repeater state, of VAP isolation or of radio 0's roles drags along.
#include <cstring>

#include "store/groups.h"
#include "store/platform.h"

namespace {

constexpr uint32_t kRepeaterGroup = 0x20a80000;
constexpr uint32_t kIsolationGroup = 0x10600000;

bool is(const char *text, const char *expected) {
    return std::strcmp(text, expected) == 0;
}

}  // namespace

extern "C" {

QORCFG_API qorcfg_item *apply_item_dependency(uint32_t gid, const char *name, const char *value) {
    if (name == nullptr || value == nullptr)
        return nullptr;
    // Exact names and values only: turning a setting off, or a roles value
    // that merely contains "ap", adds nothing.
    if (gid == kRepeaterGroup && is(name, "state") && is(value, "enable"))
        return set_rep_related();
    if (gid == kIsolationGroup && is(name, "vap_isolate") && is(value, "enable"))
        return set_vap_isolate_related();
    if (gid == qorcfg::store::radio_group(0) && is(name, "roles") &&
        (is(value, "ap,wds") || is(value, "ap")))
        leave_rep();
    return nullptr;
}

}  // extern "C"
