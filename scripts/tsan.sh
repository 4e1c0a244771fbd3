#!/usr/bin/env bash
# Builds the concurrency tests with ThreadSanitizer and runs them: threads and processes sharing
# the named locks, the settings store, the script and response file name counters, the login
# count and the resource group lock count. Any report fails the run.
#
#   scripts/tsan.sh            (build directory build-tsan, or $HDS_TSAN_BUILD_DIR)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${HDS_TSAN_BUILD_DIR:-build-tsan}

# Test binary and the cases of it that run threads or processes against each other.
tests=(
  "platform_lock_test:*"
  "platform_settings_test:SettingsConcurrency.*"
  "platform_process_test:ProcessConcurrency.*:ProcessTimeout.*:ProcessSignals.*"
  "core_helper_test:*"
  "core_handler_test:Handler.InitialisationSettlesProcessWideValuesOnce"
  "cci_horcm_concurrency_test:*"
  "raidcom_session_test:*"
  "shared_host_concurrency_test:*"
)

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHDS_SANITIZE=thread \
  -DHDS_BUILD_BENCH=OFF >/dev/null
targets=(ccisim)
for t in "${tests[@]}"; do targets+=("${t%%:*}"); done
ninja -C "$build" -j "$(nproc)" "${targets[@]}"

# The reports go to the test's output; exit code 66 marks a run that had one.
export TSAN_OPTIONS="halt_on_error=1 exitcode=66 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
failed=0
for t in "${tests[@]}"; do
  binary=${t%%:*}
  filter=${t#*:}
  echo "== $binary ($filter)"
  if ! "$build/tests/$binary" --gtest_filter="$filter" --gtest_brief=1; then
    failed=1
    echo "!! $binary failed"
  fi
done
exit $failed
