"""qxgroupmgr: graphing-calculator group files, flash files and content packages from Python,
through the QXGroupMgr module (libqxgroupmgr.so) and its automation objects.

    fm = qxgroupmgr.Dispatch("QXGroupMgr.FileManager")    # late-bound, as scripts always did
    names = fm.ReadContents("school.mag")                   # "main.PROG1.map,..."
    g = qxgroupmgr.Group("school.mag"); g.members           # the same, as a list
"""
from ._com import (ComError, ModuleLoadError, hr_name, S_OK, S_FALSE, E_FAIL, E_NOTIMPL,
                   E_POINTER, E_UNEXPECTED, CLASS_E_CLASSNOTAVAILABLE, REGDB_E_CLASSNOTREG,
                   DISP_E_BADPARAMCOUNT, DISP_E_MEMBERNOTFOUND, DISP_E_TYPEMISMATCH,
                   QX_E_OPEN_FAILED)
from .dispatch import CreateObject, Dispatch, DispatchObject
from .groups import FileInfo, Group, Package, create, split_flash

__version__ = "1.0.0"
