// Fuzz target: the value checks. The input's first line is a type code, the
// second a rule text, the rest the value; every check sees them, the band and
// channel checks over the sample device's allowed channels and without them.
// Rule texts with an unknown escape are skipped: that escape ends the process
// by design.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "validate/validate.h"
#include "wlan/channels.h"

namespace {

// The allowed channels of the sample device's country (840), from its
// channel file.
const qorcfg_chan_table &sample_table() {
    static const qorcfg_chan_table table = [] {
        qorcfg_chan_table t;
        std::memset(&t, 0xff, sizeof t);
        t.country_code = 840;
        std::string file, unknown;
        if (FILE *f = std::fopen(QORCFG_DEVROOT "/etc/allowed_channel", "r")) {
            char buf[4096];
            for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
                file.append(buf, n);
            std::fclose(f);
        }
        if (!qorcfg::wlan::fill_allowed(file, t, unknown) || t.ch_11a[0] == QORCFG_CHAN_END)
            std::abort();  // the sample device's file is part of the tree
        return t;
    }();
    return table;
}

// The rule texts a firmware's rule file holds are short; longer ones only
// make the expression compiler slow.
constexpr size_t kMaxRule = 256;

}  // namespace

// The checks' diagnostics would only slow the run down.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    setenv("QORCFG_PRINT_ERR", "0", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t first = input.find('\n');
    const size_t second = first == std::string::npos ? first : input.find('\n', first + 1);
    if (second == std::string::npos || second - first - 1 > kMaxRule)
        return 0;
    const int type = std::atoi(input.substr(0, first).c_str());
    const std::string rule = input.substr(first + 1, second - first - 1);
    const std::string value = input.substr(second + 1);
    char expanded[qorcfg::validate::kPatternSize];
    if (qorcfg::validate::expand_escapes(rule.c_str(), expanded, sizeof expanded) ==
        qorcfg::validate::Expansion::kUnknownEscape)
        return 0;

    const char *v = value.c_str();
    const char *r = rule.c_str();
    type_pre_check(type, v);
    if (type != 5 && type != 6)  // the band and channel checks read the device's files
        check_input_validity(type, v, r);
    qorcfg::validate::band_check(v, r, &sample_table());
    qorcfg::validate::band_check(v, "", &sample_table());
    qorcfg::validate::band_check(v, r, nullptr);
    qorcfg::validate::channel_check(v, r, &sample_table());
    qorcfg::validate::channel_check(v, nullptr, &sample_table());
    qorcfg_item_int_check(r, v);
    qorcfg_item_ip_check(v);
    qorcfg_item_mac_check(v);
    qorcfg_item_domain_check(v);
    qorcfg_date_input_validation(v);
    qorcfg_item_timezone_check(v);
    std::free(parse_ascii_esc_seq(r));

    qorcfg_item *items = get_new_item(0x08080000, r, v);
    if (items != nullptr) {
        validate_input(items);
        free_item_list(items);
    }
    return 0;
}
