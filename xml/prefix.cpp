// xml/prefix.cpp - reading a configuration stream and parsing either all of
// it or only the element at a dotted group path.
//
// The element is found by plain text search, on purpose: it is the fast
// path for opening one group, and its matching rules are part of its
// contract. An opening probe "<name" also stops at a longer tag name that
// begins with name; occurrences are counted through the rest of the file;
// the slice ends at the first closing tag of the last name.
#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "os/os.h"
#include "xml/tree.h"

namespace qorcfg::xml {
namespace {

// Prefixes of this length or more are refused.
constexpr size_t kMaxPrefix = 1024;

// Reads what is left of the stream and drops it, so that the stream is at
// its end whatever happened.
void drain(FILE *fp) {
    char sink[512];
    while (std::fread(sink, 1, sizeof sink, fp) == sizeof sink) {
    }
}

// The whole stream in one allocation (NULL when memory runs out; the stream
// is read to its end either way).
char *read_stream(FILE *fp, size_t *len) {
    // A regular file says how much is left: one allocation then, with a
    // byte to spare so that the end is seen without growing.
    size_t cap = EZXML_BUFSIZE;
    struct stat st;
    int fd = fileno(fp);
    if (fd >= 0 && os::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        off_t at = ftello(fp);
        if (at >= 0 && st.st_size >= at)
            cap = static_cast<size_t>(st.st_size - at) + 1;
    }
    size_t n = 0;
    auto *buf = static_cast<char *>(os::malloc(cap));
    if (buf == nullptr) {
        drain(fp);
        return nullptr;
    }
    for (;;) {
        size_t got = std::fread(buf + n, 1, cap - n, fp);
        n += got;
        if (n < cap)
            break;  // a short read: end of stream or an error
        auto *grown = static_cast<char *>(os::realloc(buf, cap * 2));
        if (grown == nullptr) {
            std::free(buf);
            drain(fp);
            return nullptr;
        }
        buf = grown;
        cap *= 2;
    }
    *len = n;
    return buf;
}

// Finds `probe` (the text `head` + `name` + `tail`) in `from`.
char *find_tag(char *from, const char *head, const char *name, size_t name_len, const char *tail) {
    char probe[kMaxPrefix + 4];
    size_t h = std::strlen(head);
    size_t t = std::strlen(tail);
    std::memcpy(probe, head, h);
    std::memcpy(probe + h, name, name_len);
    std::memcpy(probe + h + name_len, tail, t + 1);
    return std::strstr(from, probe);
}

// The start of the element at the dotted path `prefix` in `data`, and the
// end of its first closing tag; false when any step is not found.
bool find_element(char *data, const char *prefix, char **start, char **stop) {
    const char *name = prefix;
    const char *dot = std::strchr(name, '.');
    size_t len = dot != nullptr ? static_cast<size_t>(dot - name) : std::strlen(name);
    // The first name is used as written, without index handling.
    char *pos = find_tag(data, "<", name, len, "");
    if (pos == nullptr)
        return false;
    while (dot != nullptr) {
        name = dot + 1;
        dot = std::strchr(name, '.');
        len = dot != nullptr ? static_cast<size_t>(dot - name) : std::strlen(name);
        size_t index = 0;
        const char *colon = static_cast<const char *>(std::memchr(name, ':', len));
        if (colon != nullptr) {
            for (const char *d = colon + 1; d < name + len; ++d) {
                if (!std::isdigit(static_cast<unsigned char>(*d)))
                    return false;
                // Any count beyond the file's size misses anyway.
                index =
                    index > SIZE_MAX / 10 ? SIZE_MAX : index * 10 + static_cast<size_t>(*d - '0');
            }
            len = static_cast<size_t>(colon - name);
        }
        pos = find_tag(pos, "<", name, len, "");
        for (; pos != nullptr && index > 0; --index)
            pos = find_tag(pos + 1, "<", name, len, "");
        if (pos == nullptr)
            return false;
    }
    char *close = find_tag(pos, "</", name, len, ">");
    if (close == nullptr)
        return false;
    *start = pos;
    *stop = close + 2 + len + 1;
    return true;
}

ezxml_node *parse_owned(char *buf, size_t len) {
    ezxml_node *xml = ezxml_parse_str(buf, len);
    if (xml == nullptr) {
        std::free(buf);
        return nullptr;
    }
    reinterpret_cast<ezxml_root *>(xml)->len = kOwnedBuffer;
    return xml;
}

}  // namespace
}  // namespace qorcfg::xml

using namespace qorcfg;
using namespace qorcfg::xml;

extern "C" {

QORCFG_API ezxml_node *ezxml_parse_fp_by_prefix(FILE *fp, const char *prefix) {
    if (fp == nullptr)
        return nullptr;
    size_t len = 0;
    char *data = read_stream(fp, &len);
    if (data == nullptr)
        return nullptr;
    if (prefix == nullptr)
        return parse_owned(data, len);
    char *start;
    char *stop;
    // The file's last byte (normally a line end) takes no part in the search.
    bool found = len > 0 && std::strlen(prefix) < kMaxPrefix &&
                 (data[len - 1] = '\0', find_element(data, prefix, &start, &stop));
    if (!found) {
        std::free(data);
        return nullptr;
    }
    // The slice runs to one byte past the closing '>' (the next byte, or the
    // terminating zero).
    size_t slice_len = static_cast<size_t>(stop - start) + 1;
    auto *slice = static_cast<char *>(os::malloc(slice_len));
    if (slice == nullptr) {
        std::free(data);
        return nullptr;
    }
    std::strncpy(slice, start, slice_len);
    std::free(data);
    return parse_owned(slice, slice_len);
}

QORCFG_API ezxml_node *ezxml_parse_fp(FILE *fp) {
    return ezxml_parse_fp_by_prefix(fp, nullptr);
}

}  // extern "C"
