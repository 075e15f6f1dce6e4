#!/usr/bin/env bash
# Builds zevd from scratch and runs every test: the release build with
# warnings as errors and the whole suite, the Debian packages (built without
# their tests, checked with lintian), the end-to-end and client suites
# of that build under valgrind's memcheck, the suite again under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the concurrency suites
# under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc)
export CTEST_OUTPUT_ON_FAILURE=1

started=$SECONDS
phase() { echo "== $* ($((SECONDS - started)) s so far)"; }

# configure_and_build DIR TARGET CMAKE_ARGS...
configure_and_build() {
  local dir=$1 target=$2
  shift 2
  rm -rf "$dir"
  cmake -S . -B "$dir" -DZEVD_WERROR=ON -DZEVD_TESTS=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs" --target "$target"
}

# The sanitizer builds optimise lightly: they build in half the time and
# still report with line numbers.
sanitizer_flags=(-DCMAKE_BUILD_TYPE=None "-DCMAKE_C_FLAGS=-O1 -g1" "-DCMAKE_CXX_FLAGS=-O1 -g1")

phase "release build"
configure_and_build build all -DCMAKE_BUILD_TYPE=Release -DZEVD_BENCH=ON
phase "release suite"
(cd build && ctest -j "$jobs" --timeout 300)
phase "Debian packages, lintian and their contents"
bash scripts/package.sh build-deb
phase "memcheck, end-to-end and client suites"
bash scripts/memcheck.sh build

phase "address and undefined-behaviour sanitizers"
configure_and_build build-asan all "${sanitizer_flags[@]}" -DZEVD_SANITIZE=address
(cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest -j "$jobs" -LE slow --timeout 300)

phase "thread sanitizer, concurrency suites"
configure_and_build build-tsan zevd_concurrency_tests "${sanitizer_flags[@]}" -DZEVD_SANITIZE=thread
(cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest -j "$jobs" -L concurrency --timeout 600)
phase "done"
