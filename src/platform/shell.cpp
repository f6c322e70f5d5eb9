#include "platform/shell.h"

#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace qx::shell {
namespace {

struct Registry {
  std::mutex mutex;
  ObserverToken next = 1;
  // Shared pointers so a notification can call an observer outside the lock while another
  // thread removes it.
  std::map<ObserverToken, std::shared_ptr<Observer>> observers;
};

Registry& TheRegistry() {
  static Registry registry;
  return registry;
}

void CopyItem(UINT flags, const void* item, std::string& text, bool& present) {
  present = item != nullptr;
  if (item != nullptr && (flags & SHCNF_TYPE) == SHCNF_PATHA) text = static_cast<const char*>(item);
}

}  // namespace

ObserverToken AddObserver(Observer observer) {
  if (!observer) return 0;
  try {
    auto shared = std::make_shared<Observer>(std::move(observer));
    Registry& r = TheRegistry();
    std::lock_guard<std::mutex> lock(r.mutex);
    ObserverToken token = r.next++;
    r.observers.emplace(token, std::move(shared));
    return token;
  } catch (...) {
    return 0;
  }
}

void RemoveObserver(ObserverToken token) {
  Registry& r = TheRegistry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.observers.erase(token);
}

void SHChangeNotify(LONG eventId, UINT flags, const void* item1, const void* item2) {
  try {
    Registry& r = TheRegistry();
    std::vector<std::pair<ObserverToken, std::shared_ptr<Observer>>> snapshot;
    {
      std::lock_guard<std::mutex> lock(r.mutex);
      if (r.observers.empty()) return;
      snapshot.assign(r.observers.begin(), r.observers.end());
    }
    ChangeEvent event;
    event.eventId = eventId;
    event.flags = flags;
    CopyItem(flags, item1, event.item1, event.item1Present);
    CopyItem(flags, item2, event.item2, event.item2Present);
    for (const auto& [token, observer] : snapshot) {
      {
        // Skip observers removed by an earlier observer of this same notification.
        std::lock_guard<std::mutex> lock(r.mutex);
        if (r.observers.find(token) == r.observers.end()) continue;
      }
      try {
        (*observer)(event);
      } catch (...) {
      }
    }
  } catch (...) {
    // Out of memory while copying: the notification is lost, as a notification may be.
  }
}

}  // namespace qx::shell
