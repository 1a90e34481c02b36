# The preamble the benchmark scripts share; each sources this file after
# changing to the top of the tree.

# bench_args DEFAULT_REPS "$@": reads [--no-build] [REPETITIONS] into $build
# and $reps.
bench_args() {
  local default=$1
  shift
  build=1
  if [ "${1:-}" = "--no-build" ]; then
    build=0
    shift
  fi
  reps=${1:-$default}
}

# bench_require NAME TOOL...: stops with status 2 when a tool is missing.
bench_require() {
  local name=$1 tool
  shift
  for tool in "$@"; do
    if ! command -v "$tool" >/dev/null; then
      echo "$name: '$tool' is missing (bash scripts/setup.sh installs it)" >&2
      exit 2
    fi
  done
}

# bench_velvox NAME [BUILD-COMMAND...]: builds (scripts/build.sh unless a
# command is given) when --no-build was not passed, then sets $root and
# $velvox, stopping with status 2 when the program is not there.
bench_velvox() {
  local name=$1
  shift
  if [ "$build" = 1 ]; then
    if [ $# -gt 0 ]; then
      "$@" >/dev/null
    else
      bash scripts/build.sh >/dev/null
    fi
  fi
  root=$PWD
  velvox=$root/build/velvox
  if [ ! -x "$velvox" ]; then
    echo "$name: $velvox is missing (run scripts/build.sh)" >&2
    exit 2
  fi
}

# bench_private_folders DIR: the run's own preferences, data and temporary
# folders under DIR, so that a user's saved formats or naming scheme cannot
# change what is measured; the temporary folder sits on the output's file
# system, as it normally does, so moving a finished file into place is a
# rename.
bench_private_folders() {
  mkdir -p "$1/config" "$1/data" "$1/tmp"
  export XDG_CONFIG_HOME=$1/config XDG_DATA_HOME=$1/data TMPDIR=$1/tmp
}

# bench_work NAME: $work, a fresh folder under build/ that goes when the
# script ends, holding the run's private folders.
bench_work() {
  work=$(mktemp -d "$root/build/$1.XXXXXX")
  trap 'rm -rf "$work"' EXIT
  bench_private_folders "$work"
}

# bench_chord_loop DIR SECONDS CHORD...: DIR/loop.wav, one segment of
# SECONDS per chord ("A2 E3 C#4"): plucked strings over a faint pink-noise
# floor, slightly different in each channel, normalised to -1 dB. It
# compresses like recorded music, where a pure tone would make an encoder's
# work trivially cheap.
bench_chord_loop() {
  local dir=$1 seconds=$2 chord low mid high i=0
  shift 2
  local segments=()
  for chord in "$@"; do
    i=$((i + 1))
    read -r low mid high <<<"$chord"
    # Five generated channels (three strings, two noises) mixed to stereo.
    sox -R -r 44100 -c 5 -n -b 16 -t wavpcm "$dir/seg$i.wav" \
      synth "$seconds" pluck "$low" pluck "$mid" pluck "$high" pinknoise pinknoise \
      remix 1v0.35,2v0.25,3v0.2,4v0.04 1v0.2,2v0.25,3v0.35,5v0.04
    segments+=("$dir/seg$i.wav")
  done
  sox "${segments[@]}" -t wavpcm "$dir/loop.wav" norm -1
}
