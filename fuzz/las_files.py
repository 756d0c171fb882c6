#!/usr/bin/env python3
"""Writes small hand-made LAS files (versions 1.2 to 1.4, several point formats) as seeds.

Usage: las_files.py OUT_DIR
"""
import struct
import sys

RECORD_LENGTH = {0: 20, 1: 28, 3: 34, 6: 30, 10: 67}
HEADER_SIZE = {2: 227, 3: 235, 4: 375}


def header(minor, fmt, points, scale=0.01, offset=(1000.0, 2000.0, 0.0)):
    size = HEADER_SIZE[minor]
    legacy = points if fmt < 6 else 0
    h = b"LASF" + struct.pack("<HH16sBB", 0, 0, b"\0" * 16, 1, minor)
    h += b"hand-made".ljust(32, b"\0") + b"las_files.py".ljust(32, b"\0")
    h += struct.pack("<HHHIIBHI", 1, 2026, size, size, 0, fmt, RECORD_LENGTH[fmt], legacy)
    h += struct.pack("<5I", legacy, 0, 0, 0, 0)
    h += struct.pack("<3d", scale, scale, scale) + struct.pack("<3d", *offset)
    h += struct.pack("<6d", 1010.0, 1000.0, 2010.0, 2000.0, 50.0, 0.0)
    if minor >= 3:
        h += struct.pack("<Q", 0)
    if minor >= 4:
        h += struct.pack("<QIQ", 0, 0, points) + struct.pack("<15Q", points, *([0] * 14))
    assert len(h) == size, (minor, len(h))
    return h


def points(fmt, count):
    body = b""
    for k in range(count):
        record = struct.pack("<3i", 100 * k, 50 * k, 1000 + 7 * k)
        body += record.ljust(RECORD_LENGTH[fmt], b"\1")
    return body


def main():
    out = sys.argv[1]
    for name, (minor, fmt, count) in {
        "v12-format0": (2, 0, 3),
        "v12-format1": (2, 1, 2),
        "v13-format3": (3, 3, 2),
        "v14-format6": (4, 6, 3),
        "v14-format10": (4, 10, 1),
    }.items():
        open("%s/%s.las" % (out, name), "wb").write(header(minor, fmt, count) + points(fmt, count))


main()
