#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, address + undefined sanitizers) in
# build-fuzz/, makes the seed corpora (fuzz/make-*) and runs each target
# over its corpus.
# Usage: scripts/fuzz.sh [SECONDS-PER-TARGET]   (default: a 10-second smoke pass)
# A finding stops the script with the target's crash report.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-10}

cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_COMPILER=clang-16 -DCMAKE_CXX_COMPILER=clang++-16 \
  -DVELVOX_FUZZ=ON -DVELVOX_BUILD_TESTS=OFF -DVELVOX_BUILD_BENCH=OFF >/dev/null
ninja -C build-fuzz velvox $(ninja -C build-fuzz -t targets all | sed -n 's/^\(velvox_fuzz_[A-Za-z0-9]*\):.*/\1/p')

# The seed corpora are made here by our own scripts, from tones and the
# reference encoders, rather than kept as files.
for seeds in fuzz/make-*.sh; do
  bash "$seeds" build-fuzz/velvox >/dev/null
done
python3 fuzz/make-dsd-seeds.py >/dev/null

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for target in build-fuzz/fuzz/velvox_fuzz_*; do
  name=${target##*/velvox_fuzz_}
  work=$(mktemp -d)
  cp -r "fuzz/corpus/$name/." "$work/" 2>/dev/null || true
  echo "== fuzz $name (${seconds}s) =="
  "$target" -max_total_time="$seconds" -max_len=65536 -timeout=10 -rss_limit_mb=4096 \
    "$work" >"$work.log" 2>&1 || { tail -60 "$work.log"; exit 1; }
  grep -E '^(#[0-9]+).*(DONE|pulse)' "$work.log" | tail -1
  rm -rf "$work" "$work.log"
done
