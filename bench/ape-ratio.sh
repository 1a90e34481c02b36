#!/usr/bin/env bash
# Monkey's Audio output against jmac on the same WAV files:
#  1. wall time of one compression of a ten-minute 44.1 kHz 16-bit stereo
#     file at 2000 and 4000 (ratio velvox/jmac; below 1 is faster);
#  2. file sizes at every level on a one-minute file (ratio velvox/jmac;
#     the target is within 1 %).
# It measures and reports; it fails only when a tool is missing or a
# compression breaks. Fixtures are synthesised by sox into
# build/bench-cache/ape on first use.
#
# Usage: bench/ape-ratio.sh [--no-build]
set -euo pipefail
cd "$(dirname "$0")/.."

for tool in sox jmac ffmpeg; do
  if ! command -v "$tool" >/dev/null; then
    echo "ape-ratio: '$tool' is missing (bash scripts/setup.sh installs it)" >&2
    exit 2
  fi
done
if [ "${1:-}" != "--no-build" ]; then
  nice ninja -C build -j2 velvox_bench >/dev/null
fi
bench=$PWD/build/bench/velvox_bench
cache=$PWD/build/bench-cache/ape
mkdir -p "$cache"

# Plucked chords over a faint pink-noise floor, different in each channel:
# it compresses like recorded music.
fixture() { # minutes path
  [ -f "$2" ] && return
  sox -n -r 44100 -b 16 -c 2 "$2" synth "$(($1 * 60))" pluck C3 pluck E3 pinknoise \
    remix 1,3v0.02 2,3v0.03 gain -3 tremolo 0.7 40 2>/dev/null
}
fixture 10 "$cache/ten.wav"
fixture 1 "$cache/one.wav"

seconds() { /usr/bin/time -f %e "$@" 2>&1 >/dev/null | tail -1; }

echo "level  velvox_s  jmac_s  ratio   (10 min, 16-bit stereo)"
for level in 2000 4000; do
  out=$(VELVOX_APE_BENCH_WAV=$cache/ten.wav "$bench" --benchmark_filter="APECompress/$level/" \
    --benchmark_format=csv 2>/dev/null | tail -1)
  ours=$(echo "$out" | cut -d, -f3)  # real time in ms
  theirs=$(seconds jmac "c${level:0:1}" "$cache/ten.wav" "$cache/ten.$level.jmac.ape")
  awk -v l="$level" -v o="$ours" -v t="$theirs" \
    'BEGIN { printf "%5d  %8.2f  %6.2f  %5.3f\n", l, o / 1000, t, o / 1000 / t }'
  ffmpeg -v error -i "$cache/ten.wav.$level.velvox.ape" -f md5 - >"$cache/a.md5"
  ffmpeg -v error -i "$cache/ten.wav" -f md5 - >"$cache/b.md5"
  cmp -s "$cache/a.md5" "$cache/b.md5" || { echo "ape-ratio: level $level does not decode back" >&2; exit 1; }
done

echo
echo "level  velvox_bytes  jmac_bytes  ratio   (1 min, 16-bit stereo)"
VELVOX_APE_BENCH_WAV=$cache/one.wav "$bench" --benchmark_filter='APECompress' >/dev/null 2>&1
for level in 1000 2000 3000 4000 5000; do
  jmac "c${level:0:1}" "$cache/one.wav" "$cache/one.$level.jmac.ape" >/dev/null
  ours=$(stat -c %s "$cache/one.wav.$level.velvox.ape")
  theirs=$(stat -c %s "$cache/one.$level.jmac.ape")
  awk -v l="$level" -v o="$ours" -v t="$theirs" \
    'BEGIN { printf "%5d  %12d  %10d  %6.4f\n", l, o, t, o / t }'
done
