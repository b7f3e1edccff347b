#!/usr/bin/env bash
# The main job: builds the qorcfg tool and runs its read commands on the
# sample device root (devroot/). Lookups ask the configuration daemon first
# and, with none running, read the device's working copy (made from its
# flash copy on first use, in devroot/tmp/).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default --target qorcfg_cli >/dev/null
q() {
    echo "\$ qorcfg --root devroot $*"
    ./build/default/qorcfg --root devroot "$@" || echo "(exit status $?)"
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
