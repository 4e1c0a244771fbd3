#!/usr/bin/env bash
# Runs every parser's libFuzzer target for a while, each on a scratch copy of its seeds in
# fuzz/corpus/<target>/, and prints one line per target: executions, seconds, corpus entries and
# findings (crash, leak, time-out or sanitizer reports, kept under build-fuzz/findings/).
#
#   scripts/fuzz.sh                 every target for 60 s
#   scripts/fuzz.sh 300 pool_listing_fuzz ldev_listing_fuzz
#
# The library is built with the fuzzer's coverage instrumentation too, so that mutations are
# steered by the parsers' branches and not only by the target's own few lines.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
[ $# -gt 0 ] && shift
build=${HDS_FUZZ_BUILD_DIR:-build-fuzz}

if [ $# -gt 0 ]; then
  targets=("$@")
else
  targets=()
  for src in fuzz/*_fuzz.cpp; do targets+=("$(basename "$src" .cpp)"); done
fi

flags="-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer"
cmake -S . -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS="$flags" -DHDS_BUILD_FUZZ=ON \
  -DHDS_BUILD_TESTS=OFF -DHDS_BUILD_BENCH=OFF -DHDS_BUILD_TOOLS=OFF >/dev/null
ninja -C "$build" -j "$(nproc)" "${targets[@]}"

mkdir -p "$build/findings" "$build/fuzz-logs"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=0
printf '%-36s %12s %8s %8s %s\n' target executions seconds corpus findings
for t in "${targets[@]}"; do
  work="$build/fuzz-work/$t"
  rm -rf "$work"
  mkdir -p "$work"
  [ -d "fuzz/corpus/$t" ] && cp "fuzz/corpus/$t"/* "$work"/
  rm -f "$build/findings/$t-"*
  log="$build/fuzz-logs/$t.log"
  start=$(date +%s)
  status=0
  "$build/fuzz/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$build/findings/$t-" "$work" >"$log" 2>&1 || status=$?
  elapsed=$(($(date +%s) - start))
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  found=$(find "$build/findings" -name "$t-*" | wc -l)
  [ "$status" -ne 0 ] && found="$found (exit $status, see $log)"
  if [ "$status" -ne 0 ] || grep -q "runtime error:\|ERROR: AddressSanitizer\|ERROR: LeakSanitizer" "$log"; then
    failed=1
  fi
  printf '%-36s %12s %8s %8s %s\n' "$t" "${execs:-?}" "$elapsed" "$(ls "$work" | wc -l)" "$found"
done
exit $failed
