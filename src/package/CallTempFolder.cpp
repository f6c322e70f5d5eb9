#include "package/CallTempFolder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "platform/Diagnostic.h"
#include "platform/fs.h"

namespace qx {

std::string PrivateTempFolder() {
  const std::string folder = fs::TempFolder() + "QXGrpMgr-" + std::to_string(::getuid()) + "/";
  const std::string native = fs::ToNative(folder);
  if (::mkdir(native.c_str(), 0700) != 0 && errno != EEXIST) {
    diag::Record("temp-folder", folder, std::string("cannot be made: ") + std::strerror(errno));
    return {};
  }
  // Someone else's folder, a link or a folder others may enter would let them plant or read
  // what a call extracts there.
  struct stat st {};
  if (::lstat(native.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::getuid() ||
      (st.st_mode & 077) != 0) {
    diag::Record("temp-folder", folder,
                 "is not a folder of this user's that only this user may enter");
    return {};
  }
  return folder;
}

CallTempFolder::CallTempFolder() {
  const std::string parent = PrivateTempFolder();
  if (parent.empty()) return;
  std::string native = fs::ToNative(parent) + "XXXXXX";
  if (::mkdtemp(native.data()) == nullptr) {
    diag::Record("temp-folder", parent, std::string("no subfolder could be made in it: ") +
                                            std::strerror(errno));
    return;
  }
  native_ = native;
  path_ = fs::FromNative(native) + "/";
}

CallTempFolder::~CallTempFolder() {
  if (native_.empty()) return;
  // remove_all removes links themselves, never what they point at.
  std::error_code ec;
  std::filesystem::remove_all(native_, ec);
}

}  // namespace qx
