// xml/encoding.cpp - UTF-16 input, recognised by its byte-order mark and
// converted to UTF-8 before the parse.
#include "xml/parser.h"

namespace qorcfg::xml {

bool utf16_to_utf8(ezxml_root *root, char **s, size_t *len) {
    const auto *in = reinterpret_cast<const unsigned char *>(*s);
    size_t n = *len;
    if (n < 2)
        return true;
    bool big;
    if (in[0] == 0xFE && in[1] == 0xFF)
        big = true;
    else if (in[0] == 0xFF && in[1] == 0xFE)
        big = false;
    else
        return true;
    // A unit gives at most three bytes, a pair four.
    auto *u = static_cast<char *>(os::malloc(n / 2 * 3 + 1));
    if (u == nullptr)
        return false;
    auto unit = [&](size_t i) -> uint32_t {
        return big ? (uint32_t{in[i]} << 8) | in[i + 1] : (uint32_t{in[i + 1]} << 8) | in[i];
    };
    size_t l = 0;
    for (size_t i = 2; i + 1 < n; i += 2) {
        uint32_t c = unit(i);
        if (c >= 0xD800 && c <= 0xDFFF && i + 3 < n) {
            i += 2;
            c = (((c & 0x3FF) << 10) | (unit(i) & 0x3FF)) + 0x10000;
        }
        if (c < 0x80) {
            u[l++] = static_cast<char>(c);
        } else if (c < 0x800) {
            u[l++] = static_cast<char>(0xC0 | (c >> 6));
            u[l++] = static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            u[l++] = static_cast<char>(0xE0 | (c >> 12));
            u[l++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            u[l++] = static_cast<char>(0x80 | (c & 0x3F));
        } else {
            u[l++] = static_cast<char>(0xF0 | (c >> 18));
            u[l++] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            u[l++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            u[l++] = static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    u[l] = '\0';
    root->u = u;
    *s = u;
    *len = l;
    return true;
}

}  // namespace qorcfg::xml
