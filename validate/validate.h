// validate/validate.h - what the validation sources share, and the pure
// parts of the checks that the tool and the fuzzers reach without the
// device's files: the escape expansion of rule texts, and the band and
// channel decisions over an allowed-channel table already read.
#pragma once

#include <cstddef>

#include "qorcfg.h"

namespace qorcfg::validate {

// The rule file: every item's type name and rule text.
inline constexpr const char *kRuleFile = "/etc/cfg-rule.xml";

// Size of an expanded rule text, its terminating zero included.
inline constexpr size_t kPatternSize = 1000;

enum class Expansion {
    kDone,           // `out` holds the expanded pattern
    kUnknownEscape,  // "\x" and two characters that name no printable character
    kTooLong,        // the expansion does not fit in `out`
};

// Copies `pattern` into `out` (`size` bytes, zero-filled first), each "\x"
// followed by two lower-case hexadecimal digits naming a printable
// character (20 to 7e) replaced by that character. A "\x" with fewer than
// two characters after it is copied as it stands.
Expansion expand_escapes(const char *pattern, char *out, size_t size);

// Whether `value` is a wireless band (11a, 11b, 11g, 11na, 11ng, 11bg) the
// allowed-channel table supports; with a rule, whether it matches the rule
// instead. `table` null: the table could not be read.
int band_check(const char *value, const char *rule, const qorcfg_chan_table *table);

// Whether `value` is "auto" or a channel of the 11a, 11b or 11g list; with a
// rule, whether it matches the rule instead. `table` null: the table could
// not be read, and every value passes.
int channel_check(const char *value, const char *rule, const qorcfg_chan_table *table);

}  // namespace qorcfg::validate
