#!/usr/bin/env bash
# Line coverage of the library by the test suite: builds the `coverage`
# preset, runs its tests and prints gcovr's summary for the library's
# sources (every subsystem folder and os/; not the daemon, the tools, the
# stand-in platform library or the tests themselves).
#   scripts/coverage.sh [--html DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
command -v gcovr >/dev/null || { echo "coverage: gcovr is missing (Debian package gcovr; scripts/check.sh installs it)" >&2; exit 2; }
cmake --preset coverage >/dev/null
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
ctest --preset coverage >/dev/null
filters=()
for dir in xml store change apply validate backup sys wlan os; do
    filters+=(-f "$dir/")
done
extra=()
if [ "${1:-}" = "--html" ] && [ -n "${2:-}" ]; then
    mkdir -p "$2"
    extra=(--html-details "$2/index.html")
fi
# gcc 12's gcov writes "taken -1" for some branches, which gcovr 5.2 cannot read.
gcovr -r . build/coverage "${filters[@]}" --gcov-ignore-parse-errors --print-summary "${extra[@]}" |
    tail -n 3
