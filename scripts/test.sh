#!/usr/bin/env bash
# Installs what is needed, builds, and runs the whole test suite twice: once
# optimised and once under the address and undefined-behaviour sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/build.sh
bash scripts/build.sh --sanitize

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
jobs=$(nproc)

echo "== tests (optimised build) =="
ctest --test-dir build --output-on-failure -j "$jobs"
echo "== tests (sanitizer build) =="
ctest --test-dir build-asan --output-on-failure -j "$jobs"
