#!/usr/bin/env bash
# Makes the seed of the MIDI parser fuzz target: one track with a tempo and
# a key signature.
set -euo pipefail
out=$(cd "$(dirname "$0")" && pwd)/corpus/MIDIParser
mkdir -p "$out"
printf 'MThd\0\0\0\6\0\1\0\1\1\340MTrk\0\0\0\23\0\377Q\3\7\241 \0\377Y\2\0\0\0\377/\0' \
  >"$out/tempo-key.mid"
