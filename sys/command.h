// sys/command.h - the one way the library builds a shell command line,
// runs it, and reads what the command prints.
//
// Every command line is formatted by CommandLine, into the buffer size the
// command's contract names (a line that does not fit is refused and never
// run, rather than cut into another command) or at its exact length where
// no size is named. The tools the library runs are named here, the service
// scripts of an apply in apply/apply.h. Commands run only through the OS
// seam: os::system (qor_system) or os::popen.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string_view>

#include "os/owners.h"
#include "qorcfg/base.h"

namespace qorcfg::sys {

// The tools and scripts the library runs.
inline constexpr const char *kPs = "/bin/ps";
inline constexpr const char *kPing = "/bin/ping";
inline constexpr const char *kTraceroute = "/usr/bin/traceroute";
inline constexpr const char *kRm = "/bin/rm";
inline constexpr const char *kRcEnv = "/etc/rc.d/rc.env";

// The longest line (with its newline) the library reads of a command's
// output or a file's line, as fgets reads it into a 256-byte buffer.
inline constexpr size_t kLineSize = 256;

class CommandLine {
public:
    // No size named: the line is as long as it needs to be.
    static constexpr size_t kAnyLength = 0;

    // printf-style; `size` is the buffer the line must fit in with its
    // terminating zero, or kAnyLength.
    CommandLine(size_t size, const char *format, ...) QORCFG_PRINTF(3, 4);

    // False when the line did not fit its size, or memory ran out: it must
    // not be run.
    bool ok() const { return text_ != nullptr; }
    const char *c_str() const { return text_.get(); }

private:
    friend int run(size_t size, const char *format, ...);
    CommandLine() = default;
    void format(size_t size, const char *format, va_list ap) QORCFG_PRINTF(3, 0);

    os::Text text_;
};

// Builds a line as CommandLine does and runs it through qor_system: the
// command's status, or 1 (qor_system's answer to no command) when the line
// is refused and nothing ran.
int run(size_t size, const char *format, ...) QORCFG_PRINTF(2, 3);

// Runs `line` through a read pipe and reads the first line it prints into
// `buf` (at most `size` - 1 bytes, newline kept; "" when it printed
// nothing). False when the line is not ok or the pipe cannot be opened.
bool first_line_of(const CommandLine &line, char *buf, size_t size);

// Everything a command prints, read from a pipe.
struct Output {
    os::Text text;  // zero-terminated
    size_t size = 0;
    std::string_view view() const { return {text.get(), size}; }
};
// False when the pipe cannot be opened or memory runs out.
bool output_of(const char *line, Output &out);

}  // namespace qorcfg::sys
