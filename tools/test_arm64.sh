#!/usr/bin/env bash
# The suites built for arm64 and run under qemu-user on this x86-64 machine, against the
# local cloud's peers running natively (tools/cloud, Azurite, Chromium). Sanitizers stay on
# the native build (tools/test.sh). Installs what it needs (tools/setup.sh --arm64).
# Arguments go to ctest (for example -R '^upload\.').
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=${ZEL_JOBS:-2}
bash tools/setup.sh --arm64
echo "== arm64: building the suites (cross)"
cmake -S . -B build/arm64 -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/aarch64-linux-gnu.cmake" \
  -DCMAKE_BUILD_TYPE=Release -DZEL_BUILD_BENCH=OFF -DZEL_BUILD_SOAK=OFF >/dev/null
cmake --build build/arm64 -j"$jobs"
echo "== arm64: the suites under qemu-user"
# Emulation runs several times slower than the machine, while the suites' time-outs are the
# native ones: a test that fails runs once more, and fails the run only if it fails again.
(cd build/arm64 && ctest --output-on-failure -j"$jobs" --timeout 600 --repeat until-pass:2 "$@")
