#!/usr/bin/env python3
"""Writes a zip quine: an archive whose one member, NAME, is the archive itself, byte for byte.

    zip_quine.py OUT

The member's deflate stream is a program of 5-byte steps: Ln (a stored block: the next n bytes
are output as they stand) and Rn (fixed-Huffman blocks copying the last n bytes output). The
steps print the local header, the steps themselves and then the directory, which is the whole
file; the CRC, which the file holds four times, is a fixed point found by solving over GF(2)."""
import struct, sys, zlib

NAME = b"quine-holds-itself-forever.qxg"  # 30 bytes: the header is 60, so R(65) has a 5-byte form
COMMENT = b"This archive holds itself. " * 5 + b"x" * 20  # 155: the directory is 253, R(258) fits

LENGTHS = [(3, 0), (4, 0), (5, 0), (6, 0), (7, 0), (8, 0), (9, 0), (10, 0), (11, 1), (13, 1),
           (15, 1), (17, 1), (19, 2), (23, 2), (27, 2), (31, 2), (35, 3), (43, 3), (51, 3), (59, 3),
           (67, 4), (83, 4), (99, 4), (115, 4), (131, 5), (163, 5), (195, 5), (227, 5), (258, 0)]
DISTANCES = [(1, 0), (2, 0), (3, 0), (4, 0), (5, 1), (7, 1), (9, 2), (13, 2), (17, 3), (25, 3),
             (33, 4), (49, 4), (65, 5), (97, 5), (129, 6), (193, 6), (257, 7), (385, 7)]

def fixed_block(copies, final):
    """The bits of one fixed-Huffman block that copies (length, distance) pairs."""
    out = []
    put = lambda v, n: out.extend((v >> i) & 1 for i in range(n))             # LSB first
    code = lambda v, n: out.extend((v >> i) & 1 for i in reversed(range(n)))  # Huffman: MSB first
    put(final | 2, 3)
    for length, dist in copies:
        i = max(k for k, (base, _) in enumerate(LENGTHS) if base <= length)
        sym = 257 + i
        code(sym - 256 if sym < 280 else sym - 280 + 0xC0, 7 if sym < 280 else 8)
        put(length - LENGTHS[i][0], LENGTHS[i][1])
        j = max(k for k, (base, _) in enumerate(DISTANCES) if base <= dist)
        code(j, 5)
        put(dist - DISTANCES[j][0], DISTANCES[j][1])
    code(0, 7)  # end of block
    return out

def to_bytes(bits):
    assert len(bits) % 8 == 0
    return bytes(sum(b << i for i, b in enumerate(bits[k:k + 8])) for k in range(0, len(bits), 8))

def R(n, final=False):
    """Copies the last n bytes in exactly 5 bytes: two copies in one block (n <= 20), or one
    copy and an empty block after it (65 and 258)."""
    if n <= 20:
        bits = fixed_block([(n // 2, n), (n - n // 2, n)], final)
    else:
        bits = fixed_block([(n, n)], 0) + fixed_block([], final)
    step = to_bytes(bits)
    assert len(step) == 5, (n, len(step))
    return step

def L(n):
    return struct.pack("<BHH", 0, n, n ^ 0xFFFF)

def build(crc):
    local = lambda size, comp: struct.pack("<IHHHHHIIIHH", 0x04034B50, 20, 0, 8, 0, 0x5021, crc,
                                          comp, size, len(NAME), 0) + NAME
    def steps(p, s):
        u, lp, ls = 5, len(p) + 5, len(s) + 5
        return (L(lp) + p + L(lp) + R(lp) + L(u) + R(lp) + L(u) + L(u) +
                L(4 * u) + R(lp) + L(u) + L(u) + L(4 * u) + R(4 * u) +
                L(4 * u) + R(4 * u) + L(4 * u) + R(4 * u) + L(4 * u) + R(4 * u) +
                L(4 * u) + R(4 * u) + L(0) + L(0) + L(ls) + R(4 * u) + L(0) + L(0) +
                L(ls) + R(ls, True) + s + R(ls, True))
    # Sizes first (they do not depend on the values inside the headers), then the real bytes.
    size_p = 30 + len(NAME)
    size_s = 46 + len(NAME) + 22 + len(COMMENT)
    comp = len(steps(b"\0" * size_p, b"\0" * size_s))
    total = size_p + comp + size_s
    p = local(total, comp)
    s = (struct.pack("<IHHHHHHIIIHHHHHII", 0x02014B50, 20, 20, 0, 8, 0, 0x5021, crc, comp, total,
                     len(NAME), 0, 0, 0, 0, 0x20, 0) + NAME +
         struct.pack("<IHHHHIIH", 0x06054B50, 0, 0, 1, 1, 46 + len(NAME), size_p + comp,
                     len(COMMENT)) + COMMENT)
    return p + steps(p, s) + s

# crc32 is affine in the message: crc(x) = c0 ^ M x. Solve (M ^ I) x = c0 over GF(2).
c0 = zlib.crc32(build(0))
cols = [zlib.crc32(build(1 << i)) ^ c0 for i in range(32)]
rows = [(sum(((cols[j] >> i) & 1) << j for j in range(32)) ^ (1 << i), (c0 >> i) & 1) for i in range(32)]
for col in range(32):
    pivot = next(r for r in range(col, 32) if (rows[r][0] >> col) & 1)
    rows[col], rows[pivot] = rows[pivot], rows[col]
    for r in range(32):
        if r != col and (rows[r][0] >> col) & 1:
            rows[r] = (rows[r][0] ^ rows[col][0], rows[r][1] ^ rows[col][1])
data = build(sum(rows[i][1] << i for i in range(32)))
assert zlib.decompress(data[30 + len(NAME):], -15) == data and zlib.crc32(data) == struct.unpack_from("<I", data, 14)[0]
open(sys.argv[1], "wb").write(data)
