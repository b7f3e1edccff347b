// store/print.h - diagnostics shared by the whole library.
#pragma once

#include "qorcfg/store.h"

namespace qorcfg::store {

// Writes "<DEBUG:function:line> " and the formatted text to standard error
// while debugging is switched on (set_qorcfg_debug). Debug lines are an
// explicit request, so they do not depend on "QORCFG_PRINT_ERR".
void debug_line(const char *function, int line, const char *format, ...) QORCFG_PRINTF(3, 4);

// Forgets the decision taken from "QORCFG_PRINT_ERR", so that the next
// qorcfg_print decides again, as a new process would. For tests, which
// try each setting in a forked child of a process that may have printed.
void forget_print_switch();

}  // namespace qorcfg::store

// A debug line naming the calling function and source line.
#define QORCFG_DEBUG(...)                                                 \
    do {                                                                  \
        if (enable_qorcfg_debug)                                          \
            ::qorcfg::store::debug_line(__func__, __LINE__, __VA_ARGS__); \
    } while (0)
