#!/usr/bin/env bash
# Times decoding a two-minute stereo DSD64 DSF through `velvox probe` (full
# decode to 24-bit PCM at 88.2 kHz plus the PCM MD5) against ffmpeg decoding
# the same file to its own float output, and prints the CPU-time ratio
# velvox/ffmpeg of the fastest of REPETITIONS runs. It measures and reports;
# it fails only when a tool is missing or a decode breaks.
#
# Usage: bench/dsd-ratio.sh [--no-build] [REPETITIONS]   (default 3)
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/common.sh
bench_args 3 "$@"
bench_require dsd-ratio ffmpeg python3
bench_velvox dsd-ratio

cache=$root/build/bench-cache/dsd
mkdir -p "$cache"
dsf=$cache/noise-120s.dsf
if [ ! -f "$dsf" ]; then
  # Random bits: the decoder's work does not depend on the content.
  python3 - "$dsf" <<'PY'
import os, struct, sys
channels, block, seconds = 2, 4096, 120
samples = 2822400 * seconds
blocks = (samples // 8 + block - 1) // block
data_bytes = blocks * block * channels
with open(sys.argv[1], "wb") as f:
    f.write(b"DSD " + struct.pack("<QQQ", 28, 92 + data_bytes, 0))
    f.write(b"fmt " + struct.pack("<QIIIIIIQII", 52, 1, 0, 2, channels, 2822400, 1, samples,
                                  block, 0))
    f.write(b"data" + struct.pack("<Q", 12 + data_bytes))
    for _ in range(blocks):
        f.write(os.urandom(block * channels))
PY
fi

cpu() { # user+sys seconds of a command
  /usr/bin/time -f "%U %S" "$@" 2>&1 >/dev/null | tail -1 | awk '{print $1 + $2}'
}
best_velvox=999999 best_ffmpeg=999999
for _ in $(seq "$reps"); do
  t=$(cpu env XDG_CONFIG_HOME="$cache/config" "$velvox" probe "$dsf")
  best_velvox=$(python3 -c "print(min($best_velvox, $t))")
  t=$(cpu ffmpeg -v error -nostdin -i "$dsf" -f null -)
  best_ffmpeg=$(python3 -c "print(min($best_ffmpeg, $t))")
done
python3 -c "print(f'velvox probe: {$best_velvox:.2f} s  ffmpeg: {$best_ffmpeg:.2f} s  ratio: {$best_velvox / $best_ffmpeg:.2f}')"
