// store/store.h - what the store's sources share: file kinds, the working
// copy, network-mode handles and their refresh, the dotted-path walk,
// attribute records, the daemon query, and messages.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qorcfg.h"

namespace qorcfg {

// File kind of a configuration file path: 4 restored, 2 flash, 1 working
// copy, 3 backup, 5 current configuration, 0 anything else (compared
// exactly, in that order).
int file_kind(const char *path);

// Makes the working copy from the flash copy when it does not exist.
// 0, or -1 (the flash copy unreadable or not a configuration: then the
// factory defaults are restored).
int prepare_ram();

// True for a handle whose content is a network-mode record.
bool is_net(const qorcfg_handle *handle);
// The network record of a network-mode handle (NULL for other handles).
qorcfg_net_record *net_record(const qorcfg_handle *handle);

// Turns a network-mode handle into one holding the parsed file (the whole
// configuration); ends network mode for the process. Nothing happens for
// other handles.
void refresh(qorcfg_handle *handle);
// The same for one group's subtree (by name or path, or by `gid`); on
// failure the handle holds no tree.
void refresh_sub(qorcfg_handle *handle, const char *group, uint32_t gid);

// The element at a dotted path in the handle's tree ("qorconfig.a.b:1.c"),
// or NULL. Refreshes a network-mode handle first.
ezxml_node *find_path(qorcfg_handle *handle, const char *path);

// The handle's tree, refreshing a network-mode handle; NULL when it has
// none.
ezxml_node *tree_of(qorcfg_handle *handle);

// Sends SIGUSR2 to the daemons named by their pid files.
void signal_daemons();
// Sends SIGUSR2 to the daemon whose pid file is `pid_file`, when it names a
// process (2 or more).
void signal_daemon(const char *pid_file);

// A new attribute record with copies of `name` and `value` (either may be
// NULL), index -1; NULL when memory runs out.
qorcfg_attr *new_attr(const char *name, const char *value);

// Copies at most 255 characters of `text` and a terminating zero into a
// value buffer.
void copy_value(char *value, const char *text);

// What one chunk of a daemon reply decoded to: its records, first and last.
struct ReplyChunk {
    qorcfg_attr *first = nullptr;
    qorcfg_attr *last = nullptr;
};

// Decodes one received chunk of `n` bytes (rewriting its text lengths'
// bytes in place); header records set `more` and `result`.
ReplyChunk decode_chunk(unsigned char *buf, size_t n, bool *more, int *result);

// The daemon forms of the attribute-list queries: the list, or NULL with
// the daemon's result code (or a transport failure) in `code`.
qorcfg_attr *attr_list_by_gid_daemon(const char *file, uint32_t gid, const char *sub, int *code);
qorcfg_attr *attr_list_by_name_daemon(const char *file, const char *name, const char *sub,
                                      int *code);

// True for the daemon transport failures (-10001 to -10005).
inline bool is_transport_failure(int code) {
    return code <= -10001 && code >= -10005;
}

// Locks a file kind (the kind's lock file) for reading or writing; the
// descriptor, or a negative code. Released with unlock_qorcfg.
inline int lock_shared(int kind) {
    return lock_qorcfg(kind, 1 /* LOCK_SH */);
}
inline int lock_exclusive(int kind) {
    return lock_qorcfg(kind, 2 /* LOCK_EX */);
}

}  // namespace qorcfg
