// wlan/channels.h - pure parsers of the channel knowledge: the channel file
// ("/etc/allowed_channel"), the country code the country file gives, and
// the channel list a radio's driver prints. Text in, values out; the code
// that reads the files and runs the tools is in wlan/channels.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "qorcfg.h"

namespace qorcfg::wlan {

// A channel list holds at most 31 channels and its end marker.
inline constexpr size_t kListEntries = 32;

// Splits `text` at blanks (in place, as strtok does) into at most
// `capacity` - 1 channels, each token through atoi, then the end marker.
// The first token is always converted: "" gives the channel 0. Returns the
// number of channels.
size_t convert_channels(char *text, uint32_t *list, size_t capacity);

// The channel file's lines for one country read into `table`'s lists (which
// the caller has emptied), a later line of a group replacing an earlier one.
// False, with the group's name in `unknown`, at the first line of the
// country that names no known group; the lists filled so far stay filled.
bool fill_allowed(std::string_view file, qorcfg_chan_table &table, std::string &unknown);

// The channel text of the country's DFS line ("c<code>_dfs='<channels>'"):
// the text between the line's first and second quote. False when the file
// has no such line, or its text is empty.
bool dfs_text(std::string_view file, uint32_t code, std::string &channels);

// The number the last line of a command's output starts with (atoi); 0
// for no output.
int last_line_number(std::string_view output);

// What a radio's channel list ("wlanconfig IF list chan") says about radar
// detection: the channels marked "~", at most `capacity` of them into
// `buf`, and whether any channel of 15 or more (5 GHz) was listed.
struct DriverChannels {
    int marked = 0;
    bool five_ghz = false;
};
DriverChannels dfs_in_channel_list(std::string_view output, uint32_t *buf, size_t capacity);

}  // namespace qorcfg::wlan
