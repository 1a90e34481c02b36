#!/usr/bin/env bash
# Starts velvox-gui under Xvfb with a generated demo queue (tagged FLAC and
# WAVE files made here with sox and flac) and saves a PNG of each window.
# Usage: scripts/screenshots.sh [BUILD_DIR [OUT_DIR]]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
out=$(realpath -m "${2:-docs/screenshots}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

music="$work/Music/Demo Artist - Demo Album"
mkdir -p "$music" "$work/config/velvox" "$work/out"
titles=("Morning Light" "Slow River" "Paper Boats" "Night Train")
for i in 0 1 2 3; do
  n=$((i + 1))
  sox -n -r 44100 -b 16 -c 2 "$work/t.wav" synth $((150 + 40 * i)) sine $((220 * n)) vol 0.3 2>/dev/null
  flac -s -f -T "ARTIST=Demo Artist" -T "ALBUM=Demo Album" -T "TITLE=${titles[$i]}" \
    -T "TRACKNUMBER=$n" -T "DATE=2024" -o "$music/0$n ${titles[$i]}.flac" "$work/t.wav"
done
sox -n -r 48000 -b 24 -c 2 "$music/Bonus (live).wav" synth 95 pinknoise vol 0.2 2>/dev/null
rm -f "$work/t.wav"

cat >"$work/config/velvox/defaults.json" <<JSON
{
  "outputSameAsSource": false,
  "destinationDirectory": "$work/out",
  "useCustomNamingScheme": true,
  "customNamingScheme": "{albumArtist}/{albumTitle}/{trackNumber} {trackTitle}",
  "encoderSettings": [
    {"encoderType": 2, "enabled": true, "extension": "flac", "flacCompressionLevel": 8},
    {"encoderType": 2, "enabled": false, "extension": "flac", "flacCompressionLevel": 5,
     "bitDepth": 16, "sampleRate": 44100}
  ]
}
JSON

XDG_CONFIG_HOME="$work/config" TMPDIR="$work" \
  xvfb-run -a -s "-screen 0 1280x900x24" "$build/velvox-gui" --screenshots "$out" "$music"
ls -1 "$out"/*.png
