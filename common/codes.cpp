// common/codes.cpp - the programs' messages.
#include "common/codes.h"

#include <cstdio>

#include "qorcfg.h"

namespace qorcfg::common {
namespace {

struct CodeWords {
    int code;
    const char *words;
};

constexpr CodeWords kCodeWords[] = {
    {QORCFG_BUSY, "the access lock is held"},
    {QORCFG_ERR_FAIL, "element not found or configuration unreadable"},
    {QORCFG_ERR_NOMEM, "out of memory"},
    {QORCFG_ERR_GROUP, "unknown group"},
    {QORCFG_ERR_ITEM, "item not found"},
    {QORCFG_ERR_TOOLONG, "value too long"},
    {QORCFG_ERR_NOTEXT, "nothing to write"},
    {QORCFG_ERR_OPEN, "file cannot be opened"},
    {QORCFG_ERR_TARGET, "forbidden character or job not started"},
    {QORCFG_ERR_PRODUCT, "unknown product ID"},
    {QORCFG_ERR_LOCK, "lock cannot be taken"},
    {QORCFG_ERR_MISSING, "file, key or value missing"},
    {QORCFG_ERR_INVALID, "value rejected"},
    {QORCFG_ERR_PENDING, "another change set is pending"},
    {QORCFG_ERR_MAX, "index at or beyond the maximum"},
    {QORCFG_ERR_REBOOT, "a radio change needs a reboot"},
    {QORCFG_ERR_DAEMON, "daemon transport failure"},
    {QORCFG_ERR_DAEMON_SOCKET, "daemon socket cannot be created"},
    {QORCFG_ERR_DAEMON_CONNECT, "daemon not reachable"},
    {QORCFG_ERR_DAEMON_SEND, "daemon request not sent"},
    {QORCFG_ERR_DAEMON_RECV, "daemon reply not received"},
};

}  // namespace

const char *code_words(int code) {
    for (const CodeWords &c : kCodeWords) {
        if (c.code == code)
            return c.words;
    }
    return "failure";
}

void report_damage(const char *program, const char *file, const char *error) {
    std::fprintf(stderr,
                 "%s: %s is damaged: %s; what follows that point is missing, and its values are "
                 "not found\n",
                 program, file, error);
}

}  // namespace qorcfg::common
