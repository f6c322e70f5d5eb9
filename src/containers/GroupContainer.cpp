#include "containers/GroupContainer.h"

namespace qx {

int32_t GroupContainer::SetPath(const std::string& path) {
  path_ = path;
  return 1;
}

std::string GroupContainer::GetGroupFileName() {
  const size_t slash = path_.find_last_of('/');
  return slash == std::string::npos ? path_ : path_.substr(slash + 1);
}

}  // namespace qx
