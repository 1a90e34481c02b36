#!/usr/bin/env bash
# Generates a small, tagged demo music folder from synthesised tones (all audio
# made here, by sox and flac; tags by metaflac, and by mutagen for the WAVE and
# AIFF files, whose ID3 chunk neither sox nor flac writes).
# Usage: scripts/make-demo.sh [FOLDER]  (default: demo)
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-demo}
studies="$out/Tone Studies"
mkdir -p "$studies" "$out/Surround"

sox -n -r 44100 -b 16 -c 2 "$studies/01 Fifths.wav" synth 4 sine 220 sine 330 fade 0.1 4 0.3
sox -n -r 48000 -b 24 -c 2 "$studies/02 Sweep.aiff" synth 4 sine 100-4000 fade 0.1 4 0.3
sox -n -r 44100 -b 16 -c 1 "$studies/03 Pluck.flac" synth 3 pluck A3 fade 0 3 1
sox -n -r 96000 -b 24 -c 2 "$studies/04 Chord.flac" synth 3 sine 261.63 sine 329.63 gain -3
sox -n -r 48000 -b 24 -c 6 "$out/Surround/5.1 Test.flac" synth 3 sine 200 sine 300 sine 400 \
  sine 50 sine 500 sine 600 gain -6

# Album-wide tags on every track, then each track's own.
album=(--set-tag="ALBUMARTIST=Velvox Ensemble" --set-tag="ARTIST=Velvox Ensemble"
       --set-tag="DATE=2024" --set-tag="GENRE=Electronic")
metaflac --remove-all-tags "${album[@]}" --set-tag="ALBUM=Tone Studies" \
  --set-tag="TITLE=Pluck" --set-tag="TRACKNUMBER=3" --set-tag="TRACKTOTAL=4" \
  "$studies/03 Pluck.flac"
metaflac --remove-all-tags "${album[@]}" --set-tag="ALBUM=Tone Studies" \
  --set-tag="TITLE=Chord" --set-tag="TRACKNUMBER=4" --set-tag="TRACKTOTAL=4" \
  "$studies/04 Chord.flac"
metaflac --remove-all-tags "${album[@]}" --set-tag="ALBUM=Surround" \
  --set-tag="TITLE=5.1 Test" --set-tag="TRACKNUMBER=1" --set-tag="TRACKTOTAL=1" \
  "$out/Surround/5.1 Test.flac"
# flac carries a FLAC source's tags into the Ogg FLAC file it writes.
flac -s -f --ogg "$studies/04 Chord.flac" -o "$studies/04 Chord.oga"
rm "$studies/04 Chord.flac"

# WAVE and AIFF carry their tags in an ID3 chunk; mutagen (python3-mutagen)
# writes it. A python3 without mutagen first on the PATH (a pyenv, a venv) is
# passed over for the system's.
python=""
for candidate in python3 /usr/bin/python3; do
  if command -v "$candidate" >/dev/null && "$candidate" -c 'import mutagen' 2>/dev/null; then
    python=$candidate
    break
  fi
done
if [ -n "$python" ]; then
  "$python" - "$studies" <<'PY'
import sys
from mutagen.aiff import AIFF
from mutagen.id3 import TALB, TCON, TDRC, TIT2, TPE1, TPE2, TRCK
from mutagen.wave import WAVE

folder = sys.argv[1]
for kind, name, title, number in ((WAVE, "01 Fifths.wav", "Fifths", "1/4"),
                                  (AIFF, "02 Sweep.aiff", "Sweep", "2/4")):
    audio = kind(f"{folder}/{name}")
    if audio.tags is None:
        audio.add_tags()
    for frame in (TIT2(encoding=3, text=title), TRCK(encoding=3, text=number),
                  TALB(encoding=3, text="Tone Studies"), TPE1(encoding=3, text="Velvox Ensemble"),
                  TPE2(encoding=3, text="Velvox Ensemble"), TDRC(encoding=3, text="2024"),
                  TCON(encoding=3, text="Electronic")):
        audio.tags.add(frame)
    audio.save()
PY
else
  echo "make-demo: python3-mutagen is missing; the WAVE and AIFF files stay untagged" >&2
fi
echo "demo files in $out/"
