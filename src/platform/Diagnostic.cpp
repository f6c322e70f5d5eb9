#include "platform/Diagnostic.h"

#include <optional>

namespace qx::diag {

namespace {
thread_local std::optional<Diagnostic> current;
}  // namespace

void Record(std::string_view code, std::string_view subject, std::string_view text) {
  if (current) return;
  try {
    current.emplace(Diagnostic{std::string(code), std::string(subject), std::string(text)});
  } catch (...) {
    current.reset();  // out of memory: the call still fails, only without its reason
  }
}

void Clear() { current.reset(); }

const Diagnostic* Current() { return current ? &*current : nullptr; }

std::string Describe() {
  if (!current) return {};
  if (current->subject.empty()) return current->text;
  return current->subject + ": " + current->text;
}

DiagnosticScope::DiagnosticScope() : had_(current.has_value()) {
  if (had_) saved_ = *current;
}

DiagnosticScope::~DiagnosticScope() {
  if (had_)
    current = std::move(saved_);
  else
    current.reset();
}

}  // namespace qx::diag
