/* qorcfg/backup.h - backup and restore of the configuration file, and the permission lookups of
 * users, groups and operations. */
#ifndef QORCFG_BACKUP_H
#define QORCFG_BACKUP_H

#include "qorcfg/base.h"

QORCFG_BEGIN_DECLS

/* A row of the user table; the table ends at a row whose group is 0. */
typedef struct qorcfg_user {
    uint32_t group;   /* user group number, non-zero */
    const char *name; /* user name */
} qorcfg_user;

/* A row of the configuration or operation permission table; the table ends at a row whose id is 0.
 */
typedef struct qorcfg_perm {
    uint32_t id;      /* configuration group ID or operation ID, non-zero */
    const char *name; /* configuration or operation name */
    uint32_t perm;    /* permission value */
} qorcfg_perm;

/* Backup and restore. */

/* Writes the configuration to path as a backup file: a 128-byte header and the scrambled XML text.
   0; -7 no path, store not opened, no text, "devtype" or "version" missing, or file not writable;
   -10 backup lock not taken; or the product lookup's error. */
QORCFG_API int backup_qorcfg(const char *path);

/* Checks and unscrambles, in place, an uploaded backup file of length bytes held in buf.
   0 valid (header now in own byte order, payload plain from offset 128); -1 checksum mismatch;
   -2 product mismatch; -5 size or length field wrong; -6 no buffer; or the product lookup's error.
 */
QORCFG_API int decrypt_uploaded_qorcfg(char *buf, int length);

/* decrypt_uploaded_qorcfg, then writes the plain payload to the restored-configuration file.
   0, or the error of the check or of the file writer (-7, -10). buf stays the caller's. */
QORCFG_API int restore_qorcfg(char *buf, int length);

/* Permissions. */

/* User group number of the first user-table row named name; -1 when name is null or not found. */
QORCFG_API int getUserGroup(const char *name);

/* Permission value of the first configuration-permission row named name; 0 when null or not found.
 */
QORCFG_API uint32_t getConfigPermissionByName(const char *name);

/* Permission value of the first configuration-permission row with group ID gid; 0 when not found.
 */
QORCFG_API uint32_t getConfigPermissionByGID(uint32_t gid);

/* Permission value of the first operation-permission row named name; 0 when null or not found. */
QORCFG_API uint32_t getOperationPermissionByName(const char *name);

/* Permission value of the first operation-permission row with operation ID oid; 0 when not found.
 */
QORCFG_API uint32_t getOperationPermissionByOID(uint32_t oid);

/* Converts text in place to upper case (toupper per byte); does nothing for null. Returns 0. */
QORCFG_API int upperCase(char *text);

QORCFG_END_DECLS

#endif /* QORCFG_BACKUP_H */
