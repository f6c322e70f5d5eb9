// Points the registry store at a file in a fresh folder for one test, so registrations on the
// machine running the tests never answer instead of the built-in classes.
#pragma once

#include <stdlib.h>

#include <string>

#include "support/TempDir.h"

namespace qx::test {

class ScopedRegistry {
 public:
  // `leaf` may name a subfolder, so that the first write also has to create it.
  explicit ScopedRegistry(const std::string& leaf = "registry.reg") : file_(dir_ / leaf) {
    ::setenv("QXGROUPMGR_REGISTRY", file_.c_str(), 1);
  }
  ~ScopedRegistry() { ::unsetenv("QXGROUPMGR_REGISTRY"); }
  ScopedRegistry(const ScopedRegistry&) = delete;
  ScopedRegistry& operator=(const ScopedRegistry&) = delete;

  const TempDir& dir() const { return dir_; }
  const std::string& file() const { return file_; }

 private:
  TempDir dir_;
  std::string file_;
};

}  // namespace qx::test
