// tests/apply/apply_test.cpp - the apply driver (access lock, sync record, marker file, current
// configuration, VAP lists, daemons and apply flags), the commands of every group of the service
// table, the radio and VAP restarts, and the system actions and items.
#include <map>
#include <set>

#include "tests/change/fixture.h"

namespace {

using namespace qorcfg::test;

uint32_t *const kFlags[] = {&apply_rf0,    &apply_rf1,    &apply_rf2,
                            &apply_rf0vap, &apply_rf1vap, &apply_rf2vap};
const std::string kRc = "/etc/rc.d/rc.";  // written "~" in the expected command lines

// The command lines ("|" between them) that restart radio r of a device of `type` whose radio has
// `roles` ("wds_style" readable when `style`): the VAP apply of `list`, or the radio apply when
// there is no list.
std::string restart(int r, const char *list, const std::string &type = "AP",
                    const std::string &roles = "ap", bool style = true) {
    const std::string n = std::to_string(r), q = list ? " \"" + std::string(list) + "\"" : "";
    const bool vap = list != nullptr, cpe = r == 0 && type == "CPE";
    const bool wds = roles.find("wds") != roles.npos, rep = roles.find("rep") != roles.npos;
    std::string c = "~mgnt stop_workaround";
    const auto step = [&c](bool when, const std::string &line) { c += when ? "|" + line : ""; };
    step(cpe, "~net stop_wan");
    step(true, vap ? "~wlan apply_vap_para \"" + n + "\"" + q : "~wlan renew_rf_para " + n);
    step(wds,
         (style ? "~bonding restart|~bridge reset_wds bonding|" : "") + ("~bridge reset_wds " + n));
    step(rep, "~bridge reset_rep " + n + (vap ? "" : "|~wlan start_hostapd " + n));
    step(vap, "~bridge update_vap_bridge " + n + q +
                  (r == 0 && type == "GW" ? "|~net restart_lan" : ""));
    step(vap || cpe, "~wlan start_hostapd " + n);
    step(r == 0, cpe ? "~net start_wan" : "~net check_dhcpc");
    step(true, "~mgnt start_workaround");
    step(vap, "~split_tunnel start; ~split_tunnel set_dnat_mac");
    return c;
}

// The sample device, no radio applied yet.
class ApplyTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        sandbox.write(config_ram, sample("/conf/config.xml"));
        h = open_file(config_ram);
    }
    static uint32_t base(int r) { return 0x20800000u + static_cast<uint32_t>(r) * 0x800000u; }
    // The six apply flags (radios 0, 1, 2, then their VAPs) as digits, first set from `value`.
    static std::string flags(const char *value = "") {
        std::string out;
        for (size_t i = 0; i < 6; ++i)
            out += std::to_string(*kFlags[i] =
                                      *value ? static_cast<uint32_t>(value[i] - '0') : *kFlags[i]);
        return out;
    }
    // Attribute `name` of the element at "qorconfig.<path>" in the handle's tree.
    void set(const std::string &path, const char *name, const char *value) {
        ezxml_set_attr(element_at(h->xml, "qorconfig." + path), name, value);
    }
    // The command lines run, "|" between them.
    std::string ran() const {
        std::string out;
        for (const std::string &line : sandbox.commands())
            out += (out.empty() ? "" : "|") + line;
        for (size_t at; (at = out.find(kRc)) != std::string::npos;)
            out.replace(at, kRc.size(), "~");
        return out;
    }
    Handle h{nullptr, &close_qorcfg};
};

TEST_F(ApplyTest, ApplyRunsTheRecordUnderTheAccessLockThenClearsItAndTellsTheDaemons) {
    const std::string end = "#101 103 #000000#++", radio = "#101 102 103 #000000#+++";
    // Disturbance (1: another holder of the access lock, 2: the current configuration cannot be
    // written), sync record (hexadecimal group IDs after the flag; none when empty), apply flags
    // 001000 before (radio 2's radio-level flag, which no case consults: it shows whether the
    // flags were cleared); result, files left ("saved": the tree is the current configuration),
    // "error" when the failing group was reported; command lines, daemons signalled, apply flags,
    // and per signal
    // "+" when the access lock was free.
    const std::tuple<int, std::string, std::string> cases[] = {
        {1, "0 8080000", "1 record###001000#"},
        {0, "", "-7 applying###001000#"},
        {2, "0 8080000", "-7 applying record###001000#"},
        {0, "1 8080000 8080000", "0 saved#~led Light|~led Light" + end},
        {0, "0 22180000", "0 saved#~wlan restart 3" + radio},
        {0, "0 10200800 8100000", "-3 saved error#~systime setup_time" + end},
        {0, "0", "0 saved##101 103 #001000#++"},
        {0, "0 20884000 21084400 21884000",
         "0 saved#" + restart(0, "0 16 ") + "|" + restart(1, "0 ") + "|" + restart(2, "") + radio},
        {0, "0 20885000 21088400 2088c800 208c0400",
         "0 saved#" + restart(0, "0 2 15 ") + "|" + restart(1, "1 ") + radio},
        {0, "0 21884000 21084000 21084800 20800000 20900400",
         "0 saved#" + restart(2, "") + "|" + restart(1, "0 ") + "|" + restart(0, nullptr) + radio},
    };
    for (const auto &[disturb, record, want] : cases) {
        SetUp();
        set("wlan.rf3", "state", "enable");
        std::istringstream in(record);
        std::string text, free_at_kill;
        for (uint32_t gid = 0; in >> std::hex >> gid;)
            text += std::to_string(gid) + "\n";
        text.empty() ? sandbox.remove(kSyncRecord) : sandbox.write(kSyncRecord, text);
        sandbox.remove(current_config);
        if (disturb == 2)
            sandbox.mkdir(current_config);
        const int held = disturb == 1 ? lock_qorcfg(6, LOCK_EX) : -1;
        os::set_call_hook([&](Call kind, unsigned) {
            if (kind == Call::kill)
                free_at_kill += locks(sandbox).find("access_lock(") == 0 ? "-" : "+";
        });
        flags("001000");
        CaptureOutput out(STDOUT_FILENO), err(STDERR_FILENO);
        const int rc = apply_cfg(h.get());
        const std::string printed = out.text() + err.text();
        const bool error = printed.find("<error>apply_cfg_group gid 270534656\n") != printed.npos;
        os::set_call_hook(nullptr);
        if (held >= 0)
            unlock_qorcfg(held);
        EXPECT_EQ(std::to_string(rc) + (sandbox.exists("/tmp/applying") ? " applying" : "") +
                      (sandbox.read(kSyncRecord) == text && !text.empty() ? " record" : "") +
                      (sandbox.read(current_config) == xml_of(h->xml) ? " saved" : "") +
                      (error ? " error" : "") + "#" + ran() + "#" + signalled() + "#" + flags() +
                      "#" + free_at_kill,
                  want);
    }
}

TEST_F(ApplyTest, EveryGroupRunsItsCommandsOnEachDeviceAndNoOtherGroupIsAccepted) {
    char lists[3][256] = {"1 ", "2 3 ", "4 "};
    // The values live as long as the trees that point to them.
    std::string type, roles, style, reboot, state, variant;
    // First group ID, count, step (hexadecimal but the count); restart flag and command lines.
    const std::string rows =
        "8080000 1 0 0 ~led Light;8100000 1 0 0 ~systime setup_time;8180000 1 0 0 ;"
        "8200000 1 0 0 ~mgnt restart_crond;10080000 1 0 0 ~net setup_dns|~bridge restart|"
        "~net restart_wan|/sbin/firewall_mod.sh BWC;10100000 1 0 0 ~bridge restart|~net "
        "restart_wan|~wlan start_hostapd;10200000 1 0 0 ~net restart_lan;10200400 1 0 0 "
        "/etc/rc.d/udhcpd.sh br0 restart;10280400 1 0 0 /sbin/firewall_mod.sh URLF;10280800 1 0 "
        "0 /sbin/firewall_mod.sh DMZ;10280c00 1 0 0 /sbin/firewall_mod.sh RED;10300000 1 0 0 "
        "/sbin/firewall_mod.sh UPNP;10380000 1 0 0 ~ddns &;10500000 1 0 0 /etc/rc.d/bfirewall.sh;"
        "10580000 1 0 0 ;10600000 1 0 0 /etc/rc.d/DAI.sh restart;18100000 1 0 0 ~mgnt "
        "restart_syslog;18300000 2 400 0 ~mgnt restart_syslog;18380400 1 0 0 ~mgnt restart_syslog;"
        "18180400 1 0 0 ~mgnt restart_snmp|~mgnt restart_syslog;18280000 1 0 0 ~mgnt "
        "restart_agent;18500000 1 0 0 /ramfs/bin/smtp_redir.sh;18580000 1 0 0 ~mgnt write_mgmtip;"
        "18600000 1 0 0 ~mgnt restart_wes;18780000 1 0 0 ~mgnt debug;29888800 4 4000 0 ~radius "
        "write_map;29898000 2 400 0 ~mgnt reload_ether_print;29984000 10 400 0 ~mgnt "
        "restart_ether_print;29a84000 6 400 0 ~mgnt write_blacklist;29b04000 1 0 0 "
        "/ramfs/bin/ip_pass.sh;29b08000 1 0 0 /ramfs/bin/mac_pass.sh;30042800 17 2000 0 "
        "/ramfs/bin/session_limit.sh;22000000 2 180000 1 ~wlan restart 3;18080000 3 400 0 ;"
        "18380000 1 0 0 ;29880000 1 0 0 ;30042c00 17 2000 0 ;22100400 8 400 0 ";
    // Device type, roles of every radio, "wds_style" readable (1) or not, "/tmp/rf_need_reboot"
    // (the first line; 1 asks for a reboot), state of radio 2.
    std::istringstream variants(
        "AP ap 1 x enable;CPE ap,wds,rep 0 0 disable;GW ap,wds 1 2 enable;CPE ap,rep 1 1 enable;"
        "AP rep 1 x disable");
    while (std::getline(variants, variant, ';')) {
        SetUp();
        std::istringstream(variant) >> type >> roles >> style >> reboot >> state;
        for (const char *rf : {"wlan.rf1", "wlan.rf2", "wlan.rf3"})
            set(rf, "roles", roles.c_str());
        set("wlan.rf3", "state", state.c_str());
        set("system.opmode", "type", type.c_str());
        set("network.wds_bond", "wds_style", style == "1" ? "bonding" : nullptr);
        sandbox.write("/tmp/rf_need_reboot", reboot + "\n");
        std::map<uint32_t, std::string> want;  // result, restart flag, command lines#apply flags
        const auto add = [&want](uint32_t gid, int count, uint32_t step, const std::string &run) {
            for (int i = 0; i < count; ++i)
                want[gid + static_cast<uint32_t>(i) * step] = run;
        };
        std::istringstream table(rows);
        for (std::string row; std::getline(table, row, ';');) {
            unsigned gid = 0, step = 0;
            int count = 0, at = 0;
            ASSERT_EQ(std::sscanf(row.c_str(), "%x %d %x %n", &gid, &count, &step, &at), 3) << row;
            add(gid, count, step, "0 " + std::string(row.c_str() + at) + "#000000");
        }
        for (int r = 0; r < 3; ++r) {
            const auto run = [&](const char *list) {  // a reboot mark stops it once handed on
                std::string c = restart(r, list, type, roles, style == "1"), applied = "000000";
                applied[static_cast<size_t>(list ? 3 + r : r)] = reboot == "1" ? '0' : '1';
                c.resize(reboot == "1" ? c.find('|', c.find("_para ")) : c.size());
                return (reboot == "1" ? "-17 0 " : "0 1 ") + c + "#" + applied;
            };
            for (uint32_t s : {0x84000u, 0x84400u, 0x84800u, 0x85000u, 0x200000u, 0x204000u,
                               0x280000u, 0x284000u})
                add(base(r) + s, s < 0x100000 ? 16 : 1, 0x4000,
                    r == 2 && state != "enable" ? "0 0 #000000" : run(lists[r]));
            add(base(r), 1, 0, run(nullptr));
            add(base(r) + 0x100400, 8, 0x400, want[base(r)]);
            add(base(r) + 0x300000, 4, 0x400,
                "0 0 " + (r < 2 ? "~wlan configure_wme " + std::to_string(r) : "") + "#000000");
        }
        want[0x20a04400] = want[0x20a00000];
        EXPECT_EQ(want.size(), 343u);
        std::set<uint32_t> gids = {0x22300000, 0x22084000, 0x10200800, 0, 0xffffffffu};
        for (const auto &entry : want)
            for (uint32_t d : {0u, 0x400u, 0x4000u})
                gids.insert({entry.first + d, entry.first - d});
        for (const qorcfg_group *g = group_table; g->gid != 0; ++g)
            gids.insert(g->gid);
        for (uint32_t gid : gids) {
            flags("000000");
            sandbox.runner().clear();
            uint32_t restarted = 0;
            const int rc = apply_cfg_group(h.get(), gid, &restarted, lists);
            EXPECT_EQ(
                std::to_string(rc) + " " + std::to_string(restarted) + " " + ran() + "#" + flags(),
                want.count(gid) ? want[gid] : "-3 0 #000000")
                << std::hex << gid << " " << variant;
        }
    }
}

TEST_F(ApplyTest, SystemActionsRunTheirCommandsAndSystemItemsComeFromThePlatformTable) {
    sandbox.answer(kRc + "mgnt restart_syslogd", "", 3);
    sandbox.write("/proc/sys/kernel/hostname", "ap-lab\n");
    char known[QORCFG_VALUE_SIZE] = "junk", unknown[QORCFG_VALUE_SIZE] = "junk";
    EXPECT_EQ(std::vector<int>({apply_sys(0), apply_sys(1), apply_sys(2), apply_sys(3),
                                apply_sys(4), get_sys_item("hostname", known),
                                get_sys_item("host", unknown), get_sys_item("hostname ", nullptr)}),
              std::vector<int>({-1, 3, 0, 0, -1, 0, -4, -4}));
    EXPECT_EQ(ran() + "|" + known + "|" + unknown,
              "(sleep 5;reboot)&|~mgnt restart_syslogd|~net check_dhcpc|/sbin/logread > "
              "/tmp/syslog_messages|ap-lab|");
}

}  // namespace
