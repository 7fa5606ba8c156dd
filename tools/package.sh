#!/usr/bin/env bash
# Builds the Debian packages libzel-cloud<major> and libzel-cloud-dev into build/packages/:
#   bash tools/package.sh [amd64|arm64]     (amd64 by default; arm64 needs tools/setup.sh --arm64)
# A Release build with Debian's hardening flags, installed under /usr with the multiarch
# library directory; the runtime package's Depends come from dpkg-shlibdeps. lintian checks
# both packages when it is installed (an error fails the build; warnings are printed).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
arch=${1:-amd64}
case "$arch" in
  amd64) toolchain=() ;;
  arm64) toolchain=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/aarch64-linux-gnu.cmake") ;;
  *) echo "usage: tools/package.sh [amd64|arm64]" >&2; exit 2 ;;
esac
build=build/package-$arch
out=build/packages
jobs=${ZEL_JOBS:-2}

# dpkg-buildflags and dpkg-shlibdeps answer for the architecture the packages are for.
export DEB_HOST_ARCH=$arch
# Without -g: CPack strips the library, so the packages would ship no debugging symbols anyway.
flags() { dpkg-buildflags --get "$1" | sed -E 's/(^| )-g( |$)/ /'; }
echo "== configuring the $arch build"
# The multiarch library directory by name: GNUInstallDirs leaves it out when cross-compiling.
cmake -S . -B "$build" "${toolchain[@]}" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DCMAKE_INSTALL_LIBDIR="lib/$(dpkg-architecture -a "$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)" \
  -DCPACK_DEBIAN_PACKAGE_ARCHITECTURE="$arch" \
  -DCMAKE_C_FLAGS="$(flags CPPFLAGS) $(flags CFLAGS)" \
  -DCMAKE_CXX_FLAGS="$(flags CPPFLAGS) $(flags CXXFLAGS)" \
  -DCMAKE_SHARED_LINKER_FLAGS="$(flags LDFLAGS)" \
  -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_BENCH=OFF -DZEL_BUILD_SOAK=OFF >/dev/null
echo "== building"
cmake --build "$build" -j"$jobs" --target zel-cloud >/dev/null
echo "== packaging"
mkdir -p "$out"
rm -rf "$build/packages"
(cd "$build" && cpack -G DEB >/dev/null)
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
debs=()
for deb in "$build"/packages/*_"$version"-*_"$arch".deb; do
  cp "$deb" "$out/"
  debs+=("$out/$(basename "$deb")")
done
[ "${#debs[@]}" -eq 2 ] || { echo "package: expected 2 packages, got ${#debs[@]}" >&2; exit 1; }
for deb in "${debs[@]}"; do
  echo "$deb: $(dpkg-deb -f "$deb" Depends)"
done
if command -v lintian >/dev/null; then
  echo "== lintian"
  # Warnings are printed; an error (lintian's default --fail-on) fails the build.
  lintian --tag-display-limit 0 "${debs[@]}" || {
    echo "package: lintian found errors" >&2; exit 1; }
fi
