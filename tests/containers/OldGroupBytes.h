// Little-endian fields and a recording prompt for the old-style group tests, which assemble
// their expected files field by field.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "containers/GroupContainer.h"

namespace qx::test {

inline std::string Le16(unsigned v) {
  return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8 & 0xFF)};
}
inline std::string Le32(uint32_t v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }

inline std::string Padded(std::string_view text, size_t n) {
  std::string s(text);
  s.resize(n, '\0');
  return s;
}

// Records the reasons asked about and gives one fixed answer.
struct RecordingPrompt {
  std::vector<PromptReason> asked;
  PromptResult answer = PromptSkip;
  static PromptResult Ask(const std::string&, PromptReason r, GroupContainer*, void* ctx) {
    auto* self = static_cast<RecordingPrompt*>(ctx);
    self->asked.push_back(r);
    return self->answer;
  }
};

}  // namespace qx::test
