/* Loads the module with dlopen as a host does, works both classes and the registry store, and
 * unloads it once DllCanUnloadNow allows; LeakSanitizer then checks the unload freed what the
 * module kept. The work runs on a thread that ends first: until it ends it holds the module.
 *   unload MODULE SAMPLES_DIR REGISTRY_FILE */
#define _GNU_SOURCE /* RTLD_NOLOAD, setenv */
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qxgroupmgr/QXGroupMgr.h"

#define FAIL(...) do { fprintf(stderr, __VA_ARGS__); fputc('\n', stderr); return 1; } while (0)

static void* module;
static void* Symbol(const char* name) { return dlsym(module, name); }
/* Functions through dlsym the way POSIX allows under ISO C: the pointer's bytes are copied.
 * True when the module has the function. */
#define LOAD(fn, name) (memcpy(&(fn), &(void*){Symbol(name)}, sizeof(fn)), (fn) != NULL)
static BSTR (*allocString)(const OLECHAR*);

static const char* samples;

/* The sample group's (ASCII) path as an automation string. */
static BSTR GroupPath(void) {
  char text[4096];
  OLECHAR wide[4096] = {0};
  snprintf(text, sizeof text, "%s/school.mag", samples);
  for (size_t n = 0; text[n] != 0; ++n) wide[n] = (OLECHAR)(unsigned char)text[n];
  return allocString(wide);
}

static int Work(void) {
  HRESULT (*getClassObject)(REFCLSID, REFIID, void**), (*registerServer)(void), (*unregisterServer)(void);
  void (*freeString)(BSTR);
  const IID* iidFactory = Symbol("IID_IClassFactory");
  if (!LOAD(getClassObject, "DllGetClassObject") || !LOAD(registerServer, "DllRegisterServer") ||
      !LOAD(unregisterServer, "DllUnregisterServer") || !LOAD(freeString, "SysFreeString") ||
      !LOAD(allocString, "SysAllocString") || iidFactory == NULL)
    FAIL("the module lacks its entry points");
  if (registerServer() != S_OK || unregisterServer() != S_OK) FAIL("registration failed");

  BSTR path = GroupPath(), xml = NULL, title = NULL;

  IClassFactory* cf = NULL;
  if (getClassObject(Symbol("CLSID_FileManager"), iidFactory, (void**)&cf) != S_OK)
    FAIL("no FileManager class object");
  IGroupManager2* fm = NULL;
  if (cf->lpVtbl->CreateInstance(cf, NULL, Symbol("IID_IGroupManager2"), (void**)&fm) != S_OK)
    FAIL("no FileManager");
  cf->lpVtbl->Release(cf);
  if (fm->lpVtbl->ReadContentsXml(fm, path, 1, NULL, &xml) != S_OK) FAIL("no listing");
  freeString(xml);
  fm->lpVtbl->Release(fm);

  if (getClassObject(Symbol("CLSID_QXPackageInfo"), iidFactory, (void**)&cf) != S_OK)
    FAIL("no QXPackageInfo class object");
  IQXPackageInfo* info = NULL;
  if (cf->lpVtbl->CreateInstance(cf, NULL, Symbol("IID_IQXPackageInfo"), (void**)&info) != S_OK)
    FAIL("no QXPackageInfo");
  cf->lpVtbl->Release(cf);
  if (info->lpVtbl->put_Filename(info, path) != S_FALSE) FAIL("an old-style group is no package");
  if (info->lpVtbl->get_Title(info, &title) != S_OK) FAIL("no title answer");
  freeString(title);
  info->lpVtbl->Release(info);
  freeString(path);
  return 0;
}

static void* Run(void* result) { *(int*)result = Work(); return NULL; }

int main(int argc, char** argv) {
  if (argc != 4) FAIL("usage: unload MODULE SAMPLES_DIR REGISTRY_FILE");
  samples = argv[2];
  setenv("QXGROUPMGR_REGISTRY", argv[3], 1);
  module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (module == NULL) FAIL("cannot load %s: %s", argv[1], dlerror());
  HRESULT (*canUnloadNow)(void);
  if (!LOAD(canUnloadNow, "DllCanUnloadNow")) FAIL("the module lacks DllCanUnloadNow");
  pthread_t worker;
  int failed = 1;
  if (pthread_create(&worker, NULL, Run, &failed) != 0 || pthread_join(worker, NULL) != 0)
    FAIL("cannot run the worker thread");
  if (failed) return 1;

  if (canUnloadNow() != S_OK) FAIL("DllCanUnloadNow refuses after every release");
  if (dlclose(module) != 0) FAIL("dlclose: %s", dlerror());
  if (dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) != NULL) FAIL("the module stayed loaded");
  puts("unload: ok");
  return 0;
}
