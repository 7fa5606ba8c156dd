#!/usr/bin/env bash
# The main job, from a fresh Debian machine (as root): install what is needed, build and
# install the library, build the example host against the installed package, start the
# local cloud and let the host talk to it. Exit status 0 only if every step happened.
# With --web [PORT] the local cloud's browser console watches the story, and the cloud and
# the page stay up afterwards (the address is printed) until Ctrl-C.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
prefix=${ZEL_PREFIX:-/usr/local}
jobs=$(nproc)

bash tools/setup.sh
echo "== building and installing libzel-cloud into $prefix"
# The prefix is given at configure time too: zel-cloud.pc records it.
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
  -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_BENCH=OFF >/dev/null
cmake --build build/release -j"$jobs" >/dev/null
cmake --install build/release --prefix "$prefix" >/dev/null
ldconfig 2>/dev/null || true

echo "== building the example host against the installed package"
cmake -S examples/host -B build/example-host -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build build/example-host -j"$jobs" >/dev/null
# The same program through pkg-config, to prove the .pc file works too.
PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig:${PKG_CONFIG_PATH:-}" \
  sh -c 'g++ examples/host/main.cpp $(pkg-config --cflags --libs zel-cloud) -pthread -o build/example-host/zel_example_host_pkgconfig'

echo "== running the example host against the local cloud"
exec /usr/bin/python3 tools/demo.py --host-binary build/example-host/zel_example_host "$@"
