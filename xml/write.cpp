// xml/write.cpp - turning a tree back into XML text, and the escaping of
// texts and attribute values.
//
// Nothing is added to the layout: indentation and line breaks come only
// from the texts stored in the tree. The writer walks the tree with its own
// stack, so deep documents cannot exhaust the call stack.
#include <cstring>

#include "os/os.h"
#include "xml/tree.h"

namespace qorcfg::xml {
namespace {

// What must be escaped: in texts '&', '<', '>' and CR; in attribute values
// also '"', LF and tab. Zero ends the input.
struct EscapeTable {
    const char *text[256];
    const char *attr[256];
    bool text_stop[256];           // escaped in texts, or the terminating zero
    bool attr_stop[256];           // escaped in attribute values, or the terminating zero
    unsigned char length[256][2];  // of the text [0] and attribute [1] escapes
};

constexpr unsigned char length_of(const char *s) {
    unsigned char n = 0;
    while (s != nullptr && s[n] != '\0')
        ++n;
    return n;
}

constexpr EscapeTable make_escapes() {
    EscapeTable t{};
    t.text[static_cast<unsigned char>('&')] = "&amp;";
    t.text[static_cast<unsigned char>('<')] = "&lt;";
    t.text[static_cast<unsigned char>('>')] = "&gt;";
    t.text[static_cast<unsigned char>('\r')] = "&#xD;";
    for (int i = 0; i < 256; ++i)
        t.attr[i] = t.text[i];
    t.attr[static_cast<unsigned char>('"')] = "&quot;";
    t.attr[static_cast<unsigned char>('\n')] = "&#xA;";
    t.attr[static_cast<unsigned char>('\t')] = "&#x9;";
    for (int i = 0; i < 256; ++i) {
        t.text_stop[i] = i == 0 || t.text[i] != nullptr;
        t.attr_stop[i] = i == 0 || t.attr[i] != nullptr;
        t.length[i][0] = length_of(t.text[i]);
        t.length[i][1] = length_of(t.attr[i]);
    }
    return t;
}

constexpr EscapeTable kEscapes = make_escapes();

// A growing output text; after a failed allocation every write is ignored
// and the result is NULL.
class Out {
public:
    explicit Out(size_t cap = EZXML_BUFSIZE) : buf_(static_cast<char *>(os::malloc(cap))) {
        if (buf_ != nullptr) {
            buf_[0] = '\0';
            cap_ = cap;
        }
    }
    ~Out() { std::free(buf_); }

    void put(const char *s, size_t n) {
        if (!reserve(n))
            return;
        if (n <= 8) {  // markup pieces: cheaper than a call
            for (size_t i = 0; i < n; ++i)
                buf_[len_ + i] = s[i];
        } else {
            std::memcpy(buf_ + len_, s, n);
        }
        len_ += n;
    }
    void put(char c) {
        if (len_ + 2 <= cap_ || reserve(1))
            buf_[len_++] = c;
    }
    // A zero-terminated text such as a tag or attribute name, copied as it
    // is measured.
    void put(const char *s) {
        constexpr size_t kShort = 32;
        if (!reserve(kShort))
            return;
        size_t i = 0;
        while (i < kShort && s[i] != '\0') {
            buf_[len_ + i] = s[i];
            ++i;
        }
        len_ += i;
        if (i == kShort)
            put(s + kShort, std::strlen(s + kShort));
    }

    // Escapes at most `n` bytes of `s`, stopping at a zero. One pass: each
    // byte is looked up and stored, in chunks that always have room for the
    // longest escape of every byte.
    void escape(const char *s, size_t n, bool attribute) {
        constexpr size_t kChunk = 64;
        constexpr size_t kLongest = 6;  // "&quot;"
        const char *const *table = attribute ? kEscapes.attr : kEscapes.text;
        const bool *stop = attribute ? kEscapes.attr_stop : kEscapes.text_stop;
        while (n > 0) {
            if (!reserve(kChunk * kLongest))
                return;
            char *out = buf_ + len_;
            size_t limit = n < kChunk ? n : kChunk;
            size_t i = 0;
            for (; i < limit; ++i) {
                auto c = static_cast<unsigned char>(s[i]);
                if (!stop[c]) {
                    *out++ = static_cast<char>(c);
                    continue;
                }
                if (c == 0) {
                    len_ = static_cast<size_t>(out - buf_);
                    return;
                }
                const char *entity = table[c];
                size_t len = kEscapes.length[c][attribute];
                for (size_t k = 0; k < len; ++k)
                    out[k] = entity[k];
                out += len;
            }
            len_ = static_cast<size_t>(out - buf_);
            s += i;
            n -= i;
        }
    }

    // The text, shrunk to its length and zero; the caller frees it.
    char *release() {
        if (!reserve(1))
            return nullptr;
        buf_[len_] = '\0';
        auto *text = static_cast<char *>(shrink(buf_, len_ + 1));
        buf_ = nullptr;
        return text;
    }

private:
    bool reserve(size_t n) {
        if (buf_ == nullptr)
            return false;
        if (len_ + n + 1 <= cap_)
            return true;
        size_t cap = cap_ * 2 > len_ + n + 1 ? cap_ * 2 : len_ + n + 1;
        char *grown = static_cast<char *>(os::realloc(buf_, cap));
        if (grown == nullptr) {
            std::free(buf_);
            buf_ = nullptr;
            cap_ = 0;
            return false;
        }
        buf_ = grown;
        cap_ = cap;
        return true;
    }

    char *buf_;
    size_t cap_ = 0;  // 0 once an allocation failed: every write fails
    size_t len_ = 0;
};

inline bool same(const char *a, const char *b) {
    return a[0] == b[0] && std::strcmp(a, b) == 0;
}

// Writes "<name attributes>" of `xml`: its own attributes (a name that
// occurs twice once, with the value ezxml_attr gives), then the declared
// defaults it does not set.
void open_tag(Out &out, ezxml_node *xml, char ***defaults) {
    out.put('<');
    out.put(xml->name);
    char **attr = xml->attr;
    // Names seen so far, by a 64-bit filter of their first two bytes: only a
    // name that may have been seen needs the exact search for an earlier one.
    uint64_t seen = 0;
    for (size_t i = 0; attr[i] != nullptr; i += 2) {
        const auto *name = reinterpret_cast<const unsigned char *>(attr[i]);
        uint64_t bit = uint64_t{1} << ((name[0] * 7u + (name[0] ? name[1] : 0u)) & 63u);
        if (seen & bit) {
            size_t first = 0;
            while (!same(attr[first], attr[i]))
                first += 2;
            if (attr[first + 1] != attr[i + 1])
                continue;
        }
        seen |= bit;
        out.put(' ');
        out.put(attr[i]);
        out.put("=\"", 2);
        out.escape(attr[i + 1], SIZE_MAX, true);
        out.put('"');
    }
    if (defaults == nullptr || defaults[0] == nullptr)
        return;
    for (; *defaults != nullptr; ++defaults) {
        if (std::strcmp((*defaults)[0], xml->name) != 0)
            continue;
        for (char **d = *defaults + 1; *d != nullptr; d += 3) {
            if (d[1] == nullptr || ezxml_attr(xml, d[0]) != d[1])
                continue;
            out.put(' ');
            out.put(d[0]);
            out.put("=\"", 2);
            out.escape(d[1], SIZE_MAX, true);
            out.put('"');
        }
        break;
    }
}

void close_tag(Out &out, const ezxml_node *xml) {
    out.put("</", 2);
    out.put(xml->name);
    out.put('>');
}

// Writes `top` and its subtree. `top`'s own parent text and document-order
// successors are left out: only its subtree is written.
bool write_element(Out &out, ezxml_node *top, char ***defaults) {
    // Open elements with children, and the length of their text (the text
    // between their children is written in pieces, ending at offsets).
    struct Open {
        ezxml_node *node;
        size_t txt_len;
    };
    size_t cap = 32;
    size_t depth = 0;
    auto *open = static_cast<Open *>(os::malloc(cap * sizeof(Open)));
    if (open == nullptr)
        return false;
    static const char kNone[] = "";
    const char *txt = kNone;  // the text of the current element's parent
    size_t txt_len = 0;

    ezxml_node *xml = top;
    size_t start = 0;
    for (;;) {
        // Parent's text up to this element, then the element's start tag.
        out.escape(txt + start, xml->off - start, false);
        open_tag(out, xml, defaults);
        out.put('>');
        if (xml->child != nullptr) {
            if (depth == cap) {
                cap *= 2;
                auto *grown = static_cast<Open *>(os::realloc(open, cap * sizeof(Open)));
                if (grown == nullptr) {
                    std::free(open);
                    return false;
                }
                open = grown;
            }
            open[depth++] = Open{xml, std::strlen(xml->txt)};
            txt = xml->txt;
            txt_len = open[depth - 1].txt_len;
            xml = xml->child;
            start = 0;
            continue;
        }
        out.escape(xml->txt, SIZE_MAX, false);
        // Close elements until one has a successor in document order.
        for (;;) {
            close_tag(out, xml);
            // The text after it starts at its offset, within the text.
            size_t off = xml->off < txt_len ? xml->off : txt_len;
            ezxml_node *next = xml == top ? nullptr : xml->ordered;
            if (next != nullptr) {
                xml = next;
                start = off;
                break;
            }
            out.escape(txt + off, SIZE_MAX, false);
            if (depth == 0) {
                std::free(open);
                return true;
            }
            xml = open[--depth].node;
            txt = depth > 0 ? open[depth - 1].node->txt : kNone;
            txt_len = depth > 0 ? open[depth - 1].txt_len : 0;
        }
    }
}

// Instructions read before ('<') or after ('>') the document element.
void write_instructions(Out &out, char ***pi, char where) {
    for (; *pi != nullptr; ++pi) {
        char **list = *pi;
        size_t n = 1;
        while (list[n] != nullptr)
            ++n;
        const char *positions = list[n + 1];
        for (size_t j = 1; j < n; ++j) {
            if (positions[j - 1] != where)
                continue;
            if (where == '>')
                out.put('\n');
            out.put("<?", 2);
            out.put(list[0]);
            if (list[j][0] != '\0')
                out.put(' ');
            out.put(list[j]);
            out.put("?>", 2);
            if (where == '<')
                out.put('\n');
        }
    }
}

}  // namespace
}  // namespace qorcfg::xml

using namespace qorcfg;
using namespace qorcfg::xml;

extern "C" {

QORCFG_API char *ezxml_ampencode(const char *s, size_t len, char **dst, size_t *dlen, size_t *max,
                                 short a) {
    if (dst == nullptr || dlen == nullptr || max == nullptr)
        return nullptr;
    if (s == nullptr)
        return *dst;
    const char *const *table = a ? kEscapes.attr : kEscapes.text;
    for (size_t i = 0; i < len && s[i] != '\0'; ++i) {
        while (*dlen + 10 > *max) {
            auto *grown = static_cast<char *>(os::realloc(*dst, *max + EZXML_BUFSIZE));
            if (grown == nullptr)
                return *dst;  // out of memory: the text so far stays valid
            *dst = grown;
            *max += EZXML_BUFSIZE;
        }
        const char *entity = table[static_cast<unsigned char>(s[i])];
        if (entity == nullptr) {
            (*dst)[(*dlen)++] = s[i];
        } else {
            size_t n = std::strlen(entity);
            std::memcpy(*dst + *dlen, entity, n);
            *dlen += n;
        }
    }
    if (*dst != nullptr && *dlen < *max)
        (*dst)[*dlen] = '\0';
    return *dst;
}

QORCFG_API char *ezxml_toxml(ezxml_node *xml) {
    if (xml == nullptr || xml->name == nullptr)
        return Out(1).release();
    ezxml_root *root = root_of(xml);
    // A parsed document's text is about as long as its source: start there
    // rather than grow through many copies.
    size_t estimate = EZXML_BUFSIZE;
    if (xml->parent == nullptr && root->s != nullptr && root->e > root->s)
        estimate +=
            static_cast<size_t>(root->e - root->s) + static_cast<size_t>(root->e - root->s) / 8;
    Out out(estimate);
    bool document = xml->parent == nullptr;
    if (document)
        write_instructions(out, root->pi, '<');
    if (!write_element(out, xml, root->attr))
        return nullptr;
    if (document)
        write_instructions(out, root->pi, '>');
    return out.release();
}

}  // extern "C"
