// tests/wlan/steering_test.cpp - which VAPs get band steering switched on or off after a change,
// the announced channel switch, and client isolation on every VAP.
#include <algorithm>

#include "tests/change/fixture.h"

namespace {

using namespace qorcfg::test;

// Radio 1 (mode `mode1`) and radio 2 (11ac, state `state2`) with 16 VAPs each: the ones given as
// words "RVsSSIDs" (radio, VAP in hex, "+" enabled or "-" not, SSID, band steering "+" or "-"),
// the others disabled with SSIDs of their own and band steering off.
std::string device(const std::string &vaps, const std::string &mode1, const std::string &state2) {
    std::string doc = "<qorconfig version=\"t\" devtype=\"AP\"><wlan>";
    for (int r = 0; r < 2; ++r) {
        doc += "<rf" + std::to_string(r + 1) + " state=\"" + (r ? state2 : "enable") +
               "\" mode=\"" + (r ? "11ac" : mode1) + "\">";
        for (int v = 0; v < 16; ++v) {
            std::string vap = std::to_string(r) + "0123456789abcdef"[v],
                        word = vap + "-" + vap + "-";
            std::istringstream given(vaps);
            for (std::string w; given >> w;)
                word = w.compare(0, 2, vap) == 0 ? w : word;
            const auto state = [](char c) { return c == '+' ? "enable" : "disable"; };
            doc += std::string("<vap state=\"") + state(word[2]) + "\" ssid=\"" +
                   word.substr(3, word.size() - 4) + "\" band_steer=\"" + state(word.back()) +
                   "\"/>";
        }
        doc += "</rf" + std::to_string(r + 1) + ">";
    }
    return doc + "</wlan></qorconfig>";
}

// The settings of a list: "RV+" for band steering "enable" on radio R's VAP V, "RV-" for "disable",
// other items as gid:name=value. The list is freed.
std::string settings(qorcfg_item *list) {
    std::ostringstream out;
    for (qorcfg_item *i = list; i != nullptr; i = i->next) {
        const auto at = std::find(gid_vap, gid_vap + 32, static_cast<uint32_t>(i->gid)) - gid_vap;
        const std::string val = i->value, steer = val == "enable"    ? "+"
                                                  : val == "disable" ? "-"
                                                                     : "";
        if (at < 32 && std::string(i->name) == "band_steer" && !steer.empty())
            out << at / 16 << std::hex << at % 16 << std::dec << steer << " ";
        else
            out << std::hex << i->gid << std::dec << ":" << i->name << "=" << val << " ";
    }
    free_item_list(list);
    return out.str();
}

TEST(Steering, VapsArePairedBySsidAcrossTheTwoBands) {
    const std::string all = "00+Corp+ 10+Corp+ 01+Guest- 12+Five+ 03-Corp+",
                      off = "00- 03- 10- 12- ";
    // Switch; VAPs; radio 1's mode and radio 2's state; changed radio and VAP, new SSID and
    // state; the settings added.
    const std::tuple<const char *, std::string, const char *, const char *, int, int, const char *,
                     const char *, std::string>
        cases[] = {
            {"disable", all, "11ng", "enable", -1, -1, nullptr, nullptr, off},
            {"disable", all, "11ng", "enable", 0, 1, "X", "enable", "01- "},
            {"disable", all, "11ng", "enable", 0, -1, "X", "enable", off},
            {"enable", all, "11na", "enable", -1, -1, nullptr, nullptr, off},  // two 5 GHz radios
            {"enable", all, "11ng", "disable", -1, -1, nullptr, nullptr, off},
            {"enable", all, "11ng", "enable", -1, -1, nullptr, nullptr, "00+ 10+ "},
            // A disabled 5 GHz VAP met while pairing 2.4 GHz VAP i marks 5 GHz VAP i, kept so.
            {"enable", "00+Corp- 02+Guest- 10-x- 11+Other- 12+Corp-", "11ng", "enable", -1, -1,
             nullptr, nullptr, "00+ "},
            {"enable", all, "11ng", "enable", 0, 3, "Corp", "disable", "03- "},
            {"enable", all, "11ng", "enable", 0, 3, "Five", "enable", "03+ 12+ "},
            {"enable", all, "11ng", "enable", 0, 3, "None", "enable", "03- "},
            {"enable", all, "11ng", "enable", 0, 0, "Corp", "disable", "00- 10- "},
            {"enable", all + " 05+Corp-", "11ng", "enable", 0, 0, "Corp", "disable", "00- "},
            // Turning off a 5 GHz VAP marks the 5 GHz VAP of its twin's index, kept so.
            {"enable", "00+Corp+ 10+Other- 14+Corp+", "11ng", "enable", 1, 4, "Corp", "disable",
             "10- 14- "},
            {"enable", all, "11ng", "enable", 0, 0, "New", "enable", "00- 10- "},
            {"enable", all, "11ng", "enable", 0, 0, "Five", "enable", "00+ 10- 12+ "},
            {"enable", all, "11ng", "enable", 0, 0, "Corp", "foo", ""},
        };
    for (const auto &[steer, vaps, mode1, state2, radio, vap, ssid, state, added] : cases) {
        Parsed doc(device(vaps, mode1, state2));
        qorcfg_handle h{.xml = doc.root()};
        EXPECT_EQ(settings(check_vap_band_steering(&h, steer, items("1:x=y").release(), radio, vap,
                                                   ssid, state)),
                  "1:x=y " + added)
            << steer << " " << vaps << " " << radio << "." << vap << " " << (ssid ? ssid : "-")
            << " " << (state ? state : "-");
    }
}

TEST_F(ChangeTest, AChannelSwitchIsAnnouncedOnTheRadiosFirstApInterface) {
    // Radio; the interfaces listed; result; the command run after the listing.
    const std::tuple<int, const char *, int, std::string> cases[] = {
        {2, "ath1ap0\nath1ap1\n", 149, "iwpriv ath1ap0 doth_chanswitch 149 5"},
        {1, "ath0a\n", 149, "iwpriv ath0a doth_chanswitch 149 5"},
        {1, "ath0\n", 0, ""},
        {1, "", 0, ""},
    };
    for (const auto &[radio, listed, rc, command] : cases) {
        sandbox.runner().clear();
        const std::string list =
            "ifconfig | grep ath" + std::to_string(radio - 1) + "ap | awk '{print $1}' ";
        sandbox.answer(list, listed);
        EXPECT_EQ(set_channel_switch(149, 5, radio), rc) << listed;
        std::vector<std::string> run = {list};
        if (!command.empty())
            run.push_back(command);
        EXPECT_EQ(sandbox.commands(), run);
    }
}

TEST_F(ChangeTest, IsolationIsSetOnEveryVapOfBothRadios) {
    std::ostringstream expected;
    for (int i = 0; i < 32; ++i)
        expected << std::hex << gid_vap[i] << ":sta_isolate=enable ";
    EXPECT_EQ(words(Items(set_vap_isolate_related(), &free_item_list).get()), expected.str());
    os::fail_from(Call::alloc, 1, ENOMEM);  // no handle can be opened
    CaptureOutput out(STDOUT_FILENO);
    qorcfg_item *none = set_vap_isolate_related();
    os::reset_faults();
    EXPECT_EQ(out.text(), "Init qorcfg error.");
    EXPECT_EQ(none, nullptr);
}

}  // namespace
