#!/usr/bin/env bash
# What the library costs a recorder, as a Markdown table: the stripped library and the
# packages (tools/package.sh), resident memory and threads of a connected idle host and while
# 1 and 4 upload threads upload 256,000,000-byte clips, and heap bytes per queued event and
# per queued clip (malloc's count over 10,000 of each, queued while the link is down).
#   bash tools/footprint.sh [amd64] [arm64]     (both by default; arm64 needs setup.sh --arm64)
# amd64 runs natively. arm64 runs under qemu-user, so its resident size and threads would be
# the emulator's: only the sizes and the heap figures are given for it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
arches=("$@")
[ "${#arches[@]}" -gt 0 ] || arches=(amd64 arm64)
jobs=${ZEL_JOBS:-2}
bash tools/setup.sh >/dev/null

declare -A row
kb() { awk -v b="$1" 'BEGIN { printf "%.0f KB", b / 1024 }'; }
mb() { awk -v k="$1" 'BEGIN { printf "%.1f MB", k / 1024 }'; }
field() { python3 -c 'import json,sys; d=json.loads(sys.argv[1]); print(eval(sys.argv[2], {}, d))' "$1" "$2"; }

for arch in "${arches[@]}"; do
  echo "== $arch" >&2
  bash tools/package.sh "$arch" >/dev/null
  version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "build/package-$arch/CMakeCache.txt")
  runtime=build/packages/libzel-cloud${version%%.*}_${version}-1_$arch.deb
  dev=build/packages/libzel-cloud-dev_${version}-1_$arch.deb
  # Installed sizes are the files' own: CPack's Installed-Size counts the soname link as a
  # second copy of the library.
  unpacked() {
    local scratch
    scratch=$(mktemp -d)
    dpkg-deb -x "$1" "$scratch"
    find "$scratch" -type f -printf '%s\n' | awk '{ s += $1 } END { printf "%.0f KB", s / 1024 }'
    rm -rf "$scratch"
  }
  scratch=$(mktemp -d)
  dpkg-deb -x "$runtime" "$scratch"
  row[$arch.so]=$(kb "$(stat -c %s "$(find "$scratch" -name "libzel-cloud.so.*.*" -type f)")")
  rm -rf "$scratch"
  row[$arch.runtime]="$(kb "$(stat -c %s "$runtime")") ($(unpacked "$runtime") installed)"
  row[$arch.dev]="$(kb "$(stat -c %s "$dev")") ($(unpacked "$dev") installed)"

  build=build/footprint-$arch
  args=()
  measure=()
  if [ "$arch" = arm64 ]; then
    args=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/aarch64-linux-gnu.cmake")
    measure=(--emulator qemu-aarch64-static --offline-only)
  fi
  cmake -S . -B "$build" "${args[@]}" -DCMAKE_BUILD_TYPE=Release -DZEL_BUILD_TESTS=OFF \
    -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_BENCH=OFF -DZEL_BUILD_SOAK=ON >/dev/null
  cmake --build "$build" -j"$jobs" --target zel_footprint_host >/dev/null
  json=$(/usr/bin/python3 tools/footprint.py --host-binary "$build/tools/zel_footprint_host" "${measure[@]}")
  echo "$json" >&2
  row[$arch.event]="$(field "$json" 'round(per_event["per_event"])') B"
  row[$arch.clip]="$(field "$json" 'round(per_clip["per_clip"])') B"
  if [ "$arch" = amd64 ]; then
    row[$arch.idle]=$(mb "$(field "$json" 'idle["rss_kb"]')")
    row[$arch.up1]=$(mb "$(field "$json" 'upload_1["peak_rss_kb"]')")
    row[$arch.up4]=$(mb "$(field "$json" 'upload_4["peak_rss_kb"]')")
    row[$arch.threads]="$(field "$json" 'idle["threads"]') idle, $(field "$json" 'upload_1["peak_threads"]') / $(field "$json" 'upload_4["peak_threads"]') uploading"
  fi
done

cell() { echo "${row[$1]:-n/a (emulated)}"; }
printf '| libzel-cloud %s | %s |\n|---|%s\n' "$version" "$(printf '%s | ' "${arches[@]}" | sed 's/ | $//')" \
  "$(printf -- '---|%.0s' "${arches[@]}")"
line() {
  local label=$1 key=$2 out="| $1 |"
  for arch in "${arches[@]}"; do out+=" $(cell "$arch.$key") |"; done
  echo "$out"
}
line "stripped libzel-cloud.so" so
line "runtime package (.deb)" runtime
line "-dev package (.deb)" dev
line "resident, connected and idle" idle
line "resident, 1 upload thread, 256 MB clip" up1
line "resident, 4 upload threads, 256 MB clips" up4
line "threads (host's main thread included)" threads
line "heap per queued motion event" event
line "heap per queued clip" clip
