#include "platform/path.h"

namespace qx::path {

namespace {

size_t NameStart(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? 0 : slash + 1;
}

}  // namespace

std::string Join(std::string_view folder, std::string_view name) {
  std::string out = WithTrailingSlash(folder);
  out.append(name);
  return out;
}

std::string_view FileName(std::string_view path) { return path.substr(NameStart(path)); }

std::string_view Extension(std::string_view path) {
  const std::string_view name = FileName(path);
  const size_t dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view() : name.substr(dot);
}

std::string_view Stem(std::string_view path) {
  const std::string_view name = FileName(path);
  return name.substr(0, name.size() - Extension(name).size());
}

std::string_view ParentFolder(std::string_view path) { return path.substr(0, NameStart(path)); }

std::string WithTrailingSlash(std::string_view path) {
  std::string out(path);
  if (!out.empty() && out.back() != '/') out.push_back('/');
  return out;
}

}  // namespace qx::path
