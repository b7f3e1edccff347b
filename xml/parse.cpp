// xml/parse.cpp - the parser's entry points (a buffer, a descriptor, a
// file), the markup loop and error reporting. The parts of the parse are in
// xml/elements.cpp, xml/prologue.cpp and xml/encoding.cpp (see
// xml/parser.h).
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "xml/parser.h"

namespace qorcfg::xml {

ezxml_root *new_root(const char *name) {
    auto *root = static_cast<ezxml_root *>(os::calloc(1, sizeof(ezxml_root)));
    if (root == nullptr)
        return nullptr;
    auto **ent = static_cast<char **>(os::malloc(sizeof kPredefinedEntities));
    if (ent == nullptr) {
        std::free(root);
        return nullptr;
    }
    std::memcpy(ent, kPredefinedEntities, sizeof kPredefinedEntities);
    root->xml.name = const_cast<char *>(name);
    root->xml.txt = const_cast<char *>("");
    root->xml.attr = EZXML_NIL;
    root->cur = &root->xml;
    root->ent = ent;
    root->attr = reinterpret_cast<char ***>(EZXML_NIL);
    root->pi = reinterpret_cast<char ***>(EZXML_NIL);
    return root;
}

ezxml_node *Parser::error(const char *pos, const char *format, ...) {
    int line = 1;
    for (const char *t = root_->s; t != nullptr && t < pos; ++t) {
        t = static_cast<const char *>(std::memchr(t, '\n', static_cast<size_t>(pos - t)));
        if (t == nullptr)
            break;
        ++line;
    }
    char message[EZXML_ERRL];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(message, sizeof message, format, ap);
    va_end(ap);
    char full[EZXML_ERRL + 40];  // the prefix, then the message; cut to the record's size
    std::snprintf(full, sizeof full, "[error near line %d]: %s", line, message);
    std::memcpy(root_->err, full, EZXML_ERRL - 1);
    root_->err[EZXML_ERRL - 1] = '\0';
    root_->cur = depth_ > 0 ? frames_[depth_ - 1].node : (root_closed_ ? nullptr : &root_->xml);
    failed_ = true;
    // The partial tree stays reachable: its open elements get their text so
    // far (what cannot be joined for want of memory is dropped).
    for (size_t i = depth_; i > 0; --i)
        join_text(frames_[i - 1]);
    return &root_->xml;
}

}  // namespace qorcfg::xml

using namespace qorcfg;
using namespace qorcfg::xml;

extern "C" {

QORCFG_API char *EZXML_NIL[] = {nullptr};

QORCFG_API ezxml_node *ezxml_parse_str(char *s, size_t len) {
    ezxml_root *root = new_root(nullptr);
    if (root == nullptr)
        return nullptr;
    root->m = s;
    if (s == nullptr || len == 0) {
        std::snprintf(root->err, EZXML_ERRL, "[error near line 1]: root tag missing");
        return &root->xml;
    }
    if (!utf16_to_utf8(root, &s, &len)) {
        std::snprintf(root->err, EZXML_ERRL, "[error near line 1]: out of memory");
        return &root->xml;
    }
    root->s = s;
    root->e = s + len;
    if (len == 0) {  // a byte-order mark and nothing else
        std::snprintf(root->err, EZXML_ERRL, "[error near line 1]: root tag missing");
        return &root->xml;
    }
    return Parser(root, s, len).run(s);
}

QORCFG_API ezxml_node *ezxml_parse_fd(int fd) {
    if (fd < 0)
        return nullptr;
    struct stat st;
    if (os::fstat(fd, &st) != 0)
        return nullptr;
    auto size = static_cast<size_t>(st.st_size);
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t mapped = (size + page - 1) / page * page;
    void *m = size > 0 ? os::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0)
                       : MAP_FAILED;
    if (m != MAP_FAILED) {
        madvise(m, mapped, MADV_SEQUENTIAL);
        ezxml_node *xml = ezxml_parse_str(static_cast<char *>(m), size);
        madvise(m, mapped, MADV_NORMAL);
        if (xml == nullptr) {
            os::munmap(m, mapped);
            return nullptr;
        }
        reinterpret_cast<ezxml_root *>(xml)->len = mapped;
        return xml;
    }
    // No mapping: read the file into an allocated buffer.
    auto *buf = static_cast<char *>(os::malloc(size > 0 ? size : 1));
    if (buf == nullptr)
        return nullptr;
    size_t got = 0;
    while (got < size) {
        ssize_t n = os::read(fd, buf + got, size - got);
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    ezxml_node *xml = ezxml_parse_str(buf, got);
    if (xml == nullptr) {
        std::free(buf);
        return nullptr;
    }
    reinterpret_cast<ezxml_root *>(xml)->len = kOwnedBuffer;
    return xml;
}

QORCFG_API ezxml_node *ezxml_parse_file(const char *path) {
    int fd = path != nullptr ? os::open(path, O_RDONLY) : -1;
    if (fd < 0)
        return nullptr;
    ezxml_node *xml = ezxml_parse_fd(fd);
    os::close(fd);
    return xml;
}

}  // extern "C"
