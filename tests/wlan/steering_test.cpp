// tests/wlan/steering_test.cpp - which VAPs get band steering switched on or off after a change,
// the announced channel switch, and client isolation on every VAP.
#include <map>

#include "tests/change/fixture.h"

namespace {

using namespace qorcfg::test;

// Radio 1 (enabled) and radio 2 (11ac) with 16 VAPs each: those given as words
// "RVsSSIDb" (radio, VAP in hex, "+" enabled or "-" not, SSID, band steering "+" or "-"), the
// others disabled with SSIDs of their own and band steering off.
std::string device(const std::string &vaps, const std::string &mode1, const std::string &state2) {
    std::map<int, std::string> given;
    std::istringstream in(vaps);
    for (std::string w; in >> w;)
        given[std::stoi(w.substr(0, 2), nullptr, 16)] = w.substr(2);
    const auto on = [](char c) { return c == '+' ? "\"enable\"" : "\"disable\""; };
    std::string doc = "<qorconfig><wlan><rf1 state=\"enable\" mode=\"" + mode1 + "\">";
    for (int n = 0; n < 32; ++n) {
        const std::string vap = given.count(n) ? given[n] : "-" + std::to_string(n) + "-";
        doc += (n == 16 ? "</rf1><rf2 state=\"" + state2 + "\" mode=\"11ac\">" : "") +
               "<vap state=" + on(vap[0]) + " ssid=\"" + vap.substr(1, vap.size() - 2) +
               "\" band_steer=" + on(vap.back()) + "/>";
    }
    return doc + "</rf2></wlan></qorconfig>";
}

TEST(Steering, VapsArePairedBySsidAcrossTheTwoBands) {
    const std::string all = "00+Corp+ 10+Corp+ 01+Guest- 12+Five+ 03-Corp+",
                      off = "00- 03- 10- 12-";
    // Switch, radio 1's mode, radio 2's state, changed radio and VAP, new SSID and state ("-":
    // none); VAPs; the settings added ("RV+" or "RV-": band steering on or off on radio R's VAP V).
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"disable 11ng enable -1 -1 - -", all, off},
        {"disable 11ng enable 0 1 X enable", all, "01-"},
        {"enable 11na enable -1 -1 - -", all, off},  // two 5 GHz radios
        {"enable 11ng disable -1 -1 - -", all, off},
        {"enable 11ng enable -1 -1 - -", all, "00+ 10+"},
        // A disabled 5 GHz VAP met while pairing 2.4 GHz VAP i marks 5 GHz VAP i, kept so.
        {"enable 11ng enable -1 -1 - -", "00+Corp- 02+Guest- 10-x- 11+Other- 12+Corp-", "00+"},
        {"enable 11ng enable 0 3 Corp disable", all, "03-"},  // VAP 0 keeps the twin
        {"enable 11ng enable 0 0 Corp disable", all, "00- 10-"},
        // Turning a 5 GHz VAP off marks the 5 GHz VAP at its twin's index, kept so.
        {"enable 11ng enable 1 4 Corp disable", "00+Corp+ 10+Other- 14+Corp+", "10- 14-"},
        {"enable 11ng enable 0 0 New enable", all, "00- 10-"},
        {"enable 11ng enable 0 0 Five enable", all, "00+ 10- 12+"},
        {"enable 11ng enable 0 0 Corp other", all, ""},
    };
    for (const auto &[given, vaps, added] : cases) {
        std::istringstream in(given), settings(added);
        std::string steer, mode1, state2, ssid, state;
        int radio = 0, vap = 0;
        in >> steer >> mode1 >> state2 >> radio >> vap >> ssid >> state;
        std::ostringstream expected;
        for (std::string w; settings >> w;)
            expected << std::hex << gid_vap[std::stoi(w.substr(0, 2), nullptr, 16)]
                     << ":band_steer=" << (w[2] == '+' ? "enable " : "disable ");
        Parsed doc(device(vaps, mode1, state2));
        qorcfg_handle h{.xml = doc.root()};
        Items list(check_vap_band_steering(&h, steer.c_str(), items("1:x=y").release(), radio, vap,
                                           ssid == "-" ? nullptr : ssid.c_str(),
                                           state == "-" ? nullptr : state.c_str()),
                   &free_item_list);
        EXPECT_EQ(words(list.get()), "1:x=y " + expected.str()) << given << " " << vaps;
    }
}

TEST_F(ChangeTest, AChannelSwitchIsAnnouncedOnTheRadiosFirstApInterface) {
    // Radio; the interfaces listed; result; the command run after the listing.
    const std::tuple<int, const char *, int, std::string> cases[] = {
        {2, "ath1ap0\nath1ap1\n", 149, "iwpriv ath1ap0 doth_chanswitch 149 5"},
        {1, "ath0a\n", 149, "iwpriv ath0a doth_chanswitch 149 5"},
        {1, "ath0\n", 0, ""},
        {1, "", 0, ""}};
    for (const auto &[radio, listed, rc, command] : cases) {
        sandbox.runner().clear();
        const std::string list =
            "ifconfig | grep ath" + std::to_string(radio - 1) + "ap | awk '{print $1}' ";
        sandbox.answer(list, listed);
        EXPECT_EQ(set_channel_switch(149, 5, radio), rc) << listed;
        EXPECT_EQ(sandbox.commands(),
                  (command.empty() ? std::vector{list} : std::vector{list, command}));
    }
}

TEST_F(ChangeTest, IsolationIsSetOnEveryVapOfBothRadios) {
    std::ostringstream expected;
    for (int i = 0; i < 32; ++i)
        expected << std::hex << gid_vap[i] << ":sta_isolate=enable ";
    EXPECT_EQ(words(Items(set_vap_isolate_related(), &free_item_list).get()), expected.str());
    os::fail_from(Call::alloc, 1, ENOMEM);  // no handle can be opened
    CaptureOutput out(STDOUT_FILENO);
    EXPECT_EQ(set_vap_isolate_related(), nullptr);
    os::reset_faults();
    EXPECT_EQ(out.text(), "Init qorcfg error.");
}

}  // namespace
