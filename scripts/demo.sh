#!/usr/bin/env bash
# The main job: builds the library in the default preset and runs the
# demonstration program against this machine.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset default --target qorcfg_demo
./build/default/qorcfg_demo
