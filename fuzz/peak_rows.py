#!/usr/bin/env python3
"""Writes peak_detection seeds: rows cut from simulated waveforms plus hand-made rows.

Layout (little-endian, see tests/support/FuzzPeakDetection.cpp): mode, noise level, samples
per row, rows minus one (4 bytes each), one 2-byte FWFLength per row, then the samples.
Usage: peak_rows.py SIMULATED_ROWS.bin OUT_DIR   (the .bin holds rows of 96 uint16 samples)
"""
import math
import struct
import sys

SAMPLES_PER_SIMULATED_ROW = 96


def seed(mode, noise, per_row, rows, lengths):
    head = struct.pack("<IiII", mode, noise, per_row, len(rows) - 1)
    body = struct.pack("<%dH" % len(lengths), *lengths)
    for row in rows:
        body += struct.pack("<%dH" % len(row), *row)
    return head + body


def gaussian_row(n, echoes, baseline=20, clip=65535):
    row = []
    for i in range(n):
        v = baseline + sum(a * math.exp(-4 * math.log(2) * ((i - p) / w) ** 2) for p, a, w in echoes)
        row.append(min(int(round(v)), clip))
    return row


def main():
    raw, out = sys.argv[1], sys.argv[2]
    data = open(raw, "rb").read()
    n = SAMPLES_PER_SIMULATED_ROW
    sim_rows = [list(struct.unpack_from("<%dH" % n, data, k * 2 * n)) for k in range(4)]
    seeds = {
        "simulated-gaussian": seed(0, 0, n, sim_rows, [n] * 4),
        "simulated-fast-short": seed(1, 0, n, sim_rows, [n, 40, 0, 200]),
        "overlap-nowidth": seed(2, 0, 64, [gaussian_row(64, [(28, 300, 3), (32.5, 250, 3)])], [64]),
        "clipped-noise": seed(0, 15, 64, [gaussian_row(64, [(30, 9000, 4)], clip=1023)] * 2, [64, 64]),
        "many-echoes": seed(0, 0, 128, [gaussian_row(128, [(8 + 12 * k, 200, 3) for k in range(10)])], [128]),
        "empty-rows": seed(1, 0, 0, [[], []], [0, 5]),
    }
    for name, blob in seeds.items():
        open("%s/%s.bin" % (out, name), "wb").write(blob)


main()
