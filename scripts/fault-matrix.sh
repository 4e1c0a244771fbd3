#!/usr/bin/env bash
# The fault matrix over the demo's whole job (16 P-VOLs, every one of its CCI calls failing once
# and hanging past the 30 s command time-out), one line per case and a total for each half. The
# suite runs the same matrix over a job of one P-VOL.
#
#   scripts/fault-matrix.sh [P-VOLs (16)] [hung runs at once (16)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${HDS_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja >/dev/null
ninja -C "$build" -j "$(nproc)" fault_matrix_test hdsctl ccisim
HDS_FAULT_MATRIX_PVOLS=${1:-16} HDS_FAULT_MATRIX_PARALLEL=${2:-16} \
  "$build/tests/fault_matrix_test" --gtest_brief=1 |
  grep -Ev '^[0-9]{4}-[0-9]{2}-[0-9]{2}T[^ ]+ [0-9]+ [0-9]+ [A-Z]+ HDS  |^\[ *[0-9]*/[0-9]*\] '
