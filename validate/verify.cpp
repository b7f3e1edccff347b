// validate/verify.cpp - verification of a whole group's items before they
// are written: the verification function of each group family, chosen by
// the group ID of the list's first item from a table.
//
// Only the device identity has checks of its own; the other functions
// accept, and are where per-group checks go.
#include <array>
#include <cstdint>
#include <cstring>

#include "qorcfg.h"

namespace qorcfg::validate {
namespace {

using Verifier = int (*)(const qorcfg_item *);

struct Route {
    uint32_t gid;
    Verifier verify;
};

// The radios' first group IDs' upper halves, and the VAP and WDS groups of
// each: VAP k (1..4) at (radio << 16) + k * 0x4000 with its MAC list,
// security and IAPP groups 0x400 apart; WDS link k (1..8) at
// (wds << 16) + k * 0x400.
constexpr uint32_t kRadios[] = {0x2080, 0x2100, 0x2180, 0x2200};
constexpr uint32_t kVapBases[] = {0x2088, 0x2108, 0x2188, 0x2208};
constexpr uint32_t kScanBases[] = {0x2098, 0x2118, 0x2198, 0x2218};
constexpr uint32_t kWdsBases[] = {0x2090, 0x2110, 0x2190, 0x2210};
constexpr int kVaps = 4;
constexpr int kWdsLinks = 8;

constexpr Route kFixed[] = {
    {0x08080000, verifySystemDevice},
    {0x08100000, verifySystemSystime},
    {0x10080000, verifyNetworkWan_ip},
    {0x10100000, verifyNetworkL2},
    {0x10100400, verifyNetworkL2Stp},
    {0x10100800, verifyNetworkL2Proxy_arp},
    {0x10100C00, verifyNetworkL2Igmp_snooping},
    {0x10101000, verifyNetworkL2Port_trunk},
    {0x29000000, verifyNetworkVlan},
    {0x18080000, verifyMgmtAccounts},
    {0x18100000, verifyMgmtSyslog},
    {0x18180000, verifyMgmtRmt_srv},
    {0x18180400, verifyMgmtSnmp},
    {0x18180800, verifyMgmtRmt_srvHttp},
    {0x18200000, verifyMgmtRmt_acc},
};

constexpr size_t kRoutes = std::size(kFixed) + std::size(kRadios) * (2 + kVaps * 4 + kWdsLinks);

// Every group ID with its verification function.
constexpr std::array<Route, kRoutes> kRouteTable = [] {
    std::array<Route, kRoutes> table{};
    size_t n = 0;
    for (const Route &route : kFixed)
        table[n++] = route;
    for (size_t r = 0; r < std::size(kRadios); ++r) {
        table[n++] = {kRadios[r] << 16, verifyWlanRfcard};
        table[n++] = {kScanBases[r] << 16, verifyWlanScan};
        for (uint32_t k = 1; k <= kVaps; ++k) {
            const uint32_t vap = (kVapBases[r] << 16) + k * 0x4000;
            table[n++] = {vap, verifyWlanRfcardVap};
            table[n++] = {vap + 0x400, verifyWlanRfcardVapMacAcl};
            table[n++] = {vap + 0x800, verifyWlanRfcardVapSecurity};
            table[n++] = {vap + 0xC00, verifyWlanRfcardVapIapp};
        }
        for (uint32_t k = 1; k <= kWdsLinks; ++k)
            table[n++] = {(kWdsBases[r] << 16) + k * 0x400, verifyWlanRfcardWds};
    }
    return table;
}();
static_assert(kRouteTable.back().gid == 0x22102000);

constexpr size_t kNameMax = 32;
constexpr size_t kTextMax = 256;

}  // namespace
}  // namespace qorcfg::validate

using namespace qorcfg::validate;

extern "C" {

QORCFG_API int validate_input(const qorcfg_item *items) {
    if (items == nullptr)
        return QORCFG_ERR_ITEM;
    const auto gid = static_cast<uint32_t>(items->gid);
    for (const Route &route : kRouteTable) {
        if (route.gid == gid)
            return route.verify(items);
    }
    return QORCFG_ERR_GROUP;
}

QORCFG_API int verifySystemDevice(const qorcfg_item *items) {
    for (const qorcfg_item *item = items; item != nullptr; item = item->next) {
        const char *name = item->name != nullptr ? item->name : "";
        const size_t length = item->value != nullptr ? std::strlen(item->value) : 0;
        size_t limit = 0;
        if (std::strcmp(name, "name") == 0)
            limit = kNameMax;
        else if (std::strcmp(name, "desc") == 0 || std::strcmp(name, "location") == 0)
            limit = kTextMax;
        else {
            qorcfg_print("<error>Invalid item %s\n", name);
            return QORCFG_ERR_ITEM;
        }
        if (length > limit)
            return QORCFG_ERR_TOOLONG;
    }
    return QORCFG_OK;
}

// The groups without checks of their own.
#define QORCFG_ACCEPTS(name)                   \
    QORCFG_API int name(const qorcfg_item *) { \
        return QORCFG_OK;                      \
    }
QORCFG_ACCEPTS(verifySystemSystime)
QORCFG_ACCEPTS(verifyNetworkWan_ip)
QORCFG_ACCEPTS(verifyNetworkL2)
QORCFG_ACCEPTS(verifyNetworkL2Stp)
QORCFG_ACCEPTS(verifyNetworkL2Proxy_arp)
QORCFG_ACCEPTS(verifyNetworkL2Igmp_snooping)
QORCFG_ACCEPTS(verifyNetworkL2Port_trunk)
QORCFG_ACCEPTS(verifyNetworkVlan)
QORCFG_ACCEPTS(verifyMgmtAccounts)
QORCFG_ACCEPTS(verifyMgmtSyslog)
QORCFG_ACCEPTS(verifyMgmtRmt_srv)
QORCFG_ACCEPTS(verifyMgmtSnmp)
QORCFG_ACCEPTS(verifyMgmtRmt_srvHttp)
QORCFG_ACCEPTS(verifyMgmtRmt_acc)
QORCFG_ACCEPTS(verifyWlanRfcard)
QORCFG_ACCEPTS(verifyWlanScan)
QORCFG_ACCEPTS(verifyWlanRfcardVap)
QORCFG_ACCEPTS(verifyWlanRfcardVapMacAcl)
QORCFG_ACCEPTS(verifyWlanRfcardVapSecurity)
QORCFG_ACCEPTS(verifyWlanRfcardVapIapp)
QORCFG_ACCEPTS(verifyWlanRfcardWds)
QORCFG_ACCEPTS(verifyWlanMacacl)
#undef QORCFG_ACCEPTS

}  // extern "C"
