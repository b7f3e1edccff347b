// sys/command.cpp - building command lines, running them and reading their
// output.
#include "sys/command.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "os/os.h"
#include "qorcfg.h"

namespace qorcfg::sys {

CommandLine::CommandLine(size_t size, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    this->format(size, format, ap);
    va_end(ap);
}

void CommandLine::format(size_t size, const char *format, va_list ap) {
    va_list again;
    va_copy(again, ap);
    const int n = std::vsnprintf(nullptr, 0, format, ap);
    const auto length = static_cast<size_t>(n);
    if (n >= 0 && (size == kAnyLength || length < size)) {
        text_.reset(static_cast<char *>(os::malloc(length + 1)));
        if (text_)
            std::vsnprintf(text_.get(), length + 1, format, again);
    }
    va_end(again);
}

int run(size_t size, const char *format, ...) {
    CommandLine line;
    va_list ap;
    va_start(ap, format);
    line.format(size, format, ap);
    va_end(ap);
    return qor_system(line.c_str());
}

bool first_line_of(const CommandLine &line, char *buf, size_t size) {
    buf[0] = '\0';
    if (!line.ok())
        return false;
    os::Pipe pipe(os::popen(line.c_str(), "r"));
    if (!pipe)
        return false;
    if (std::fgets(buf, static_cast<int>(size), pipe.get()) == nullptr)
        buf[0] = '\0';
    return true;
}

bool output_of(const char *line, Output &out) {
    os::Pipe pipe(os::popen(line, "r"));
    if (!pipe)
        return false;
    size_t cap = 0;
    out.size = 0;
    for (;;) {
        if (out.size + kLineSize + 1 > cap) {
            cap = cap == 0 ? 4 * kLineSize : cap * 2;
            auto *grown = static_cast<char *>(os::realloc(out.text.get(), cap));
            if (grown == nullptr)
                return false;
            out.text.release();
            out.text.reset(grown);
        }
        const size_t n = std::fread(out.text.get() + out.size, 1, cap - out.size - 1, pipe.get());
        out.size += n;
        if (n == 0)
            break;
    }
    out.text.get()[out.size] = '\0';
    return true;
}

}  // namespace qorcfg::sys
