// store/print.cpp - the library's diagnostic printer and debug switch.
#include "store/print.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// -1 (all ones) until the first qorcfg_print decides it from the environment.
int g_print_switch = -1;

bool printing_on() {
    if (g_print_switch == -1) {
        const char *env = std::getenv("QORCFG_PRINT_ERR");
        g_print_switch = (env != nullptr && std::strcmp(env, "0") == 0) ? 0 : 1;
    }
    return g_print_switch != 0;
}

}  // namespace

extern "C" {

QORCFG_API int enable_qorcfg_debug = 0;

QORCFG_API int qorcfg_print(const char *format, ...) {
    if (format == nullptr || !printing_on())
        return 0;
    va_list ap;
    va_start(ap, format);
    int n = std::vfprintf(stderr, format, ap);
    va_end(ap);
    return n;
}

QORCFG_API int set_qorcfg_debug(int value) {
    enable_qorcfg_debug = value;
    return value;
}

}  // extern "C"

namespace qorcfg::store {

void forget_print_switch() {
    g_print_switch = -1;
}

void debug_line(const char *function, int line, const char *format, ...) {
    // One buffer, one write: lines of concurrent processes do not interleave.
    char text[1024];
    int head = std::snprintf(text, sizeof text, "<DEBUG:%s:%d> ", function, line);
    if (head < 0 || static_cast<size_t>(head) >= sizeof text - 1)
        head = 0, text[0] = '\0';
    va_list ap;
    va_start(ap, format);
    va_list again;
    va_copy(again, ap);
    int body = std::vsnprintf(text + head, sizeof text - static_cast<size_t>(head), format, ap);
    if (body >= 0 && static_cast<size_t>(head + body) < sizeof text) {
        std::fputs(text, stderr);
    } else {  // too long for one buffer: write it in two pieces rather than cut it
        text[head] = '\0';
        std::fputs(text, stderr);
        std::vfprintf(stderr, format, again);
    }
    va_end(again);
    va_end(ap);
}

}  // namespace qorcfg::store
