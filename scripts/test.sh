#!/usr/bin/env bash
# Sets everything up, builds, and runs the whole suite twice: a normal build, then one with
# AddressSanitizer and UndefinedBehaviorSanitizer; then the concurrency tests with
# ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
jobs=$(nproc)

run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@"
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 600)
}

echo "== build and test =="
run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
echo "== build and test with AddressSanitizer + UndefinedBehaviorSanitizer =="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DHDS_SANITIZE=address -DHDS_BUILD_BENCH=OFF
echo "== concurrency tests with ThreadSanitizer =="
./scripts/tsan.sh
