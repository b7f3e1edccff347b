// validate/framework.cpp - validating one item: its type and rule from the
// rule file, the pre-check of the value's characters, the dispatch to the
// type's check, the regular-expression check with the escape notation of
// rule texts, and the message left for the caller in err_msg.
#include <regex.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "os/os.h"
#include "os/owners.h"
#include "store/print.h"
#include "store/store.h"
#include "validate/validate.h"

namespace qorcfg::validate {
namespace {

// One escape of rule texts: "\x" and `code` stand for `character`.
struct Escape {
    char code[2];
    char character;
};

// The printable characters, 20 to 7e, by their two lower-case hexadecimal
// digits.
constexpr std::array<Escape, 0x7f - 0x20> kEscapes = [] {
    constexpr char kHex[] = "0123456789abcdef";
    std::array<Escape, 0x7f - 0x20> table{};
    for (int c = 0x20; c < 0x7f; ++c)
        table[static_cast<size_t>(c - 0x20)] = {{kHex[c >> 4], kHex[c & 0xf]},
                                                static_cast<char>(c)};
    return table;
}();
static_assert(kEscapes.size() == 95 && kEscapes[0x2e - 0x20].character == '.');

const Escape *find_escape(char high, char low) {
    for (const Escape &e : kEscapes) {
        if (e.code[0] == high && e.code[1] == low)
            return &e;
    }
    return nullptr;
}

// A rule file names the escapes it uses at build time: an unknown one is a
// firmware defect, and the process ends.
[[noreturn]] void unknown_escape() {
    qorcfg_print("Unknow ascii code.\n");
    std::exit(1);
}

// The type checks by type code; the codes after the last ("restricted")
// have no check.
using Check = int (*)(const char *value, const char *rule);
constexpr Check kChecks[] = {
    [](const char *value, const char *rule) { return qorcfg_item_int_check(rule, value); },
    [](const char *value, const char *rule) { return qorcfg_item_regex_check(rule, value); },
    [](const char *value, const char *) { return qorcfg_item_mac_check(value); },
    [](const char *value, const char *) { return qorcfg_item_ip_check(value); },
    [](const char *value, const char *) { return qorcfg_item_domain_check(value); },
    [](const char *value, const char *rule) { return qorcfg_band_check(value, rule); },
    [](const char *value, const char *rule) { return qorcfg_channel_check(value, rule); },
    [](const char *value, const char *) { return qorcfg_item_timezone_check(value); },
};

bool known_type(int type) {
    return type >= 0 && static_cast<size_t>(type) < std::size(kChecks);
}

constexpr int kTypeInt = 0;
constexpr int kTypeChannel = 6;
constexpr int kTypeRestricted = 8;

constexpr int kWrongCharacters = -1;
constexpr int kNotSettable = -2;

bool all_of(const char *text, bool (*allowed)(char)) {
    for (; *text != '\0'; ++text) {
        if (!allowed(*text))
            return false;
    }
    return true;
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// What a pattern may cost the expression compiler, in the nodes it builds:
// compilers expand "{m,n}" by copying its atom n times and "+" once, so
// nested repetitions multiply, and a short pattern can ask for more memory
// than the device has.
constexpr size_t kMaxPatternNodes = 8192;
constexpr size_t kMaxGroupDepth = 64;

// The bracket expression starting at `at` ('['): the index of its closing
// ']', or the text's end when it has none.
size_t bracket_end(std::string_view p, size_t at) {
    size_t i = at + 1;
    if (i < p.size() && p[i] == '^')
        ++i;
    if (i < p.size() && p[i] == ']')
        ++i;
    for (; i < p.size() && p[i] != ']'; ++i) {
        if (p[i] == '[' && i + 1 < p.size() &&
            (p[i + 1] == ':' || p[i + 1] == '.' || p[i + 1] == '=')) {
            const char close[] = {p[i + 1], ']', '\0'};
            const size_t end = p.find(close, i + 2);
            if (end == std::string_view::npos)
                return p.size();
            i = end + 1;
        }
    }
    return i;
}

// The repetition factor of the interval at `at` ("{m}", "{m,}", "{,n}",
// "{m,n}"; compilers read a missing bound as 0 or unlimited), with `at`
// moved to its '}'; 0 when no interval stands there. "{m,}" counts as m + 1
// copies, the last repeated.
size_t interval_factor(std::string_view p, size_t &at) {
    size_t bound[2] = {0, 0};
    int part = 0;
    size_t i = at + 1;
    for (; i < p.size() && p[i] != '}'; ++i) {
        if (p[i] == ',' && part == 0)
            part = 1;
        else if (p[i] >= '0' && p[i] <= '9')
            bound[part] = std::min<size_t>(bound[part] * 10 + static_cast<size_t>(p[i] - '0'),
                                           kMaxPatternNodes + 1);
        else
            return 0;
    }
    if (i == p.size() || i == at + 1)
        return 0;
    at = i;
    return std::max(bound[0], bound[1]) + 1;
}

// Whether the compiler can afford `p`. Adjacent repetition operators
// ("a++", "a*{2}"), whose meaning POSIX leaves undefined, are refused too.
bool affordable(std::string_view p) {
    size_t outer[kMaxGroupDepth];
    size_t depth = 0;
    size_t nodes = 0;  // of the sequence being read
    size_t last = 0;   // of its last atom
    bool repeated = false;
    for (size_t i = 0; i < p.size(); ++i) {
        size_t atom = 1;
        switch (p[i]) {
            case '(':
                if (depth == kMaxGroupDepth)
                    return false;
                outer[depth++] = nodes;
                nodes = last = 0;
                repeated = false;
                continue;
            case ')':
                if (depth > 0) {
                    atom = nodes;
                    nodes = outer[--depth];
                }
                break;
            case '|':
                last = 0;
                repeated = false;
                continue;
            case '*':
            case '+':
            case '?':
            case '{': {
                size_t factor = p[i] == '+' ? 2 : 1;
                if (p[i] == '{') {
                    factor = interval_factor(p, i);
                    if (factor == 0)
                        break;  // a plain '{'
                }
                if (repeated)
                    return false;
                nodes += last * (factor - 1);
                repeated = true;
                if (nodes > kMaxPatternNodes)
                    return false;
                continue;
            }
            case '\\':
                ++i;
                break;
            case '[':
                i = bracket_end(p, i);
                break;
            default:
                break;
        }
        nodes += atom;
        last = atom;
        repeated = false;
        if (nodes > kMaxPatternNodes)
            return false;
    }
    while (depth > 0)
        nodes += outer[--depth];
    return nodes <= kMaxPatternNodes;
}

// Leaves `message` in err_msg for the caller.
void leave_message(const char *message) {
    std::strncpy(err_msg, message, sizeof err_msg - 1);
    err_msg[sizeof err_msg - 1] = '\0';
}

}  // namespace

Expansion expand_escapes(const char *pattern, char *out, size_t size) {
    std::memset(out, 0, size);
    size_t n = 0;
    for (const char *p = pattern; *p != '\0'; ++n) {
        if (n + 1 >= size)
            return Expansion::kTooLong;
        if (p[0] == '\\' && p[1] == 'x' && p[2] != '\0' && p[3] != '\0') {
            const Escape *e = find_escape(p[2], p[3]);
            if (e == nullptr)
                return Expansion::kUnknownEscape;
            out[n] = e->character;
            p += 4;
        } else {
            out[n] = *p++;
        }
    }
    return Expansion::kDone;
}

}  // namespace qorcfg::validate

using namespace qorcfg;
using namespace qorcfg::validate;

extern "C" {

char err_msg[1000];

QORCFG_API char *parse_ascii_esc_seq(const char *pattern) {
    if (pattern == nullptr)
        return nullptr;
    auto *out = static_cast<char *>(os::malloc(kPatternSize));
    if (out == nullptr)
        return nullptr;
    switch (expand_escapes(pattern, out, kPatternSize)) {
        case Expansion::kDone:
            return out;
        case Expansion::kUnknownEscape:
            std::free(out);
            unknown_escape();
        case Expansion::kTooLong:
            break;
    }
    std::free(out);
    return nullptr;
}

QORCFG_API int qorcfg_item_regex_check(const char *pattern, const char *value) {
    if (pattern == nullptr || value == nullptr)
        return QORCFG_ERR_INVALID;
    char expanded[kPatternSize];
    switch (expand_escapes(pattern, expanded, sizeof expanded)) {
        case Expansion::kDone:
            break;
        case Expansion::kUnknownEscape:
            unknown_escape();
        case Expansion::kTooLong:
            return QORCFG_ERR_INVALID;
    }
    if (!affordable(expanded))
        return QORCFG_ERR_INVALID;
    regex_t compiled;
    if (regcomp(&compiled, expanded, REG_EXTENDED | REG_NOSUB) != 0)
        return QORCFG_ERR_INVALID;
    const int rc = regexec(&compiled, value, 0, nullptr, 0);
    regfree(&compiled);
    return rc == 0 ? QORCFG_OK : QORCFG_ERR_INVALID;
}

QORCFG_API int type_pre_check(int type, const char *value) {
    if (type == kTypeRestricted)
        return kNotSettable;
    if (type != kTypeChannel && type != kTypeInt)
        return QORCFG_OK;
    if (value == nullptr)
        return kWrongCharacters;
    if (type == kTypeChannel)
        return std::strcmp(value, "auto") == 0 || all_of(value, is_digit) ? QORCFG_OK
                                                                          : kWrongCharacters;
    return all_of(value, [](char c) { return is_digit(c) || c == '-'; }) ? QORCFG_OK
                                                                         : kWrongCharacters;
}

QORCFG_API int check_input_validity(int type, const char *value, const char *rule) {
    if (!known_type(type))
        return QORCFG_ERR_INVALID;
    return kChecks[type](value, rule) == QORCFG_OK ? QORCFG_OK : QORCFG_ERR_INVALID;
}

QORCFG_API int input_validation_by_item(const char *group_name, const char *value,
                                        const char *item_name) {
    // Closed on every path, rejections included.
    const store::OwnedHandle rules(init_qorcfg_f(kRuleFile));
    if (rules == nullptr) {
        qorcfg_print("ERROR: Fail to init configuration file.\n");
        return QORCFG_OK;
    }
    const int type = get_cfg_item_type_by_group_name(rules.get(), item_name, group_name);
    if (type == QORCFG_ERR_INVALID)
        return QORCFG_ERR_INVALID;
    bool found = false;
    const os::Text rule(store::item_rule(rules.get(), item_name, group_name, found));
    switch (type_pre_check(type, value)) {
        case kNotSettable:
            leave_message("ERROR: This item cannot be set.\n");
            return QORCFG_ERR_INVALID;
        case kWrongCharacters:
            leave_message("ERROR: The type is not correct.\n");
            return QORCFG_ERR_INVALID;
        default:
            break;
    }
    return check_input_validity(type, value, rule.get()) == QORCFG_OK ? QORCFG_OK
                                                                      : QORCFG_ERR_INVALID;
}

}  // extern "C"
