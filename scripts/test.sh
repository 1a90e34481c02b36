#!/usr/bin/env bash
# Installs what is needed, builds, and runs the whole test suite three times
# (optimised; address and undefined-behaviour sanitizers; thread sanitizer),
# after a short pass of every fuzz target over its seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/build.sh
bash scripts/build.sh --sanitize
bash scripts/build.sh --tsan

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp"
jobs=$(nproc)

echo "== fuzz targets (smoke pass) =="
bash scripts/fuzz.sh 10
echo "== tests (optimised build) =="
ctest --test-dir build --output-on-failure -j "$jobs"
echo "== tests (address and undefined-behaviour sanitizers) =="
ctest --test-dir build-asan --output-on-failure -j "$jobs"
echo "== tests (thread sanitizer) =="
ctest --test-dir build-tsan --output-on-failure -j "$jobs"
