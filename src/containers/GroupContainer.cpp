#include "containers/GroupContainer.h"

#include "platform/Diagnostic.h"

namespace qx {

void RecordFilesLeftOut(const std::string& groupPath, const StringList& items) {
  std::string text = "files left out:";
  for (const std::string& item : items) text += "\n" + item;
  diag::Record("files-left-out", groupPath, text);
}

int32_t GroupContainer::SetPath(const std::string& path) {
  path_ = path;
  return 1;
}

std::string GroupContainer::GetGroupFileName() {
  const size_t slash = path_.find_last_of('/');
  return slash == std::string::npos ? path_ : path_.substr(slash + 1);
}

}  // namespace qx
