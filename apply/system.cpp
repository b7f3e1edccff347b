// apply/system.cpp - device-wide actions a front end starts (reboot, syslog
// restart, DHCP client check, the system log copied out) and the run-time
// values of the system through the platform's table of getters.
#include <cstdio>
#include <cstring>

#include "apply/apply.h"
#include "os/os.h"
#include "store/platform.h"
#include "sys/command.h"

namespace {

constexpr const char *kRebootLater = "(sleep 5;reboot)&";
constexpr const char *kLogread = "/sbin/logread";
constexpr const char *kSyslogCopy = "/tmp/syslog_messages";

}  // namespace

using namespace qorcfg;
using namespace qorcfg::apply;

extern "C" {

QORCFG_API int apply_sys(int action) {
    switch (action) {
        case 0:
            // The reboot is started in the background; the result says nothing
            // about it.
            std::fputs("Reboot by system() in the background..\n", stdout);
            std::fflush(stdout);
            os::system(kRebootLater);
            return QORCFG_ERR_FAIL;
        case 1:
            return sys::run(kCommandSize, "%s restart_syslogd", kRcMgnt);
        case 2:
            return sys::run(kCommandSize, "%s check_dhcpc", kRcNet);
        case 3:
            return sys::run(kCommandSize, "%s > %s", kLogread, kSyslogCopy);
        default:
            return QORCFG_ERR_FAIL;
    }
}

QORCFG_API int get_sys_item(const char *name, char *buf) {
    if (buf != nullptr)
        buf[0] = '\0';
    if (name == nullptr)
        return QORCFG_ERR_ITEM;
    for (const qorcfg_sys_item *row = sys_item_list; row->name != nullptr; ++row) {
        if (std::strcmp(row->name, name) == 0) {
            try {
                if (row->getter != nullptr)
                    row->getter(row->arg, buf, row->extra);
            } catch (...) {  // a getter written in C++ that ran out of memory
                if (buf != nullptr)
                    buf[0] = '\0';
                return QORCFG_ERR_NOMEM;
            }
            return QORCFG_OK;
        }
    }
    return QORCFG_ERR_ITEM;
}

}  // extern "C"
