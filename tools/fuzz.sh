#!/usr/bin/env bash
# Builds the libFuzzer targets with clang under AddressSanitizer + UndefinedBehaviorSanitizer
# and runs them one after another (never in parallel) on a copy of the seed corpus.
#
#   bash tools/fuzz.sh [SECONDS]           each target for SECONDS (default 60); what CI runs
#   bash tools/fuzz.sh --long [RUNS]       each target for RUNS executions (default 10000000),
#                                          no time limit: the long run, by hand
#   ... --target NAME                      only fuzz_inbound, fuzz_handlers, fuzz_items or fuzz_journal
#   ... --keep                             keep the run folder (grown corpus, logs) afterwards
#
# Needs clang and libclang-rt-14-dev (bash tools/setup.sh installs them). Builds in
# build/fuzz. Each run gets a temporary folder under /tmp with a copy of the target's seed
# corpus, so tools/fuzz/corpus is never written. Every target runs with -timeout=1
# -rss_limit_mb=2048; a crash, leak, time-out, memory blow-up, sanitizer report or broken
# invariant fails the script (exit 1), after copying the input that caused it to
# build/fuzz/findings/<target>/. Reproduce one with (the unwind option gives full leak
# stacks through the uninstrumented JSON library):
#   ASAN_OPTIONS=fast_unwind_on_malloc=0 build/fuzz/tools/fuzz/<target> build/fuzz/findings/<target>/<file>
# A finding that is fixed becomes a regression: copy it to tools/fuzz/corpus/<target>/
# under a name starting with "regress-", and add it as a row of the unit test that covers
# the code it broke (tests/foundation/foundation_test.cpp holds the JSON helper rows).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
targets=(fuzz_inbound fuzz_handlers fuzz_items fuzz_journal)
seconds=60
runs=""
keep=0
only=""

while [ $# -gt 0 ]; do
  case "$1" in
    --long)
      runs=10000000
      if [ $# -gt 1 ] && [[ "$2" =~ ^[0-9]+$ ]]; then runs=$2; shift; fi
      ;;
    --target)
      [ $# -gt 1 ] || { echo "fuzz: --target needs a name" >&2; exit 2; }
      only=$2
      shift
      ;;
    --keep) keep=1 ;;
    -h|--help) sed -n '2,/^[^#]/{/^#/p}' "$0"; exit 0 ;;
    *)
      if [[ "$1" =~ ^[0-9]+$ ]]; then seconds=$1; else
        echo "fuzz: unknown argument '$1' (see --help)" >&2
        exit 2
      fi
      ;;
  esac
  shift
done
if [ -n "$only" ]; then
  case " ${targets[*]} " in
    *" $only "*) targets=("$only") ;;
    *) echo "fuzz: unknown target '$only'" >&2; exit 2 ;;
  esac
fi

for tool in clang clang++ cmake; do
  command -v "$tool" >/dev/null 2>&1 || {
    echo "fuzz: $tool not found; run: bash tools/setup.sh" >&2
    exit 2
  }
done
if ! clang++ -print-file-name=libclang_rt.fuzzer-x86_64.a | grep -q /; then
  echo "fuzz: the libFuzzer runtime is missing; run: bash tools/setup.sh" >&2
  exit 2
fi

build="$root/build/fuzz"
jobs=$(nproc)
echo "== building the fuzz targets in $build"
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZEL_BUILD_FUZZERS=ON -DZEL_SANITIZE=address,undefined \
  -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_EXAMPLES=OFF -DZEL_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target fuzzers

# Any sanitizer report ends the run (UBSan would otherwise print and carry on).
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:symbolize=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="halt_on_error=1:abort_on_error=1:print_stacktrace=1:${UBSAN_OPTIONS:-}"
unset ZEL_DEBUG  # the library's log stays silent; a finding shows in libFuzzer's output
# Readable stacks need llvm-symbolizer; clang's own copy will do when none is on PATH.
if [ -z "${ASAN_SYMBOLIZER_PATH:-}" ] && ! command -v llvm-symbolizer >/dev/null 2>&1; then
  llvm_bin=$(dirname "$(readlink -f "$(command -v clang)")")
  if [ -x "$llvm_bin/llvm-symbolizer" ]; then
    export ASAN_SYMBOLIZER_PATH="$llvm_bin/llvm-symbolizer"
  else
    echo "fuzz: no llvm-symbolizer: stacks in reports will show addresses only" >&2
  fi
fi

work=$(mktemp -d /tmp/zel-fuzz-run.XXXXXX)
cleanup() {
  if [ "$keep" = 1 ]; then echo "fuzz: run folder kept: $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT

failed=()
for t in "${targets[@]}"; do
  mkdir -p "$work/$t/artifacts" "$work/$t/tmp"
  cp -R "$root/tools/fuzz/corpus/$t" "$work/$t/corpus"
  extra=()
  [ -f "$root/tools/fuzz/zel.dict" ] && extra=(-dict="$root/tools/fuzz/zel.dict")
  limit=(-max_total_time="$seconds")
  what="$seconds s"
  if [ -n "$runs" ]; then limit=(-runs="$runs"); what="$runs runs"; fi
  echo "== $t ($what)"
  set +e
  # -close_fd_mask=1: the library prints parse warnings on standard output; libFuzzer
  # and the sanitizers report on standard error.
  ZEL_FUZZ_TMP="$work/$t/tmp" "$build/tools/fuzz/$t" "$work/$t/corpus" "${limit[@]}" -timeout=1 -rss_limit_mb=2048 \
    "${extra[@]}" -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$work/$t/artifacts/" \
    >"$work/$t/log" 2>&1
  rc=$?
  set -e
  # A report that did not stop the process still counts.
  if grep -qE "runtime error:|ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|FUZZ_CHECK failed" \
    "$work/$t/log"; then
    [ "$rc" = 0 ] && rc=1
  fi
  grep -E "^stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb|new_units_added)" \
    "$work/$t/log" | sed 's/^/   /' || true
  grep -E "^Done [0-9]+ runs" "$work/$t/log" | tail -1 | sed "s/^/   /" || true
  if [ "$rc" != 0 ]; then
    failed+=("$t")
    echo "!! $t failed (exit $rc); the end of its log:"
    tail -n 60 "$work/$t/log"
    if compgen -G "$work/$t/artifacts/*" >/dev/null; then
      mkdir -p "$build/findings/$t"
      cp "$work/$t/artifacts/"* "$build/findings/$t/"
      echo "!! inputs saved in $build/findings/$t/:"
      ls "$build/findings/$t" | sed 's/^/   /'
    fi
  fi
done

if [ "${#failed[@]}" -gt 0 ]; then
  echo "fuzz: FAILED: ${failed[*]}"
  exit 1
fi
echo "fuzz: all targets clean"
