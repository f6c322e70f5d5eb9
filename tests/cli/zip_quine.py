#!/usr/bin/env python3
"""zip_quine.py OUT: writes an archive whose one member is the archive itself, byte for byte.

The member's deflate stream is a program of 5-byte steps, Ln (a stored block: output the next n
bytes) and Rn (fixed-Huffman blocks: copy the last n bytes output), that prints the local
header, the program itself and the directory. The CRC, held four times in the file, is a fixed
point of an affine map, found by solving 32 equations over GF(2)."""
import struct, sys, zlib

NAME = b"quine-holds-itself-forever.qxg"  # 30 bytes: header 60, so R(65) has a 5-byte form
COMMENT = b"This archive holds itself. " * 5 + b"x" * 20  # directory 253: R(258) fits too

def bases(count, group, first):  # (base, extra bits) of the deflate length or distance codes
    out = []
    for i in range(count):
        out.append((first, max(0, i // group - 1)))
        first += 1 << out[-1][1]
    return out

LENGTHS, DISTANCES = bases(28, 4, 3) + [(258, 0)], bases(30, 2, 1)

def fixed_block(copies, final):
    bits = []
    put = lambda v, n: bits.extend((v >> i) & 1 for i in range(n))             # LSB first
    code = lambda v, n: bits.extend((v >> i) & 1 for i in reversed(range(n)))  # Huffman codes
    put(final | 2, 3)
    for length, dist in copies:
        i = max(k for k, (b, _) in enumerate(LENGTHS) if b <= length)
        code(i + 1 if i < 23 else i - 23 + 0xC0, 7 if i < 23 else 8)
        put(length - LENGTHS[i][0], LENGTHS[i][1])
        j = max(k for k, (b, _) in enumerate(DISTANCES) if b <= dist)
        code(j, 5)
        put(dist - DISTANCES[j][0], DISTANCES[j][1])
    code(0, 7)
    return bits

def R(n, final=False):  # two copies in one block (n <= 20) or one copy and an empty block
    bits = (fixed_block([(n // 2, n), (n - n // 2, n)], final) if n <= 20 else
            fixed_block([(n, n)], 0) + fixed_block([], final))
    assert len(bits) == 40, n
    return bytes(sum(b << i for i, b in enumerate(bits[k:k + 8])) for k in range(0, 40, 8))

def L(n):
    return struct.pack("<BHH", 0, n, n ^ 0xFFFF)

def program(p, s):
    lp, ls = len(p) + 5, len(s) + 5
    return (L(lp) + p + L(lp) + R(lp) + L(5) + R(lp) + L(5) + L(5) + L(20) + R(lp) + L(5) +
            L(5) + L(20) + R(20) + L(20) + R(20) + L(20) + R(20) + L(20) + R(20) + L(20) + R(20) +
            L(0) + L(0) + L(ls) + R(20) + L(0) + L(0) + L(ls) + R(ls, True) + s + R(ls, True))

def build(crc):
    size_p, size_s = 30 + len(NAME), 46 + len(NAME) + 22 + len(COMMENT)
    comp = len(program(bytes(size_p), bytes(size_s)))
    total = size_p + comp + size_s
    p = struct.pack("<IHHHHHIIIHH", 0x04034B50, 20, 0, 8, 0, 0x5021, crc, comp, total,
                    len(NAME), 0) + NAME
    s = (struct.pack("<IHHHHHHIIIHHHHHII", 0x02014B50, 20, 20, 0, 8, 0, 0x5021, crc, comp, total,
                     len(NAME), 0, 0, 0, 0, 0x20, 0) + NAME +
         struct.pack("<IHHHHIIH", 0x06054B50, 0, 0, 1, 1, 46 + len(NAME), size_p + comp,
                     len(COMMENT)) + COMMENT)
    return p + program(p, s) + s

c0 = zlib.crc32(build(0))
cols = [zlib.crc32(build(1 << i)) ^ c0 for i in range(32)]
rows = [[sum(((cols[j] >> i) & 1) << j for j in range(32)) ^ (1 << i), (c0 >> i) & 1]
        for i in range(32)]
for col in range(32):  # Gauss-Jordan on (M ^ I) x = c0
    pivot = next(r for r in range(col, 32) if (rows[r][0] >> col) & 1)
    rows[col], rows[pivot] = rows[pivot], rows[col]
    for r in range(32):
        if r != col and (rows[r][0] >> col) & 1:
            rows[r] = [rows[r][0] ^ rows[col][0], rows[r][1] ^ rows[col][1]]
data = build(sum(rows[i][1] << i for i in range(32)))
assert zlib.decompress(data[30 + len(NAME):], -15) == data
assert zlib.crc32(data) == struct.unpack_from("<I", data, 14)[0]
open(sys.argv[1], "wb").write(data)
