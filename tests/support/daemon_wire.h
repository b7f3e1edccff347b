// tests/support/daemon_wire.h - the daemon's byte formats as tests write
// them, and a stand-in daemon that plays back prepared replies.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace qorcfg::test {

// Reply records: the chunk header, a name (type 3) or value (type 4) text,
// an index (type 5) and the end of a chunk (type 0).
std::string header(uint32_t flags, int32_t result);
std::string text_record(char type, const std::string &text);
std::string index_record(int32_t index);
inline const std::string kEnd(3, '\0');

// The 1,011 bytes a request puts on the socket. Each text is cut to its
// field, so a test can pass an over-long one on purpose.
std::string request(uint32_t code, const std::string &file, const std::string &item,
                    const std::string &name, const std::string &path, int32_t gid);

// Sockets at the OS seam's daemon socket path, or -1: one bound to it (any
// file left there is removed first), listening when `listen`, and one
// connected to it.
int bind_daemon_socket(bool listen);
int connect_daemon_socket();

// A stand-in daemon on the OS seam's daemon socket: one connection per
// reply, in order. It keeps what each connection put on the socket, then
// writes the reply and closes the connection. A reply is either one string
// written as it stands, or a list of chunks each written as one 4,096-byte
// write padded with zeros. Connections made before stop() are still served;
// each waits at most 60 s for its client.
class FakeDaemon {
public:
    explicit FakeDaemon(std::vector<std::string> replies);
    explicit FakeDaemon(std::vector<std::vector<std::string>> chunked_replies);
    ~FakeDaemon() { stop(); }
    FakeDaemon(const FakeDaemon &) = delete;
    FakeDaemon &operator=(const FakeDaemon &) = delete;

    // Whether the socket is listening.
    bool ok() const { return ok_; }
    // Stops serving and returns the requests received.
    std::vector<std::string> stop();

private:
    void listen();
    void serve();

    std::vector<std::vector<std::string>> replies_;
    bool pad_;
    std::vector<std::string> requests_;
    int listener_ = -1;
    bool ok_ = false;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace qorcfg::test
