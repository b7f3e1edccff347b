// daemon/server.cpp - the configuration daemon's request handling and event
// loop.
//
// Answers come from the library's own local reads on handles parsed from
// the files, so a lookup through the daemon gives the value and result code
// that a process reading the file itself would get. The loop is one thread
// around poll(): every socket is non-blocking, every client has its own
// buffers, and a client that is slow, silent, hostile or gone costs a slot
// until its reply is written or it is dropped, never a wait.
#include "daemon/server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "os/os.h"
#include "store/platform.h"
#include "store/store.h"
#include "store/wire.h"

namespace qorcfg::daemon {
namespace {

using Clock = std::chrono::steady_clock;

using namespace wire;

constexpr size_t kHeaderSize = kRecordHead + kHeaderValue;
constexpr size_t kEndSize = kRecordHead;
// Bytes of a chunk left for attribute records.
constexpr size_t kRecordRoom = kChunkSize - kHeaderSize - kEndSize;

void put16(std::string &out, uint32_t v) {
    unsigned char bytes[2];
    put_be16(bytes, v);
    out.append(reinterpret_cast<const char *>(bytes), sizeof bytes);
}

void put32(std::string &out, uint32_t v) {
    unsigned char bytes[4];
    put_be32(bytes, v);
    out.append(reinterpret_cast<const char *>(bytes), sizeof bytes);
}

// A name or value record: the text's bytes and a terminating zero, which
// the length does not count.
void put_text(std::string &out, unsigned char type, std::string_view text) {
    out.push_back(static_cast<char>(type));
    put16(out, static_cast<uint32_t>(text.size()));
    out.append(text);
    out.push_back('\0');
}

// The records of one attribute: name, value and, for a repeated element,
// its index. They go into one chunk together, since the client pairs a
// value with the name before it and an index with the value before it only
// within a chunk.
std::string attribute_records(const char *name, const char *value, int32_t index) {
    std::string out;
    put_text(out, kNameRecord, name != nullptr ? name : "");
    put_text(out, kValueRecord, value != nullptr ? value : "");
    if (index != -1) {
        out.push_back(static_cast<char>(kIndexRecord));
        put16(out, 4);
        put32(out, static_cast<uint32_t>(index));
    }
    return out;
}

// Lays records out in chunks: each chunk opens with a header and ends with
// an end record and zero padding to kChunkSize.
class ReplyBuilder {
public:
    explicit ReplyBuilder(int32_t result) : result_(result) { open_chunk(); }

    // Appends records that must stay in one chunk; false when they are too
    // long for any chunk.
    bool add(std::string_view records) {
        if (records.size() > kRecordRoom)
            return false;
        if (out_.size() - chunk_start_ + records.size() + kEndSize > kChunkSize) {
            close_chunk();
            open_chunk();
        }
        out_.append(records);
        return true;
    }

    std::string finish() && {
        close_chunk();
        if (headers_.size() > 1) {
            // The client keeps reading while a header says more follows,
            // until the daemon closes the connection.
            for (size_t at : headers_)
                put_be32(
                    reinterpret_cast<unsigned char *>(&out_[at + kRecordHead + kHeaderFlagsAt]),
                    kMoreChunks);
        }
        return std::move(out_);
    }

private:
    void open_chunk() {
        chunk_start_ = out_.size();
        headers_.push_back(chunk_start_);
        out_.push_back(static_cast<char>(kHeaderRecord));
        put16(out_, 12);
        put32(out_, 0);  // not read by the client
        put32(out_, 0);  // flags, set by finish()
        put32(out_, static_cast<uint32_t>(result_));
    }

    void close_chunk() {
        out_.push_back(static_cast<char>(kEndRecord));
        put16(out_, 0);
        out_.resize(chunk_start_ + kChunkSize, '\0');
    }

    int32_t result_;
    std::string out_;
    size_t chunk_start_ = 0;
    std::vector<size_t> headers_;
};

std::string result_only(int32_t result) {
    return ReplyBuilder(result).finish();
}

std::string item_reply(int result, const char *item, const char *value) {
    ReplyBuilder reply(result);
    if (result == 0)
        reply.add(attribute_records(item, value, -1));
    return std::move(reply).finish();
}

std::string list_reply(qorcfg_attr *list) {
    store::AttrList owner(list);
    ReplyBuilder reply(0);
    for (const qorcfg_attr *a = list; a != nullptr; a = a->next) {
        if (!reply.add(attribute_records(a->name, a->value, a->index)))
            return result_only(QORCFG_ERR_DAEMON);
    }
    return std::move(reply).finish();
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
        return -1;
    qorcfg_handle sub;
    sub.xml = root;
    int result = get_cfg_item_by_prefix_direct(&sub, root->name, item, value);
    ezxml_free(root);
    return result;
}

}  // namespace

qorcfg_daemon_request request_from_bytes(const void *data, size_t size) {
    qorcfg_daemon_request request;
    std::memset(&request, 0, sizeof request);
    if (data != nullptr)
        std::memcpy(&request, data, std::min<size_t>(size, QORCFG_REQUEST_SENT));
    return request;
}

std::string answer(qorcfg_handle *ram, qorcfg_handle *current,
                   const qorcfg_daemon_request &request) {
    if (!terminated(request.file) || !terminated(request.item) || !terminated(request.name) ||
        !terminated(request.path))
        return result_only(-1);
    const bool is_current = std::strcmp(request.file, current_config) == 0;
    qorcfg_handle *handle = is_current ? current : ram;
    const char *file = is_current ? current_config : config_ram;
    const uint32_t code = get_be32(reinterpret_cast<const unsigned char *>(&request.code));
    const uint32_t gid = get_be32(request.gid);
    const bool list = request.item[0] == '\0';

    if (code != QORCFG_REQ_BY_GID && code != QORCFG_REQ_BY_NAME && code != QORCFG_REQ_BY_GID_PATH &&
        code != QORCFG_REQ_BY_NAME_PATH)
        return result_only(-1);
    if (handle == nullptr)
        return result_only(-1);

    if (list) {
        switch (code) {
            case QORCFG_REQ_BY_GID:
                return list_reply(get_attr_list_by_gid_direct(handle, gid, nullptr));
            case QORCFG_REQ_BY_NAME:
                return list_reply(
                    get_attr_list_by_group_name_direct(handle, request.name, nullptr));
            case QORCFG_REQ_BY_GID_PATH:
                return list_reply(get_attr_list_by_gid_direct(handle, gid, request.path));
            default:
                return list_reply(
                    get_attr_list_by_group_name_direct(handle, request.name, request.path));
        }
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
            if (result == QORCFG_ERR_DAEMON)
                return result_only(QORCFG_ERR_DAEMON);
            break;
    }
    return item_reply(result, request.item, value.data());
}

// ---- the server ------------------------------------------------------------

namespace {

// The write end of the self-pipe of the server that handles signals, and
// what the signals asked for. The flags carry the request; the pipe only
// wakes the loop, so a full pipe loses nothing.
std::atomic<int> g_signal_fd{-1};
std::atomic<bool> g_signal_reload{false};
std::atomic<bool> g_signal_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "used from a signal handler");

extern "C" void on_signal(int sig) {
    const int saved = errno;
    (sig == SIGUSR2 ? g_signal_reload : g_signal_stop).store(true);
    const int fd = g_signal_fd.load();
    if (fd >= 0) {
        const char byte = 'S';
        [[maybe_unused]] ssize_t n = os::write(fd, &byte, 1);
    }
    errno = saved;
}

void complain(const char *what, const char *detail) {
    std::fprintf(stderr, "qorcfgd: %s: %s\n", what, detail);
}

}  // namespace

struct Server::Client {
    int fd = -1;
    std::array<unsigned char, QORCFG_REQUEST_SENT> request{};
    size_t received = 0;
    bool answered = false;
    std::string reply;
    size_t sent = 0;
    Clock::time_point last_activity;
};

Server::Server(Options options) : options_(options) {
    if (options_.max_clients == 0)
        options_.max_clients = 1;
}

Server::~Server() {
    stop();
    if (g_signal_fd.load() == wake_write_ && wake_write_ >= 0) {
        g_signal_fd.store(-1);
        std::signal(SIGUSR2, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
        std::signal(SIGINT, SIG_DFL);
    }
    if (wake_read_ >= 0)
        os::close(wake_read_);
    if (wake_write_ >= 0)
        os::close(wake_write_);
}

std::string Server::answer(const qorcfg_daemon_request &request) const {
    return daemon::answer(ram_, current_, request);
}

void Server::load_files() {
    // The daemon's own handles must hold the parsed files, not ask a daemon.
    set_all_net_qorcfg_mode(0);
    ram_ = init_qorcfg_f(config_ram);
    current_ = init_qorcfg_f(current_config);
    if (ram_ == nullptr)
        complain(config_ram, "cannot be read; its requests are answered with -1");
    if (current_ == nullptr)
        complain(current_config, "cannot be read; its requests are answered with -1");
}

void Server::free_files() {
    if (ram_ != nullptr)
        close_qorcfg(ram_);
    if (current_ != nullptr)
        close_qorcfg(current_);
    ram_ = current_ = nullptr;
}

void Server::reload() {
    free_files();
    load_files();
    ++reload_count_;
}

bool Server::open_socket() {
    socket_path_ = os::daemon_socket_path();
    sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (socket_path_.empty() || socket_path_.size() >= sizeof addr.sun_path) {
        complain(socket_path_.c_str(), "socket path too long for a socket address");
        return false;
    }
    std::memcpy(addr.sun_path, socket_path_.data(), socket_path_.size());
    const auto len =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socket_path_.size() + 1);
    listener_ = os::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listener_ < 0) {
        complain("socket", std::strerror(errno));
        return false;
    }
    const auto *address = reinterpret_cast<const sockaddr *>(&addr);
    int bound = os::bind(listener_, address, len);
    if (bound != 0 && errno == EADDRINUSE) {
        // A socket file is there: another daemon, or one left by a daemon
        // that did not end cleanly. Only the latter may be replaced.
        int probe = os::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool alive = probe >= 0 && os::connect(probe, address, len) == 0;
        if (probe >= 0)
            os::close(probe);
        if (alive) {
            complain(socket_path_.c_str(), "another daemon answers on this socket");
            return false;
        }
        os::remove_socket(socket_path_.c_str());
        bound = os::bind(listener_, address, len);
    }
    if (bound != 0) {
        complain(socket_path_.c_str(), std::strerror(errno));
        return false;
    }
    socket_bound_ = true;
    return true;
}

bool Server::start() {
    if (started_)
        return true;
    if (wake_read_ < 0) {
        int fds[2];
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) {
            complain("pipe", std::strerror(errno));
            return false;
        }
        wake_read_ = fds[0];
        wake_write_ = fds[1];
    }
    stop_requested_ = false;
    if (!open_socket()) {
        stop();
        return false;
    }
    // The pid file is complete before the first client can connect (the
    // socket listens only after it is in place), and the files are parsed
    // after it: a writer that commits in between then finds the pid and
    // signals a re-read, instead of finding none and leaving the daemon on
    // the old files.
    const std::string pid = std::to_string(::getpid()) + "\n";
    pid_written_ = os::write_file(kPidFile, pid) == 0;
    if (!pid_written_)
        complain(kPidFile, "cannot be written; writers cannot signal this daemon to re-read");
    if (os::listen(listener_, SOMAXCONN) != 0) {
        complain("listen", std::strerror(errno));
        stop();
        return false;
    }
    load_files();
    started_ = true;
    return true;
}

void Server::stop() {
    for (Client &c : clients_) {
        if (c.fd >= 0)
            os::close(c.fd);
    }
    clients_.clear();
    client_count_ = 0;
    if (listener_ >= 0) {
        os::close(listener_);
        listener_ = -1;
    }
    if (socket_bound_) {
        os::remove_socket(socket_path_.c_str());
        socket_bound_ = false;
    }
    if (pid_written_) {
        os::unlink(kPidFile);
        pid_written_ = false;
    }
    free_files();
    started_ = false;
}

void Server::wake_up() {
    if (wake_write_ >= 0) {
        const char byte = 'W';
        [[maybe_unused]] ssize_t n = os::write(wake_write_, &byte, 1);
    }
}

void Server::request_reload() {
    reload_requested_ = true;
    wake_up();
}

void Server::request_stop() {
    stop_requested_ = true;
    wake_up();
}

bool Server::handle_signals() {
    if (wake_read_ < 0) {
        int fds[2];
        if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0)
            return false;
        wake_read_ = fds[0];
        wake_write_ = fds[1];
    }
    g_signal_fd.store(wake_write_);
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGUSR2, &action, nullptr) == 0 &&
           ::sigaction(SIGTERM, &action, nullptr) == 0 &&
           ::sigaction(SIGINT, &action, nullptr) == 0;
}

void Server::drop(size_t index) {
    // A reply is ended by the close, not by a record, and a local socket
    // has no reset to send: a reader cut off in the middle of a reply of
    // several chunks sees a short list. So clients are dropped only when
    // idle past the limit, and readers last when room is needed.
    if (clients_[index].fd >= 0)
        os::close(clients_[index].fd);
    clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(index));
    client_count_ = clients_.size();
}

void Server::drop_longest_idle() {
    if (clients_.empty())
        return;
    // Clients still sending their request go first: dropping one costs it
    // only a retry, while a reader of a reply falls back to the file.
    auto oldest =
        std::min_element(clients_.begin(), clients_.end(), [](const Client &a, const Client &b) {
            return std::make_pair(a.answered, a.last_activity) <
                   std::make_pair(b.answered, b.last_activity);
        });
    drop(static_cast<size_t>(oldest - clients_.begin()));
}

void Server::accept_clients() {
    // Bounded, so that a flood of connections cannot hold the loop.
    for (size_t n = 0; n <= options_.max_clients; ++n) {
        int fd = os::accept(listener_, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno == EMFILE && !clients_.empty())
                drop_longest_idle();  // frees a descriptor for the next turn
            else if (errno != EAGAIN && errno != EWOULDBLOCK)
                accept_paused_until_ = Clock::now() + std::chrono::milliseconds(100);
            return;
        }
        if (clients_.size() >= options_.max_clients)
            drop_longest_idle();
        Client client;
        client.fd = fd;
        client.last_activity = Clock::now();
        clients_.push_back(std::move(client));
        client_count_ = clients_.size();
    }
}

void Server::read_from(Client &client) {
    while (client.received < QORCFG_REQUEST_SENT) {
        ssize_t n = os::recv(client.fd, client.request.data() + client.received,
                             QORCFG_REQUEST_SENT - client.received, MSG_DONTWAIT);
        if (n > 0) {
            client.received += static_cast<size_t>(n);
            client.last_activity = Clock::now();
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        // Gone before the request was complete: nobody to answer.
        os::close(client.fd);
        client.fd = -1;
        return;
    }
    try {
        client.reply = answer(request_from_bytes(client.request.data(), client.received));
    } catch (const std::bad_alloc &) {
        complain("request", "out of memory; connection dropped");
        os::close(client.fd);
        client.fd = -1;
        return;
    }
    client.answered = true;
    write_to(client);
}

void Server::write_to(Client &client) {
    while (client.sent < client.reply.size()) {
        // One write per chunk, so that a chunk arrives in one receive.
        const size_t len = kChunkSize - client.sent % kChunkSize;
        ssize_t n = os::send(client.fd, client.reply.data() + client.sent, len,
                             MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            client.sent += static_cast<size_t>(n);
            client.last_activity = Clock::now();
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;            // wait until the socket takes more
        os::close(client.fd);  // the client went away
        client.fd = -1;
        return;
    }
    finish(client);
}

void Server::finish(Client &client) {
    // Bytes the client sent beyond its request are read away first: closing
    // a local socket with unread input resets the peer, whose next receive
    // (a client of a reply of several chunks reads until the end) would
    // then fail instead of seeing the end.
    char scrap[4096];
    for (int i = 0; i < 16; ++i) {
        ssize_t n = os::recv(client.fd, scrap, sizeof scrap, MSG_DONTWAIT);
        if (n <= 0 && !(n < 0 && errno == EINTR))
            break;
    }
    os::close(client.fd);
    client.fd = -1;
}

bool Server::run_once(std::chrono::milliseconds timeout) {
    if (!started_ || stop_requested_)
        return false;
    const auto now = Clock::now();
    auto wait = std::max(timeout, std::chrono::milliseconds(0));
    for (const Client &c : clients_) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            c.last_activity + options_.idle_timeout - now);
        wait = std::clamp(left + std::chrono::milliseconds(1), std::chrono::milliseconds(0), wait);
    }
    const bool accepting = now >= accept_paused_until_;
    if (!accepting)
        wait = std::min(wait,
                        std::chrono::ceil<std::chrono::milliseconds>(accept_paused_until_ - now));
    std::vector<pollfd> fds;
    fds.reserve(clients_.size() + 2);
    fds.push_back({wake_read_, POLLIN, 0});
    fds.push_back({accepting ? listener_ : -1, POLLIN, 0});  // poll skips a negative fd
    for (const Client &c : clients_)
        fds.push_back({c.fd, static_cast<short>(c.answered ? POLLOUT : POLLIN), 0});
    const int ready = ::poll(fds.data(), fds.size(),
                             static_cast<int>(std::min<long long>(wait.count(), 1 << 30)));
    if (ready < 0 && errno != EINTR) {
        complain("poll", std::strerror(errno));
        ::poll(nullptr, 0, 100);  // whatever failed, not at full speed again
        return !stop_requested_;
    }

    if (fds[0].revents & POLLIN) {
        char bytes[64];
        ssize_t n;
        while ((n = os::read(wake_read_, bytes, sizeof bytes)) > 0) {
        }
    }
    if (g_signal_fd.load() == wake_write_ && wake_write_ >= 0) {
        if (g_signal_stop.exchange(false))
            stop_requested_ = true;
        if (g_signal_reload.exchange(false))
            reload_requested_ = true;
    }
    if (stop_requested_)
        return false;
    if (reload_requested_.exchange(false))
        reload();

    if (ready > 0) {
        for (size_t i = 0; i < clients_.size(); ++i) {
            const short revents = fds[i + 2].revents;
            if (revents == 0)
                continue;
            Client &c = clients_[i];
            if (!c.answered)
                read_from(c);
            else
                write_to(c);
        }
    }
    std::erase_if(clients_, [](const Client &c) { return c.fd < 0; });

    if (fds[1].revents & POLLIN)
        accept_clients();

    const auto later = Clock::now();
    for (size_t i = clients_.size(); i-- > 0;) {
        if (later - clients_[i].last_activity >= options_.idle_timeout)
            drop(i);
    }
    client_count_ = clients_.size();
    return !stop_requested_;
}

int Server::run() {
    if (!started_)
        return 1;
    while (run_once(std::chrono::minutes(1))) {
    }
    stop();
    return 0;
}

}  // namespace qorcfg::daemon
