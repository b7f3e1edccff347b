// tests/change/fixture.h - what the change and wireless tests share: item lists as words, values
// read back, forked children and the daemons signalled.
#pragma once

#include <signal.h>
#include <sys/wait.h>

#include <sstream>

#include "change/change.h"
#include "tests/support/fixtures.h"

namespace qorcfg::test {

namespace change = ::qorcfg::change;
namespace os = ::qorcfg::os;
using change::kSyncRecord;
using Items = std::unique_ptr<qorcfg_item, decltype(&free_item_list)>;
constexpr uint32_t kDevice = 0x08080000, kDai = 0x10600000, kRep = 0x20a80000;

// A list of the words "gid:name=value" (gid in hex) in their order; words() writes one back.
inline Items items(const std::string &words) {
    qorcfg_item *head = nullptr, **tail = &head;
    std::istringstream in(words);
    for (std::string w; in >> w; tail = &(*tail)->next)
        *tail = get_new_item(static_cast<int32_t>(std::stoul(w, nullptr, 16)),
                             w.substr(w.find(':') + 1, w.find('=') - w.find(':') - 1).c_str(),
                             w.substr(w.find('=') + 1).c_str());
    return Items(head, &free_item_list);
}
inline std::string words(const qorcfg_item *list) {
    std::ostringstream out;
    for (; list != nullptr; list = list->next)
        out << std::hex << list->gid << ":" << list->name << "=" << list->value << " ";
    return out.str();
}
inline std::string value(qorcfg_handle *h, uint32_t gid, const std::string &item) {
    char buf[QORCFG_VALUE_SIZE] = "";
    return get_cfg_item_direct(h, gid, item.c_str(), buf) == 0 ? buf : "(missing)";
}
// A forked child that exits with body's result; reap() gives it, or 128 + the ending signal.
inline pid_t spawn(const std::function<int()> &body) {
    std::fflush(nullptr);
    if (const pid_t pid = ::fork(); pid != 0)
        return pid;
    std::_Exit(body());
}
inline int reap(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Daemons with pid files 101, 102 and 103; no group marked changed.
class ChangeTest : public StoreTest {
protected:
    void SetUp() override {
        for (const auto &[daemon, pid] :
             {std::pair{"read_qorcfgd", 101}, {"snmpd", 102}, {"qorsic", 103}})
            sandbox.write("/var/run/" + std::string(daemon) + ".pid", std::to_string(pid) + "\n");
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
};

}  // namespace qorcfg::test
