// daemon/main.cpp - qorcfgd, the configuration daemon: serves lookups of the
// working copy and the current configuration over the local socket until
// SIGTERM or SIGINT, re-reading both files on SIGUSR2.
#include <dirent.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <string_view>

#include "daemon/server.h"
#include "os/offline.h"
#include "os/os.h"

namespace {

constexpr int kExitFailed = 1;  // could not start (socket, pid file, signals)
constexpr int kExitUsage = 2;   // bad arguments or device root

constexpr const char *kUsage =
    "Usage: qorcfgd [--root DIR] [--foreground]\n"
    "\n"
    "Serves lookups of the configuration's working copy and current configuration on\n"
    "/tmp/qorcfgd_socket; re-reads both files on SIGUSR2, stops on SIGTERM or SIGINT.\n"
    "\n"
    "  --root DIR     serve the device root unpacked at DIR: its files, locks and pid\n"
    "                 file, and the socket DIR/tmp/qorcfgd_socket (DIR needs tmp/ and\n"
    "                 var/run/); commands and signals the library would send are\n"
    "                 reported, not sent\n"
    "  --foreground   stay attached (for a service manager that supervises it);\n"
    "                 without it qorcfgd detaches once it listens, and its exit status\n"
    "                 says whether it started\n"
    "\n"
    "Messages go to standard error. The library's own diagnostics (one for every lookup\n"
    "a client makes that fails) stay off unless QORCFG_PRINT_ERR is set.\n"
    "\n"
    "Exit status: 0 stopped (or detached) after starting, 1 could not start,\n"
    "2 bad arguments or device root.\n";

// With --root, commands and signals the library would send (a factory
// reset when the flash copy is unusable) must not reach this machine: they
// are recorded and reported instead.
qorcfg::os::Runner g_offline;

// Points the OS seam at an unpacked device root; the socket lives inside it.
bool use_root(const std::string &dir) {
    std::string socket, error;
    if (!qorcfg::os::use_root(dir, g_offline, socket, error)) {
        std::fprintf(stderr, "qorcfgd: --root %s: %s\n", dir.c_str(), error.c_str());
        return false;
    }
    if (!qorcfg::os::fits_socket_address(socket)) {
        std::fprintf(stderr, "qorcfgd: --root %s: socket path %s too long\n", dir.c_str(),
                     socket.c_str());
        return false;
    }
    for (const char *sub : {"/tmp", "/var/run"}) {
        DIR *d = qorcfg::os::opendir(sub);
        if (d != nullptr)
            ::closedir(d);
        if (d == nullptr) {
            std::fprintf(stderr, "qorcfgd: --root %s: no directory %s%s (%s)\n", dir.c_str(),
                         qorcfg::os::root().c_str(), sub,
                         sub[1] == 't' ? "the socket goes there" : "the pid file goes there");
            return false;
        }
    }
    return true;
}

// Detaches from the terminal and the caller: a child goes on as the daemon,
// and this process exits once the child says whether it started. Returns in
// the child only.
void detach(qorcfg::daemon::Server &server) {
    int started[2];
    if (::pipe(started) != 0) {
        std::perror("qorcfgd: pipe");
        std::exit(kExitFailed);
    }
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        std::perror("qorcfgd: fork");
        std::exit(kExitFailed);
    }
    if (child > 0) {
        ::close(started[1]);
        char ok = 0;
        const bool told = qorcfg::os::read(started[0], &ok, 1) == 1;
        std::exit(told && ok == 1 ? 0 : kExitFailed);
    }
    ::close(started[0]);
    ::setsid();
    const char ok = server.handle_signals() && server.start() ? 1 : 0;
    [[maybe_unused]] ssize_t n = qorcfg::os::write(started[1], &ok, 1);
    ::close(started[1]);
    if (ok == 0)
        std::exit(kExitFailed);
}

int run(int argc, char **argv) {
    bool foreground = false;
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--foreground") {
            foreground = true;
            continue;
        }
        if (arg == "--root" || arg.starts_with("--root=")) {
            std::string dir;
            if (arg == "--root") {
                if (i + 1 >= argc) {
                    std::fprintf(stderr, "qorcfgd: --root: missing directory\n%s", kUsage);
                    return kExitUsage;
                }
                dir = argv[++i];
            } else {
                dir = std::string(arg.substr(7));
            }
            if (!use_root(dir))
                return kExitUsage;
            continue;
        }
        std::fprintf(stderr, "qorcfgd: %s: unknown argument\n%s", argv[i], kUsage);
        return kExitUsage;
    }

    // Any client could otherwise fill the log: a failed lookup is the
    // client's news, not the daemon's.
    setenv("QORCFG_PRINT_ERR", "0", 0);
    // Replies go out with MSG_NOSIGNAL; nothing else may end the daemon
    // because a client went away.
    std::signal(SIGPIPE, SIG_IGN);
    qorcfg::daemon::Server server;
    if (!foreground) {
        detach(server);
    } else {
        if (!server.handle_signals()) {
            std::fprintf(stderr, "qorcfgd: cannot install the signal handlers\n");
            return kExitFailed;
        }
        if (!server.start())
            return kExitFailed;
    }
    return server.run();
}

}  // namespace

int main(int argc, char **argv) {
    int status;
    try {
        status = run(argc, argv);
    } catch (const std::bad_alloc &) {
        std::fprintf(stderr, "qorcfgd: out of memory\n");
        status = kExitFailed;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "qorcfgd: %s\n", e.what());
        status = kExitFailed;
    }
    qorcfg::os::report("qorcfgd", g_offline);
    return status;
}
