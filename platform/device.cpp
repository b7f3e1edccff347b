// platform/device.cpp - the groups and items of the sample access point.
//
// An enterprise 802.11ac access point: radio 1 at 2.4 GHz, radio 2 at
// 5 GHz, radio 3 a second 5 GHz radio for scanning and mesh backhaul, and
// the fourth radio slot of the group numbering, disabled. Group IDs follow
// the numbering the library computes with: system 0x08xxxxxx, network
// 0x10xxxxxx, management 0x18xxxxxx, radio r at 0x20800000 + r * 0x800000
// (its VAP v at + 0x84000 + v * 0x4000 with sub-groups at + 0x400, 0x800,
// 0xC00, 0x1000; WDS link k at + 0x100000 + k * 0x400; scan + 0x180000;
// mesh + 0x200000; repeater + 0x280000; WME + 0x300000), network access
// control 0x29xxxxxx, captive-portal policies 0x3004xxxx.
#include "platform/device.h"

namespace qorcfg::device {
namespace {

// ---- rules -----------------------------------------------------------------------

// Rules are POSIX extended expressions; \xHH stands for a printable
// character (so a rule can hold a literal '.' or quote).
const char *const kState = "^(enable|disable)$";
const char *const kName32 = "^[A-Za-z0-9_ \\x2e\\x2d]{1,32}$";
const char *const kText64 = "^[^<>\\x22\\x27]{0,64}$";
const char *const kText256 = "^[^<>]{0,256}$";
const char *const kSsid = "^[^\\x22\\x27]{1,32}$";
const char *const kPsk = "^([ -~]{8,63}|[0-9A-Fa-f]{64})$";
const char *const kSecret = "^[ -~]{1,64}$";
const char *const kUser = "^[a-z][a-z0-9_\\x2e\\x2d]{0,31}$";
const char *const kCountry = "^[A-Z]{2}$";
const char *const kUrl = "^(https?://)?[A-Za-z0-9\\x2e\\x2d]+(:[0-9]+)?(/[ -~]*)?$";
const char *const kRealm = "^[a-z0-9\\x2e\\x2d]{0,64}$";

Item item(const std::string &name, const std::string &value, const char *type, const char *rule,
          const char *desc) {
    return Item{name, value, type, rule, desc};
}
Item state(const std::string &value, const char *desc) {
    return item("state", value, "string", kState, desc);
}
Item integer(const std::string &name, int value, const char *range, const char *desc) {
    return item(name, std::to_string(value), "int", range, desc);
}

// `format` with each "%d" replaced by the next of the numbers.
std::string fmt(const char *format, int a, int b = 0) {
    std::string out;
    int next = 0;
    for (const char *p = format; *p != '\0'; ++p) {
        if (p[0] == '%' && p[1] == 'd') {
            out += std::to_string(next++ == 0 ? a : b);
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

// ---- the device ---------------------------------------------------------------------

class Builder {
public:
    std::vector<Group> groups;

    Group &add(uint32_t gid, std::string name, std::string path, std::vector<Item> items) {
        groups.push_back(Group{gid, std::move(name), std::move(path), std::move(items), {}});
        return groups.back();
    }

    void system() {
        add(0x08080000, "sys_device", "qorconfig.system.device",
            {item("name", "AP-Lab-01", "string", kName32, "Device name"),
             item("desc", "Enterprise dual-band access point", "string", kText256, "Description"),
             item("location", "Building 2, floor 3, lab", "string", kText256, "Location"),
             item("contact", "netops@example.com", "string", kText64, "Contact"),
             item("led", "enable", "string", kState, "Status LEDs")});
        add(0x08100000, "sys_time", "qorconfig.system.time",
            {item("timezone", "Europe/Amsterdam", "timezone", "", "Time zone"),
             state("enable", "Network time"),
             item("ntp1", "pool.ntp.org", "domain", "", "First time server"),
             item("ntp2", "time.example.com", "domain", "", "Second time server"),
             integer("interval", 24, "1~168", "Synchronisation interval (hours)"),
             item("date", "2026.01.01-00:00:00", "string",
                  "^[0-9]{4}[.][0-9]{2}[.][0-9]{2}[-][0-9]{2}:[0-9]{2}:[0-9]{2}$",
                  "Date and time set by hand")});
        add(0x08180000, "opmode", "qorconfig.system.opmode",
            {item("type", "AP", "string", "^(AP|CPE|GW|WDS)$", "Operation mode")});
        add(0x08200000, "auto_reboot", "qorconfig.system.reboot",
            {state("disable", "Scheduled reboot"),
             item("days", "sun", "string", "^(mon|tue|wed|thu|fri|sat|sun|daily)$", "Reboot day"),
             integer("hour", 3, "0~23", "Reboot hour")});
    }

    void network() {
        add(0x10080000, "wan", "qorconfig.network.wan",
            {item("proto", "dhcp", "string", "^(dhcp|static|pppoe)$", "Address protocol"),
             item("ip", "192.168.100.2", "ip", "", "Address"),
             item("mask", "255.255.255.0", "ip", "", "Network mask"),
             item("gateway", "192.168.100.1", "ip", "", "Default gateway"),
             item("dns1", "192.168.100.1", "ip", "", "First name server"),
             item("dns2", "8.8.8.8", "ip", "", "Second name server"),
             integer("mtu", 1500, "576~1500", "MTU")});
        add(0x10100000, "l2", "qorconfig.network.l2",
            {integer("mgmt_vlan", 1, "1~4094", "Management VLAN"),
             item("bridge", "br0", "string", "^br[0-9]$", "Bridge interface")});
        add(0x10100400, "l2_stp", "qorconfig.network.l2.stp",
            {state("disable", "Spanning tree"),
             integer("priority", 32768, "0~61440", "Bridge priority"),
             integer("hello", 2, "1~10", "Hello time (s)")});
        add(0x10100800, "l2_proxy_arp", "qorconfig.network.l2.proxy_arp",
            {state("disable", "Proxy ARP")});
        add(0x10100C00, "l2_igmp_snooping", "qorconfig.network.l2.igmp_snooping",
            {state("enable", "IGMP snooping"), integer("robustness", 2, "1~7", "Robustness")});
        add(0x10101000, "l2_port_trunk", "qorconfig.network.l2.port_trunk",
            {state("disable", "Port trunk"),
             item("mode", "active-backup", "string", "^(active-backup|802\\x2e3ad|balance-rr)$",
                  "Bonding mode")});
        Group &lan = add(0x10200000, "lan", "qorconfig.network.lan",
                         {item("ip", "192.168.1.1", "ip", "", "LAN address"),
                          item("mask", "255.255.255.0", "ip", "", "LAN mask"),
                          item("domain", "lan.example.com", "domain", "", "Local domain")});
        (void)lan;
        Group &dhcp = add(0x10200400, "lan_dhcp", "qorconfig.network.lan.dhcp",
                          {state("enable", "DHCP server"),
                           item("start", "192.168.1.100", "ip", "", "First address"),
                           item("end", "192.168.1.199", "ip", "", "Last address"),
                           integer("lease", 86400, "120~604800", "Lease time (s)")});
        dhcp.lists.push_back(List{"static",
                                  32,
                                  2,
                                  {item("mac", "00:1b:21:3a:4f:01", "mac", "", "Client"),
                                   item("ip", "192.168.1.10", "ip", "", "Fixed address"),
                                   item("name", "printer", "string", kName32, "Name")},
                                  {{}, {"00:1b:21:3a:4f:02", "192.168.1.11", "nas"}}});
        Group &url = add(0x10280400, "url_filter", "qorconfig.network.filter.url",
                         {state("disable", "URL filter")});
        url.lists.push_back(List{"rule",
                                 64,
                                 2,
                                 {item("pattern", "ads.example.net", "domain", "", "Blocked host"),
                                  state("enable", "Rule")},
                                 {{}, {"tracker.example.org", "enable"}}});
        add(0x10280800, "dmz", "qorconfig.network.filter.dmz",
            {state("disable", "DMZ host"), item("host", "192.168.1.50", "ip", "", "DMZ host")});
        add(0x10280c00, "redirect", "qorconfig.network.filter.redirect",
            {state("disable", "HTTP redirect"),
             item("url", "http://portal.example.com/", "string", kUrl, "Redirect target")});
        add(0x10300000, "upnp", "qorconfig.network.upnp", {state("disable", "UPnP")});
        add(0x10380000, "ddns", "qorconfig.network.ddns",
            {state("disable", "Dynamic DNS"),
             item("provider", "dyndns", "string", "^(dyndns|noip|custom)$", "Provider"),
             item("host", "ap-lab.example.net", "domain", "", "Host name"),
             item("user", "netops", "string", kUser, "Account"),
             item("password", "changeme", "string", kSecret, "Password")});
        Group &fw = add(0x10500000, "firewall", "qorconfig.network.firewall",
                        {state("enable", "Firewall"),
                         item("policy", "accept", "string", "^(accept|drop)$", "Default policy")});
        fw.lists.push_back(
            List{"rule",
                 64,
                 3,
                 {item("name", "allow-ssh", "string", kName32, "Rule name"),
                  item("action", "accept", "string", "^(accept|drop|reject)$", "Action"),
                  item("proto", "tcp", "string", "^(tcp|udp|icmp|any)$", "Protocol"),
                  item("src", "192.168.1.0", "ip", "", "Source network"),
                  integer("dport", 22, "0~65535", "Destination port")},
                 {{},
                  {"allow-https", "accept", "tcp", "192.168.1.0", "443"},
                  {"drop-telnet", "drop", "tcp", "0.0.0.0", "23"}}});
        add(0x10580000, "fw_service", "qorconfig.network.fw_service",
            {state("enable", "Firewall service")});
        add(0x10600000, "dai", "qorconfig.network.dai",
            {state("disable", "Dynamic ARP inspection"),
             item("vap_isolate", "disable", "string", kState, "Isolation between VAPs")});
        add(0x10680000, "wds_bond", "qorconfig.network.wds_bond",
            {item("wds_style", "bridge", "string", "^(bridge|bonding)$", "WDS link style"),
             integer("failover", 5, "1~60", "Failover time (s)")});
        add(0x10780000, "ipv6", "qorconfig.network.ipv6",
            {state("disable", "IPv6"),
             item("mode", "slaac", "string", "^(slaac|dhcpv6|static)$", "Address mode")});
        Group &vlan =
            add(0x29000000, "vlan", "qorconfig.network.vlan",
                {state("enable", "VLANs"), integer("native", 1, "1~4094", "Native VLAN")});
        vlan.lists.push_back(List{"entry",
                                  16,
                                  3,
                                  {integer("id", 1, "1~4094", "VLAN ID"),
                                   item("name", "default", "string", kName32, "Name")},
                                  {{}, {"10", "staff"}, {"20", "guest"}}});
    }

    // Network access control: RADIUS, client fingerprints, black lists,
    // address pass lists.
    void access() {
        add(0x29880000, "radius", "qorconfig.access.radius",
            {state("disable", "RADIUS accounting"),
             integer("interim", 600, "60~3600", "Interim interval (s)")});
        for (int k = 0; k < 4; ++k) {
            add(0x29888800u + static_cast<uint32_t>(k) * 0x4000u, fmt("radius_map%d", k + 1),
                fmt("qorconfig.access.radius.map:%d", k),
                {item("attribute", fmt("Filter-Id-%d", k + 1), "string", kName32, "Attribute"),
                 integer("vlan", 10 * (k + 1), "1~4094", "VLAN assigned")});
        }
        add(0x29898000, "ether_print", "qorconfig.access.ether_print",
            {state("disable", "Client fingerprinting"),
             integer("age", 3600, "60~86400", "Entry age (s)")});
        add(0x29898400, "ether_print_opt", "qorconfig.access.ether_print.option",
            {item("dhcp", "enable", "string", kState, "Use DHCP options"),
             item("http", "disable", "string", kState, "Use HTTP user agent")});
        for (int k = 0; k < 10; ++k) {
            add(0x29984000u + static_cast<uint32_t>(k) * 0x400u, fmt("ether_rule%d", k + 1),
                fmt("qorconfig.access.ether_rules.rule:%d", k),
                {state(k < 2 ? "enable" : "disable", "Rule"),
                 item("class",
                      k == 0   ? "phone"
                      : k == 1 ? "laptop"
                               : "any",
                      "string", "^(any|phone|laptop|tablet|iot|printer)$", "Client class"),
                 integer("vlan", k < 2 ? 10 : 1, "1~4094", "VLAN for the class")});
        }
        for (int k = 0; k < 6; ++k) {
            Group &bl = add(0x29a84000u + static_cast<uint32_t>(k) * 0x400u,
                            fmt("blacklist%d", k + 1), fmt("qorconfig.access.blacklist.list:%d", k),
                            {state("disable", "Black list"),
                             item("name", fmt("list%d", k + 1), "string", kName32, "Name")});
            bl.lists.push_back(
                List{"mac", 32, 1, {item("addr", "00:00:00:00:00:00", "mac", "", "Address")}, {}});
        }
        Group &ip = add(0x29b04000, "ip_pass", "qorconfig.access.ip_pass",
                        {state("disable", "Address pass list")});
        ip.lists.push_back(
            List{"host", 32, 1, {item("addr", "192.168.1.2", "ip", "", "Address")}, {}});
        Group &mac = add(0x29b08000, "mac_pass", "qorconfig.access.mac_pass",
                         {state("disable", "MAC pass list")});
        mac.lists.push_back(
            List{"host", 32, 1, {item("addr", "00:1b:21:3a:4f:03", "mac", "", "Address")}, {}});
    }

    void mgmt() {
        Group &acc = add(0x18080000, "mgmt_accounts", "qorconfig.mgmt.accounts", {});
        acc.lists.push_back(
            List{"account",
                 8,
                 2,
                 {item("user", "admin", "string", kUser, "User"),
                  item("password", "admin", "string", kSecret, "Password"),
                  item("group", "admin", "string", "^(admin|operator|guest)$", "User group")},
                 {{}, {"operator", "operator", "operator"}}});
        add(0x18080400, "mgmt_session", "qorconfig.mgmt.accounts.session",
            {integer("timeout", 600, "60~86400", "Session timeout (s)"),
             integer("retries", 5, "1~10", "Failed logins before lock-out")});
        add(0x18080800, "mgmt_password", "qorconfig.mgmt.accounts.password",
            {integer("min_len", 8, "4~32", "Minimum password length"),
             item("complex", "enable", "string", kState, "Require mixed characters")});
        add(0x18100000, "syslog", "qorconfig.mgmt.syslog",
            {state("enable", "System log"), integer("level", 6, "0~7", "Log level")});
        add(0x18180000, "rmt_srv", "qorconfig.mgmt.remote",
            {item("ssh", "enable", "string", kState, "SSH"),
             item("telnet", "disable", "string", kState, "Telnet")});
        Group &snmp = add(0x18180400, "snmp", "qorconfig.mgmt.remote.snmp",
                          {state("enable", "SNMP agent"),
                           item("version", "v2c", "string", "^(v1|v2c|v3)$", "Version"),
                           item("sys_contact", "netops@example.com", "string", kText64, "Contact"),
                           integer("port", 161, "1~65535", "Port")});
        snmp.lists.push_back(List{"community",
                                  4,
                                  2,
                                  {item("name", "public", "string", kName32, "Community"),
                                   item("access", "ro", "string", "^(ro|rw)$", "Access")},
                                  {{}, {"private", "rw"}}});
        add(0x18180800, "http", "qorconfig.mgmt.remote.http",
            {item("http", "enable", "string", kState, "HTTP"),
             item("https", "enable", "string", kState, "HTTPS"),
             integer("http_port", 80, "1~65535", "HTTP port"),
             integer("https_port", 443, "1~65535", "HTTPS port")});
        add(0x18200000, "rmt_acc", "qorconfig.mgmt.access",
            {state("disable", "Restrict management access"),
             item("network", "192.168.1.0", "ip", "", "Allowed network"),
             item("mask", "255.255.255.0", "ip", "", "Allowed mask")});
        add(0x18280000, "agent", "qorconfig.mgmt.agent",
            {state("disable", "Controller agent"),
             item("controller", "controller.example.com", "domain", "", "Controller"),
             integer("port", 8443, "1~65535", "Port")});
        add(0x18300000, "log_server", "qorconfig.mgmt.logging",
            {state("disable", "Remote log"),
             item("server", "192.168.1.5", "ip", "", "Log server")});
        add(0x18300400, "log_remote", "qorconfig.mgmt.logging.remote",
            {integer("port", 514, "1~65535", "Port"),
             item("proto", "udp", "string", "^(udp|tcp)$", "Protocol")});
        add(0x18380000, "alert", "qorconfig.mgmt.alert", {state("disable", "Alerts")});
        add(0x18380400, "alert_mail", "qorconfig.mgmt.alert.mail",
            {item("server", "smtp.example.com", "domain", "", "Mail server"),
             item("to", "netops@example.com", "string", kText64, "Recipient")});
        add(0x18500000, "smtp_redirect", "qorconfig.mgmt.smtp_redirect",
            {state("disable", "SMTP redirect"),
             item("server", "192.168.1.25", "ip", "", "Mail relay")});
        add(0x18580000, "mgmt_ip", "qorconfig.mgmt.ip",
            {item("ip", "192.168.1.2", "ip", "", "Management address"),
             item("mask", "255.255.255.0", "ip", "", "Management mask")});
        add(0x18600000, "wes", "qorconfig.mgmt.wes",
            {state("disable", "Web services"), integer("port", 8080, "1~65535", "Port")});
        add(0x18680000, "mgmt_vlan", "qorconfig.mgmt.vlan",
            {state("disable", "Management VLAN"), integer("id", 1, "1~4094", "VLAN ID")});
        add(0x18780000, "debug", "qorconfig.mgmt.debug",
            {state("disable", "Debug log"), integer("level", 0, "0~3", "Debug level")});
    }

    // Captive portal: per-VLAN policies and the authentication servers.
    void portal() {
        for (int n = 0; n <= 16; ++n) {
            uint32_t base = 0x30042800u + static_cast<uint32_t>(n) * 0x2000u;
            std::vector<Item> items = {
                integer("defauth", 0, "0~4", "Default authentication server"),
                integer("session_limit", 0, "0~1024", "Sessions per client (0: none)")};
            for (int s = 0; s < 5; ++s) {
                items.push_back(item(fmt("auth%d", s), s == 0 ? "0" : "disable", "string",
                                     "^(disable|[0-4])$", "Server index, or disable"));
            }
            add(base, fmt("vlan%d_policy", n), fmt("qorconfig.portal.vlan:%d", n), items);
            add(base + 0x400u, fmt("vlan%d_portal", n), fmt("qorconfig.portal.vlan:%d.page", n),
                {state("disable", "Captive portal"),
                 item("url", "http://portal.example.com/login", "string", kUrl, "Login page")});
        }
        for (int s = 0; s < 5; ++s) {
            add(0x30041000u + static_cast<uint32_t>(s) * 0x400u, fmt("auth%d", s),
                fmt("qorconfig.portal.auth:%d", s),
                {item("postfix", s == 0 ? "example.com" : fmt("realm%d.example.com", s), "string",
                      kRealm, "Realm of the server"),
                 integer("idx", s, "0~4", "Server index"),
                 item("server", fmt("10.0.0.%d", 10 + s), "ip", "", "Server address"),
                 integer("port", 1812, "1~65535", "Port"),
                 item("secret", "radius-secret", "string", kSecret, "Shared secret")});
        }
    }

    void radios() {
        for (int r = 0; r < kRadios; ++r)
            radio(r);
    }

private:
    void radio(int r) {
        const bool five = r != 0;
        const bool present = r < 3;
        const std::string rf = fmt("rf%d", r + 1);
        const std::string path = "qorconfig.wlan." + rf;
        const uint32_t base = radio_base(r);
        add(base, rf, path,
            {state(r < 2 ? "enable" : "disable", "Radio"),
             // The band check knows the modes up to 11n from the channel
             // lists; the 5 GHz radios' rule adds 11ac.
             item("mode", five ? "11ac" : "11ng", "band", five ? "^(11a|11na|11ac)$" : "",
                  "Wireless mode"),
             item("channel",
                  r == 0   ? "6"
                  : r == 1 ? "36"
                           : "auto",
                  "channel", "", "Channel"),
             item("country", "US", "string", kCountry, "Country"),
             item("roles", "ap", "string", "^(ap|wds|rep|ap,wds|ap,rep|ap,wds,rep)$", "Roles"),
             item("outdoor_use", "disable", "string", kState, "Outdoor use"),
             item("txpower", "Auto", "string", "^(Auto|Highest|High|Medium|Low|Lowest)$",
                  "Transmit power"),
             item("bandwidth", five ? "80" : "20", "string", "^(20|40|80)$", "Channel width (MHz)"),
             integer("beacon", 100, "20~1000", "Beacon interval (TU)"),
             integer("dtim", 1, "1~255", "DTIM period"),
             integer("max_sta", 128, "1~256", "Clients per radio")});
        if (!present) {  // the fourth slot: what the numbering provides for
            for (int v = 0; v < 4; ++v)
                vap(r, v, false);
            for (int k = 0; k < kWdsLinks; ++k)
                wds(r, k);
            scan(r);
            return;
        }
        for (int v = 0; v < kVaps; ++v)
            vap(r, v, true);
        for (int k = 0; k < kWdsLinks; ++k)
            wds(r, k);
        scan(r);
        add(base + 0x200000u, rf + "_mesh", path + ".mesh",
            {state("disable", "Mesh"), item("mesh_id", "lab-mesh", "string", kName32, "Mesh ID"),
             item("role", "node", "string", "^(portal|node)$", "Mesh role")});
        add(base + 0x204000u, rf + "_mesh_link", path + ".mesh.link",
            {integer("rssi_min", -75, "-95~-1", "Weakest usable link (dBm)"),
             integer("hops", 3, "1~8", "Hops at most")});
        if (r == 0) {
            add(base + 0x204400u, rf + "_mesh_security", path + ".mesh.security",
                {item("psk", "mesh-passphrase", "string", kPsk, "Mesh key")});
        }
        add(base + 0x280000u, rf + "_rep", path + ".rep",
            {state("disable", "Repeater"),
             item("uplink", "Lab-Corp", "string", kSsid, "Uplink network")});
        add(base + 0x284000u, rf + "_rep_profile", path + ".rep.profile",
            {item("security", "wpa2-psk", "string", "^(none|wpa2-psk|wpa-mixed)$",
                  "Uplink security"),
             item("psk", "uplink-passphrase", "string", kPsk, "Uplink key")});
        static const char *const kAc[4] = {"be", "bk", "vi", "vo"};
        static const int kCwmin[4] = {4, 4, 3, 2};
        static const int kCwmax[4] = {6, 10, 4, 3};
        static const int kAifs[4] = {3, 7, 2, 2};
        for (int a = 0; a < 4; ++a) {
            add(base + 0x300000u + static_cast<uint32_t>(a) * 0x400u, rf + "_wme_" + kAc[a],
                path + fmt(".wme:%d", a),
                {item("ac", kAc[a], "string", "^(be|bk|vi|vo)$", "Access category"),
                 integer("cwmin", kCwmin[a], "0~15", "CWmin exponent"),
                 integer("cwmax", kCwmax[a], "0~15", "CWmax exponent"),
                 integer("aifs", kAifs[a], "1~15", "AIFS"),
                 integer("txop", a >= 2 ? 94 : 0, "0~255", "TXOP limit")});
        }
    }

    void vap(int r, int v, bool full) {
        const std::string name = fmt("rf%d_vap%d", r + 1, v + 1);
        const std::string path = fmt("qorconfig.wlan.rf%d.vap:%d", r + 1, v);
        const uint32_t gid = vap_gid(r, v);
        // Two networks on both bands (paired for band steering), guest on
        // 2.4 GHz only; the rest configured but off.
        const bool on = r < 2 && v < 2;
        const char *ssid = v == 0 ? "Lab-Corp" : v == 1 ? "Lab-Guest" : nullptr;
        add(gid, name, path,
            {state(on ? "enable" : "disable", "VAP"),
             item("ssid", ssid != nullptr ? ssid : fmt("rf%d-vap%d", r + 1, v + 1), "string", kSsid,
                  "Network name"),
             item("hidden", "0", "int", "0~1", "Hide the network name"),
             integer("vlan", v == 1 ? 20 : 10, "1~4094", "VLAN"),
             integer("max_sta", 64, "1~128", "Clients at most"),
             item("band_steer", on && v == 0 ? "enable" : "disable", "string", kState,
                  "Band steering"),
             item("sta_isolate", v == 1 ? "enable" : "disable", "string", kState,
                  "Client isolation"),
             item("wmm", "enable", "string", kState, "WMM"),
             integer("rate_limit", 0, "0~1000", "Per-client rate limit (Mb/s, 0: none)")});
        Group &acl =
            add(gid + 0x400u, name + "_macacl", path + ".macacl",
                {item("policy", "disable", "string", "^(disable|allow|deny)$", "MAC access list")});
        acl.lists.push_back(List{"entry",
                                 32,
                                 2,
                                 {item("mac", "00:1b:21:3a:4f:10", "mac", "", "Client address"),
                                  item("note", "lab laptop", "string", kText64, "Note")},
                                 {{}, {"00:1b:21:3a:4f:11", "lab phone"}}});
        add(gid + 0x800u, name + "_security", path + ".security",
            {item("mode", v == 1 ? "wpa2-psk" : "wpa2-eap", "string",
                  "^(none|wep|wpa-psk|wpa2-psk|wpa-mixed|wpa2-eap|wpa3-sae)$", "Security"),
             item("cipher", "aes", "string", "^(aes|tkip|auto)$", "Cipher"),
             item("psk", "guest-passphrase", "string", kPsk, "Passphrase"),
             integer("rekey", 3600, "0~86400", "Group key interval (s)"),
             item("radius", "10.0.0.10", "ip", "", "RADIUS server"),
             integer("radius_port", 1812, "1~65535", "RADIUS port"),
             item("radius_secret", "radius-secret", "string", kSecret, "RADIUS secret")});
        add(gid + 0xC00u, name + "_iapp", path + ".iapp",
            {state("disable", "Fast roaming (802.11r)"),
             item("domain", "a1b2", "string", "^[0-9a-f]{4}$", "Mobility domain")});
        if (full) {
            add(gid + 0x1000u, name + "_wps", path + ".wps",
                {state("disable", "Wi-Fi Protected Setup"),
                 item("pin", "12345670", "string", "^[0-9]{8}$", "Device PIN")});
        }
    }

    void wds(int r, int k) {
        add(wds_gid(r, k), fmt("rf%d_wds%d", r + 1, k + 1),
            fmt("qorconfig.wlan.rf%d.wds:%d", r + 1, k),
            {state("disable", "WDS link"),
             item("peer", "00:00:00:00:00:00", "mac", "", "Peer address"),
             item("ssid", "Lab-Backhaul", "string", kSsid, "Link network name"),
             item("security", "wpa2-psk", "string", "^(none|wpa2-psk)$", "Link security"),
             item("psk", "backhaul-passphrase", "string", kPsk, "Link key"),
             integer("rssi_min", -80, "-95~-1", "Weakest usable signal (dBm)")});
    }

    void scan(int r) {
        add(radio_base(r) + 0x180000u, fmt("rf%d_scan", r + 1),
            fmt("qorconfig.wlan.rf%d.scan", r + 1),
            {state(r == 2 ? "enable" : "disable", "Background scan"),
             integer("interval", 300, "10~86400", "Scan interval (s)"),
             item("channels", "", "string", "^[0-9 ,-]*$", "Channels to scan (empty: all)")});
    }
};

std::vector<Group> build() {
    Builder b;
    b.system();
    b.network();
    b.access();
    b.mgmt();
    b.portal();
    b.radios();
    return std::move(b.groups);
}

}  // namespace

const std::vector<Group> &groups() {
    static const std::vector<Group> all = build();
    return all;
}

const std::vector<Item> &root_items() {
    static const std::vector<Item> items = {
        item("version", "1.10.01", "restricted", "", "Configuration version"),
        item("devtype", "AP", "restricted", "", "Device type")};
    return items;
}

}  // namespace qorcfg::device
