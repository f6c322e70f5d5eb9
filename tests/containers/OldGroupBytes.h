// A recording prompt for the old-style group tests; their fields come from support/Bytes.h.
#pragma once

#include <string>
#include <vector>

#include "containers/GroupContainer.h"
#include "support/Bytes.h"

namespace qx::test {

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
