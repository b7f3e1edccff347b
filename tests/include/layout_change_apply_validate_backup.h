/* Field offsets and sizes of the records of the change, apply, validation and backup interfaces.
   P is sizeof(void *); the including file defines QORCFG_LAYOUT and QORCFG_SIZE. */

/* system-item table row: name, first argument, getter, third argument */
QORCFG_LAYOUT(qorcfg_sys_item, name, 0)
QORCFG_LAYOUT(qorcfg_sys_item, arg, P)
QORCFG_LAYOUT(qorcfg_sys_item, getter, 2 * P)
QORCFG_LAYOUT(qorcfg_sys_item, extra, 3 * P)
QORCFG_SIZE(qorcfg_sys_item, 4 * P)

/* user table row: user group number, user name */
QORCFG_LAYOUT(qorcfg_user, group, 0)
QORCFG_LAYOUT(qorcfg_user, name, P)
QORCFG_SIZE(qorcfg_user, 2 * P)

/* configuration and operation permission table row: ID, name, permission value */
QORCFG_LAYOUT(qorcfg_perm, id, 0)
QORCFG_LAYOUT(qorcfg_perm, name, P)
QORCFG_LAYOUT(qorcfg_perm, perm, 2 * P)
QORCFG_SIZE(qorcfg_perm, 3 * P)
