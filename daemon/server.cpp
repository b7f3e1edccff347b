// daemon/server.cpp - the configuration daemon's event loop: the socket,
// clients, signals and re-reading the files.
//
// One thread around poll(): every socket is non-blocking, every client has
// its own buffers, and a client that is slow, silent, hostile or gone costs
// a slot until its reply is written or it is dropped, never a wait.
#include "daemon/server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "common/codes.h"
#include "os/os.h"
#include "store/platform.h"
#include "store/store.h"
#include "store/wire.h"

namespace qorcfg::daemon {

using Clock = std::chrono::steady_clock;

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

// A connection. Its request's last byte is only peeked, not read: it stays
// in the socket until the reply is complete, so that closing the connection
// any earlier resets it (a local socket closed with unread input makes the
// peer's next receive fail), while a complete reply ends in an orderly close
// after the input is read away.
struct Server::Client {
    int fd = -1;
    std::array<unsigned char, QORCFG_REQUEST_SENT> request{};
    size_t received = 0;
    std::unique_ptr<Reply> reply;  // set once the request is complete
    Chunk chunk{};
    size_t chunk_size = 0;  // bytes of `chunk` to send
    size_t chunk_sent = 0;
    bool last_chunk = false;  // `chunk` ends the reply
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
    if (!files_)
        return daemon::answer(nullptr, nullptr, request);
    return daemon::answer(files_->ram, files_->current, request);
}

// Parses `path` (the working copy, made from the flash copy when missing,
// or the current configuration) into `*out` without waiting for a lock:
// busy while another process holds one. Its own shared lock is tried and
// held over the parse, whose shared lock is then granted at once.
Server::Load Server::load(const char *path, qorcfg_handle **out) {
    *out = nullptr;
    const store::Kind kind = store::file_kind(path);
    if (kind == store::kRamFile && store::prepare_ram(false) == QORCFG_ERR_LOCK)
        return Load::busy;
    store::HeldLock lock(kind, LOCK_SH | LOCK_NB);
    if (!lock.held())
        return lock.code() == QORCFG_ERR_LOCK ? Load::busy : Load::unreadable;
    ezxml_node *root = init_qorcfg_f_direct(path);
    if (root == nullptr) {
        complain(path, "cannot be read; its requests are answered with -1");
        return Load::unreadable;
    }
    if (const char *error = ezxml_error(root); error[0] != '\0')
        common::report_damage("qorcfgd", path, error);
    *out = static_cast<qorcfg_handle *>(std::malloc(sizeof(qorcfg_handle)));
    if (*out == nullptr) {
        ezxml_free(root);
        return Load::unreadable;
    }
    (*out)->xml = root;
    return Load::loaded;
}

bool Server::reload() {
    auto fresh = std::make_shared<Files>();
    if (load(config_ram, &fresh->ram) == Load::busy ||
        load(current_config, &fresh->current) == Load::busy) {
        reload_pending_ = true;
        reload_at_ = Clock::now() + options_.reload_retry;
        return false;
    }
    files_ = std::move(fresh);
    reload_pending_ = false;
    ++reload_count_;
    return true;
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
    // Until the files can be read (a writer may hold them), requests are
    // answered with a transport failure and clients read the files.
    if (reload())
        reload_count_ = 0;
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
    files_.reset();
    reload_pending_ = false;
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
    // Closed with its request's last byte unread: a reader cut off in the
    // middle of a reply is reset, never handed a short list as the whole.
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
            return std::make_pair(a.reply != nullptr, a.last_activity) <
                   std::make_pair(b.reply != nullptr, b.last_activity);
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
    constexpr size_t kRead = QORCFG_REQUEST_SENT - 1;  // the last byte is only peeked
    while (client.received < kRead) {
        ssize_t n = os::recv(client.fd, client.request.data() + client.received,
                             kRead - client.received, MSG_DONTWAIT);
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
    ssize_t n = os::recv(client.fd, client.request.data() + kRead, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return;
    if (n <= 0) {
        os::close(client.fd);
        client.fd = -1;
        return;
    }
    client.last_activity = Clock::now();
    try {
        client.reply = std::make_unique<Reply>(
            files_, request_from_bytes(client.request.data(), QORCFG_REQUEST_SENT));
    } catch (const std::bad_alloc &) {
        complain("request", "out of memory; connection dropped");
        os::close(client.fd);
        client.fd = -1;
        return;
    }
    write_to(client);
}

// Sends what is left of the current chunk, or makes the next one first:
// one chunk's work per turn, so that every client gets its turn.
void Server::write_to(Client &client) {
    if (client.chunk_sent == client.chunk_size) {
        if (client.last_chunk)
            return finish(client);
        switch (client.reply->next(client.chunk)) {
            case Reply::Next::chunk:
                break;
            case Reply::Next::done:
                return finish(client);
            case Reply::Next::inexpressible:
                // An attribute no chunk can hold: before any chunk went out
                // the client is told to read the file; after, cut off.
                if (client.reply->started()) {
                    os::close(client.fd);
                    client.fd = -1;
                    return;
                }
                failure_chunk(client.chunk, QORCFG_ERR_DAEMON);
                client.last_chunk = true;
                break;
        }
        client.chunk_size = client.chunk.size();
        client.chunk_sent = 0;
    }
    ssize_t n;
    do {
        n = os::send(client.fd, client.chunk.data() + client.chunk_sent,
                     client.chunk_size - client.chunk_sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n > 0) {
        client.chunk_sent += static_cast<size_t>(n);
        client.last_activity = Clock::now();
        if (client.chunk_sent == client.chunk_size &&
            (client.last_chunk || client.reply->finished()))
            finish(client);
        return;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return;            // wait until the socket takes more
    os::close(client.fd);  // the client went away
    client.fd = -1;
}

void Server::finish(Client &client) {
    // The request's last byte, and bytes the client sent beyond it, are read
    // away first: closing with unread input would reset the client, whose
    // next receive would then fail instead of seeing the end.
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
    if (reload_pending_)
        wait = std::clamp(std::chrono::ceil<std::chrono::milliseconds>(reload_at_ - now),
                          std::chrono::milliseconds(0), wait);
    std::vector<pollfd> fds;
    fds.reserve(clients_.size() + 2);
    fds.push_back({wake_read_, POLLIN, 0});
    fds.push_back({accepting ? listener_ : -1, POLLIN, 0});  // poll skips a negative fd
    for (const Client &c : clients_)
        fds.push_back({c.fd, static_cast<short>(c.reply != nullptr ? POLLOUT : POLLIN), 0});
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
    // A re-read that found a writer's lock is tried again soon; meanwhile
    // the trees read before keep answering.
    if (reload_requested_.exchange(false) || (reload_pending_ && Clock::now() >= reload_at_))
        reload();

    if (ready > 0) {
        for (size_t i = 0; i < clients_.size(); ++i) {
            const short revents = fds[i + 2].revents;
            if (revents == 0)
                continue;
            Client &c = clients_[i];
            if (c.reply == nullptr)
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
