"""Groups, flash files and packages for people who do not think in status codes."""
from __future__ import annotations

import os
import shutil
import tempfile
import xml.etree.ElementTree as ET
from dataclasses import dataclass
from typing import Iterable, Union

from ._com import ComError, S_OK, S_FALSE
from .dispatch import Dispatch, DispatchObject, text_argument

PathType = Union[str, "os.PathLike[str]"]

DEFAULT_SUBGROUPS = "*"   # the module's own list of group extensions


def _travels(value, what: str, *, in_list: bool = False) -> str:
    """The text as the module will see it. Names travel as Windows-1252 text, lists as
    comma-separated text: anything that would change on the way is refused up front."""
    text = text_argument(value, what)
    try:
        text.encode("cp1252")
    except UnicodeEncodeError as e:
        bad = text[e.start:e.end]
        raise ValueError(f"{what} {text!r} holds {bad!r}, which cannot be passed to the module "
                         "(names travel as Windows-1252 text): rename the file") from None
    if in_list and "," in text:
        raise ValueError(f"{what} {text!r} holds a comma, which separates names in the module's "
                         "lists: rename the file")
    return text


def _member(name, what: str, *, in_list: bool) -> str:
    # Folders inside a group are separated by "\"; "/" is accepted as well.
    return _travels(name, what, in_list=in_list).replace("/", "\\")


def _names(names) -> list:
    if isinstance(names, (str, os.PathLike, bytes)) or names is None:
        return [names]
    return list(names)


def _manager() -> DispatchObject:
    return Dispatch("QXGroupMgr.FileManager")


@dataclass(frozen=True)
class FileInfo:
    """A file in a listing; sizes and date are there when the listing carries them."""
    size: int | None = None
    compressed_size: int | None = None
    date: tuple | None = None   # year, month, weekday, day, hour, minute, second, ms


def _tree_dict(element: ET.Element) -> dict:
    out = {}
    for child in element:
        if child.tag == "file":
            a = child.attrib
            out[child.text or ""] = FileInfo(
                int(a["Size"]) if "Size" in a else None,
                int(a["CompSize"]) if "CompSize" in a else None,
                tuple(int(x) for x in a["Date"].split(".")) if "Date" in a else None)
        else:   # "dir" or a nested "group"
            out[child.get("name", "")] = _tree_dict(child)
    return out


class Group:
    """A group file (old-style or zip-based) by path. Nothing is held open between calls."""

    def __init__(self, path: PathType, *, manager: DispatchObject | None = None):
        self.path = _travels(path, "group path")
        self._fm = manager or _manager()

    def __repr__(self) -> str:
        return f"Group({self.path!r})"

    @property
    def members(self) -> list[str]:
        """Member names in the order the group stores them ("\\" between folders)."""
        text = self._fm.ReadContents(self.path)
        return text.split(",") if text else []

    def __iter__(self):
        return iter(self.members)

    def __len__(self) -> int:
        return len(self.members)

    def __contains__(self, name) -> bool:
        name = _member(name, "member name", in_list=False)
        return bool(self._fm.DoesPathExist(self.path + "/" + name))

    def _would_be_named(self, files: list[str], folder: str) -> list[str]:
        """The member name each file gets: added to an empty group of the same kind."""
        names = []
        ext = os.path.splitext(self.path)[1]
        with tempfile.TemporaryDirectory() as tmp:
            for i, f in enumerate(files):
                probe = os.path.join(tmp, f"probe{i}{ext}")
                try:
                    self._fm.CreateGrpFile(probe, f)
                    got = self._fm.ReadContents(probe)
                    if folder and got:
                        # Folders exist in zip-based groups only; there they prefix the name.
                        self._fm.CreateGrpFile(probe, "")
                        self._fm.AddFiles(probe, f, folder)
                        got = self._fm.ReadContents(probe) or got
                except ComError:
                    got = ""   # the group will refuse the file itself
                names.append(got)
        return names

    def add(self, *files: PathType, folder: str | None = None,
            on_duplicate: str = "replace") -> bool:
        """Adds files (to `folder` inside a zip-based group). A member of the same name is
        replaced ("replace"), kept ("skip") or the call raises FileExistsError before anything
        is written ("error"). True when every file was added, False when some were left out."""
        paths = [os.path.abspath(_travels(f, "file", in_list=True)) for f in files]
        dest = _member(folder, "folder", in_list=False) if folder else ""
        if on_duplicate not in ("replace", "skip", "error"):
            raise ValueError(f"on_duplicate={on_duplicate!r}: use 'replace', 'skip' or 'error' "
                             "(to be asked, use `qxgroup add --on-duplicate=ask`)")
        left_out = False
        if on_duplicate != "replace" and paths:
            present = set(self.members)
            named = self._would_be_named(paths, dest)
            clash = [p for p, n in zip(paths, named) if n and n in present]
            if clash and on_duplicate == "error":
                raise FileExistsError(f"{self.path} already holds {', '.join(clash)}")
            left_out = bool(clash)
            paths = [p for p in paths if p not in clash]
            if not paths:
                return False
        self._fm.AddFiles(self.path, ",".join(paths), dest)
        return self._fm.last_hr == S_OK and not left_out

    def delete(self, *names) -> None:
        """Deletes members by name."""
        self._fm.DeleteFiles(self.path, ",".join(_member(n, "member name", in_list=True)
                                                 for n in names))

    def _dest(self, dest: PathType) -> str:
        return _travels(dest, "destination folder")

    def get(self, names, dest: PathType = ".") -> None:
        """Copies members (a name or an iterable of names) into the folder `dest`."""
        d = self._dest(dest)
        for n in [_member(n, "member name", in_list=False) for n in _names(names)]:
            self._fm.GetFile(self.path, n, d)

    def extract(self, names, dest: PathType = ".") -> None:
        """Moves members out into the folder `dest` (copy, then delete from the group)."""
        d = self._dest(dest)
        for n in [_member(n, "member name", in_list=False) for n in _names(names)]:
            self._fm.ExtractFile(self.path, n, d)

    def expand(self, dest: PathType = ".") -> None:
        """Copies every member into the folder `dest`."""
        self._fm.ExpandGrpFile(self.path, self._dest(dest))

    def xml(self, meta: bool = False, subgroups: str | Iterable[str] | None = None) -> str:
        """The XML listing. `subgroups`: None lists groups inside the group as files, "*" opens
        every group file, or patterns such as "*.kdg" (an iterable or ";"-separated)."""
        if subgroups is None:
            pattern = ""
        elif isinstance(subgroups, str):
            pattern = _travels(subgroups, "sub-group pattern")
        else:
            pattern = ";".join(_travels(p, "sub-group pattern") for p in subgroups)
        return self._fm.ReadContentsXml(self.path, 1 if meta else 0, pattern)

    def tree(self, meta: bool = False, subgroups=DEFAULT_SUBGROUPS, *,
             elements: bool = False):
        """The listing as nested dicts (folder or nested group -> dict, file -> FileInfo), or
        as the root `xml.etree` element with `elements=True`. Nested groups are opened."""
        root = ET.fromstring(self.xml(meta, subgroups))
        return root if elements else _tree_dict(root)


def create(path: PathType, files: Iterable[PathType] = ()) -> Group:
    """A new group at `path` holding `files`; an existing file there is replaced. The kind
    follows the extension (.qxg/.qxp zip-based) or else the first file's family."""
    if isinstance(files, (str, bytes, os.PathLike)):
        files = [files]
    paths = [os.path.abspath(_travels(f, "file", in_list=True)) for f in files]
    group = Group(path)
    group._fm.CreateGrpFile(group.path, ",".join(paths))
    return group


def split_flash(path: PathType, dest: PathType = ".") -> list[str]:
    """Splits a flash file into one file per record in `dest`; the paths written."""
    fm = _manager()
    out = fm.ExpandFlashFile(_travels(path, "flash file"), _travels(dest, "destination folder"))
    written = [p for p in out.split(",") if p]
    if fm.last_hr == S_FALSE:
        raise ValueError(f"{path}: a record does not start with the flash signature "
                         f"(written before it: {written})")
    return written


class Package:
    """A content package's metadata as attributes (title, type, grade_level, teaching_time,
    abstract, objectives, learning_tool, connectivity, supporting_hardware, handheld_apps,
    computer_apps). Missing items read as ""."""

    _FIELDS = {"type": "Type", "title": "Title", "grade_level": "GradeLevel",
               "teaching_time": "TeachingTime", "abstract": "Abstract", "objectives": "Objectives",
               "learning_tool": "LearningTool", "connectivity": "Connectivity",
               "supporting_hardware": "SupportingHardware", "handheld_apps": "HandHeldApps",
               "computer_apps": "ComputerApps"}

    def __init__(self, path: PathType):
        self.path = _travels(path, "package path")
        self._info = Dispatch("QXGroupMgr.QXPackageInfo")
        self._info.Filename = self.path
        if self._info.last_hr == S_FALSE or not self._info.IsQXP:
            raise ValueError(f"{self.path} holds no imsmanifest.xml: it is not a content package")

    def __getattr__(self, name: str) -> str:
        member = self._FIELDS.get(name)
        if member is None:
            raise AttributeError(name)
        return getattr(self._info, member)

    def as_dict(self) -> dict:
        return {k: getattr(self, k) for k in self._FIELDS}

    def __repr__(self) -> str:
        return f"Package({self.path!r})"


__all__ = ["Group", "Package", "FileInfo", "create", "split_flash", "ComError"]
