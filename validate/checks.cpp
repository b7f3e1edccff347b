// validate/checks.cpp - the check of each value type: integers against a
// list of numbers and ranges, addresses, domain names, dates, time zones,
// and wireless bands and channels against the radio's allowed channels.
//
// Values are never copied into work buffers: a value longer than the
// buffer the check is specified with is refused instead.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "validate/validate.h"

namespace qorcfg::validate {
namespace {

// Longest texts the checks take: the integer rule, the address, the domain
// name and the date.
constexpr size_t kIntRuleMax = 259;
constexpr size_t kIpMax = 15;
constexpr size_t kDomainMax = 256;
constexpr size_t kDateMax = 255;

// Magnitudes beyond this are all the same "too large" to the comparisons,
// and still beyond the range of int.
constexpr long long kSaturated = 1LL << 40;

bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The decimal number at the start of `text` as atoi reads it (blanks, then
// a sign, then digits), without overflow: magnitudes are saturated. False
// when no digit follows.
bool leading_number(std::string_view text, long long &number) {
    size_t i = 0;
    while (i < text.size() && is_blank(text[i]))
        ++i;
    const bool negative = i < text.size() && text[i] == '-';
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        ++i;
    long long magnitude = 0;
    const size_t first = i;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
        magnitude = magnitude >= kSaturated ? kSaturated : magnitude * 10 + (text[i] - '0');
    number = negative ? -magnitude : magnitude;
    return i > first;
}

// Whether `number` matches one entry of an integer rule: "N", or "A~B"
// with the bound B after the entry's last '~'. A bound of 0 makes the
// entry the single number A.
bool entry_matches(std::string_view entry, long long number) {
    long long low = 0;
    leading_number(entry, low);
    const size_t tilde = entry.rfind('~');
    long long high = 0;
    if (tilde != std::string_view::npos)
        leading_number(entry.substr(tilde + 1), high);
    if (high == 0)
        return number == low;
    return low <= number && number <= high;
}

int verdict(bool accepted) {
    return accepted ? QORCFG_OK : QORCFG_ERR_INVALID;
}

bool has_rule(const char *rule) {
    return rule != nullptr && *rule != '\0';
}

bool listed(const uint32_t (&list)[32]) {
    return list[0] != QORCFG_CHAN_END;
}

bool contains(const uint32_t (&list)[32], uint32_t channel) {
    for (uint32_t entry : list) {
        if (entry == QORCFG_CHAN_END)
            return false;
        if (entry == channel)
            return true;
    }
    return false;
}

// The bands and the channel lists each needs to be non-empty.
using List = uint32_t (qorcfg_chan_table::*)[32];
struct Band {
    const char *name;
    List first;
    List second;
};
constexpr Band kBands[] = {
    {"11a", &qorcfg_chan_table::ch_11a, &qorcfg_chan_table::ch_11a},
    {"11b", &qorcfg_chan_table::ch_11b, &qorcfg_chan_table::ch_11b},
    {"11g", &qorcfg_chan_table::ch_11g, &qorcfg_chan_table::ch_11g},
    {"11na", &qorcfg_chan_table::ch_11a, &qorcfg_chan_table::ch_11na},
    {"11ng", &qorcfg_chan_table::ch_11g, &qorcfg_chan_table::ch_11ng},
    {"11bg", &qorcfg_chan_table::ch_11b, &qorcfg_chan_table::ch_11g},
};

// The bands every radio supports, accepted when the table cannot be read.
constexpr const char *kBasicBands[] = {"11b", "11g", "11bg"};

}  // namespace

int band_check(const char *value, const char *rule, const qorcfg_chan_table *table) {
    if (value == nullptr)
        return QORCFG_ERR_INVALID;
    if (table == nullptr) {
        for (const char *band : kBasicBands) {
            if (std::strcmp(value, band) == 0)
                return QORCFG_OK;
        }
        return QORCFG_ERR_INVALID;
    }
    if (has_rule(rule))
        return qorcfg_item_regex_check(rule, value);
    for (const Band &band : kBands) {
        if (std::strcmp(value, band.name) == 0)
            return verdict(listed(table->*band.first) && listed(table->*band.second));
    }
    return QORCFG_ERR_INVALID;
}

int channel_check(const char *value, const char *rule, const qorcfg_chan_table *table) {
    if (value == nullptr)
        return QORCFG_ERR_INVALID;
    if (table == nullptr)
        return QORCFG_OK;
    if (has_rule(rule))
        return qorcfg_item_regex_check(rule, value);
    if (std::strcmp(value, "auto") == 0)
        return QORCFG_OK;
    const std::string_view text = value;
    long long channel = 0;
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos ||
        !leading_number(text, channel) || channel >= QORCFG_CHAN_END)
        return QORCFG_ERR_INVALID;
    const auto number = static_cast<uint32_t>(channel);
    return verdict(contains(table->ch_11a, number) || contains(table->ch_11b, number) ||
                   contains(table->ch_11g, number));
}

}  // namespace qorcfg::validate

using namespace qorcfg;
using namespace qorcfg::validate;

extern "C" {

QORCFG_API int qorcfg_item_int_check(const char *rule, const char *value) {
    long long number = 0;
    if (rule == nullptr || value == nullptr || !leading_number(value, number) || number < INT_MIN ||
        number > INT_MAX || std::strlen(rule) > kIntRuleMax)
        return QORCFG_ERR_INVALID;
    // Comma-separated entries; empty ones are skipped.
    std::string_view entries = rule;
    while (!entries.empty()) {
        const size_t comma = entries.find(',');
        const std::string_view entry = entries.substr(0, comma);
        if (!entry.empty() && entry_matches(entry, number))
            return QORCFG_OK;
        entries.remove_prefix(comma == std::string_view::npos ? entries.size() : comma + 1);
    }
    return QORCFG_ERR_INVALID;
}

QORCFG_API int qorcfg_item_ip_check(const char *value) {
    if (value == nullptr || std::strlen(value) > kIpMax ||
        qorcfg_item_regex_check("^[0-9]{1,3}[.][0-9]{1,3}[.][0-9]{1,3}[.][0-9]{1,3}$", value) !=
            QORCFG_OK)
        return QORCFG_ERR_INVALID;
    std::string_view rest = value;
    for (int part = 0; part < 4; ++part) {
        long long number = 0;
        leading_number(rest, number);
        if (number >= 256)
            return QORCFG_ERR_INVALID;
        rest.remove_prefix(std::min(rest.size(), rest.find('.') + 1));
    }
    return QORCFG_OK;
}

QORCFG_API int qorcfg_item_mac_check(const char *value) {
    if (value == nullptr)
        return QORCFG_ERR_INVALID;
    constexpr const char *kForms[] = {
        "[0-9a-fA-F]{2}[:][0-9a-fA-F]{2}[:][0-9a-fA-F]{2}[:][0-9a-fA-F]{2}[:][0-9a-fA-F]{2}[:][0-"
        "9a-fA-F]{2}",
        "[0-9a-fA-F]{2}[-][0-9a-fA-F]{2}[-][0-9a-fA-F]{2}[-][0-9a-fA-F]{2}[-][0-9a-fA-F]{2}[-][0-"
        "9a-fA-F]{2}",
        "[0-9a-fA-F]{12}",
    };
    for (const char *form : kForms) {
        if (qorcfg_item_regex_check(form, value) == QORCFG_OK)
            return QORCFG_OK;
    }
    return QORCFG_ERR_INVALID;
}

QORCFG_API int qorcfg_item_domain_check(const char *value) {
    if (value == nullptr || std::strlen(value) > kDomainMax)
        return QORCFG_ERR_INVALID;
    return qorcfg_item_regex_check("^[^][\"()<>@,; \\]+([.][^][\"()<>@,; \\]+)+$", value);
}

QORCFG_API int qorcfg_date_input_validation(const char *value) {
    if (value == nullptr || std::strlen(value) > kDateMax)
        return QORCFG_ERR_INVALID;
    return qorcfg_item_regex_check(
        "^[0-9]{4}[.][0-9]{2}[.][0-9]{2}[-][0-9]{2}[:][0-9]{2}[:][0-9]{2}$", value);
}

QORCFG_API int qorcfg_item_timezone_check(const char *value) {
    if (value == nullptr)
        return QORCFG_ERR_INVALID;
    for (const qorcfg_zone *zone = zone_info; zone->name != nullptr; ++zone) {
        if (std::strcmp(zone->name, value) == 0)
            return QORCFG_OK;
    }
    return QORCFG_ERR_INVALID;
}

QORCFG_API int qorcfg_band_check(const char *value, const char *rule) {
    qorcfg_chan_table table;
    return band_check(value, rule, get_allowed_ch(&table) == QORCFG_OK ? &table : nullptr);
}

QORCFG_API int qorcfg_channel_check(const char *value, const char *rule) {
    qorcfg_chan_table table;
    return channel_check(value, rule, get_allowed_ch(&table) == QORCFG_OK ? &table : nullptr);
}

}  // extern "C"
