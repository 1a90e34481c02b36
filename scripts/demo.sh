#!/usr/bin/env bash
# The main job on a fresh machine: install, build, make the demo set and
# show what Velvox reads from each file.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/build.sh
bash scripts/make-demo.sh demo
find demo -type f | sort | tr '\n' '\0' | xargs -0 build/velvox probe
