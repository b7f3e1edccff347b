/* Record layouts of the document tree and the store. P = sizeof(void *). */

/* ezxml_node: one element */
QORCFG_LAYOUT(ezxml_node, name, 0)
QORCFG_LAYOUT(ezxml_node, attr, P)
QORCFG_LAYOUT(ezxml_node, txt, 2 * P)
QORCFG_LAYOUT(ezxml_node, off, 3 * P)
QORCFG_LAYOUT(ezxml_node, next, 4 * P)
QORCFG_LAYOUT(ezxml_node, sibling, 5 * P)
QORCFG_LAYOUT(ezxml_node, ordered, 6 * P)
QORCFG_LAYOUT(ezxml_node, child, 7 * P)
QORCFG_LAYOUT(ezxml_node, parent, 8 * P)
QORCFG_LAYOUT(ezxml_node, flags, 9 * P)
QORCFG_SIZE(ezxml_node, 10 * P)

/* ezxml_root: the document element followed by the parse state */
QORCFG_LAYOUT(ezxml_root, xml, 0)
QORCFG_LAYOUT(ezxml_root, cur, 10 * P)
QORCFG_LAYOUT(ezxml_root, m, 11 * P)
QORCFG_LAYOUT(ezxml_root, len, 12 * P)
QORCFG_LAYOUT(ezxml_root, u, 13 * P)
QORCFG_LAYOUT(ezxml_root, s, 14 * P)
QORCFG_LAYOUT(ezxml_root, e, 15 * P)
QORCFG_LAYOUT(ezxml_root, ent, 16 * P)
QORCFG_LAYOUT(ezxml_root, attr, 17 * P)
QORCFG_LAYOUT(ezxml_root, pi, 18 * P)
QORCFG_LAYOUT(ezxml_root, standalone, 19 * P)
QORCFG_LAYOUT(ezxml_root, err, 19 * P + 2)
QORCFG_SIZE(ezxml_root, 20 * P + 128)

/* qorcfg_net_record: network-mode handle content, two words */
QORCFG_LAYOUT(qorcfg_net_record, tag, 0)
QORCFG_LAYOUT(qorcfg_net_record, path, P)
QORCFG_SIZE(qorcfg_net_record, 2 * P)

/* qorcfg_handle: a cell holding one pointer */
QORCFG_SIZE(qorcfg_handle, P)

/* qorcfg_item: item list node, four machine words */
QORCFG_LAYOUT(qorcfg_item, gid, 0)
QORCFG_LAYOUT(qorcfg_item, name, P)
QORCFG_LAYOUT(qorcfg_item, value, 2 * P)
QORCFG_LAYOUT(qorcfg_item, next, 3 * P)
QORCFG_SIZE(qorcfg_item, 4 * P)

/* qorcfg_attr: attribute record, four machine words */
QORCFG_LAYOUT(qorcfg_attr, name, 0)
QORCFG_LAYOUT(qorcfg_attr, value, P)
QORCFG_LAYOUT(qorcfg_attr, index, 2 * P)
QORCFG_LAYOUT(qorcfg_attr, next, 3 * P)
QORCFG_SIZE(qorcfg_attr, 4 * P)

/* qorcfg_group: group table row, four machine words */
QORCFG_LAYOUT(qorcfg_group, gid, 0)
QORCFG_LAYOUT(qorcfg_group, name, P)
QORCFG_LAYOUT(qorcfg_group, changed, 2 * P)
QORCFG_LAYOUT(qorcfg_group, path, 3 * P)
QORCFG_SIZE(qorcfg_group, 4 * P)

/* qorcfg_type_entry: row of cli_cfg_type_list */
QORCFG_LAYOUT(qorcfg_type_entry, code, 0)
QORCFG_LAYOUT(qorcfg_type_entry, name, P)
QORCFG_SIZE(qorcfg_type_entry, 2 * P)

/* qorcfg_daemon_request: 1,011 bytes sent, laid out in 1,012 */
QORCFG_LAYOUT(qorcfg_daemon_request, file, 0)
QORCFG_LAYOUT(qorcfg_daemon_request, marker, 513)
QORCFG_LAYOUT(qorcfg_daemon_request, reserved, 522)
QORCFG_LAYOUT(qorcfg_daemon_request, code, 552)
QORCFG_LAYOUT(qorcfg_daemon_request, item, 556)
QORCFG_LAYOUT(qorcfg_daemon_request, name, 621)
QORCFG_LAYOUT(qorcfg_daemon_request, path, 750)
QORCFG_LAYOUT(qorcfg_daemon_request, gid, 1007)
QORCFG_SIZE(qorcfg_daemon_request, 1012)
