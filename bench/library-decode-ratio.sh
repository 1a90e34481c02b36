#!/usr/bin/env bash
# The CPU cost of decoding a 10-minute file through Velvox's readAudio (64 KiB
# reads) as a multiple of the reference decoder's writing raw PCM to
# /dev/null: WavPack against wvunpack, Musepack against mpcdec. Median of 5
# runs each; target: at most 1.10.
set -euo pipefail
cd "$(dirname "$0")/.."
[ -f build/build.ninja ] || cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
nice ninja -C build -j2 velvox_decode_driver >/dev/null
mkdir -p build/bench-fixtures
cd build/bench-fixtures
if [ ! -f ten.wv ] || [ ! -f ten.mpc ]; then
  sox -n -r 44100 -b 16 -c 2 -t wavpcm ten.wav synth 600 pinknoise sine 440 gain -6
  wavpack -q -y ten.wav -o ten.wv
  mpcenc --silent --overwrite ten.wav ten.mpc
  rm ten.wav
fi
python3 - <<'PY'
import os, resource, statistics, subprocess

def cpu(cmd):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(cmd, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)

def median(cmd):
    return statistics.median(cpu(cmd) for _ in range(5))

driver = "../bench/velvox_decode_driver"
for name, ref in (("ten.wv", ["wvunpack", "-q", "-y", "-r", "ten.wv", "-o", "-"]),
                  ("ten.mpc", ["mpcdec", "-r", "ten.mpc", "/dev/null"])):
    bare = median(ref)
    velvox = median([driver, name])
    print(f"{name}: {ref[0]} {bare:.3f} s  velvox readAudio {velvox:.3f} s  ratio {velvox / bare:.3f}")
PY
