#include "platform/ReuseScope.h"

#include <mutex>

namespace qx {

namespace {

std::mutex gLock;
int gDepth = 0;
uint64_t gRun = 0;
uint64_t gCurrent = 0;

}  // namespace

ReuseScope::ReuseScope() {
  std::lock_guard<std::mutex> guard(gLock);
  if (gDepth++ == 0) gCurrent = ++gRun;
}

ReuseScope::~ReuseScope() {
  std::lock_guard<std::mutex> guard(gLock);
  if (--gDepth == 0) gCurrent = 0;
}

uint64_t ReuseScope::Current() {
  std::lock_guard<std::mutex> guard(gLock);
  return gCurrent;
}

}  // namespace qx
