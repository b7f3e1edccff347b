// daemon/server.h - the configuration daemon qorcfgd: serves item and
// attribute-list lookups of the working copy and the current configuration
// over the local stream socket, with exactly the answers that the library's
// local reads of the same files give.
//
// One thread, one poll loop, non-blocking sockets. Each client sends one
// fixed-size request record and gets one reply made of 4,096-byte chunks of
// type-length-value records; the daemon then closes the connection. Both
// files are parsed at start and again on request (SIGUSR2); requests are
// answered from those parsed handles, except item reads by group path,
// which read the file as a client's own fallback does (without ever
// waiting for its lock).
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qorcfg.h"

namespace qorcfg::daemon {

// Pid file of the daemon (through the OS seam, so below the root when one
// is set).
inline constexpr const char *kPidFile = "/var/run/read_qorcfgd.pid";

// The request record of `size` received bytes: at most the bytes a client
// sends are copied into a zeroed record, so a short input leaves the rest
// zero and a longer one is cut.
qorcfg_daemon_request request_from_bytes(const void *data, size_t size);

// The reply bytes to `request` (a whole number of 4,096-byte chunks), read
// from `ram` (the parsed working copy) or `current` (the parsed current
// configuration), either of which may be NULL (a file that could not be
// read: its requests answer -1). The request's file field picks the handle:
// the current configuration's path picks `current`, anything else `ram`.
std::string answer(qorcfg_handle *ram, qorcfg_handle *current,
                   const qorcfg_daemon_request &request);

// Limits of the event loop.
struct Options {
    // Connections served at once; a new one past this drops the client idle
    // for the longest time.
    size_t max_clients = 256;
    // A client that makes no progress (nothing read from it, nothing written
    // to it) for this long is dropped.
    std::chrono::milliseconds idle_timeout{10000};
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
    // Parses both files again and answers from the new trees from now on.
    // Call it on the loop's thread (or while no loop runs).
    void reload();
    // Drops every client, closes and removes the socket and the pid file,
    // frees the parsed files. Idempotent. Call it on the loop's thread (or
    // after the loop has ended).
    void stop();

    // Thread-safe and async-signal-safe: ask the loop to reload, or to stop,
    // at its next turn.
    void request_reload();
    void request_stop();
    // Routes SIGUSR2 to request_reload() and SIGTERM and SIGINT to
    // request_stop() of this server (one server per process). False when
    // the handlers cannot be installed.
    bool handle_signals();

    // The reply to one request from this server's parsed files.
    std::string answer(const qorcfg_daemon_request &request) const;

    // Observers (any thread): connections open, reloads done.
    size_t clients() const { return client_count_.load(); }
    unsigned reloads() const { return reload_count_.load(); }

private:
    struct Client;

    bool open_socket();
    void load_files();
    void free_files();
    void accept_clients();
    void drop(size_t index);
    void drop_longest_idle();
    void read_from(Client &client);
    void write_to(Client &client);
    void finish(Client &client);
    void wake_up();

    Options options_;
    qorcfg_handle *ram_ = nullptr;
    qorcfg_handle *current_ = nullptr;
    int listener_ = -1;
    // After an accept error that waiting cures (no descriptors or memory
    // left), the listener is left out of the poll until then, rather than
    // waking the loop at once, again and again.
    std::chrono::steady_clock::time_point accept_paused_until_{};
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
