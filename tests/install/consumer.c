/* A program that knows the component only through its installed headers and module:
 * prints the members of the group named on the command line, one a line. */
#include <stdio.h>
#include <string.h>

#include "qxgroupmgr/QXGroupMgr.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  IClassFactory* factory = NULL;
  IGroupManager2* fm = NULL;
  if (DllGetClassObject(&CLSID_FileManager, &IID_IClassFactory, (void**)&factory) != S_OK) return 1;
  HRESULT hr = factory->lpVtbl->CreateInstance(factory, NULL, &IID_IGroupManager2, (void**)&fm);
  factory->lpVtbl->Release(factory);
  if (hr != S_OK) return 1;
  OLECHAR path[512];
  size_t n = strlen(argv[1]);
  if (n >= 512) return 2;
  for (size_t i = 0; i <= n; ++i) path[i] = (OLECHAR)(unsigned char)argv[1][i];
  BSTR group = SysAllocString(path), names = NULL;
  hr = fm->lpVtbl->ReadContents(fm, group, &names);
  for (UINT i = 0; hr == S_OK && i < SysStringLen(names); ++i)
    putchar(names[i] == ',' ? '\n' : (char)names[i]);
  putchar('\n');
  SysFreeString(names);
  SysFreeString(group);
  fm->lpVtbl->Release(fm);
  return hr == S_OK ? 0 : 1;
}
