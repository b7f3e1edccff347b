// sys/process.cpp - processes and one-shot shell commands: the process
// finder, the shell runner every other part uses, the rc environment reader
// and the first-line file reader.
#include "sys/process.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "os/os.h"
#include "qorcfg/store.h"
#include "qorcfg/sys.h"

namespace qorcfg {
namespace {

constexpr size_t kLineSize = 256;

struct PipeCloser {
    void operator()(FILE *f) const { os::pclose(f); }
};
using Pipe = std::unique_ptr<FILE, PipeCloser>;

struct FileCloser {
    void operator()(FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

}  // namespace

CString format(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    va_list again;
    va_copy(again, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    CString out;
    if (n >= 0)
        out.reset(static_cast<char *>(os::malloc(static_cast<size_t>(n) + 1)));
    if (out)
        std::vsnprintf(out.get(), static_cast<size_t>(n) + 1, fmt, again);
    va_end(again);
    return out;
}

bool read_command_line(const char *line, char *buf, size_t size) {
    buf[0] = '\0';
    Pipe pipe(line != nullptr ? os::popen(line, "r") : nullptr);
    if (!pipe)
        return false;
    if (std::fgets(buf, static_cast<int>(size), pipe.get()) == nullptr)
        buf[0] = '\0';
    return true;
}

}  // namespace qorcfg

using namespace qorcfg;

extern "C" {

QORCFG_API int get_pid(const char *name) {
    Pipe ps(os::popen("/bin/ps", "r"));
    if (!ps)
        return -1;
    int pid = 0;
    char line[kLineSize];
    // Every line that mentions the name anywhere counts, and the last one
    // wins: callers rely on that, odd as it is for a process finder.
    while (std::fgets(line, sizeof line, ps.get()) != nullptr) {
        if (name == nullptr || std::strstr(line, name) == nullptr)
            continue;
        char *save = nullptr;
        const char *first = strtok_r(line, " ", &save);
        pid = first != nullptr ? std::atoi(first) : 0;
    }
    return pid;
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
    if (!read_command_line(format(". /etc/rc.d/rc.env; echo -n \"$%s\"", name).get(), value,
                           sizeof value))
        return nullptr;
    if (static_cast<size_t>(size) < kLineSize)
        value[size - 1] = '\0';
    std::strcpy(buf, value);
    return buf;
}

QORCFG_API int get_file_content(const char *path, char *buf) {
    File file(path != nullptr && buf != nullptr ? os::fopen(path, "r") : nullptr);
    if (!file) {
        qorcfg_print("can not open file : %s\n", path != nullptr ? path : "(null)");
        return -11;
    }
    buf[0] = '\0';
    if (std::fgets(buf, static_cast<int>(kLineSize), file.get()) == nullptr)
        buf[0] = '\0';
    // The kernel's version line is cut before its build details, leaving the
    // kernel's name and release with the blank before "(".
    if (std::strcmp(path, "/proc/version") == 0) {
        if (char *paren = std::strchr(buf, '('))
            *paren = '\0';
    }
    return 0;
}

}  // extern "C"
