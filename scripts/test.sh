#!/usr/bin/env bash
# Builds zevd from scratch and runs every test: the release build with
# warnings as errors and the whole suite, the suite again under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the concurrency suites
# under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc)
export CTEST_OUTPUT_ON_FAILURE=1

configure_and_build() {
  local dir=$1
  shift
  rm -rf "$dir"
  cmake -S . -B "$dir" -DZEVD_WERROR=ON -DZEVD_TESTS=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

echo "== release build"
configure_and_build build -DCMAKE_BUILD_TYPE=Release -DZEVD_BENCH=ON
echo "== release suite"
(cd build && ctest -j "$jobs" --timeout 300)

echo "== address and undefined-behaviour sanitizers"
configure_and_build build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEVD_SANITIZE=address
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest -j "$jobs" -LE slow --timeout 300)

echo "== thread sanitizer, concurrency suites"
configure_and_build build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEVD_SANITIZE=thread
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest -j "$jobs" -L concurrency --timeout 600)
