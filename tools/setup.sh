#!/usr/bin/env bash
# Installs everything the library, its tests and the local cloud need on a fresh
# Debian machine. Run as root; running it again changes nothing.
# With --arm64 it also installs what the arm64 build needs (tools/package.sh arm64, the suites
# under qemu-user): Debian's cross toolchain, qemu-user-static and the arm64 libraries.
set -euo pipefail
arm64=false
[ "${1:-}" = "--arm64" ] && arm64=true

packages=(
  cmake g++ make pkg-config
  libwebsockets-dev libcjson-dev libcurl4-openssl-dev libssl-dev zlib1g-dev
  libgtest-dev libgmock-dev
  clang libclang-rt-14-dev
  python3-websockets openssl ca-certificates tinyproxy
  # the local cloud's browser console, its real test clip and the browser that tests it
  python3-aiohttp ffmpeg fonts-dejavu-core chromium chromium-driver python3-selenium
  # the fleet's plot (tools/fleet.py --plot)
  python3-matplotlib
  # the Debian packages (tools/package.sh): dpkg-shlibdeps, CPack's file(1), their check
  dpkg-dev file lintian
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ "${#missing[@]}" -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
else
  echo "setup: Debian packages already installed"
fi

if $arm64; then
  bash "$(dirname "$0")/setup_arm64.sh"
fi

# A proxy resolves the blob host with the system resolver, which knows no *.localhost
# names (libcurl resolves those itself): give it the emulator's documented entry.
blob_host=devstoreaccount1.blob.localhost
if ! getent hosts "$blob_host" >/dev/null 2>&1; then
  echo "setup: adding $blob_host to /etc/hosts"
  echo "127.0.0.1 $blob_host" >>/etc/hosts
fi

# Azurite (blob storage emulator) comes from npm, pinned by tools/cloud/package-lock.json.
here=$(cd "$(dirname "$0")" && pwd)
if [ -f "$here/cloud/package-lock.json" ]; then
  if ! command -v npm >/dev/null 2>&1; then
    echo "setup: npm (Node.js 20) is required for the blob storage emulator" >&2
    exit 1
  fi
  if [ ! -x "$here/cloud/node_modules/.bin/azurite-blob" ]; then
    echo "setup: installing the blob storage emulator with npm ci"
    (cd "$here/cloud" && npm ci --no-audit --no-fund --loglevel=error)
  fi
fi

# The example recorder's clip: a few seconds of real video the browser console can play back,
# made once.
bash "$here/cloud/make_clip.sh" "$here/cloud/state/recording.mp4"
