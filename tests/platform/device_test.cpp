// tests/platform/device_test.cpp - the sample access point that the platform
// library describes: every group the configuration library addresses by
// number, name or formula is a row of the group table; every row's element
// and the items the library reads exist in the default configuration and in
// the rule file with one shape, and each opens on its own by prefix-limited
// parsing (a tag whose name begins with another's, placed before it, or a
// group element written without a closing tag, breaks this); the file
// paths, permission and system-item tables, interface names and WDS link
// queries keep their contracts.
#include <arpa/inet.h>
#include <map>
#include <set>
#include <sstream>

#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

uint32_t radio_base(uint32_t r) {
    return 0x20800000u + r * 0x800000u;
}

// Every group the library names: by ID (the apply engine's group commands:
// service groups, groups accepted without any action, VAP and radio apply;
// the group verification's dispatch; the reboot and role rules), or by name
// with the ID its formula gives (0: any); and the items the library reads
// from it, separated by spaces.
using Named = std::tuple<std::string, uint32_t, std::string>;

std::vector<Named> named_groups() {
    std::vector<Named> out = {{"opmode", 0x08180000, "type"},
                              {"", 0x10600000, "vap_isolate"},
                              {"", 0x10680000, "wds_style"},
                              {"", 0x08080000, "name desc location"}};
    std::istringstream fixed(
        "08100000 08200000 10080000 10100000-10101000/400 10200000-10200400/400 "
        "10280400-10280c00/400 10300000 10380000 10500000 10580000 10780000 18080000-18080800/400 "
        "18100000 18180000-18180800/400 18200000 18280000 18300000-18300400/400 "
        "18380000-18380400/400 18500000 18580000 18600000 18680000 18780000 20980000 20a00000 "
        "20a04000-20a04400/400 20a80000 20a84000 21180000 21200000 21204000 21280000 21284000 "
        "21980000 21a00000 21a04000 21a80000 21a84000 22180000 29000000 29880000 "
        "29888800-29894800/4000 29898000-29898400/400 29b04000 29b08000 29984000-29986400/400 "
        "29a84000-29a85400/400 22100400-22102000/400 30042800-30062800/2000 "
        "30042c00-30062c00/2000 20b00000-20b00c00/400 21300000-21300c00/400 21b00000-21b00c00/400");
    for (std::string id; fixed >> id;) {  // an ID, or "first-last/step", in hex
        uint32_t first = 0, last = 0, step = 1;
        std::sscanf(id.c_str(), "%x-%x/%x", &first, &last, &step);
        for (uint32_t gid = first; gid <= std::max(first, last); gid += step)
            out.push_back({"", gid, ""});
    }
    // The first three radios by name, with 16 VAPs (each with its own groups)
    // and 8 WDS links; the fourth by ID, with 4 VAPs.
    for (uint32_t r = 0; r < 4; ++r) {
        const std::string rf = "rf" + std::to_string(r + 1);
        const bool named = r < 3;
        out.push_back({named ? rf : "", radio_base(r),
                       named ? "state roles mode country channel outdoor_use" : ""});
        for (uint32_t k = 1; k <= 8; ++k)
            out.push_back({named ? rf + "_wds" + std::to_string(k) : "",
                           radio_base(r) + 0x100000 + k * 0x400, named ? "state" : ""});
        for (uint32_t v = 0; v < (named ? 16 : 4); ++v)
            for (uint32_t s : {0x000u, 0x400u, 0x800u, 0xC00u, 0x1000u})
                if ((named || s != 0x1000) && (v < 4 || s != 0xC00))
                    out.push_back({named && s == 0 ? rf + "_vap" + std::to_string(v + 1) : "",
                                   radio_base(r) + 0x84000 + v * 0x4000 + s,
                                   named && s == 0 ? "ssid state band_steer sta_isolate" : ""});
    }
    for (int n = 0; n <= 4; ++n)
        out.push_back({"auth" + std::to_string(n), 0, "postfix idx"});
    for (int n = 0; n <= 16; ++n)
        out.push_back(
            {"vlan" + std::to_string(n) + "_policy", 0, "defauth auth0 auth1 auth2 auth3 auth4"});
    return out;
}

std::vector<std::string> split(const std::string &text, const std::string &sep) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t at; (at = text.find(sep, from)) != std::string::npos; from = at + sep.size())
        parts.push_back(text.substr(from, at - from));
    parts.push_back(text.substr(from));
    return parts;
}

bool matches(const char *ere, const std::string &text) {
    return qorcfg::test::matches_ere(ere, text);
}

const char kTypes[] = "^(int|string|mac|ip|domain|band|channel|timezone|restricted)$";
const char kMac[] =
    "([0-9a-fA-F]{2}:){5}[0-9a-fA-F]{2}|([0-9a-fA-F]{2}-){5}[0-9a-fA-F]{2}|[0-9a-fA-F]{12}";

// Whether `value` passes a rule of `type`: an empty address passes; a MAC
// address is found anywhere in the text, as in the MAC check; an integer
// rule is numbers N and ranges A~B separated by commas (the bound after the
// last '~' of an entry; a bound of 0 leaves the single number A).
bool passes(const std::string &type, const std::string &rule, const std::string &value) {
    in_addr ip;
    if (type != "int")
        return value.empty() || (type == "ip" ? inet_pton(AF_INET, value.c_str(), &ip) == 1
                                              : type != "mac" || matches(kMac, value));
    bool found = false;
    for (const std::string &entry : split(rule, ",")) {
        const size_t tilde = entry.rfind('~');
        const long low = std::atol(entry.c_str()), v = std::atol(value.c_str());
        const long high = tilde == std::string::npos ? 0 : std::atol(&entry[tilde + 1]);
        found |= !entry.empty() && (high == 0 ? v == low : (low <= v && v <= high));
    }
    return found && matches("^-?[0-9]+$", value);
}

// ---- the group table, the default configuration and the rule file -------------------

TEST(SampleDevice, NamedGroupsAreRowsAndEveryRowOpensAloneWithItsRules) {
    const char *const files[] = {"/etc/default-config.xml", "/etc/cfg-rule.xml"};
    Parsed config(sample(files[0])), rules(sample(files[1]));
    ASSERT_EQ(config.error() + rules.error(), "");
    for (uint32_t v = 0; v < 48; ++v)
        EXPECT_TRUE(gid_rf[v / 16] == radio_base(v / 16) &&
                    gid_vap[v] == radio_base(v / 16) + 0x84000 + v % 16 * 0x4000)
            << "radio " << v / 16 << ", VAP " << v % 16;
    for (const auto &[name, gid, items] : named_groups()) {
        const qorcfg_group *row = name.empty() ? group_by_gid(gid) : group_by_name(name.c_str());
        ASSERT_TRUE(row != nullptr && (gid == 0 || row->gid == gid)) << name << std::hex << gid;
        ezxml_node *element = element_at(config.root(), row->path);
        for (const std::string &item : split(items, " "))
            EXPECT_TRUE(items.empty() || ezxml_attr(element, item.c_str()))
                << row->path << " has no " << item;
    }
    // The root carries version then devtype, each for a 16-byte field of the
    // backup header.
    char **root = config.root()->attr;
    EXPECT_EQ(std::string(config.root()->name) + " " + root[0] + " " + root[2],
              "qorconfig version devtype");
    EXPECT_TRUE(std::strlen(root[1]) < 16 && std::strlen(root[3]) < 16);

    std::set<std::string> names, paths;
    for (size_t i = 0; i < 100000 && group_table[i].gid != 0; ++i) {
        const std::string name = group_table[i].name, path = group_table[i].path;
        // A text holding "qorconfig." is taken as a path when a group is opened.
        EXPECT_TRUE(!name.empty() && name.find("qorconfig.") == std::string::npos &&
                    path.rfind("qorconfig.", 0) == 0 && names.insert(name).second &&
                    paths.insert(path).second)
            << name << " " << path;
        // Its element in each file is found by its path, and is the same
        // element when the group is parsed alone.
        ezxml_node *element[] = {element_at(config.root(), path), element_at(rules.root(), path)};
        for (int f : {0, 1}) {
            FILE *fp = std::fopen((devroot() + files[f]).c_str(), "rb");
            const Tree alone = own(ezxml_parse_fp_by_prefix(fp, path.c_str()));
            std::fclose(fp);
            ASSERT_NE(element[f], nullptr) << path << " is not in " << files[f];
            EXPECT_EQ(xml_of(alone.get()) + ezxml_error(alone.get()), xml_of(element[f]))
                << path << " in " << files[f];
        }
        // A group element with "max" holds a variable number of like children
        // (the device's lists belong to groups), the first of which is the
        // template for new ones.
        if (const char *max = ezxml_attr(element[0], "max")) {
            const char *cur = ezxml_attr(element[0], "cur_num");
            ASSERT_TRUE(element[0]->child && matches("^[0-9]+$", max) &&
                        (!cur || matches("^[0-9]+$", cur)))
                << path;
            ezxml_node *like = ezxml_child(element[0], element[0]->child->name);
            EXPECT_TRUE(ezxml_idx(like, static_cast<int>(std::atol(max))) == nullptr &&
                        (!cur || std::atol(cur) <= std::atol(max)))
                << path;
        }
        // One rule "name|&|type|&|rule|&|description" per item, and the
        // values pass their rules.
        std::map<std::string, std::string> values;
        for (char **a = element[0]->attr; *a != nullptr; a += 2)
            values[a[0]] = a[1];
        ezxml_node *rule = element_at(rules.root(), path, true);
        for (char **a = rule->attr; *a != nullptr; a += 2) {
            const std::vector<std::string> fields = split(a[1], "|&|");
            EXPECT_TRUE(values.count(a[0]) && fields.size() == 4 && matches(kTypes, fields[1]) &&
                        passes(fields[1], fields[2], values[a[0]]))
                << path << " " << a[0] << "=\"" << values[a[0]] << "\" by " << a[1];
            values.erase(a[0]);
        }
        EXPECT_TRUE(values.empty()) << path << ": " << values.size() << " items without a rule";
    }
    EXPECT_GT(names.size(), 400u);
}

// ---- files, tables and platform functions ------------------------------------------

TEST(SampleDevice, FilePathsTablesAndInterfaceNames) {
    std::set<std::string> files;
    for (const char *file :
         {config_ram, config_rom, current_config, backup_cfg_file, restored_cfg_file})
        EXPECT_TRUE(file[0] == '/' && files.insert(file).second) << file;
    // Each table has rows before its end, every row is named, and every
    // group a configuration permission names is a row.
    auto named = [](const char *name) { return name != nullptr && name[0] != '\0'; };
    size_t users = 0, conf = 0, oper = 0;
    for (; users < 1000 && user_table[users].group != 0; ++users)
        EXPECT_TRUE(named(user_table[users].name)) << "user row " << users;
    for (; conf < 1000 && conf_perm_table[conf].id != 0; ++conf)
        EXPECT_TRUE(named(conf_perm_table[conf].name) && group_by_gid(conf_perm_table[conf].id))
            << std::hex << conf_perm_table[conf].id;
    for (; oper < 1000 && oper_perm_table[oper].id != 0; ++oper)
        EXPECT_TRUE(named(oper_perm_table[oper].name)) << "operation row " << oper;
    for (size_t n : {users, conf, oper})
        EXPECT_TRUE(n > 0 && n < 1000) << n;

    char name[64];
    EXPECT_TRUE(get_lan_ifname(name) == 0 && std::string(name) == "br0");
    // WDS links 0-7 of radios 0-2; no other link or kind has a name.
    for (int i = 0; i < 5 * 5 * 10; ++i) {
        const int kind = i / 50 - 1, r = i / 10 % 5 - 1, k = i % 10 - 1;
        const bool wds = kind == 2 && r >= 0 && r < 3 && k >= 0 && k < 8;
        std::memset(name, 'x', sizeof name);
        EXPECT_EQ(get_ifname_by_idx(kind, r, k, name) != 0 ? std::string(name) : "-",
                  wds ? "ath" + std::to_string(r) + "wds" + std::to_string(k) : "-")
            << kind << "," << r << "," << k;
    }
}

using SampleDeviceFiles = SandboxTest;

// System items and WDS link states and figures from the root's files: with
// the files, then without them.
TEST_F(SampleDeviceFiles, SystemItemsAndWdsLinksReadTheRootsFiles) {
    const std::pair<const char *, const char *> files[] = {
        {"/proc/uptime", "12345.67 23456.78\n"},
        {"/proc/loadavg", "0.12 0.34 0.56 1/234 5678\n"},
        {"/proc/meminfo", "MemTotal:  262144 kB\nMemFree:   131072 kB\nMemAvailable:  1 kB\n"},
        {"/proc/sys/kernel/hostname", "ap-lab\n"},
        {"/sys/class/thermal/thermal_zone0/temp", "48999\n"},
        {"/sys/class/net/br0/address", "00:1b:21:3a:4f:00\n"},
        {"/sys/class/net/ath0wds0/operstate", "up\n"},
        {"/sys/class/net/ath1wds1/operstate", "dormant\n"},
        {"/sys/class/net/ath2wds7/operstate", "down\n"},
        {"/proc/wds/ath0wds0",
         "tx_rate_max=8\ntx_rate=3\nquality=7\nhealth=9\ntx_total=5\ntx_fail=2\n"},
        {"/proc/wds/ath2wds7", "tx_fail=1\nhealth=4\ntx_rate=6\n"}};
    std::string got;
    for (bool present : {true, false}) {
        for (const auto &[file, text] : files)
            present ? sandbox.write(file, text) : sandbox.remove(file);
        for (const qorcfg_sys_item *i = sys_item_list; i->name != nullptr; ++i) {
            char buf[256] = "junk";
            i->getter(i->arg, buf, i->extra);
            got += std::string(i->name) + "=" + buf + ";";
        }
        // Each link's state (up 1, dormant 2, else 0), then its five figures
        // ("-" where the query finds nothing).
        for (const char *ifname : {"ath0wds0", "ath1wds1", "ath2wds7"}) {
            got += "\n" + std::to_string(isWDSLinkAlive(ifname));
            for (auto query : {getWDSLinkTxRate, getWDSLinkQuality, getWDSLinkHealth,
                               getWDSLinkTxTotal, getWDSLinkTxFail}) {
                char buf[256] = "x";
                got += std::string(" ") + (query(ifname, buf) != 0 ? buf : "-");
            }
        }
        got += "\n";
    }
    EXPECT_EQ(
        got,
        "uptime=12345;load=0.12 0.34 0.56;mem_total=262144;mem_free=131072;hostname=ap-lab;"
        "temperature=48;lan_mac=00:1b:21:3a:4f:00;\n1 3 7 9 5 2\n2 - - - - -\n0 6 - 4 - 1\n"
        "uptime=;load=;mem_total=;mem_free=;hostname=;temperature=;lan_mac=;\n0 - - - - -\n0 - - - "
        "- -\n0 - - - - -\n");
}

TEST_F(SampleDeviceFiles, RepeaterHooksNameRealItemsAndLeaveTheFilesAlone) {
    const std::string text = sample("/etc/default-config.xml");
    const char *const files[] = {config_ram, config_rom, current_config};
    for (const char *file : files)
        sandbox.write(file, text);
    Parsed config(text);
    qorcfg_item *list = set_rep_related();
    EXPECT_NE(list, nullptr);
    for (qorcfg_item *node = list; node != nullptr; node = node->next) {
        const qorcfg_group *row = group_by_gid(static_cast<uint32_t>(node->gid));
        ASSERT_TRUE(row && node->name && node->value) << std::hex << node->gid;
        // The item is the attribute after the last '.' of group path + "." + name.
        const std::string full = std::string(row->path) + "." + node->name;
        const size_t dot = full.rfind('.');
        EXPECT_TRUE(ezxml_attr(element_at(config.root(), full.substr(0, dot)), &full[dot + 1]))
            << full;
    }
    free_item_list(list);
    leave_rep();
    for (const char *file : files)
        EXPECT_EQ(sandbox.read(file), text) << file;
    EXPECT_FALSE(sandbox.exists("/tmp/sync_config"));
}

}  // namespace
