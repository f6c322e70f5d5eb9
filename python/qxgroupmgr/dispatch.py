"""Late binding: `Dispatch(ProgID)` gives an object whose attributes are the automation members,
found with IDispatch::GetIDsOfNames and called with IDispatch::Invoke.

The module serves no type-information objects, so which parameters are [out] comes from the
member descriptions below (as a generated wrapper would carry them); dispids are always asked
of the object. A member missing from the descriptions is still called, with every argument
[in]."""
from __future__ import annotations

import ctypes
import os
from typing import Any, NamedTuple

from . import _com
from ._com import ComError, DISPPARAMS, EXCEPINFO, GUID, VARIANT

DISPATCH_METHOD, DISPATCH_PROPERTYGET, DISPATCH_PROPERTYPUT = 1, 2, 4
DISPID_PROPERTYPUT = -3


class Param(NamedTuple):
    name: str
    type: str   # "str", "int" or "hwnd"
    dir: str    # "in", "out", "inout" or "retval"


class Member(NamedTuple):
    name: str
    kind: str   # "method", "get" or "put"
    params: tuple


def _m(name, kind, *params):
    return Member(name, kind, tuple(Param(*p.split()) for p in params))


FILE_MANAGER = [
    _m("CreateGrpFile", "method", "grpfile str in", "newfiles str in"),
    _m("ExpandGrpFile", "method", "grpfile str in", "destdir str in"),
    _m("ExtractFile", "method", "grpfile str in", "infile str in", "destdir str in"),
    _m("AddFiles", "method", "grpfile str in", "indfiles str in", "bdestFolder str in"),
    _m("ReadContents", "method", "grpfile str in", "indfiles str out"),
    _m("DeleteFile", "method", "grpfile str in", "indfile str in"),
    _m("ExpandFlashFile", "method", "flashfile str in", "destdir str in", "outfiles str inout"),
    _m("UseQXAscii", "method", "bUse int in"),
    _m("DeleteFiles", "method", "grpfile str in", "indfiles str in"),
    _m("GetFile", "method", "grpfile str in", "infile str in", "destdir str in"),
    _m("ReadContentsXml", "method", "grpfile str in", "bIncludeMetaInfo int in",
       "sIncludeSubGrpsPatt str in", "pxmlDir str retval"),
    _m("IsGroup", "get", "grpfile str in", "pVal int retval"),
    _m("SplitPath", "method", "psGrpPath str inout", "psInGrpPath str out"),
    _m("ShowUI", "put", "hWnd hwnd in"),
    _m("DoesPathExist", "get", "sGrpPathWithInPath str in", "pVal int retval"),
]
PACKAGE_INFO = [_m("Filename", "get", "pVal str retval"), _m("Filename", "put", "newVal str in")]
PACKAGE_INFO += [_m(n, "get", "pVal str retval") for n in (
    "Type", "Title", "GradeLevel", "TeachingTime", "Abstract", "Objectives", "LearningTool",
    "Connectivity", "SupportingHardware", "HandHeldApps", "ComputerApps")]
PACKAGE_INFO += [_m("IsQXP", "get", "pVal int retval")]

_DESCRIPTIONS = {
    str(_com.CLSID_FileManager): ("FileManager", FILE_MANAGER),
    str(_com.CLSID_QXPackageInfo): ("QXPackageInfo", PACKAGE_INFO),
}


def text_argument(value: Any, what: str) -> str:
    """A string argument: str or os.PathLike giving str. Bytes and None are refused with the fix."""
    if value is None:
        raise TypeError(f"{what} is None: pass a str (an empty string for none)")
    if isinstance(value, (bytes, bytearray)):
        raise TypeError(f"{what} is bytes: pass a str (decode a bytes path with os.fsdecode)")
    if isinstance(value, os.PathLike):
        value = os.fspath(value)
        if isinstance(value, bytes):
            raise TypeError(f"{what} is a bytes path: pass a str path (os.fsdecode)")
    if not isinstance(value, str):
        raise TypeError(f"{what} must be str or os.PathLike, not {type(value).__name__}")
    return value


def int_argument(value: Any, what: str) -> int:
    if isinstance(value, bool):
        return int(value)
    if not isinstance(value, int):
        raise TypeError(f"{what} must be int, not {type(value).__name__}")
    if not -2**31 <= value < 2**31:
        raise OverflowError(f"{what} = {value} does not fit in a 32-bit integer")
    return value


class _Call:
    """The variants of one Invoke and everything they own, freed on every way out."""

    def __init__(self, module: _com.Module, count: int):
        self.module = module
        self.args = (VARIANT * max(count, 1))()
        self.owned: list[ctypes.c_void_p] = []   # [out] string slots, freed after reading

    def set(self, index: int, value: Any, param: Param | None, what: str) -> ctypes.c_void_p | None:
        v = self.args[index]
        if param is not None and param.dir in ("out", "inout"):
            slot = ctypes.c_void_p(self.module.alloc(text_argument(value, what))
                                   if param.dir == "inout" else None)
            self.owned.append(slot)
            v.vt = _com.VT_BYREF | _com.VT_BSTR
            v.byref = ctypes.addressof(slot)
            return slot
        kind = param.type if param is not None else ("int" if isinstance(value, int) else "str")
        if kind == "str":
            v.bstrVal = self.module.alloc(text_argument(value, what))
            v.vt = _com.VT_BSTR
        elif kind == "hwnd":
            if value is not None and (isinstance(value, bool) or not isinstance(value, int)):
                raise TypeError(f"{what} must be a window handle (int) or None")
            v.vt, v.llVal = _com.VT_I8, value or 0
        else:
            v.vt, v.lVal = _com.VT_I4, int_argument(value, what)
        return None

    def free(self) -> None:
        for v in self.args:
            if v.vt == _com.VT_BSTR:
                self.module.lib.VariantClear(ctypes.byref(v))
        for slot in self.owned:
            self.module.lib.SysFreeString(slot.value)
            slot.value = None


class DispatchObject:
    """An automation object reached through IDispatch. Attribute access calls its members;
    `last_hr` holds the status code of the last call (S_FALSE and other success codes are
    kept there, failures raise ComError)."""

    def __init__(self, module: _com.Module, pointer: int, progid: str, members: list[Member]):
        d = self.__dict__
        d["_module"], d["_ptr"], d["_progid"], d["last_hr"] = module, pointer, progid, _com.S_OK
        d["_members"] = {}
        for m in members:
            d["_members"].setdefault(m.name.lower(), {})[m.kind] = m
        d["_dispids"] = {}
        ptr = pointer
        d["_get_ids"] = _com.vcall(ptr, 5, ctypes.POINTER(GUID), ctypes.POINTER(ctypes.c_void_p),
                                   ctypes.c_uint, ctypes.c_uint32, ctypes.POINTER(ctypes.c_int32))
        d["_invoke"] = _com.vcall(ptr, 6, ctypes.c_int32, ctypes.POINTER(GUID), ctypes.c_uint32,
                                  ctypes.c_uint16, ctypes.POINTER(DISPPARAMS),
                                  ctypes.POINTER(VARIANT), ctypes.POINTER(EXCEPINFO),
                                  ctypes.POINTER(ctypes.c_uint))

    def __del__(self):
        ptr = self.__dict__.pop("_ptr", None)
        if ptr:
            _com.release(ptr)

    def __repr__(self) -> str:
        return f"<Dispatch {self._progid!r} from {self._module.path}>"

    def _dispid(self, name: str) -> int:
        key = name.lower()
        if key not in self._dispids:
            buf = _com.wide(name)
            names = (ctypes.c_void_p * 1)(ctypes.addressof(buf))
            dispid = ctypes.c_int32(-1)
            hr = self._get_ids(ctypes.byref(_com.IID_NULL), names, 1, 0, ctypes.byref(dispid))
            if hr < 0:
                raise AttributeError(f"{self._progid} has no member {name!r} "
                                     f"({_com.hr_name(hr)} from GetIDsOfNames)")
            self._dispids[key] = dispid.value
        return self._dispids[key]

    def _fail(self, hr: int, name: str, excep: EXCEPINFO, arg_err: int, values: list) -> ComError:
        count = len(values)
        module = self._module
        description = ""
        if excep.bstrDescription:
            description = module.read(excep.bstrDescription)
        for field in ("bstrSource", "bstrDescription", "bstrHelpFile"):
            module.lib.SysFreeString(getattr(excep, field))
        if hr == _com.DISP_E_EXCEPTION and excep.scode:
            hr = excep.scode
        description = description or module.error_description()
        hint = ""
        if hr == _com.DISP_E_BADPARAMCOUNT:
            hint = f"{count} argument(s) given: check the member's parameters"
        elif hr == _com.DISP_E_TYPEMISMATCH:
            hint = f"argument {count - arg_err} has the wrong type"
        elif hr == _com.DISP_E_MEMBERNOTFOUND:
            hint = "the member cannot be used that way (a read-only property, or a property " \
                   "that cannot be read)"
        # Long paths keep their start and their file name.
        shown = ", ".join(repr(v) if len(repr(v)) <= 120 else repr(v)[:40] + "..." + repr(v)[-77:]
                          for v in values if v is not None)
        return ComError(hr, f"{self._progid}.{name}({shown})", description, hint)

    def _invoke_member(self, name: str, flags: int, member: Member | None, args: tuple,
                       put_value: Any = None) -> Any:
        if member is not None:
            # A put's value is its last parameter; the others are indexes.
            params = member.params[:-1] if flags == DISPATCH_PROPERTYPUT else member.params
            given = [p for p in params if p.dir in ("in", "inout")]
            required = [p for p in given if p.dir == "in"]
            passed = [p for p in params if p.dir != "retval"]
            if len(args) == len(passed) > len(given):
                # A script ported from one that passed variables for the [out] parameters:
                # those places are only placeholders.
                args = tuple(a for a, p in zip(args, passed) if p.dir != "out")
            elif not len(required) <= len(args) <= len(given):
                names = ", ".join(p.name for p in given) or "no arguments"
                raise TypeError(f"{name}() takes {len(given)} argument(s) ({names}), "
                                f"{len(args)} given")
            args = tuple(args) + ("",) * (len(given) - len(args))
            # [out] parameters are passed by reference without a value from the caller.
            values, it = [], iter(args)
            for p in passed:
                values.append(None if p.dir == "out" else next(it))
        else:
            passed, values = [None] * len(args), list(args)
        dispid = self._dispid(name)
        count = len(values) + (1 if flags == DISPATCH_PROPERTYPUT else 0)
        call = _Call(self._module, count)
        result, excep, arg_err = VARIANT(), EXCEPINFO(), ctypes.c_uint(0)
        try:
            slots = []
            # Arguments travel last first; a put's value is the named DISPID_PROPERTYPUT one.
            for i, (p, value) in enumerate(zip(passed, values)):
                what = f"{name}(): {p.name if p else f'argument {i + 1}'}"
                slots.append(call.set(count - 1 - i, value, p, what))
            named = None
            if flags == DISPATCH_PROPERTYPUT:
                param = member.params[-1] if member is not None else None
                call.set(0, put_value, param, f"{name} value")
                named = (ctypes.c_int32 * 1)(DISPID_PROPERTYPUT)
            params = DISPPARAMS(call.args if count else None,
                                named, count, 1 if named is not None else 0)
            self._module.clear_error()
            hr = self._invoke(dispid, ctypes.byref(_com.IID_NULL), 0, flags, ctypes.byref(params),
                              ctypes.byref(result), ctypes.byref(excep), ctypes.byref(arg_err))
            self.__dict__["last_hr"] = hr
            if hr < 0:
                shown = values + ([put_value] if flags == DISPATCH_PROPERTYPUT else [])
                raise self._fail(hr, name, excep, arg_err.value, shown)
            got = []
            if result.vt == _com.VT_BSTR:
                got.append(self._module.read(result.bstrVal))
            elif result.vt == _com.VT_I4:
                got.append(result.lVal)
            elif result.vt == _com.VT_BOOL:
                got.append(result.boolVal != 0)
            for p, slot in zip(passed, slots):
                if slot is not None:
                    got.append(self._module.read(slot.value))
            return None if not got else got[0] if len(got) == 1 else tuple(got)
        finally:
            self._module.lib.VariantClear(ctypes.byref(result))
            call.free()

    def __getattr__(self, name: str) -> Any:
        if name.startswith("_"):
            raise AttributeError(name)
        kinds = self._members.get(name.lower(), {})
        getter = kinds.get("get")
        if getter is not None and not any(p.dir in ("in", "inout") for p in getter.params):
            return self._invoke_member(getter.name, DISPATCH_PROPERTYGET, getter, ())
        if kinds and "method" not in kinds and getter is None:
            raise AttributeError(f"{self._progid}.{name} can only be set, not read")
        member = kinds.get("method") or getter
        flags = DISPATCH_PROPERTYGET if member is getter and getter else \
            DISPATCH_METHOD | DISPATCH_PROPERTYGET
        self._dispid(member.name if member else name)

        def call(*args):
            return self._invoke_member(member.name if member else name, flags, member, args)
        call.__name__ = member.name if member else name
        return call

    def __setattr__(self, name: str, value: Any) -> None:
        if name.startswith("_") or name == "last_hr":
            raise AttributeError(f"{name} cannot be set on an automation object")
        kinds = self._members.get(name.lower(), {})
        if kinds and "put" not in kinds:
            raise AttributeError(f"{self._progid}.{name} is read-only")
        member = kinds.get("put")
        self._invoke_member(member.name if member else name, DISPATCH_PROPERTYPUT, member, (),
                            put_value=value)


def Dispatch(progid: str) -> DispatchObject:
    """A new automation object by ProgID ("QXGroupMgr.FileManager", "QXGroupMgr.QXPackageInfo")."""
    progid = text_argument(progid, "Dispatch(): progid")
    clsid, module = _com.resolve(progid)
    what, members = _DESCRIPTIONS.get(str(clsid), (progid, []))
    pointer = module.create(clsid, f"{progid} ({what})")
    return DispatchObject(module, pointer, progid, members)


CreateObject = Dispatch   # the name scripts for the original used
