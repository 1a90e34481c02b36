#!/usr/bin/env python3
"""Writes the seed corpus of the DSD file fuzzer (fuzz/corpus/DSDFile/, made at fuzz time):
small DSF and DSDIFF files of the idle pattern and a sigma-delta sine, in
the layouts Velvox reads, plus a few it must refuse."""
import math
import os
import struct

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", "DSDFile")


def sine_bytes(count, lsb_first):
    out = bytearray()
    integ, fb, n = 0.0, -1.0, 0
    for _ in range(count):
        byte = 0
        for k in range(8):
            integ += 0.5 * math.sin(2 * math.pi * 1000 * n / 2822400) - fb
            bit = integ >= 0
            fb = 1.0 if bit else -1.0
            if bit:
                byte |= (1 << k) if lsb_first else (0x80 >> k)
            n += 1
        out.append(byte)
    return bytes(out)


def dsf(channels, rate, samples, block=4096, data=None):
    per_channel = (samples + 7) // 8
    blocks = (per_channel + block - 1) // block
    if data is None:
        data = b"".join(sine_bytes(block, True) for _ in range(blocks * channels))
    head = b"DSD " + struct.pack("<QQQ", 28, 28 + 52 + 12 + len(data), 0)
    fmt = b"fmt " + struct.pack("<QIIIIIIQII", 52, 1, 0, 2 if channels == 2 else 1, channels,
                                rate, 1, samples, block, 0)
    return head + fmt + b"data" + struct.pack("<Q", 12 + len(data)) + data


def dff(channels, rate, bytes_per_channel, compression=b"DSD "):
    name = b"not compressed"
    cmpr = compression + bytes([len(name)]) + name
    prop = b"SND " + b"FS  " + struct.pack(">QI", 4, rate)
    prop += b"CMPR" + struct.pack(">Q", len(cmpr)) + cmpr + (b"\0" if len(cmpr) % 2 else b"")
    ids = b"SLFTSRGT" if channels == 2 else b"C000" * channels
    prop += b"CHNL" + struct.pack(">QH", 2 + len(ids), channels) + ids
    data = sine_bytes(bytes_per_channel * channels, False)
    body = b"DSD " + b"FVER" + struct.pack(">QI", 4, 0x01050000)
    body += b"PROP" + struct.pack(">Q", len(prop)) + prop
    body += b"DSD " + struct.pack(">Q", len(data)) + data
    return b"FRM8" + struct.pack(">Q", len(body)) + body


def main():
    os.makedirs(OUT, exist_ok=True)
    seeds = {
        "mono-64.dsf": dsf(1, 2822400, 4096 * 8),
        "stereo-128-partial.dsf": dsf(2, 5644800, 4096 * 8 + 64),
        "mono-256.dsf": dsf(1, 11289600, 1000),
        "stereo-64.dff": dff(2, 2822400, 600),
        "mono-128.dff": dff(1, 5644800, 900),
        "dst.dff": dff(2, 2822400, 64, b"DST "),
        "stereo-256.dff": dff(2, 11289600, 64),
    }
    for name, data in seeds.items():
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
