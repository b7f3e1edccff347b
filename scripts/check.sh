#!/usr/bin/env bash
# The project's test command: installs the Debian packages the tests need
# when they are missing, then configures, builds and tests each preset
# (default, clang, asan, mips and fuzz unless presets are named on the
# command line). The fuzz preset runs each fuzzer briefly under ASan.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake ninja-build g++ clang clang-format googletest libgtest-dev libgmock-dev
          libbenchmark-dev libclang-rt-14-dev valgrind procps gcovr pkg-config
          libpugixml-dev libexpat1-dev libxml2-dev
          g++-mips-linux-gnu libc6-dev-mips-cross qemu-user)
missing=()
for pkg in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
done
if ((${#missing[@]})); then
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    echo "Installing: ${missing[*]}"
    $sudo apt-get update -q
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

presets=("$@")
((${#presets[@]})) || presets=(default clang asan mips fuzz)
for preset in "${presets[@]}"; do
    echo "=== preset ${preset}"
    cmake --preset "$preset"
    cmake --build --preset "$preset"
    ctest --preset "$preset"
    if [ "$preset" = default ]; then
        scripts/valgrind.sh build/default
    fi
done
