#include "qxgroup/JsonOutput.h"

#include <cstdio>

#include "qxgroup/Json.h"

namespace qx::cli {

std::string JsonArray(const std::vector<std::string>& utf8Items) {
  std::string out = "[";
  for (const std::string& item : utf8Items) {
    if (out.size() > 1) out.push_back(',');
    out += JsonString(item);
  }
  return out + "]";
}

void PrintJson(const std::string& document) { std::printf("%s\n", document.c_str()); }

}  // namespace qx::cli
