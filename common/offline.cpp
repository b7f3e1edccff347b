// common/offline.cpp - see offline.h.
#include "common/offline.h"

#include <sys/un.h>

#include <cstdio>
#include <filesystem>
#include <system_error>

namespace qorcfg::common {

bool use_root(const std::string &dir, os::Runner &runner, std::string &socket, std::string &error) {
    namespace fs = std::filesystem;
    std::error_code ec;
    if (dir.empty() || !fs::is_directory(dir, ec)) {
        error = "not a directory";
        return false;
    }
    fs::path abs = fs::absolute(dir, ec);
    if (ec) {
        error = ec.message();
        return false;
    }
    std::string root = abs.lexically_normal().string();
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    socket = (root == "/" ? std::string() : root) + "/tmp/qorcfgd_socket";
    os::set_root(root);
    os::set_runner(&runner);
    os::set_daemon_socket_path(socket);
    return true;
}

bool fits_socket_address(const std::string &path) {
    return path.size() < sizeof(sockaddr_un{}.sun_path);
}

void report(const char *program, const os::Runner &runner) {
    for (const os::Command &c : runner.commands())
        std::fprintf(stderr, "%s: not run offline: %s\n", program, c.line.c_str());
    for (const os::Signal &s : runner.signals())
        std::fprintf(stderr, "%s: not sent offline: signal %d to process %d\n", program, s.sig,
                     static_cast<int>(s.pid));
}

}  // namespace qorcfg::common
