#!/usr/bin/env bash
# Installs everything Velvox needs to build, test and benchmark on Debian 12.
# Safe to run again: only missing packages are installed. apt's own output
# goes to a log file; this prints a short summary.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build pkg-config clang-format git
  clang-16 libclang-rt-16-dev
  # codec and platform libraries
  libflac-dev libogg-dev libsndfile1-dev
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev
  libvorbis-dev libopus-dev libspeex-dev libspeexdsp-dev libmp3lame-dev
  libwavpack-dev libmpcdec-dev libmodplug-dev
  libsoxr-dev libglib2.0-dev libtag1-dev libstb-dev
  nlohmann-json3-dev libcli11-dev
  # the desktop application and the music library
  qt6-base-dev libmpdclient-dev
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev xvfb xauth xdg-utils dbus-daemon
  # independent reference tools the tests use as oracles
  flac ffmpeg sox lame mpg123 vorbis-tools opus-tools speex
  wavpack musepack-tools libjmac-java mediainfo sndfile-programs
  python3-mutagen mpd mpc
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages already installed"
  exit 0
fi

log=${VELVOX_SETUP_LOG:-${TMPDIR:-/tmp}/velvox-setup.log}
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
echo "setup: installing ${#missing[@]} packages (apt's output: $log)"
if ! { $SUDO apt-get update -qq && \
       $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  echo "setup: apt-get failed; the last lines of $log:" >&2
  tail -20 "$log" >&2
  exit 1
fi
echo "setup: done"
