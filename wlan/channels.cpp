// wlan/channels.cpp - the configured country's numeric code, its allowed
// channels per mode group, and the channels that need radar detection
// (DFS): from the device's country and channel files, or from the radio's
// driver where the channel file has no DFS line.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "os/os.h"
#include "store/groups.h"
#include "store/platform.h"
#include "sys/command.h"
#include "wlan/channels.h"

namespace qorcfg::wlan {
namespace {

constexpr const char *kCountryFile = "/etc/rc.d/country_code";
constexpr const char *kChannelFile = "/etc/allowed_channel";
constexpr const char *kWlanconfig = "wlanconfig";
constexpr int kVaps = 16;

// The country item can only name a variable of the country file: a text
// that could be anything else never reaches the shell.
bool is_variable_name(const char *text) {
    if (*text == '\0' || (*text >= '0' && *text <= '9'))
        return false;
    for (; *text != '\0'; ++text) {
        const char c = *text;
        if (!(c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
              (c >= '0' && c <= '9')))
            return false;
    }
    return true;
}

// The configured country ("country" of radio 0): 0, or the failure code
// after its message. `init_failed` is the message when no handle opens.
int read_country(char (&country)[256], const char *init_failed) {
    qorcfg_handle *handle = init_qorcfg();
    if (handle == nullptr) {
        qorcfg_print("%s", init_failed);
        return QORCFG_ERR_FAIL;
    }
    const int rc = get_cfg_item(handle, store::radio_group(0), "country", country);
    close_qorcfg(handle);
    if (rc != QORCFG_OK) {
        qorcfg_print("Can NOT get country code, return value is %d.\n", rc);
        return QORCFG_ERR_FAIL;
    }
    if (!is_variable_name(country)) {
        qorcfg_print("Can NOT get country code: \"%s\" names no country.\n", country);
        return QORCFG_ERR_FAIL;
    }
    return QORCFG_OK;
}

// The interface through which radio `radio`'s channels are listed: its
// first enabled VAP's, else a temporary one (`temporary` set).
std::string list_interface(int radio, bool &temporary) {
    temporary = false;
    qorcfg_handle *handle = init_qorcfg_f(current_config);
    if (handle == nullptr)
        return {};
    char value[256] = "";
    std::string ifname;
    if (get_cfg_item(handle, gid_rf[radio], "state", value) == QORCFG_OK &&
        std::strcmp(value, "enable") == 0) {
        for (int vap = 0; vap < kVaps && ifname.empty(); ++vap) {
            if (get_cfg_item(handle, gid_vap[radio * kVaps + vap], "state", value) == QORCFG_OK &&
                std::strcmp(value, "enable") == 0)
                ifname = "ath" + std::to_string(radio) + "ap" + std::to_string(vap);
        }
    }
    close_qorcfg(handle);
    if (ifname.empty()) {
        sys::run(sys::CommandLine::kAnyLength, "%s ath%d create wlandev wifi%d wlanmode ap",
                 kWlanconfig, radio, radio);
        ifname = "ath" + std::to_string(radio);
        temporary = true;
    }
    return ifname;
}

// The DFS channels radio `radio`'s driver lists: their number, or -1.
int driver_dfs(int radio, uint32_t *buf) {
    if (radio >= 2)
        return QORCFG_ERR_FAIL;
    bool temporary = false;
    const std::string ifname = list_interface(radio, temporary);
    if (ifname.empty()) {
        qorcfg_print("initial qorcfg error.\n");
        return QORCFG_ERR_FAIL;
    }
    const sys::CommandLine line(sys::CommandLine::kAnyLength, "%s %s list chan", kWlanconfig,
                                ifname.c_str());
    sys::Output out;
    const bool listed = line.ok() && sys::output_of(line.c_str(), out);
    if (temporary)
        sys::run(sys::CommandLine::kAnyLength, "%s ath%d destroy", kWlanconfig, radio);
    if (!listed)
        return QORCFG_ERR_FAIL;
    const DriverChannels seen = dfs_in_channel_list(out.view(), buf, kListEntries);
    return !seen.five_ghz && seen.marked == 0 ? QORCFG_ERR_FAIL : seen.marked;
}

// The DFS channels of the channel file for the configured country: their
// number, or -1 when the file does not say.
int file_dfs(uint32_t *buf) {
    char country[256] = "";
    if (read_country(country, "initial qorcfg error.\n") != QORCFG_OK)
        return QORCFG_ERR_FAIL;
    const sys::CommandLine line(sys::CommandLine::kAnyLength, "eval \"`cat %s`\"; echo $%s",
                                kCountryFile, country);
    sys::Output out;
    if (!line.ok() || !sys::output_of(line.c_str(), out)) {
        qorcfg_print("Can't open the country code file\n");
        return QORCFG_ERR_FAIL;
    }
    const auto code = static_cast<uint32_t>(last_line_number(out.view()));
    std::string file, channels;
    if (!os::read_text(kChannelFile, file)) {
        qorcfg_print("Can't open the channel list!!\n");
        return QORCFG_ERR_FAIL;
    }
    if (!dfs_text(file, code, channels))
        return QORCFG_ERR_FAIL;
    return static_cast<int>(convert_channels(channels.data(), buf, kListEntries));
}

}  // namespace
}  // namespace qorcfg::wlan

using namespace qorcfg;
using namespace qorcfg::wlan;

extern "C" {

QORCFG_API int get_country_code(int) {
    char country[256] = "";
    if (read_country(country, "Error in initializing qorcfg.\n") != QORCFG_OK)
        return QORCFG_ERR_FAIL;
    const sys::CommandLine line(sys::CommandLine::kAnyLength, "eval \"`cat %s`\"; echo -n $%s",
                                kCountryFile, country);
    char code[sys::kLineSize] = "";
    if (!sys::first_line_of(line, code, sizeof code)) {
        std::puts("Can't open the country code file");
        return QORCFG_ERR_FAIL;
    }
    return std::atoi(code);
}

QORCFG_API int get_allowed_ch(qorcfg_chan_table *table) {
    return get_allowed_ch_by_usage(table, 0);
}

QORCFG_API int get_allowed_ch_by_usage(qorcfg_chan_table *table, uint8_t) {
    if (table == nullptr)
        return QORCFG_ERR_FAIL;
    try {
        table->country_code = static_cast<uint32_t>(get_country_code(0));
        std::string file;
        if (!os::read_text(kChannelFile, file)) {
            qorcfg_print("Can't open the channel list!!\n");
            return QORCFG_ERR_FAIL;
        }
        for (uint32_t *list :
             {table->ch_11a, table->ch_11b, table->ch_11g, table->ch_11ng, table->ch_11ngu,
              table->ch_11ngl, table->ch_11na, table->ch_11nau, table->ch_11nal, table->spare,
              table->ch_11ac, table->ch_11acu, table->ch_11acl, table->ch_11ac80})
            list[0] = QORCFG_CHAN_END;
        std::string unknown;
        if (!fill_allowed(file, *table, unknown)) {
            qorcfg_print("unknown channel group : %s\n", unknown.c_str());
            return QORCFG_ERR_FAIL;
        }
        return QORCFG_OK;
    } catch (...) {  // out of memory
        return QORCFG_ERR_FAIL;
    }
}

QORCFG_API void convert_ch(char *text, uint32_t *list) {
    if (text == nullptr || list == nullptr)
        return;
    // The caller's list is as long as the text has channels.
    convert_channels(text, list, SIZE_MAX);
}

QORCFG_API int get_DFS_ch(uint32_t *buf) {
    if (buf == nullptr)
        return QORCFG_ERR_FAIL;
    try {
        const int from_file = file_dfs(buf);
        if (from_file >= 0)
            return from_file;
        for (int radio = 0; radio < 2; ++radio) {
            const int n = driver_dfs(radio, buf);
            if (n >= 0)
                return n;
        }
        return QORCFG_ERR_FAIL;
    } catch (...) {  // out of memory
        return QORCFG_ERR_FAIL;
    }
}

}  // extern "C"
