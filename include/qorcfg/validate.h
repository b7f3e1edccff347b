/* qorcfg/validate.h - input validation: the rule file, type pre-checks, per-type item checks and
 * per-group verification. */
#ifndef QORCFG_VALIDATE_H
#define QORCFG_VALIDATE_H

#include "qorcfg/base.h"
#include "qorcfg/store.h"

QORCFG_BEGIN_DECLS

/* Message left by validation for the caller (pre-check failures), zero-terminated. */
QORCFG_API extern char err_msg[1000];

/* Validation framework. */

/* Checks value against the type and rule of item_name of group_name in "/etc/cfg-rule.xml".
   0 accepted (also when the rule file cannot be opened); -12 rejected (message in err_msg for
   pre-check failures). */
QORCFG_API int input_validation_by_item(const char *group_name, const char *value,
                                        const char *item_name);

/* Runs the check of type code type (0 int .. 7 timezone) on value with rule; 0 or -12
   (-12 also for an unknown type code). */
QORCFG_API int check_input_validity(int type, const char *value, const char *rule);

/* Checks the characters of value for type code type. 0; -1 wrong characters; -2 not settable. */
QORCFG_API int type_pre_check(int type, const char *value);

/* Matches value against pattern (escapes expanded, POSIX extended, unanchored).
   0 match; -12 no match or bad pattern. Ends the process on an unknown escape. */
QORCFG_API int qorcfg_item_regex_check(const char *pattern, const char *value);

/* New 1000-byte text: pattern with each "\x" and two hexadecimal digits (20..7e) replaced by that
   character; caller frees it with free. Ends the process (status 1) on an unknown escape. */
QORCFG_API char *parse_ascii_esc_seq(const char *pattern);

/* Item checks: 0 accepted, -12 rejected. */

/* value's decimal number against rule, a comma-separated list of numbers N and ranges A~B. */
QORCFG_API int qorcfg_item_int_check(const char *rule, const char *value);

/* Dotted IPv4 address of four numbers below 256. */
QORCFG_API int qorcfg_item_ip_check(const char *value);

/* MAC address with ':' or '-' separators, or twelve bare hexadecimal digits (unanchored). */
QORCFG_API int qorcfg_item_mac_check(const char *value);

/* Domain name of at least two dot-separated labels, shorter than 257 characters. */
QORCFG_API int qorcfg_item_domain_check(const char *value);

/* Date and time written year.month.day-hour:minute:second (digits only). */
QORCFG_API int qorcfg_date_input_validation(const char *value);

/* Zone name of a row of the time-zone table. */
QORCFG_API int qorcfg_item_timezone_check(const char *value);

/* Wireless band against rule (a pattern; may be null) or the radio's allowed channels. */
QORCFG_API int qorcfg_band_check(const char *value, const char *rule);

/* Wireless channel ("auto" or a number) against rule (a pattern; may be null) or the allowed
 * channels. */
QORCFG_API int qorcfg_channel_check(const char *value, const char *rule);

/* Group verification: each function takes the item list of one group (not modified, still the
   caller's) and returns 0 when it is accepted, or an error code. */

/* Verifies items with the function chosen by the first item's group ID.
   0 accepted; -3 group ID not covered; or the verification function's result. */
QORCFG_API int validate_input(const qorcfg_item *items);

/* Device identity: "name" at most 32 characters, "desc" and "location" at most 256 (else -5);
   any other item -4. */
QORCFG_API int verifySystemDevice(const qorcfg_item *items);

/* System time group; accepts. */
QORCFG_API int verifySystemSystime(const qorcfg_item *items);

/* WAN IP group; accepts. */
QORCFG_API int verifyNetworkWan_ip(const qorcfg_item *items);

/* Layer-2 group; accepts. */
QORCFG_API int verifyNetworkL2(const qorcfg_item *items);

/* Spanning tree group; accepts. */
QORCFG_API int verifyNetworkL2Stp(const qorcfg_item *items);

/* Proxy ARP group; accepts. */
QORCFG_API int verifyNetworkL2Proxy_arp(const qorcfg_item *items);

/* IGMP snooping group; accepts. */
QORCFG_API int verifyNetworkL2Igmp_snooping(const qorcfg_item *items);

/* Port trunk group; accepts. */
QORCFG_API int verifyNetworkL2Port_trunk(const qorcfg_item *items);

/* VLAN group; accepts. */
QORCFG_API int verifyNetworkVlan(const qorcfg_item *items);

/* Management accounts group; accepts. */
QORCFG_API int verifyMgmtAccounts(const qorcfg_item *items);

/* Syslog group; accepts. */
QORCFG_API int verifyMgmtSyslog(const qorcfg_item *items);

/* Remote services group; accepts. */
QORCFG_API int verifyMgmtRmt_srv(const qorcfg_item *items);

/* SNMP group; accepts. */
QORCFG_API int verifyMgmtSnmp(const qorcfg_item *items);

/* Remote HTTP service group; accepts. */
QORCFG_API int verifyMgmtRmt_srvHttp(const qorcfg_item *items);

/* Remote access group; accepts. */
QORCFG_API int verifyMgmtRmt_acc(const qorcfg_item *items);

/* Radio group of any radio; accepts. */
QORCFG_API int verifyWlanRfcard(const qorcfg_item *items);

/* Radio scan group; accepts. */
QORCFG_API int verifyWlanScan(const qorcfg_item *items);

/* VAP group; accepts. */
QORCFG_API int verifyWlanRfcardVap(const qorcfg_item *items);

/* VAP MAC access-control group; accepts. */
QORCFG_API int verifyWlanRfcardVapMacAcl(const qorcfg_item *items);

/* VAP security group; accepts. */
QORCFG_API int verifyWlanRfcardVapSecurity(const qorcfg_item *items);

/* VAP IAPP group; accepts. */
QORCFG_API int verifyWlanRfcardVapIapp(const qorcfg_item *items);

/* WDS link group; accepts. */
QORCFG_API int verifyWlanRfcardWds(const qorcfg_item *items);

/* MAC access-control list; accepts (not chosen by validate_input). */
QORCFG_API int verifyWlanMacacl(const qorcfg_item *items);

QORCFG_END_DECLS

#endif /* QORCFG_VALIDATE_H */
