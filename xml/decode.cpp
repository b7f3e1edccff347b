// xml/decode.cpp - decoding of texts and attribute values: line ends,
// character references, entity references and attribute normalisation.
//
// The text is decoded in place as long as it does not grow. An entity whose
// replacement is longer than its reference moves the text into a new
// allocation. Replacements are scanned again, so entities may refer to
// entities; they are inserted in front of the unread rest of the text (a gap
// between output and input), which keeps decoding linear in the size of the
// result however many references a text holds.
#include <cstring>

#include "os/os.h"
#include "xml/entities.h"
#include "xml/tree.h"

namespace qorcfg::xml {

char *const kPredefinedEntities[kPredefinedStrings + 1] = {const_cast<char *>("lt;"),
                                                           const_cast<char *>("&#60;"),
                                                           const_cast<char *>("gt;"),
                                                           const_cast<char *>("&#62;"),
                                                           const_cast<char *>("quot;"),
                                                           const_cast<char *>("&#34;"),
                                                           const_cast<char *>("apos;"),
                                                           const_cast<char *>("&#39;"),
                                                           const_cast<char *>("amp;"),
                                                           const_cast<char *>("&#38;"),
                                                           nullptr};

namespace {

// Reads the number of a character reference starting after "&#" at `p`:
// decimal, or hexadecimal after 'x', digits only, ended by ';'. Returns the
// position after the ';' and the value, or NULL when the reference is to be
// left as written (no digits, no ';', zero, or beyond 0x7FFFFFFF).
const char *char_ref(const char *p, uint32_t *value) {
    unsigned base = 10;
    if (*p == 'x') {
        base = 16;
        ++p;
    }
    uint64_t v = 0;
    const char *digits = p;
    for (;; ++p) {
        unsigned d;
        unsigned char c = static_cast<unsigned char>(*p);
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            break;
        v = v * base + d;
        if (v > 0x7FFFFFFF)
            return nullptr;  // too large for any encoding: left as written
    }
    if (p == digits || *p != ';' || v == 0)
        return nullptr;
    *value = static_cast<uint32_t>(v);
    return p + 1;
}

// Writes `c` (1 .. 0x7FFFFFFF) as UTF-8; returns the number of bytes (1-6).
size_t put_utf8(char *out, uint32_t c) {
    if (c < 0x80) {
        out[0] = static_cast<char>(c);
        return 1;
    }
    unsigned bits = 0;
    for (uint32_t d = c; d != 0; d >>= 1)
        ++bits;
    unsigned payload = (bits - 2) / 5;  // continuation bytes
    out[0] = static_cast<char>((0xFFu << (7 - payload)) | (c >> (6 * payload)));
    for (unsigned i = 1; i <= payload; ++i)
        out[i] = static_cast<char>(0x80 | ((c >> (6 * (payload - i))) & 0x3F));
    return payload + 1;
}

// Characters that stop the plain-copy loop, per kind of text.
struct StopTable {
    bool stop[256];
};

constexpr StopTable make_stops(char type) {
    StopTable t{};
    t.stop[0] = true;
    if (type != 'c')
        t.stop[static_cast<unsigned char>('&')] = true;
    if (type == '%')
        t.stop[static_cast<unsigned char>('%')] = true;
    if (type == ' ' || type == '*') {
        t.stop[static_cast<unsigned char>('\t')] = true;
        t.stop[static_cast<unsigned char>('\n')] = true;
        t.stop[static_cast<unsigned char>('\r')] = true;
    }
    return t;
}

constexpr StopTable kStopsText = make_stops('&');
constexpr StopTable kStopsAttr = make_stops(' ');
constexpr StopTable kStopsEntity = make_stops('%');

const StopTable &stops_for(char type) {
    switch (type) {
        case ' ':
        case '*':
            return kStopsAttr;
        case '%':
            return kStopsEntity;
        default:
            return kStopsText;
    }
}

// Every CR becomes LF and CR LF becomes LF, in place. Returns the new length.
size_t normalise_line_ends(char *s, size_t len) {
    char *cr = static_cast<char *>(std::memchr(s, '\r', len));
    if (cr == nullptr)
        return len;
    char *w = cr;
    const char *r = cr;
    const char *end = s + len;
    while (r < end) {
        if (*r == '\r') {
            *w++ = '\n';
            r += (r + 1 < end && r[1] == '\n') ? 2 : 1;
        } else {
            *w++ = *r++;
        }
    }
    *w = '\0';
    return static_cast<size_t>(w - s);
}

// Squeezes runs of blanks between tokens to one and removes leading and
// trailing blanks, in place.
void squeeze_blanks(char *s) {
    char *w = s;
    const char *r = s;
    while (*r == ' ')
        ++r;
    while (*r != '\0') {
        if (*r == ' ') {
            while (*r == ' ')
                ++r;
            if (*r == '\0')
                break;
            *w++ = ' ';
        }
        *w++ = *r++;
    }
    *w = '\0';
}

// The text being decoded: output [0, w) in front of the unread input
// [r, end), with a gap between them that entity replacements fill from the
// input side. buf[end] is always the terminating zero.
class Work {
public:
    Work(char *s, size_t len) : buf_(s), cap_(len + 1), end_(len) {}

    char *buf_;
    size_t cap_;
    size_t w_ = 0;
    size_t r_ = 0;
    size_t end_;
    bool owned_ = false;

    // Replaces the reference of `ref_len` bytes at r by `text` (`len`
    // bytes), to be scanned next. False when memory runs out.
    bool replace(size_t ref_len, const char *text, size_t len) {
        r_ += ref_len;
        if (len > ref_len && !owned_) {
            if (!move_out(len))
                return false;
        } else if (r_ - w_ < len && !grow(len)) {
            return false;
        }
        r_ -= len;
        std::memcpy(buf_ + r_, text, len);
        return true;
    }

private:
    // Into a new allocation with room for `extra` more bytes of input.
    bool move_out(size_t extra) {
        size_t rest = end_ - r_;
        size_t cap = w_ + extra + rest + 1 + 64;
        char *nb = static_cast<char *>(os::malloc(cap));
        if (nb == nullptr)
            return false;
        std::memcpy(nb, buf_, w_);
        std::memcpy(nb + cap - rest - 1, buf_ + r_, rest + 1);
        buf_ = nb;
        cap_ = cap;
        r_ = cap - rest - 1;
        end_ = cap - 1;
        owned_ = true;
        return true;
    }

    // Widens the gap of an owned buffer to at least `len` bytes.
    bool grow(size_t len) {
        size_t rest = end_ - r_;
        size_t need = w_ + len + rest + 1;
        size_t cap = cap_ * 2 > need ? cap_ * 2 : need;
        char *nb = static_cast<char *>(os::realloc(buf_, cap));
        if (nb == nullptr)
            return false;
        std::memmove(nb + cap - rest - 1, nb + r_, rest + 1);
        buf_ = nb;
        r_ = cap - rest - 1;
        end_ = cap - 1;
        cap_ = cap;
        return true;
    }
};

bool needs_decoding(const char *s, const StopTable &stops, char type) {
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(s); *p != 0; ++p) {
        if (stops.stop[*p] || (type == '*' && *p == ' '))
            return true;
    }
    return false;
}

}  // namespace

char *decode(char *s, size_t len, const EntityList &ent, char type, ExpansionBudget &budget,
             bool *moved) {
    *moved = false;
    len = normalise_line_ends(s, len);
    if (type == 'c')
        return s;
    const StopTable &stops = stops_for(type);
    if (!needs_decoding(s, stops, type))
        return s;

    const bool normalise = type == ' ' || type == '*';
    const char entity_mark = type == '%' ? '%' : '&';
    Work t(s, len);
    while (t.r_ < t.end_) {
        char *b = t.buf_;
        unsigned char c = static_cast<unsigned char>(b[t.r_]);
        if (!stops.stop[c]) {
            b[t.w_++] = b[t.r_++];
            continue;
        }
        if (c == '&' && b[t.r_ + 1] == '#') {
            uint32_t value;
            if (const char *after = char_ref(b + t.r_ + 2, &value)) {
                // A reference is always longer than its UTF-8 bytes, so the
                // output never overtakes the input.
                t.w_ += put_utf8(b + t.w_, value);
                t.r_ = static_cast<size_t>(after - b);
                continue;
            }
        } else if (c == static_cast<unsigned char>(entity_mark)) {
            long i = ent.find(b + t.r_ + 1);
            if (i >= 0) {
                size_t ref_len = 1 + std::strlen(ent.pairs()[i]);
                const char *text = ent.pairs()[i + 1];
                size_t text_len = std::strlen(text);
                if (text_len > budget.left) {
                    budget.exceeded = true;
                    if (t.owned_)
                        std::free(t.buf_);
                    return nullptr;
                }
                budget.left -= text_len;
                if (!t.replace(ref_len, text, text_len)) {
                    if (t.owned_)
                        std::free(t.buf_);
                    return nullptr;
                }
                continue;
            }
        } else if (normalise && c != 0) {  // tab, line feed or carriage return
            b[t.w_++] = ' ';
            ++t.r_;
            continue;
        }
        b[t.w_++] = b[t.r_++];
    }
    t.buf_[t.w_] = '\0';
    if (type == '*')
        squeeze_blanks(t.buf_);
    if (t.owned_) {
        *moved = true;
        // Give back the gap: decoded texts live as long as the tree.
        return static_cast<char *>(shrink(t.buf_, std::strlen(t.buf_) + 1));
    }
    return t.buf_;
}

}  // namespace qorcfg::xml
