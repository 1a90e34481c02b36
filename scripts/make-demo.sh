#!/usr/bin/env bash
# Generates a small demo music folder from synthesised tones (all audio made
# here, by sox and flac). Usage: scripts/make-demo.sh [FOLDER]  (default: demo)
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-demo}
mkdir -p "$out/Tone Studies" "$out/Surround"

sox -n -r 44100 -b 16 -c 2 "$out/Tone Studies/01 Fifths.wav" synth 4 sine 220 sine 330 fade 0.1 4 0.3
sox -n -r 48000 -b 24 -c 2 "$out/Tone Studies/02 Sweep.aiff" synth 4 sine 100-4000 fade 0.1 4 0.3
sox -n -r 44100 -b 16 -c 1 "$out/Tone Studies/03 Pluck.flac" synth 3 pluck A3 fade 0 3 1
sox -n -r 96000 -b 24 -c 2 "$out/Tone Studies/04 Chord.flac" synth 3 sine 261.63 sine 329.63 \
  gain -3
flac -s -f --ogg "$out/Tone Studies/04 Chord.flac" -o "$out/Tone Studies/04 Chord.oga"
rm "$out/Tone Studies/04 Chord.flac"
sox -n -r 48000 -b 24 -c 6 "$out/Surround/5.1 Test.flac" synth 3 sine 200 sine 300 sine 400 \
  sine 50 sine 500 sine 600 gain -6
echo "demo files in $out/"
