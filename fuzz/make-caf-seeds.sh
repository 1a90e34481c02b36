#!/usr/bin/env bash
# Makes the seed files of the CAF tag-writer fuzz target: short CAF files
# from FFmpeg, one without an 'info' chunk and one with it.
set -euo pipefail
out=$(cd "$(dirname "$0")" && pwd)/corpus/CAFInfoChunkWriter
mkdir -p "$out"
ffmpeg -v error -y -f lavfi -i "sine=frequency=440:duration=0.02" -c:a pcm_s16be "$out/plain.caf"
ffmpeg -v error -y -f lavfi -i "sine=frequency=440:duration=0.02" -c:a pcm_s16be \
  -metadata title=Seed -metadata artist=Velvox "$out/info.caf"
