// store/store.h - what the store's sources share: file kinds, the working
// copy, network-mode handles and their refresh, the dotted-path walk,
// attribute records, the daemon query, and messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "qorcfg.h"

namespace qorcfg::store {

// The kinds of the configuration files, which are also the kinds of their
// locks (lock_qorcfg); kAccessLock serialises a whole change or apply.
enum Kind : int {
    kOtherFile = 0,  // any other path: "/var/lock/default_lock"
    kRamFile = 1,    // config_ram, the working copy
    kRomFile = 2,    // config_rom, the flash copy
    kBackupFile = 3,
    kRestoredFile = 4,
    kCurrentFile = 5,
    kAccessLock = 6,
};

// File kind of a configuration file path, compared exactly in this order:
// restored, flash, working copy, backup, current configuration; any other
// path (or none) is kOtherFile.
Kind file_kind(const char *path);

// A handle given back with close_qorcfg when its owner ends.
struct HandleCloser {
    void operator()(qorcfg_handle *handle) const { close_qorcfg(handle); }
};
using OwnedHandle = std::unique_ptr<qorcfg_handle, HandleCloser>;

// A lock of a kind, held while the owner lives: lock_qorcfg with the given
// flock operation, then unlock_qorcfg.
class HeldLock {
public:
    HeldLock(Kind kind, int operation) : fd_(lock_qorcfg(kind, operation)) {}
    ~HeldLock() { release(); }
    HeldLock(const HeldLock &) = delete;
    HeldLock &operator=(const HeldLock &) = delete;

    bool held() const { return fd_ >= 0; }
    // lock_qorcfg's failure code (QORCFG_ERR_OPEN or QORCFG_ERR_LOCK) when
    // not held.
    int code() const { return fd_ < 0 ? fd_ : QORCFG_OK; }
    void release() {
        if (fd_ >= 0)
            unlock_qorcfg(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

// Makes the working copy from the flash copy when it does not exist.
// QORCFG_OK, or QORCFG_ERR_FAIL (the flash copy unreadable or not a
// configuration: then the factory defaults are restored). With `wait`
// false a lock held by another process gives QORCFG_ERR_LOCK at once.
int prepare_ram(bool wait = true);

// True for the daemon transport failures (-10001 to -10005).
inline bool is_transport_failure(int code) {
    return code <= QORCFG_ERR_DAEMON && code >= QORCFG_ERR_DAEMON_RECV;
}

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

// The rule text of `item` of `group` in a definition tree (the rule file),
// as a new text (caller frees), without get_cfg_item_rule_by_group_name's
// complaint about an item that has none: NULL then, with `found` true.
// `found` is false when the group or item is unknown.
char *item_rule(qorcfg_handle *handle, const char *item, const char *group, bool &found);

// ---- daemon first, then the file ------------------------------------------------

// Where a network-mode handle goes when the daemon's answer is not final.
struct Fallback {
    enum Tree { kWhole, kSubtree };
    Tree tree = kWhole;           // the whole configuration (refresh) or a subtree
    const char *group = nullptr;  // kSubtree: the group's name or path, or NULL ...
    uint32_t gid = 0;             // ... then its group ID
    // Switch on any answer that is not final, not only on a transport
    // failure.
    bool after_any_answer = false;
};

// What the daemon said: its result code, and whether that answer stands
// (`final`: the caller returns it; otherwise it reads locally). `switched`:
// the handle was switched to a local tree.
struct Answer {
    int code = QORCFG_OK;
    bool final = false;
    bool switched = false;
};

// An item's answer stands unless it is a transport failure: a daemon's
// "not found" is final.
inline Answer item_answer(int code) {
    return Answer{code, !is_transport_failure(code), false};
}

// The one daemon-first sequence of every plain and _s lookup: for a
// network-mode handle, `ask(file)` (the handle's file) gives the daemon's
// Answer; when it is not final, a transport failure (or any answer, with
// after_any_answer) switches the handle to the local tree `fallback` names.
// A handle not in network mode is not asked (the answer is not final).
template <typename Ask>
Answer ask_daemon_first(qorcfg_handle *handle, const Fallback &fallback, Ask ask) {
    qorcfg_net_record *record = net_record(handle);
    if (record == nullptr)
        return Answer{};
    Answer answer = ask(record->path);
    if (!answer.final && (is_transport_failure(answer.code) || fallback.after_any_answer)) {
        if (fallback.tree == Fallback::kSubtree)
            refresh_sub(handle, fallback.group, fallback.gid);
        else
            refresh(handle);
        answer.switched = true;
    }
    return answer;
}

// The decimal number the first line of `path` starts with (one 256-byte
// line read, anything after the number ignored); 0 for a line without
// one. False when the file cannot be opened or is empty.
bool first_line_number(const char *path, long &number);

// The daemons told of a change (SIGUSR2), by their pid files, in the order
// they are told.
inline constexpr const char *kQorcfgdPidFile = "/var/run/read_qorcfgd.pid";
inline constexpr const char *kSnmpdPidFile = "/var/run/snmpd.pid";
inline constexpr const char *kQorsicPidFile = "/var/run/qorsic.pid";
inline constexpr const char *kDaemonPidFiles[] = {kQorcfgdPidFile, kSnmpdPidFile, kQorsicPidFile};

// Sends SIGUSR2 to the daemons named by kDaemonPidFiles.
void signal_daemons();
// Sends SIGUSR2 to the daemon whose pid file is `pid_file`, when it names a
// process (2 or more).
void signal_daemon(const char *pid_file);

// A new attribute record with copies of `name` and `value` (either may be
// NULL), index -1; NULL when memory runs out.
qorcfg_attr *new_attr(const char *name, const char *value);

// An attribute list, freed (free_attr_list) when the owner goes.
struct AttrListFree {
    void operator()(qorcfg_attr *list) const { free_attr_list(list); }
};
using AttrList = std::unique_ptr<qorcfg_attr, AttrListFree>;

// Copies at most 255 characters of `text` and a terminating zero into a
// value buffer.
void copy_value(char *value, const char *text);

// ---- attribute lists ------------------------------------------------------------

// One record of an attribute walk, pointing into the tree (valid while the
// tree lives).
struct AttrRecord {
    const char *name;
    const char *value;
    int32_t index;
};

// The attribute walk of an attribute-list read, one record at a time:
// children first, then further same-name elements, then siblings, with
// sub-elements that are groups of their own and indexed prefixes skipped.
// The lists are collected from it, and the daemon streams it.
class AttrWalk {
public:
    AttrWalk() = default;
    ~AttrWalk();
    AttrWalk(const AttrWalk &) = delete;
    AttrWalk &operator=(const AttrWalk &) = delete;

    // Walks from `start` with the prefix `start_prefix` (copied) and the
    // start index -1; `flags` above 0 leave children out. False when
    // memory runs out.
    bool start(ezxml_node *start, const char *start_prefix, int flags);
    // Instead of a walk, the root's identity: its first and second
    // attributes (nothing when it has fewer).
    void identity(ezxml_node *root);
    // The next record; false at the end, or when memory ran out (failed()).
    bool next(AttrRecord &record);
    bool failed() const { return failed_; }

private:
    struct Entry {
        ezxml_node *node;
        char *prefix;  // owned
        int index;
    };
    bool push(ezxml_node *node, char *prefix, int index);
    bool push_successors(ezxml_node *e, const char *prefix, int index);

    Entry *stack_ = nullptr;
    size_t n_ = 0;
    size_t cap_ = 0;
    ezxml_node *start_ = nullptr;
    int flags_ = 0;
    char **attr_ = nullptr;  // the attributes being given out
    int left_ = 0;           // how many of them may still be (-1: all)
    int32_t reported_ = -1;
    bool failed_ = false;
};

// Sets `walk` up as the local attribute-list reads by group ID, by group
// name and by prefix (the _direct_f forms) run it; false when the read
// gives no list (unknown group, element not found, no memory).
bool walk_by_gid(qorcfg_handle *handle, uint32_t gid, const char *sub, int flags, AttrWalk &walk);
bool walk_by_name(qorcfg_handle *handle, const char *name, const char *sub, int flags,
                  AttrWalk &walk);
bool walk_by_prefix(qorcfg_handle *handle, const char *prefix, const char *sub, int flags,
                    AttrWalk &walk);
// Every record of `walk` as an attribute list; NULL when it gives none or
// memory runs out.
qorcfg_attr *collect(AttrWalk &walk);

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

}  // namespace qorcfg::store
