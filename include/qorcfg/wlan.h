/* qorcfg/wlan.h - wireless helpers: channels and country codes, scanning, WDS links, stations,
 * radio capabilities and power, band steering and channel switch. */
#ifndef QORCFG_WLAN_H
#define QORCFG_WLAN_H

#include "qorcfg/base.h"
#include "qorcfg/store.h"

QORCFG_BEGIN_DECLS

/* Value that ends a channel list; an empty list is this value alone. */
#define QORCFG_CHAN_END 0xFFFFFFFFu

/* Mode capability bits stored by get_rf_capable_mode. */
#define QORCFG_RF_MODE_11A 1
#define QORCFG_RF_MODE_11B 2
#define QORCFG_RF_MODE_11G 4
#define QORCFG_RF_MODE_11NG 8
#define QORCFG_RF_MODE_11NA 16
#define QORCFG_RF_MODE_11AC 32

/* Allowed-channel table: channel lists of each mode group for the configured country. */
typedef struct qorcfg_chan_table {
    uint32_t country_code;  /* numeric country code as get_country_code returned it (-1 included) */
    uint32_t ch_11a[32];    /* group "a" */
    uint32_t ch_11b[32];    /* group "b" */
    uint32_t ch_11g[32];    /* group "g" */
    uint32_t ch_11ng[32];   /* group "ng" */
    uint32_t ch_11ngu[32];  /* group "ngu": 2.4 GHz HT40, secondary channel above */
    uint32_t ch_11ngl[32];  /* group "ngl": 2.4 GHz HT40, secondary channel below */
    uint32_t ch_11na[32];   /* group "na" */
    uint32_t ch_11nau[32];  /* group "nau" */
    uint32_t ch_11nal[32];  /* group "nal" */
    uint32_t spare[32];     /* never filled; always the empty list */
    uint32_t ch_11ac[32];   /* group "ac" */
    uint32_t ch_11acu[32];  /* group "acu" */
    uint32_t ch_11acl[32];  /* group "acl" */
    uint32_t ch_11ac80[32]; /* group "ac80": 80 MHz channels */
} qorcfg_chan_table;

/* AP record: one access point heard by a scan, or one WDS peer. Heap-allocated, zero-filled. */
typedef struct qorcfg_ap {
    char ssid[33];     /* network name, NUL-terminated, at most 32 characters */
    char mac[18];      /* BSSID "xx:xx:xx:xx:xx:xx" */
    char protocol[17]; /* wireless protocol text, at most 16 characters */
    int32_t channel;   /* channel number */
    int32_t max_rate;  /* highest bit rate heard, Mb/s */
    int32_t signal;    /* signal level, dBm, -95 .. 0 */
    char mode[16];     /* "AP" or "Ad-Hoc" */
    char security[32]; /* "None", "802.1x EAP", "WPA(1/2)-PSK", "WPA/WPA2", "WPA-PSK", "WPA", ...
                          "WEP" */
    struct qorcfg_ap *next; /* next record, or null */
} qorcfg_ap;

/* Scan parameters given by the caller of rf_scan_para. */
typedef struct qorcfg_scan_param {
    const char *chan_list; /* channels the scan may visit, as athchans accepts them; empty: no
                              restriction */
} qorcfg_scan_param;

/* Station record: one associated station (client or WDS peer). Heap-allocated, 128 bytes on the
 * device. */
typedef struct qorcfg_sta {
    uint32_t aid;            /* association ID (low 14 bits) */
    char mac[18];            /* "xx:xx:xx:xx:xx:xx", lower case */
    int32_t rssi;            /* RSSI plus noise floor */
    int32_t chain_rssi[3];   /* RSSI plus noise floor of each receive chain */
    double tx_rate;          /* current transmit rate, whole Mb/s */
    uint32_t stat_w62_63[2]; /* driver statistics words 62 and 63 */
    uint32_t stat_w57_58[2]; /* driver statistics words 57 and 58 */
    uint32_t stat_w60;       /* driver statistics word 60 */
    uint32_t stat_w59;       /* driver statistics word 59 */
    uint32_t reserved[2];    /* not written */
    uint32_t auth_mode;      /* authentication mode */
    uint32_t cap_word;       /* further station capability word, as the driver gives it */
    uint64_t counter_w32_33; /* driver statistics words 32 (high) and 33 (low) */
    uint64_t counter_w6_7;   /* driver statistics words 6 (high) and 7 (low) */
    uint64_t assoc_time;     /* association time */
    double inact;            /* inactivity time */
    struct qorcfg_sta *next; /* next record, or null */
} qorcfg_sta;

/* Row of the transmit-power level table. */
typedef struct qorcfg_txpwr_level {
    const char
        *label;    /* "Auto", "Highest", "High", "Medium", "Low", "Lowest"; null ends the table */
    int32_t level; /* level handed to the radio set-up script */
} qorcfg_txpwr_level;

/* Row of the 5 GHz sub-band table range_list. */
typedef struct qorcfg_range {
    int32_t value;    /* sub-band value */
    const char *text; /* channel span such as "36_48"; "" in the last row */
} qorcfg_range;

/* Channels and country codes. */

/* Numeric code of the configured country (item "country" of group 0x20800000 looked up in
   "/etc/rc.d/country_code"). >= 0; 0 when nothing is printed; -1 on failure. */
QORCFG_API int get_country_code(int unused);

/* get_allowed_ch_by_usage(table, 0). */
QORCFG_API int get_allowed_ch(qorcfg_chan_table *table);

/* Fills table from "/etc/allowed_channel" for the configured country; lists without a line stay
   empty. 0; -1 when the file cannot be opened or a line names an unknown mode group. */
QORCFG_API int get_allowed_ch_by_usage(qorcfg_chan_table *table, uint8_t unused);

/* Splits text at blanks (modifying it) into list, each token through atoi, then QORCFG_CHAN_END.
   An empty text gives the single channel 0. */
QORCFG_API void convert_ch(char *text, uint32_t *list);

/* DFS channels of the configured country into buf (32 entries): from "/etc/allowed_channel" (at
   most 31, ended by QORCFG_CHAN_END), else from the driver of radio 0, then 1 (at most 32, no end
   marker). Count; -1 on failure. */
QORCFG_API int get_DFS_ch(uint32_t *buf);

/* Scanning. Radios are numbered from 1. */

/* Scans with radio: a repeater radio fresh through its station interface, security simplified to
   "WPA", "WEP" or "None"; otherwise through its first AP interface. List or null; free_ap_list. */
QORCFG_API qorcfg_ap *ap_scan(int radio);

/* rf_scan_para(radio, fresh, unused, null). */
QORCFG_API qorcfg_ap *rf_scan(int radio, int fresh, int unused);

/* Scans on "ath<radio-1>sta0": fresh nonzero starts a new scan (channels restricted per param when
   given), else reads the last results. List, last heard first, or null; free with free_ap_list. */
QORCFG_API qorcfg_ap *rf_scan_para(int radio, int fresh, int unused,
                                   const qorcfg_scan_param *param);

/* Starts a background scan on the radio's first enabled VAP and creates its "/tmp/scan_flag_<if>".
   The result carries no meaning. */
QORCFG_API int rf_bgscan(int radio);

/* 1 when the scan flag file of the radio's first enabled VAP exists, else 0. */
QORCFG_API int get_bgscan_status(int radio);

/* 1 when "/tmp/scan_flag_ath<radio-1>sta0" exists, else 0; prints two trace lines on standard
 * output. */
QORCFG_API int get_fgscan_status(int radio);

/* Neighbouring APs reported by "iwlist <if> ap" on the radio's first enabled VAP.
   List or null; free with free_ap_list. */
QORCFG_API qorcfg_ap *get_neighbor_ap_list(int radio);

/* Writes "ath<radio-1>ap<vap-1>" of the radio's first enabled VAP into ifname.
   1 found; 0 none, or the radio is not enabled. */
QORCFG_API int find_enabled_vap(int radio, char *ifname);

/* Prints each record of list, numbered from 1. */
QORCFG_API void print_aps(const qorcfg_ap *list);

/* Frees every record of list (null allowed). Returns 0. */
QORCFG_API int free_ap_list(qorcfg_ap *list);

/* WDS links. Radios and links are numbered from 0. */

/* Runs a WDS peer scan with "/bin/wdsds" on radio and reads "/tmp/wdsds<radio>" into a list (ssid,
   upper-case mac, channel, max_rate, signal), or null. Caller frees with free_ap_list. */
QORCFG_API qorcfg_ap *wdsd_scan(int radio, const char *ssid, int channel, int mode);

/* Stops the radio, adds the link to peer mac with "/bin/wdsds", restarts the radio, bridge and WAN.
   Returns the status of the add command. */
QORCFG_API int wdsd_connect(int radio, const char *ssid, const char *mac, int channel, int mode);

/* Connected WDS peers from "/tmp/wdsdm<radio>" (mac and signal; skip records with an empty mac).
   List or null; caller frees with free_ap_list. */
QORCFG_API qorcfg_ap *wdsd_connected(int radio);

/* Writes attribute selector (0 state, 1 rate, 2 quality, 3 health, 4 sent, 5 failed) of WDS link of
   radio into out; a null handle reads the current configuration. 1 filled; 0 not. */
QORCFG_API int getWDSLinkAttr(qorcfg_handle *handle, int radio, int link, int selector, char *out);

/* Stations. */

/* Stations associated with interface ifname, newest first; null without a name, on socket or driver
   failure, or for a short table. Caller frees with free_sta_list. */
QORCFG_API qorcfg_sta *ath_get_sta_info(const char *ifname);

/* Statistics-derived fields and rssi of the station with MAC text "xx:xx:xx:xx:xx:xx" on ifname.
   One record (free with free_sta_list), or null. */
QORCFG_API qorcfg_sta *ath_get_sta_info_bymac(const char *ifname, const char *mac);

/* Fills the statistics fields and chain_rssi of sta for the 6-byte mac on ifname; rssi as well when
   whole_signal is nonzero. 1; 0 on failure. */
QORCFG_API int ath_get_sta_stat(const char *ifname, const uint8_t *mac, qorcfg_sta *sta,
                                int whole_signal);

/* Same as ath_get_sta_info. */
QORCFG_API qorcfg_sta *get_sta_list(const char *ifname);

/* Same as ath_get_sta_info (WDS peers are listed like stations). */
QORCFG_API qorcfg_sta *get_wds_list(const char *ifname);

/* Same as ath_get_sta_info_bymac. */
QORCFG_API qorcfg_sta *get_sta_list_bymac(const char *ifname, const char *mac);

/* Frees every record of list (null allowed). */
QORCFG_API void free_sta_list(qorcfg_sta *list);

/* Same as free_sta_list. */
QORCFG_API void free_wds_list(qorcfg_sta *list);

/* Number of records in list; 0 for null. */
QORCFG_API int sta_list_count(const qorcfg_sta *list);

/* Same as sta_list_count. */
QORCFG_API int wds_list_count(const qorcfg_sta *list);

/* Radio capabilities and power. */

/* The transmit-power level table ("Auto" 0, "Highest" 17, "High" 13, "Medium" 9, "Low" 5, "Lowest"
   1, then a null label). Static data; not to be freed. */
QORCFG_API const qorcfg_txpwr_level *get_txpwr_level(void);

/* Number of selectable power steps of radio (from 1): driver maximum / 2 - lowest level (3, or 5
   with chain mask >= 4) + 1, or 25 outside that range or when the tool cannot be run. */
QORCFG_API int get_max_txpwr_level(int radio);

/* Transmit chain mask of radio (from 1); 3 when the tool cannot be run. */
QORCFG_API int get_txchainmask(int radio);

/* LDPC setting of interface ifname; 0 if unknown. */
QORCFG_API int get_iface_ldpc(const char *ifname);

/* Short guard interval setting of interface ifname at 20 MHz; 0 if unknown. */
QORCFG_API int get_shortgi_20(const char *ifname);

/* Short guard interval setting of interface ifname at 40 MHz; 0 if unknown. */
QORCFG_API int get_shortgi_40(const char *ifname);

/* 1 when radio (from 0) supports 802.11ac, else 0. */
QORCFG_API int get_rf_modeCaps11ac(int radio);

/* Stores the QORCFG_RF_MODE_* bits that radio (from 1) supports in *caps.
   0; -1 when the tool cannot be run. */
QORCFG_API int get_rf_capable_mode(int radio, uint32_t *caps);

/* Runs "/etc/rc.d/rc.wlan setup_txpow <radio-1> <power>" for radio (from 1). Returns 0. */
QORCFG_API int set_txpwr(const char *power, int radio);

/* 1 when radio (from 0) is an offload radio, 0 not or unsupported, -1 failure;
   the answer is cached in "/tmp/isoffload_rf<radio>". */
QORCFG_API int rf_is_offload(int radio);

/* Same as rf_is_offload. */
QORCFG_API int rf_is_inic(int radio);

/* Spectral chip version of radio (from 0), cached in "/tmp/spectral_chip_ver_rf<radio>";
   0 unsupported; -1 failure. */
QORCFG_API int get_spectral_chip_version(int radio);

/* Client limit shown by the web interface for radio (from 0): 128 for an offload radio, else 256.
 */
QORCFG_API int get_rf_web_max_cli(int radio);

/* Interface of radio (from 0) with which the station of the 6-byte mac is associated, into ifname.
   0; -1 otherwise (ifname "N/A" when not null). */
QORCFG_API int get_rf_iface_by_mac(int radio, const uint8_t *mac, char *ifname);

/* Index of the first of range_list's first five rows whose value equals value; -1 if none or value
 * >= 6. */
QORCFG_API int get_ss_range_idx(int value);

/* Copies the text of value's range_list row into buf, or makes buf empty; returns buf. */
QORCFG_API char *get_ss_range_str(int value, char *buf);

/* Index of the first of range_list's first five rows whose text equals text; -1 if none. */
QORCFG_API int get_ss_range_by_str(const char *text);

/* 5 GHz sub-bands: {0, "36_48"}, {1, "52_64"}, {2, "100_116"}, {3, "120_140"}, {4, "149_161"}, {5,
 * ""}. */
QORCFG_API extern const qorcfg_range range_list[];

/* Band steering and channel switch. */

/* Appends to list the "band_steer" settings VAPs of the 2.4 and 5 GHz radios need; steer is the
   global switch, radio/vap the changed VAP (-1 none), ssid/state its new values (may be null).
   Returns the extended list (caller frees with free_item_list). */
QORCFG_API qorcfg_item *check_vap_band_steering(qorcfg_handle *handle, const char *steer,
                                                qorcfg_item *list, int radio, int vap,
                                                const char *ssid, const char *state);

/* Announces on the first AP interface of radio (from 1) a switch to channel after count beacons.
   Returns channel; 0 when no AP interface is up. */
QORCFG_API int set_channel_switch(int channel, int count, int radio);

/* Item list setting "sta_isolate" to "enable" for all 32 VAPs; null when no configuration handle
   can be opened. Caller frees with free_item_list. */
QORCFG_API qorcfg_item *set_vap_isolate_related(void);

QORCFG_END_DECLS

#endif /* QORCFG_WLAN_H */
