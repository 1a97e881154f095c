#pragma once
// PathHashMap: an open-addressing hash map keyed by NodePath, for tables that
// are built once and then read many times (the vertices of a topological
// order).
//
// A path carries its hash, and the hash of a prefix follows from the parts
// by NodePath::HashStep, so a lookup of a path or of any of its prefixes
// hashes nothing and makes no path: the walks that cut a path back part by
// part look up each prefix at the cost of one probe. Linear probing with
// deletion by backward shift keeps the table free of tombstones; the load
// stays below 0.65.

#include <algorithm>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include "orvix/graph/node_path.h"
#include "orvix/host/error.h"
#include "orvix/host/hash.h"
#include "orvix/host/result.h"

namespace orvix::nodes {

template <typename T>
class PathHashMap {
 public:
  using Block = NodePath::Block;
  static constexpr size_t INITIAL_SLOTS = 32;

  size_t GetCount() const noexcept { return _count; }
  bool IsEmpty() const noexcept { return _count == 0; }

  // The value of the path with these parts and path hash; null if absent.
  T* Find(Block parts, uint64_t pathHash) noexcept {
    if (_slots.empty()) return nullptr;
    const size_t mask = _slots.size() - 1;
    for (size_t i = MixHash(pathHash) & mask;; i = (i + 1) & mask) {
      Slot& slot = _slots[i];
      if (slot.key.IsNull()) return nullptr;
      if (slot.hash == pathHash && SameParts(slot.key.ToBlock(), parts)) return &slot.value;
    }
  }
  const T* Find(Block parts, uint64_t pathHash) const noexcept {
    return const_cast<PathHashMap*>(this)->Find(parts, pathHash);
  }
  T* Find(const NodePath& path) noexcept { return Find(path.ToBlock(), path.GetHashCode()); }
  const T* Find(const NodePath& path) const noexcept {
    return Find(path.ToBlock(), path.GetHashCode());
  }

  // The value of `path`, inserted as `value` if absent; the bool tells
  // whether it is new. Out of memory leaves the map as it was.
  Result<std::pair<T*, bool>> Insert(const NodePath& path, T value) {
    if (T* found = Find(path)) return std::pair<T*, bool>(found, false);
    if ((_count + 1) * 100 > _slots.size() * 65) ORVIX_TRY(Grow());
    const size_t mask = _slots.size() - 1;
    size_t i = MixHash(path.GetHashCode()) & mask;
    while (!_slots[i].key.IsNull()) i = (i + 1) & mask;
    _slots[i].key = path;
    _slots[i].hash = path.GetHashCode();
    _slots[i].value = std::move(value);
    ++_count;
    return std::pair<T*, bool>(&_slots[i].value, true);
  }

  // Takes the entry of `path` out; false if there was none.
  bool Erase(const NodePath& path) noexcept {
    if (_slots.empty()) return false;
    const size_t mask = _slots.size() - 1;
    size_t i = MixHash(path.GetHashCode()) & mask;
    for (;; i = (i + 1) & mask) {
      if (_slots[i].key.IsNull()) return false;
      if (_slots[i].hash == path.GetHashCode() && _slots[i].key == path) break;
    }
    // Backward shift: move later entries of the run into the hole when their
    // home slot lies at or before it, so that no probe stops early.
    for (size_t j = (i + 1) & mask;; j = (j + 1) & mask) {
      if (_slots[j].key.IsNull()) break;
      const size_t home = MixHash(_slots[j].hash) & mask;
      if (((j - home) & mask) >= ((j - i) & mask)) {
        _slots[i] = std::move(_slots[j]);
        i = j;
      }
    }
    _slots[i] = Slot();
    --_count;
    return true;
  }

  void Clear() noexcept {
    _slots.clear();
    _count = 0;
  }

  // Calls `f(const NodePath&, T&)` for every entry, in no particular order.
  template <typename F>
  void ForEach(F&& f) {
    for (Slot& slot : _slots) {
      if (!slot.key.IsNull()) f(slot.key, slot.value);
    }
  }

 private:
  struct Slot {
    NodePath key;
    uint64_t hash = 0;
    T value{};
  };

  static bool SameParts(Block a, Block b) noexcept {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
  }

  Result<void> Grow() {
    std::vector<Slot> old;
    try {
      old.swap(_slots);
      _slots.resize(old.empty() ? INITIAL_SLOTS : old.size() * 2);
    } catch (const std::bad_alloc&) {
      _slots.swap(old);
      return OutOfMemoryError();
    }
    const size_t mask = _slots.size() - 1;
    for (Slot& slot : old) {
      if (slot.key.IsNull()) continue;
      size_t i = MixHash(slot.hash) & mask;
      while (!_slots[i].key.IsNull()) i = (i + 1) & mask;
      _slots[i] = std::move(slot);
    }
    return Ok();
  }

  std::vector<Slot> _slots;
  size_t _count = 0;
};

}  // namespace orvix::nodes
