// apply/radio.cpp - restarting a radio during an apply run: the VAP apply
// re-creates the VAPs named in the radio's VAP list, the radio apply renews
// the radio's parameters. Each runs once per radio per run (the apply flags)
// and stops half-way, with -17, when the radio must wait for a reboot.
#include <cstdio>
#include <cstring>

#include "apply/apply.h"
#include "store/groups.h"
#include "sys/command.h"

namespace qorcfg::apply {
namespace {

// The device types that change the steps on radio 0.
constexpr const char *kCpe = "CPE";
constexpr const char *kGw = "GW";

// WDS links restarted: bonded first when the bonding style can be read.
void reset_wds(qorcfg_handle *handle, int r) {
    Item style;
    if (style.load(handle, store::kWdsBondGroup, "wds_style") == QORCFG_OK) {
        sys::run(kCommandSize, "%s restart", kRcBonding);
        sys::run(kCommandSize, "%s reset_wds bonding", kRcBridge);
    }
    sys::run(kCommandSize, "%s reset_wds %d", kRcBridge, r);
}

// The radio's steps between its stop and its start that depend on its
// roles; the repeater's hostapd start is the radio apply's alone.
void reset_roles(qorcfg_handle *handle, int r, bool start_repeater) {
    Item roles;
    roles.load(handle, store::radio_group(r), "roles");
    if (roles.contains("wds"))
        reset_wds(handle, r);
    if (roles.contains("rep")) {
        sys::run(kCommandSize, "%s reset_rep %d", kRcBridge, r);
        if (start_repeater)
            sys::run(kCommandSize, "%s start_hostapd %d", kRcWlan, r);
    }
}

void stop(int r, const Item &type) {
    sys::run(kCommandSize, "%s stop_workaround", kRcMgnt);
    if (r == 0 && type.is(kCpe))
        sys::run(kCommandSize, "%s stop_wan", kRcNet);
}

}  // namespace
}  // namespace qorcfg::apply

using namespace qorcfg;
using namespace qorcfg::apply;

extern "C" {

QORCFG_API int apply_vap_group(qorcfg_handle *handle, uint32_t gid, uint32_t *restart,
                               char vap_lists[3][256]) {
    const int r = radio_index_of_gid(gid);
    if (r < 0)
        return QORCFG_ERR_FAIL;
    // Set for this run, or the fourth radio's (-1): nothing to do.
    if (get_vap_apply_flag(r) != 0)
        return QORCFG_OK;
    Item state;
    if (const int rc = state.load(handle, store::radio_group(r), "state"); rc != QORCFG_OK)
        return rc;
    if (!state.is("enable"))
        return QORCFG_OK;
    Item type;
    if (r == 0)
        type.load(handle, store::kDeviceGroup, "type");
    const char *list = vap_lists != nullptr ? vap_lists[r] : "";

    stop(r, type);
    sys::run(kCommandSize, "%s apply_vap_para \"%d\" \"%s\"", kRcWlan, r, list);
    if (check_rf_need_reboot() == 1)
        return QORCFG_ERR_REBOOT;
    reset_roles(handle, r, false);
    sys::run(kCommandSize, "%s update_vap_bridge %d \"%s\"", kRcBridge, r, list);
    if (type.is(kGw))
        sys::run(kCommandSize, "%s restart_lan", kRcNet);
    sys::run(kCommandSize, "%s start_hostapd %d", kRcWlan, r);
    if (r == 0)
        sys::run(kCommandSize, type.is(kCpe) ? "%s start_wan" : "%s check_dhcpc", kRcNet);
    if (restart != nullptr)
        *restart = 1;
    sys::run(kCommandSize, "%s start_workaround", kRcMgnt);
    sys::run(kCommandSize, "%s start; %s set_dnat_mac", kRcSplitTunnel, kRcSplitTunnel);
    set_vap_apply_flag(r, 1);
    return QORCFG_OK;
}

QORCFG_API int apply_radio_group(qorcfg_handle *handle, uint32_t gid, uint32_t *restart) {
    if (handle == nullptr)
        return QORCFG_ERR_FAIL;
    std::printf("apply gid %d\n", static_cast<int>(gid));
    Item type;
    type.load(handle, store::kDeviceGroup, "type");
    const int r = radio_index_of_gid(gid);
    if (r < 0)
        return QORCFG_ERR_FAIL;
    const uint32_t base = store::radio_group(r);
    // Set for this run, or the fourth radio's (-1): nothing to do.
    if (get_radio_apply_flag(base) != 0)
        return QORCFG_OK;

    stop(r, type);
    sys::run(kCommandSize, "%s renew_rf_para %d", kRcWlan, r);
    if (check_rf_need_reboot() == 1)
        return QORCFG_ERR_REBOOT;
    reset_roles(handle, r, true);
    if (r == 0 && type.is(kCpe)) {
        sys::run(kCommandSize, "%s start_hostapd %d", kRcWlan, 0);
        sys::run(kCommandSize, "%s start_wan", kRcNet);
    } else if (r == 0) {
        sys::run(kCommandSize, "%s check_dhcpc", kRcNet);
    }
    if (restart != nullptr)
        *restart = 1;
    sys::run(kCommandSize, "%s start_workaround", kRcMgnt);
    set_radio_apply_flag(base, 1);
    return QORCFG_OK;
}

}  // extern "C"
