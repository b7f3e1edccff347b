// os/offline.cpp - see offline.h; and the C entry of include/qorcfg_offline.h,
// which exists in the static archive and is not exported by the shared
// library.
#include "os/offline.h"

#include "qorcfg_offline.h"

#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qorcfg.h"

namespace qorcfg::os {

bool use_root(const std::string &dir, os::Runner &runner, std::string &socket, std::string &error) {
    struct stat st;
    if (dir.empty() || ::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        error = "not a directory";
        return false;
    }
    char *resolved = ::realpath(dir.c_str(), nullptr);
    if (resolved == nullptr) {
        error = std::strerror(errno);
        return false;
    }
    std::string root = resolved;
    std::free(resolved);
    socket = (root == "/" ? std::string() : root) + "/tmp/qorcfgd_socket";
    os::set_root(root);
    os::set_runner(&runner);
    os::set_daemon_socket_path(socket);
    return true;
}

bool fits_socket_address(const std::string &path) {
    return path.size() < sizeof(sockaddr_un{}.sun_path);
}

namespace {

// The name of a signal the library sends (numbers differ between CPUs:
// SIGUSR2 is 12 on x86 and ARM, 17 on MIPS), else its number.
std::string signal_name(int sig) {
    switch (sig) {
        case SIGUSR1:
            return "SIGUSR1";
        case SIGUSR2:
            return "SIGUSR2";
        case SIGHUP:
            return "SIGHUP";
        case SIGTERM:
            return "SIGTERM";
        case SIGKILL:
            return "SIGKILL";
        default:
            return "signal " + std::to_string(sig);
    }
}

}  // namespace

void report(const char *program, const os::Runner &runner) {
    for (const os::Command &c : runner.commands())
        std::fprintf(stderr, "%s: not run offline: %s\n", program, c.line.c_str());
    for (const os::Signal &s : runner.signals())
        std::fprintf(stderr, "%s: not sent offline: %s to process %d\n", program,
                     signal_name(s.sig).c_str(), static_cast<int>(s.pid));
}

}  // namespace qorcfg::os

namespace {

// What the library would have run or signalled since qorcfg_offline_root.
qorcfg::os::Runner g_recorded;

}  // namespace

extern "C" {

int qorcfg_offline_root(const char *dir) {
    std::string socket, error;
    try {
        if (dir == nullptr || !qorcfg::os::use_root(dir, g_recorded, socket, error))
            return -1;
    } catch (...) {  // out of memory
        return -1;
    }
    // No daemon can listen on a socket path too long for an address: the
    // lookups read the files straight away.
    if (!qorcfg::os::fits_socket_address(socket))
        set_all_net_qorcfg_mode(0);
    return 0;
}

void qorcfg_offline_report(const char *program) {
    qorcfg::os::report(program != nullptr ? program : "qorcfg", g_recorded);
}

}  // extern "C"
