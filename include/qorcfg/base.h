/*
 * qorcfg/base.h - common definitions of the exported interface.
 *
 * Every exported function and data object is declared with QORCFG_API inside
 * QORCFG_BEGIN_DECLS / QORCFG_END_DECLS, so it has C linkage and default
 * visibility while everything else in the library stays hidden.
 */
#ifndef QORCFG_BASE_H
#define QORCFG_BASE_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__) || defined(__clang__)
#define QORCFG_API __attribute__((visibility("default")))
#define QORCFG_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define QORCFG_API
#define QORCFG_PRINTF(fmt, args)
#endif

#ifdef __cplusplus
#define QORCFG_BEGIN_DECLS extern "C" {
#define QORCFG_END_DECLS }
#else
#define QORCFG_BEGIN_DECLS
#define QORCFG_END_DECLS
#endif

/* Result codes shared by the whole library. */
#define QORCFG_OK 0
#define QORCFG_BUSY 1                      /* the access lock is held by another process */
#define QORCFG_ERR_FAIL (-1)               /* no handle or tree, not found, cannot open */
#define QORCFG_ERR_NOMEM (-2)              /* memory exhausted; null handle to close */
#define QORCFG_ERR_GROUP (-3)              /* unknown group; some group failed to apply */
#define QORCFG_ERR_ITEM (-4)               /* item, attribute or buffer missing */
#define QORCFG_ERR_TOOLONG (-5)            /* value too long; group ID buffer full */
#define QORCFG_ERR_NOTEXT (-6)             /* nothing to write */
#define QORCFG_ERR_OPEN (-7)               /* file or lock file cannot be opened */
#define QORCFG_ERR_TARGET (-8)             /* forbidden character in a target; job not started */
#define QORCFG_ERR_PRODUCT (-9)            /* unknown product ID */
#define QORCFG_ERR_LOCK (-10)              /* a lock cannot be taken */
#define QORCFG_ERR_MISSING (-11)           /* a file, key or value is missing */
#define QORCFG_ERR_INVALID (-12)           /* value rejected; type lookup failed */
#define QORCFG_ERR_PENDING (-14)           /* another change set is pending */
#define QORCFG_ERR_MAX (-15)               /* index at or beyond the parent's "max" */
#define QORCFG_ERR_REBOOT (-17)            /* a radio change needs a reboot */
#define QORCFG_ERR_DAEMON (-10001)         /* daemon: transport failure */
#define QORCFG_ERR_DAEMON_SOCKET (-10002)  /* daemon: socket not created */
#define QORCFG_ERR_DAEMON_CONNECT (-10003) /* daemon: not running */
#define QORCFG_ERR_DAEMON_SEND (-10004)    /* daemon: request not sent */
#define QORCFG_ERR_DAEMON_RECV (-10005)    /* daemon: reply not received */

#endif /* QORCFG_BASE_H */
