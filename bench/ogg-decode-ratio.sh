#!/usr/bin/env bash
# CPU time of decoding ten minutes of Ogg Vorbis and Ogg Opus through
# Velvox's readAudio (64 KiB reads) against oggdec and opusdec writing raw PCM
# to /dev/null. Median of 5 runs each; prints Velvox's time as a multiple of
# the reference tool's (target: at most 1.10).
set -euo pipefail
cd "$(dirname "$0")/.."
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD/..}
nice ninja -C build -j2 velvox_decode_driver >/dev/null
driver=$PWD/build/bench/velvox_decode_driver

fixtures=$PWD/build/bench-fixtures
mkdir -p "$fixtures"
cd "$fixtures"
if [ ! -f ten-minutes.ogg ] || [ ! -f ten-minutes.opus ]; then
  sox -n -r 48000 -b 16 -c 2 ten-minutes.wav synth 600 pinknoise sine 440 gain -6 2>/dev/null
  oggenc -Q -q 5 -o ten-minutes.ogg ten-minutes.wav
  opusenc --quiet --bitrate 128 ten-minutes.wav ten-minutes.opus
  rm ten-minutes.wav
fi

python3 - "$driver" <<'PY'
import os, statistics, subprocess, sys
driver = sys.argv[1]

def cpu(cmd):
    times = []
    for _ in range(5):
        with open(os.devnull, "wb") as null:
            p = subprocess.Popen(cmd, stdout=null, stderr=subprocess.DEVNULL)
            _, status, usage = os.wait4(p.pid, 0)
        if status != 0:
            sys.exit(f"failed: {' '.join(cmd)}")
        times.append(usage.ru_utime + usage.ru_stime)
    return statistics.median(times)

pairs = [
    ("Vorbis", ["oggdec", "-Q", "-R", "-b", "16", "-e", "0", "-s", "1", "-o", "/dev/null",
                "ten-minutes.ogg"], [driver, "ten-minutes.ogg"]),
    ("Opus", ["opusdec", "--quiet", "--rate", "48000", "ten-minutes.opus", "/dev/null"],
     [driver, "ten-minutes.opus"]),
]
for name, reference, velvox in pairs:
    r, v = cpu(reference), cpu(velvox)
    print(f"{name}: {reference[0]} {r:.2f} s  velvox readAudio {v:.2f} s  ratio: {v / r:.3f}")
PY
