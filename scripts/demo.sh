#!/usr/bin/env bash
# The main job: builds the qorcfg tool and runs its read commands on the
# sample device root (devroot/). Lookups ask the configuration daemon first
# and, with none running, read the device's working copy (made from its
# flash copy on first use, in devroot/tmp/). Then a change from end to end
# on a copy of the root (build/demo-root): set, pending, get again.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default --target qorcfg_cli >/dev/null
root=devroot
q() {
    echo "\$ qorcfg --root $root $*"
    ./build/default/qorcfg --root "$root" "$@" || echo "(exit status $?)"
    echo
}
echo "\$ qorcfg --root devroot groups | head -n 8"
(./build/default/qorcfg --root devroot groups || true) | head -n 8
echo
q get sys_device name
q get 0x20800000 channel
q get rf1_vap1 ssid
q get-path qorconfig.wlan.rf2.vap:0 ssid
q show rf1_vap1_security
q list-children mgmt_accounts
q get sys_device nosuch

# A change, on a copy of the sample root: the working copy and the flash
# copy are written, the changed groups recorded for the next apply, and
# the daemons would be told (reported, not sent, on a copy).
root=build/demo-root
rm -rf "$root"
cp -r devroot "$root"
find "$root/tmp" -mindepth 1 ! -name .keep -exec rm -rf {} +
q get sys_device location
q validate sys_device location "Building 3, roof"
q validate sys_time interval 200
q set sys_device "location=Building 3, roof" led=blink
q set sys_device "location=Building 3, roof" led=disable
q set 0x10600000 vap_isolate=enable
echo "\$ qorcfg --root $root pending | head -n 6"
(./build/default/qorcfg --root "$root" pending || true) | head -n 6
echo
q get sys_device location
q get rf2_vap16 sta_isolate

# Applying, on a fresh copy: a radio and a service change; a dry run shows
# every command the apply would run, in order, among its messages, and the
# daemons it would tell; then the apply itself (its commands reported, not
# run, on a copy) clears the record.
root=build/demo-apply-root
rm -rf "$root"
cp -r devroot "$root"
find "$root/tmp" -mindepth 1 ! -name .keep -exec rm -rf {} +
q set rf1 txpower=High
q set snmp state=enable
q apply --dry-run
q apply
q pending
q sys-item uptime
q sys-item temperature
