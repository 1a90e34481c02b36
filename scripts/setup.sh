#!/usr/bin/env bash
# Installs everything Velvox needs to build, test and benchmark on Debian 12.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build pkg-config clang-format git
  # codec and platform libraries
  libflac-dev libogg-dev libsndfile1-dev
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev
  libsoxr-dev libglib2.0-dev libtag1-dev libstb-dev
  nlohmann-json3-dev libcli11-dev
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  # independent reference tools the tests use as oracles
  flac ffmpeg sox python3-mutagen
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ "${#missing[@]}" -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
