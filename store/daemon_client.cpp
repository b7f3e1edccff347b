// store/daemon_client.cpp - asking the configuration daemon: one
// connection per query over the local socket, a fixed request record, and
// a reply of type-length-value records that decodes into attribute
// records.
//
// The decoder never trusts the reply: a record that does not fit in what
// was received, an index that does not follow a value, or an unknown type
// ends the chunk; copies into callers' buffers are bounded.
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "os/os.h"
#include "os/owners.h"
#include "store/store.h"
#include "store/wire.h"

namespace qorcfg::store {
namespace {

using namespace wire;

// Copies `text` into a request field of `size` bytes (zeroed); false when
// it does not fit with its terminating zero.
bool put_text(char *field, size_t size, const char *text) {
    if (text == nullptr)
        return true;
    size_t n = std::strlen(text);
    if (n >= size)
        return false;
    std::memcpy(field, text, n);
    return true;
}

using Chunk = ReplyChunk;

}  // namespace

// Decodes the `n` bytes of one chunk. Header records set `more` and
// `result`. On an allocation failure everything decoded from the chunk is
// freed and the chunk yields nothing.
ReplyChunk decode_chunk(unsigned char *buf, size_t n, bool *more, int *result) {
    enum { kIdle, kNameSeen, kValueSeen } state = kIdle;
    Chunk out;
    const char *name = nullptr;
    size_t pos = 0;
    while (pos + kRecordHead <= n) {
        unsigned char type = buf[pos];
        size_t len = get_be16(buf + pos + 1);
        const unsigned char *v = buf + pos + kRecordHead;
        if (type == kEndRecord || type == kEndRecordToo)
            break;
        // Texts carry a zero after their bytes; everything must have arrived.
        size_t size = type == kNameRecord || type == kValueRecord ? len + 1 : len;
        if (pos + kRecordHead + size > n)
            break;
        if (type == kHeaderRecord) {
            if (len >= kHeaderValue) {
                if (get_be32(v + kHeaderFlagsAt) & kMoreChunks)
                    *more = true;
                *result = static_cast<int32_t>(get_be32(v + kHeaderResultAt));
            }
        } else if (type == kNameRecord) {
            buf[pos + kRecordHead + len] = '\0';
            name = reinterpret_cast<const char *>(v);
            state = kNameSeen;
        } else if (type == kValueRecord) {
            buf[pos + kRecordHead + len] = '\0';
            if (state == kNameSeen) {
                qorcfg_attr *record = new_attr(name, reinterpret_cast<const char *>(v));
                if (record == nullptr) {
                    free_attr_list(out.first);
                    return Chunk{};
                }
                if (out.last != nullptr)
                    out.last->next = record;
                else
                    out.first = record;
                out.last = record;
                state = kValueSeen;
            } else {
                state = kIdle;  // a value without a name is skipped
            }
        } else if (type == kIndexRecord && state == kValueSeen && len >= 4) {
            out.last->index = static_cast<int32_t>(get_be32(v));
        } else {
            // An index that does not follow a value, or an unknown type:
            // the record cannot be consumed, so the chunk ends here.
            break;
        }
        pos += kRecordHead + size;
    }
    return out;
}

}  // namespace qorcfg::store

using namespace qorcfg;
using namespace qorcfg::store;

namespace {

// A request; `fits` false when a text does not fit its field.
qorcfg_daemon_request make_request(uint32_t code, const char *file, const char *item,
                                   const char *name, const char *path, int32_t gid, bool *fits) {
    qorcfg_daemon_request req;
    std::memset(&req, 0, sizeof req);
    *fits = put_text(req.file, sizeof req.file, file);
    req.marker[0] = wire::kMarker;
    wire::put_be32(reinterpret_cast<unsigned char *>(&req.code), code);
    *fits = put_text(req.item, sizeof req.item, item) && *fits;
    *fits = put_text(req.name, sizeof req.name, name) && *fits;
    *fits = put_text(req.path, sizeof req.path, path) && *fits;
    wire::put_be32(req.gid, static_cast<uint32_t>(gid));
    return req;
}

// A request whose text does not fit its field is not sent; it is reported
// as a transport failure, so that callers read the file instead of asking
// the daemon about a cut name.
constexpr int kNotSendable = QORCFG_ERR_DAEMON;

// Asks for one item; its value (cut to 255 characters) into `value`.
int single_item(const qorcfg_daemon_request &req, bool fits, char *value) {
    if (!fits)
        return kNotSendable;
    qorcfg_attr *list = nullptr;
    int result = get_attr_from_daemon(req, &list);
    if (result == 0 && list != nullptr && value != nullptr)
        copy_value(value, list->value != nullptr ? list->value : "");
    free_attr_list(list);
    return result;
}

}  // namespace

extern "C" {

QORCFG_API int get_attr_from_daemon(qorcfg_daemon_request request, qorcfg_attr **list) {
    if (list != nullptr)
        *list = nullptr;
    os::Fd fd(os::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd)
        return QORCFG_ERR_DAEMON_SOCKET;
    // Bounded waits (connect, send and each receive): a daemon that hangs,
    // or waits for a lock this process holds, gives a transport failure and
    // the caller reads the file itself.
    const auto limit = os::daemon_timeout();
    const timeval tv{static_cast<time_t>(limit.count() / 1000),
                     static_cast<suseconds_t>(limit.count() % 1000 * 1000)};
    os::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    os::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    // A socket path too long for the address cannot be reached (cut, it
    // could name another socket): as if no daemon listened.
    const std::string &path = os::daemon_socket_path();
    size_t len = path.size();
    if (len < sizeof addr.sun_path)
        std::memcpy(addr.sun_path, path.data(), len);
    if (len >= sizeof addr.sun_path || os::connect(fd.get(), reinterpret_cast<sockaddr *>(&addr),
                                                   static_cast<socklen_t>(len + 2)) != 0)
        return QORCFG_ERR_DAEMON_CONNECT;
    // A daemon that closes before reading must give -10004, not SIGPIPE.
    if (os::send(fd.get(), &request, QORCFG_REQUEST_SENT, MSG_NOSIGNAL) == -1)
        return QORCFG_ERR_DAEMON_SEND;
    os::Memory<unsigned char> buf(static_cast<unsigned char *>(os::calloc(wire::kChunkSize, 1)));
    if (!buf)
        return QORCFG_ERR_DAEMON_RECV;
    AttrList gathered;
    qorcfg_attr *last = nullptr;
    int result = QORCFG_OK;
    bool more = false;
    do {
        ssize_t n = os::recv(fd.get(), buf.get(), wire::kChunkSize, 0);
        if (n < 0)
            return QORCFG_ERR_DAEMON_RECV;  // what was decoded is dropped
        if (n == 0)
            break;  // the peer closed: the reply is complete
        Chunk chunk = decode_chunk(buf.get(), static_cast<size_t>(n), &more, &result);
        if (chunk.first == nullptr) {
            // A chunk without records drops everything gathered so far.
            gathered.reset();
            break;
        }
        if (last != nullptr)
            last->next = chunk.first;
        else
            gathered.reset(chunk.first);
        last = chunk.last;
    } while (more);
    if (list != nullptr)
        *list = gathered.release();
    return result;
}

QORCFG_API int get_cfg_item_daemon(const char *file, uint32_t gid, const char *item, char *value) {
    bool fits;
    qorcfg_daemon_request req = make_request(QORCFG_REQ_BY_GID, file, item, nullptr, nullptr,
                                             static_cast<int32_t>(gid), &fits);
    return single_item(req, fits, value);
}

QORCFG_API int get_cfg_item_by_str_daemon(const char *file, const char *group, const char *item,
                                          char *value) {
    bool fits;
    qorcfg_daemon_request req =
        make_request(QORCFG_REQ_BY_NAME, file, item, group, nullptr, -1, &fits);
    return single_item(req, fits, value);
}

QORCFG_API int get_cfg_item_by_all_args_daemon(const char *file, int32_t gid, const char *prefix,
                                               const char *group_path, const char *item,
                                               char *value) {
    // Name requests carry the gid -1, whatever negative value was passed.
    uint32_t code = gid >= 0 ? QORCFG_REQ_BY_GID_PATH : QORCFG_REQ_BY_NAME_PATH;
    bool fits;
    qorcfg_daemon_request req =
        make_request(code, file, item, prefix, group_path, gid >= 0 ? gid : -1, &fits);
    return single_item(req, fits, value);
}

}  // extern "C"

namespace qorcfg::store {

// Attribute list by group ID: code 5 with the sub-path, code 2 without.
qorcfg_attr *attr_list_by_gid_daemon(const char *file, uint32_t gid, const char *sub, int *code) {
    bool with_sub = sub != nullptr && sub[0] != '\0';
    bool fits;
    qorcfg_daemon_request req =
        make_request(with_sub ? QORCFG_REQ_BY_GID_PATH : QORCFG_REQ_BY_GID, file, nullptr, nullptr,
                     with_sub ? sub : nullptr, static_cast<int32_t>(gid), &fits);
    qorcfg_attr *list = nullptr;
    *code = fits ? get_attr_from_daemon(req, &list) : kNotSendable;
    return list;
}

// Attribute list by group name or prefix: code 6 with the sub-path, code 3
// without.
qorcfg_attr *attr_list_by_name_daemon(const char *file, const char *name, const char *sub,
                                      int *code) {
    bool with_sub = sub != nullptr && sub[0] != '\0';
    bool fits;
    qorcfg_daemon_request req =
        make_request(with_sub ? QORCFG_REQ_BY_NAME_PATH : QORCFG_REQ_BY_NAME, file, nullptr, name,
                     with_sub ? sub : nullptr, -1, &fits);
    qorcfg_attr *list = nullptr;
    *code = fits ? get_attr_from_daemon(req, &list) : kNotSendable;
    return list;
}

}  // namespace qorcfg::store
