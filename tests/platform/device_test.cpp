// tests/platform/device_test.cpp - the sample access point that the platform
// library describes: every group the configuration library addresses by
// number, name or formula is a row of the group table; every row's element
// and the items the library reads exist in the default configuration and in
// the rule file with one shape, and each opens on its own by prefix-limited
// parsing (a tag whose name begins with another's, placed before it, or a
// group element written without a closing tag, breaks this); the file
// paths, permission and system-item tables, interface names and WDS link
// queries keep their contracts.
#include <regex.h>

#include <array>
#include <map>
#include <set>

#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

std::string hex(uint32_t gid) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", gid);
    return text;
}

uint32_t radio_base(uint32_t r) {
    return 0x20800000u + r * 0x800000u;
}

void add_range(std::vector<uint32_t> &ids, uint32_t from, uint32_t to, uint32_t step) {
    for (uint32_t id = from; id <= to; id += step)
        ids.push_back(id);
}

// Every group ID that has an entry in the apply engine's group-command table.
std::vector<uint32_t> command_table_gids() {
    std::vector<uint32_t> ids = {
        // service groups
        0x08080000, 0x08100000, 0x08180000, 0x08200000, 0x10080000, 0x10100000, 0x10200000,
        0x10200400, 0x10280400, 0x10280800, 0x10280c00, 0x10300000, 0x10380000, 0x10500000,
        0x10580000, 0x10600000, 0x18100000, 0x18300000, 0x18300400, 0x18380400, 0x18180400,
        0x18280000, 0x18500000, 0x18580000, 0x18600000, 0x18780000, 0x29888800, 0x2988c800,
        0x29890800, 0x29894800, 0x29898000, 0x29898400, 0x29b04000, 0x29b08000, 0x22000000,
        0x22180000,
        // accepted without any action
        0x18080000, 0x18080400, 0x18080800, 0x18380000, 0x29880000,
        // further VAP-apply groups
        0x20a00000, 0x20a04000, 0x20a04400, 0x20a80000, 0x20a84000, 0x21200000, 0x21204000,
        0x21280000, 0x21284000, 0x21a00000, 0x21a04000, 0x21a80000, 0x21a84000};
    add_range(ids, 0x29984000, 0x29986400, 0x400);
    add_range(ids, 0x29a84000, 0x29a85400, 0x400);
    add_range(ids, 0x22100400, 0x22102000, 0x400);
    for (uint32_t k = 0; k <= 16; ++k)
        ids.insert(ids.end(), {0x30042800 + k * 0x2000, 0x30042c00 + k * 0x2000});
    for (uint32_t r = 0; r < 3; ++r) {
        const uint32_t base = radio_base(r);
        for (uint32_t v = 0; v < 16; ++v)
            for (uint32_t s : {0x000u, 0x400u, 0x800u, 0x1000u})
                ids.push_back(base + 0x84000 + v * 0x4000 + s);
        ids.push_back(base);
        add_range(ids, base + 0x100400, base + 0x102000, 0x400);
        add_range(ids, base + 0x300000, base + 0x300c00, 0x400);
    }
    return ids;
}

// Every group ID the group verification dispatches on, the reboot and role
// rules name, the radio apply uses, and the radio bases.
std::vector<uint32_t> other_gids() {
    std::vector<uint32_t> ids = {
        0x08080000, 0x08100000, 0x10080000, 0x10100000, 0x10100400, 0x10100800, 0x10100C00,
        0x10101000, 0x29000000, 0x18080000, 0x18100000, 0x18180000, 0x18180400, 0x18180800,
        0x18200000, 0x20980000, 0x21180000, 0x21980000, 0x22180000,
        // reboot rules, role rules, radio apply
        0x08180000, 0x10100000, 0x10500000, 0x10600000, 0x10780000, 0x18680000, 0x18780000,
        0x20a80000, 0x20a84000, 0x10080000, 0x20884000, 0x20800000, 0x21000000, 0x21800000,
        0x22000000, 0x10680000};
    const uint32_t vap_bases[] = {0x2088, 0x2108, 0x2188, 0x2208};
    const uint32_t wds_bases[] = {0x2090, 0x2110, 0x2190, 0x2210};
    for (uint32_t r = 0; r < 4; ++r) {
        ids.push_back(radio_base(r));
        for (uint32_t k = 1; k <= 4; ++k)
            for (uint32_t s : {0x000u, 0x400u, 0x800u, 0xC00u})
                ids.push_back((vap_bases[r] << 16) + k * 0x4000 + s);
        for (uint32_t k = 1; k <= 8; ++k)
            ids.push_back((wds_bases[r] << 16) + k * 0x400);
    }
    return ids;
}

std::vector<std::string> split(const std::string &text, const std::string &sep) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t at; (at = text.find(sep, from)) != std::string::npos; from = at + sep.size())
        parts.push_back(text.substr(from, at - from));
    parts.push_back(text.substr(from));
    return parts;
}

std::vector<qorcfg_group *> rows() {
    std::vector<qorcfg_group *> out;
    for (size_t i = 0; i < 100000 && group_table[i].gid != 0; ++i)
        out.push_back(&group_table[i]);
    return out;
}

// Whether the POSIX extended regular expression `ere` matches in `text`.
bool matches(const char *ere, const std::string &text) {
    regex_t re;
    ::regcomp(&re, ere, REG_EXTENDED);
    const bool found = ::regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
    ::regfree(&re);
    return found;
}

bool is_decimal(const std::string &text) {
    return matches("^-?[0-9]+$", text);
}

// An integer rule: comma-separated numbers N and ranges A~B; the bound after
// the last '~' of an entry, and a bound of 0 leaves the single number A.
bool int_rule_accepts(const std::string &rule, long value) {
    for (const std::string &entry : split(rule, ",")) {
        if (entry.empty())
            continue;
        const long low = std::strtol(entry.c_str(), nullptr, 10);
        const size_t tilde = entry.rfind('~');
        const long high =
            tilde == std::string::npos ? 0 : std::strtol(&entry[tilde + 1], nullptr, 10);
        if (high == 0 ? value == low : (low <= value && value <= high))
            return true;
    }
    return false;
}

bool ip_accepted(const std::string &value) {
    if (!matches("^[0-9]{1,3}[.][0-9]{1,3}[.][0-9]{1,3}[.][0-9]{1,3}$", value))
        return false;
    for (const std::string &part : split(value, "."))
        if (std::stoi(part) > 255)
            return false;
    return true;
}

bool mac_accepted(const std::string &value) {
    // Not anchored: a text holding one of the forms passes, as in the MAC check.
    return matches("([0-9a-fA-F]{2}:){5}[0-9a-fA-F]{2}", value) ||
           matches("([0-9a-fA-F]{2}-){5}[0-9a-fA-F]{2}", value) ||
           matches("[0-9a-fA-F]{12}", value);
}

// ---- group IDs and names -----------------------------------------------------------

TEST(SampleDevice, EveryGroupTheLibraryNamesIsARow) {
    const std::vector<uint32_t> commands = command_table_gids();
    EXPECT_EQ(std::set<uint32_t>(commands.begin(), commands.end()).size(), 343u);
    for (const std::vector<uint32_t> &family : {commands, other_gids()})
        for (uint32_t id : family)
            EXPECT_NE(group_by_gid(id), nullptr) << hex(id);
    auto expect_row = [](const std::string &name, uint32_t gid) {
        const qorcfg_group *row = group_by_name(name.c_str());
        ASSERT_NE(row, nullptr) << name;
        if (gid != 0) {
            EXPECT_EQ(hex(row->gid), hex(gid)) << name;
        }
    };
    expect_row("opmode", 0x08180000);
    for (uint32_t r = 0; r < 3; ++r) {
        const std::string rf = "rf" + std::to_string(r + 1);
        expect_row(rf, radio_base(r));
        EXPECT_EQ(hex(gid_rf[r]), hex(radio_base(r))) << "gid_rf[" << r << "]";
        for (uint32_t v = 0; v < 16; ++v) {
            const uint32_t vap = radio_base(r) + 0x84000 + v * 0x4000;
            expect_row(rf + "_vap" + std::to_string(v + 1), vap);
            EXPECT_EQ(hex(gid_vap[r * 16 + v]), hex(vap)) << "gid_vap[" << r * 16 + v << "]";
        }
        for (uint32_t k = 1; k <= 8; ++k)
            expect_row(rf + "_wds" + std::to_string(k), radio_base(r) + 0x100000 + k * 0x400);
    }
    for (int n = 0; n <= 16; ++n)
        expect_row("vlan" + std::to_string(n) + "_policy", 0);
    for (int n = 0; n <= 4; ++n)
        expect_row("auth" + std::to_string(n), 0);
}

// ---- the default configuration and the rule file -------------------------------------

// Each row's element in `file`: found by its path, and the same element
// when the group is opened alone.
void expect_every_group_opens_alone(const char *file) {
    Parsed doc(sample(file));
    ASSERT_EQ(doc.error(), "") << file;
    for (qorcfg_group *row : rows()) {
        ezxml_node *element = element_at(doc.root(), row->path);
        ASSERT_NE(element, nullptr) << row->path << " is not in " << file;
        FILE *fp = std::fopen((devroot() + file).c_str(), "rb");
        ezxml_node *alone = ezxml_parse_fp_by_prefix(fp, row->path);
        std::fclose(fp);
        ASSERT_NE(alone, nullptr) << row->path << " cannot be parsed alone from " << file;
        EXPECT_STREQ(ezxml_error(alone), "") << row->path;
        EXPECT_STREQ(alone->name, element->name) << row->path;
        EXPECT_EQ(attributes(alone), attributes(element)) << row->path << " is another element";
        ezxml_free(alone);
    }
}

TEST(SampleDevice, NamesAndPathsAreUniqueAndOpenAloneInBothFiles) {
    std::map<std::string, uint32_t> names, paths;
    for (qorcfg_group *row : rows()) {
        const std::string name = row->name, path = row->path;
        // A text holding "qorconfig." is taken as a path when a group is opened.
        EXPECT_EQ(name.find("qorconfig."), std::string::npos) << name;
        EXPECT_FALSE(name.empty());
        EXPECT_TRUE(names.emplace(name, row->gid).second) << name << " twice";
        EXPECT_TRUE(paths.emplace(path, row->gid).second) << path << " twice";
        EXPECT_EQ(path.rfind("qorconfig.", 0), 0u) << path;
    }
    EXPECT_GT(names.size(), 400u);
    expect_every_group_opens_alone("/etc/default-config.xml");
    expect_every_group_opens_alone("/etc/cfg-rule.xml");
}

// An element with "max" holds a variable number of like children, the first
// of which is the template for new ones.
void expect_within_max(ezxml_node *node, const std::string &where) {
    if (const char *max = ezxml_attr(node, "max")) {
        ASSERT_TRUE(is_decimal(max)) << where << " max=\"" << max << "\"";
        ASSERT_NE(node->child, nullptr) << where << ": no template child";
        long count = 0;
        for (ezxml_node *c = ezxml_child(node, node->child->name); c != nullptr; c = c->next)
            ++count;
        EXPECT_LE(count, std::atol(max)) << where;
        const char *cur = ezxml_attr(node, "cur_num");
        EXPECT_TRUE(cur == nullptr || (is_decimal(cur) && std::atol(cur) <= std::atol(max)))
            << where;
    }
    for (ezxml_node *c = node->child; c != nullptr; c = c->ordered)
        expect_within_max(c, where + "." + c->name);
}

TEST(SampleDevice, ConfigurationHoldsWhatIsReadAndTheRulesItsValuesPass) {
    Parsed config(sample("/etc/default-config.xml")), rules(sample("/etc/cfg-rule.xml"));
    ASSERT_EQ(config.error() + rules.error(), "");
    // The root carries version then devtype, each for a 16-byte field of the
    // backup header.
    EXPECT_STREQ(config.root()->name, "qorconfig");
    char **root = config.root()->attr;
    EXPECT_STREQ(root[0], "version");
    EXPECT_STREQ(root[2], "devtype");
    EXPECT_LT(std::strlen(root[1]), 16u);
    EXPECT_LT(std::strlen(root[3]), 16u);
    expect_within_max(config.root(), "qorconfig");

    // Items the library reads, by group.
    std::vector<std::pair<std::string, std::vector<const char *>>> items = {
        {"opmode", {"type"}},
        {hex(0x10600000), {"vap_isolate"}},
        {hex(0x10680000), {"wds_style"}},
        {hex(0x08080000), {"name", "desc", "location"}}};
    for (int r = 1; r <= 3; ++r) {
        const std::string rf = "rf" + std::to_string(r);
        items.push_back({rf, {"state", "roles", "mode", "country", "channel", "outdoor_use"}});
        for (int v = 1; v <= 16; ++v)
            items.push_back(
                {rf + "_vap" + std::to_string(v), {"ssid", "state", "band_steer", "sta_isolate"}});
        for (int k = 1; k <= 8; ++k)
            items.push_back({rf + "_wds" + std::to_string(k), {"state"}});
    }
    for (int n = 0; n <= 4; ++n)
        items.push_back({"auth" + std::to_string(n), {"postfix", "idx"}});
    for (int n = 0; n <= 16; ++n)
        items.push_back({"vlan" + std::to_string(n) + "_policy",
                         {"defauth", "auth0", "auth1", "auth2", "auth3", "auth4"}});
    for (const auto &[group, names] : items) {
        const qorcfg_group *row = group.rfind("0x", 0) == 0
                                      ? group_by_gid(std::stoul(group, nullptr, 16))
                                      : group_by_name(group.c_str());
        ASSERT_NE(row, nullptr) << group;
        ezxml_node *element = element_at(config.root(), row->path);
        for (const char *item : names)
            EXPECT_NE(ezxml_attr(element, item), nullptr) << row->path << " has no " << item;
    }

    // The rule file has the configuration's shape: one rule
    // "name|&|type|&|rule|&|description" per item, and the values pass.
    const std::set<std::string> types = {"int",  "string",  "mac",      "ip",        "domain",
                                         "band", "channel", "timezone", "restricted"};
    for (qorcfg_group *row : rows()) {
        std::map<std::string, std::string> values, rule_texts;
        ezxml_node *element = element_at(config.root(), row->path);
        ezxml_node *rule_element = element_at(rules.root(), row->path, true);
        if (element == nullptr || rule_element == nullptr)
            continue;  // reported by NamesAndPathsAreUniqueAndOpenAloneInBothFiles
        for (char **a = element->attr; *a != nullptr; a += 2)
            values[a[0]] = a[1];
        for (char **a = rule_element->attr; *a != nullptr; a += 2)
            rule_texts[a[0]] = a[1];
        for (const auto &[name, value] : values)
            EXPECT_TRUE(rule_texts.count(name)) << row->path << " " << name << " has no rule";
        for (const auto &[name, text] : rule_texts) {
            const std::string where = std::string(row->path) + " " + name + "=\"" + text + "\"";
            EXPECT_TRUE(values.count(name)) << where << ": the configuration lacks the item";
            const std::vector<std::string> fields = split(text, "|&|");
            ASSERT_EQ(fields.size(), 4u) << where;
            const std::string &type = fields[1], &rule = fields[2], &value = values[name];
            EXPECT_TRUE(types.count(type)) << where;
            if (type == "int") {
                EXPECT_TRUE(is_decimal(value) && int_rule_accepts(rule, std::atol(value.c_str())))
                    << where << ": " << value;
            } else if (type == "ip" && !value.empty()) {
                EXPECT_TRUE(ip_accepted(value)) << where << ": " << value;
            } else if (type == "mac" && !value.empty()) {
                EXPECT_TRUE(mac_accepted(value)) << where << ": " << value;
            }
        }
    }
}

// ---- files and tables ----------------------------------------------------------------

TEST(SampleDevice, FilePathsTablesAndInterfaceNames) {
    std::set<std::string> seen;
    for (const char *file :
         {config_ram, config_rom, current_config, backup_cfg_file, restored_cfg_file}) {
        EXPECT_EQ(file[0], '/') << file;
        EXPECT_TRUE(seen.insert(file).second) << file << " used twice";
    }
    auto named = [](const char *name) { return name != nullptr && name[0] != '\0'; };
    size_t n = 0;
    for (; n < 1000 && user_table[n].group != 0; ++n)
        EXPECT_TRUE(named(user_table[n].name)) << "user row " << n;
    EXPECT_TRUE(n > 0 && n < 1000) << "user rows";
    for (n = 0; n < 1000 && conf_perm_table[n].id != 0; ++n) {
        EXPECT_TRUE(named(conf_perm_table[n].name)) << hex(conf_perm_table[n].id);
        EXPECT_NE(group_by_gid(conf_perm_table[n].id), nullptr) << hex(conf_perm_table[n].id);
    }
    EXPECT_TRUE(n > 0 && n < 1000) << "configuration permission rows";
    for (n = 0; n < 1000 && oper_perm_table[n].id != 0; ++n)
        EXPECT_TRUE(named(oper_perm_table[n].name)) << "operation row " << n;
    EXPECT_TRUE(n > 0 && n < 1000) << "operation permission rows";
    for (n = 0; n < 1000 && sys_item_list[n].name != nullptr; ++n)
        EXPECT_NE(sys_item_list[n].getter, nullptr) << sys_item_list[n].name;
    EXPECT_TRUE(n > 0 && n < 1000) << "system item rows";

    char name[64];
    std::memset(name, 'x', sizeof name);
    EXPECT_EQ(get_lan_ifname(name), 0);
    EXPECT_STREQ(name, "br0");
    for (int r = 0; r < 3; ++r) {
        for (int k = 0; k < 8; ++k) {
            std::memset(name, 'x', sizeof name);
            EXPECT_NE(get_ifname_by_idx(2, r, k, name), 0) << r << "," << k;
            EXPECT_STREQ(name, ("ath" + std::to_string(r) + "wds" + std::to_string(k)).c_str());
        }
    }
    for (const auto &c : {std::array{0, 0, 0},
                          {1, 0, 0},
                          {3, 0, 0},
                          {-1, 0, 0},
                          {2, 3, 0},
                          {2, 0, 8},
                          {2, -1, 0},
                          {2, 0, -1},
                          {2, 9, 9}})
        EXPECT_EQ(get_ifname_by_idx(c[0], c[1], c[2], name), 0) << c[0] << c[1] << c[2];
}

// ---- behaviour under a device root ---------------------------------------------------

class SampleDeviceFiles : public SandboxTest {};

TEST_F(SampleDeviceFiles, SystemItemsAndWdsLinkQueriesReadTheRootsFiles) {
    const std::pair<const char *, const char *> proc[] = {
        {"/proc/uptime", "12345.67 23456.78\n"},
        {"/proc/loadavg", "0.12 0.34 0.56 1/234 5678\n"},
        {"/proc/meminfo", "MemTotal:  262144 kB\nMemFree:   131072 kB\nMemAvailable:  1 kB\n"},
        {"/proc/sys/kernel/hostname", "ap-lab\n"}};
    const std::pair<const char *, const char *> cases[] = {{"uptime", "12345"},
                                                           {"load", "0.12 0.34 0.56"},
                                                           {"mem_total", "262144"},
                                                           {"mem_free", "131072"},
                                                           {"hostname", "ap-lab"}};
    for (bool present : {true, false}) {
        for (const auto &[file, text] : proc)
            present ? sandbox.write(file, text) : sandbox.remove(file);
        for (const auto &[item, value] : cases) {
            std::string got = "<no such row>";
            for (size_t i = 0; i < 1000 && sys_item_list[i].name != nullptr; ++i) {
                const qorcfg_sys_item &row = sys_item_list[i];
                if (std::strcmp(row.name, item) == 0) {
                    char buf[256];
                    std::memset(buf, 'x', sizeof buf);
                    buf[sizeof buf - 1] = '\0';
                    row.getter(row.arg, buf, row.extra);
                    got = buf;
                }
            }
            EXPECT_EQ(got, present ? value : "") << item;
        }
    }

    const std::pair<const char *, int> states[] = {
        {"up\n", 1}, {"dormant\n", 2}, {"down\n", 0}, {"unknown\n", 0}, {"", 0}, {nullptr, 0}};
    for (const auto &[content, alive] : states) {
        if (content != nullptr)
            sandbox.write("/sys/class/net/ath1wds2/operstate", content);
        else
            sandbox.remove("/sys/class/net/ath1wds2/operstate");
        EXPECT_EQ(isWDSLinkAlive("ath1wds2"), alive) << (content ? content : "no file");
    }
    using Query = int (*)(const char *, char *);
    const Query queries[] = {getWDSLinkTxRate, getWDSLinkQuality, getWDSLinkHealth,
                             getWDSLinkTxTotal, getWDSLinkTxFail};
    sandbox.write(
        "/proc/wds/ath0wds0",
        "tx_rate_max=866\ntx_rate=300\nquality=87\nhealth=95\ntx_total=123456\ntx_fail=12\n");
    sandbox.write("/proc/wds/ath2wds7", "tx_fail=3\nhealth=40\ntx_rate=54\n");
    // Values in the order of `queries`; null: the query finds nothing.
    const std::pair<const char *, std::array<const char *, 5>> expected[] = {
        {"ath0wds0", {"300", "87", "95", "123456", "12"}},
        {"ath2wds7", {"54", nullptr, "40", nullptr, "3"}},
        {"ath1wds1", {nullptr, nullptr, nullptr, nullptr, nullptr}},  // no file
    };
    for (const auto &[ifname, values] : expected) {
        for (size_t q = 0; q < 5; ++q) {
            char buf[256] = "x";
            const int filled = queries[q](ifname, buf);
            EXPECT_EQ(filled != 0, values[q] != nullptr) << ifname << " query " << q;
            EXPECT_EQ(std::string(filled != 0 ? buf : "(none)"), values[q] ? values[q] : "(none)")
                << ifname << " query " << q;
        }
    }
}

TEST_F(SampleDeviceFiles, RepeaterHooksNameRealItemsAndLeaveTheFilesAlone) {
    const std::string text = sample("/etc/default-config.xml");
    Parsed config(text);
    for (const char *file : {config_ram, config_rom, current_config})
        sandbox.write(file, text);
    qorcfg_item *list = set_rep_related();
    EXPECT_NE(list, nullptr);
    for (qorcfg_item *node = list; node != nullptr; node = node->next) {
        const qorcfg_group *row = group_by_gid(static_cast<uint32_t>(node->gid));
        ASSERT_TRUE(row != nullptr && node->name != nullptr && node->value != nullptr)
            << hex(static_cast<uint32_t>(node->gid));
        // The item is the attribute after the last '.' of group path + "." + name.
        const std::string full = std::string(row->path) + "." + node->name;
        const size_t dot = full.rfind('.');
        EXPECT_NE(ezxml_attr(element_at(config.root(), full.substr(0, dot)), &full[dot + 1]),
                  nullptr)
            << full;
    }
    free_item_list(list);
    leave_rep();
    for (const char *file : {config_ram, config_rom, current_config})
        EXPECT_EQ(sandbox.read(file), text) << file;
    EXPECT_FALSE(sandbox.exists("/tmp/sync_config"));
}

}  // namespace
