/* Layout of the records of qorcfg/sys.h and qorcfg/wlan.h. P is sizeof(void *); the numbers hold on
   64-bit x86 and on 32-bit big-endian MIPS (o32, where double and uint64_t are 8-byte aligned). The
   including file defines QORCFG_LAYOUT(type, field, offset) and QORCFG_SIZE(type, size). */

/* Product table row: 32-bit ID (also readable as two 16-bit halves), codename, model name. */
QORCFG_LAYOUT(qorcfg_product, id, 0)
QORCFG_LAYOUT(qorcfg_product, codename, 4)
QORCFG_LAYOUT(qorcfg_product, model, 12)
QORCFG_SIZE(qorcfg_product, 20)

/* Time-zone table row: zone name and label. */
QORCFG_LAYOUT(qorcfg_zone, name, 0)
QORCFG_LAYOUT(qorcfg_zone, label, P)
QORCFG_SIZE(qorcfg_zone, 2 * P)

/* Allowed-channel table: country code, then 14 channel lists of 32 u32. */
QORCFG_LAYOUT(qorcfg_chan_table, country_code, 0)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11a, 4 + 0 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11b, 4 + 1 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11g, 4 + 2 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11ng, 4 + 3 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11ngu, 4 + 4 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11ngl, 4 + 5 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11na, 4 + 6 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11nau, 4 + 7 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11nal, 4 + 8 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, spare, 4 + 9 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11ac, 4 + 10 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11acu, 4 + 11 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11acl, 4 + 12 * 128)
QORCFG_LAYOUT(qorcfg_chan_table, ch_11ac80, 4 + 13 * 128)
QORCFG_SIZE(qorcfg_chan_table, 4 + 14 * 128)

/* AP record: 132 bytes on the device. */
QORCFG_LAYOUT(qorcfg_ap, ssid, 0)
QORCFG_LAYOUT(qorcfg_ap, mac, 33)
QORCFG_LAYOUT(qorcfg_ap, protocol, 51)
QORCFG_LAYOUT(qorcfg_ap, channel, 68)
QORCFG_LAYOUT(qorcfg_ap, max_rate, 72)
QORCFG_LAYOUT(qorcfg_ap, signal, 76)
QORCFG_LAYOUT(qorcfg_ap, mode, 80)
QORCFG_LAYOUT(qorcfg_ap, security, 96)
QORCFG_LAYOUT(qorcfg_ap, next, 128)
QORCFG_SIZE(qorcfg_ap, 128 + P)

/* Scan parameter record: the channel-list text. */
QORCFG_LAYOUT(qorcfg_scan_param, chan_list, 0)
QORCFG_SIZE(qorcfg_scan_param, P)

/* Station record: 128 bytes on the device and on 64-bit hosts. */
QORCFG_LAYOUT(qorcfg_sta, aid, 0)
QORCFG_LAYOUT(qorcfg_sta, mac, 4)
QORCFG_LAYOUT(qorcfg_sta, rssi, 24)
QORCFG_LAYOUT(qorcfg_sta, chain_rssi, 28)
QORCFG_LAYOUT(qorcfg_sta, tx_rate, 40)
QORCFG_LAYOUT(qorcfg_sta, stat_w62_63, 48)
QORCFG_LAYOUT(qorcfg_sta, stat_w57_58, 56)
QORCFG_LAYOUT(qorcfg_sta, stat_w60, 64)
QORCFG_LAYOUT(qorcfg_sta, stat_w59, 68)
QORCFG_LAYOUT(qorcfg_sta, reserved, 72)
QORCFG_LAYOUT(qorcfg_sta, auth_mode, 80)
QORCFG_LAYOUT(qorcfg_sta, cap_word, 84)
QORCFG_LAYOUT(qorcfg_sta, counter_w32_33, 88)
QORCFG_LAYOUT(qorcfg_sta, counter_w6_7, 96)
QORCFG_LAYOUT(qorcfg_sta, assoc_time, 104)
QORCFG_LAYOUT(qorcfg_sta, inact, 112)
QORCFG_LAYOUT(qorcfg_sta, next, 120)
QORCFG_SIZE(qorcfg_sta, 128)

/* Transmit-power level row: label and level. */
QORCFG_LAYOUT(qorcfg_txpwr_level, label, 0)
QORCFG_LAYOUT(qorcfg_txpwr_level, level, P)
QORCFG_SIZE(qorcfg_txpwr_level, 2 * P)

/* 5 GHz sub-band row: value and text. */
QORCFG_LAYOUT(qorcfg_range, value, 0)
QORCFG_LAYOUT(qorcfg_range, text, P)
QORCFG_SIZE(qorcfg_range, 2 * P)
