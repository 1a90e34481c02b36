#!/usr/bin/env bash
# Makes the seed files of the Decoder fuzz target: tiny files of each
# kind from a sox signal, each behind the byte that selects its registry row
# (the rows that have extensions, in `velvox codecs --json` order).
# Usage: fuzz/make-decoder-seeds.sh [VELVOX-BINARY]
set -euo pipefail
velvox=$(cd "$(dirname "${1:-build/velvox}")" && pwd)/$(basename "${1:-build/velvox}")
out=$(cd "$(dirname "$0")" && pwd)/corpus/Decoder
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
sox -n -r 8000 -b 16 -c 2 -t wavpcm s.wav synth 0.05 sine 440
sox -n -r 44100 -b 16 -c 1 -t wavpcm m.wav synth 0.08 sine 440
wavpack -q -y s.wav -o s.wv
mpcenc --silent m.wav s.mpc
jmac c2 s.wav s.ape >/dev/null 2>&1
ffmpeg -v error -y -i s.wav -c:a tta s.tta
flac -s -f s.wav -o s.flac
sox s.wav s.aiff
oggenc -Q s.wav -o s.ogg
lame --quiet s.wav s.mp3
ffmpeg -v error -y -i s.wav -c:a aac s.m4a
# A ProTracker module: one looped 32-byte sample, one pattern, one note.
python3 - <<'PY'
m = bytearray(1084)
m[20 + 23], m[20 + 25], m[20 + 29] = 16, 64, 16
m[950], m[951] = 1, 127
m[1080:1084] = b"M.K."
pattern = bytearray(1024)
pattern[0:4] = bytes([0x01, 0xAC, 0x10, 0x00])
m += pattern + bytes((i * 8 if i < 16 else 255 - i * 8) for i in range(32))
open("s.mod", "wb").write(m)
PY
mkdir -p "$out"
for ext in wv mpc ape tta mod flac wav aiff ogg mp3 m4a; do
  i=$("$velvox" codecs --json | python3 -c '
import json, sys
rows = [r for r in json.load(sys.stdin) if r["extensions"]]
print(next(n for n, r in enumerate(rows) if sys.argv[1] in r["extensions"]))' "$ext")
  { printf "\\x$(printf %02x "$i")"; cat "s.$ext"; } >"$out/seed-$ext"
done
