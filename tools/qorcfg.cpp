// tools/qorcfg.cpp - the qorcfg command-line tool: items, element
// attributes, children and the group table of the device's configuration,
// looked up and changed through the library's exported functions as any
// program on the device would, on the device itself or (--root) on an
// unpacked device root.
//
// Values go to standard output, one per line; failures to standard error as
// "qorcfg: <what failed>: <reason>", the reason being the library's result
// code in words. The exit status follows the result code (see kHelp).

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "apply/apply.h"
#include "change/change.h"
#include "common/codes.h"
#include "os/offline.h"
#include "os/os.h"
#include "qorcfg.h"
#include "store/platform.h"
#include "store/store.h"
#include "validate/validate.h"

namespace {

constexpr int kExitUsage = 64;

// Longest texts the daemon request record carries (its item and name fields
// less the terminating zero); longer ones must never reach a lookup that may
// ask the daemon.
constexpr size_t kMaxItemName = 64;
constexpr size_t kMaxGroupName = 128;

// A lookup's value buffer: values are cut to 255 characters and a zero.
constexpr size_t kValueBuffer = 256;

const char kHelp[] =
    "Usage: qorcfg [--root DIR] COMMAND [ARGUMENT...]\n"
    "\n"
    "Reads and changes the device's configuration.\n"
    "\n"
    "Commands:\n"
    "  get GROUP ITEM          the value of ITEM in GROUP\n"
    "  get-path PATH [ITEM]    the attributes of the element at the dotted PATH, one\n"
    "                          \"name=value\" line each, or the value of its attribute ITEM\n"
    "  show GROUP              the group's attribute list, one \"name=value\" line each\n"
    "                          (\"name[index]=value\" for repeated elements), from the\n"
    "                          daemon when it answers, else from the working copy\n"
    "  list-children GROUP     the children of the group's element, one \"tag\" line each\n"
    "                          (\"tag:index\" for repeated elements)\n"
    "  groups                  the group table, one \"ID name path\" line each\n"
    "  daemon-status           whether the configuration daemon answers\n"
    "  validate GROUP ITEM VALUE\n"
    "                          checks VALUE against the type and rule that\n"
    "                          /etc/cfg-rule.xml gives ITEM: prints \"accepted\", or\n"
    "                          why not (exit status 12)\n"
    "  set [--no-validate] GROUP ITEM=VALUE...\n"
    "                          sets the items of GROUP in one change: the working\n"
    "                          copy and the flash copy are written, the changed\n"
    "                          groups recorded for the next apply, the daemons told;\n"
    "                          every value is validated first, and nothing is\n"
    "                          written when one is rejected (--no-validate: not)\n"
    "  pending                 the groups changed since the last apply, one \"ID name\"\n"
    "                          line each, after \"reboot: yes\" or \"reboot: no\"\n"
    "  save FILE               writes the configuration to FILE, a path on the device\n"
    "  reset                   restores the factory defaults (the customer's defaults\n"
    "                          when the device has them)\n"
    "  apply [--dry-run]       makes the pending changes take effect: runs the changed\n"
    "                          groups' service commands, then tells the daemons;\n"
    "                          --dry-run prints the commands (\"run: LINE\") and the\n"
    "                          daemons it would tell, runs nothing and keeps the\n"
    "                          changes pending\n"
    "  sys ACTION              a device-wide action: 0 reboot (in 5 s), 1 restart\n"
    "                          syslogd, 2 check the DHCP client, 3 copy the system log\n"
    "                          to /tmp/syslog_messages\n"
    "  sys-item NAME           a run-time value of the system (on the sample device:\n"
    "                          uptime, load, mem_total, mem_free, hostname,\n"
    "                          temperature, lan_mac)\n"
    "  perm USER|GROUP|OPERATION\n"
    "                          the user's group, the permission value of the\n"
    "                          configuration group (name or ID) or of the operation\n"
    "                          (name, any case, or number)\n"
    "\n"
    "GROUP is a group name (sys_device) or a group ID in hex (0x08080000). PATH\n"
    "starts at the root element and may pick the N-th of repeated elements with\n"
    "\":N\", counting from 0: qorconfig.wlan.rf1.vap:0. ITEM may be a path below\n"
    "the group's element (static:1.ip). Group names are at most 128 characters\n"
    "long, items at most 64.\n"
    "\n"
    "get asks the configuration daemon first and reads the working copy when the\n"
    "daemon does not answer; the other commands read the working copy, which is\n"
    "made from the flash copy when missing (a flash copy that holds no\n"
    "configuration is restored from the factory defaults, as on the device).\n"
    "The group ID 0x0 names the configuration's root: get 0x0 version, get 0x0\n"
    "devtype (by the name \"0\" or \"0x0\" the two read the other way round).\n"
    "\n"
    "Options:\n"
    "  --root DIR   work on the device root unpacked at DIR (its files, locks and\n"
    "               daemon socket DIR/tmp/qorcfgd_socket) instead of this device's;\n"
    "               commands and signals are reported, never run or sent (so\n"
    "               the country code is unknown, and validation refuses channel\n"
    "               numbers: set --no-validate sets them)\n"
    "  -h, --help   print this text and exit\n"
    "\n"
    "Exit status:\n"
    "  0         success\n"
    "  1         the access lock is held, or a general failure (-1)\n"
    "  2 to 99   the library's result code -2 to -99, as a positive number\n"
    "            (3 unknown group, or a group that failed to apply; 4 item not\n"
    "            found; 7 nothing to apply; 12 value rejected)\n"
    "  101-105   daemon transport failure -10001 to -10005\n"
    "  64        usage error: unknown command or option, missing or bad argument\n"
    "\n"
    "Environment:\n"
    "  QORCFG_PRINT_ERR=0   silence the library's own diagnostics on standard error\n";

// ---- result codes ---------------------------------------------------------------------

int exit_status(int code) {
    if (code == QORCFG_OK)
        return 0;
    if (code < 0 && code > -100)
        return -code;
    if (code <= QORCFG_ERR_DAEMON && code >= QORCFG_ERR_DAEMON_RECV)
        return -code - 10000 + 100;
    return 1;  // the access lock, and codes outside the table
}

// Reports a failed lookup; returns the exit status.
int fail(const std::string &what, int code) {
    std::fprintf(stderr, "qorcfg: %s: %s (%d)\n", what.c_str(), qorcfg::common::code_words(code),
                 code);
    return exit_status(code);
}

int usage_error(std::string_view what, std::string_view reason) {
    std::fprintf(stderr, "qorcfg: %.*s: %.*s\nTry 'qorcfg --help' for more information.\n",
                 static_cast<int>(what.size()), what.data(), static_cast<int>(reason.size()),
                 reason.data());
    return kExitUsage;
}

// ---- arguments ------------------------------------------------------------------------

// A GROUP argument: a group ID when it starts with "0x", else a group name.
struct GroupArg {
    bool by_id = false;
    uint32_t gid = 0;
    const std::string *name = nullptr;
};

// Parses "0x" and 1 to 8 hex digits; false for anything else.
bool parse_gid(std::string_view text, uint32_t &gid) {
    text.remove_prefix(2);
    if (text.empty() || text.size() > 8)
        return false;
    uint32_t value = 0;
    for (char c : text) {
        uint32_t digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<uint32_t>(c - '0');
        else if (c >= 'a' && c <= 'f')
            digit = static_cast<uint32_t>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            digit = static_cast<uint32_t>(c - 'A' + 10);
        else
            return false;
        value = value << 4 | digit;
    }
    gid = value;
    return true;
}

// Fills `group` from `text`; prints the usage error and returns false when
// the text is unusable.
bool group_arg(const std::string &what, const std::string &text, GroupArg &group, int &status) {
    if (text.starts_with("0x") || text.starts_with("0X")) {
        group.by_id = true;
        if (!parse_gid(text, group.gid)) {
            status = usage_error(what, "bad group ID (0x and 1 to 8 hex digits)");
            return false;
        }
        return true;
    }
    if (text.size() > kMaxGroupName) {
        status = usage_error(what, "group name longer than 128 characters");
        return false;
    }
    group.name = &text;
    return true;
}

qorcfg_group *group_row(const GroupArg &group) {
    return group.by_id ? group_by_gid(group.gid) : group_by_name(group.name->c_str());
}

// "cmd arg1 arg2 ...": names a failed lookup in messages.
std::string what_of(std::string_view command, const std::vector<std::string> &args) {
    std::string what(command);
    for (const std::string &a : args) {
        what += ' ';
        what += a;
    }
    return what;
}

// The group-table row a GROUP argument names; on failure the usage error or
// the unknown group is reported, its status in `status`, and NULL returned.
const qorcfg_group *row_of(const std::string &what, const std::string &text, int &status) {
    GroupArg group;
    if (!group_arg(what, text, group, status))
        return nullptr;
    const qorcfg_group *row = group_row(group);
    if (row == nullptr)
        status = fail(what, QORCFG_ERR_GROUP);
    return row;
}

// Owns an attribute list.
struct AttrList {
    qorcfg_attr *head = nullptr;
    explicit AttrList(qorcfg_attr *list) : head(list) {}
    ~AttrList() { free_attr_list(head); }
    AttrList(const AttrList &) = delete;
    AttrList &operator=(const AttrList &) = delete;
};

const char *text_or_empty(const char *text) {
    return text != nullptr ? text : "";
}

void print_name_values(const qorcfg_attr *list) {
    for (const qorcfg_attr *a = list; a != nullptr; a = a->next)
        std::printf("%s=%s\n", text_or_empty(a->name), text_or_empty(a->value));
}

// Says so when the working copy that a lookup read is damaged: its parse
// stopped at an error, so values after that point are missing.
void report_damage() {
    ezxml_node *root = init_qorcfg_direct();
    if (root != nullptr && ezxml_error(root)[0] != '\0')
        qorcfg::common::report_damage("qorcfg", config_ram, ezxml_error(root));
    ezxml_free(root);
}

// ---- commands -------------------------------------------------------------------------

int cmd_get(const std::vector<std::string> &args) {
    const std::string what = what_of("get", args);
    const std::string &item = args[1];
    GroupArg group;
    int status = 0;
    if (!group_arg(what, args[0], group, status))
        return status;
    if (item.empty())  // an empty item would ask the daemon for the group's list
        return usage_error(what, "empty item name");
    if (item.size() > kMaxItemName)
        return usage_error(what, "item name longer than 64 characters");

    qorcfg_handle *handle = init_qorcfg();
    if (handle == nullptr)
        return fail(what, QORCFG_ERR_FAIL);
    std::vector<char> value(kValueBuffer, '\0');
    int rc = group.by_id
                 ? get_cfg_item(handle, group.gid, item.c_str(), value.data())
                 : get_cfg_item_by_str(handle, group.name->c_str(), item.c_str(), value.data());
    const bool from_file = is_net_cfg(handle) == 0;
    close_qorcfg(handle);
    if (from_file)
        report_damage();
    if (rc != QORCFG_OK)
        return fail(what, rc);
    value.back() = '\0';
    std::printf("%s\n", value.data());
    return 0;
}

int cmd_get_path(const std::vector<std::string> &args) {
    const std::string what = what_of("get-path", args);
    const std::string &path = args[0];
    const char *attr = args.size() > 1 ? args[1].c_str() : nullptr;
    AttrList list(get_item_by_path(attr, path.c_str()));
    report_damage();
    if (list.head == nullptr) {
        // No list says neither whether the element or the attribute is
        // missing: the element's own attributes tell.
        if (attr != nullptr && AttrList(get_item_by_path(nullptr, path.c_str())).head != nullptr)
            return fail(what, QORCFG_ERR_ITEM);
        return fail(what, QORCFG_ERR_FAIL);
    }
    if (attr != nullptr)
        std::printf("%s\n", text_or_empty(list.head->value));
    else
        print_name_values(list.head);
    return 0;
}

int cmd_show(const std::vector<std::string> &args) {
    const std::string what = what_of("show", args);
    int status = 0;
    const qorcfg_group *row = row_of(what, args[0], status);
    if (row == nullptr)
        return status;
    // The group's attribute list, from the daemon when one answers, else
    // from the working copy.
    qorcfg_handle *handle = init_qorcfg();
    if (handle == nullptr)
        return fail(what, QORCFG_ERR_FAIL);
    AttrList list(get_attr_list_by_group_name(handle, row->name, nullptr));
    const bool from_file = is_net_cfg(handle) == 0;
    close_qorcfg(handle);
    if (from_file)
        report_damage();
    if (list.head == nullptr)
        return fail(what, QORCFG_ERR_FAIL);
    for (const qorcfg_attr *a = list.head; a != nullptr; a = a->next) {
        if (a->index >= 0)
            std::printf("%s[%d]=%s\n", a->name, a->index, a->value != nullptr ? a->value : "");
        else
            std::printf("%s=%s\n", a->name, a->value != nullptr ? a->value : "");
    }
    return 0;
}

// Whether the configuration daemon answers on its socket.
int cmd_daemon_status(const std::vector<std::string> &args) {
    const std::string what = what_of("daemon-status", args);
    char version[kValueBuffer] = "";
    int code = get_cfg_item_daemon(config_ram, 0, "version", version);
    if (code <= -10001 && code >= -10005)
        return fail(what, code);
    std::printf("qorcfgd answers on %s (configuration version %s)\n",
                qorcfg::os::daemon_socket_path().c_str(), code == 0 ? version : "unknown");
    return 0;
}

int cmd_list_children(const std::vector<std::string> &args) {
    const std::string what = what_of("list-children", args);
    GroupArg group;
    int status = 0;
    if (!group_arg(what, args[0], group, status))
        return status;
    qorcfg_handle *handle = init_qorcfg();
    if (handle == nullptr)
        return fail(what, QORCFG_ERR_FAIL);
    // The listed element is taken out of the handle's document; the rest
    // of the document is given back as usual.
    AttrList list(group.by_id ? list_child_by_gid(handle, group.gid)
                              : list_child_by_str(handle, group.name->c_str()));
    close_qorcfg(handle);
    report_damage();
    if (list.head == nullptr) {
        const qorcfg_group *row = group_row(group);
        if (row == nullptr)
            return fail(what, QORCFG_ERR_GROUP);
        // An element without children lists nothing; a missing one fails.
        if (AttrList(get_item_by_path(nullptr, row->path)).head == nullptr)
            return fail(what, QORCFG_ERR_FAIL);
        return 0;
    }
    for (const qorcfg_attr *a = list.head; a != nullptr; a = a->next) {
        if (a->index < 0)
            std::printf("%s\n", text_or_empty(a->name));
        else
            std::printf("%s:%d\n", text_or_empty(a->name), static_cast<int>(a->index));
    }
    return 0;
}

// Owns an item list.
struct ItemList {
    qorcfg_item *head = nullptr;
    ItemList() = default;
    ~ItemList() { free_item_list(head); }
    ItemList(const ItemList &) = delete;
    ItemList &operator=(const ItemList &) = delete;
};

// ---- validation ---------------------------------------------------------------------

// The type name of a type code of the rule file.
const char *type_name(int code) {
    for (const qorcfg_type_entry *row = cli_cfg_type_list; row->name != nullptr; ++row) {
        if (row->code == code)
            return row->name;
    }
    return "unknown type";
}

// Checks VALUE for ITEM of the group against the rule file; on rejection
// `why` says why, in one line: the library's message, or the item's type
// and rule.
int check_value(const qorcfg_group &row, const std::string &item, const std::string &value,
                std::string &why) {
    const char *group = text_or_empty(row.name);
    err_msg[0] = '\0';
    const int rc = input_validation_by_item(group, value.c_str(), item.c_str());
    if (rc == QORCFG_OK)
        return rc;
    if (err_msg[0] != '\0') {
        why.assign(err_msg, std::strcspn(err_msg, "\n"));
        return rc;
    }
    const qorcfg::store::OwnedHandle rules(init_qorcfg_f(qorcfg::validate::kRuleFile));
    const int type = rules != nullptr
                         ? get_cfg_item_type_by_group_name(rules.get(), item.c_str(), group)
                         : QORCFG_ERR_INVALID;
    if (type < 0) {
        why = "ERROR: " + item + " of " + group + " is not in " + qorcfg::validate::kRuleFile + ".";
        return rc;
    }
    bool found = false;
    const qorcfg::os::Text rule(qorcfg::store::item_rule(rules.get(), item.c_str(), group, found));
    why = std::string("ERROR: Not a valid ") + type_name(type) + " value";
    if (rule != nullptr)
        why += std::string(" (rule \"") + rule.get() + "\")";
    why += ".";
    return rc;
}

int cmd_validate(const std::vector<std::string> &args) {
    const std::string what = what_of("validate", args);
    int status = 0;
    const qorcfg_group *row = row_of(what, args[0], status);
    if (row == nullptr)
        return status;
    std::string why;
    const int rc = check_value(*row, args[1], args[2], why);
    std::printf("%s\n", rc == QORCFG_OK ? "accepted" : why.c_str());
    return exit_status(rc);
}

int cmd_set(const std::vector<std::string> &given) {
    const bool validate = given[0] != "--no-validate";
    const std::vector<std::string> args(given.begin() + (validate ? 0 : 1), given.end());
    const std::string what = what_of("set", given);
    if (args.size() < 2)
        return usage_error(what,
                           "missing argument (usage: set [--no-validate] GROUP ITEM=VALUE...)");
    int status = 0;
    const qorcfg_group *row = row_of(what, args[0], status);
    if (row == nullptr)
        return status;
    // The pairs in the order given: a list is built at its tail.
    ItemList items;
    qorcfg_item **tail = &items.head;
    for (size_t i = 1; i < args.size(); ++i) {
        const size_t eq = args[i].find('=');
        if (eq == std::string::npos || eq == 0)
            return usage_error(what, "ITEM=VALUE expected, not \"" + args[i] + "\"");
        const std::string item = args[i].substr(0, eq);
        *tail = get_new_item(static_cast<int32_t>(row->gid), item.c_str(), &args[i][eq + 1]);
        if (*tail == nullptr)
            return fail(what, QORCFG_ERR_NOMEM);
        tail = &(*tail)->next;
    }
    // Every pair is checked before anything is written.
    for (const qorcfg_item *item = items.head; validate && item != nullptr; item = item->next) {
        std::string why;
        if (const int rc = check_value(*row, item->name, item->value, why); rc != QORCFG_OK) {
            std::fprintf(stderr, "qorcfg: %s: %s=%s rejected: %s\n", what.c_str(), item->name,
                         item->value, why.c_str());
            return exit_status(rc);
        }
    }
    qorcfg_handle *handle = init_qorcfg();
    if (handle == nullptr)
        return fail(what, QORCFG_ERR_FAIL);
    const int rc = set_cfg_items(handle, items.head);
    close_qorcfg(handle);
    return rc == QORCFG_OK ? 0 : fail(what, rc);
}

// ---- permissions ----------------------------------------------------------------------

// Whether `text` is a decimal number that fits in 32 bits.
bool parse_decimal(const std::string &text, uint32_t &number) {
    if (text.empty() || text.size() > 10 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    number = static_cast<uint32_t>(value);
    return value <= UINT32_MAX;
}

int cmd_perm(const std::vector<std::string> &args) {
    const std::string &arg = args[0];
    bool found = false;
    if (const int group = getUserGroup(arg.c_str()); group != -1) {
        std::printf("user %s: group %d\n", arg.c_str(), group);
        found = true;
    }
    // A group of the group table, by name or ID.
    uint32_t number = 0;
    const bool hex = (arg.starts_with("0x") || arg.starts_with("0X")) && parse_gid(arg, number);
    const qorcfg_group *row = hex ? group_by_gid(number) : group_by_name(arg.c_str());
    if (row != nullptr) {
        std::printf("group 0x%08x %s: permission 0x%x\n", static_cast<unsigned>(row->gid),
                    text_or_empty(row->name),
                    static_cast<unsigned>(getConfigPermissionByGID(row->gid)));
        found = true;
    }
    // Permission names are upper case; operations may also be given by ID.
    std::string upper = arg;
    upperCase(upper.data());
    if (const uint32_t perm = getConfigPermissionByName(upper.c_str()); perm != 0) {
        std::printf("configuration %s: permission 0x%x\n", upper.c_str(),
                    static_cast<unsigned>(perm));
        found = true;
    }
    if (const uint32_t perm = getOperationPermissionByName(upper.c_str()); perm != 0) {
        std::printf("operation %s: permission 0x%x\n", upper.c_str(), static_cast<unsigned>(perm));
        found = true;
    }
    if (parse_decimal(arg, number)) {
        if (const uint32_t perm = getOperationPermissionByOID(number); perm != 0) {
            std::printf("operation %u: permission 0x%x\n", static_cast<unsigned>(number),
                        static_cast<unsigned>(perm));
            found = true;
        }
    }
    if (found)
        return 0;
    std::fprintf(stderr, "qorcfg: perm %s: no user, group or operation of that name\n",
                 arg.c_str());
    return 1;
}

int cmd_pending(const std::vector<std::string> &) {
    int exists = 0;
    chk_cfg_sync(qorcfg::change::kSyncRecord, &exists);
    if (exists == 0) {
        std::printf("nothing pending\n");
        return 0;
    }
    uint32_t *record = nullptr;
    int count = 0;
    if (int rc = read_sync_record(&record, &count, 0); rc != QORCFG_OK)
        return fail("pending", rc);
    std::printf("reboot: %s\n", record[0] == 1 ? "yes" : "no");
    for (int i = 1; i <= count; ++i) {
        const qorcfg_group *row = group_by_gid(record[i]);
        std::printf("0x%08x %s\n", static_cast<unsigned>(record[i]),
                    row != nullptr ? text_or_empty(row->name) : "(unknown group)");
    }
    std::free(record);
    return 0;
}

int cmd_save(const std::vector<std::string> &args) {
    const std::string what = what_of("save", args);
    if (args[0].empty())
        return usage_error(what, "empty file name");
    qorcfg_handle *handle = init_qorcfg();
    if (handle == nullptr)
        return fail(what, QORCFG_ERR_FAIL);
    const int rc = save_qorcfg(handle, args[0].c_str());
    close_qorcfg(handle);
    return rc == QORCFG_OK ? 0 : fail(what, rc);
}

int cmd_reset(const std::vector<std::string> &) {
    const int rc = reset_qorcfg();
    return rc == QORCFG_OK ? 0 : fail("reset", rc);
}

// What an apply's result codes mean to the one who asked for it.
int fail_apply(const std::string &what, int rc) {
    if (rc == QORCFG_ERR_OPEN) {
        std::fprintf(stderr, "qorcfg: %s: nothing to apply: no changes recorded (%d)\n",
                     what.c_str(), rc);
        return exit_status(rc);
    }
    if (rc == QORCFG_ERR_GROUP) {
        std::fprintf(stderr, "qorcfg: %s: a group failed to apply; the rest were applied (%d)\n",
                     what.c_str(), rc);
        return exit_status(rc);
    }
    return fail(what, rc);
}

// The apply's steps that run commands, with every command recorded and
// shown where it would run, among the apply's own messages; then the
// daemons the apply would tell. Files are neither written nor deleted.
int dry_run(qorcfg_handle *handle) {
    const std::string what = "apply --dry-run";
    qorcfg::apply::Record record;
    if (const int rc = qorcfg::apply::read_record(record); rc != QORCFG_OK)
        return fail_apply(what, rc);

    qorcfg::os::Runner recorder;
    recorder.observe(
        [](const qorcfg::os::Command &c) { std::printf("run: %s\n", c.line.c_str()); });
    qorcfg::os::Runner *before = qorcfg::os::runner();
    qorcfg::os::set_runner(&recorder);
    uint32_t restart = 0;
    const int rc = qorcfg::apply::apply_groups(handle, record.gids(), record.count, &restart);
    qorcfg::os::set_runner(before);
    for (const char *pid_file : qorcfg::store::kDaemonPidFiles) {
        if (qorcfg::apply::told_after_apply(pid_file, restart == 1))
            std::printf("signal: SIGUSR2 to the process in %s\n", pid_file);
    }
    return rc == QORCFG_OK ? 0 : fail_apply(what, rc);
}

int cmd_apply(const std::vector<std::string> &args) {
    const bool dry = !args.empty();
    if (dry && args[0] != "--dry-run")
        return usage_error(what_of("apply", args), "unknown option (usage: apply [--dry-run])");
    // Nothing pending: an apply would stop early and leave its marker
    // behind, so that front ends would show an apply in progress.
    if (int exists = 0; chk_cfg_sync(qorcfg::change::kSyncRecord, &exists), exists == 0)
        return fail_apply(dry ? "apply --dry-run" : "apply", QORCFG_ERR_OPEN);
    qorcfg_handle *handle = init_qorcfg();
    if (handle == nullptr)
        return fail("apply", QORCFG_ERR_FAIL);
    const int status = dry ? dry_run(handle) : apply_cfg(handle);
    close_qorcfg(handle);
    if (dry)
        return status;
    if (status != QORCFG_OK)
        return fail_apply("apply", status);
    std::printf("applied\n");
    return 0;
}

int cmd_sys(const std::vector<std::string> &args) {
    const std::string what = what_of("sys", args);
    const std::string &action = args[0];
    if (action.size() != 1 || action[0] < '0' || action[0] > '3')
        return usage_error(what, "ACTION is 0, 1, 2 or 3 (see qorcfg --help)");
    const int rc = apply_sys(action[0] - '0');
    if (action == "0") {  // -1 whether or not the reboot started
        std::printf("reboot in 5 seconds\n");
        return 0;
    }
    if (rc != 0) {
        std::fprintf(stderr, "qorcfg: %s: the command failed (status %d)\n", what.c_str(), rc);
        return 1;
    }
    return 0;
}

int cmd_sys_item(const std::vector<std::string> &args) {
    // Getters agree on their buffer's size with their callers: be generous.
    std::vector<char> value(4096, '\0');
    const int rc = get_sys_item(args[0].c_str(), value.data());
    if (rc != QORCFG_OK)
        return fail(what_of("sys-item", args), rc);
    value.back() = '\0';
    std::printf("%s\n", value.data());
    return 0;
}

int cmd_groups(const std::vector<std::string> &) {
    for (const qorcfg_group *g = group_table; g->gid != 0; ++g) {
        std::printf("0x%08x %s %s\n", static_cast<unsigned>(g->gid), text_or_empty(g->name),
                    text_or_empty(g->path));
    }
    return 0;
}

struct Command {
    const char *name;
    size_t min_args;
    size_t max_args;
    const char *usage;
    int (*run)(const std::vector<std::string> &);
};

constexpr Command kCommands[] = {
    {"get", 2, 2, "get GROUP ITEM", cmd_get},
    {"get-path", 1, 2, "get-path PATH [ITEM]", cmd_get_path},
    {"show", 1, 1, "show GROUP", cmd_show},
    {"list-children", 1, 1, "list-children GROUP", cmd_list_children},
    {"groups", 0, 0, "groups", cmd_groups},
    {"daemon-status", 0, 0, "daemon-status", cmd_daemon_status},
    {"validate", 3, 3, "validate GROUP ITEM VALUE", cmd_validate},
    {"set", 2, SIZE_MAX, "set [--no-validate] GROUP ITEM=VALUE...", cmd_set},
    {"pending", 0, 0, "pending", cmd_pending},
    {"save", 1, 1, "save FILE", cmd_save},
    {"reset", 0, 0, "reset", cmd_reset},
    {"apply", 0, 1, "apply [--dry-run]", cmd_apply},
    {"sys", 1, 1, "sys ACTION", cmd_sys},
    {"sys-item", 1, 1, "sys-item NAME", cmd_sys_item},
    {"perm", 1, 1, "perm USER|GROUP|OPERATION", cmd_perm},
};

// Offline, on an unpacked device root, the device's commands and signals
// must not reach this machine: they are recorded, not run, and reported on
// standard error when the tool ends.
qorcfg::os::Runner g_offline;

// Points the OS seam at an unpacked device root; false when `dir` is no
// directory.
bool use_root(const std::string &dir) {
    std::string socket, error;
    if (!qorcfg::os::use_root(dir, g_offline, socket, error))
        return false;
    // No daemon can listen on a socket path longer than a socket address
    // holds, so lookups go to the files straight away (and a cut path can
    // never reach some other socket).
    if (!qorcfg::os::fits_socket_address(socket))
        set_all_net_qorcfg_mode(0);
    return true;
}

int run(int argc, char **argv) {
    int i = 1;
    for (; i < argc; ++i) {
        std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kHelp, stdout);
            return 0;
        }
        if (arg == "--root" || arg.starts_with("--root=")) {
            std::string dir;
            if (arg == "--root") {
                if (i + 1 >= argc)
                    return usage_error("--root", "missing directory");
                dir = argv[++i];
            } else {
                dir = std::string(arg.substr(7));
            }
            if (!use_root(dir))
                return usage_error("--root " + dir, "not a directory");
            continue;
        }
        if (arg.starts_with("-"))
            return usage_error(arg, "unknown option");
        break;
    }
    if (i >= argc)
        return usage_error("usage", "no command given");

    std::string_view name = argv[i];
    std::vector<std::string> args(argv + i + 1, argv + argc);
    for (const Command &command : kCommands) {
        if (name != command.name)
            continue;
        if (args.size() < command.min_args)
            return usage_error(name,
                               std::string("missing argument (usage: ") + command.usage + ")");
        if (args.size() > command.max_args)
            return usage_error(name,
                               std::string("too many arguments (usage: ") + command.usage + ")");
        return command.run(args);
    }
    return usage_error(name, "unknown command");
}

}  // namespace

int main(int argc, char **argv) {
    int status;
    try {
        status = run(argc, argv);
    } catch (const std::bad_alloc &) {
        std::fprintf(stderr, "qorcfg: %s (%d)\n", qorcfg::common::code_words(QORCFG_ERR_NOMEM),
                     QORCFG_ERR_NOMEM);
        status = exit_status(QORCFG_ERR_NOMEM);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "qorcfg: %s\n", e.what());
        status = 1;
    } catch (...) {
        std::fprintf(stderr, "qorcfg: unexpected failure\n");
        status = 1;
    }
    qorcfg::os::report("qorcfg", g_offline);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "qorcfg: standard output: %s\n", std::strerror(errno));
        if (status == 0)
            status = 1;
    }
    return status;
}
