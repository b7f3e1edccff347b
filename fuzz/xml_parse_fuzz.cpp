// Fuzz target: the in-place parser on an exact-size buffer (so that any read
// past the input is caught), then the serialiser, then freeing.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "qorcfg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto *buf = static_cast<char *>(std::malloc(size > 0 ? size : 1));
    if (buf == nullptr)
        return 0;
    if (size > 0)
        std::memcpy(buf, data, size);
    ezxml_node *xml = ezxml_parse_str(buf, size);
    if (xml != nullptr) {
        // Walk what navigation callers walk.
        for (ezxml_node *c = xml->child; c != nullptr; c = c->ordered) {
            ezxml_attr(c, "id");
            ezxml_idx(ezxml_child(xml, c->name), 1);
        }
        std::free(ezxml_toxml(xml));
        if (xml->child != nullptr)
            std::free(ezxml_toxml(xml->child));
        ezxml_free(xml);
    }
    std::free(buf);
    return 0;
}
