// Fuzz target: the decoder of the daemon's reply chunks, on an exact-size
// copy of the input (a reply is read in chunks of at most 4,096 bytes).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "store/store.h"
#include "store/wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > qorcfg::wire::kChunkSize)
        size = qorcfg::wire::kChunkSize;
    auto *buf = static_cast<unsigned char *>(std::malloc(size > 0 ? size : 1));
    if (buf == nullptr)
        return 0;
    if (size > 0)
        std::memcpy(buf, data, size);
    bool more = false;
    int result = 0;
    qorcfg::store::ReplyChunk chunk = qorcfg::store::decode_chunk(buf, size, &more, &result);
    for (qorcfg_attr *a = chunk.first; a != nullptr; a = a->next) {
        if (a->name != nullptr)
            (void)std::strlen(a->name);
        if (a->value != nullptr)
            (void)std::strlen(a->value);
    }
    free_attr_list(chunk.first);
    std::free(buf);
    return 0;
}
