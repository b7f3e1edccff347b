// sys/process.h - helpers shared by the code that runs shell command lines.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

#include "qorcfg/base.h"

namespace qorcfg {

// A text allocated with malloc, released with free.
struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

// printf into a new allocation of exactly the needed length; null when
// memory runs out. Never throws, so exported functions can use it freely.
CString format(const char *format, ...) QORCFG_PRINTF(1, 2);

// Runs `line` through a read pipe and reads its first line into `buf`
// (at most `size` bytes with the terminating zero; newline kept; "" when the
// command printed nothing). False when the pipe cannot be opened.
bool read_command_line(const char *line, char *buf, size_t size);

}  // namespace qorcfg
