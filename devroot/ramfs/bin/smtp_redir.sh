#!/bin/sh
# /ramfs/bin/smtp_redir.sh - SMTP redirection
# Sample device root: this script only records how it was called, one line
# "/ramfs/bin/smtp_redir.sh <arguments>" appended to <device root>/tmp/service.log, where the
# device root is the directory two levels above this script's own.

root=$(CDPATH= cd -- "$(dirname -- "$0")/../.." && pwd) || exit 0
mkdir -p "$root/tmp"
if [ $# -gt 0 ]; then
	printf '%s %s\n' "/ramfs/bin/smtp_redir.sh" "$*" >> "$root/tmp/service.log"
else
	printf '%s\n' "/ramfs/bin/smtp_redir.sh" >> "$root/tmp/service.log"
fi
exit 0
