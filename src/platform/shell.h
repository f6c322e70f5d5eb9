// Shell change notification. The component tells the shell when it has written a group file;
// on this system nobody listens unless an observer is registered (tests, `qxgroup --verbose`).
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "qxgroupmgr/com.h"

namespace qx::shell {

// Event ids and flags, with the platform's values.
inline constexpr LONG SHCNE_CREATE = 2;
inline constexpr LONG SHCNE_UPDATEDIR = 0x1000;
inline constexpr UINT SHCNF_PATHA = 1;
inline constexpr UINT SHCNF_FLUSHNOWAIT = 0x2000;
// The low byte of the flags says what kind of item the pointers are.
inline constexpr UINT SHCNF_TYPE = 0xFF;

// One notification as an observer sees it. The items are copied out of the caller's pointers:
// for SHCNF_PATHA they are the 1252 paths; for any other item kind, or a null item, they are
// empty and itemNPresent tells whether a pointer was given at all.
struct ChangeEvent {
  LONG eventId = 0;
  UINT flags = 0;
  std::string item1;
  std::string item2;
  bool item1Present = false;
  bool item2Present = false;
};

using Observer = std::function<void(const ChangeEvent&)>;
using ObserverToken = uint64_t;

// Registers an observer; every later notification is delivered to it, on the notifying
// thread, until RemoveObserver. Never returns 0, so 0 can stand for "no observer".
// An empty function is not registered and gives 0.
ObserverToken AddObserver(Observer observer);
// Unregisters; an unknown token is ignored. An observer may remove itself (or another)
// while it is being called; a removed observer is not called for later notifications.
void RemoveObserver(ObserverToken token);

// Delivers the notification to every registered observer, in the order they were added.
// With no observer it does nothing. Observers must not throw; if one does, the exception is
// swallowed and the remaining observers still get the event.
void SHChangeNotify(LONG eventId, UINT flags, const void* item1, const void* item2);

}  // namespace qx::shell
