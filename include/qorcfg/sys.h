/* qorcfg/sys.h - system helpers: processes and shell commands, device and product information,
 * sessions and authentication status, display formatting, time and time zones. */
#ifndef QORCFG_SYS_H
#define QORCFG_SYS_H

#include <time.h>

#include "qorcfg/base.h"

QORCFG_BEGIN_DECLS

/* Row of the product table prd_id_tbl. */
typedef struct qorcfg_product {
    uint32_t id;      /* product ID: its two 16-bit halves in memory order, compared together
                       * as one 32-bit value; 0 ends the table */
    char codename[8]; /* product codename; no NUL when it is 8 characters long */
    char model[8];    /* model name, NUL-terminated */
} qorcfg_product;

/* Row of the time-zone table zone_info. */
typedef struct qorcfg_zone {
    const char *name;  /* zone file below "/usr/share/zoneinfo/"; null in the closing row */
    const char *label; /* text shown to the user; null in the closing row */
} qorcfg_zone;

/* Getter used by the display formatters: fills *value (of the formatter's kind) from arg and
   extra; returns 0 on success. */
typedef int (*qorcfg_getter)(void *arg, void *value, int extra);

/* Processes and shell commands. */

/* Process ID from the first field of the last "/bin/ps" line that contains name anywhere.
   0 when no line matches; -1 when the process list cannot be read. */
QORCFG_API int get_pid(const char *name);

/* Runs command through system() and returns its status; 1 without running anything when command is
 * null. */
QORCFG_API int qor_system(const char *command);

/* Reads shell variable name as set by "/etc/rc.d/rc.env" into buf (cut to size - 1 characters when
   size < 256). Returns buf; null (buf left empty) for a null or empty name, null buf, size <= 0, no
   pipe. */
QORCFG_API char *get_rc_env(const char *name, char *buf, int size);

/* Copies the first line of path (newline kept) into buf (at least 256 bytes); "/proc/version" is
   cut at its first "(". 0; -11 when the file cannot be opened. */
QORCFG_API int get_file_content(const char *path, char *buf);

/* Starts "/bin/ping -c 5 <target>" in the background, output to "/tmp/ping_result".
   0; -8 (nothing run) when target contains one of ;<>"'@!?&$* */
QORCFG_API int qor_ping(const char *target);

/* As qor_ping, deleting "/tmp/ping_result" first; stores the job's process ID in *pid when pid is
   not null. 0; -8 for a forbidden character or when the job cannot be started. */
QORCFG_API int qor_ping_p(const char *target, int *pid);

/* Starts "/usr/bin/traceroute -q 2 -w 2 -m 20 <target>" in the background into "/tmp/trace_result"
   (deleted first); *pid gets the job's process ID when pid is not null. 0; -8 as qor_ping_p. */
QORCFG_API int qor_tracert_p(const char *target, int *pid);

/* Device and product information. */

/* Value of key in "/etc/product.info" into buf; "SITE" is prefixed with "customized_", "given_"
   (then the "/conf/site" line instead of the value) or "default_". 0; -11 file, key or site text
   missing. */
QORCFG_API int get_product_info(const char *key, char *buf);

/* Value of feature key in "/conf/fctrl_web.conf" into buf.
   0; -4 key not found and -7 no file, both writing "N" into buf. */
QORCFG_API int chkFeature(const char *key, char *buf);

/* Copies up to size bytes of "/etc/pkg.info" into buf as they stand (no NUL added). 0; -4 no file.
 */
QORCFG_API int pkg_info(int size, char *buf);

/* Writes "1.10.01 (Rel)" into buf when the release marker path can be opened, else "1.10.01 (Dev)".
   Returns 0. */
QORCFG_API int get_dev_ver(const char *path, char *buf);

/* Looks id up in prd_id_tbl; copies 8 codename characters (strncpy, may lack a NUL) and the model
   name into whichever buffers are not null. 0; -9 unknown ID (buffers untouched). */
QORCFG_API int prd_tbl_lookup(uint32_t id, char *codename, char *model);

/* MTD device name (such as "mtd3") of the partition called name in "/proc/mtd", into buf.
   0; -1 not found; -2 "/proc/mtd" cannot be opened. */
QORCFG_API int find_partition(const char *name, char *buf);

/* As find_partition, writing "/dev/<device>" into buf. Same result codes. */
QORCFG_API int find_mtd(const char *name, char *buf);

/* As find_partition, writing "/dev/mtdblock<last character of the device>" into buf (partitions 0
   to 9). Same result codes. */
QORCFG_API int find_mtdblock(const char *name, char *buf);

/* Product table: 38 rows; a row with ID 0 ends it early. */
QORCFG_API extern const qorcfg_product prd_id_tbl[38];

/* Sessions and authentication status. */

/* Encodes plain (at most 4095 bytes) into out: shift character, data rotated by shift (0 to 63),
   then the "%03d" count. Returns the count of characters before the three digits. */
QORCFG_API int enc(const char *plain, char *out, int shift);

/* Decodes text made by enc into out (NUL-terminated), cutting the three count digits off text.
   1; -1 (out empty) when text is shorter than 3 characters or the count does not match. */
QORCFG_API int dec(char *text, char *out);

/* Decodes token ("ip=<ip>&mac=<mac>&time=...") and copies the IP and MAC texts into ip and mac;
   returns mac. An empty token prints "Error" on standard output and ends the process. */
QORCFG_API char *checkSession(const char *token, char *ip, char *mac);

/* Writes a one-time password of length (at most 39) characters, digits 2-9 and letters other than
   i, j, l, o, into buf; returns buf. */
QORCFG_API char *getpwd(int length, char *buf);

/* Current time in seconds since the epoch plus days x 86400. */
QORCFG_API time_t getexptime(unsigned int days);

/* 1 when "/tmp/authStatus/<mac>" exists (it is deleted); else 0, deleting
   "/tmp/authStatus/ERR-<mac>" when that exists. Tries 100 times. */
QORCFG_API int getAuthStatus(const char *mac);

/* 1 when a file in "/tmp/online/" has value as its second line (selector 0) or third line (any
   other selector), else 0. Leaves "/tmp/online/." as the process's working directory. */
QORCFG_API int userStatus(const char *value, int selector);

/* Integer value of item "auth<server>" of group "vlan<vlan>_policy"; -1 for "disable" or a failed
   lookup; 0 when no configuration handle can be opened. */
QORCFG_API int get_group_index(int vlan, int server);

/* Authentication server index + 1 for user ("name@realm" matched against "postfix" of
   "auth0".."auth4", else "defauth" of "vlan<vlan>_policy"); -1 none; 0 no handle. user may be
   modified. */
QORCFG_API int get_mgmt_index(char *user, int vlan);

/* VLAN number of the client at ip, found by "/ramfs/bin/getVlanbyIP.sh" through "/tmp/status/<ip>"
   (deleted after reading); -1 when that file cannot be opened. */
QORCFG_API int getVlanbyIP(const char *ip);

/* Display formatting. The formatters call getter(arg, &value, extra) and write the value into out;
   when the getter returns nonzero they write "N/A". */

/* Formats an int with "%d". */
QORCFG_API void print_int(void *arg, char *out, qorcfg_getter getter, int extra);

/* Formats a double with "%f". */
QORCFG_API void print_double(void *arg, char *out, qorcfg_getter getter, int extra);

/* Formats an unsigned long count of seconds as "<d> days, <h>:<mm>:<ss>". */
QORCFG_API void print_uptime(void *arg, char *out, qorcfg_getter getter, int extra);

/* Formats a struct tm (local time) as "%Y/%m/%d %H:%M:%S". */
QORCFG_API void print_date(void *arg, char *out, qorcfg_getter getter, int extra);

/* Formats the address of a struct sockaddr_in in dotted form. */
QORCFG_API void print_ip(void *arg, char *out, qorcfg_getter getter, int extra);

/* Formats 6 bytes as "XX:XX:XX:XX:XX:XX" (upper case); an all-zero address also gives "N/A". */
QORCFG_API void print_mac(void *arg, char *out, qorcfg_getter getter, int extra);

/* Formats an int band code as its name (1 "802.11a" ... 11 "802.11ac", 12 "Disabled");
   "Unknown Band" for any other code. */
QORCFG_API void print_band(void *arg, char *out, qorcfg_getter getter, int extra);

/* Calls getter(arg, out, extra), which writes its text into out itself; writes "N/A" only when the
   getter returns -11. */
QORCFG_API void print_str(void *arg, char *out, qorcfg_getter getter, int extra);

/* sprintf(out, format, first, second). */
QORCFG_API void print_arg(const char *format, char *out, const char *first, int second);

/* Copies text into out; returns 0. */
QORCFG_API int get_arg(const char *text, char *out);

/* Converts dotted text to a host-order address stored in *addr only when valid.
   1 valid; 0 invalid or addr null; -1 text null. */
QORCFG_API int ip_strtoaddr(const char *text, uint32_t *addr);

/* Writes the dotted form of the host-order addr into buf (at least 16 bytes); returns buf, or null
   when buf is null or the conversion fails. */
QORCFG_API char *ip_addrtostr(uint32_t addr, char *buf);

/* Host-order broadcast (address | ~mask) and network (address & mask) of dotted addr and mask.
   1 on success; 0 an invalid text or a null output; -1 a null text. */
QORCFG_API int get_ipmask(const char *addr, const char *mask, uint32_t *broadcast,
                          uint32_t *network);

/* direction 1: text to "0x" and two lower-case hex digits a byte; direction 2: "0x" and an even
   number of hex digits to bytes, NUL-terminated. New text the caller frees with free; null on bad
   input. */
QORCFG_API char *hexbinconvert(const char *text, int direction);

/* Time and time zones. */

/* Points "/tmp/localtime" at zone below "/usr/share/zoneinfo/" when zone is not null; when date is
   not null sets the clock with date(1), writes the hardware clock (UTC), restarts rrd and crond. 0
   without date; else the status of the last command. */
QORCFG_API int set_systime(const char *date, const char *zone);

/* Current local time into *tm, the zone link read afresh. 0; -11 when the conversion fails. */
QORCFG_API int get_date(int unused, struct tm *tm);

/* Time zones offered to the user, east to west; a row of two null pointers ends it. */
QORCFG_API extern const qorcfg_zone zone_info[];

QORCFG_END_DECLS

#endif /* QORCFG_SYS_H */
