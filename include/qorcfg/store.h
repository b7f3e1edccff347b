/*
 * qorcfg/store.h - the configuration store: handles, locks, the group table,
 * item lookups, item and attribute lists, daemon queries and diagnostics.
 *
 * A caller opens a handle (init_*), looks items up or changes them, and gives
 * the handle back with close_qorcfg. Value buffers passed to lookups hold at
 * least 256 bytes: values are cut to 255 characters and a terminating zero.
 */
#ifndef QORCFG_STORE_H
#define QORCFG_STORE_H

#include "qorcfg/base.h"
#include "qorcfg/xml.h"

/* Size of every value buffer a lookup writes. */
#define QORCFG_VALUE_SIZE 256

/* Lock kinds of lock_qorcfg (the file kinds of the store files, and the access lock). */
#define QORCFG_LOCK_DEFAULT 0  /* "/var/lock/default_lock" (any other kind too) */
#define QORCFG_LOCK_RAM 1      /* "/var/lock/qorcfg_ram": the working copy */
#define QORCFG_LOCK_ROM 2      /* "/var/lock/qorcfg_rom": the persistent copy */
#define QORCFG_LOCK_BACKUP 3   /* "/var/lock/qorcfg_backup" */
#define QORCFG_LOCK_RESTORED 4 /* "/var/lock/qorcfg_restored" */
#define QORCFG_LOCK_CURRENT 5  /* "/var/lock/qorcfg_current" */
#define QORCFG_LOCK_ACCESS 6   /* "/var/lock/access_lock": around a whole change or apply */

/* Network-mode record: a handle whose lookups go to the configuration daemon. */
typedef struct qorcfg_net_record {
    int *tag;         /* address of the network-mode slot (0 working copy, 1 current) */
    const char *path; /* configuration file the daemon is asked about */
} qorcfg_net_record;

/* A store handle: a separately allocated cell holding one pointer. */
typedef union qorcfg_handle {
    ezxml_node *xml;        /* a parsed document, or an element inside one */
    qorcfg_net_record *net; /* network mode: the first word is a mode slot's address */
} qorcfg_handle;

/* Item list node; lists are kept in ascending gid order and freed with free_item_list. */
typedef struct qorcfg_item {
    int32_t gid;              /* group ID of the item */
    char *name;               /* item name relative to the group's path (owned) */
    char *value;              /* value: an exact copy, or a 256-byte buffer (owned) */
    struct qorcfg_item *next; /* following node, or NULL */
} qorcfg_item;

/* Attribute record; lists are freed with free_attr_list. */
typedef struct qorcfg_attr {
    char *name;               /* attribute name (owned) */
    char *value;              /* attribute value (owned) */
    int32_t index;            /* index of the repeated element; -1 when not repeated */
    struct qorcfg_attr *next; /* following record, or NULL */
} qorcfg_attr;

/* Group table row (the table itself comes from the platform library and ends at gid 0). */
typedef struct qorcfg_group {
    uint32_t gid;     /* group ID; 0 ends the table */
    const char *name; /* group name */
    uint32_t changed; /* set to 1 when a value of the group changes */
    const char *path; /* dotted element path, beginning with "qorconfig" */
} qorcfg_group;

/* Item type codes, rows of cli_cfg_type_list. */
typedef struct qorcfg_type_entry {
    int32_t code;     /* 0 int ... 8 restricted; -1 ends the table */
    const char *name; /* "int", "string", ...; NULL ends the table */
} qorcfg_type_entry;

/* Request codes of the daemon query. */
#define QORCFG_REQ_BY_GID 2       /* one item, or the group's list, by group ID */
#define QORCFG_REQ_BY_NAME 3      /* by group name or prefix */
#define QORCFG_REQ_BY_GID_PATH 5  /* by group ID with a path */
#define QORCFG_REQ_BY_NAME_PATH 6 /* by name with a path */
/* Bytes of a request actually sent (the record is padded to 1012). */
#define QORCFG_REQUEST_SENT 1011

/* Request record of a daemon query. Texts are zero-terminated and zero-padded;
 * the code is big-endian, the gid written byte by byte, most significant first. */
typedef struct qorcfg_daemon_request {
    char file[513];       /* configuration file of the handle; empty when none */
    char marker[9];       /* "_" */
    char reserved[30];    /* zero */
    uint32_t code;        /* request code, big-endian */
    char item[65];        /* item name or path below the group; empty for lists */
    char name[129];       /* group name or prefix; empty for gid requests */
    char path[257];       /* group path or sub-path (codes 5 and 6) */
    unsigned char gid[4]; /* group ID, big-endian; -1 in name requests */
} qorcfg_daemon_request;

QORCFG_BEGIN_DECLS

/* ---- process-wide state ---- */

/* Handles registered for the working copy (slot 0) and the current configuration (slot 1). */
QORCFG_API extern qorcfg_handle *shared_qorcfg[2];
/* Non-zero: debug lines ("<DEBUG:function:line> ...") are written to standard error. */
QORCFG_API extern int enable_qorcfg_debug;
/* Item type names by code; ends at code -1 with a NULL name. */
QORCFG_API extern const qorcfg_type_entry cli_cfg_type_list[];

/* ---- diagnostics ---- */

/* printf to standard error unless the environment variable "QORCFG_PRINT_ERR"
 * was exactly "0" at the first call. Returns the count written (0 when off). */
QORCFG_API int qorcfg_print(const char *format, ...) QORCFG_PRINTF(1, 2);
/* Switch debug lines on (non-zero) or off; returns `value`. */
QORCFG_API int set_qorcfg_debug(int value);

/* ---- locks ---- */

/* Open kind's lock file and flock it with `operation` (LOCK_SH, LOCK_EX, optionally
 * LOCK_NB). Descriptor >= 0, -7 lock file not opened, -10 lock not taken. */
QORCFG_API int lock_qorcfg(int kind, int operation);
/* Release a lock taken by lock_qorcfg; returns close()'s result. */
QORCFG_API int unlock_qorcfg(int fd);

/* ---- handles ---- */

/* Open the working copy: a network-mode handle, the shared handle, or a parsed one. NULL on
 * failure. */
QORCFG_API qorcfg_handle *init_qorcfg(void);
/* Parse the working copy now (rebuilding it from flash when missing); free with ezxml_free. */
QORCFG_API ezxml_node *init_qorcfg_direct(void);
/* Open any configuration file (NULL or "" = the flash copy). NULL on failure. */
QORCFG_API qorcfg_handle *init_qorcfg_f(const char *path);
/* Parse that file now under its lock. NULL on failure. */
QORCFG_API ezxml_node *init_qorcfg_f_direct(const char *path);
/* Open one group's element (by name, by path containing "qorconfig.", or by gid) of `file`
 * (NULL or "" = the flash copy); the working copy and the current configuration give the
 * network-mode or shared handle, which covers the whole document. */
QORCFG_API qorcfg_handle *init_sub_qorcfg(const char *group, uint32_t gid, const char *file);
/* Parse only that group's element now (NULL file = working copy). NULL on failure. */
QORCFG_API ezxml_node *init_sub_qorcfg_direct(const char *group, uint32_t gid, const char *file);
/* Give a handle back (a registered shared document survives). 0, or -2 for NULL. */
QORCFG_API int close_qorcfg(qorcfg_handle *handle);
/* Register `handle` as shared for slot 0 or 1; NULL switches back to network mode. Returns 0. */
QORCFG_API int set_shared_qorcfg(qorcfg_handle *handle, int slot);
/* The shared handle of slot 0 or 1 (loaded in place when in network mode), or NULL. */
QORCFG_API qorcfg_handle *get_shared_qorcfg(int slot);
/* Network mode of slot 0 or 1 (1 = daemon first); 0 for other slots. */
QORCFG_API int get_net_qorcfg(int slot);
/* Set one slot's network mode (slot 0 or 1, mode 0 or 1; anything else is ignored). Returns 0. */
QORCFG_API int set_net_qorcfg_mode(int slot, int mode);
/* Set both network modes (mode 0 or 1). Returns 0. */
QORCFG_API int set_all_net_qorcfg_mode(int mode);
/* 1 when `handle` is a network-mode handle, else 0. */
QORCFG_API int is_net_cfg(qorcfg_handle *handle);
/* Restore factory defaults into flash, drop the working copy, signal the daemons. 0 or -7/-10. */
QORCFG_API int reset_qorcfg(void);

/* ---- children of an element (lists freed with free_attr_list) ---- */

/* Tag names of the handle's node's children (value NULL; index -1 for a single member). */
QORCFG_API qorcfg_attr *qorcfg_list_all_child(qorcfg_handle *handle);
/* Children of the element at `path`. The element found is then taken out of the caller's
 * document and freed with its subtree (the document element itself stays). */
QORCFG_API qorcfg_attr *list_child_by_path(qorcfg_handle *handle, const char *path);
/* Children of the element of group `name`. */
QORCFG_API qorcfg_attr *list_child_by_str(qorcfg_handle *handle, const char *name);
/* Children of the element of group `gid`. */
QORCFG_API qorcfg_attr *list_child_by_gid(qorcfg_handle *handle, uint32_t gid);

/* ---- group table (rows belong to the table; never freed) ---- */

/* Row of group `gid`, or NULL (0 is never found). */
QORCFG_API qorcfg_group *group_by_gid(uint32_t gid);
/* Row whose name equals `name`, or NULL. */
QORCFG_API qorcfg_group *group_by_name(const char *name);
/* Row whose path equals `path`, or NULL. */
QORCFG_API qorcfg_group *group_by_path(const char *path);

/* ---- item lookups: 0, or -1 no handle/tree/element, -2 out of memory, -3 unknown group or
 * missing prefix, -4 no item or buffer ---- */

/* Local read of item `item` under `prefix` ("qorconfig", a group name, or a dotted path). */
QORCFG_API int get_cfg_item_by_prefix_direct(qorcfg_handle *handle, const char *prefix,
                                             const char *item, char *value);
/* Local read by group ID; gid 0: "version" = root's first attribute, "devtype" = second. */
QORCFG_API int get_cfg_item_direct(qorcfg_handle *handle, uint32_t gid, const char *item,
                                   char *value);
/* Local read by group name; "0"/"0x0": "devtype" = root's first attribute, "version" = second. */
QORCFG_API int get_cfg_item_by_str_direct(qorcfg_handle *handle, const char *group,
                                          const char *item, char *value);
/* Daemon first for a network-mode handle, else (or when the daemon is unreachable) local. */
QORCFG_API int get_cfg_item(qorcfg_handle *handle, uint32_t gid, const char *item, char *value);
/* get_cfg_item by group name. */
QORCFG_API int get_cfg_item_by_str(qorcfg_handle *handle, const char *group, const char *item,
                                   char *value);
/* Item of a handle opened on one group's element (attribute of its root). */
QORCFG_API int get_cfg_item_s(qorcfg_handle *handle, uint32_t gid, const char *item, char *value);
/* get_cfg_item_s by group name. */
QORCFG_API int get_cfg_item_by_str_s(qorcfg_handle *handle, const char *group, const char *item,
                                     char *value);
/* Daemon query with prefix and group path; unreachable daemon: reload that sub-tree, read locally.
 */
QORCFG_API int get_cfg_item_by_path_gid_s(qorcfg_handle *handle, const char *prefix,
                                          const char *group_path, const char *item, char *value);
/* Same as get_cfg_item_by_path_gid_s. */
QORCFG_API int get_cfg_item_by_prefix_str_s(qorcfg_handle *handle, const char *prefix,
                                            const char *group_path, const char *item, char *value);
/* The root's "devtype" (get_cfg_item, gid 0). */
QORCFG_API int get_devtype(qorcfg_handle *handle, char *value);
/* The root's "version" (get_cfg_item, gid 0). */
QORCFG_API int get_version(qorcfg_handle *handle, char *value);
/* Attribute `attr` (or all attributes when NULL) of the element at `path` in the
 * working copy, as an attribute list (caller frees with free_attr_list), or NULL. */
QORCFG_API qorcfg_attr *get_item_by_path(const char *attr, const char *path);
/* Fill every node's value with get_cfg_item; stops at and returns the first failure. */
QORCFG_API int get_cfg_items(qorcfg_handle *handle, qorcfg_item *list);

/* ---- item metadata ("name|&|type|&|rule|&|description" attribute values) ---- */

/* Field 1 of attribute `attr` of the holder's element (malloc'ed, caller frees), or NULL. */
QORCFG_API char *get_cfg_item_name(qorcfg_handle *holder, const char *attr);
/* Type code of field 2 (cli_cfg_type_list), or -1. */
QORCFG_API int get_cfg_item_type(qorcfg_handle *holder, const char *attr);
/* Field 3, the rule (caller frees), or NULL. */
QORCFG_API char *get_cfg_item_rule(qorcfg_handle *holder, const char *attr);
/* Field 4, the description (caller frees), or NULL. */
QORCFG_API char *get_cfg_item_desc(qorcfg_handle *holder, const char *attr);
/* Rule text of `item` in group `group` (caller frees), or NULL. */
QORCFG_API char *get_cfg_item_rule_by_group_name(qorcfg_handle *handle, const char *item,
                                                 const char *group);
/* Type code 0..8 of `item` in group `group`; -1, -2, -3, -4 or -12 on failure. */
QORCFG_API int get_cfg_item_type_by_group_name(qorcfg_handle *handle, const char *item,
                                               const char *group);
/* Ask the daemon for one item; -1 unless the handle is in network mode. */
QORCFG_API int test_daemon_work(qorcfg_handle *handle, uint32_t gid, const char *item, char *value);

/* ---- item lists ---- */

/* New unlinked node with copies of name and value; NULL on allocation failure. */
QORCFG_API qorcfg_item *get_new_item(int32_t gid, const char *name, const char *value);
/* Insert a node (value in a 256-byte buffer) before the first node of gid >= `gid`;
 * returns the new head, or NULL (not the list) for a missing name or value. */
QORCFG_API qorcfg_item *append_cfg_item(qorcfg_item *list, int32_t gid, const char *name,
                                        const char *value);
/* append_cfg_item with the gid of group `group`; NULL for an unknown group. */
QORCFG_API qorcfg_item *append_cfg_item_by_str(qorcfg_item *list, const char *group,
                                               const char *name, const char *value);
/* First node named `name` (gid not compared), or NULL. */
QORCFG_API qorcfg_item *check_item_exist(qorcfg_item *list, const char *name);
/* Print every node through qorcfg_print. */
QORCFG_API void print_list(qorcfg_item *list);
/* Free every node with its name and value. Returns 0. */
QORCFG_API int free_item_list(qorcfg_item *list);

/* ---- attribute lists (NULL on every failure; caller frees with free_attr_list) ---- */

/* Local read of group `gid` (sub: a path below the root element's name). Flags > 0:
 * children are not visited; bit value 2: the handle is first switched to the group's element. */
QORCFG_API qorcfg_attr *get_attr_list_by_gid_direct_f(qorcfg_handle *handle, uint32_t gid,
                                                      const char *sub, int flags);
/* get_attr_list_by_gid_direct_f with flags -1. */
QORCFG_API qorcfg_attr *get_attr_list_by_gid_direct(qorcfg_handle *handle, uint32_t gid,
                                                    const char *sub);
/* Daemon first; unreachable daemon: the group's local sub-tree. */
QORCFG_API qorcfg_attr *get_attr_list_by_gid_s(qorcfg_handle *handle, uint32_t gid, const char *sub,
                                               int flags);
/* Daemon first; unreachable daemon: the whole local configuration. */
QORCFG_API qorcfg_attr *get_attr_list_by_gid(qorcfg_handle *handle, uint32_t gid, const char *sub);
/* Local read of group `name` (sub: a path below the group's path); flags are reduced to
 * bit value 1, so children are visited unless that bit is set. */
QORCFG_API qorcfg_attr *get_attr_list_by_group_name_direct_f(qorcfg_handle *handle,
                                                             const char *name, const char *sub,
                                                             int flags);
/* get_attr_list_by_group_name_direct_f with flags -1. */
QORCFG_API qorcfg_attr *get_attr_list_by_group_name_direct(qorcfg_handle *handle, const char *name,
                                                           const char *sub);
/* Daemon first; unreachable daemon: the local sub-tree. */
QORCFG_API qorcfg_attr *get_attr_list_by_group_name_s(qorcfg_handle *handle, const char *name,
                                                      const char *sub, int flags);
/* Daemon first; no list from it: the whole local configuration. */
QORCFG_API qorcfg_attr *get_attr_list_by_group_name(qorcfg_handle *handle, const char *name,
                                                    const char *sub);
/* Local read of the element at prefix + "." + sub. */
QORCFG_API qorcfg_attr *get_attr_list_by_prefix_direct_f(qorcfg_handle *handle, const char *prefix,
                                                         const char *sub, int flags);
/* Deliberately the group-name reader with flags -1. */
QORCFG_API qorcfg_attr *get_attr_list_by_prefix_direct(qorcfg_handle *handle, const char *prefix,
                                                       const char *sub);
/* Daemon first; unreachable daemon: the local sub-tree at the prefix. */
QORCFG_API qorcfg_attr *get_attr_list_by_prefix_s(qorcfg_handle *handle, const char *prefix,
                                                  const char *sub, int flags);
/* Daemon first; unreachable daemon: the whole local configuration. */
QORCFG_API qorcfg_attr *get_attr_list_by_prefix(qorcfg_handle *handle, const char *prefix,
                                                const char *sub);
/* Free every record with its name and value. Returns 0. */
QORCFG_API int free_attr_list(qorcfg_attr *list);

/* ---- daemon queries: the daemon's result code, or -10002..-10005 when unreachable ----
 * An empty item name asks for the group's attribute list, not for an item: the single-item
 * queries then copy the list's first value. Waits are bounded (a few seconds), then -10005. */

/* Send `request` to the daemon; the decoded records go to *list (caller frees). */
QORCFG_API int get_attr_from_daemon(qorcfg_daemon_request request, qorcfg_attr **list);
/* One item by group ID; its value is copied into `value` on success. */
QORCFG_API int get_cfg_item_daemon(const char *file, uint32_t gid, const char *item, char *value);
/* One item by group name or prefix. */
QORCFG_API int get_cfg_item_by_str_daemon(const char *file, const char *group, const char *item,
                                          char *value);
/* One item by prefix and group path (code 5 for gid >= 0, code 6 for a negative gid). */
QORCFG_API int get_cfg_item_by_all_args_daemon(const char *file, int32_t gid, const char *prefix,
                                               const char *group_path, const char *item,
                                               char *value);

QORCFG_END_DECLS

#endif /* QORCFG_STORE_H */
