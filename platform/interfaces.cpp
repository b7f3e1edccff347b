// platform/interfaces.cpp - interface names and WDS link figures of the
// sample device, from its /sys and /proc files.
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/root.h"
#include "store/platform.h"

namespace {

using qorcfg::platform::copy_out;

// Kinds of interface of get_ifname_by_idx.
constexpr int kWdsLink = 2;
constexpr int kLinkText = 64;

// "/proc/wds/<ifname>": one "key=value" line per figure of the link.
int link_figure(const char *ifname, const char *key, char *buf) {
    if (ifname == nullptr || buf == nullptr || std::strchr(ifname, '/') != nullptr)
        return 0;
    std::string path = std::string("/proc/wds/") + ifname;
    std::string value;
    if (!qorcfg::platform::read_key(path.c_str(), key, '=', value))
        return 0;
    copy_out(value, buf, kLinkText);
    return 1;
}

}  // namespace

extern "C" {

int get_lan_ifname(char *ifname) {
    if (ifname != nullptr)
        std::strcpy(ifname, "br0");
    return 0;
}

int get_ifname_by_idx(int kind, int radio, int link, char *name) {
    if (kind != kWdsLink || radio < 0 || radio > 2 || link < 0 || link > 7 || name == nullptr)
        return 0;
    std::snprintf(name, 16, "ath%dwds%d", radio, link);
    return 1;
}

int isWDSLinkAlive(const char *ifname) {
    if (ifname == nullptr || std::strchr(ifname, '/') != nullptr)
        return 0;
    std::string state;
    if (!qorcfg::platform::read_line(
            ("/sys/class/net/" + std::string(ifname) + "/operstate").c_str(), state))
        return 0;
    if (state == "up")
        return 1;
    if (state == "dormant")
        return 2;
    return 0;
}

int getWDSLinkTxRate(const char *ifname, char *buf) {
    return link_figure(ifname, "tx_rate", buf);
}
int getWDSLinkQuality(const char *ifname, char *buf) {
    return link_figure(ifname, "quality", buf);
}
int getWDSLinkHealth(const char *ifname, char *buf) {
    return link_figure(ifname, "health", buf);
}
int getWDSLinkTxTotal(const char *ifname, char *buf) {
    return link_figure(ifname, "tx_total", buf);
}
int getWDSLinkTxFail(const char *ifname, char *buf) {
    return link_figure(ifname, "tx_fail", buf);
}

}  // extern "C"
