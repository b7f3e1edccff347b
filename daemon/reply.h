// daemon/reply.h - the daemon's answers: a request record in, reply chunks
// out, made one at a time as the client reads them.
//
// Answers come from the library's own local reads on handles parsed from
// the files, so a lookup through the daemon gives the value and result code
// that a process reading the file itself would get. An attribute list is
// streamed from the library's attribute walk over the parsed tree, which
// the reply keeps alive (Files) until it is sent, so a big reply costs a
// chunk of memory, not the whole list.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "qorcfg.h"
#include "store/store.h"
#include "store/wire.h"

namespace qorcfg::daemon {

// The parsed working copy and current configuration, either of which may
// be NULL (a file that could not be read: its requests answer -1). Closed
// when the last reply answered from them is done.
struct Files {
    Files() = default;
    Files(const Files &) = delete;
    Files &operator=(const Files &) = delete;
    ~Files();
    qorcfg_handle *ram = nullptr;
    qorcfg_handle *current = nullptr;
};

using Chunk = std::array<unsigned char, wire::kChunkSize>;

// The reply to one request.
class Reply {
public:
    // The reply to `request`, answered from `files`. Throws std::bad_alloc.
    Reply(std::shared_ptr<const Files> files, const qorcfg_daemon_request &request);
    ~Reply();
    Reply(const Reply &) = delete;
    Reply &operator=(const Reply &) = delete;

    enum class Next {
        chunk,          // `chunk` holds the next chunk
        done,           // the reply is complete
        inexpressible,  // an attribute does not fit in a chunk, or memory ran out
    };
    Next next(Chunk &chunk);
    // Whether a chunk has been given out yet.
    bool started() const { return chunks_ > 0; }
    // Whether every chunk has been given out.
    bool finished() const {
        return chunks_ > 0 && (has_single_ || (walk_done_ && !has_pending_ && !failed_));
    }

private:
    bool fill_list(Chunk &chunk);

    std::shared_ptr<const Files> files_;
    // A reply of one chunk, made at once, or a list walked as it is sent.
    Chunk single_{};
    bool has_single_ = false;
    std::unique_ptr<store::AttrWalk> walk_;
    store::AttrRecord pending_{};
    bool has_pending_ = false;
    bool walk_done_ = false;
    bool failed_ = false;
    size_t chunks_ = 0;
};

// A chunk that carries only a result code (no records).
void failure_chunk(Chunk &chunk, int32_t result);

// The request record of `size` received bytes: at most the bytes a client
// sends are copied into a zeroed record, so a short input leaves the rest
// zero and a longer one is cut.
qorcfg_daemon_request request_from_bytes(const void *data, size_t size);

// The whole reply to `request` (every chunk), from `ram` and `current`,
// which stay the caller's. An attribute that no chunk can hold makes the
// reply a single chunk with result QORCFG_ERR_DAEMON (the client then
// reads the file itself). For tests and the fuzzer; the daemon streams.
std::string answer(qorcfg_handle *ram, qorcfg_handle *current,
                   const qorcfg_daemon_request &request);

}  // namespace qorcfg::daemon
