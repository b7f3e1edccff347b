// Fuzz target: the channel knowledge's parsers. The input's first line is a
// numeric country code, the rest is read as the channel file, as a
// driver's channel list and as the country file's answer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "wlan/channels.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t nl = input.find('\n');
    if (nl == std::string::npos)
        return 0;
    const auto code = static_cast<uint32_t>(std::strtoul(input.substr(0, nl).c_str(), nullptr, 10));
    const std::string text = input.substr(nl + 1);

    qorcfg_chan_table table;
    std::memset(&table, 0xff, sizeof table);
    table.country_code = code;
    std::string unknown, dfs;
    qorcfg::wlan::fill_allowed(text, table, unknown);
    uint32_t buf[qorcfg::wlan::kListEntries];
    if (qorcfg::wlan::dfs_text(text, code, dfs))
        qorcfg::wlan::convert_channels(dfs.data(), buf, qorcfg::wlan::kListEntries);
    qorcfg::wlan::dfs_in_channel_list(text, buf, qorcfg::wlan::kListEntries);
    qorcfg::wlan::last_line_number(text);
    std::string first = text.substr(0, text.find('\n'));
    qorcfg::wlan::convert_channels(first.data(), buf, qorcfg::wlan::kListEntries);
    return 0;
}
