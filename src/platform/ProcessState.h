// One object for the whole process, made on first use and freed when the module is unloaded.
// Unlike a function-local static it is never destroyed behind a late caller's back: a use after
// Release (a host's own static destructor releasing one of our objects at exit) makes a new one.
//
//   ProcessState<Cache> gCache;             // constant-initialised, no destructor of its own
//   gCache.Get().mutex.lock();  ...         // at unload: gCache.Release();
#pragma once

#include <atomic>

namespace qx {

template <class T>
class ProcessState {
 public:
  constexpr ProcessState() = default;
  ProcessState(const ProcessState&) = delete;
  ProcessState& operator=(const ProcessState&) = delete;

  T& Get() {
    T* current = object_.load(std::memory_order_acquire);
    if (current != nullptr) return *current;
    T* made = new T;  // two first uses at once: one wins, the other's copy is dropped
    if (object_.compare_exchange_strong(current, made, std::memory_order_acq_rel)) return *made;
    delete made;
    return *current;
  }

  // Only once nothing uses the object any more (the module is being unloaded).
  void Release() { delete object_.exchange(nullptr, std::memory_order_acq_rel); }

 private:
  std::atomic<T*> object_{nullptr};
};

}  // namespace qx
