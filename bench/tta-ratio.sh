#!/usr/bin/env bash
# Times a ten-minute 44.1 kHz stereo 16-bit WAVE file converted to True Audio
# by the velvox command against ffmpeg's own TTA encoder (-c:a tta) doing the
# same, and prints the CPU-time ratio (target: at most 1.05), median of N runs.
# It measures and reports; it fails only when a tool is missing or the two
# outputs do not hold the source's audio. The fixture is synthesised by sox on
# first use and kept in build/bench-cache/tta.
#
# Usage: bench/tta-ratio.sh [--no-build] [REPETITIONS]   (default 5)
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/common.sh
bench_args 5 "$@"
bench_require tta-ratio sox ffmpeg python3
bench_velvox tta-ratio

# Plucked chords over a faint noise floor, repeated to ten minutes.
cache=$root/build/bench-cache/tta
if [ ! -e "$cache/long.wav" ]; then
  echo "making the fixture in $cache (once)..."
  mkdir -p "$cache"
  gen=$(mktemp -d "$cache/gen.XXXXXX")
  bench_chord_loop "$gen" 10 "A2 E3 C#4" "D2 A2 F#3"
  sox "$gen/loop.wav" -t wavpcm "$cache/long.wav" repeat 29
  rm -rf "$gen"
fi

bench_work tta-ratio

echo "$("$velvox" --version), $(ffmpeg -version | head -1), $(nproc) cores"
echo "load before: $(uptime)"
python3 - "$velvox" "$cache/long.wav" "$work" "$reps" <<'PY'
import os, shutil, statistics, subprocess, sys

velvox, source, work, reps = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])


def run(cmd, outdir):
    """Runs cmd into a fresh outdir; returns its user+sys CPU seconds."""
    shutil.rmtree(outdir, ignore_errors=True)
    os.makedirs(outdir)
    proc = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.PIPE)
    _, status, usage = os.wait4(proc.pid, 0)
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"tta-ratio: {' '.join(cmd)} failed: {proc.stderr.read().decode()}")
    return usage.ru_utime + usage.ru_stime


def pcm_md5(path):
    return subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-f", "md5", "-"],
                          capture_output=True, text=True, check=True).stdout.strip()


velvox_out = os.path.join(work, "velvox-out")
ffmpeg_out = os.path.join(work, "ffmpeg-out")
velvox_cmd = [velvox, "convert", "-f", "tta", "-o", velvox_out, "--overwrite", "replace",
              "-j", "1", source]
ffmpeg_cmd = ["ffmpeg", "-v", "error", "-y", "-i", source, "-c:a", "tta",
              os.path.join(ffmpeg_out, "long.tta")]

# One untimed run of each warms the page cache and checks that both hold the
# source's audio.
run(velvox_cmd, velvox_out)
run(ffmpeg_cmd, ffmpeg_out)
want = pcm_md5(source)
got = [pcm_md5(os.path.join(d, "long.tta")) for d in (velvox_out, ffmpeg_out)]
if any(g != want for g in got):
    sys.exit(f"tta-ratio: decoded audio differs from the source: {want} {got}")
print(f"outputs checked: both decode to the source's PCM ({want})")

times = {"velvox": [], "ffmpeg": []}
for rep in range(reps):
    order = [("velvox", velvox_cmd, velvox_out), ("ffmpeg", ffmpeg_cmd, ffmpeg_out)]
    if rep % 2:
        order.reverse()
    for name, cmd, out in order:
        times[name].append(run(cmd, out))
    print(f"  run {rep + 1}: velvox cpu {times['velvox'][-1]:.3f} s | "
          f"ffmpeg cpu {times['ffmpeg'][-1]:.3f} s")

med = {name: statistics.median(t) for name, t in times.items()}
ratio = med["velvox"] / med["ffmpeg"]
print()
print("==== summary ====")
print(f"10-minute 44.1 kHz stereo 16-bit WAVE to TTA, median of {reps}: "
      f"velvox {med['velvox']:.3f} s, ffmpeg -c:a tta {med['ffmpeg']:.3f} s")
print(f"tta ratio: {ratio:.2f} (target <= 1.05)")
PY
echo "load after: $(uptime)"
