#!/usr/bin/env bash
# Times whole conversions through the velvox command:
#  1. re-encoding a ten-minute FLAC at level 5, against the reference flac tool
#     doing the same (target: velvox/flac CPU time at most 1.05);
#  2. a batch of 20 one-minute FLACs with -j 1 and with -j 2
#     (target: a speed-up of at least 1.8 on two cores).
# It measures and reports; it fails only when a tool is missing or a
# conversion breaks. The fixtures are synthesised by sox and encoded by flac
# on first use and kept in build/bench-cache/convert.
#
# Usage: bench/convert-ratio.sh [--no-build] [REPETITIONS]   (default 5)
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/common.sh
bench_args 5 "$@"
bench_require convert-ratio sox flac metaflac python3
bench_velvox convert-ratio

# ---- Fixtures -------------------------------------------------------------
# Plucked chords over a faint noise floor: about 60 % of the PCM at level 5.
cache=$root/build/bench-cache/convert
stamp=$cache/fixtures-v1
if [ ! -e "$stamp" ]; then
  echo "making the fixtures in $cache (once)..."
  rm -rf "$cache"
  mkdir -p "$cache/batch"
  gen=$(mktemp -d "$cache/gen.XXXXXX")
  bench_chord_loop "$gen" 2.5 "A2 E3 C#4" "F#2 C#3 A3" "D2 A2 F#3" "E2 B2 G#3" \
    "A2 C#3 E3" "B1 F#2 D3" "C#2 G#2 E3" "E2 G#2 B3"
  # 20-second loop, 30 times: ten minutes.
  sox "$gen/loop.wav" -t wavpcm "$gen/long.wav" repeat 29
  flac -s -5 -f "$gen/long.wav" -o "$cache/long.flac"
  metaflac --set-tag="TITLE=Long Take" --set-tag="ARTIST=Velvox Bench" \
    --set-tag="ALBUM=Benchmarks" "$cache/long.flac"
  for k in $(seq -w 1 20); do
    sox "$gen/long.wav" -t wavpcm "$gen/part.wav" trim "$((10#$k * 7))" 60
    flac -s -5 -f "$gen/part.wav" -o "$cache/batch/$k.flac"
    metaflac --set-tag="TITLE=Part $k" --set-tag="TRACKNUMBER=$k" \
      --set-tag="ARTIST=Velvox Bench" --set-tag="ALBUM=Batch" "$cache/batch/$k.flac"
  done
  rm -rf "$gen"
  touch "$stamp"
fi

# ---- Private surroundings ---------------------------------------------------
bench_work convert-ratio

echo "$("$velvox" --version), $(flac --version), $(nproc) cores"
echo "load before: $(uptime)"
python3 - "$velvox" "$cache" "$work" "$reps" <<'PY'
import os, statistics, subprocess, sys

sys.path.insert(0, "bench")
from timing import run_side_by_side

velvox, cache, work, reps = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
long_flac = os.path.join(cache, "long.flac")
batch = os.path.join(cache, "batch")


def run(cmd, outdir, *more):
    """(CPU seconds, wall seconds) of cmd and any more commands beside it."""
    return run_side_by_side("convert-ratio", work, outdir, cmd, *more)


def streaminfo(path):
    """The audio MD5 and whether a seek table is there, from metaflac."""
    listing = subprocess.run(["metaflac", "--list", path], capture_output=True, text=True,
                             check=True).stdout
    md5 = [line.split(":", 1)[1].strip() for line in listing.splitlines()
           if "MD5 signature" in line]
    return (md5[0] if md5 else None), "SEEKTABLE" in listing


# ---- 1. One long file: velvox against flac ----
velvox_out = os.path.join(work, "velvox-out")
flac_out = os.path.join(work, "flac-out")
velvox_cmd = [velvox, "convert", "-f", "flac:level=5", "-o", velvox_out, "--naming",
              "{trackTitle}", "--overwrite", "replace", "-j", "1", long_flac]
flac_cmd = ["flac", "-5", "-f", "-s", "-o", os.path.join(flac_out, "Long Take.flac"), long_flac]

# One untimed run of each warms the page cache and lets us check that both
# wrote the same audio (same STREAMINFO MD5, which is not zero) with a seek table.
run(velvox_cmd, velvox_out)
run(flac_cmd, flac_out)
source_md5, _ = streaminfo(long_flac)
facts = [streaminfo(os.path.join(d, "Long Take.flac")) for d in (velvox_out, flac_out)]
if any(md5 != source_md5 or md5 == "0" * 32 or not seek for md5, seek in facts):
    sys.exit(f"convert-ratio: outputs differ from the source or lack a seek table: {facts}")
print(f"outputs checked: both carry the source's audio MD5 {source_md5} and a seek table")

times = {"velvox": [], "flac": []}
for rep in range(reps):
    # Alternate which goes first, so neither always meets the warmer machine.
    order = [("velvox", velvox_cmd, velvox_out), ("flac", flac_cmd, flac_out)]
    if rep % 2:
        order.reverse()
    for name, cmd, out in order:
        times[name].append(run(cmd, out))
    v, f = times["velvox"][-1], times["flac"][-1]
    print(f"  run {rep + 1}: velvox cpu {v[0]:.3f} s wall {v[1]:.3f} s | "
          f"flac cpu {f[0]:.3f} s wall {f[1]:.3f} s")

med = {name: (statistics.median(t[0] for t in ts), statistics.median(t[1] for t in ts))
       for name, ts in times.items()}
cpu_ratio = med["velvox"][0] / med["flac"][0]
wall_ratio = med["velvox"][1] / med["flac"][1]
print(f"10-minute FLAC at level 5, median of {reps}:")
print(f"  velvox convert: cpu (user+sys) {med['velvox'][0]:.3f} s  wall {med['velvox'][1]:.3f} s")
print(f"  flac -5:        cpu (user+sys) {med['flac'][0]:.3f} s  wall {med['flac'][1]:.3f} s")
print(f"  ratio velvox/flac: cpu {cpu_ratio:.3f}  wall {wall_ratio:.3f}")

# ---- 2. A batch of 20 files: -j 1 against -j 2 ----
batch_out = os.path.join(work, "batch-out")
files = len([f for f in os.listdir(batch) if f.endswith(".flac")])


def batch_cmd(jobs):
    return [velvox, "convert", "-f", "flac:level=5", "-o", batch_out, "--overwrite", "replace",
            "-j", str(jobs), batch]


run(batch_cmd(2), batch_out)
written = len([f for f in os.listdir(batch_out) if f.endswith(".flac")])
if written != files:
    sys.exit(f"convert-ratio: the batch wrote {written} of {files} files")
batch_runs = 3
batch_times = {1: [], 2: []}
for rep in range(batch_runs):
    for jobs in ((1, 2) if rep % 2 == 0 else (2, 1)):
        batch_times[jobs].append(run(batch_cmd(jobs), batch_out))
    (c1, w1), (c2, w2) = batch_times[1][-1], batch_times[2][-1]
    print(f"  batch run {rep + 1}: -j 1 wall {w1:.3f} s cpu {c1:.3f} s | "
          f"-j 2 wall {w2:.3f} s cpu {c2:.3f} s")
# The control: the same 20 files through flac, one process after another
# against two processes side by side, ten files each. It tells how much of a
# second core the machine had to give at the time; on an idle machine it is
# close to 2.
names = sorted(os.path.join(batch, f) for f in os.listdir(batch) if f.endswith(".flac"))
prefix = ["flac", "-5", "-f", "-s", f"--output-prefix={batch_out}/"]
control = {1: [], 2: []}
for rep in range(batch_runs):
    for procs in ((1, 2) if rep % 2 == 0 else (2, 1)):
        if procs == 1:
            control[1].append(run(prefix + names, batch_out)[1])
        else:
            half = len(names) // 2
            control[2].append(run(prefix + names[:half], batch_out, prefix + names[half:])[1])
control_speedup = statistics.median(control[1]) / statistics.median(control[2])

j1 = statistics.median(w for _, w in batch_times[1])
j2 = statistics.median(w for _, w in batch_times[2])
speedup = j1 / j2
# CPU time over wall time: how many cores a run kept busy on average. Well
# below 1 for -j 1 (or 2 for -j 2) means other work shared the machine.
busy = {j: statistics.median(c / w for c, w in ts) for j, ts in batch_times.items()}
print(f"batch of {files} one-minute FLACs, median wall time of {batch_runs}:")
print(f"  -j 1: {j1:.3f} s ({busy[1]:.2f} cores busy)  -j 2: {j2:.3f} s "
      f"({busy[2]:.2f} cores busy)  speed-up {speedup:.2f}")
print(f"  control, the same files through 1 flac process and through 2 side by side: "
      f"{statistics.median(control[1]):.3f} s / {statistics.median(control[2]):.3f} s, "
      f"speed-up {control_speedup:.2f}")

print()
print("==== summary ====")
print(f"flac -5 ratio: {cpu_ratio:.2f} (target <= 1.05)  [cpu; wall {wall_ratio:.2f}]")
print(f"batch speed-up -j2: {speedup:.2f} (target >= 1.8)  "
      f"[{os.cpu_count()} cores; two flac processes reached {control_speedup:.2f}]")
PY
echo "load after: $(uptime)"
