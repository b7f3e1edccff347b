#!/bin/sh
# /sbin/firewall_mod.sh - firewall modules: BWC, URLF, DMZ, RED, UPNP
# Sample device root: this script only records how it was called, one line
# "/sbin/firewall_mod.sh <arguments>" appended to <device root>/tmp/service.log, where the
# device root is the directory one level above this script's own.

root=$(CDPATH= cd -- "$(dirname -- "$0")/.." && pwd) || exit 0
mkdir -p "$root/tmp"
if [ $# -gt 0 ]; then
	printf '%s %s\n' "/sbin/firewall_mod.sh" "$*" >> "$root/tmp/service.log"
else
	printf '%s\n' "/sbin/firewall_mod.sh" >> "$root/tmp/service.log"
fi
exit 0
