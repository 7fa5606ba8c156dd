#!/usr/bin/env bash
# The main job, from a fresh Debian machine (as root): install what is needed, build and
# install the library, build the example host against the installed package, start the
# local cloud and let the host talk to it. Exit status 0 only if every step happened.
# With --web [PORT] the local cloud's browser console watches the story, and the cloud and
# the page stay up afterwards (the address is printed) until Ctrl-C.
# With --deb (as CI runs it) the library comes from its Debian packages instead
# (tools/package.sh amd64): dpkg -i, the host built and run against them, then removed
# (--purge: dpkg -r would keep the runtime package's maintainer scripts on record).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
prefix=${ZEL_PREFIX:-/usr/local}
jobs=$(nproc)
deb=false
if [ "${1:-}" = "--deb" ]; then
  deb=true
  shift
fi

bash tools/setup.sh
if $deb; then
  bash tools/package.sh amd64
  prefix=/usr
  libdir=$prefix/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
  version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' build/package-amd64/CMakeCache.txt)
  runtime=libzel-cloud${version%%.*}
  echo "== installing $runtime and libzel-cloud-dev $version"
  trap 'echo "== removing the packages"; dpkg --purge libzel-cloud-dev "$runtime" >/dev/null' EXIT
  dpkg -i build/packages/{"$runtime",libzel-cloud-dev}_"$version"-*_amd64.deb >/dev/null
  # A library a build installed by hand under /usr/local would come first: not here.
  export LD_LIBRARY_PATH=$libdir
else
  echo "== building and installing libzel-cloud into $prefix"
  cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" \
    -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_BENCH=OFF >/dev/null
  cmake --build build/release -j"$jobs" >/dev/null
  cmake --install build/release --prefix "$prefix" >/dev/null
  ldconfig 2>/dev/null || true
  libdir=$prefix/lib
fi

host_build=build/example-host$($deb && echo -deb)
echo "== building the example host against the installed package"
cmake -S examples/host -B "$host_build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$host_build" -j"$jobs" >/dev/null
# The same program through pkg-config, to prove the .pc file works too.
PKG_CONFIG_PATH="$libdir/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig:${PKG_CONFIG_PATH:-}" \
  sh -c 'g++ examples/host/main.cpp $(pkg-config --cflags --libs zel-cloud) -pthread -o "$1"' \
  - "$host_build/zel_example_host_pkgconfig"
if $deb; then
  for host in "$host_build"/zel_example_host{,_pkgconfig}; do
    # grep reads all of ldd's output: with -q, ldd could die of SIGPIPE and fail the pipe.
    ldd "$host" | grep "libzel-cloud.so.* => $libdir/" >/dev/null || {
      echo "demo: $host does not load the packaged library" >&2; exit 1; }
  done
fi

echo "== running the example host against the local cloud"
if $deb; then
  /usr/bin/python3 tools/demo.py --host-binary "$host_build/zel_example_host" "$@"
else
  exec /usr/bin/python3 tools/demo.py --host-binary "$host_build/zel_example_host" "$@"
fi
