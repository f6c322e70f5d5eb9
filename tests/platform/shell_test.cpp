#include "platform/shell.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>
#include <vector>

namespace qx::shell {
namespace {

// Removes the observer when the test ends, pass or fail, so tests do not see each other's.
struct ScopedObserver {
  explicit ScopedObserver(Observer fn) : token(AddObserver(std::move(fn))) {}
  ~ScopedObserver() { RemoveObserver(token); }
  ObserverToken token;
};

TEST(ShellNotify, CopiesItemsByKind) {
  // An id list is no path: the pointer is opaque, so nothing is read through it.
  struct Row { const char* name; LONG eventId; UINT flags; const char *item1, *item2; std::string want1; bool present2; };
  const Row rows[] = {
      {"group written", SHCNE_UPDATEDIR, SHCNF_PATHA | SHCNF_FLUSHNOWAIT, "/g/a.qxg", nullptr, "/g/a.qxg", false},
      {"1252 bytes kept", SHCNE_CREATE, SHCNF_PATHA, "/g/caf\xE9.qxg", "/g/x", "/g/caf\xE9.qxg", true},
      {"id list", SHCNE_UPDATEDIR, 0, "opaque", nullptr, "", false},
  };
  std::vector<ChangeEvent> seen;
  ScopedObserver observer([&](const ChangeEvent& e) { seen.push_back(e); });
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    seen.clear();
    SHChangeNotify(row.eventId, row.flags, row.item1, row.item2);
    ASSERT_EQ(seen.size(), 1u);
    const ChangeEvent& e = seen[0];
    EXPECT_EQ(std::tuple(e.eventId, e.flags, e.item1, e.item1Present, e.item2Present),
              std::tuple(row.eventId, row.flags, row.want1, true, row.present2));
  }
}

TEST(ShellNotify, ObserverMayRemoveObserversWhileCalled) {
  std::vector<int> calls;
  ObserverToken self = 0, later = 0;
  self = AddObserver([&](const ChangeEvent&) {
    calls.push_back(1);
    RemoveObserver(self);
    RemoveObserver(later);
  });
  ScopedObserver throws([&](const ChangeEvent&) { calls.push_back(2); throw std::runtime_error("x"); });
  later = AddObserver([&](const ChangeEvent&) { calls.push_back(3); });
  ScopedObserver last([&](const ChangeEvent&) { calls.push_back(4); });

  SHChangeNotify(SHCNE_CREATE, SHCNF_PATHA, "g", nullptr);
  // In the order added; the removed later observer is not called; the throwing one does not
  // stop the last.
  EXPECT_EQ(calls, (std::vector<int>{1, 2, 4}));
  RemoveObserver(self);  // twice is harmless
  calls.clear();
  SHChangeNotify(SHCNE_CREATE, SHCNF_PATHA, "g", nullptr);
  EXPECT_EQ(calls, (std::vector<int>{2, 4}));
  EXPECT_EQ(AddObserver(Observer()), 0u);
}

}  // namespace
}  // namespace qx::shell
