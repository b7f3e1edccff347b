// platform/device.h - the sample access point, described once.
//
// Every configuration group of the device with its group ID, name, element
// path and items (default value, type, rule, description), and the lists
// some groups hold. The platform library's group table is built from it,
// and tools/devgen writes the device's default configuration and rule file
// from it, so the three cannot disagree.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qorcfg::device {

// One item: an attribute of its group's element.
struct Item {
    std::string name;
    std::string value;  // default value
    std::string type;   // a name of cli_cfg_type_list: int, string, mac, ip, ...
    std::string rule;   // the check's rule text ("" for none)
    std::string desc;   // one line for the user interfaces
};

// Like children of an element: `count` of them in the default
// configuration, at most `max`; the first is the template of new ones.
struct List {
    std::string tag;
    int max;
    int count;
    std::vector<Item> items;                       // items of one entry (template values)
    std::vector<std::vector<std::string>> values;  // per entry, values overriding the template's
};

struct Group {
    uint32_t gid;
    std::string name;
    std::string path;  // dotted element path, "qorconfig...." (steps may carry ":N")
    std::vector<Item> items;
    std::vector<List> lists;  // children of the group's element
};

// Radios of the device: rf1 2.4 GHz, rf2 5 GHz, rf3 a third radio, rf4 the
// fourth slot of the numbering (present, disabled, partly populated).
inline constexpr int kRadios = 4;
inline constexpr int kVaps = 16;
inline constexpr int kWdsLinks = 8;

inline constexpr uint32_t radio_base(int r) {
    return 0x20800000u + static_cast<uint32_t>(r) * 0x800000u;
}
inline constexpr uint32_t vap_gid(int r, int v) {
    return radio_base(r) + 0x84000u + static_cast<uint32_t>(v) * 0x4000u;
}
inline constexpr uint32_t wds_gid(int r, int k) {  // k counted from 0
    return radio_base(r) + 0x100000u + static_cast<uint32_t>(k + 1) * 0x400u;
}

// The groups, in table order.
const std::vector<Group> &groups();

// Attributes of the root element, in order ("version", then "devtype").
const std::vector<Item> &root_items();

}  // namespace qorcfg::device
