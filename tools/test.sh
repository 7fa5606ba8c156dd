#!/usr/bin/env bash
# The whole test suite: installs what is needed, then runs every test under
# AddressSanitizer and UndefinedBehaviorSanitizer, and the threaded suites again under
# ThreadSanitizer.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc)
bash tools/setup.sh

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=Debug -DZEL_SANITIZE=address,undefined \
  -DZEL_BUILD_BENCH=OFF -DZEL_BUILD_SOAK=OFF >/dev/null
cmake --build build/asan -j"$jobs"
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
(cd build/asan && ctest --output-on-failure -j"$jobs" --timeout 300)

echo "== ThreadSanitizer (threaded suites)"
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=Debug -DZEL_SANITIZE=thread \
  -DZEL_BUILD_BENCH=OFF -DZEL_BUILD_SOAK=OFF -DZEL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build/tsan -j"$jobs" --target zel_link_tests zel_upload_tests zel_clips_tests zel_outbox_tests
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
(cd build/tsan && ctest --output-on-failure -j"$jobs" --timeout 600 -R '^(link|upload|clips|outbox)\.')
