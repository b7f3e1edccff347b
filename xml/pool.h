// xml/pool.h - storage of the element records a parse creates.
//
// A parse makes thousands of small records; taking each from malloc costs
// about a third of the parse. The parser takes them from large chunks
// instead. Every record can still be freed on its own, at any time and from
// any document it was moved into: a chunk counts its live records and goes
// back to malloc when the last one is freed. ezxml_free tells pooled
// records from malloc'ed ones (ezxml_new, ezxml_add_child, callers' own) by
// their address, through a registry of the chunks that exist.
#pragma once

#include <cstddef>

#include "qorcfg/xml.h"

namespace qorcfg::xml {

struct Chunk;

// Hands out storage to one parse, one chunk at a time.
class NodePool {
public:
    // `input` is the document's length, from which the first chunk is sized.
    explicit NodePool(size_t input);
    ~NodePool();
    NodePool(const NodePool &) = delete;
    NodePool &operator=(const NodePool &) = delete;

    // Storage for a record of `bytes` bytes, with `left` bytes of the
    // document still to be read (to size the next chunk from the use so
    // far); NULL when memory runs out.
    void *allocate(size_t bytes, size_t left);
    // Takes back the storage `allocate` just returned (before it was used).
    void undo(void *p, size_t bytes);

private:
    bool next_chunk(size_t bytes, size_t left);
    void close_chunk();

    Chunk *chunk_ = nullptr;
    char *next_ = nullptr;
    char *end_ = nullptr;
    size_t live_ = 0;  // records taken from the current chunk
    size_t input_;     // the document's length
    size_t used_ = 0;  // bytes handed out by the chunks closed so far
};

// Frees records for ezxml_free: a pooled record's chunk loses one live
// record, any other record goes to free(). Holds the registry for its
// lifetime, so one ezxml_free pays for one lock.
class NodeReleaser {
public:
    NodeReleaser();
    ~NodeReleaser();
    NodeReleaser(const NodeReleaser &) = delete;
    NodeReleaser &operator=(const NodeReleaser &) = delete;

    void release(ezxml_node *node);

private:
    bool locked_ = false;
    size_t cached_ = SIZE_MAX;  // registry index of the last chunk found
};

}  // namespace qorcfg::xml
