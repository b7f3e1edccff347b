// store/handle.cpp - the store's files and handles: lock files, file kinds,
// the working copy made from the flash copy, opening and closing handles,
// shared handles and network modes, and refreshing network-mode handles.
//
// Processes share the configuration files only through advisory locks on
// the lock files; where two are held, the flash copy's (kind 2) is taken
// before the working copy's (kind 1).
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "os/os.h"
#include "os/owners.h"
#include "store/platform.h"
#include "store/print.h"
#include "store/store.h"
#include "sys/command.h"

namespace qorcfg::store {
namespace {

// Network mode of slot 0 (working copy) and slot 1 (current
// configuration): 1 hands out network-mode handles, 0 parses files.
int g_net_mode[2] = {1, 1};

constexpr size_t kLine = 256;

const char *lock_file(int kind) {
    switch (kind) {
        case kRamFile:
            return "/var/lock/qorcfg_ram";
        case kRomFile:
            return "/var/lock/qorcfg_rom";
        case kBackupFile:
            return "/var/lock/qorcfg_backup";
        case kRestoredFile:
            return "/var/lock/qorcfg_restored";
        case kCurrentFile:
            return "/var/lock/qorcfg_current";
        case kAccessLock:
            return "/var/lock/access_lock";
        default:
            return "/var/lock/default_lock";
    }
}

// The sources of a factory reset, the customer's first.
constexpr const char *kCustomDefaults = "/conf/customize/config-backup.conf";
constexpr const char *kFactoryDefaults = "/etc/default-config.xml";

bool empty(const char *s) {
    return s == nullptr || s[0] == '\0';
}

// A new handle cell holding `xml`, or NULL.
qorcfg_handle *new_cell(ezxml_node *xml) {
    auto *cell = static_cast<qorcfg_handle *>(os::malloc(sizeof(qorcfg_handle)));
    if (cell != nullptr)
        cell->xml = xml;
    return cell;
}

// A network-mode handle for `slot` and its file, or NULL.
qorcfg_handle *new_net_handle(int slot, const char *path) {
    auto *record = static_cast<qorcfg_net_record *>(os::calloc(1, sizeof(qorcfg_net_record)));
    qorcfg_handle *cell = record != nullptr ? new_cell(nullptr) : nullptr;
    if (cell == nullptr) {
        std::free(record);
        return nullptr;
    }
    record->tag = &g_net_mode[slot];
    record->path = path;
    cell->net = record;
    return cell;
}

// Parses a whole stream (or, with `prefix`, one group's element of it)
// under the shared lock of `kind`. NULL when the lock cannot be taken or
// the file not opened.
ezxml_node *parse_locked(const char *path, Kind kind, const char *prefix) {
    HeldLock lock(kind, LOCK_SH);
    if (!lock.held())
        return nullptr;
    os::File fp(os::fopen(path, "r"));
    if (!fp)
        return nullptr;
    return prefix != nullptr ? ezxml_parse_fp_by_prefix(fp.get(), prefix)
                             : ezxml_parse_fp(fp.get());
}

// Reads `from` in lines of at most 256 bytes, as the copies of the store
// files are made, onto the end of `to`.
void read_lines(std::FILE *from, std::string &to) {
    char line[kLine];
    for (;;) {
        line[0] = '\0';  // a failed read at the end adds nothing
        if (std::fgets(line, sizeof line, from) == nullptr)
            break;
        to += line;
    }
}

// Moves the root held by `opened` (a cell from an open) into `handle`,
// which held the network record `record`; a shared handle's cell stays.
void adopt(qorcfg_handle *handle, qorcfg_net_record *record, qorcfg_handle *opened) {
    std::free(record);
    handle->xml = opened->xml;
    if (opened != shared_qorcfg[0] && opened != shared_qorcfg[1])
        std::free(opened);
}

}  // namespace

Kind file_kind(const char *path) {
    if (empty(path))
        return kOtherFile;
    if (std::strcmp(path, restored_cfg_file) == 0)
        return kRestoredFile;
    if (std::strcmp(path, config_rom) == 0)
        return kRomFile;
    if (std::strcmp(path, config_ram) == 0)
        return kRamFile;
    if (std::strcmp(path, backup_cfg_file) == 0)
        return kBackupFile;
    if (std::strcmp(path, current_config) == 0)
        return kCurrentFile;
    return kOtherFile;
}

int prepare_ram(bool wait) {
    if (os::access(config_ram, F_OK) == 0)
        return QORCFG_OK;
    const int nonblocking = wait ? 0 : LOCK_NB;
    // A lock another process holds, when not waiting for it.
    auto failure = [wait](const HeldLock &lock) {
        return !wait && lock.code() == QORCFG_ERR_LOCK ? QORCFG_ERR_LOCK : QORCFG_ERR_FAIL;
    };
    // The flash copy's lock before the working copy's, and released first.
    HeldLock rom_lock(kRomFile, LOCK_SH | nonblocking);
    if (!rom_lock.held())
        return failure(rom_lock);
    os::File rom(os::fopen(config_rom, "r"));
    if (!rom)
        return QORCFG_ERR_FAIL;
    HeldLock ram_lock(kRamFile, LOCK_EX | nonblocking);
    if (!ram_lock.held())
        return failure(ram_lock);
    std::string copy;
    read_lines(rom.get(), copy);
    rom.reset();
    // The first line as a 256-byte read takes it must name the document.
    const size_t first_line = std::min(copy.find('\n'), kLine - 2) + 1;
    if (std::string_view(copy).substr(0, first_line).find("<qorconfig") == std::string_view::npos) {
        qorcfg_print("No config in flash, reset to default\n");
        // The working copy is left empty until the reset removes it.
        const int written = os::write_file(config_ram, "");
        ram_lock.release();
        rom_lock.release();
        if (written == 0)
            reset_qorcfg();
        return QORCFG_ERR_FAIL;
    }
    rom_lock.release();
    return os::write_file(config_ram, copy) == 0 ? QORCFG_OK : QORCFG_ERR_FAIL;
}

bool is_net(const qorcfg_handle *handle) {
    if (handle == nullptr || handle->net == nullptr)
        return false;
    // A document node's first word is its name text, never a mode slot.
    const int *tag = handle->net->tag;
    return tag == &g_net_mode[0] || tag == &g_net_mode[1];
}

qorcfg_net_record *net_record(const qorcfg_handle *handle) {
    return is_net(handle) ? handle->net : nullptr;
}

void refresh(qorcfg_handle *handle) {
    if (!is_net(handle))
        return;
    qorcfg_net_record *record = handle->net;
    g_net_mode[0] = g_net_mode[1] = 0;
    qorcfg_handle *opened = !empty(record->path) ? init_qorcfg_f(record->path) : init_qorcfg();
    // A registered handle is loaded in place by the open itself.
    if (opened != nullptr && opened != handle)
        adopt(handle, record, opened);
}

void refresh_sub(qorcfg_handle *handle, const char *group, uint32_t gid) {
    qorcfg_net_record *record = net_record(handle);
    if (record == nullptr || empty(record->path))
        return;
    g_net_mode[0] = g_net_mode[1] = 0;
    qorcfg_handle *opened = init_sub_qorcfg(group, gid, record->path);
    if (opened == handle) {
        // A registered handle, loaded in place by the open itself.
    } else if (opened != nullptr) {
        adopt(handle, record, opened);
    } else {
        std::free(record);
        handle->xml = nullptr;
    }
}

ezxml_node *tree_of(qorcfg_handle *handle) {
    if (handle == nullptr)
        return nullptr;
    refresh(handle);
    return is_net(handle) ? nullptr : handle->xml;
}

bool first_line_number(const char *path, long &number) {
    os::File f(os::fopen(path, "r"));
    char line[kLine] = "";
    if (!f || std::fgets(line, sizeof line, f.get()) == nullptr)
        return false;
    number = std::strtol(line, nullptr, 10);
    return true;
}

void signal_daemon(const char *pid_file) {
    long pid = 0;
    if (first_line_number(pid_file, pid) && pid >= 2 && pid <= INT_MAX)
        os::kill(static_cast<pid_t>(pid), SIGUSR2);
}

void signal_daemons() {
    for (const char *pid_file : kDaemonPidFiles)
        signal_daemon(pid_file);
}

}  // namespace qorcfg::store

using namespace qorcfg;
using namespace qorcfg::store;

extern "C" {

QORCFG_API qorcfg_handle *shared_qorcfg[2] = {nullptr, nullptr};

QORCFG_API int lock_qorcfg(int kind, int operation) {
    // Not inherited by the commands the library starts: a background
    // script must not keep a lock after it is released.
    os::Fd fd(os::open(lock_file(kind), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd)
        return QORCFG_ERR_OPEN;
    if (os::flock(fd.get(), operation) != 0)
        return QORCFG_ERR_LOCK;
    return fd.release();
}

QORCFG_API int unlock_qorcfg(int fd) {
    os::flock(fd, LOCK_UN);
    return os::close(fd);
}

QORCFG_API ezxml_node *init_qorcfg_direct(void) {
    if (prepare_ram() != QORCFG_OK)
        return nullptr;
    return parse_locked(config_ram, kRamFile, nullptr);
}

QORCFG_API qorcfg_handle *init_qorcfg(void) {
    if (g_net_mode[0] == 1)
        return new_net_handle(0, config_ram);
    if (qorcfg_handle *shared = get_shared_qorcfg(0))
        return shared;
    qorcfg_handle *cell = new_cell(nullptr);
    if (cell == nullptr)
        return nullptr;
    cell->xml = init_qorcfg_direct();
    if (cell->xml == nullptr) {
        std::free(cell);
        return nullptr;
    }
    return cell;
}

}  // extern "C"

namespace {

// The handle of the file `path`: for the working copy and the current
// configuration the network-mode record, or the registered shared handle,
// when there is one; otherwise a new cell holding what `parse` returns
// (NULL when it returns none).
template <typename Parse>
qorcfg_handle *open_file_handle(const char *path, Parse parse) {
    const Kind kind = file_kind(path);
    if (kind == kRamFile || kind == kCurrentFile) {
        const int slot = kind == kRamFile ? 0 : 1;
        if (g_net_mode[slot] == 1)
            return new_net_handle(slot, kind == kRamFile ? config_ram : current_config);
        if (qorcfg_handle *shared = get_shared_qorcfg(slot))
            return shared;
    }
    qorcfg_handle *cell = new_cell(nullptr);
    if (cell == nullptr)
        return nullptr;
    cell->xml = parse();
    if (cell->xml == nullptr) {
        std::free(cell);
        return nullptr;
    }
    return cell;
}

}  // namespace

extern "C" {

QORCFG_API ezxml_node *init_qorcfg_f_direct(const char *path) {
    if (empty(path))
        path = config_rom;
    if (std::strcmp(path, config_ram) == 0 && prepare_ram() != QORCFG_OK)
        return nullptr;
    return parse_locked(path, file_kind(path), nullptr);
}

QORCFG_API qorcfg_handle *init_qorcfg_f(const char *path) {
    if (empty(path))
        path = config_rom;
    return open_file_handle(path, [path] { return init_qorcfg_f_direct(path); });
}

QORCFG_API ezxml_node *init_sub_qorcfg_direct(const char *group, uint32_t gid, const char *file) {
    const qorcfg_group *row = nullptr;
    if (!empty(group))
        row = std::strstr(group, "qorconfig.") != nullptr ? group_by_path(group)
                                                          : group_by_name(group);
    else if (gid != 0)
        row = group_by_gid(gid);
    if (row == nullptr)
        return nullptr;
    if (file != nullptr) {
        if (file[0] == '\0')
            file = config_rom;
        return parse_locked(file, file_kind(file), row->path);
    }
    if (prepare_ram() != QORCFG_OK)
        return nullptr;
    return parse_locked(config_ram, kRamFile, row->path);
}

QORCFG_API qorcfg_handle *init_sub_qorcfg(const char *group, uint32_t gid, const char *file) {
    if (empty(file))
        file = config_rom;
    // The working copy and the current configuration are served whole.
    return open_file_handle(file, [&] { return init_sub_qorcfg_direct(group, gid, file); });
}

QORCFG_API int close_qorcfg(qorcfg_handle *handle) {
    if (handle == nullptr)
        return QORCFG_ERR_NOMEM;  // the code a null handle gives here
    if (handle == shared_qorcfg[0] || handle == shared_qorcfg[1])
        return QORCFG_OK;  // a registered handle stays, in network mode too
    if (is_net(handle)) {
        std::free(handle->net);
        std::free(handle);
        return QORCFG_OK;
    }
    for (int slot = 0; slot < 2; ++slot) {
        qorcfg_handle *shared = get_shared_qorcfg(slot);
        if (shared == handle)
            return QORCFG_OK;  // the registered handle itself stays
        if (shared != nullptr && shared->xml == handle->xml) {
            std::free(handle);  // a cell on the shared document
            return QORCFG_OK;
        }
    }
    ezxml_free(handle->xml);
    std::free(handle);
    return QORCFG_OK;
}

QORCFG_API int set_shared_qorcfg(qorcfg_handle *handle, int slot) {
    if (slot == 0 || slot == 1)
        shared_qorcfg[slot] = handle;
    if (handle == nullptr)
        g_net_mode[0] = g_net_mode[1] = 1;
    return QORCFG_OK;
}

QORCFG_API qorcfg_handle *get_shared_qorcfg(int slot) {
    if (slot < 0 || slot > 1)
        return nullptr;
    qorcfg_handle *handle = shared_qorcfg[slot];
    if (!is_net(handle))
        return handle;
    // A registered network-mode handle is loaded in place.
    ezxml_node *root = init_qorcfg_f_direct(handle->net->path);
    if (root == nullptr)
        return nullptr;
    std::free(handle->net);
    handle->xml = root;
    return handle;
}

QORCFG_API int get_net_qorcfg(int slot) {
    return slot == 0 || slot == 1 ? g_net_mode[slot] : 0;
}

QORCFG_API int set_net_qorcfg_mode(int slot, int mode) {
    if ((slot == 0 || slot == 1) && (mode == 0 || mode == 1))
        g_net_mode[slot] = mode;
    return QORCFG_OK;
}

QORCFG_API int set_all_net_qorcfg_mode(int mode) {
    for (int slot = 0; slot < 4; ++slot)  // only slots 0 and 1 exist
        set_net_qorcfg_mode(slot, mode);
    return QORCFG_OK;
}

QORCFG_API int is_net_cfg(qorcfg_handle *handle) {
    return is_net(handle) ? 1 : 0;
}

QORCFG_API int reset_qorcfg(void) {
    const char *source =
        os::access(kCustomDefaults, F_OK) == 0 ? kCustomDefaults : kFactoryDefaults;
    os::File from(os::fopen(source, "r"));
    if (!from)
        return QORCFG_ERR_OPEN;
    HeldLock rom_lock(kRomFile, LOCK_EX);
    if (!rom_lock.held())
        return rom_lock.code();
    std::string defaults;
    read_lines(from.get(), defaults);
    from.reset();
    if (os::write_file(config_rom, defaults) != 0)
        return QORCFG_ERR_OPEN;
    if (!os::File(os::fopen(config_rom, "r")))
        return QORCFG_ERR_OPEN;
    rom_lock.release();

    HeldLock ram_lock(kRamFile, LOCK_EX);
    if (!ram_lock.held())
        return ram_lock.code();
    sys::run(sys::CommandLine::kAnyLength, "%s -f %s", sys::kRm, config_ram);
    ram_lock.release();
    // The working copy is made from the new flash copy by the next open.
    signal_daemons();
    return QORCFG_OK;
}

}  // extern "C"
