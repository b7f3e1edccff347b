// daemon/main.cpp - qorcfgd, the configuration daemon: serves lookups of the
// working copy and the current configuration over the local socket until
// SIGTERM or SIGINT, re-reading both files on SIGUSR2.
//
//   qorcfgd [--root DIR] [--foreground]
//
// It always stays in the foreground: starting it in the background is the
// init system's job (--foreground is accepted for symmetry with daemons
// that fork). --root serves an unpacked device root: its files, locks, pid
// file and the socket DIR/tmp/qorcfgd_socket.
#include <csignal>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <string_view>

#include "common/offline.h"
#include "daemon/server.h"
#include "os/os.h"

namespace {

constexpr const char *kUsage = "Usage: qorcfgd [--root DIR] [--foreground]\n";

// With --root, commands and signals the library would send (a factory
// reset when the flash copy is unusable) must not reach this machine: they
// are recorded and reported instead.
qorcfg::os::Runner g_offline;

// Points the OS seam at an unpacked device root; the socket lives inside it.
bool use_root(const std::string &dir) {
    std::string socket, error;
    if (!qorcfg::common::use_root(dir, g_offline, socket, error)) {
        std::fprintf(stderr, "qorcfgd: --root %s: %s\n", dir.c_str(), error.c_str());
        return false;
    }
    if (!qorcfg::common::fits_socket_address(socket)) {
        std::fprintf(stderr, "qorcfgd: --root %s: socket path %s too long\n", dir.c_str(),
                     socket.c_str());
        return false;
    }
    return true;
}

int run(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--foreground")
            continue;
        if (arg == "--root" || arg.starts_with("--root=")) {
            std::string dir;
            if (arg == "--root") {
                if (i + 1 >= argc) {
                    std::fprintf(stderr, "qorcfgd: --root: missing directory\n%s", kUsage);
                    return 2;
                }
                dir = argv[++i];
            } else {
                dir = std::string(arg.substr(7));
            }
            if (!use_root(dir))
                return 2;
            continue;
        }
        std::fprintf(stderr, "qorcfgd: %s: unknown argument\n%s", argv[i], kUsage);
        return 2;
    }

    // Replies go out with MSG_NOSIGNAL; nothing else may end the daemon
    // because a client went away.
    std::signal(SIGPIPE, SIG_IGN);
    qorcfg::daemon::Server server;
    if (!server.handle_signals()) {
        std::fprintf(stderr, "qorcfgd: cannot install the signal handlers\n");
        return 1;
    }
    if (!server.start())
        return 1;
    return server.run();
}

}  // namespace

int main(int argc, char **argv) {
    int status;
    try {
        status = run(argc, argv);
    } catch (const std::bad_alloc &) {
        std::fprintf(stderr, "qorcfgd: out of memory\n");
        status = 1;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "qorcfgd: %s\n", e.what());
        status = 1;
    }
    qorcfg::common::report("qorcfgd", g_offline);
    return status;
}
