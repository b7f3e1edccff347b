// daemon/server.h - the configuration daemon qorcfgd: serves item and
// attribute-list lookups of the working copy and the current configuration
// over the local stream socket, with exactly the answers that the library's
// local reads of the same files give (daemon/reply.h).
//
// One thread, one poll loop, non-blocking sockets. Each client sends one
// fixed-size request record and gets one reply of 4,096-byte chunks, made
// one at a time as its socket takes them; clients are served in turn, one
// chunk each, so a big reply delays a small one by a chunk's worth of work
// at most. A complete reply is followed by an orderly close; a reply cut
// short (a client dropped for idleness or to make room, or a shutdown)
// resets the connection instead, so the client's receive fails and it reads
// the file itself rather than take a part of a list for the whole. Both
// files are parsed at start and again on request (SIGUSR2), only when their
// locks can be taken without waiting; until then the loop answers from the
// trees it has.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "daemon/reply.h"
#include "qorcfg.h"
#include "store/store.h"

namespace qorcfg::daemon {

// Pid file of the daemon (through the OS seam, so below the root when one
// is set): where the library looks for it.
inline constexpr const char *kPidFile = store::kQorcfgdPidFile;

// Limits of the event loop.
struct Options {
    // Connections served at once; a new one past this drops the client idle
    // for the longest time.
    size_t max_clients = 256;
    // A client that makes no progress (nothing read from it, nothing written
    // to it) for this long is dropped.
    std::chrono::milliseconds idle_timeout{10000};
    // After a re-read found a file's lock held by a writer, the next try.
    std::chrono::milliseconds reload_retry{100};
};

class Server {
public:
    explicit Server(Options options = {});
    // Shuts down (stop()) when still running.
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Binds qorcfg::os::daemon_socket_path(), writes the pid file whole,
    // listens, then parses both files: a client that can connect finds the
    // complete pid file. False (with a message on standard error) when the
    // socket cannot be set up or another daemon answers on it.
    bool start();
    // One turn of the loop: waits at most `timeout` for something to do and
    // does it. False once a stop has been requested (or before start()).
    bool run_once(std::chrono::milliseconds timeout);
    // Turns the loop until a stop is requested, then stop(). Returns 0, or 1
    // when the server was never started.
    int run();
    // Parses both files again and answers from the new trees from now on;
    // replies being sent finish from the trees they began with. When a
    // file's lock is held by another process nothing changes and false is
    // returned: the loop tries again after Options::reload_retry. Call it on
    // the loop's thread (or while no loop runs).
    bool reload();
    // Drops every client (a reply not yet complete is cut off with a
    // reset), closes and removes the socket and the pid file, frees the
    // parsed files. Idempotent. Call it on the loop's thread (or after the
    // loop has ended).
    void stop();

    // Thread-safe and async-signal-safe: ask the loop to reload, or to stop,
    // at its next turn.
    void request_reload();
    void request_stop();
    // Routes SIGUSR2 to request_reload() and SIGTERM and SIGINT to
    // request_stop() of this server (one server per process). False when
    // the handlers cannot be installed.
    bool handle_signals();

    // The whole reply to one request from this server's parsed files.
    std::string answer(const qorcfg_daemon_request &request) const;

    // Observers (any thread): connections open, reloads done.
    size_t clients() const { return client_count_.load(); }
    unsigned reloads() const { return reload_count_.load(); }

private:
    struct Client;
    enum class Load { loaded, busy, unreadable };

    bool open_socket();
    Load load(const char *path, qorcfg_handle **out);
    void accept_clients();
    void drop(size_t index);
    void drop_longest_idle();
    void read_from(Client &client);
    void write_to(Client &client);
    void finish(Client &client);
    void wake_up();
    std::chrono::milliseconds wait_for(std::chrono::milliseconds timeout) const;

    Options options_;
    // The parsed files; NULL until they could first be read, when requests
    // are answered with a transport failure (the client reads the file).
    std::shared_ptr<Files> files_;
    int listener_ = -1;
    // After an accept error that waiting cures (no descriptors or memory
    // left), the listener is left out of the poll until then, rather than
    // waking the loop at once, again and again.
    std::chrono::steady_clock::time_point accept_paused_until_{};
    bool reload_pending_ = false;
    std::chrono::steady_clock::time_point reload_at_{};
    int wake_read_ = -1;
    int wake_write_ = -1;
    bool started_ = false;
    bool socket_bound_ = false;
    bool pid_written_ = false;
    std::atomic<bool> stop_requested_{false};
    std::atomic<bool> reload_requested_{false};
    std::atomic<size_t> client_count_{0};
    std::atomic<unsigned> reload_count_{0};
    std::string socket_path_;
    std::vector<Client> clients_;
};

}  // namespace qorcfg::daemon
