// tests/platform/device_test.cpp - the sample access point that the platform
// library describes: every group the configuration library addresses by
// number, name or formula is a row of the group table; every row's element
// and the items the library reads exist in the default configuration and in
// the rule file with one shape; the file paths, permission and system-item
// tables, interface names and WDS link queries keep their contracts.
#include <regex.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "qorcfg.h"
#include "store/platform.h"
#include "tests/support/sandbox.h"

namespace {

constexpr size_t kMaxRows = 1000;

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

// Every group ID the group verification dispatches on.
std::vector<uint32_t> verification_gids() {
    std::vector<uint32_t> ids = {0x08080000, 0x08100000, 0x10080000, 0x10100000, 0x10100400,
                                 0x10100800, 0x10100C00, 0x10101000, 0x29000000, 0x18080000,
                                 0x18100000, 0x18180000, 0x18180400, 0x18180800, 0x18200000,
                                 0x20980000, 0x21180000, 0x21980000, 0x22180000};
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

std::string read_file(const std::string &host_path) {
    std::ifstream in(host_path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A document of the source tree's device root, parsed by the library's parser
// from a private buffer (the tree points into it).
class Doc {
public:
    explicit Doc(const char *device_path) : host_(qorcfg::test::devroot() + device_path) {
        std::string text = read_file(host_);
        buf_.assign(text.begin(), text.end());
        if (!buf_.empty())
            root_ = ezxml_parse_str(buf_.data(), buf_.size());
    }
    ~Doc() { ezxml_free(root_); }
    Doc(const Doc &) = delete;
    Doc &operator=(const Doc &) = delete;
    ezxml_node *root() const { return root_; }
    const std::string &host_path() const { return host_; }
    bool ok() const { return root_ != nullptr && ezxml_error(root_)[0] == '\0'; }

private:
    std::string host_;
    std::vector<char> buf_;
    ezxml_node *root_ = nullptr;
};

#define ASSERT_DOC(doc) \
    ASSERT_TRUE((doc).ok()) << (doc).host_path() << ": " << ezxml_error((doc).root())

std::vector<std::string> split(const std::string &text, const std::string &sep) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t at; (at = text.find(sep, from)) != std::string::npos; from = at + sep.size())
        parts.push_back(text.substr(from, at - from));
    parts.push_back(text.substr(from));
    return parts;
}

// The element at a dotted path: the first name is the root's, each further
// name a child by name, then the N-th of that name for "name:N". With
// `strip_index` every index is dropped, as the rule lookups do.
ezxml_node *walk(ezxml_node *root, const std::string &path, bool strip_index = false) {
    std::vector<std::string> steps = split(path, ".");
    if (root == nullptr || steps[0] != root->name)
        return nullptr;
    ezxml_node *node = root;
    for (size_t i = 1; i < steps.size() && node != nullptr; ++i) {
        std::string name = steps[i];
        int index = 0;
        if (size_t colon = name.find(':'); colon != std::string::npos) {
            std::string digits = name.substr(colon + 1);
            if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos)
                return nullptr;
            index = strip_index ? 0 : std::atoi(digits.c_str());
            name.resize(colon);
        }
        node = ezxml_child(node, name.c_str());
        if (index > 0)
            node = ezxml_idx(node, index);
    }
    return node;
}

// The element's own attributes, in document order.
std::vector<std::pair<std::string, std::string>> attrs(ezxml_node *node) {
    std::vector<std::pair<std::string, std::string>> out;
    for (char **a = node->attr; a[0] != nullptr; a += 2)
        out.emplace_back(a[0], a[1]);
    return out;
}

std::vector<qorcfg_group *> rows() {
    std::vector<qorcfg_group *> out;
    for (size_t i = 0; i < 100000 && group_table[i].gid != 0; ++i)
        out.push_back(&group_table[i]);
    return out;
}

// POSIX extended regular expressions, compiled once each (the patterns are
// the test's own and valid).
class Pattern {
public:
    explicit Pattern(const char *ere) { ::regcomp(&re_, ere, REG_EXTENDED); }
    ~Pattern() { ::regfree(&re_); }
    Pattern(const Pattern &) = delete;
    Pattern &operator=(const Pattern &) = delete;
    bool search(const std::string &text, regmatch_t *m = nullptr, size_t n = 0) const {
        return ::regexec(&re_, text.c_str(), n, m, 0) == 0;
    }

private:
    regex_t re_;
};

bool is_decimal(const std::string &text) {
    static const Pattern decimal("^-?[0-9]+$");
    return decimal.search(text);
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
    static const Pattern quad("^([0-9]{1,3})[.]([0-9]{1,3})[.]([0-9]{1,3})[.]([0-9]{1,3})$");
    regmatch_t m[5];
    if (!quad.search(value, m, 5))
        return false;
    for (size_t i = 1; i <= 4; ++i)
        if (std::stoi(value.substr(static_cast<size_t>(m[i].rm_so))) > 255)
            return false;
    return true;
}

bool mac_accepted(const std::string &value) {
    // Not anchored: a text holding one of the forms passes, as in the MAC check.
    static const Pattern colons("([0-9a-fA-F]{2}:){5}[0-9a-fA-F]{2}");
    static const Pattern dashes("([0-9a-fA-F]{2}-){5}[0-9a-fA-F]{2}");
    static const Pattern bare("[0-9a-fA-F]{12}");
    return colons.search(value) || dashes.search(value) || bare.search(value);
}

// ---- group IDs and names -----------------------------------------------------

TEST(SampleDevice, EveryGroupIdTheLibraryNamesIsARow) {
    const std::vector<uint32_t> commands = command_table_gids();
    EXPECT_EQ(commands.size(), 343u);
    EXPECT_EQ(std::set<uint32_t>(commands.begin(), commands.end()).size(), 343u);
    std::vector<uint32_t> bases;
    for (uint32_t r = 0; r < 4; ++r)
        bases.push_back(radio_base(r));
    const struct {
        const char *family;
        std::vector<uint32_t> ids;
    } families[] = {
        {"group commands", commands},
        {"group verification", verification_gids()},
        {"reboot rules",
         {0x08180000, 0x10100000, 0x10500000, 0x10600000, 0x10780000, 0x18680000, 0x18780000,
          0x20a80000, 0x20a84000, 0x10080000, 0x20884000, 0x20800000, 0x21000000, 0x21800000,
          0x22000000}},
        {"role rules", {0x20a80000, 0x10600000, 0x20800000}},
        {"radio apply", {0x08180000, 0x10680000}},
        {"radio bases", bases},
    };
    for (const auto &f : families) {
        SCOPED_TRACE(f.family);
        for (uint32_t id : f.ids)
            EXPECT_NE(group_by_gid(id), nullptr) << hex(id);
    }
}

TEST(SampleDevice, GroupNamesFollowTheNumbering) {
    auto expect_row = [](const std::string &name, uint32_t gid) {
        const qorcfg_group *row = group_by_name(name.c_str());
        ASSERT_NE(row, nullptr) << name;
        if (gid != 0) {
            EXPECT_EQ(hex(row->gid), hex(gid)) << name;
        }
    };
    expect_row("opmode", 0x08180000);
    for (uint32_t r = 1; r <= 3; ++r) {
        const uint32_t base = radio_base(r - 1);
        const std::string rf = "rf" + std::to_string(r);
        expect_row(rf, base);
        for (uint32_t v = 1; v <= 16; ++v)
            expect_row(rf + "_vap" + std::to_string(v), base + 0x84000 + (v - 1) * 0x4000);
        for (uint32_t k = 1; k <= 8; ++k)
            expect_row(rf + "_wds" + std::to_string(k), base + 0x100000 + k * 0x400);
    }
    for (int n = 0; n <= 16; ++n)
        expect_row("vlan" + std::to_string(n) + "_policy", 0);
    for (int n = 0; n <= 4; ++n)
        expect_row("auth" + std::to_string(n), 0);

    // The radio and VAP group arrays that the wireless helpers index.
    for (int r = 0; r < 3; ++r) {
        const std::string rf = "rf" + std::to_string(r + 1);
        const qorcfg_group *radio = group_by_name(rf.c_str());
        ASSERT_NE(radio, nullptr);
        EXPECT_EQ(hex(gid_rf[r]), hex(radio->gid)) << "gid_rf[" << r << "]";
        for (int v = 0; v < 16; ++v) {
            const std::string name = rf + "_vap" + std::to_string(v + 1);
            const qorcfg_group *vap = group_by_name(name.c_str());
            ASSERT_NE(vap, nullptr);
            EXPECT_EQ(hex(gid_vap[r * 16 + v]), hex(vap->gid)) << "gid_vap[" << r * 16 + v << "]";
        }
    }
}

// ---- the default configuration ---------------------------------------------

TEST(SampleDevice, NamesAndPathsAreUniqueAndResolve) {
    Doc config("/etc/default-config.xml");
    ASSERT_DOC(config);
    std::map<std::string, uint32_t> names;
    std::map<std::string, uint32_t> paths;
    for (qorcfg_group *row : rows()) {
        SCOPED_TRACE(hex(row->gid));
        ASSERT_NE(row->name, nullptr);
        ASSERT_NE(row->path, nullptr);
        const std::string name = row->name;
        const std::string path = row->path;
        EXPECT_FALSE(name.empty());
        // A text holding "qorconfig." is taken as a path when a group is opened.
        EXPECT_EQ(name.find("qorconfig."), std::string::npos) << name;
        EXPECT_TRUE(names.emplace(name, row->gid).second)
            << name << " also names " << hex(names[name]);
        EXPECT_TRUE(paths.emplace(path, row->gid).second)
            << path << " also of " << hex(paths[path]);
        EXPECT_EQ(path.rfind("qorconfig.", 0), 0u) << path;
        ezxml_node *element = walk(config.root(), path);
        EXPECT_NE(element, nullptr) << path << " is not in the configuration";
        if (element == nullptr)
            continue;
        // Opening one group parses only its element, found by text search.
        FILE *fp = std::fopen(config.host_path().c_str(), "rb");
        ASSERT_NE(fp, nullptr);
        ezxml_node *alone = ezxml_parse_fp_by_prefix(fp, row->path);
        std::fclose(fp);
        EXPECT_NE(alone, nullptr) << path << " cannot be parsed alone";
        if (alone != nullptr) {
            EXPECT_STREQ(ezxml_error(alone), "") << path;
            EXPECT_STREQ(alone->name, element->name) << path;
            EXPECT_EQ(attrs(alone), attrs(element)) << path << " parsed alone is another element";
        }
        ezxml_free(alone);
    }
}

TEST(SampleDevice, RootCarriesVersionThenDevtype) {
    Doc config("/etc/default-config.xml");
    ASSERT_DOC(config);
    EXPECT_STREQ(config.root()->name, "qorconfig");
    const auto root = attrs(config.root());
    ASSERT_GE(root.size(), 2u);
    EXPECT_EQ(root[0].first, "version");
    EXPECT_EQ(root[1].first, "devtype");
    // Both go into 16-byte fields of the backup header.
    EXPECT_LT(root[0].second.size(), 16u);
    EXPECT_LT(root[1].second.size(), 16u);
}

TEST(SampleDevice, ItemsExistWhereTheyAreRead) {
    Doc config("/etc/default-config.xml");
    ASSERT_DOC(config);
    auto expect_items = [&](const qorcfg_group *row, const std::string &label,
                            std::initializer_list<const char *> items) {
        SCOPED_TRACE(label);
        ASSERT_NE(row, nullptr) << "no such group";
        ezxml_node *element = walk(config.root(), row->path);
        ASSERT_NE(element, nullptr) << row->path;
        for (const char *item : items)
            EXPECT_NE(ezxml_attr(element, item), nullptr) << row->path << " has no " << item;
    };
    auto by_name = [](const std::string &name) { return group_by_name(name.c_str()); };
    expect_items(by_name("opmode"), "opmode", {"type"});
    for (int r = 1; r <= 3; ++r) {
        const std::string rf = "rf" + std::to_string(r);
        expect_items(by_name(rf), rf,
                     {"state", "roles", "mode", "country", "channel", "outdoor_use"});
        for (int v = 1; v <= 16; ++v) {
            const std::string vap = rf + "_vap" + std::to_string(v);
            expect_items(by_name(vap), vap, {"ssid", "state", "band_steer", "sta_isolate"});
        }
        for (int k = 1; k <= 8; ++k) {
            const std::string wds = rf + "_wds" + std::to_string(k);
            expect_items(by_name(wds), wds, {"state"});
        }
    }
    expect_items(group_by_gid(0x10600000), hex(0x10600000), {"vap_isolate"});
    expect_items(group_by_gid(0x10680000), hex(0x10680000), {"wds_style"});
    expect_items(group_by_gid(0x08080000), hex(0x08080000), {"name", "desc", "location"});
    for (int n = 0; n <= 4; ++n) {
        const std::string auth = "auth" + std::to_string(n);
        expect_items(by_name(auth), auth, {"postfix", "idx"});
    }
    for (int n = 0; n <= 16; ++n) {
        const std::string policy = "vlan" + std::to_string(n) + "_policy";
        expect_items(by_name(policy), policy,
                     {"defauth", "auth0", "auth1", "auth2", "auth3", "auth4"});
    }
}

// An element with "max" holds a variable number of like children, the first
// of which is the template for new ones.
void expect_within_max(ezxml_node *node, const std::string &where) {
    if (const char *max = ezxml_attr(node, "max")) {
        SCOPED_TRACE(where);
        ASSERT_TRUE(is_decimal(max)) << "max=\"" << max << "\"";
        const long limit = std::atol(max);
        ASSERT_NE(node->child, nullptr) << "no template child";
        long count = 0;
        for (ezxml_node *c = ezxml_child(node, node->child->name); c != nullptr; c = c->next)
            ++count;
        EXPECT_LE(count, limit) << node->child->name << " children";
        if (const char *cur = ezxml_attr(node, "cur_num")) {
            EXPECT_TRUE(is_decimal(cur)) << "cur_num=\"" << cur << "\"";
            EXPECT_LE(std::atol(cur), limit) << "cur_num";
        }
    }
    for (ezxml_node *c = node->child; c != nullptr; c = c->ordered)
        expect_within_max(c, where + "." + c->name);
}

TEST(SampleDevice, IndexedElementsStayWithinTheirMax) {
    Doc config("/etc/default-config.xml");
    ASSERT_DOC(config);
    expect_within_max(config.root(), config.root()->name);
}

// ---- the rule file -----------------------------------------------------------

TEST(SampleDevice, RuleFileHasTheConfigurationsShapeAndItsValuesPass) {
    Doc config("/etc/default-config.xml");
    Doc rules("/etc/cfg-rule.xml");
    ASSERT_DOC(config);
    ASSERT_DOC(rules);
    const std::set<std::string> types = {"int",  "string",  "mac",      "ip",        "domain",
                                         "band", "channel", "timezone", "restricted"};
    for (qorcfg_group *row : rows()) {
        SCOPED_TRACE(std::string(row->name) + " " + row->path);
        ezxml_node *element = walk(config.root(), row->path);
        ezxml_node *rule_element = walk(rules.root(), row->path, true);
        EXPECT_NE(rule_element, nullptr) << "not in the rule file";
        if (element == nullptr || rule_element == nullptr)
            continue;
        std::map<std::string, std::string> values;
        std::map<std::string, std::string> rule_texts;
        for (const auto &[name, value] : attrs(element))
            values[name] = value;
        for (const auto &[name, value] : attrs(rule_element))
            rule_texts[name] = value;
        for (const auto &[name, value] : values)
            EXPECT_TRUE(rule_texts.count(name)) << name << " has no rule";
        for (const auto &[name, text] : rule_texts) {
            SCOPED_TRACE(name + "=\"" + text + "\"");
            EXPECT_TRUE(values.count(name)) << "rule for an item the configuration lacks";
            const std::vector<std::string> fields = split(text, "|&|");
            EXPECT_EQ(fields.size(), 4u) << "not name|&|type|&|rule|&|description";
            if (fields.size() != 4)
                continue;
            const std::string &type = fields[1];
            const std::string &rule = fields[2];
            EXPECT_TRUE(types.count(type)) << "unknown type " << type;
            if (!values.count(name))
                continue;
            const std::string &value = values[name];
            if (type == "int") {
                EXPECT_TRUE(is_decimal(value)) << "value \"" << value << "\"";
                EXPECT_TRUE(is_decimal(value) && int_rule_accepts(rule, std::atol(value.c_str())))
                    << value << " outside " << rule;
            } else if (type == "ip" && !value.empty()) {
                EXPECT_TRUE(ip_accepted(value)) << "value \"" << value << "\"";
            } else if (type == "mac" && !value.empty()) {
                EXPECT_TRUE(mac_accepted(value)) << "value \"" << value << "\"";
            }
        }
    }
}

// ---- files and tables ----------------------------------------------------------

TEST(SampleDevice, FilePathsAreAbsoluteAndDistinct) {
    const char *files[] = {config_ram, config_rom, current_config, backup_cfg_file,
                           restored_cfg_file};
    std::set<std::string> seen;
    for (const char *file : files) {
        SCOPED_TRACE(file);
        EXPECT_EQ(file[0], '/');
        EXPECT_TRUE(seen.insert(file).second) << "used twice";
    }
}

template <typename Row, typename Key>
size_t count_rows(const Row *table, Key key) {
    size_t n = 0;
    while (n < kMaxRows && key(table[n]) != 0)
        ++n;
    return n;
}

TEST(SampleDevice, PermissionAndSystemTablesEnd) {
    const size_t users = count_rows(user_table, [](const qorcfg_user &u) { return u.group; });
    const size_t confs = count_rows(conf_perm_table, [](const qorcfg_perm &p) { return p.id; });
    const size_t opers = count_rows(oper_perm_table, [](const qorcfg_perm &p) { return p.id; });
    const size_t items = count_rows(
        sys_item_list, [](const qorcfg_sys_item &s) { return s.name != nullptr ? 1 : 0; });
    for (size_t n : {users, confs, opers, items}) {
        EXPECT_GT(n, 0u);
        EXPECT_LT(n, kMaxRows) << "no terminating row";
    }
    auto named = [](const char *name) { return name != nullptr && name[0] != '\0'; };
    for (size_t i = 0; i < users && i < kMaxRows; ++i)
        EXPECT_TRUE(named(user_table[i].name)) << "user row " << i;
    for (size_t i = 0; i < confs && i < kMaxRows; ++i) {
        EXPECT_TRUE(named(conf_perm_table[i].name)) << hex(conf_perm_table[i].id);
        EXPECT_NE(group_by_gid(conf_perm_table[i].id), nullptr) << hex(conf_perm_table[i].id);
    }
    for (size_t i = 0; i < opers && i < kMaxRows; ++i)
        EXPECT_TRUE(named(oper_perm_table[i].name)) << "operation row " << i;
    for (size_t i = 0; i < items && i < kMaxRows; ++i)
        EXPECT_NE(sys_item_list[i].getter, nullptr) << sys_item_list[i].name;
}

TEST(SampleDevice, InterfaceNames) {
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
    const int refused[][3] = {{0, 0, 0}, {1, 0, 0},  {3, 0, 0},  {-1, 0, 0}, {2, 3, 0},
                              {2, 0, 8}, {2, -1, 0}, {2, 0, -1}, {2, 9, 9}};
    for (const auto &c : refused)
        EXPECT_EQ(get_ifname_by_idx(c[0], c[1], c[2], name), 0)
            << c[0] << "," << c[1] << "," << c[2];
}

// ---- behaviour under a device root ---------------------------------------------

class SampleDeviceFiles : public qorcfg::test::SandboxTest {};

TEST_F(SampleDeviceFiles, SystemItemsReadTheRootsProcFiles) {
    sandbox.write("/proc/uptime", "12345.67 23456.78\n");
    sandbox.write("/proc/loadavg", "0.12 0.34 0.56 1/234 5678\n");
    sandbox.write("/proc/meminfo",
                  "MemTotal:  262144 kB\nMemFree:   131072 kB\nMemAvailable:   196608 kB\n");
    sandbox.write("/proc/sys/kernel/hostname", "ap-lab\n");
    const std::pair<const char *, const char *> cases[] = {{"uptime", "12345"},
                                                           {"load", "0.12 0.34 0.56"},
                                                           {"mem_total", "262144"},
                                                           {"mem_free", "131072"},
                                                           {"hostname", "ap-lab"}};
    auto read_item = [](const char *name) {
        for (size_t i = 0; i < kMaxRows && sys_item_list[i].name != nullptr; ++i) {
            const qorcfg_sys_item &row = sys_item_list[i];
            if (std::strcmp(row.name, name) == 0) {
                char buf[256];
                std::memset(buf, 'x', sizeof buf);
                buf[sizeof buf - 1] = '\0';
                row.getter(row.arg, buf, row.extra);
                return std::string(buf);
            }
        }
        return std::string("<no such row>");
    };
    for (const auto &[name, value] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(read_item(name), value);
    }
    for (const char *file :
         {"/proc/uptime", "/proc/loadavg", "/proc/meminfo", "/proc/sys/kernel/hostname"})
        sandbox.remove(file);
    for (const auto &[name, value] : cases) {
        SCOPED_TRACE(std::string(name) + " without its file");
        EXPECT_EQ(read_item(name), "");
    }
}

TEST_F(SampleDeviceFiles, WdsLinkQueriesReadTheRootsFiles) {
    const std::pair<const char *, int> states[] = {
        {"up\n", 1}, {"dormant\n", 2}, {"down\n", 0}, {"unknown\n", 0}, {"", 0}, {nullptr, 0}};
    for (const auto &[content, alive] : states) {
        SCOPED_TRACE(content != nullptr ? "operstate \"" + std::string(content) + "\"" : "none");
        if (content != nullptr)
            sandbox.write("/sys/class/net/ath1wds2/operstate", content);
        else
            sandbox.remove("/sys/class/net/ath1wds2/operstate");
        EXPECT_EQ(isWDSLinkAlive("ath1wds2"), alive);
    }

    using Query = int (*)(const char *, char *);
    const std::pair<const char *, Query> queries[] = {{"tx_rate", getWDSLinkTxRate},
                                                      {"quality", getWDSLinkQuality},
                                                      {"health", getWDSLinkHealth},
                                                      {"tx_total", getWDSLinkTxTotal},
                                                      {"tx_fail", getWDSLinkTxFail}};
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
            SCOPED_TRACE(std::string(ifname) + " " + queries[q].first);
            char buf[256];
            std::memset(buf, 'x', sizeof buf);
            buf[sizeof buf - 1] = '\0';
            const int filled = queries[q].second(ifname, buf);
            EXPECT_EQ(filled != 0, values[q] != nullptr);
            if (filled != 0 && values[q] != nullptr) {
                EXPECT_STREQ(buf, values[q]);
            }
        }
    }
}

TEST_F(SampleDeviceFiles, RepeaterHooksNameRealItemsAndLeaveTheFilesAlone) {
    Doc config("/etc/default-config.xml");
    ASSERT_DOC(config);
    const std::string text = read_file(config.host_path());
    const char *files[] = {config_ram, config_rom, current_config};
    for (const char *file : files)
        sandbox.write(file, text);

    qorcfg_item *list = set_rep_related();
    EXPECT_NE(list, nullptr);
    for (qorcfg_item *node = list; node != nullptr; node = node->next) {
        const qorcfg_group *row = group_by_gid(static_cast<uint32_t>(node->gid));
        EXPECT_NE(node->value, nullptr);
        EXPECT_TRUE(row != nullptr && node->name != nullptr)
            << hex(static_cast<uint32_t>(node->gid));
        if (row == nullptr || node->name == nullptr)
            continue;
        // The item is the attribute after the last '.' of group path + "." + name.
        const std::string full = std::string(row->path) + "." + node->name;
        const size_t dot = full.rfind('.');
        ezxml_node *element = walk(config.root(), full.substr(0, dot));
        EXPECT_TRUE(element != nullptr && ezxml_attr(element, &full[dot + 1]) != nullptr) << full;
    }
    free_item_list(list);

    leave_rep();
    for (const char *file : files)
        EXPECT_EQ(sandbox.read(file), text) << file;
    EXPECT_FALSE(sandbox.exists("/tmp/sync_config"));
}

}  // namespace
