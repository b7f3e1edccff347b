// xml/pool.cpp - chunked storage of parsed element records, and their
// release one by one.
#include "xml/pool.h"

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "os/os.h"

namespace qorcfg::xml {

// A chunk: this header, then the records.
struct Chunk {
    size_t live;  // records not yet freed, plus the parse's own hold
    size_t size;  // bytes after the header
    char *data() { return reinterpret_cast<char *>(this + 1); }
};

namespace {

constexpr size_t kAlign = alignof(ezxml_node) > alignof(void *) ? alignof(ezxml_node)
                                                                : alignof(void *);
constexpr size_t kMinChunk = 4096;
constexpr size_t kMaxChunk = size_t{4} << 20;

size_t round_up(size_t n) {
    return (n + kAlign - 1) & ~(kAlign - 1);
}

// The chunks that exist, sorted by address, under one lock. `g_count`
// is also kept atomically so that freeing trees that hold no pooled record
// never touches the lock.
pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
Chunk **g_chunks = nullptr;
size_t g_count = 0;
size_t g_cap = 0;
std::atomic<size_t> g_published{0};

// Index of the first chunk whose address is above `p` (under the lock).
size_t upper(const void *p) {
    size_t lo = 0;
    size_t hi = g_count;
    while (lo < hi) {
        size_t mid = (lo + hi) / 2;
        if (reinterpret_cast<uintptr_t>(g_chunks[mid]) <= reinterpret_cast<uintptr_t>(p))
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

bool contains(Chunk *c, const void *p) {
    auto a = reinterpret_cast<uintptr_t>(p);
    auto b = reinterpret_cast<uintptr_t>(c->data());
    return a >= b && a < b + c->size;
}

bool register_chunk(Chunk *c) {
    if (g_count == g_cap) {
        size_t cap = g_cap == 0 ? 16 : g_cap * 2;
        auto **grown = static_cast<Chunk **>(os::realloc(g_chunks, cap * sizeof(Chunk *)));
        if (grown == nullptr)
            return false;
        g_chunks = grown;
        g_cap = cap;
    }
    size_t at = upper(c);
    std::memmove(g_chunks + at + 1, g_chunks + at, (g_count - at) * sizeof(Chunk *));
    g_chunks[at] = c;
    ++g_count;
    g_published.store(g_count, std::memory_order_release);
    return true;
}

void unregister_chunk(size_t at) {
    std::memmove(g_chunks + at, g_chunks + at + 1, (g_count - at - 1) * sizeof(Chunk *));
    --g_count;
    g_published.store(g_count, std::memory_order_release);
    if (g_count == 0) {
        std::free(g_chunks);
        g_chunks = nullptr;
        g_cap = 0;
    }
}

// Drops `n` live records of the chunk at registry index `at` (under the
// lock); frees the chunk when none is left. True when it was freed.
bool drop(size_t at, size_t n) {
    Chunk *c = g_chunks[at];
    c->live -= n;
    if (c->live != 0)
        return false;
    unregister_chunk(at);
    std::free(c);
    return true;
}

}  // namespace

NodePool::NodePool(size_t input) : input_(input) {}

NodePool::~NodePool() {
    close_chunk();
}

void *NodePool::allocate(size_t bytes, size_t left) {
    bytes = round_up(bytes);
    if (static_cast<size_t>(end_ - next_) < bytes && !next_chunk(bytes, left))
        return nullptr;
    void *p = next_;
    next_ += bytes;
    ++live_;
    return p;
}

void NodePool::undo(void *p, size_t bytes) {
    if (static_cast<char *>(p) + round_up(bytes) == next_)
        next_ = static_cast<char *>(p);
    --live_;
}

bool NodePool::next_chunk(size_t bytes, size_t left) {
    size_t read = input_ > left ? input_ - left : 0;
    size_t used = used_ + (chunk_ != nullptr ? static_cast<size_t>(next_ - chunk_->data()) : 0);
    close_chunk();
    used_ = used;
    // The rest of the document will need what the part read so far needed,
    // in proportion, with an eighth to spare. Before any use is known:
    // about as many bytes as the document on 32-bit CPUs, twice as many on
    // 64-bit ones.
    size_t guess;
    if (used > 0 && read > 0)
        guess = static_cast<size_t>(static_cast<double>(used) / static_cast<double>(read) *
                                    static_cast<double>(left) * 1.125);
    else
        guess = input_ / 4 * sizeof(void *);
    size_t size = guess < kMinChunk ? kMinChunk : guess > kMaxChunk ? kMaxChunk : guess;
    if (size < bytes)
        size = bytes;
    auto *c = static_cast<Chunk *>(os::malloc(sizeof(Chunk) + size));
    if (c == nullptr)
        return false;
    c->live = 1;  // the parse's hold, given up in close_chunk
    c->size = size;
    pthread_mutex_lock(&g_lock);
    bool ok = register_chunk(c);
    pthread_mutex_unlock(&g_lock);
    if (!ok) {
        std::free(c);
        return false;
    }
    chunk_ = c;
    next_ = c->data();
    end_ = next_ + size;
    live_ = 0;
    return true;
}

// Hands the records taken from the current chunk over to the chunk's count
// and gives up the parse's hold on it.
void NodePool::close_chunk() {
    if (chunk_ == nullptr)
        return;
    pthread_mutex_lock(&g_lock);
    chunk_->live += live_;
    size_t at = upper(chunk_) - 1;
    drop(at, 1);
    pthread_mutex_unlock(&g_lock);
    chunk_ = nullptr;
    next_ = end_ = nullptr;
    live_ = 0;
}

NodeReleaser::NodeReleaser() = default;

NodeReleaser::~NodeReleaser() {
    if (locked_)
        pthread_mutex_unlock(&g_lock);
}

void NodeReleaser::release(ezxml_node *node) {
    if (!locked_) {
        if (g_published.load(std::memory_order_acquire) == 0) {
            std::free(node);
            return;
        }
        pthread_mutex_lock(&g_lock);
        locked_ = true;
    }
    size_t at = cached_;
    if (at >= g_count || !contains(g_chunks[at], node)) {
        at = upper(node);
        at = at > 0 && contains(g_chunks[at - 1], node) ? at - 1 : SIZE_MAX;
    }
    if (at == SIZE_MAX) {
        std::free(node);
        return;
    }
    cached_ = drop(at, 1) ? SIZE_MAX : at;
}

}  // namespace qorcfg::xml
