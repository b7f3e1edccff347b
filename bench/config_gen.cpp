// bench/config_gen.cpp - the configuration generator and the random item
// picker of the benchmarks (see config_gen.h).
#include "bench/config_gen.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <initializer_list>
#include <string_view>
#include <utility>

namespace qorcfg::bench {

namespace {

// splitmix64: fully specified, so documents are the same with every
// standard library (the <random> distributions are not).
class Rng {
public:
    explicit Rng(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    // Uniform in [0, n); n > 0.
    std::uint32_t below(std::uint32_t n) {
        return static_cast<std::uint32_t>(((next() >> 32) * n) >> 32);
    }
    // Uniform in [lo, hi].
    int range(int lo, int hi) {
        return lo + static_cast<int>(below(static_cast<std::uint32_t>(hi - lo + 1)));
    }
    bool percent(std::uint32_t p) { return below(100) < p; }
    template <typename T, std::size_t N>
    const T &pick(const std::array<T, N> &items) {
        return items[below(static_cast<std::uint32_t>(N))];
    }

private:
    std::uint64_t state_;
};

using Words = std::array<std::string_view, 8>;

constexpr Words kSites = {"HQ", "Lab", "Store", "Depot", "Campus", "Clinic", "Hotel", "School"};
constexpr Words kRooms = {"Lobby", "Hall", "Office", "Cafe", "Floor", "Wing", "Annex", "Deck"};
constexpr Words kOwners = {"Sales", "R&D", "Guest", "Staff", "IoT", "Voice", "Admin", "Ops"};
constexpr Words kHosts = {"laptop", "phone",  "printer", "camera",
                          "tablet", "sensor", "tv",      "kiosk"};
constexpr Words kServices = {"ssh", "http", "https", "dns", "ntp", "snmp", "smtp", "rdp"};
constexpr std::array<std::string_view, 6> kOuis = {"00:0c:43", "00:1a:2b", "d8:3a:dd",
                                                   "f0:9f:c2", "3c:84:6a", "ac:de:48"};
constexpr std::string_view kKeyChars =
    "abcdefghijkmnopqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789!#%*+-=_.@&<";

std::string num(long v) {
    return std::to_string(v);
}

std::string hex2(std::uint32_t v) {
    constexpr std::string_view digits = "0123456789abcdef";
    return {digits[(v >> 4) & 15], digits[v & 15]};
}

std::string mac(Rng &rng) {
    std::string m(rng.pick(kOuis));
    for (int i = 0; i < 3; ++i) {
        m += ':';
        m += hex2(rng.below(256));
    }
    return m;
}

std::string ip(int a, int b, int c, int d) {
    return num(a) + "." + num(b) + "." + num(c) + "." + num(d);
}

std::string key(Rng &rng, int len) {
    std::string k;
    for (int i = 0; i < len; ++i) {
        k += kKeyChars[rng.below(static_cast<std::uint32_t>(kKeyChars.size()))];
    }
    return k;
}

// An SSID of 3..32 characters; about one in six needs escaping. (Random
// draws go into named variables one statement at a time: the operands of one
// expression are evaluated in an unspecified order.)
std::string ssid(Rng &rng, int radio, int vap) {
    const std::uint32_t form = rng.below(12);
    const std::string site(rng.pick(kSites));
    const std::string owner(rng.pick(kOwners));
    switch (form) {
        case 0:
            return owner + " & " + site;
        case 1:
            return "\"" + site + "\" <" + num(vap) + ">";
        default:
            return site + "-" + owner + "-" + (radio == 1 ? "2G" : "5G") + "-" + num(vap);
    }
}

// Where each list gets its length: the fixed minimum plus a share that
// grows linearly with the scale k. The per-VAP MAC ACL weights come from the
// seed alone, so documents of one seed differ only in list lengths.
struct Counts {
    std::array<int, kRadios * kVapsPerRadio> macacl{};
    int pool = 0;
    int vlan = 0;
    int firewall = 0;
    int accounts = 0;
    int communities = 0;
};

Counts counts_for(double k, std::uint32_t seed) {
    Rng rng(seed ^ 0xA5A5F00DULL);
    auto grow = [k](int base, double per_k) {
        return base + static_cast<int>(std::lround(k * per_k));
    };
    Counts c;
    for (int &n : c.macacl) {
        double weight = 1.0 + static_cast<double>(rng.below(3000)) / 1000.0;  // 1..4 entries per k
        n = grow(static_cast<int>(rng.below(3)), weight);
    }
    c.pool = grow(1, 3);
    c.vlan = grow(2, 3);
    c.firewall = grow(2, 6);
    c.accounts = grow(2, 1);
    c.communities = grow(2, 0.5);
    return c;
}

// One attribute: its name and its raw (unescaped) value.
struct Attr {
    std::string_view name;
    std::string value;
};

// Writes indented markup: one element per line, two spaces per level.
class Writer {
public:
    explicit Writer(std::string &out) : out_(out) {}

    void open(std::string_view name, std::initializer_list<Attr> attrs) {
        start(name, attrs);
        out_ += ">\n";
        ++depth_;
    }
    void leaf(std::string_view name, std::initializer_list<Attr> attrs) {
        start(name, attrs);
        out_ += "/>\n";
    }
    void close(std::string_view name) {
        --depth_;
        out_.append(static_cast<std::size_t>(depth_) * 2, ' ');
        out_ += "</";
        out_ += name;
        out_ += ">\n";
    }

private:
    void start(std::string_view name, std::initializer_list<Attr> attrs) {
        out_.append(static_cast<std::size_t>(depth_) * 2, ' ');
        out_ += '<';
        out_ += name;
        for (const Attr &a : attrs) {
            out_ += ' ';
            out_ += a.name;
            out_ += "=\"";
            escape(a.value);
            out_ += '"';
        }
    }
    void escape(std::string_view v) {
        for (char ch : v) {
            switch (ch) {
                case '&':
                    out_ += "&amp;";
                    break;
                case '<':
                    out_ += "&lt;";
                    break;
                case '>':
                    out_ += "&gt;";
                    break;
                case '"':
                    out_ += "&quot;";
                    break;
                default:
                    out_ += ch;
            }
        }
    }

    std::string &out_;
    int depth_ = 0;
};

std::string onoff(Rng &rng, std::uint32_t percent_on) {
    return rng.percent(percent_on) ? "1" : "0";
}

void write_system(Writer &w, Rng &rng) {
    const std::string site(rng.pick(kSites));
    const char building = static_cast<char>('A' + rng.below(6));
    const std::string room(rng.pick(kRooms));
    const int floor = rng.range(1, 12);
    w.open("system", {});
    w.leaf("device",
           {{"name", "AP-" + site + "-" + num(rng.range(1, 99))},
            {"location", std::string("Building ") + building + " & " + room + " " + num(floor)},
            {"description",
             "Ceiling AP <" + site + "> serving \"" + std::string(rng.pick(kOwners)) + "\" users"},
            {"contact", "netops@" + site + ".example.net"},
            {"model", "QAP-3300"},
            {"hwver", "B" + num(rng.range(1, 3))}});
    w.open("time", {{"zone", "UTC+0" + num(rng.range(0, 9)) + ":00"},
                    {"dst", onoff(rng, 50)},
                    {"ntp", "1"},
                    {"interval", num(3600 * rng.range(1, 24))}});
    w.open("ntp", {{"max", "4"}, {"cur_num", "3"}});
    for (int i = 0; i < 3; ++i) {
        w.leaf("server", {{"addr", num(i) + ".pool.ntp.org"}, {"prio", num(i + 1)}});
    }
    w.close("ntp");
    w.close("time");
    w.leaf("opmode", {{"type", rng.percent(80) ? "ap" : "repeater"},
                      {"mgmt_vlan", num(rng.range(1, 10))},
                      {"controller", onoff(rng, 30)},
                      {"cluster", "cluster-" + site}});
    w.leaf("led", {{"state", onoff(rng, 80)}, {"mode", "normal"}});
    w.close("system");
}

void write_network(Writer &w, Rng &rng, const Counts &c) {
    int net = rng.range(1, 250);
    w.open("network", {});
    w.open("lan", {{"ip", ip(10, net, 0, 2)},
                   {"mask", "255.255.0.0"},
                   {"gateway", ip(10, net, 0, 1)},
                   {"proto", rng.percent(70) ? "static" : "dhcp"},
                   {"mtu", "1500"},
                   {"hostname", "ap" + num(net)}});
    w.open("dhcp_server", {{"state", onoff(rng, 40)},
                           {"start", ip(10, net, 1, 1)},
                           {"end", ip(10, net, 255, 254)},
                           {"lease", num(3600 * rng.range(1, 48))},
                           {"dns1", ip(10, net, 0, 1)},
                           {"dns2", "9.9.9.9"}});
    w.open("pool", {{"max", num(std::max(512, c.pool))}, {"cur_num", num(c.pool)}});
    for (int i = 0; i < c.pool; ++i) {
        w.leaf("entry", {{"mac", mac(rng)},
                         {"ip", ip(10, net, 2 + i / 250 % 250, 1 + i % 250)},
                         {"name", std::string(rng.pick(kHosts)) + "-" + num(i)},
                         {"lease", num(600 * rng.range(1, 144))}});
    }
    w.close("pool");
    w.close("dhcp_server");
    w.close("lan");
    w.leaf("wan", {{"proto", "dhcp"},
                   {"ip", "0.0.0.0"},
                   {"mask", "0.0.0.0"},
                   {"mtu", "1500"},
                   {"pppoe_user", "user" + num(rng.range(100, 999))},
                   {"pppoe_pass", key(rng, 12)}});
    w.open("l2", {});
    w.leaf("stp", {{"state", onoff(rng, 50)},
                   {"priority", num(4096 * rng.range(0, 15))},
                   {"hello", "2"},
                   {"max_age", "20"},
                   {"fwd_delay", "15"}});
    w.leaf("igmp_snooping", {{"state", onoff(rng, 60)}, {"version", "2"}, {"fast_leave", "1"}});
    w.leaf("proxy_arp", {{"state", onoff(rng, 30)}});
    w.close("l2");
    w.open("vlan",
           {{"state", "1"}, {"max", num(std::max(4094, c.vlan))}, {"cur_num", num(c.vlan)}});
    for (int i = 0; i < c.vlan; ++i) {
        w.leaf("entry", {{"id", num(1 + (i * 7) % 4094)},
                         {"name", std::string(rng.pick(kOwners)) + "_" + num(i)},
                         {"ports", "lan0,ath" + num(rng.range(0, 47))},
                         {"tagged", onoff(rng, 70)},
                         {"prio", num(rng.range(0, 7))}});
    }
    w.close("vlan");
    w.open("firewall", {{"state", "1"},
                        {"policy", "accept"},
                        {"max", num(std::max(256, c.firewall))},
                        {"cur_num", num(c.firewall)}});
    for (int i = 0; i < c.firewall; ++i) {
        const std::string svc(rng.pick(kServices));
        const int dst_net = rng.range(0, 255);
        const int dst_host = rng.range(1, 254);
        w.leaf("rule", {{"name", "rule-" + svc + "-" + num(i)},
                        {"state", onoff(rng, 90)},
                        {"action", rng.percent(60) ? "accept" : "drop"},
                        {"proto", rng.percent(70) ? "tcp" : "udp"},
                        {"src", ip(10, rng.range(0, 255), 0, 0) + "/16"},
                        {"sport", "any"},
                        {"dst", ip(192, 168, dst_net, dst_host)},
                        {"dport", num(rng.range(1, 65535))},
                        {"iface", rng.percent(50) ? "lan" : "wan"},
                        {"comment", "allow " + svc + " for " + std::string(rng.pick(kOwners))}});
    }
    w.close("firewall");
    w.leaf("dns", {{"primary", ip(10, net, 0, 1)},
                   {"secondary", "1.1.1.1"},
                   {"domain", std::string(rng.pick(kSites)) + ".example.net"}});
    w.close("network");
}

void write_mgmt(Writer &w, Rng &rng, const Counts &c) {
    w.open("mgmt", {});
    // The first account is the template new entries are copied from.
    w.open("accounts", {{"max", num(std::max(16, c.accounts))}, {"cur_num", num(c.accounts)}});
    w.leaf("account", {{"name", "template"},
                       {"passwd", "*"},
                       {"level", "guest"},
                       {"state", "0"},
                       {"timeout", "300"}});
    for (int i = 0; i < c.accounts; ++i) {
        const std::string salt = key(rng, 8);
        const std::string hash = key(rng, 22);
        w.leaf("account", {{"name", i == 0 ? "admin" : "user" + num(i)},
                           {"passwd", "$1$" + salt + "$" + hash},
                           {"level", i == 0 ? "admin" : (rng.percent(30) ? "operator" : "viewer")},
                           {"state", "1"},
                           {"timeout", num(60 * rng.range(1, 30))}});
    }
    w.close("accounts");
    w.leaf("syslog", {{"state", onoff(rng, 50)},
                      {"server", ip(10, rng.range(0, 255), 0, 10)},
                      {"port", "514"},
                      {"level", num(rng.range(3, 7))},
                      {"facility", "local0"}});
    w.open("snmp", {{"state", onoff(rng, 50)},
                    {"version", "v2c"},
                    {"port", "161"},
                    {"contact", "noc & helpdesk"},
                    {"location", std::string(rng.pick(kRooms))},
                    {"trap_server", ip(10, rng.range(0, 255), 0, 20)}});
    w.open("communities",
           {{"max", num(std::max(8, c.communities))}, {"cur_num", num(c.communities)}});
    for (int i = 0; i < c.communities; ++i) {
        w.leaf("community", {{"name", i == 0 ? "public" : key(rng, rng.range(6, 16))},
                             {"access", i == 0 ? "ro" : (rng.percent(50) ? "ro" : "rw")},
                             {"source", ip(10, rng.range(0, 255), 0, 0) + "/16"},
                             {"state", "1"}});
    }
    w.close("communities");
    w.close("snmp");
    w.open("remote", {});
    w.leaf("http", {{"state", "1"}, {"port", "80"}, {"timeout", "300"}});
    w.leaf("https", {{"state", "1"}, {"port", "443"}, {"cert", "default"}});
    w.leaf("ssh", {{"state", onoff(rng, 70)}, {"port", "22"}});
    w.leaf("telnet", {{"state", "0"}, {"port", "23"}});
    w.close("remote");
    w.close("mgmt");
}

void write_vap(Writer &w, Rng &rng, int radio, int vap, int acl_entries) {
    bool on = vap < 4 || rng.percent(25);
    std::string psk = key(rng, rng.range(8, 63));
    std::string mode = rng.percent(70) ? "wpa2-psk" : (rng.percent(50) ? "wpa3-sae" : "open");
    w.open("vap", {{"state", on ? "1" : "0"},
                   {"name", "ath" + num((radio - 1) * kVapsPerRadio + vap)},
                   {"ssid", ssid(rng, radio, vap)},
                   {"hidden", onoff(rng, 10)},
                   {"security", mode},
                   {"wpa_key", psk},
                   {"vlan", num(rng.range(1, 4094))},
                   {"band_steer", onoff(rng, 50)},
                   {"sta_isolate", onoff(rng, 30)},
                   {"max_sta", num(rng.range(8, 128))},
                   {"wmm", "1"},
                   {"min_rssi", "-" + num(rng.range(70, 90))}});
    w.leaf("security", {{"mode", mode},
                        {"cipher", "ccmp"},
                        {"wpa_key", psk},
                        {"rekey", "3600"},
                        {"pmf", onoff(rng, 40)},
                        {"radius_ip", ip(10, rng.range(0, 255), 0, 5)},
                        {"radius_port", "1812"},
                        {"radius_secret", key(rng, 16)}});
    w.open("macacl", {{"policy", rng.percent(50) ? "allow" : "deny"},
                      {"max", num(std::max(256, acl_entries))},
                      {"cur_num", num(acl_entries)}});
    for (int i = 0; i < acl_entries; ++i) {
        w.leaf("entry",
               {{"mac", mac(rng)}, {"name", std::string(rng.pick(kHosts)) + "-" + num(i)}});
    }
    w.close("macacl");
    w.leaf("iapp", {{"state", onoff(rng, 50)}, {"port", "3517"}, {"key", key(rng, 16)}});
    w.close("vap");
}

void write_radio(Writer &w, Rng &rng, int radio, const Counts &c) {
    static constexpr std::array<std::string_view, kRadios> modes = {"11ng", "11ac", "11ax"};
    static constexpr std::array<int, 4> channels24 = {1, 6, 11, 0};
    static constexpr std::array<int, 8> channels5 = {36, 44, 52, 100, 116, 149, 157, 0};
    std::string name = "rf" + num(radio);
    int channel = radio == 1 ? rng.pick(channels24) : rng.pick(channels5);
    w.open(name, {{"state", onoff(rng, 90)},
                  {"mode", std::string(modes[static_cast<std::size_t>(radio - 1)])},
                  {"channel", num(channel)},
                  {"country", rng.percent(50) ? "DE" : "US"},
                  {"roles", rng.percent(70) ? "ap" : "ap,wds"},
                  {"txpower", num(rng.range(10, 30))},
                  {"bandwidth", radio == 1 ? "20" : "80"},
                  {"beacon", "100"},
                  {"dtim", "1"},
                  {"rts", "2347"},
                  {"frag", "2346"},
                  {"shortgi", "1"},
                  {"ampdu", "1"},
                  {"chainmask", "3"},
                  {"distance", num(rng.range(0, 3000))},
                  {"max_sta", "128"}});
    for (int v = 0; v < kVapsPerRadio; ++v) {
        write_vap(w, rng, radio, v,
                  c.macacl[static_cast<std::size_t>((radio - 1) * kVapsPerRadio + v)]);
    }
    for (int i = 0; i < kWdsPerRadio; ++i) {
        w.leaf("wds", {{"state", onoff(rng, 20)},
                       {"name", "wds" + num(radio) + "." + num(i)},
                       {"peer", mac(rng)},
                       {"security", rng.percent(70) ? "wpa2" : "none"},
                       {"key", key(rng, rng.range(8, 32))},
                       {"rssi", "-" + num(rng.range(60, 85))}});
    }
    w.leaf("scan", {{"state", onoff(rng, 60)},
                    {"interval", num(60 * rng.range(1, 30))},
                    {"mode", rng.percent(50) ? "background" : "on_demand"},
                    {"channels", radio == 1 ? "1,6,11" : "36,40,44,48,149,153,157,161"},
                    {"dwell", num(rng.range(20, 120))}});
    w.close(name);
}

std::string build_document(const Counts &c, std::uint32_t seed) {
    Rng rng(seed);
    std::string out;
    Writer w(out);
    w.open("qorconfig", {{"version", "1.10.01"}, {"devtype", "AP"}});
    write_system(w, rng);
    write_network(w, rng, c);
    write_mgmt(w, rng, c);
    w.open("wlan", {{"state", "1"}, {"roaming", onoff(rng, 50)}, {"regdomain", "ETSI"}});
    for (int r = 1; r <= kRadios; ++r) {
        write_radio(w, rng, r, c);
    }
    w.close("wlan");
    w.close("qorconfig");
    return out;
}

}  // namespace

std::string generate_config(std::size_t target_bytes, std::uint32_t seed) {
    auto build = [seed](double k) { return build_document(counts_for(k, seed), seed); };
    std::string doc = build(0);
    const double base = static_cast<double>(doc.size());
    const double target = static_cast<double>(target_bytes);
    if (target <= base) {
        return doc;
    }
    // Size grows linearly with k up to the randomness of the entries, so a
    // probe gives the bytes per unit, and one correction absorbs the noise.
    constexpr double kProbe = 4.0;
    double unit = (static_cast<double>(build(kProbe).size()) - base) / kProbe;
    double k = (target - base) / unit;
    doc = build(k);
    double got = static_cast<double>(doc.size());
    if (std::fabs(got - target) > 0.02 * target) {
        k *= (target - base) / (got - base);
        doc = build(k);
    }
    return doc;
}

std::string radio_path(int radio) {
    return "qorconfig.wlan.rf" + std::to_string(radio);
}

std::string Lookup::path() const {
    std::string p = "qorconfig";
    for (const LookupStep &s : steps) {
        p += '.';
        p += s.name;
        if (s.index != 0) {
            p += ':';
            p += std::to_string(s.index);
        }
    }
    p += '@';
    p += attr;
    return p;
}

namespace {

// The element structure of a document, as far as picking items needs it.
struct ScanNode {
    std::string_view name;
    std::vector<std::pair<std::string_view, std::string_view>> attrs;           // raw values
    std::vector<std::pair<std::string_view, std::vector<std::size_t>>> groups;  // by name
};

bool is_space(char ch) {
    return ch == ' ' || ch == '\t' || ch == '\n' || ch == '\r';
}

// Reads elements and attributes; declarations, comments and instructions
// are skipped, text is ignored. Stops quietly at malformed markup.
std::vector<ScanNode> scan(std::string_view doc) {
    std::vector<ScanNode> nodes;
    std::vector<std::size_t> open;
    std::size_t i = 0;
    const std::size_t n = doc.size();
    while ((i = doc.find('<', i)) != std::string_view::npos && i + 1 < n) {
        char c = doc[i + 1];
        if (c == '/') {
            if (!open.empty()) {
                open.pop_back();
            }
            i = doc.find('>', i);
            continue;
        }
        if (c == '!' || c == '?') {
            std::string_view end = doc.compare(i, 4, "<!--") == 0 ? "-->" : ">";
            i = doc.find(end, i + 1);
            continue;
        }
        std::size_t p = i + 1;
        while (p < n && !is_space(doc[p]) && doc[p] != '/' && doc[p] != '>') {
            ++p;
        }
        ScanNode node;
        node.name = doc.substr(i + 1, p - i - 1);
        for (;;) {
            while (p < n && is_space(doc[p])) {
                ++p;
            }
            if (p >= n || doc[p] == '/' || doc[p] == '>') {
                break;
            }
            std::size_t eq = doc.find('=', p);
            if (eq == std::string_view::npos || eq + 1 >= n) {
                return nodes;
            }
            std::string_view attr_name = doc.substr(p, eq - p);
            while (!attr_name.empty() && is_space(attr_name.back())) {
                attr_name.remove_suffix(1);
            }
            std::size_t q = eq + 1;
            while (q < n && is_space(doc[q])) {
                ++q;
            }
            if (q >= n) {
                return nodes;
            }
            std::size_t close = doc.find(doc[q], q + 1);
            if (close == std::string_view::npos) {
                return nodes;
            }
            node.attrs.emplace_back(attr_name, doc.substr(q + 1, close - q - 1));
            p = close + 1;
        }
        if (p >= n) {
            break;
        }
        const std::size_t id = nodes.size();
        if (!open.empty()) {
            auto &groups = nodes[open.back()].groups;
            auto g = groups.begin();
            while (g != groups.end() && g->first != node.name) {
                ++g;
            }
            if (g == groups.end()) {
                groups.emplace_back(node.name, std::vector<std::size_t>{});
                g = groups.end() - 1;
            }
            g->second.push_back(id);
        } else if (!nodes.empty()) {
            break;  // markup after the root element
        }
        nodes.push_back(std::move(node));
        if (doc[p] == '>') {
            open.push_back(id);
        }
        i = p;
    }
    return nodes;
}

std::string decode(std::string_view raw) {
    static constexpr std::array<std::pair<std::string_view, char>, 5> kEntities = {
        {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}}};
    std::string out;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        bool replaced = false;
        if (raw[i] == '&') {
            for (const auto &[ref, ch] : kEntities) {
                if (raw.compare(i, ref.size(), ref) == 0) {
                    out += ch;
                    i += ref.size() - 1;
                    replaced = true;
                    break;
                }
            }
        }
        if (!replaced) {
            out += raw[i];
        }
    }
    return out;
}

}  // namespace

std::vector<Lookup> random_lookups(const std::string &doc, std::size_t n, std::uint32_t seed) {
    std::vector<Lookup> lookups;
    const std::vector<ScanNode> nodes = scan(doc);
    if (nodes.empty()) {
        return lookups;
    }
    Rng rng(seed ^ 0x5EEDBEEFULL);
    lookups.reserve(n);
    // A walk can end on an element without items; give up on documents
    // where that is all there is.
    std::size_t misses = 0;
    while (lookups.size() < n && misses < 1000 + 100 * n) {
        Lookup l;
        const ScanNode *node = &nodes[0];
        // Walk down; an element that has both items and children ends the
        // walk one time in four, so inner groups are asked for too.
        while (!node->groups.empty()) {
            if (!l.steps.empty() && !node->attrs.empty() && rng.below(4) == 0) {
                break;
            }
            const auto &group =
                node->groups[rng.below(static_cast<std::uint32_t>(node->groups.size()))];
            std::uint32_t idx = rng.below(static_cast<std::uint32_t>(group.second.size()));
            l.steps.push_back({std::string(group.first), static_cast<int>(idx)});
            node = &nodes[group.second[idx]];
        }
        if (node->attrs.empty() || l.steps.empty()) {
            ++misses;
            continue;
        }
        const auto &[name, raw] =
            node->attrs[rng.below(static_cast<std::uint32_t>(node->attrs.size()))];
        l.attr = std::string(name);
        l.value = decode(raw);
        lookups.push_back(std::move(l));
    }
    return lookups;
}

}  // namespace qorcfg::bench
