// os/offline.h - running a program on an unpacked device root instead of
// the device: the OS seam is pointed below the root, and the commands and
// signals the library would send are recorded, then reported, never run.
// qorcfg and qorcfgd use it (--root); C programs on a development host get
// it through include/qorcfg_offline.h.
#pragma once

#include <string>

#include "os/os.h"

namespace qorcfg::os {

// Points the OS seam at the device root `dir` (its absolute path, links
// resolved) with `runner` recording what the library would run or
// signal, and the daemon socket at the root's "/tmp/qorcfgd_socket".
// False, with the reason in `error`, when `dir` is no directory. The socket
// path is returned in `socket`; it may be too long for a socket address,
// which the caller decides about.
bool use_root(const std::string &dir, os::Runner &runner, std::string &socket, std::string &error);

// Whether `path` fits in a local socket address (with its terminating zero).
bool fits_socket_address(const std::string &path);

// Prints to standard error, as "<program>: not run offline: ..." and "not
// sent offline: ...", everything `runner` recorded.
void report(const char *program, const os::Runner &runner);

}  // namespace qorcfg::os
