// store/groups.h - the group IDs the library itself reads or acts on, and
// the numbering of the radios' groups.
#pragma once

#include <cstdint>

namespace qorcfg::store {

// "type" of the device: AP, CPE, GW (or WDS).
inline constexpr uint32_t kDeviceGroup = 0x08180000;
// "wds_style": when it can be read, WDS links are bonded.
inline constexpr uint32_t kWdsBondGroup = 0x10680000;

// Radio r (0..3) owns the group IDs from radio_group(r) to
// radio_group(r) + kRadioSpan; its "state" and "roles" are items of
// radio_group(r) itself. Its VAPs' groups start at kVapOffset, one block of
// kVapStride per VAP, and end before kVapEnd.
inline constexpr int kRadioCount = 4;
inline constexpr uint32_t kRadioSpan = 0x300c00;
inline constexpr uint32_t kVapOffset = 0x84000;
inline constexpr uint32_t kVapStride = 0x4000;
inline constexpr uint32_t kVapEnd = 0x100400;
inline constexpr uint32_t radio_group(int r) {
    return 0x20800000u + static_cast<uint32_t>(r) * 0x800000u;
}

}  // namespace qorcfg::store
