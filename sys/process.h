// sys/process.h - helpers shared by the code that runs shell command lines.
#pragma once

#include <string>

#include "qorcfg/base.h"

namespace qorcfg {

// printf into a std::string of exactly the needed length.
std::string format(const char *format, ...) QORCFG_PRINTF(1, 2);

// Run `line` through a read pipe and read its first line (at most `size`
// bytes, newline kept) into `out`. False when the pipe cannot be opened;
// true with an empty `out` when the command printed nothing.
bool read_command_line(const char *line, std::string &out, size_t size = 256);

}  // namespace qorcfg
