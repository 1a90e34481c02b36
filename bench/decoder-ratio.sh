#!/usr/bin/env bash
# Runs the FLAC decoding benchmark and prints Velvox's time as a multiple of
# the bare libFLAC loop's (target: at most 1.05).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh >/dev/null
cd build
json=$(./bench/velvox_bench --benchmark_filter='BM_(BareLibFLAC|VelvoxReadAudio)/10' \
         --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
         --benchmark_format=json)
python3 - "$json" <<'PY'
import json, sys
runs = json.loads(sys.argv[1])["benchmarks"]
median = {b["run_name"]: b["real_time"] for b in runs if b.get("aggregate_name") == "median"}
bare = median["BM_BareLibFLAC/10/min_time:3.000"]
velvox = median["BM_VelvoxReadAudio/10/min_time:3.000"]
print(f"bare libFLAC: {bare:.1f} ms  velvox readAudio: {velvox:.1f} ms  ratio: {velvox / bare:.3f}")
PY
