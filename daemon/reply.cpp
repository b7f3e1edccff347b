// daemon/reply.cpp - the daemon's answers, as reply chunks.
#include "daemon/reply.h"

#include <sys/file.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string_view>

#include "store/platform.h"

namespace qorcfg::daemon {
namespace {

using namespace wire;

constexpr size_t kHeaderSize = kRecordHead + kHeaderValue;
constexpr size_t kEndSize = kRecordHead;
// Bytes of a chunk left for attribute records.
constexpr size_t kRecordRoom = kChunkSize - kHeaderSize - kEndSize;

// Lays records out in one chunk: a header, records, an end record, zeros.
class ChunkWriter {
public:
    ChunkWriter(Chunk &chunk, int32_t result) : chunk_(chunk) {
        chunk_.fill(0);
        chunk_[0] = kHeaderRecord;
        put_be16(&chunk_[1], kHeaderValue);
        put_be32(&chunk_[kRecordHead + kHeaderResultAt], static_cast<uint32_t>(result));
        at_ = kHeaderSize;
    }
    // Whether `bytes` more fit before the end record.
    bool fits(size_t bytes) const { return at_ + bytes + kEndSize <= kChunkSize; }
    void text(unsigned char type, std::string_view text) {
        chunk_[at_] = type;
        put_be16(&chunk_[at_ + 1], static_cast<uint32_t>(text.size()));
        std::memcpy(&chunk_[at_ + kRecordHead], text.data(), text.size());
        at_ += kRecordHead + text.size() + 1;  // and the zero after the text
    }
    void index(int32_t index) {
        chunk_[at_] = kIndexRecord;
        put_be16(&chunk_[at_ + 1], 4);
        put_be32(&chunk_[at_ + kRecordHead], static_cast<uint32_t>(index));
        at_ += kRecordHead + 4;
    }
    // The flags of the chunk's header; the end record is already there
    // (the chunk was zero-filled, and type 0 ends it).
    void flags(uint32_t flags) { put_be32(&chunk_[kRecordHead + kHeaderFlagsAt], flags); }

private:
    Chunk &chunk_;
    size_t at_;
};

const char *text_of(const char *s) {
    return s != nullptr ? s : "";
}

// The bytes of an attribute's records: name, value and, for a repeated
// element, its index. They go into one chunk together, since the client
// pairs a value with the name before it and an index with the value before
// it only within a chunk.
size_t record_size(const store::AttrRecord &r) {
    return 2 * (kRecordHead + 1) + std::strlen(text_of(r.name)) + std::strlen(text_of(r.value)) +
           (r.index != -1 ? kRecordHead + 4 : 0);
}

void put_record(ChunkWriter &w, const store::AttrRecord &r) {
    w.text(kNameRecord, text_of(r.name));
    w.text(kValueRecord, text_of(r.value));
    if (r.index != -1)
        w.index(r.index);
}

// True when the text field holds its terminating zero.
template <size_t N>
bool terminated(const char (&field)[N]) {
    return std::memchr(field, '\0', N) != nullptr;
}

// The item read of a request with a group path, done as a client does it
// after the daemon failed: the group's element at "qorconfig.<path>" parsed
// alone from the file, then the core read with that element's name as the
// prefix. The text is formed in the client's 129-byte buffer, cut alike.
//
// The read takes the file's shared lock, which a writer (or a client that
// holds the lock while it asks) may hold for long: waiting for it would
// stall every client. So the lock is tried without waiting and held over
// the read (another shared lock is then granted at once); when it is busy
// the answer is QORCFG_ERR_DAEMON and the client reads the file itself.
int item_by_path(const char *file, const char *path, const char *item, char *value) {
    value[0] = '\0';
    store::HeldLock held(store::file_kind(file), LOCK_SH | LOCK_NB);
    if (!held.held())
        return QORCFG_ERR_DAEMON;
    std::string group_path = std::string("qorconfig.") + path;
    if (group_path.size() > 128)
        group_path.resize(128);
    ezxml_node *root = init_sub_qorcfg_direct(group_path.c_str(), 0, file);
    held.release();
    if (root == nullptr)
        return QORCFG_ERR_FAIL;
    qorcfg_handle sub;
    sub.xml = root;
    int result = get_cfg_item_by_prefix_direct(&sub, root->name, item, value);
    ezxml_free(root);
    return result;
}

}  // namespace

void failure_chunk(Chunk &chunk, int32_t result) {
    ChunkWriter w(chunk, result);
}

Files::~Files() {
    if (ram != nullptr)
        close_qorcfg(ram);
    if (current != nullptr)
        close_qorcfg(current);
}

Reply::Reply(std::shared_ptr<const Files> files, const qorcfg_daemon_request &request)
    : files_(std::move(files)) {
    has_single_ = true;
    if (!files_) {  // not read yet: the client reads the file itself
        failure_chunk(single_, QORCFG_ERR_DAEMON);
        return;
    }
    if (!terminated(request.file) || !terminated(request.marker) || !terminated(request.item) ||
        !terminated(request.name) || !terminated(request.path)) {
        failure_chunk(single_, QORCFG_ERR_FAIL);
        return;
    }
    const bool is_current = std::strcmp(request.file, current_config) == 0;
    qorcfg_handle *handle = is_current ? files_->current : files_->ram;
    const char *file = is_current ? current_config : config_ram;
    const uint32_t code = get_be32(reinterpret_cast<const unsigned char *>(&request.code));
    const uint32_t gid = get_be32(request.gid);
    if (code != QORCFG_REQ_BY_GID && code != QORCFG_REQ_BY_NAME && code != QORCFG_REQ_BY_GID_PATH &&
        code != QORCFG_REQ_BY_NAME_PATH) {
        failure_chunk(single_, QORCFG_ERR_FAIL);
        return;
    }
    if (handle == nullptr) {
        failure_chunk(single_, QORCFG_ERR_FAIL);
        return;
    }

    if (request.item[0] == '\0') {  // an empty item asks for the attribute list
        has_single_ = false;
        walk_ = std::make_unique<store::AttrWalk>();
        const bool by_gid = code == QORCFG_REQ_BY_GID || code == QORCFG_REQ_BY_GID_PATH;
        const char *sub = code == QORCFG_REQ_BY_GID_PATH || code == QORCFG_REQ_BY_NAME_PATH
                              ? request.path
                              : nullptr;
        const bool walking = by_gid ? store::walk_by_gid(handle, gid, sub, -1, *walk_)
                                    : store::walk_by_name(handle, request.name, sub, -1, *walk_);
        walk_done_ = !walking;  // no list: one chunk without records
        failed_ = walk_->failed();
        return;
    }

    std::array<char, QORCFG_VALUE_SIZE> value{};
    int result;
    switch (code) {
        case QORCFG_REQ_BY_GID:
            result = get_cfg_item_direct(handle, gid, request.item, value.data());
            break;
        case QORCFG_REQ_BY_NAME:
            result = get_cfg_item_by_str_direct(handle, request.name, request.item, value.data());
            break;
        default:
            result = item_by_path(file, request.path, request.item, value.data());
            break;
    }
    ChunkWriter w(single_, result);
    const store::AttrRecord record{request.item, value.data(), -1};
    if (result == QORCFG_OK && !w.fits(record_size(record)))
        failure_chunk(single_, QORCFG_ERR_DAEMON);
    else if (result == QORCFG_OK)
        put_record(w, record);
}

Reply::~Reply() = default;

Reply::Next Reply::next(Chunk &chunk) {
    if (has_single_) {
        if (chunks_ > 0)
            return Next::done;
        chunk = single_;
        ++chunks_;
        return Next::chunk;
    }
    if (failed_)
        return Next::inexpressible;
    if (chunks_ > 0 && walk_done_ && !has_pending_)
        return Next::done;
    if (!fill_list(chunk))
        return Next::inexpressible;
    ++chunks_;
    return Next::chunk;
}

// The next chunk of a list: records until one does not fit (it opens the
// next chunk) or the walk ends. Every chunk of a reply of several carries
// the flag that more follow; the client reads those until the close.
bool Reply::fill_list(Chunk &chunk) {
    ChunkWriter w(chunk, QORCFG_OK);
    if (has_pending_) {
        put_record(w, pending_);
        has_pending_ = false;
    }
    store::AttrRecord r;
    while (!walk_done_) {
        if (!walk_->next(r)) {
            walk_done_ = true;
            if (walk_->failed())
                return false;
            break;
        }
        const size_t size = record_size(r);
        if (size > kRecordRoom)
            return false;
        if (!w.fits(size)) {
            pending_ = r;
            has_pending_ = true;
            break;
        }
        put_record(w, r);
    }
    if (chunks_ > 0 || has_pending_)
        w.flags(kMoreChunks);
    return true;
}

qorcfg_daemon_request request_from_bytes(const void *data, size_t size) {
    qorcfg_daemon_request request;
    std::memset(&request, 0, sizeof request);
    if (data != nullptr)
        std::memcpy(&request, data, std::min<size_t>(size, QORCFG_REQUEST_SENT));
    return request;
}

std::string answer(qorcfg_handle *ram, qorcfg_handle *current,
                   const qorcfg_daemon_request &request) {
    // The handles stay the caller's: they are let go before the record is.
    std::shared_ptr<Files> files(new Files, [](Files *f) {
        f->ram = f->current = nullptr;
        delete f;
    });
    files->ram = ram;
    files->current = current;
    Reply reply(files, request);
    std::string out;
    Chunk chunk;
    for (;;) {
        switch (reply.next(chunk)) {
            case Reply::Next::chunk:
                out.append(reinterpret_cast<const char *>(chunk.data()), chunk.size());
                break;
            case Reply::Next::done:
                return out;
            case Reply::Next::inexpressible:
                failure_chunk(chunk, QORCFG_ERR_DAEMON);
                return std::string(reinterpret_cast<const char *>(chunk.data()), chunk.size());
        }
    }
}

}  // namespace qorcfg::daemon
