// Fuzz target: prefix-limited parsing. The input's first line is the dotted
// path, the rest the document, read through a stream.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qorcfg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *text = reinterpret_cast<const char *>(data);
    const char *nl = static_cast<const char *>(std::memchr(text, '\n', size));
    if (nl == nullptr)
        return 0;
    std::string prefix(text, static_cast<size_t>(nl - text));
    std::string doc(nl + 1, size - static_cast<size_t>(nl + 1 - text));
    FILE *fp = fmemopen(doc.empty() ? nullptr : doc.data(), doc.size(), "r");
    if (fp == nullptr)
        return 0;
    ezxml_node *xml = ezxml_parse_fp_by_prefix(fp, prefix.c_str());
    std::fclose(fp);
    if (xml != nullptr) {
        std::free(ezxml_toxml(xml));
        ezxml_free(xml);
    }
    return 0;
}
