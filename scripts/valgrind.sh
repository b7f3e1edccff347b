#!/usr/bin/env bash
# Runs every test program of a build under valgrind's memcheck; fails on any
# error or leak. Usage: scripts/valgrind.sh [build dir, default build/default]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/default}
status=0
for program in "$build"/tests/qorcfg_*_tests; do
    [ -x "$program" ] || continue
    log=$(mktemp "$build/valgrind-XXXXXX.log")
    if valgrind -q --leak-check=full --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
        --error-exitcode=99 --trace-children=no "$program" --gtest_brief=1 >"$log" 2>&1; then
        echo "valgrind clean: $(basename "$program")"
        rm -f "$log"
    else
        echo "valgrind FAILED: $(basename "$program") (log: $log)"
        tail -40 "$log"
        status=1
    fi
done
exit $status
