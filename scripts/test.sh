#!/usr/bin/env bash
# Installs what is needed, builds, and runs the test suite in an optimised,
# an address and undefined-behaviour sanitizer and a thread-sanitizer build
# (the last over the suites that exercise Velvox's threads), after a short
# pass of every fuzz target over its seed corpus.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/build.sh
bash scripts/build.sh --sanitize
bash scripts/build.sh --tsan

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp"
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp"
jobs=$(nproc)

echo "== fuzz targets (smoke pass) =="
bash scripts/fuzz.sh 10
echo "== tests (optimised build) =="
ctest --test-dir build --output-on-failure -j "$jobs"
echo "== tests (address and undefined-behaviour sanitizers) =="
ctest --test-dir build-asan --output-on-failure -j "$jobs"
# The thread sanitizer runs the suites that exercise Velvox's own threads
# (run loop, tagging thread, operations, file jobs, the controller, the
# command line's batches); the codec suites are single-threaded and already
# run twice above.
echo "== tests (thread sanitizer) =="
ctest --test-dir build-tsan --output-on-failure -j "$jobs" \
  -R 'Threads|Observable|MainRunLoop|EncodeOperationTest|FileEncodeOperation|ApplicationController|ConvertCommand'
