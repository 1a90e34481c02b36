#!/usr/bin/env bash
# Configures and builds Velvox. Usage: scripts/build.sh [--sanitize]
#   default:    build/       (optimised, with debug info)
#   --sanitize: build-asan/  (address + undefined-behaviour sanitizers)
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build
flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  flags=(-DCMAKE_BUILD_TYPE=Debug -DVELVOX_SANITIZE=ON -DVELVOX_BUILD_BENCH=OFF)
fi
cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
ninja -C "$dir"
