// wlan/steering.cpp - band steering between the 2.4 GHz and the 5 GHz
// radio (VAPs with the same SSID on both form a pair), the announced
// channel switch, and station isolation on every VAP.
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "os/os.h"
#include "store/platform.h"
#include "store/print.h"
#include "sys/command.h"

namespace {

constexpr int kRadios = 2;
constexpr int kVaps = 16;
constexpr size_t kValue = 256;

// What happens to a VAP's "band_steer".
enum Mark : int { kDisabledVap = -2, kLeave = -1, kSteerOff = 0, kSteerOn = 1 };

class Steering {
public:
    Steering(qorcfg_handle *handle) : handle_(handle) {}

    // An item of a radio's or a VAP's group; "" when it cannot be read.
    std::string radio_item(int radio, const char *name) const { return item(gid_rf[radio], name); }
    std::string vap_item(int radio, int vap, const char *name) const {
        return item(gid_vap[radio * kVaps + vap], name);
    }
    // A VAP's state and SSID, read once per run (the pairing compares every
    // VAP of one radio with every VAP of the other).
    const std::string &state(int radio, int vap) const {
        return cached(states_[radio][vap], radio, vap, "state");
    }
    const std::string &ssid(int radio, int vap) const {
        return cached(ssids_[radio][vap], radio, vap, "ssid");
    }
    bool enabled(int radio, int vap) const { return state(radio, vap) == "enable"; }

    // The first enabled VAP of `radio` (other than `except`) named `name`,
    // or -1.
    int find(int radio, const std::string &name, int except = -1) const {
        for (int v = 0; v < kVaps; ++v) {
            if (v != except && enabled(radio, v) && ssid(radio, v) == name)
                return v;
        }
        return -1;
    }

private:
    using Cache = std::optional<std::string>;

    const std::string &cached(Cache &slot, int radio, int vap, const char *name) const {
        if (!slot)
            slot = vap_item(radio, vap, name);
        return *slot;
    }

    std::string item(uint32_t gid, const char *name) const {
        char value[kValue] = "";
        if (get_cfg_item(handle_, gid, name, value) != QORCFG_OK)
            return "";
        value[kValue - 1] = '\0';
        return value;
    }

    qorcfg_handle *handle_;
    mutable Cache states_[kRadios][kVaps];
    mutable Cache ssids_[kRadios][kVaps];
};

// Appends "band_steer" = `value` for a VAP; a list that cannot grow stays
// as it is.
qorcfg_item *append_steer(qorcfg_item *list, int radio, int vap, const char *value) {
    qorcfg_item *grown = append_cfg_item(list, static_cast<int32_t>(gid_vap[radio * kVaps + vap]),
                                         "band_steer", value);
    return grown != nullptr ? grown : list;
}

// Pairs every enabled VAP of the 2.4 GHz radio with the first enabled
// 5 GHz VAP of the same SSID. A 5 GHz VAP is skipped by the mark of VAP 1,
// and a disabled one marks the 5 GHz VAP of the 2.4 GHz index: both kept
// as they are.
void pair_all(const Steering &s, int (&marks)[kRadios][kVaps], int rf24, int rf5, int radio,
              int vap, const char *ssid) {
    auto ssid_of = [&](int r, int v) {
        return r == radio && v == vap && ssid != nullptr ? std::string(ssid) : s.ssid(r, v);
    };
    for (int i = 0; i < kVaps; ++i) {
        if (!s.enabled(rf24, i)) {
            marks[rf24][i] = kDisabledVap;
            continue;
        }
        const std::string name = ssid_of(rf24, i);
        for (int j = 0; j < kVaps; ++j) {
            if (marks[rf5][1] == kDisabledVap)
                continue;
            if (!s.enabled(rf5, j)) {
                marks[rf5][i] = kDisabledVap;
                continue;
            }
            if (ssid_of(rf5, j) == name) {
                marks[rf24][i] = marks[rf5][j] = kSteerOn;
                break;
            }
        }
    }
}

// Marks after a change of one VAP's SSID and state.
void update_one(const Steering &s, int (&marks)[kRadios][kVaps], int rf5, int own, int vap,
                const char *ssid, const char *state, const std::string &current) {
    const int other = 1 - own;
    const std::string new_ssid = ssid != nullptr ? ssid : "";
    const std::string new_state = state != nullptr ? state : "";
    // Pairs the changed VAP with the first enabled VAP of the other radio
    // that carries the new SSID, or takes it out of steering.
    auto pair_changed = [&] {
        const int twin = s.find(other, new_ssid);
        if (twin >= 0)
            marks[other][twin] = kSteerOn;
        marks[own][vap] = twin >= 0 ? kSteerOn : kSteerOff;
    };
    // Whether another enabled VAP of the own radio keeps the old SSID.
    auto old_ssid_stays = [&](const std::string &old) { return s.find(own, old, vap) >= 0; };

    if (new_state == "disable" && current == "disable") {
        marks[own][vap] = kSteerOff;
    } else if (new_state == "enable" && current != "enable") {
        pair_changed();
    } else if (new_state == "disable") {
        marks[own][vap] = kSteerOff;
        const std::string old = s.ssid(own, vap);
        if (!old_ssid_stays(old)) {
            for (int k = 0; k < kVaps; ++k) {
                if (s.enabled(other, k) && s.ssid(other, k) == old)
                    marks[rf5][k] = kSteerOff;  // the 5 GHz radio's, whichever the other is
            }
        }
    } else if (new_state == "enable") {
        const std::string old = s.ssid(own, vap);
        if (!old_ssid_stays(old)) {
            for (int k = 0; k < kVaps; ++k) {
                if (s.enabled(other, k) && s.ssid(other, k) == old)
                    marks[other][k] = kSteerOff;
            }
        }
        pair_changed();
    }
}

}  // namespace

extern "C" {

QORCFG_API qorcfg_item *check_vap_band_steering(qorcfg_handle *handle, const char *steer,
                                                qorcfg_item *list, int radio, int vap,
                                                const char *ssid, const char *state) {
    const Steering s(handle);
    // A changed VAP outside the two radios' sixteen is no changed VAP.
    if (radio < 0 || radio >= kRadios || vap < 0 || vap >= kVaps)
        radio = vap = -1;
    int rf24 = -1, rf5 = -1;
    for (int r = 0; r < kRadios; ++r) {
        if (s.radio_item(r, "state") != "enable")
            continue;
        (s.radio_item(r, "mode").find('a') != std::string::npos ? rf5 : rf24) = r;
    }
    if (rf24 < 0 || rf5 < 0 || steer == nullptr || std::strcmp(steer, "enable") != 0) {
        if (ssid != nullptr && radio >= 0)
            return append_steer(list, radio, vap, "disable");
        for (int r = 0; r < kRadios; ++r) {
            for (int v = 0; v < kVaps; ++v) {
                if (s.vap_item(r, v, "band_steer") == "enable")
                    list = append_steer(list, r, v, "disable");
            }
        }
        return list;
    }
    int marks[kRadios][kVaps];
    for (auto &row : marks)
        std::fill(std::begin(row), std::end(row), kLeave);
    if ((ssid == nullptr && state == nullptr) || radio < 0) {
        pair_all(s, marks, rf24, rf5, radio, vap, ssid);
    } else {
        char current[kValue] = "";
        if (get_cfg_item(handle, gid_vap[radio * kVaps + vap], "state", current) != QORCFG_OK)
            return list;
        current[kValue - 1] = '\0';
        update_one(s, marks, rf5, radio, vap, ssid, state, current);
    }
    for (int r = 0; r < kRadios; ++r) {
        for (int v = 0; v < kVaps; ++v) {
            if (marks[r][v] == kSteerOff || marks[r][v] == kSteerOn)
                list = append_steer(list, r, v, marks[r][v] == kSteerOn ? "enable" : "disable");
        }
    }
    return list;
}

QORCFG_API int set_channel_switch(int channel, int count, int radio) {
    using qorcfg::sys::CommandLine;
    const CommandLine find(CommandLine::kAnyLength, "ifconfig | grep ath%dap | awk '{print $1}' ",
                           radio - 1);
    char ifname[qorcfg::sys::kLineSize] = "";
    if (!qorcfg::sys::first_line_of(find, ifname, sizeof ifname))
        return 0;
    ifname[std::strcspn(ifname, "\n")] = '\0';
    if (std::strlen(ifname) < 5)
        return 0;
    qorcfg::sys::run(CommandLine::kAnyLength, "iwpriv %s doth_chanswitch %d %d", ifname, channel,
                     count);
    return channel;
}

QORCFG_API qorcfg_item *set_vap_isolate_related(void) {
    qorcfg_handle *handle = init_qorcfg();
    if (handle == nullptr) {
        std::fputs("Init qorcfg error.", stdout);
        return nullptr;
    }
    close_qorcfg(handle);
    qorcfg_item *list = nullptr;
    for (int i = 0; i < kRadios * kVaps; ++i) {
        if (qorcfg_item *grown =
                append_cfg_item(list, static_cast<int32_t>(gid_vap[i]), "sta_isolate", "enable"))
            list = grown;
    }
    return list;
}

}  // extern "C"
