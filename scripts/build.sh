#!/usr/bin/env bash
# Configures and builds Velvox. Usage: scripts/build.sh [--sanitize | --tsan]
#   default:    build/       (optimised, with debug info)
#   --sanitize: build-asan/  (address + undefined-behaviour sanitizers)
#   --tsan:     build-tsan/  (thread sanitizer)
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build
flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
case "${1:-}" in
  --sanitize)
    dir=build-asan
    flags=(-DCMAKE_BUILD_TYPE=Debug -DVELVOX_SANITIZE=ON -DVELVOX_BUILD_BENCH=OFF) ;;
  --tsan)
    dir=build-tsan
    flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELVOX_TSAN=ON -DVELVOX_BUILD_BENCH=OFF) ;;
esac
if command -v ccache >/dev/null; then
  flags+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
ninja -C "$dir"
