#!/usr/bin/env bash
# Sets everything up, builds, and runs the whole suite twice: a normal build, then one with
# AddressSanitizer and UndefinedBehaviorSanitizer; then the concurrency tests with
# ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
jobs=$(nproc)

# run_suite DIR [cmake options...] [-- ctest options...]
run_suite() {
  local dir=$1; shift
  local configure=() select=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do configure+=("$1"); shift; done
  [ $# -gt 0 ] && shift && select=("$@")
  cmake -S . -B "$dir" -G Ninja "${configure[@]}"
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 600 "${select[@]}")
}

echo "== build and test =="
run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
echo "== build and test with AddressSanitizer + UndefinedBehaviorSanitizer =="
# The fault matrix bounds how long each faulted job may take after its fault, from a reference run
# alone, while sixteen of its jobs run side by side; an instrumented Debug build on two cores runs
# too unevenly for those bounds, so the matrix runs in the build above only.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DHDS_SANITIZE=address -DHDS_BUILD_BENCH=OFF \
  -- -E '^FaultMatrix\.'

echo "== concurrency tests with ThreadSanitizer =="
./scripts/tsan.sh
