// wlan/channel_text.cpp - the channel file, the country file's answer and
// the driver's channel list, parsed; see channels.h.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "sys/command.h"
#include "sys/parse.h"
#include "wlan/channels.h"

namespace qorcfg::wlan {
namespace {

// The list of a mode group, by its name in the file; null for none.
uint32_t *list_of(qorcfg_chan_table &t, const char *group) {
    const std::pair<const char *, uint32_t *> lists[] = {
        {"a", t.ch_11a},      {"b", t.ch_11b},     {"g", t.ch_11g},     {"ng", t.ch_11ng},
        {"ngu", t.ch_11ngu},  {"ngl", t.ch_11ngl}, {"na", t.ch_11na},   {"nau", t.ch_11nau},
        {"nal", t.ch_11nal},  {"ac", t.ch_11ac},   {"acu", t.ch_11acu}, {"acl", t.ch_11acl},
        {"ac80", t.ch_11ac80}};
    for (const auto &[name, list] : lists) {
        if (std::strcmp(name, group) == 0)
            return list;
    }
    return nullptr;
}

// The fields of a driver's channel line between ":", empty ones skipped
// (as strtok splits it).
std::vector<std::string_view> fields_of(std::string_view line) {
    std::vector<std::string_view> fields;
    for (size_t at = 0; at < line.size();) {
        const size_t end = std::min(line.find(':', at), line.size());
        if (end > at)
            fields.push_back(line.substr(at, end - at));
        at = end + 1;
    }
    return fields;
}

// "Channel <number>" at the start of `text` (blanks before the number
// allowed, as scanf reads it).
bool channel_number(std::string_view text, unsigned &number) {
    const std::string copy(text);
    return std::sscanf(copy.c_str(), "Channel %u", &number) == 1;
}

}  // namespace

size_t convert_channels(char *text, uint32_t *list, size_t capacity) {
    size_t n = 0;
    char *save = nullptr;
    const char *token = strtok_r(text, " ", &save);
    // An empty text still gives one channel, 0.
    list[n++] = static_cast<uint32_t>(std::atoi(token != nullptr ? token : ""));
    while (n + 1 < capacity && (token = strtok_r(nullptr, " ", &save)) != nullptr)
        list[n++] = static_cast<uint32_t>(std::atoi(token));
    list[n] = QORCFG_CHAN_END;
    return n;
}

bool fill_allowed(std::string_view file, qorcfg_chan_table &table, std::string &unknown) {
    sys::Lines lines(file, sys::kLineSize);
    // A line as the file is read: at most 255 bytes and a zero.
    for (char line[sys::kLineSize]; lines.next(line);) {
        unsigned code = 0;
        char group[sys::kLineSize], channels[sys::kLineSize], quote[sys::kLineSize];
        // Every field fits: the line itself is shorter than each buffer.
        if (std::sscanf(line, "c%u_11%[^=]='%[0-9 ]%[']", &code, group, channels, quote) != 4 ||
            code != table.country_code)
            continue;
        uint32_t *list = list_of(table, group);
        if (list == nullptr) {
            unknown = group;
            return false;
        }
        convert_channels(channels, list, kListEntries);
    }
    return true;
}

bool dfs_text(std::string_view file, uint32_t code, std::string &channels) {
    sys::Lines lines(file, sys::kLineSize);
    // A line as the file is read: at most 255 bytes and a zero.
    for (char line[sys::kLineSize]; lines.next(line);) {
        unsigned line_code = 0;
        char word[sys::kLineSize];
        if (std::sscanf(line, "c%u_%s='", &line_code, word) != 2)
            continue;
        word[std::strcspn(word, "=")] = '\0';
        if (line_code != code || std::strcmp(word, "dfs") != 0)
            continue;
        const char *open = std::strchr(line, '\'');
        if (open == nullptr)
            return false;
        ++open;
        const size_t length = std::strcspn(open, "'\r\n");
        channels.assign(open, length);
        return length > 0;
    }
    return false;
}

int last_line_number(std::string_view output) {
    sys::Lines lines(output, sys::kLineSize);
    int number = 0;
    for (char line[sys::kLineSize]; lines.next(line);)
        number = std::atoi(line);
    return number;
}

DriverChannels dfs_in_channel_list(std::string_view output, uint32_t *buf, size_t capacity) {
    DriverChannels seen;
    // The driver's lines are read into 4096 bytes.
    sys::Lines lines(output, 4096);
    const auto note = [&seen, buf, capacity](unsigned channel, std::string_view description) {
        seen.five_ghz = seen.five_ghz || channel >= 15;
        if (description.find('~') != std::string_view::npos &&
            static_cast<size_t>(seen.marked) < capacity)
            buf[seen.marked++] = channel;
    };
    for (std::string_view line; lines.next(line);) {
        const std::vector<std::string_view> f = fields_of(line);
        unsigned first = 0, second = 0;
        if (f.empty() || !channel_number(f[0], first))
            continue;
        const std::string_view description = f.size() > 1 ? f[1] : std::string_view();
        note(first, description);
        const size_t next = description.find("Channel");
        if (next != std::string_view::npos && channel_number(description.substr(next), second))
            note(second, f.size() > 2 ? f[2] : std::string_view());
    }
    return seen;
}

}  // namespace qorcfg::wlan
