"""The module's C ABI seen from ctypes: GUIDs, automation strings, VARIANT, calls through
interface tables, and finding and loading libqxgroupmgr.so."""
from __future__ import annotations

import ctypes
import os
import re
import uuid

HRESULT = ctypes.c_int32


def _hr(code: int) -> int:
    """A status code as the signed 32-bit number the module returns."""
    return code - (1 << 32) if code & 0x80000000 else code


S_OK = 0
S_FALSE = 1
E_NOTIMPL = _hr(0x80004001)
E_POINTER = _hr(0x80004003)
E_FAIL = _hr(0x80004005)
E_UNEXPECTED = _hr(0x8000FFFF)
E_INVALIDARG = _hr(0x80070057)
CLASS_E_CLASSNOTAVAILABLE = _hr(0x80040111)
REGDB_E_CLASSNOTREG = _hr(0x80040154)
CO_E_CLASSSTRING = _hr(0x800401F3)
DISP_E_MEMBERNOTFOUND = _hr(0x80020003)
DISP_E_TYPEMISMATCH = _hr(0x80020005)
DISP_E_UNKNOWNNAME = _hr(0x80020006)
DISP_E_EXCEPTION = _hr(0x80020009)
DISP_E_BADPARAMCOUNT = _hr(0x8002000E)
QX_E_OPEN_FAILED = _hr(0x8007006E)

_NAMES = {v: k for k, v in list(globals().items()) if k.isupper() and isinstance(v, int)}


def hr_name(hr: int) -> str:
    """'E_FAIL (0x80004005)', or the bare hex for a code without a name."""
    text = f"0x{hr & 0xFFFFFFFF:08X}"
    return f"{_NAMES[hr]} ({text})" if hr in _NAMES else text


class ComError(Exception):
    """A call through the module answered a failure code. `hr` is the signed status code,
    `member` the member or step that failed, `description` the module's reason when it gave one."""

    def __init__(self, hr: int, member: str, description: str = "", hint: str = ""):
        self.hr = hr
        self.member = member
        self.description = description
        text = f"{member} failed: {hr_name(hr)}"
        if description:
            text += f": {description}"
        if hint:
            text += f"; {hint}"
        super().__init__(text)


class ModuleLoadError(ComError, OSError):
    """The module could not be found or loaded."""


# ---- Layouts -------------------------------------------------------------------------------

class GUID(ctypes.Structure):
    _fields_ = [("Data1", ctypes.c_uint32), ("Data2", ctypes.c_uint16),
                ("Data3", ctypes.c_uint16), ("Data4", ctypes.c_uint8 * 8)]

    @classmethod
    def parse(cls, text: str) -> "GUID":
        u = uuid.UUID(text.strip("{}"))
        f = u.fields
        return cls(f[0], f[1], f[2], (ctypes.c_uint8 * 8)(*u.bytes[8:]))

    def __str__(self) -> str:
        tail = bytes(self.Data4)
        return "{%08X-%04X-%04X-%s-%s}" % (self.Data1, self.Data2, self.Data3,
                                           tail[:2].hex().upper(), tail[2:].hex().upper())


# The fixed identifiers of include/qxgroupmgr/QXGroupMgr.h and com.h.
CLSID_FileManager = GUID.parse("41035C38-1441-4016-B34A-DBE6374ACCF2")
CLSID_QXPackageInfo = GUID.parse("721D5BA1-17A0-418E-84CC-F7C8F403ACEF")
IID_NULL = GUID()
IID_IClassFactory = GUID.parse("00000001-0000-0000-C000-000000000046")
IID_IDispatch = GUID.parse("00020400-0000-0000-C000-000000000046")

VT_EMPTY, VT_I4, VT_BSTR, VT_ERROR, VT_BOOL, VT_VARIANT, VT_I8 = 0, 3, 8, 10, 11, 12, 20
VT_BYREF = 0x4000


class _VariantValue(ctypes.Union):
    _fields_ = [("llVal", ctypes.c_int64), ("lVal", ctypes.c_int32), ("boolVal", ctypes.c_int16),
                ("bstrVal", ctypes.c_void_p), ("byref", ctypes.c_void_p),
                ("record", ctypes.c_void_p * 2)]


class VARIANT(ctypes.Structure):
    _anonymous_ = ("u",)
    _fields_ = [("vt", ctypes.c_uint16), ("r1", ctypes.c_uint16), ("r2", ctypes.c_uint16),
                ("r3", ctypes.c_uint16), ("u", _VariantValue)]


class DISPPARAMS(ctypes.Structure):
    _fields_ = [("rgvarg", ctypes.POINTER(VARIANT)), ("rgdispidNamedArgs", ctypes.POINTER(ctypes.c_int32)),
                ("cArgs", ctypes.c_uint), ("cNamedArgs", ctypes.c_uint)]


class EXCEPINFO(ctypes.Structure):
    _fields_ = [("wCode", ctypes.c_uint16), ("wReserved", ctypes.c_uint16),
                ("bstrSource", ctypes.c_void_p), ("bstrDescription", ctypes.c_void_p),
                ("bstrHelpFile", ctypes.c_void_p), ("dwHelpContext", ctypes.c_uint32),
                ("pvReserved", ctypes.c_void_p), ("pfnDeferredFillIn", ctypes.c_void_p),
                ("scode", ctypes.c_int32)]


def vcall(obj: int, slot: int, *argtypes):
    """The function at `slot` of the interface table of `obj`, callable with obj first."""
    table = ctypes.cast(obj, ctypes.POINTER(ctypes.POINTER(ctypes.c_void_p)))[0]
    proto = ctypes.CFUNCTYPE(HRESULT, ctypes.c_void_p, *argtypes)
    fn = proto(table[slot])
    return lambda *args: fn(obj, *args)


def release(obj: int) -> None:
    if obj:
        table = ctypes.cast(obj, ctypes.POINTER(ctypes.POINTER(ctypes.c_void_p)))[0]
        ctypes.CFUNCTYPE(ctypes.c_uint32, ctypes.c_void_p)(table[2])(obj)


def wide(text: str):
    """A NUL-terminated UTF-16 buffer (OLECHAR is 16 bits; ctypes' wchar is not)."""
    return ctypes.create_string_buffer(text.encode("utf-16-le", "surrogatepass") + b"\0\0")


# ---- The loaded module ---------------------------------------------------------------------

class Module:
    """One loaded libqxgroupmgr.so and the automation functions it exports."""

    def __init__(self, path: str):
        self.path = path
        self.lib = ctypes.CDLL(path)
        lib = self.lib
        lib.DllGetClassObject.restype = HRESULT
        lib.DllGetClassObject.argtypes = [ctypes.POINTER(GUID), ctypes.POINTER(GUID),
                                          ctypes.POINTER(ctypes.c_void_p)]
        lib.SysAllocStringLen.restype = ctypes.c_void_p
        lib.SysAllocStringLen.argtypes = [ctypes.c_char_p, ctypes.c_uint]
        lib.SysFreeString.argtypes = [ctypes.c_void_p]
        lib.SysFreeString.restype = None
        lib.SysStringLen.argtypes = [ctypes.c_void_p]
        lib.SysStringLen.restype = ctypes.c_uint
        lib.VariantClear.argtypes = [ctypes.POINTER(VARIANT)]
        lib.VariantClear.restype = HRESULT
        # Newer modules say why a call failed through an error object; older ones do not.
        self.get_error_info = getattr(lib, "GetErrorInfo", None)
        self.set_error_info = getattr(lib, "SetErrorInfo", None)
        if self.get_error_info is not None:
            self.get_error_info.restype = HRESULT
            self.get_error_info.argtypes = [ctypes.c_uint32, ctypes.POINTER(ctypes.c_void_p)]
        if self.set_error_info is not None:
            self.set_error_info.restype = HRESULT
            self.set_error_info.argtypes = [ctypes.c_uint32, ctypes.c_void_p]

    def clear_error(self) -> None:
        """Drops a reason left by an earlier call, so a failure is never explained by it."""
        if self.set_error_info is not None:
            self.set_error_info(0, None)

    def alloc(self, text: str) -> int:
        data = text.encode("utf-16-le", "surrogatepass")
        bstr = self.lib.SysAllocStringLen(data, len(data) // 2)
        if not bstr:
            raise MemoryError("SysAllocStringLen")
        return bstr

    def read(self, bstr: int) -> str:
        if not bstr:
            return ""
        n = self.lib.SysStringLen(bstr)
        return ctypes.string_at(bstr, 2 * n).decode("utf-16-le", "surrogatepass")

    def take(self, bstr: int) -> str:
        """Reads a string the caller owns and frees it."""
        try:
            return self.read(bstr)
        finally:
            self.lib.SysFreeString(bstr)

    def error_description(self) -> str:
        """The reason the last failing call left in the thread's error object, if any."""
        if self.get_error_info is None:
            return ""
        info = ctypes.c_void_p()
        if self.get_error_info(0, ctypes.byref(info)) != S_OK or not info.value:
            return ""
        try:
            text = ctypes.c_void_p()
            if vcall(info.value, 5, ctypes.POINTER(ctypes.c_void_p))(ctypes.byref(text)) != S_OK:
                return ""
            return self.take(text.value)
        finally:
            release(info.value)

    def create(self, clsid: GUID, what: str) -> int:
        """A new instance of the class, as its IDispatch pointer."""
        factory = ctypes.c_void_p()
        self.clear_error()
        hr = self.lib.DllGetClassObject(ctypes.byref(clsid), ctypes.byref(IID_IClassFactory),
                                        ctypes.byref(factory))
        if hr < 0:
            hint = ("this module does not serve that class yet" if hr == CLASS_E_CLASSNOTAVAILABLE
                    else "")
            raise ComError(hr, f"creating {what} from {self.path}", self.error_description(), hint)
        try:
            obj = ctypes.c_void_p()
            create = vcall(factory.value, 3, ctypes.c_void_p, ctypes.POINTER(GUID),
                           ctypes.POINTER(ctypes.c_void_p))
            hr = create(None, ctypes.byref(IID_IDispatch), ctypes.byref(obj))
            if hr < 0:
                raise ComError(hr, f"creating {what}", self.error_description())
            return obj.value
        finally:
            release(factory.value)


_loaded: dict[str, Module] = {}

MODULE_NAME = "libqxgroupmgr.so.1"
_HELP = ("set QXGROUPMGR_MODULE to the path of libqxgroupmgr.so, install the library "
         "(cmake --install), or register it with `qxgroup register`")


def load_module(path: str) -> Module:
    if path not in _loaded:
        try:
            _loaded[path] = Module(path)
        except (OSError, AttributeError) as e:
            raise ModuleLoadError(E_FAIL, f"loading {path}", str(e), _HELP) from None
    return _loaded[path]


def _beside_package() -> str | None:
    """The library installed together with this package (cmake --install writes _install.py)."""
    try:
        from . import _install  # type: ignore[attr-defined]
    except ImportError:
        return None
    return os.path.normpath(os.path.join(os.path.dirname(__file__), _install.LIBRARY))


def default_module() -> Module:
    """$QXGROUPMGR_MODULE, else the library installed beside this package, else the one the
    dynamic linker finds."""
    tried = []
    env = os.environ.get("QXGROUPMGR_MODULE")
    if env:
        if not os.path.exists(env):
            raise ModuleLoadError(E_FAIL, "loading the module",
                                  f"QXGROUPMGR_MODULE names {env}, which does not exist", _HELP)
        return load_module(env)
    beside = _beside_package()
    if beside and os.path.exists(beside):
        return load_module(beside)
    if beside:
        tried.append(beside)
    try:
        return load_module(MODULE_NAME)
    except ModuleLoadError:
        tried.append(MODULE_NAME + " on the library path")
    raise ModuleLoadError(E_FAIL, "loading the module", "not found (tried " + ", ".join(tried) + ")",
                          _HELP)


# ---- ProgIDs through the registry store -----------------------------------------------------

KNOWN_PROGIDS = {
    "qxgroupmgr.filemanager": CLSID_FileManager, "qxgroupmgr.filemanager.1": CLSID_FileManager,
    "qxgroupmgr.qxpackageinfo": CLSID_QXPackageInfo,
    "qxgroupmgr.qxpackageinfo.1": CLSID_QXPackageInfo,
}


def registry_path() -> str:
    path = os.environ.get("QXGROUPMGR_REGISTRY")
    if path:
        return path
    config = os.environ.get("XDG_CONFIG_HOME") or os.path.join(os.path.expanduser("~"), ".config")
    return os.path.join(config, "qxgroupmgr", "registry.reg")


_QUOTED = re.compile(r'"((?:[^"\\]|\\.)*)"')
_ESCAPES = {"\\\\": "\\", '\\"': '"', "\\n": "\n", "\\r": "\r"}


def read_registry(path: str) -> dict[str, str]:
    """Default values of the store's keys, by lower-case key path below the classes root.
    A missing or unreadable store is an empty one."""
    values: dict[str, str] = {}
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            lines = f.read().splitlines()
    except OSError:
        return values
    key = None
    for line in lines:
        line = line.strip()
        if line.startswith("[") and line.endswith("]"):
            head, _, rest = line[1:-1].partition("\\")
            key = rest.lower() if head.upper() == "HKEY_CLASSES_ROOT" else None
        elif key is not None and line.startswith("@="):
            m = _QUOTED.match(line[2:].strip())
            if m:
                values[key] = re.sub(r"\\.", lambda e: _ESCAPES.get(e.group(0), "?"), m.group(1))
    return values


def resolve(progid: str) -> tuple[GUID, Module]:
    """The class and the module that serve a ProgID: the registry store first, then the
    module's own ProgIDs served by the default module."""
    store = read_registry(registry_path())
    # A version-independent ProgID without a CLSID of its own names its current version; a few
    # hops at most, so a CurVer loop ends.
    name, clsid_text = progid.lower(), None
    for _ in range(4):
        clsid_text = store.get(name + "\\clsid")
        name = store.get(name + "\\curver", "").lower()
        if clsid_text or not name:
            break
    if clsid_text:
        try:
            clsid = GUID.parse(clsid_text)
        except ValueError:
            raise ComError(CO_E_CLASSSTRING, f"Dispatch({progid!r})",
                           f"the registry store {registry_path()} holds a malformed CLSID "
                           f"{clsid_text!r}", "register the module again with `qxgroup register`")
        server = store.get(f"clsid\\{clsid}".lower() + "\\inprocserver32")
        if server:
            try:
                return clsid, load_module(server)
            except ModuleLoadError as e:
                raise ModuleLoadError(e.hr, f"Dispatch({progid!r})",
                                      f"the registered module {server} cannot be loaded: "
                                      f"{e.description}",
                                      "register the module again with `qxgroup register`") from None
        return clsid, default_module()
    clsid = KNOWN_PROGIDS.get(progid.lower())
    if clsid is None:
        known = ", ".join(sorted({"QXGroupMgr.FileManager", "QXGroupMgr.QXPackageInfo"}))
        raise ComError(REGDB_E_CLASSNOTREG, f"Dispatch({progid!r})",
                       f"no such ProgID in the registry store {registry_path()}",
                       f"register its module with `qxgroup register`; this package knows {known}")
    return clsid, default_module()
