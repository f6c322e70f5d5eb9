// A fresh folder under the system temporary folder for one test, removed with what it holds.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include <stdlib.h>

namespace qx::test {

class TempDir {
 public:
  TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "qxtest-XXXXXX").string();
    path_ = ::mkdtemp(tmpl.data()) ? tmpl : std::string();
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The folder, without a final '/'.
  const std::string& path() const { return path_; }
  // path()/name
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

  // Writes `bytes` to path()/name and returns the full path.
  std::string Write(std::string_view name, std::string_view bytes) const {
    const std::string full = *this / name;
    std::ofstream(full, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return full;
  }

 private:
  std::string path_;
};

// The whole file as bytes; empty when it cannot be read.
inline std::string ReadFileBytes(const std::string& path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

}  // namespace qx::test
