// platform/system_items.cpp - run-time values of the device (uptime, load,
// memory, host name, temperature, LAN address) for get_sys_item.
#include <cstdlib>
#include <string>

#include "platform/root.h"
#include "store/platform.h"

namespace {

using qorcfg::platform::copy_out;

constexpr size_t kItemText = 256;

// Seconds since boot, whole.
int uptime(uint32_t, char *buf, uint32_t) {
    std::string line;
    std::string out;
    if (qorcfg::platform::read_line("/proc/uptime", line))
        out = line.substr(0, line.find_first_of(". "));
    copy_out(out, buf, kItemText);
    return 0;
}

// The three load averages.
int load(uint32_t, char *buf, uint32_t) {
    std::string line;
    std::string out;
    if (qorcfg::platform::read_line("/proc/loadavg", line)) {
        size_t end = 0;
        for (int field = 0; field < 3 && end != std::string::npos; ++field)
            end = line.find(' ', end == 0 ? 0 : end + 1);
        out = line.substr(0, end);
    }
    copy_out(out, buf, kItemText);
    return 0;
}

// A line of /proc/meminfo, in kB. `which` 0: MemTotal, 1: MemFree.
int memory(uint32_t which, char *buf, uint32_t) {
    std::string value;
    std::string out;
    if (qorcfg::platform::read_key("/proc/meminfo", which == 0 ? "MemTotal" : "MemFree", ':',
                                   value))
        out = value.substr(0, value.find(' '));
    copy_out(out, buf, kItemText);
    return 0;
}

int hostname(uint32_t, char *buf, uint32_t) {
    std::string line;
    if (!qorcfg::platform::read_line("/proc/sys/kernel/hostname", line))
        line.clear();
    copy_out(line, buf, kItemText);
    return 0;
}

// The SoC's temperature in whole degrees Celsius (the zone reports
// thousandths).
int temperature(uint32_t zone, char *buf, uint32_t) {
    std::string line;
    std::string out;
    const std::string path = "/sys/class/thermal/thermal_zone" + std::to_string(zone) + "/temp";
    if (qorcfg::platform::read_line(path.c_str(), line) && !line.empty())
        out = std::to_string(std::strtol(line.c_str(), nullptr, 10) / 1000);
    copy_out(out, buf, kItemText);
    return 0;
}

// The hardware address of the LAN bridge.
int lan_mac(uint32_t, char *buf, uint32_t) {
    char ifname[kItemText] = "";
    get_lan_ifname(ifname);
    std::string line;
    const std::string path = std::string("/sys/class/net/") + ifname + "/address";
    if (!qorcfg::platform::read_line(path.c_str(), line))
        line.clear();
    copy_out(line, buf, kItemText);
    return 0;
}

// A getter that leaves an empty value when it fails (out of memory), so
// that nothing is thrown through a table of C functions.
template <int (*getter)(uint32_t, char *, uint32_t)>
int guarded(uint32_t arg, char *buf, uint32_t extra) noexcept {
    try {
        return getter(arg, buf, extra);
    } catch (...) {
        copy_out("", buf, kItemText);
        return 0;
    }
}

}  // namespace

extern "C" const qorcfg_sys_item sys_item_list[] = {
    {"uptime", 0, guarded<uptime>, 0},     {"load", 0, guarded<load>, 0},
    {"mem_total", 0, guarded<memory>, 0},  {"mem_free", 1, guarded<memory>, 0},
    {"hostname", 0, guarded<hostname>, 0}, {"temperature", 0, guarded<temperature>, 0},
    {"lan_mac", 0, guarded<lan_mac>, 0},   {nullptr, 0, nullptr, 0}};
