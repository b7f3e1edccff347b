// sys/process.cpp - processes and one-shot shell commands: the process
// finder, the shell runner every other part uses, the rc environment reader
// and the first-line file reader.
#include <cstdio>
#include <cstring>

#include "os/os.h"
#include "os/owners.h"
#include "qorcfg/store.h"
#include "qorcfg/sys.h"
#include "sys/command.h"
#include "sys/parse.h"

using namespace qorcfg;
using namespace qorcfg::sys;

extern "C" {

QORCFG_API int get_pid(const char *name) {
    Output listing;
    if (!output_of(kPs, listing))
        return QORCFG_ERR_FAIL;
    return pid_in_listing(listing.view(), name);
}

QORCFG_API int qor_system(const char *line) {
    if (line == nullptr)
        return 1;
    return os::system(line);
}

QORCFG_API char *get_rc_env(const char *name, char *buf, int size) {
    if (buf != nullptr && size > 0)
        buf[0] = '\0';
    if (name == nullptr || name[0] == '\0' || buf == nullptr || size <= 0)
        return nullptr;
    char value[kLineSize];
    const CommandLine line(CommandLine::kAnyLength, ". %s; echo -n \"$%s\"", kRcEnv, name);
    if (!first_line_of(line, value, sizeof value))
        return nullptr;
    if (static_cast<size_t>(size) < kLineSize)
        value[size - 1] = '\0';
    std::strcpy(buf, value);
    return buf;
}

QORCFG_API int get_file_content(const char *path, char *buf) {
    os::File file(path != nullptr && buf != nullptr ? os::fopen(path, "r") : nullptr);
    if (!file) {
        qorcfg_print("can not open file : %s\n", path != nullptr ? path : "(null)");
        return QORCFG_ERR_MISSING;
    }
    if (std::fgets(buf, static_cast<int>(kLineSize), file.get()) == nullptr)
        buf[0] = '\0';
    // The kernel's version line is cut before its build details, leaving the
    // kernel's name and release with the blank before "(".
    if (std::strcmp(path, "/proc/version") == 0) {
        if (char *paren = std::strchr(buf, '('))
            *paren = '\0';
    }
    return QORCFG_OK;
}

}  // extern "C"
