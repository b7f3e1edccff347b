// tests/support/daemon_wire.cpp - see daemon_wire.h.
#include "tests/support/daemon_wire.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

#include "os/os.h"
#include "qorcfg.h"
#include "store/wire.h"

namespace qorcfg::test {
namespace {

// Big-endian 16- and 32-bit fields.
std::string be16(uint32_t v) {
    return {static_cast<char>((v >> 8) & 0xff), static_cast<char>(v & 0xff)};
}

std::string be32(uint32_t v) {
    return be16(v >> 16) + be16(v & 0xffff);
}

// A socket bound to (and listening on, when `listen`) or connected to the
// daemon socket path, or -1.
int daemon_socket(bool bind_it, bool listen) {
    const std::string &path = os::daemon_socket_path();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        return -1;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const auto *at = reinterpret_cast<const sockaddr *>(&addr);
    if (bind_it)
        ::unlink(path.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool ok = bind_it ? ::bind(fd, at, sizeof addr) == 0 && (!listen || ::listen(fd, 8) == 0)
                            : ::connect(fd, at, sizeof addr) == 0;
    if (!ok && fd >= 0)
        ::close(fd);
    return ok ? fd : -1;
}

}  // namespace

std::string header(uint32_t flags, int32_t result) {
    return std::string(1, static_cast<char>(wire::kHeaderRecord)) + be16(wire::kHeaderValue) +
           std::string(4, '\0') + be32(flags) + be32(static_cast<uint32_t>(result));
}

std::string text_record(char type, const std::string &text) {
    return std::string(1, type) + be16(static_cast<uint32_t>(text.size())) + text +
           std::string(1, '\0');
}

std::string index_record(int32_t index) {
    return std::string(1, static_cast<char>(wire::kIndexRecord)) + be16(4) +
           be32(static_cast<uint32_t>(index));
}

std::string request(uint32_t code, const std::string &file, const std::string &item,
                    const std::string &name, const std::string &path, int32_t gid) {
    std::string r(QORCFG_REQUEST_SENT, '\0');
    auto put = [&r](wire::Field field, const std::string &text) {
        r.replace(field.offset, std::min(text.size(), field.size), text.substr(0, field.size));
    };
    put(wire::kFileField, file);
    r[wire::kMarkerField.offset] = wire::kMarker;
    put(wire::kCodeField, be32(code));
    put(wire::kItemField, item);
    put(wire::kNameField, name);
    put(wire::kPathField, path);
    put(wire::kGidField, be32(static_cast<uint32_t>(gid)));
    return r;
}

int bind_daemon_socket(bool listen) {
    return daemon_socket(true, listen);
}

int connect_daemon_socket() {
    return daemon_socket(false, false);
}

FakeDaemon::FakeDaemon(std::vector<std::string> replies) : pad_(false) {
    for (std::string &reply : replies)
        replies_.push_back({std::move(reply)});
    listen();
}

FakeDaemon::FakeDaemon(std::vector<std::vector<std::string>> chunked_replies)
    : replies_(std::move(chunked_replies)), pad_(true) {
    listen();
}

void FakeDaemon::listen() {
    listener_ = bind_daemon_socket(true);
    ok_ = listener_ >= 0;
    if (ok_)
        thread_ = std::thread([this] { serve(); });
}

std::vector<std::string> FakeDaemon::stop() {
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    if (listener_ >= 0)
        ::close(listener_);
    listener_ = -1;
    return requests_;
}

void FakeDaemon::serve() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (const std::vector<std::string> &chunks : replies_) {
        int fd = -1;
        while (fd < 0 && std::chrono::steady_clock::now() < deadline) {
            pollfd p{listener_, POLLIN, 0};
            if (::poll(&p, 1, 20) > 0)
                fd = ::accept(listener_, nullptr, nullptr);
            else if (stop_)
                break;
        }
        if (fd < 0)
            return;
        std::string got;
        char buf[2048];
        pollfd p{fd, POLLIN, 0};
        while (got.size() < QORCFG_REQUEST_SENT && ::poll(&p, 1, 60000) > 0) {
            const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
            if (n <= 0)
                break;
            got.append(buf, static_cast<size_t>(n));
        }
        for (ssize_t n; (n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;)
            got.append(buf, static_cast<size_t>(n));  // anything more sent at once
        requests_.push_back(got);
        for (std::string chunk : chunks) {
            if (pad_)
                chunk.resize(std::max<size_t>(chunk.size(), wire::kChunkSize), '\0');
            ::send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL);
        }
        ::close(fd);
    }
}

}  // namespace qorcfg::test
