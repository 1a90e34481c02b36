#!/usr/bin/env bash
# Makes the seed files of the Ogg Opus, Ogg Speex and Opus header fuzz
# targets: a fraction of a second of sox tones through the reference encoders.
set -euo pipefail
cd "$(dirname "$0")"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir -p corpus/OggOpusDecoder corpus/OggSpeexDecoder corpus/OpusHeader

sox -n -r 48000 -b 16 -c 2 "$tmp/s48.wav" synth 0.12 sine 440 sine 660 gain -6
sox -n -r 44100 -b 16 -c 1 "$tmp/m44.wav" synth 0.08 sine 300 gain -6
sox -n -r 8000 -b 16 -c 1 "$tmp/m8.wav" synth 0.2 sine 500 gain -6
sox -n -r 16000 -b 16 -c 2 "$tmp/s16.wav" synth 0.2 sine 500 sine 700 gain -6
sox -n -r 48000 -b 16 -c 6 "$tmp/c6.wav" synth 0.05 sine 200 sine 300 sine 400 sine 500 sine 60 sine 700

opusenc --quiet --bitrate 32 "$tmp/s48.wav" corpus/OggOpusDecoder/stereo48k.opus
opusenc --quiet --bitrate 24 "$tmp/m44.wav" corpus/OggOpusDecoder/mono44k.opus
opusenc --quiet --bitrate 256 "$tmp/c6.wav" corpus/OggOpusDecoder/surround51.opus
speexenc --quiet "$tmp/m8.wav" corpus/OggSpeexDecoder/narrowband.spx
speexenc --quiet --nframes 2 "$tmp/s16.wav" corpus/OggSpeexDecoder/wideband-stereo.spx

# The identification packets alone: the first page's body.
for f in corpus/OggOpusDecoder/*.opus; do
  python3 - "$f" "corpus/OpusHeader/$(basename "$f" .opus).bin" <<'PY'
import sys
data = open(sys.argv[1], 'rb').read()
segments = data[26]
start = 27 + segments
length = sum(data[27:27 + segments])
open(sys.argv[2], 'wb').write(data[start:start + length])
PY
done
