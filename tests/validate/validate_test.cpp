// tests/validate/validate_test.cpp - input validation: the item checks by type (integer lists and
// ranges, patterns and their escapes, addresses, domains, bands and channels against the
// country's allowed channels, time zones, dates), the type pre-check and dispatch, item values
// against the sample device's rule file (every default value among them), and the verification
// of whole groups.
#include <gmock/gmock.h>

#include "platform/device.h"
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;
using ::testing::HasSubstr;

const std::string k32(32, 'n'), k33(33, 'n'), k256(256, 'd'), k257(257, 'd');
const std::string kCannot = "ERROR: This item cannot be set.\n",
                  kType = "ERROR: The type is not correct.\n";

// A one-item list of group `gid`, freed at the end of its scope.
using Items = std::unique_ptr<qorcfg_item, decltype(&free_item_list)>;
Items list(uint32_t gid, const std::string &name, const char *value) {
    return Items(get_new_item(static_cast<int32_t>(gid), name.c_str(), value), &free_item_list);
}

// Check `kind` of value v with `arg`: a type name of cli_cfg_type_list ("int" to "timezone"; arg
// is the rule, "" for none), checked directly and through check_input_validity, which must agree
// (else 1); "date"; "pre" and "type" (pre-check and dispatch of type code arg); "item" (group and
// item, through the rule file); "dev"
// (an item of the device identity, verified directly and through the dispatch, which must agree:
// else 1); "gid" (v: a group ID in hexadecimal, dispatched; -3 shows as -12).
int run(const std::string &kind, const std::string &arg, const char *v) {
    const char *rule = arg.empty() ? nullptr : arg.c_str();
    if (kind == "dev" || kind == "gid") {
        const Items l = kind == "dev" ? list(0x08080000, arg, v)
                                      : list(std::stoul(v, nullptr, 16), "name", "AP");
        const int rc = validate_input(l.get());
        return kind == "gid" ? (rc == -3 ? -12 : rc) : rc == verifySystemDevice(l.get()) ? rc : 1;
    }
    for (const qorcfg_type_entry *t = cli_cfg_type_list; t->code >= 0 && t->code < 8; ++t) {
        const int c = t->code, rc = kind != t->name ? 1
                                    : c == 0        ? qorcfg_item_int_check(rule, v)
                                    : c == 1        ? qorcfg_item_regex_check(rule, v)
                                    : c == 2        ? qorcfg_item_mac_check(v)
                                    : c == 3        ? qorcfg_item_ip_check(v)
                                    : c == 4        ? qorcfg_item_domain_check(v)
                                    : c == 5        ? qorcfg_band_check(v, rule)
                                    : c == 6        ? qorcfg_channel_check(v, rule)
                                                    : qorcfg_item_timezone_check(v);
        if (kind == t->name)
            return rc == check_input_validity(c, v, rule) ? rc : 1;
    }
    const size_t sp = arg.find(' ');
    return kind == "date" ? qorcfg_date_input_validation(v)
           : kind == "item"
               ? input_validation_by_item(arg.substr(0, sp).c_str(), v, arg.substr(sp + 1).c_str())
           : kind == "pre"  ? type_pre_check(std::stoi(arg), v)
           : kind == "type" ? check_input_validity(std::stoi(arg), v, nullptr)
                            : 99;
}

// The values of `candidates` ("|" between them, "''" for the empty value) that `kind` does not
// reject silently with -12, in the same form, each followed by "=result" unless it is 0 and by
// the message it left in err_msg.
std::string passed(const std::string &kind, const std::string &arg, const std::string &candidates) {
    std::string out;
    for (size_t at = 0, end = 0; end != std::string::npos; at = end + 1) {
        const std::string v = candidates.substr(at, (end = candidates.find('|', at)) - at);
        err_msg[0] = '\0';
        if (const int rc = run(kind, arg, v == "''" ? "" : v.c_str()); rc != -12 || *err_msg)
            out += (out.empty() ? "" : "|") + v + (rc ? "=" + std::to_string(rc) : "") + err_msg;
    }
    return out;
}

class Validate : public StoreTest {
protected:
    // The sample rule file and configuration, and country 840.
    void SetUp() override {
        sandbox.write("/etc/cfg-rule.xml", sample("/etc/cfg-rule.xml"));
        install_sample(sandbox);
        sandbox.answer("eval \"`cat ", "840\n");
    }
};

TEST_F(Validate, ValuesAreCheckedByTypeRuleAndItem) {
    const std::string n = "''|-11|-10|-5|-1|0|1|5|5abc|7|20|777|778|2147483647|-2147483648|"
                          "2147483648|4294967296|4294967301|-4294967291|99999999999999999999",
                      dom = std::string(252, 'a') + ".com", file0 = sample("/etc/allowed_channel"),
                      bands = "11a|11b|11g|11bg|11na|11ng|11ac|11B| 11b|''",
                      chans = "auto|1|6|11|12|14|36|165|0|-1|4294967297|abc|''",
                      p = "auto|36|''|Auto|3 6|-5|+5|1.5",
                      covered =
                          "08080000|08100000|10080000|10100000|10100C00|10101000|29000000|18180800|"
                          "18200000|20800000|22000000|20980000|22180000|20884000|2088C000|20890000|"
                          "20884400|20888800|20890C00|22090C00|20900400|20902000|22102000";
    // A check, its argument, the values tried and those let through; the channel file ("": the
    // sample one, null: none).
    const std::tuple<const char *, std::string, std::string, std::string, const char *> rows[] = {
        {"int", "1~10,20", n, "1|5|5abc|7|20", ""},
        {"int", "5~0", n, "5|5abc", ""},  // an upper bound 0 leaves the single number
        {"int", "-10~-1", n, "-10|-5|-1", ""},
        {"int", "4294967297", n, "", ""},  // numbers beyond int range never match by wrapping
        {"int", "9223372036854775807", n, "", ""},
        {"int", "-2147483648~2147483647", n,
         "-11|-10|-5|-1|0|1|5|5abc|7|20|777|778|2147483647|-2147483648", ""},
        {"int", std::string(255, '0') + "~777", n, "0|1|5|5abc|7|20|777", ""},  // 259 characters
        {"int", "5," + std::string(259, '0'), n, "", ""},  // longer than the 260-byte work buffer
        {"string", "b", "abc|b|ac", "abc|b", ""},          // patterns match anywhere
        {"string", "^(enable|disable)$", "enable|disabled|xdisablex", "enable", ""},
        {"string", "^a[\\x2e]c$", "a.c|abc", "a.c", ""},  // an escape stands for its character
        {"string", "^a\\x2ec$", "abc|a.c|ac", "abc|a.c", ""},
        {"string", "a{2,1}", "aa|a", "", ""},
        {"mac", "",
         "00:1b:21:3A:4f:10|00-1B-21-3a-4f-10|001b213a4f10|x00:1b:21:3a:4f:10y|00:1b:21:3a:4f|''",
         "00:1b:21:3A:4f:10|00-1B-21-3a-4f-10|001b213a4f10|x00:1b:21:3a:4f:10y", ""},
        {"ip", "",
         "1.2.3.4|255.255.255.255|001.002.003.004|1.2.3.256|1.2.3|1.2.3.4.5|192.168.100.1001",
         "1.2.3.4|255.255.255.255|001.002.003.004", ""},
        {"domain", "",
         "a.b|-x.y_z|a..b|.a.b|a.b.|a|a.|e x.c|e@x|a(b).c|a\\b.c|a]b.c|a\"b.c|a<b.c|a;b|''",
         "a.b|-x.y_z|a..b|.a.b|a.b.", ""},  // labels may hold dots
        {"domain", "", dom + "|a" + dom, dom, ""},
        {"band", "", bands, "11a|11b|11g|11bg|11na|11ng", ""},
        {"band", "^(11ac|6)$", bands, "11ac", ""},
        {"band", "", bands, "11a|11g|11ng", "c840_11a='36'\nc840_11g='1'\nc840_11ng='1'\n"},
        {"band", "^11a$", bands, "11b|11g|11bg", nullptr},
        {"channel", "", chans, "auto|1|6|11|36|165", ""},
        {"channel", "^(11ac|6)$", chans, "6", ""},
        {"channel", "", chans, "auto|1", "c840_11na='36'\nc840_11ng='6'\nc840_11g='1'\n"},
        {"channel", "^1$", chans, chans, nullptr},
        {"timezone", "", "Europe/Amsterdam|europe/amsterdam|Europe|''", "Europe/Amsterdam", ""},
        {"date", "",
         "2026.01.01-00:00:00|2026.13.99-99:99:99|2026.1.01-00:00:00|x2026.01.01-00:00:00|''",
         "2026.01.01-00:00:00|2026.13.99-99:99:99", ""},
        {"pre", "6", p, "auto|36|''|Auto=-1|3 6=-1|-5=-1|+5=-1|1.5=-1", ""},
        {"pre", "0", p, "auto=-1|36|''|Auto=-1|3 6=-1|-5|+5=-1|1.5=-1", ""},
        {"pre", "8", "x|''", "x=-2|''=-2", ""},
        {"pre", "1", p, p, ""},
        {"type", "8", "x|''|11b", "", ""},
        {"type", "-1", "x|''", "", ""},
        {"item", "sys_device name", "AP-Lab.02|AP/Lab|" + k32 + "|" + k33, "AP-Lab.02|" + k32, ""},
        {"item", "mgmt_accounts max", "8|''", "8=-12" + kCannot + "|''=-12" + kCannot, ""},
        {"item", "mgmt_accounts cur_num", "1 2|8|0|-1|9", "1 2=-12" + kType + "|8|0", ""},
        {"item", "mgmt_accounts account:1.group", "guest|root", "guest", ""},
        {"item", "mgmt_accounts nosuch", "x", "", ""},
        {"item", "no_such_group name", "AP", "", ""},
        {"item", "rf1 mode", "11ng|11a|11x", "11ng|11a", ""},
        {"item", "rf1 channel", "11|auto|12|6a", "11|auto|6a=-12" + kType, ""},
        {"item", "sys_time timezone", "Asia/Tokyo|(GMT+09:00)Seoul", "Asia/Tokyo", ""},
        {"dev", "name", "''|AP|" + k32 + "|" + k33, "''|AP|" + k32 + "|" + k33 + "=-5", ""},
        {"dev", "desc", k256 + "|" + k257, k256 + "|" + k257 + "=-5", ""},
        {"dev", "location", k256 + "|" + k257, k256 + "|" + k257 + "=-5", ""},
        {"gid", "", covered, covered, ""},
        {"gid", "",
         "0|20894000|20902400|20880000|20891000|08080001|10101400|22800000|A0800000|FFFFFFFF", "",
         ""}};
    for (const auto &[kind, arg, candidates, want, channels] : rows) {
        channels ? sandbox.write("/etc/allowed_channel", *channels ? channels : file0.c_str())
                 : sandbox.remove("/etc/allowed_channel");
        EXPECT_EQ(passed(kind, arg, candidates), want) << kind << " " << arg.substr(0, 40);
    }
    EXPECT_EQ(stderr_of([] { EXPECT_EQ(passed("dev", "Name", "x"), "x=-4"); }),
              "<error>Invalid item Name\n<error>Invalid item Name\n");
    EXPECT_EQ(verifyWlanMacacl(list(0x08080000, "bogus", k257.c_str()).get()), 0);
    const std::string esc = "a.b ~AZ\\x41\\n\\";  // each escape once, other backslashes kept
    char *out = parse_ascii_esc_seq("a\\x2eb\\x20\\x7e\\x41\\x5a\\x5cx41\\n\\");
    EXPECT_EQ(std::string(out, 1000), esc + std::string(1000 - esc.size(), '\0'));  // zeroed
    std::free(out);
    int z = 0;  // every zone name passes, no label does; a null row ends the 68
    for (; zone_info[z].name != nullptr; ++z)
        EXPECT_EQ(passed("timezone", "", std::string(zone_info[z].name) + "|" + zone_info[z].label),
                  zone_info[z].name);
    EXPECT_EQ(std::to_string(z) + zone_info[67].name + (zone_info[z].label ? "" : "."),
              "68Etc/GMT+12.");
    sandbox.remove("/etc/cfg-rule.xml");  // then every value passes, with a message
    CaptureOutput err(STDERR_FILENO);
    EXPECT_EQ(passed("item", "sys_device name", "<bad>") + passed("item", "a b", "x"), "<bad>x");
    EXPECT_THAT(err.text(), HasSubstr("ERROR: Fail to init configuration file.\n"));
}

TEST_F(Validate, AnUnknownEscapeEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(std::free(parse_ascii_esc_seq("a\\x2Eb")), ::testing::ExitedWithCode(1),
                HasSubstr("Unknow ascii code.\n"));
    for (const char *pattern : {"^a\\x2Eb$", "\\x7f", "x\\x1f", "\\xzz", "\\x4A"})
        EXPECT_EXIT(qorcfg_item_regex_check(pattern, "a.b"), ::testing::ExitedWithCode(1),
                    HasSubstr("Unknow ascii code.\n"))
            << pattern;
}

TEST_F(Validate, EveryDefaultValueOfTheSampleDevicePasses) {
    sandbox.write("/etc/default-config.xml", sample("/etc/default-config.xml"));
    sandbox.write("/etc/allowed_channel", sample("/etc/allowed_channel"));
    const Handle defaults = open_file("/etc/default-config.xml");
    std::string failures;
    int checked = 0;
    const auto check = [&](const std::string &g, const std::string &i, const std::string &type) {
        char value[256] = "";
        if (type == "restricted")
            return;
        EXPECT_EQ(get_cfg_item_by_str_direct(defaults.get(), g.c_str(), i.c_str(), value), 0) << i;
        if (++checked, input_validation_by_item(g.c_str(), value, i.c_str()) != 0)
            failures += g + " " + i + "=\"" + value + "\"\n";
    };
    for (const qorcfg::device::Group &g : qorcfg::device::groups()) {
        for (const qorcfg::device::Item &i : g.items)
            check(g.name, i.name, i.type);
        for (const qorcfg::device::List &l : g.lists)  // list entries as "tag:N.item"
            for (int n = 0; n < l.count; ++n)
                for (const qorcfg::device::Item &i : l.items)
                    check(g.name, l.tag + ":" + std::to_string(n) + "." + i.name, i.type);
    }
    EXPECT_EQ(failures, "");
    EXPECT_GT(checked, 300);
}

}  // namespace
