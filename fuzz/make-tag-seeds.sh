#!/usr/bin/env bash
# Makes the seed files of the tag-reading fuzz targets from a sox tone, a
# small picture and the reference taggers:
#   corpus/Metadata/     tagged files of every kind, each behind the byte that
#                        selects its extension (registry order, first claim
#                        first, as MetadataFuzzer.cpp lists them);
#   corpus/AlbumArtwork/ pictures of each type behind a selector byte;
#   corpus/DSFTagFile/   DSF files with and without an ID3v2 tag.
# Usage: fuzz/make-tag-seeds.sh [VELVOX-BINARY]
set -euo pipefail
velvox=$(cd "$(dirname "${1:-build/velvox}")" && pwd)/$(basename "${1:-build/velvox}")
corpus=$(cd "$(dirname "$0")" && pwd)/corpus
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

sox -n -r 8000 -b 16 -c 2 -t wavpcm s.wav synth 0.05 sine 440
sox -n -r 44100 -b 16 -c 1 -t wavpcm m.wav synth 0.08 sine 440
ffmpeg -v error -f lavfi -i color=red:s=4x3 -frames:v 1 cover.png
tags=(-metadata title=Seed -metadata artist=Velvox -metadata album=Corpus -metadata track=3/9
  -metadata date=2024 -metadata genre=Test -metadata comment=Fuzz)

# Files of each kind, tagged by the tools their users tag them with.
flac -s -f -T TITLE=Seed -T ARTIST=Velvox -T TRACKNUMBER=3 --picture=cover.png s.wav -o t.flac
flac -s -f --ogg -T TITLE=Seed s.wav -o t.oga
oggenc -Q -t Seed -a Velvox -N 3 s.wav -o t.ogg
opusenc --quiet --title Seed --artist Velvox --picture cover.png s.wav t.opus
speexenc --title Seed --author Velvox s.wav t.spx 2>/dev/null
lame --quiet --add-id3v2 --tt Seed --ta Velvox --tn 3/9 --ti cover.png s.wav t.mp3
ffmpeg -v error -i s.wav -i cover.png -map 0 -map 1 -c:a aac -c:v copy \
  -disposition:v attached_pic "${tags[@]}" t.m4a
ffmpeg -v error -i s.wav -c:a alac "${tags[@]}" t.caf.m4a && mv t.caf.m4a t-alac.m4a
ffmpeg -v error -i s.wav -c:a wmav2 "${tags[@]}" t.wma
wavpack -q -y -w Title=Seed -w Artist=Velvox s.wav -o t.wv
mpcenc --silent --title Seed --artist Velvox m.wav t.mpc
jmac c2 s.wav t.ape >/dev/null 2>&1
ffmpeg -v error -i s.wav -c:a tta t.tta
ffmpeg -v error -i s.wav -write_bext 1 -metadata description=Seed \
  -metadata originator=Velvox "${tags[@]}" t.wav
sox s.wav t.aiff
/usr/bin/python3 - <<'PY'
import struct
from mutagen.apev2 import APEv2
from mutagen.id3 import ID3, TIT2, TPE1, APIC
from mutagen.aiff import AIFF
from mutagen.wave import WAVE

for name in ("t.ape", "t.tta"):
    tag = APEv2()
    tag["Title"], tag["Artist"], tag["Track"] = "Seed", "Velvox", "3/9"
    tag.save(name)
cover = open("cover.png", "rb").read()
for cls, name in ((AIFF, "t.aiff"), (WAVE, "t-id3.wav")):
    if name == "t-id3.wav":
        open(name, "wb").write(open("s.wav", "rb").read())
    audio = cls(name)
    audio.add_tags()
    audio.tags.add(TIT2(encoding=3, text="Seed"))
    audio.tags.add(TPE1(encoding=3, text="Velvox"))
    audio.tags.add(APIC(encoding=3, mime="image/png", type=3, desc="", data=cover))
    audio.save()

# A CAF file by hand, with every chunk our own code takes apart: 'chan',
# 'info', an Apple Loops 'uuid' and a 'midi' chunk, then the samples.
def chunk(kind, payload):
    return kind + struct.pack(">q", len(payload)) + payload
desc = struct.pack(">d", 8000.0) + b"lpcm" + struct.pack(">IIIII", 2 | 4 | 8, 4, 1, 2, 16)
chan = struct.pack(">III", (101 << 16) | 2, 0, 0)
info = struct.pack(">I", 3) + b"title\0Seed\0artist\0Velvox\0key signature\0C\0"
loops = bytes([0x29, 0x81, 0x92, 0x73, 0xB5, 0xBF, 0x4A, 0xEF,
               0xB7, 0x8D, 0x62, 0xD1, 0xEF, 0x90, 0xBB, 0x2C])
loops += struct.pack(">I", 3) + b"key signature\0Bc\0key type\0minor\0beat count\0" + b"8\0"
midi = (b"MThd\0\0\0\6\0\1\0\1\1\xe0MTrk\0\0\0\x13\0\xffQ\3\7\xa1 \0\xffY\2\0\0\0\xff/\0")
samples = struct.pack(">400h", *[(i * 97) % 4000 - 2000 for i in range(400)])
caf = b"caff" + struct.pack(">HH", 1, 0) + chunk(b"desc", desc) + chunk(b"chan", chan)
caf += chunk(b"info", info) + chunk(b"uuid", loops) + chunk(b"midi", midi)
caf += chunk(b"data", b"\0\0\0\0" + samples)
open("t.caf", "wb").write(caf)

# DSF: header, format and data chunks, then an ID3v2 tag at the metadata offset.
def dsf(tag):
    data = bytes([0x69]) * 4096 * 2
    fmt = b"fmt " + struct.pack("<QIIIIIIQI", 52, 1, 0, 2, 2, 2822400, 1, 4096 * 8, 4096) + b"\0" * 4
    body = fmt + b"data" + struct.pack("<Q", 12 + len(data)) + data
    offset = 28 + len(body) if tag else 0
    return b"DSD " + struct.pack("<QQQ", 28, 28 + len(body) + len(tag), offset) + body + tag
open("plain.dsf", "wb").write(dsf(b""))
id3 = b"ID3\4\0\0\0\0\0\x17TIT2\0\0\0\x05\0\0\3Seed"
open("t.dsf", "wb").write(dsf(id3))
PY

# A ProTracker module with a title, as the decoder seeds make one.
python3 - <<'PY'
m = bytearray(1084)
m[0:4] = b"Seed"
m[20 + 23], m[20 + 25], m[20 + 29] = 16, 64, 16
m[950], m[951] = 1, 127
m[1080:1084] = b"M.K."
m += bytes(1024) + bytes(range(0, 256, 8))
open("t.mod", "wb").write(m)
PY

# The selector byte of each extension: its index among the registry's
# extensions, each counted where it is first claimed.
selector() {
  "$velvox" codecs --json | python3 -c '
import json, sys
seen = []
for row in json.load(sys.stdin):
    for ext in row["extensions"]:
        if ext not in seen:
            seen.append(ext)
print(seen.index(sys.argv[1]))' "$1"
}
byte() { printf "\\x$(printf %02x "$1")"; }

mkdir -p "$corpus/Metadata" "$corpus/AlbumArtwork" "$corpus/DSFTagFile"
for file in t.flac t.oga t.ogg t.opus t.spx t.mp3 t.m4a t-alac.m4a t.wma t.wv t.mpc t.ape \
  t.tta t.wav t-id3.wav t.aiff t.caf t.dsf t.mod; do
  ext=${file##*.}
  { byte "$(selector "$ext")"; cat "$file"; } >"$corpus/Metadata/seed-${file%.*}-$ext"
done
cp plain.dsf t.dsf "$corpus/DSFTagFile/"

# Pictures: even selector bytes take the bytes as picture data, odd ones as
# a pasteboard archive; 2 also asks for the TIFF re-encoding.
for ext in png jpg gif bmp tiff webp; do
  ffmpeg -v error -f lavfi -i color=blue:s=5x3 -frames:v 1 "p.$ext"
  { byte 2; cat "p.$ext"; } >"$corpus/AlbumArtwork/$ext"
done
printf '\001{"artworkType":3,"data":"%s","comments":"Seed"}' "$(base64 -w0 cover.png)" \
  >"$corpus/AlbumArtwork/archive"
