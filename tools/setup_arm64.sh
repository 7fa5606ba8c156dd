#!/usr/bin/env bash
# The arm64 half of tools/setup.sh --arm64: Debian's cross toolchain, qemu-user-static, and
# the arm64 -dev packages through multiarch, each with its amd64 twin in the same apt
# transaction so that both stand at one version. libwebsockets-dev cannot stand beside its
# amd64 twin (their lws_config.h differ), so its arm64 package is fetched with apt-get
# download and unpacked into build/arm64-sysroot, which cmake/toolchains/aarch64-linux-gnu.cmake
# searches first. Nothing is built from source. Run as root; running it again changes nothing.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
sysroot=$root/build/arm64-sysroot
export DEBIAN_FRONTEND=noninteractive

tools=(crossbuild-essential-arm64 qemu-user-static)
# twins: installed for amd64 and arm64 together
twins=(libcjson-dev libcurl4-openssl-dev libssl-dev zlib1g-dev libgtest-dev libgmock-dev libcap-dev
  libwebsockets17 pkgconf libstdc++6 libgcc-s1)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

updated=false
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  echo "setup: adding the arm64 architecture to dpkg"
  dpkg --add-architecture arm64
  apt-get update -qq
  updated=true
fi
want=()
for p in "${tools[@]}"; do installed "$p" || want+=("$p"); done
for p in "${twins[@]}"; do
  if ! installed "$p:arm64" || ! installed "$p:amd64"; then want+=("$p:amd64" "$p:arm64"); fi
done
if [ "${#want[@]}" -gt 0 ]; then
  echo "setup: installing ${want[*]}"
  $updated || apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${want[@]}" >/dev/null
else
  echo "setup: arm64 packages already installed"
fi

# libwebsockets-dev for arm64 at the version of the installed arm64 runtime library.
version=$(dpkg-query -W -f='${Version}' libwebsockets17:arm64)
stamp=$sysroot/.libwebsockets-dev_$version
if [ ! -f "$stamp" ]; then
  echo "setup: unpacking libwebsockets-dev:arm64 $version into $sysroot"
  rm -rf "$sysroot"
  mkdir -p "$sysroot"
  fetch=$(mktemp -d)
  trap 'rm -rf "$fetch"' EXIT
  (cd "$fetch" && apt-get download -qq -o APT::Sandbox::User=root "libwebsockets-dev:arm64=$version")
  dpkg-deb -x "$fetch"/libwebsockets-dev_*_arm64.deb "$sysroot"
  lib=$sysroot/usr/lib/aarch64-linux-gnu
  # Its .pc file names the sysroot, so that its headers (lws_config.h) come before the
  # machine's amd64 ones; its link points at the runtime library multiarch installed.
  sed -i "s|^prefix=.*|prefix=\"$sysroot/usr\"|" "$lib/pkgconfig/libwebsockets.pc"
  ln -sfn "/usr/lib/aarch64-linux-gnu/$(readlink "$lib/libwebsockets.so")" "$lib/libwebsockets.so"
  rm -f "$lib/libwebsockets.a"
  touch "$stamp"
fi
