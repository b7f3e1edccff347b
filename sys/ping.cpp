// sys/ping.cpp - ping and traceroute started in the background for the
// management interface, with their output in result files under /tmp.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "os/os.h"
#include "qorcfg/sys.h"
#include "sys/process.h"

namespace {

constexpr const char *kPing = "/bin/ping";
constexpr const char *kTraceroute = "/usr/bin/traceroute";
constexpr const char *kPingResult = "/tmp/ping_result";
constexpr const char *kTraceResult = "/tmp/trace_result";

// The target goes into a shell command line unquoted. These characters are
// refused; blanks, '|' and '`' are deliberately passed on as they stand
// (extra options such as "-s 1000" reach the tool).
bool target_refused(const char *target) {
    return target == nullptr || std::strpbrk(target, ";<>\"'@!?&$*") != nullptr;
}

// Start `line` (which ends in "& echo $!") and return the background job's
// process ID through `pid`: 0, or -8 when it did not start.
int start_job(const qorcfg::CString &line, int *pid) {
    char out[256];
    if (!qorcfg::read_command_line(line.get(), out, sizeof out))
        return -8;
    int job = std::atoi(out);
    if (job <= 0)
        return -8;
    if (pid != nullptr)
        *pid = job;
    return 0;
}

}  // namespace

extern "C" {

QORCFG_API int qor_ping(const char *target) {
    if (target_refused(target))
        return -8;
    qorcfg::CString line = qorcfg::format("%s -c 5 %s > %s 2>&1 &", kPing, target, kPingResult);
    if (!line)
        return -8;  // out of memory: the job cannot be started
    qor_system(line.get());
    return 0;
}

QORCFG_API int qor_ping_p(const char *target, int *pid) {
    if (target_refused(target))
        return -8;
    qorcfg::os::unlink(kPingResult);
    return start_job(qorcfg::format("%s -c 5 %s > %s 2>&1 & echo $!", kPing, target, kPingResult),
                     pid);
}

QORCFG_API int qor_tracert_p(const char *target, int *pid) {
    if (target_refused(target))
        return -8;
    qorcfg::os::unlink(kTraceResult);
    return start_job(qorcfg::format("%s -q 2 -w 2 -m 20 %s > %s 2>&1 & echo $!", kTraceroute,
                                    target, kTraceResult),
                     pid);
}

}  // extern "C"
