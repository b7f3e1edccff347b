#!/bin/sh
# /ramfs/bin/getVlanbyIP.sh - VLAN of a client address: <address>
# Sample device root: this script only records how it was called, one line
# "/ramfs/bin/getVlanbyIP.sh <arguments>" appended to <device root>/tmp/service.log, where the
# device root is the directory two levels above this script's own.

root=$(CDPATH= cd -- "$(dirname -- "$0")/../.." && pwd) || exit 0
mkdir -p "$root/tmp"
if [ $# -gt 0 ]; then
	printf '%s %s\n' "/ramfs/bin/getVlanbyIP.sh" "$*" >> "$root/tmp/service.log"
else
	printf '%s\n' "/ramfs/bin/getVlanbyIP.sh" >> "$root/tmp/service.log"
fi

# The caller reads the VLAN number from <device root>/tmp/status/<address>.
case "$1" in
"" | */* | . | ..) ;;
*)
	mkdir -p "$root/tmp/status"
	echo 1 > "$root/tmp/status/$1"
	;;
esac
exit 0
