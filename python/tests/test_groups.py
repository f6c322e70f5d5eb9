import os
import zipfile

import pytest

import qxgroupmgr as qx
from qxgroupmgr import FileInfo, Group, Package, create, split_flash

from conftest import pending


def test_old_style_group(samples, tmp_path):
    g = create(samples / "s.mag", [samples / "prog1.map", samples / "greeting.mas"])
    assert g.members == ["main.PROG1.map", "main.GREETING.mas"]
    assert g.add(samples / "area.rap") and len(g) == 3
    before = open(g.path, "rb").read()
    assert g.add(samples / "prog1.map", on_duplicate="skip") is False
    with pytest.raises(FileExistsError, match="prog1.map"):
        g.add(samples / "area.rap", samples / "prog1.map", on_duplicate="error")
    assert open(g.path, "rb").read() == before
    assert "main.GREETING.mas" in g and "main.NOPE.mas" not in g
    tree = g.tree()
    assert list(tree) == g.members and all(isinstance(v, FileInfo) and v.size for v in tree.values())
    assert g.tree(elements=True).get("name") == "s.mag"
    out = tmp_path / "out"
    out.mkdir()
    g.get("main.PROG1.map", out)
    g.extract(["main.GREETING.mas"], out)
    assert sorted(os.listdir(out)) == ["main.GREETING.mas", "main.PROG1.map"]
    assert "main.GREETING.mas" not in g.members
    g.delete("main.PROG1.map")
    assert len(g) == 1
    g.expand(out)


def test_names_that_cannot_travel_touch_nothing(samples):
    g = Group(samples / "school.mag")
    before = open(g.path, "rb").read()
    comma = samples / "a,b.map"
    comma.write_bytes((samples / "prog1.map").read_bytes())
    for call, error, message in [
            (lambda: g.add(comma), ValueError, "comma"),
            (lambda: g.add(samples / "\u0100.map"), ValueError, "Windows-1252"),
            (lambda: g.delete("x", "a,b"), ValueError, "comma"),
            (lambda: g.add(os.fsencode(samples / "prog1.map")), TypeError, "os.fsdecode"),
            (lambda: g.add(None), TypeError, "None"),
            (lambda: g.add(samples / "prog1.map", on_duplicate="ask"), ValueError, "--on-duplicate"),
            (lambda: create(samples / "n\u0100.mag", [samples / "prog1.map"]), ValueError, "1252")]:
        with pytest.raises(error, match=message):
            call()
    assert open(g.path, "rb").read() == before
    assert not (samples / "n\u0100.mag").exists()
    with pytest.raises(qx.ComError, match=r"ReadContents\(.*notes.txt.\) failed: E_FAIL"):
        Group(samples / "notes.txt").members


def test_split_flash(samples, tmp_path):
    written = split_flash(samples / "Hello.kdk", tmp_path)
    assert written and all(os.path.isfile(p) and p.startswith(str(tmp_path)) for p in written)


def test_zip_group_with_folders_and_nested_groups(samples, tmp_path):
    g = pending("zip-based groups", 11,
                lambda: create(tmp_path / "lesson.qxg", [samples / "prog1.map"]))
    pending("zip-based groups", 11, lambda: g.members)
    assert g.add(samples / "math.kdg", folder="unit1")
    assert g.members == ["prog1.map", "unit1\\math.kdg"]
    assert "unit1/math.kdg" in g
    tree = g.tree(meta=True)
    assert set(tree["unit1"]["math.kdg"]) == {"PROG.kdp", "A.kdn", "L1.kdl"}
    assert tree["prog1.map"].compressed_size is not None and len(tree["prog1.map"].date) == 8
    assert g.tree(subgroups=None)["unit1"] == {"math.kdg": FileInfo()}
    g.get("unit1/math.kdg", tmp_path)
    assert Group(tmp_path / "math.kdg").members == Group(samples / "math.kdg").members
    assert g.add(samples / "prog1.map", on_duplicate="skip") is False


MANIFEST = """<?xml version="1.0"?>
<manifest xmlns:imsmd="http://www.imsglobal.org/xsd/imsmd_rootv1p2p1"><metadata><imsmd:lom>
<imsmd:general><imsmd:title><imsmd:langstring>Fractions</imsmd:langstring></imsmd:title>
<imsmd:description><imsmd:langstring>Halves and thirds</imsmd:langstring></imsmd:description>
</imsmd:general>
<imsmd:technical><imsmd:requirement>
<imsmd:type><imsmd:value><imsmd:langstring>Learning Tools</imsmd:langstring></imsmd:value></imsmd:type>
<imsmd:name><imsmd:value><imsmd:langstring>Graphing Calculator</imsmd:langstring></imsmd:value></imsmd:name>
</imsmd:requirement></imsmd:technical>
</imsmd:lom></metadata></manifest>
"""


def test_package_metadata(samples, tmp_path):
    path = tmp_path / "fractions.qxp"
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as z:
        z.writestr("imsmanifest.xml", MANIFEST)
        z.write(samples / "prog1.map", "prog1.map")
    info = pending("QXPackageInfo", 12, lambda: qx.Dispatch("QXGroupMgr.QXPackageInfo"))
    pending("packages (zip-based groups)", 11, lambda: setattr(info, "Filename", str(path)))
    assert (info.Title, info.IsQXP, info.Filename) == ("Fractions", 1, str(path))
    with pytest.raises(AttributeError, match="read-only"):
        info.Title = "x"
    p = Package(path)
    assert (p.title, p.abstract, p.learning_tool, p.connectivity) == \
        ("Fractions", "Halves and thirds", "Graphing Calculator", "")
    with pytest.raises(ValueError, match="not a content package"):
        Package(samples / "school.mag")
