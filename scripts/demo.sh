#!/usr/bin/env bash
# Sets everything up, builds the library, ccisim and hdsctl, and runs the demo: one snapshot job
# of 16 P-VOLs against a simulated array in a fresh temporary directory. Arguments go to
# `hdsctl demo` (for instance --json, --pvols N, --dir DIR).
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$(nproc)" --target hdsctl ccisim
exec ./build/tools/hdsctl/hdsctl demo "$@"
