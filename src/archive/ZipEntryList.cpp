#include "archive/ZipEntryList.h"

#include <algorithm>
#include <atomic>
#include <iterator>

#include "platform/Diagnostic.h"

namespace qx::zip {

namespace {

// Serials are unique among every entry made in the process, so a handle never finds a record
// that took its entry's place.
std::atomic<uint64_t> g_nextSerial{1};

// A walk costs about a twentieth of building the index, so a few walks before it keep every
// sequence of look-ups linear and the short ones cheap.
constexpr int kWalksBeforeIndex = 4;

}  // namespace

uint64_t NewSerial() { return g_nextSerial.fetch_add(1, std::memory_order_relaxed); }

void ArchiveState::Fail(std::string_view code, const std::string& message,
                        const std::string& where) {
  diag::Record(code, path, where.empty() ? message : message + " (" + where + ")");
  Log(message);
}

Record* ArchiveState::Find(uint64_t serial) {
  const auto it = bySerial.find(serial);
  return it == bySerial.end() ? nullptr : &*it->second;
}

void ArchiveState::Add(Record record) {
  const uint64_t serial = record.serial;
  record.slot = slots.size();
  if (namesIndexed) {
    byNormalName[NormalNameOfStored(record)].push_back(serial);
    byStoredName[record.name].push_back(serial);
  }
  records.push_back(std::move(record));
  const auto it = std::prev(records.end());
  bySerial.emplace(serial, it);
  slots.push_back(it);
  // A new last node covers the slots (i - lowbit(i), i]: its own 1 plus the live count of
  // the nodes below it.
  const size_t i = slots.size();
  uint32_t covered = 1;
  for (size_t j = i - 1, stop = i - (i & (~i + 1)); j > stop; j -= j & (~j + 1))
    covered += liveTree[j - 1];
  liveTree.push_back(covered);
}

void ArchiveState::Remove(uint64_t serial) {
  const auto found = bySerial.find(serial);
  if (found == bySerial.end()) return;
  const Record& r = *found->second;
  const auto forget = [serial](NameIndex& index, const std::string& key) {
    const auto at = index.find(key);
    if (at == index.end()) return;
    std::erase(at->second, serial);
    if (at->second.empty()) index.erase(at);
  };
  if (namesIndexed) {
    forget(byNormalName, NormalNameOfStored(r));
    forget(byStoredName, r.name);
  }
  for (size_t i = r.slot + 1; i <= liveTree.size(); i += i & (~i + 1)) --liveTree[i - 1];
  records.erase(found->second);
  bySerial.erase(found);
}

void ArchiveState::Drop() {
  records.clear();
  bySerial.clear();
  byNormalName.clear();
  byStoredName.clear();
  namesIndexed = false;
  nameWalks = 0;
  slots.clear();
  liveTree.clear();
  comment.clear();
  file.Close();
  hasList = false;
}

void ArchiveState::Reserve(size_t n) {
  bySerial.reserve(n);
  slots.reserve(n);
  liveTree.reserve(n);
}

void ArchiveState::CompactSlots() {
  slots.clear();
  liveTree.clear();
  for (auto it = records.begin(); it != records.end(); ++it) {
    it->slot = slots.size();
    slots.push_back(it);
    // Every slot is live: node i covers (i - lowbit(i), i].
    const size_t i = slots.size();
    liveTree.push_back(static_cast<uint32_t>(i & (~i + 1)));
  }
}

void ArchiveState::IndexNames() {
  if (namesIndexed) return;
  byNormalName.reserve(records.size());
  byStoredName.reserve(records.size());
  for (const Record& r : records) {
    byNormalName[NormalNameOfStored(r)].push_back(r.serial);
    byStoredName[r.name].push_back(r.serial);
  }
  namesIndexed = true;
}

Record* ArchiveState::FindByName(const std::string& given) {
  const std::string normal = NormalNameOfGiven(given);
  if (!namesIndexed && nameWalks < kWalksBeforeIndex) {
    ++nameWalks;
    for (Record& r : records)
      if (NormalNameIs(r, normal)) return &r;
    for (Record& r : records)
      if (r.name == given) return &r;
    return nullptr;
  }
  IndexNames();
  for (const auto* index : {&byNormalName, &byStoredName}) {
    const auto found = index->find(index == &byNormalName ? normal : given);
    if (found != index->end()) return Find(found->second.front());
  }
  return nullptr;
}

Record* ArchiveState::AtIndex(size_t index) {
  if (index >= records.size()) return nullptr;
  // Descends the tree to the first slot with index + 1 live slots up to it.
  size_t pos = 0;
  size_t rest = index + 1;
  size_t step = 1;
  while (step * 2 <= liveTree.size()) step *= 2;
  for (; step > 0; step /= 2) {
    if (pos + step <= liveTree.size() && liveTree[pos + step - 1] < rest) {
      pos += step;
      rest -= liveTree[pos - 1];
    }
  }
  return pos < slots.size() ? &*slots[pos] : nullptr;
}

}  // namespace qx::zip
