// tests/change/fixture.h - what the change and wireless tests share: item lists written as text,
// values read back, the daemons signalled, the locks held and forked children.
#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <sstream>

#include "change/change.h"
#include "tests/support/fixtures.h"

namespace qorcfg::test {

namespace os = ::qorcfg::os;
namespace change = ::qorcfg::change;
using ::qorcfg::change::kSyncRecord;
using Items = std::unique_ptr<qorcfg_item, decltype(&free_item_list)>;
constexpr uint32_t kDevice = 0x08080000, kDai = 0x10600000, kRep = 0x20a80000;

// A list of the words "gid:name=value" (gid in hex) in the order given, freed with its scope.
inline Items items(const std::string &words) {
    qorcfg_item *head = nullptr, **tail = &head;
    std::istringstream in(words);
    for (std::string w; in >> w; tail = &(*tail)->next) {
        const size_t colon = w.find(':'), eq = w.find('=');
        *tail = get_new_item(static_cast<int32_t>(std::stoul(w, nullptr, 16)),
                             w.substr(colon + 1, eq - colon - 1).c_str(), w.substr(eq + 1).c_str());
    }
    return Items(head, &free_item_list);
}
// A list in the same words, each followed by a blank.
inline std::string words(const qorcfg_item *list) {
    std::ostringstream out;
    for (; list != nullptr; list = list->next)
        out << std::hex << list->gid << ":" << list->name << "=" << list->value << " ";
    return out.str();
}
// An item of the handle's own tree, or "(missing)".
inline std::string value(qorcfg_handle *h, uint32_t gid, const std::string &item) {
    char buf[QORCFG_VALUE_SIZE] = "";
    return get_cfg_item_direct(h, gid, item.c_str(), buf) == 0 ? buf : "(missing)";
}

// Runs `body` in a forked child that exits with its result; reap() gives the exit status, or
// 128 + the signal that ended the child.
inline pid_t spawn(const std::function<int()> &body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0)
        std::_Exit(body());
    return pid;
}
inline int reap(pid_t pid) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Daemons with pid files 101, 102 and 103; no group marked changed.
class ChangeTest : public StoreTest {
protected:
    void SetUp() override {
        sandbox.write("/var/run/read_qorcfgd.pid", "101\n");
        sandbox.write("/var/run/snmpd.pid", "102\n");
        sandbox.write("/var/run/qorsic.pid", "103\n");
        for (qorcfg_group *g = group_table; g->gid != 0; ++g)
            g->changed = 0;
        sandbox.runner().clear();
    }
    // The pids signalled ("101 103 "), each with SIGUSR2, else shown as pid/signal.
    std::string signalled() {
        std::string out;
        for (const os::Signal &s : sandbox.runner().signals())
            out += std::to_string(s.pid) + (s.sig == SIGUSR2 ? " " : "/" + std::to_string(s.sig));
        return out;
    }
    // The lock files held now: "access_lock(ex) qorcfg_ram(ex) ".
    std::string held() const {
        std::istringstream all(locks(sandbox));
        std::string out;
        for (std::string lock; all >> lock;)
            out += lock.back() == ')' ? lock + " " : "";
        return out;
    }
};

}  // namespace qorcfg::test
