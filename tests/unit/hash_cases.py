#!/usr/bin/env python3
"""Prints the table of hash_cases.h: MD5 and CRC-32 of files of a fixed pattern.

The digests are those of Python's hashlib and zlib; with a folder as argument, the files are written
there, so that other programs (md5sum, for one) can be asked too.
"""

import hashlib
import pathlib
import sys
import zlib

SIZES = [0, 1, 55, 56, 63, 64, 65, 1023, 1024, 1025, 4095, 4096, 4097, 1_000_003]


def pattern(size: int) -> bytes:
    return bytes((i * 31 + (i >> 8) * 7 + 11) & 0xFF for i in range(size))


for size in SIZES:
    data = pattern(size)
    print(f'    {{{size}, "{hashlib.md5(data).hexdigest()}", 0x{zlib.crc32(data):08X}}},')
    if len(sys.argv) > 1:
        (pathlib.Path(sys.argv[1]) / f"{size}.bin").write_bytes(data)
