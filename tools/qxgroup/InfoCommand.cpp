// `qxgroup info FILE...`: what each file is, for people who wonder what they have.
#include <cstdio>
#include <utility>

#include "formats/DeviceFamily.h"
#include "formats/GroupKind.h"
#include "platform/CommaList.h"
#include "platform/codepage.h"
#include "platform/fs.h"
#include "qxgroup/Automation.h"
#include "qxgroup/Commands.h"
#include "qxgroup/Json.h"
#include "qxgroup/JsonOutput.h"

namespace qx::cli {

namespace {

// "group of 3 variables", counted from the component's listing; "group" when it gives none.
std::string GroupText(const std::string& path, const char* noun) {
  Bstr names;
  if (Session()->ReadContents(ToBstr(codepage::AnsiToUtf8(path)).get(), names.receive()) != S_OK) {
    TakeErrorDescription();  // `info` says what a file is; why it cannot be listed is not asked
    return "group";
  }
  const size_t n = SplitCommaList(FromBstr(names.get())).size();
  return "group of " + std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

std::string Describe(const std::string& path) {
  const std::string sig = DetectFileSignature(path);
  if (sig == kSigFlash) return "flash file (calculator software records)";
  if (sig == kSigZip) {
    const std::string text = GroupText(path, "member");
    return text == "group" ? "zip archive" : "zip archive, " + text;
  }
  const FamilyInfo* family = FindFamilyBySignature(sig);
  if (family == nullptr) return "not a calculator file (unknown signature)";
  std::string text = std::string(family->name) + " family, ";
  std::optional<bool> group;
  if (family->layout == Layout::MAStyle) {
    text += "MA-style layout, ";
    group = IsMAStyleGroup(path);
  } else {
    text += "KC-style layout, ";
    group = IsKCStyleGroup(path);
  }
  if (!group.has_value()) return text + "truncated header";
  return text + (*group ? GroupText(path, "variable") : std::string("single variable"));
}

}  // namespace

int CmdInfo(const std::vector<std::string>& files) {
  int status = kExitOk;
  // With --json: the array of {"file":...,"info":...} or {"file":...,"error":...,"code":...}.
  std::string json;
  for (const std::string& f : files) {
    JsonObject entry;
    entry.AddString("file", f);
    const std::string path = codepage::Utf8ToAnsi(f);
    const uint32_t attrs = fs::GetAttributes(path);
    const auto [problem, code] =
        attrs == fs::kInvalidAttributes      ? std::pair("no such file", "no-such-file")
        : (attrs & fs::kAttrDirectory)       ? std::pair("is a folder", "is-a-folder")
        : !fs::File::OpenRead(path).IsOpen() ? std::pair("cannot be read", "cannot-read")
                                             : std::pair<const char*, const char*>(nullptr, "");
    if (problem != nullptr) {
      std::fprintf(stderr, "qxgroup: %s: %s\n", f.c_str(), problem);
      status = kExitFailed;
      entry.AddString("error", problem);
      entry.AddString("code", code);
    } else if (Settings().json) {
      entry.AddString("info", Describe(path));
    } else {
      std::printf("%s: %s\n", f.c_str(), Describe(path).c_str());
    }
    json += (json.empty() ? "" : ",") + entry.Str();
  }
  if (Settings().json) PrintJson("{\"files\":[" + json + "]}");
  return status;
}

}  // namespace qx::cli
