#!/usr/bin/env bash
# Times AAC encoding through the velvox command (the real encode operation:
# FLAC decoder, the shared loop, FFmpeg's AAC encoder and MP4 muxer, tags)
# against the bare ffmpeg tool on the same ten-minute 44.1 kHz stereo FLAC:
#     velvox convert -f coreaudio:container=m4af,codec=aac,bitrate=256000
#     ffmpeg -c:a aac -b:a 256k
# CPU time (user+sys of the child), median of REPETITIONS runs, target ratio
# velvox/ffmpeg at most 1.05. It measures and reports; it fails only when a
# tool is missing or an encode breaks.
#
# Usage: bench/aac-ratio.sh [--no-build] [REPETITIONS]   (default 5)
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/common.sh
bench_args 5 "$@"
bench_require aac-ratio sox flac ffmpeg ffprobe python3
bench_velvox aac-ratio

# Ten minutes of chords over pink noise, made once by sox and flac.
cache=$root/build/bench-cache/aac
source=$cache/long.flac
if [ ! -e "$source" ]; then
  mkdir -p "$cache"
  sox -n -r 44100 -b 16 -c 2 "$cache/long.wav" synth 600 pinknoise \
    synth 600 sine mix 220 synth 600 sine mix 277 gain -9
  flac -s -5 -f -o "$source" "$cache/long.wav"
  rm -f "$cache/long.wav"
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/aac-ratio.XXXXXX")
trap 'rm -rf "$work"' EXIT

python3 - "$velvox" "$source" "$work" "$reps" <<'PY'
import os, statistics, subprocess, sys

velvox, source, work, reps = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
velvox_out = os.path.join(work, "velvox")
ffmpeg_file = os.path.join(work, "ffmpeg.m4a")
velvox_cmd = [velvox, "convert", "-f", "coreaudio:container=m4af,codec=aac,bitrate=256000",
              "-o", velvox_out, "--overwrite", "replace", "-j", "1", source]
ffmpeg_cmd = ["ffmpeg", "-v", "error", "-y", "-i", source, "-c:a", "aac", "-b:a", "256k",
              ffmpeg_file]

os.makedirs(velvox_out, exist_ok=True)

def run(cmd):
    with open(os.path.join(work, "stderr.txt"), "wb") as err:
        proc = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                stderr=err)
        _, status, usage = os.wait4(proc.pid, 0)
    if os.waitstatus_to_exitcode(status) != 0:
        sys.stdout.write(open(os.path.join(work, "stderr.txt")).read())
        sys.exit(f"aac-ratio: {' '.join(cmd)} failed")
    return usage.ru_utime + usage.ru_stime

def facts(path):
    out = subprocess.run(["ffprobe", "-v", "error", "-show_entries",
                          "stream=codec_name,bit_rate,duration_ts", "-of", "csv=p=0", path],
                         capture_output=True, text=True, check=True).stdout.strip()
    return out

run(velvox_cmd)
run(ffmpeg_cmd)
made = [os.path.join(velvox_out, f) for f in os.listdir(velvox_out)]
print(f"velvox output: {facts(made[0])}")
print(f"ffmpeg output: {facts(ffmpeg_file)}")

times = {"velvox": [], "ffmpeg": []}
for rep in range(reps):
    order = [("velvox", velvox_cmd), ("ffmpeg", ffmpeg_cmd)]
    if rep % 2:
        order.reverse()
    for name, cmd in order:
        times[name].append(run(cmd))
    print(f"  run {rep + 1}: velvox cpu {times['velvox'][-1]:.3f} s | "
          f"ffmpeg cpu {times['ffmpeg'][-1]:.3f} s")
v, f = statistics.median(times["velvox"]), statistics.median(times["ffmpeg"])
print(f"median cpu: velvox {v:.3f} s, ffmpeg {f:.3f} s, ratio {v / f:.3f} (target <= 1.05)")
PY
