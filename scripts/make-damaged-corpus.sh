#!/usr/bin/env bash
# Makes a corpus of damaged audio files for the reliability test: a short
# tone encoded by the reference tools into every input family Velvox reads,
# then, from each, truncations at 1 %, 50 % and 99 %, single bit flips in
# the header and in the middle, a zeroed header, and (for the chunked
# containers) chunk sizes that lie: larger than the file, and zero.
#
# OUTDIR/intact/NAME.EXT   the undamaged fixtures
# OUTDIR/damaged/NAME--DAMAGE.EXT
# OUTDIR/manifest.tsv      damaged file, its intact fixture, the damage, and
#                          what the fixture's format can notice:
#                            crc      lossless, with checksums over the audio
#                            plain    lossless, no checksums over the audio
#                            lossy    a lossy codec (a cut changes the last frames)
#                            lossy-crc  the same, in pages or frames with a CRC
#                            module   a tracker module, rendered rather than decoded
# Usage: scripts/make-damaged-corpus.sh OUTDIR
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 OUTDIR" >&2; exit 2; }
mkdir -p "$1/intact" "$1/damaged"
out=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# One second of a stereo chord with a little noise, so that every codec has
# real work to do and every frame differs.
sox -n -r 44100 -b 16 -c 2 -t wavpcm tone.wav synth 1 sine 330 sine 445 \
  synth 1 whitenoise amod 0.5 0.05 gain -3
sox -n -r 48000 -b 16 -c 2 -t wavpcm tone48.wav synth 1 sine 330 sine 445 gain -3
i="$out/intact"
ff() { ffmpeg -v error -y -i tone.wav "$@"; }

flac -s -f tone.wav -o "$i/flac.flac"
flac -s -f --ogg tone.wav -o "$i/oggflac.oga"
sox tone.wav "$i/wav.wav"
sox tone.wav "$i/aiff.aiff"
ff -c:a pcm_s16be "$i/caf.caf"
lame --quiet -b 128 tone.wav "$i/mp3.mp3"
oggenc -Q -q 3 tone.wav -o "$i/vorbis.ogg"
opusenc --quiet tone48.wav "$i/opus.opus"
speexenc tone.wav "$i/speex.spx" 2>/dev/null
wavpack -q -y tone.wav -o "$i/wavpack.wv"
mpcenc --silent tone.wav "$i/musepack.mpc"
jmac c2 tone.wav "$i/ape.ape" >/dev/null 2>&1
ff -c:a tta "$i/tta.tta"
ff -c:a aac -b:a 128k "$i/aac.m4a"
ff -c:a alac "$i/alac.m4a"
ff -c:a wmav2 -b:a 128k "$i/wma.wma"

# DSD: a first-order sigma-delta modulation of a sine, a quarter second at
# 2.8224 MHz, written as DSF (LSB first, 4096-byte blocks per channel) and as
# DSDIFF (MSB first, channels interleaved by byte). A ProTracker module with
# one looped sample and a few notes.
/usr/bin/python3 - "$i" <<'PY'
import math, struct, sys
out = sys.argv[1]
rate, seconds, channels = 2822400, 0.25, 2
count = int(rate * seconds) // 8
def sd(freq, lsb_first):
    data, integ, fb = bytearray(count), 0.0, -1.0
    step = 2 * math.pi * freq / rate
    for b in range(count):
        byte = 0
        for k in range(8):
            integ += 0.5 * math.sin(step * (b * 8 + k)) - fb
            fb = 1.0 if integ >= 0 else -1.0
            if integ >= 0:
                byte |= (1 << k) if lsb_first else (0x80 >> k)
        data[b] = byte
    return bytes(data)
left, right = sd(1000, True), sd(1500, True)
block = 4096
blocks = (count + block - 1) // block
pad = lambda d: d + bytes([0x69] * (blocks * block - len(d)))
left, right = pad(left), pad(right)
data = b"".join(left[k*block:(k+1)*block] + right[k*block:(k+1)*block] for k in range(blocks))
fmt = b"fmt " + struct.pack("<QIIIIIIQI", 52, 1, 0, 2, channels, rate, 1, count * 8, block) + bytes(4)
body = fmt + b"data" + struct.pack("<Q", 12 + len(data)) + data
open(f"{out}/dsf.dsf", "wb").write(b"DSD " + struct.pack("<QQQ", 28, 28 + len(body), 0) + body)

l, r = sd(1000, False), sd(1500, False)
inter = bytes(x for pair in zip(l, r) for x in pair)
def ck(kind, payload):
    return kind + struct.pack(">Q", len(payload)) + payload + (b"\0" if len(payload) % 2 else b"")
prop = b"SND " + ck(b"FS  ", struct.pack(">I", rate)) + ck(b"CHNL", struct.pack(">H", 2) + b"SLFTSRGT")
prop += ck(b"CMPR", b"DSD " + bytes([14]) + b"not compressed" + b"\0")
form = b"DSD " + ck(b"FVER", struct.pack(">I", 0x01050000)) + ck(b"PROP", prop) + ck(b"DSD ", inter)
open(f"{out}/dsdiff.dff", "wb").write(ck(b"FRM8", form))

m = bytearray(1084)
m[0:8] = b"velvox\0\0"
m[20 + 22:20 + 30] = bytes([0, 64, 0, 64, 0, 0, 0, 64])  # 128-byte sample, loop all
m[950], m[951] = 1, 127
m[1080:1084] = b"M.K."
pattern = bytearray(1024)
for row, period in ((0, 428), (16, 381), (32, 339), (48, 320)):
    pattern[row * 16:row * 16 + 4] = bytes([period >> 8 | 0x00, period & 0xFF, 0x10, 0x00])
sample = bytes((int(100 * math.sin(2 * math.pi * k / 32)) & 0xFF) for k in range(128))
open(f"{out}/mod.mod", "wb").write(m + pattern + sample)
PY

# What each fixture's format can notice (see the header).
declare -A kind=([flac]=crc [oggflac]=crc [wav]=plain [aiff]=plain [caf]=plain [mp3]=lossy
  [vorbis]=lossy-crc [opus]=lossy-crc [speex]=lossy-crc [wavpack]=crc [musepack]=lossy
  [ape]=crc [tta]=crc [aac]=lossy [alac]=plain [wma]=lossy [dsf]=plain [dsdiff]=plain
  [mod]=module)

# The damages, written by one Python program over all fixtures.
/usr/bin/python3 - "$out" $(for name in "${!kind[@]}"; do echo "$name=${kind[$name]}"; done) <<'PY'
import os, struct, sys
out = sys.argv[1]
kinds = dict(item.split("=", 1) for item in sys.argv[2:])
manifest = []

def emit(name, ext, damage, data):
    damaged = f"{name}--{damage}.{ext}"
    open(f"{out}/damaged/{damaged}", "wb").write(data)
    manifest.append(f"damaged/{damaged}\tintact/{name}.{ext}\t{damage}\t{kinds[name]}\n")

def flip(data, at, bit):
    data = bytearray(data)
    data[at] ^= 1 << bit
    return bytes(data)

# Offsets of the size fields worth lying in: (field offset, width, byte order).
def size_fields(data):
    fields = []
    def walk(start, end, width, order, header_counted=False):
        at = start
        while at + 4 + width <= end:
            ident = data[at:at + 4]
            size = int.from_bytes(data[at + 4:at + 4 + width], order)
            fields.append((ident.decode("latin-1").strip() or "0", at + 4, width, order))
            if header_counted:  # DSF chunk sizes include their 12-byte header
                at += max(size, 12)
            else:
                at += 4 + width + size + (size & 1 if width == 4 else 0)
    magic = data[:4]
    if magic in (b"RIFF", b"FORM"):
        order = "little" if magic == b"RIFF" else "big"
        fields.append(("form", 4, 4, order))
        walk(12, len(data), 4, order)
    elif magic == b"caff":
        walk(8, len(data), 8, "big")
    elif magic == b"FRM8":
        fields.append(("form", 4, 8, "big"))
        walk(16, len(data), 8, "big")
    elif magic == b"DSD ":
        fields.append(("form", 12, 8, "little"))
        walk(28, len(data), 8, "little", True)
    return [f for f in fields if f[0].lower() in ("form", "data", "ssnd", "dsd")]

for fixture in sorted(os.listdir(f"{out}/intact")):
    name, ext = fixture.rsplit(".", 1)
    data = open(f"{out}/intact/{fixture}", "rb").read()
    n = len(data)
    for percent in (1, 50, 99):
        emit(name, ext, f"trunc{percent:02d}", data[:n * percent // 100])
    emit(name, ext, "fliphead", flip(data, min(21, n - 1), 3))
    emit(name, ext, "flipmid", flip(data, n // 2, 5))
    emit(name, ext, "zerohead", bytes(min(64, n)) + data[64:])
    for ident, at, width, order in size_fields(data):
        label = ident.lower().replace(" ", "")
        emit(name, ext, f"{label}huge", data[:at] + (2 ** (8 * width - 1) - 16).to_bytes(width, order) + data[at + width:])
        emit(name, ext, f"{label}zero", data[:at] + bytes(width) + data[at + width:])

open(f"{out}/manifest.tsv", "w").writelines(manifest)
print(f"{len(os.listdir(out + '/intact'))} fixtures, {len(manifest)} damaged files in {out}")
PY
