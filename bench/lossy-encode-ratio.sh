#!/usr/bin/env bash
# CPU time of the MP3 and Ogg Vorbis encode operations against the bare
# reference encoders on the same ten-minute 44.1 kHz stereo 16-bit WAV with
# the same settings: velvox at -V 2 against `lame -V 2`, velvox at quality 5
# against `oggenc -q 5`. Median of REPETITIONS runs each (default 5), user +
# system time. Target: each ratio at most 1.03. It measures and reports; it
# fails only when a tool is missing or an encode breaks.
#
# Velvox runs as a user would run it: `velvox convert` with the FORMAT's
# defaults (mp3 is -V 2, vorbis quality 5), tags off.
#
# Usage: bench/lossy-encode-ratio.sh [--no-build] [REPETITIONS]
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/common.sh
bench_args 5 "$@"
bench_require lossy-encode-ratio sox lame oggenc python3
bench_velvox lossy-encode-ratio nice ninja -C build -j2 velvox
export XDG_CONFIG_HOME=$(mktemp -d)

# ---- Fixture: plucked chords over a faint noise floor, ten minutes --------
cache=$PWD/build/bench-cache/lossy
wav=$cache/ten-minutes.wav
if [ ! -e "$wav" ]; then
  echo "making $wav (once)..."
  mkdir -p "$cache"
  gen=$(mktemp -d "$cache/gen.XXXXXX")
  bench_chord_loop "$gen" 2.5 "A2 E3 C#4" "F#2 C#3 A3" "D2 A2 F#3" "E2 B2 G#3"
  # 10 s loop, played 60 times.
  sox "$gen/loop.wav" -t wavpcm "$wav" repeat 59
  rm -rf "$gen"
fi

work=$(mktemp -d)
mkdir -p "$work/out"
trap 'rm -rf "$work"' EXIT

# CPU seconds (user + system) of one run of the command.
cpu() {
  /usr/bin/time -f "%U %S" -o "$work/time" "$@" >/dev/null 2>"$work/err" || {
    cat "$work/err" >&2
    echo "lossy-encode-ratio: failed: $*" >&2
    exit 1
  }
  awk '{ printf "%.3f\n", $1 + $2 }' "$work/time"
}

median() { sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

# Alternates the two so that a busy spell of the machine hits both.
compare() {
  local name=$1 ours_file=$2 theirs_file=$3
  shift 3
  : >"$ours_file"
  : >"$theirs_file"
  for _ in $(seq "$reps"); do
    "$@"
  done
  local ours theirs
  ours=$(median <"$ours_file")
  theirs=$(median <"$theirs_file")
  awk -v n="$name" -v a="$ours" -v b="$theirs" \
    'BEGIN { printf "%-8s velvox %.3f s  reference %.3f s  ratio %.3f (target <= 1.03)\n", n, a, b, a / b }'
}

mp3_round() {
  cpu "$velvox" convert --set writeMetadata=false --overwrite replace -o "$work/out" -f mp3 "$wav" >>"$work/mp3.ours"
  cpu lame --quiet -V 2 "$wav" "$work/ref.mp3" >>"$work/mp3.ref"
}
vorbis_round() {
  cpu "$velvox" convert --set writeMetadata=false --overwrite replace -o "$work/out" -f vorbis "$wav" >>"$work/ogg.ours"
  cpu oggenc -Q -q 5 -o "$work/ref.ogg" "$wav" >>"$work/ogg.ref"
}

echo "ten minutes of 44.1 kHz stereo 16-bit, median of $reps (CPU time)"
compare "MP3 -V2" "$work/mp3.ours" "$work/mp3.ref" mp3_round
compare "Vorbis 5" "$work/ogg.ours" "$work/ogg.ref" vorbis_round
