#include "containers/NestedGroup.h"

#include <unistd.h>

#include "containers/ContainerFactory.h"
#include "platform/Diagnostic.h"

namespace qx::nested {

namespace {

struct ThreadState {
  int depth = 0;
  int calls = 0;
  uint64_t copied = 0;  // bytes copied out since the outermost call began
  bool bounded = false;  // a copy was refused by the limits in this outermost call
};

thread_local ThreadState state;

// One level deeper for as long as a nested container is open.
class Level {
 public:
  Level() { ++state.depth; }
  ~Level() { --state.depth; }
  Level(const Level&) = delete;
  Level& operator=(const Level&) = delete;
};

std::string LastPart(const std::string& name) {
  const size_t cut = name.find_last_of('\\');
  return cut == std::string::npos ? name : name.substr(cut + 1);
}

}  // namespace

CallScope::CallScope() {
  if (state.calls++ == 0) {
    state.copied = 0;
    state.bounded = false;
  }
}

CallScope::~CallScope() { --state.calls; }

int Depth() { return state.depth; }

bool BoundReached() { return state.bounded; }

MemberCopy::MemberCopy(std::unique_ptr<VxZipEntry> entry, std::string memberName)
    : entry_(std::move(entry)), member_(std::move(memberName)) {
  if (state.depth >= kMaxDepth) {
    state.bounded = true;
    diag::Record("nesting-too-deep", member_,
                 "groups are nested more than " + std::to_string(kMaxDepth) + " deep here");
    return;
  }
  const uint64_t size = entry_->GetUncompressedSize();
  if (size > kByteBudget - state.copied) {
    state.bounded = true;
    diag::Record("nesting-too-large", member_,
                 "the nested groups of this call would take more than " +
                     std::to_string(kByteBudget >> 20) + " MiB to copy out");
    return;
  }
  if (!work_.IsOpen()) return;
  const std::string name = LastPart(member_);
  // The file is made here first (O_EXCL, no links followed), then filled by the archive.
  const int fd = work_.CreateFile(name);
  if (fd < 0) return;
  ::close(fd);
  state.copied += size;
  if (!entry_->ExtractInto(work_.Path().c_str())) {
    diag::Record("damaged-member", member_, "the nested group cannot be copied out of the archive");
    return;
  }
  file_ = work_.Path() + name;
  ok_ = true;
}

MemberCopy::~MemberCopy() = default;

int32_t MemberCopy::Run(ContainerFactory& factory,
                        const std::function<int32_t(GroupContainer&)>& op) {
  Level level;
  std::unique_ptr<GroupContainer> inner;
  {
    // Whether the member is a group is an answer here, not a failure.
    diag::DiagnosticScope probe;
    inner = factory.CreateContainer(file_);
  }
  if (inner == nullptr) return -1;
  return op(*inner);
}

}  // namespace qx::nested
