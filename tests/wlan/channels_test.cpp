// tests/wlan/channels_test.cpp - the country code, the allowed-channel table and the DFS
// channels: from the sample device's country and channel files, odd channel files, and the
// driver's channel list (captured output under fixtures/).
#include "wlan/channels.h"
#include "tests/support/fixture_files.h"
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

// A list as its channels, " " after each, up to the end marker ("-" when it has none).
std::string text_of(const uint32_t *list, size_t entries = 32) {
    std::string out;
    for (size_t i = 0; i < entries; ++i) {
        if (list[i] == QORCFG_CHAN_END)
            return out;
        out += std::to_string(list[i]) + " ";
    }
    return out + "-";
}

class Channels : public StoreTest {
protected:
    void SetUp() override {
        install_sample(sandbox);
        sandbox.write("/etc/allowed_channel", sample("/etc/allowed_channel"));
    }
    void country(const std::string &code) { sandbox.answer("eval \"`cat ", code + "\n"); }
};

TEST_F(Channels, AllowedChannelsComeFromTheCountrysLinesOnly) {
    const std::string sample_file = sample("/etc/allowed_channel");
    // Country code answer, channel file (none: missing); result, country, lists "a", "ng",
    // "spare", "ac80" and every list's emptiness, messages.
    const std::tuple<std::string, const char *, std::string> cases[] = {
        {"840", sample_file.c_str(),
         "0 840|36 40 44 48 52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 144 149 153 "
         "157 161 165 |1 2 3 4 5 6 7 8 9 10 11 ||36 40 44 48 52 56 60 64 100 104 108 112 116 120 "
         "124 128 132 136 140 144 149 153 157 161 |"},
        {"999", sample_file.c_str(), "0 999|||||"},
        {"", sample_file.c_str(), "0 0|||||"},
        {"840", "c840_11ng='1 2'\nc840_11ng='3'\nc840_11a=''\nc840_11ac80='36 40'x\nc84_11a='1'\n",
         "0 840||3 ||36 40 |"},
        {"840", "c840_11ng='1'\nc840_11x='1 2'\nc840_11a='36'\n",
         "-1 840||1 |||unknown channel group : x\n"},
        {"840", nullptr, "-1 840|junk|junk|junk|junk|Can't open the channel list!!\n"},
    };
    for (const auto &[code, file, want] : cases) {
        country(code);
        file != nullptr ? sandbox.write("/etc/allowed_channel", file)
                        : sandbox.remove("/etc/allowed_channel");
        qorcfg_chan_table t;
        for (uint32_t *list : {t.ch_11a, t.ch_11ng, t.spare, t.ch_11ac80})
            list[0] = 7, list[1] = QORCFG_CHAN_END;
        CaptureOutput err(STDERR_FILENO);
        const int rc = get_allowed_ch(&t);
        std::string got =
            std::to_string(rc) + " " + std::to_string(static_cast<int>(t.country_code));
        for (const uint32_t *list : {t.ch_11a, t.ch_11ng, t.spare, t.ch_11ac80})
            got += "|" + (list[0] == 7 ? std::string("junk") : text_of(list));
        EXPECT_EQ(got + "|" + err.text(), want) << (file ? file : "(no file)");
    }
    // A country that names no variable of the country file never reaches the shell.
    std::string working = sample("/conf/config.xml");
    working.replace(working.find("country=\"US\""), 12, "country=\"US;reboot\"");
    sandbox.write(config_ram, working);
    sandbox.runner().clear();
    EXPECT_EQ(get_country_code(0), -1);
    EXPECT_EQ(sandbox.commands().size(), 0u);
    // Forty channels on one line: the list keeps 31 and its end marker.
    std::string many = "c840_11a='";
    for (int c = 1; c <= 40; ++c)
        many += std::to_string(c) + (c < 40 ? " " : "'\n");
    qorcfg_chan_table t;
    std::string unknown;
    t.country_code = 840;
    ASSERT_TRUE(qorcfg::wlan::fill_allowed(many, t, unknown));
    EXPECT_EQ(text_of(t.ch_11a).size(), std::string("1 2 3 4 5 6 7 8 9 ").size() + 22 * 3);
    EXPECT_EQ(t.ch_11a[31], QORCFG_CHAN_END);
}

TEST_F(Channels, DfsChannelsComeFromTheFileElseFromTheRadiosDriver) {
    const std::string five = fixture("wlan/fixtures/wlanconfig_list_chan_5g.txt"),
                      two = fixture("wlan/fixtures/wlanconfig_list_chan_2g.txt");
    // Country code, radio 0's and radio 1's channel lists (by their interfaces' list commands);
    // result, channels, commands after the country's.
    const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
        {"840", "", "", "16 52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 144 "},
        {"484", five, "", "4 52 56 100 104 -|wlanconfig ath0ap0 list chan"},
        {"484", two, five,
         "4 52 56 100 104 -|wlanconfig ath0ap0 list chan|wlanconfig ath1ap0 list chan"},
        {"484", two, two, "-1 |wlanconfig ath0ap0 list chan|wlanconfig ath1ap0 list chan"},
    };
    for (const auto &[code, radio0, radio1, want] : cases) {
        sandbox.runner().clear();
        country(code);
        sandbox.answer("wlanconfig ath0ap0 list chan", radio0);
        sandbox.answer("wlanconfig ath1ap0 list chan", radio1);
        uint32_t buf[32];
        std::fill(std::begin(buf), std::end(buf), 7u);
        const int n = get_DFS_ch(buf);
        std::string got = std::to_string(n) + " " +
                          (n > 0 ? text_of(buf, static_cast<size_t>(n) + (code == "840")) : "");
        for (const std::string &line : sandbox.commands())
            if (!line.starts_with("eval"))
                got += "|" + line;
        EXPECT_EQ(got, want) << code;
    }
    // Radio 0 disabled: a temporary interface lists the channels and is removed again.
    set_all_net_qorcfg_mode(0);
    std::string current = sample("/etc/default-config.xml");
    current.replace(current.find("<rf1 state=\"enable\""), 19, "<rf1 state=\"disable\"");
    sandbox.write(current_config, current);
    sandbox.runner().clear();
    sandbox.answer("wlanconfig ath0 list chan", five);
    uint32_t buf[32];
    EXPECT_EQ(get_DFS_ch(buf), 4);
    EXPECT_EQ(sandbox.commands().back(), "wlanconfig ath0 destroy");
}

TEST(ChannelText, ConvertAndTheCountryFilesAnswer) {
    uint32_t list[8];
    char empty[] = "", three[] = "36  40 x44";
    convert_ch(empty, list);
    EXPECT_EQ(text_of(list, 8), "0 ");
    convert_ch(three, list);
    EXPECT_EQ(text_of(list, 8), "36 40 0 ");
    EXPECT_EQ(qorcfg::wlan::last_line_number("840\n124\n"), 124);
    EXPECT_EQ(qorcfg::wlan::last_line_number(""), 0);
}

}  // namespace
