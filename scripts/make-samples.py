#!/usr/bin/env python3
"""Writes the sample calculator files of samples/ from the byte layouts, field by field.

Every file here is made by this script; none is taken from a calculator or its software.
Run it again and the output is byte-identical (no clocks, no randomness), so tests can check
that samples/ is what this script makes:

    scripts/make-samples.py [OUTDIR]      (default: samples/ beside this script's folder)
"""
import io
import os
import struct
import sys
import zipfile

MA_SIG = {"MA": b"**QXMA**\x01\x00", "NBX": b"**QXNBX*\x01\x00", "ra": b"**QXNBX*\x08\x00"}
KC_SIG = {"KA": b"**QXKA**\x1a\x0a\x00", "KC": b"**QXKC**\x1a\x0a\x00",
          "KDX": b"**QXKDX*\x1a\x0a\x00"}


def name8(text: bytes) -> bytes:
    assert len(text) <= 8
    return text.ljust(8, b"\x00")


def ma_file(family, default_folder, entries, marker):
    """entries: list of (name, type, attribute, extra, data, member_count or None for a variable)."""
    count = len(entries)
    data_start = 66 + 16 * count
    table = b""
    blocks = b""
    offset = data_start
    for name, vtype, attr, extra, data, members in entries:
        if members is not None:  # folder entry: offset of the data that follows
            table += struct.pack("<I", offset) + name8(name) + bytes([0x1F, 0]) + struct.pack("<H", members)
        else:
            table += struct.pack("<I", offset) + name8(name) + bytes([vtype, attr]) + extra
            blocks += data
            offset += len(data)
    head = MA_SIG[family] + name8(default_folder) + bytes(40) + struct.pack("<H", count)
    size = data_start + len(blocks)
    return head + table + struct.pack("<I", size) + marker + blocks


def kc_entry(family, vtype, name, data):
    h = 13 if family == "KDX" else 11
    # The first two header bytes repeat the data length, as the devices write them; the
    # group test compares the section length against them.
    header = struct.pack("<H", len(data)) + bytes([vtype]) + name8(name) + (b"\x00\x00" if family == "KDX" else b"")
    return struct.pack("<H", h) + header + struct.pack("<H", len(data)) + data


def kc_file(family, entries, comment=b""):
    section = b"".join(kc_entry(family, *e) for e in entries)
    length = len(section) if len(section) < 65536 else 0
    checksum = sum(section) & 0xFFFF
    return KC_SIG[family] + comment.ljust(42, b"\x00") + struct.pack("<H", length) + section + \
        struct.pack("<H", checksum)


def flash_record(name, device, kind, data, variant=0):
    header = bytearray(78)
    header[0:8] = b"**QXFL**"
    header[0x10] = len(name)
    header[0x11:0x11 + len(name)] = name
    header[0x30] = device
    header[0x31] = kind
    header[0x49] = variant
    header[0x4A:0x4E] = struct.pack("<I", len(data))
    return bytes(header) + data


def program_bytes(text: str) -> bytes:
    body = text.encode("ascii")
    return struct.pack("<H", len(body)) + body


SAMPLES = {
    # Single-variable files, MA-style layout: folder name in the header, one variable entry.
    "prog1.map": lambda: ma_file("MA", b"main", [(b"PROG1", 0x12, 0, b"\x00\x00",
                                                  program_bytes("Disp \"HELLO\""), None)], b"\xa5\x5a"),
    "greeting.mas": lambda: ma_file("MA", b"main", [(b"GREETING", 0x0C, 0, b"\x00\x00",
                                                     program_bytes("HI THERE"), None)], b"\xa5\x5a"),
    "area.rap": lambda: ma_file("ra", b"main", [(b"AREA", 0x12, 0, b"\x00\x00",
                                                 program_bytes("Prompt R:Disp 3.14*R*R"), None)],
                                b"\xa5\x5a"),
    # An MA-style group: folder "main" with two variables, folder "work" with one.
    "school.mag": lambda: ma_file("MA", b"", [
        (b"main", 0, 0, b"", b"", 2),
        (b"PROG1", 0x12, 0, b"\x00\x00", program_bytes("Disp \"HELLO\""), None),
        (b"GREETING", 0x0C, 0, b"\x00\x00", program_bytes("HI THERE"), None),
        (b"work", 0, 0, b"", b"", 1),
        (b"L1", 0x04, 0, b"\x00\x00", bytes([3, 0, 1, 2, 3]), None),
    ], b"\x5a\xa5"),
    # Single-variable files, KC-style layout.
    "PROG.kdp": lambda: kc_file("KDX", [(0x05, b"PROG", program_bytes(":Disp 42"))]),
    "A.kcn": lambda: kc_file("KC", [(0x00, b"A", bytes(9))]),
    # A KC-style group of three variables.
    "math.kdg": lambda: kc_file("KDX", [
        (0x05, b"PROG", program_bytes(":Disp 42")),
        (0x00, b"A", bytes(9)),
        (0x01, b"\x5d\x00", bytes([2, 0]) + bytes(18)),
    ]),
    # A flash file with an application and its certificate for the KDX family.
    "Hello.kdk": lambda: flash_record(b"Hello", 0x73, 0x24, bytes(range(64))) +
                         flash_record(b"Hello", 0x73, 0x25, bytes(32)),
    # Not calculator data at all.
    "notes.txt": lambda: b"These are not calculator files.\n",
}


def zip_group() -> bytes:
    buf = io.BytesIO()
    with zipfile.ZipFile(buf, "w", compression=zipfile.ZIP_DEFLATED) as z:
        for name in ("prog1.map", "PROG.kdp"):
            info = zipfile.ZipInfo(name, date_time=(2026, 11, 22, 12, 0, 0))
            info.compress_type = zipfile.ZIP_DEFLATED
            z.writestr(info, SAMPLES[name]())
    return buf.getvalue()


def zip_bytes(members) -> bytes:
    """A zip archive of (name, bytes) members in order, every date fixed; names ending in "/"
    are folder entries (attribute 0x10)."""
    buf = io.BytesIO()
    with zipfile.ZipFile(buf, "w") as z:
        for name, data in members:
            info = zipfile.ZipInfo(name, date_time=(2026, 11, 22, 12, 0, 0))
            if name.endswith("/"):
                info.external_attr = 0x10
            # Small members stored, as the component stores them; larger ones deflated.
            info.compress_type = zipfile.ZIP_STORED if len(data) < 65536 else zipfile.ZIP_DEFLATED
            z.writestr(info, data)
    return buf.getvalue()


def lesson_group() -> bytes:
    """A teacher's lesson: a folder holding an old-style group and a zip-based group, which
    holds an old-style group of its own."""
    extra = zip_bytes([("school.mag", SAMPLES["school.mag"]()), ("notes.txt", SAMPLES["notes.txt"]())])
    return zip_bytes([
        ("unit1/", b""),
        ("unit1/data.kdg", SAMPLES["math.kdg"]()),
        ("unit1/quiz.kdp", SAMPLES["PROG.kdp"]()),
        ("unit1/extra.qxg", extra),
        ("intro.map", SAMPLES["prog1.map"]()),
    ])


def main() -> int:
    here = os.path.dirname(os.path.abspath(__file__))
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "samples")
    os.makedirs(out, exist_ok=True)
    files = {name: make() for name, make in SAMPLES.items()}
    files["mixed.qxg"] = zip_group()
    files["lesson.qxg"] = lesson_group()
    for name, data in sorted(files.items()):
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
