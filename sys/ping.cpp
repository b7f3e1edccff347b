// sys/ping.cpp - ping and traceroute started in the background for the
// management interface, with their output in result files under /tmp.
#include <cstring>

#include "os/os.h"
#include "qorcfg/sys.h"
#include "sys/command.h"
#include "sys/parse.h"

namespace qorcfg::sys {
namespace {

constexpr const char *kPingResult = "/tmp/ping_result";
constexpr const char *kTraceResult = "/tmp/trace_result";

// The target goes into a shell command line unquoted. These characters are
// refused; blanks, '|' and '`' are deliberately passed on as they stand
// (extra options such as "-s 1000" reach the tool).
bool target_refused(const char *target) {
    return target == nullptr || std::strpbrk(target, ";<>\"'@!?&$*") != nullptr;
}

// Starts `line` (which ends in "& echo $!") and gives the background job's
// process ID through `pid`: QORCFG_OK, or QORCFG_ERR_TARGET when it did not
// start.
int start_job(const CommandLine &line, int *pid) {
    char out[kLineSize];
    if (!first_line_of(line, out, sizeof out))
        return QORCFG_ERR_TARGET;
    const int job = job_pid(out);
    if (job <= 0)
        return QORCFG_ERR_TARGET;
    if (pid != nullptr)
        *pid = job;
    return QORCFG_OK;
}

}  // namespace
}  // namespace qorcfg::sys

using namespace qorcfg;
using namespace qorcfg::sys;

extern "C" {

QORCFG_API int qor_ping(const char *target) {
    if (target_refused(target))
        return QORCFG_ERR_TARGET;
    const CommandLine line(CommandLine::kAnyLength, "%s -c 5 %s > %s 2>&1 &", kPing, target,
                           kPingResult);
    if (!line.ok())
        return QORCFG_ERR_TARGET;  // out of memory: the job cannot be started
    qor_system(line.c_str());
    return QORCFG_OK;
}

QORCFG_API int qor_ping_p(const char *target, int *pid) {
    if (target_refused(target))
        return QORCFG_ERR_TARGET;
    os::unlink(kPingResult);
    return start_job(CommandLine(CommandLine::kAnyLength, "%s -c 5 %s > %s 2>&1 & echo $!", kPing,
                                 target, kPingResult),
                     pid);
}

QORCFG_API int qor_tracert_p(const char *target, int *pid) {
    if (target_refused(target))
        return QORCFG_ERR_TARGET;
    os::unlink(kTraceResult);
    return start_job(
        CommandLine(CommandLine::kAnyLength, "%s -q 2 -w 2 -m 20 %s > %s 2>&1 & echo $!",
                    kTraceroute, target, kTraceResult),
        pid);
}

}  // extern "C"
