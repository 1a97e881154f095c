#pragma once
// SortedTable: a small table of records keyed by an InternedId, kept in the
// order of the ids' strings (a null id first).
//
// Bulk code may append without keeping the order; the table then remembers
// that it isn't sorted, and the next write through the table sorts it. Bulk
// code must call Sort() before its modification ends: the child walk reports
// children in storage order, which is id order only for a sorted table. A const
// search never sorts: a frozen record is read by many threads, so an unsorted
// table is searched linearly instead. A search of a sorted table is a binary
// search that takes a pointer-equal id as a hit before it reads any string.

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "orvix/host/interned_id.h"

namespace orvix::nodes {

// Record: any type with a member `InternedId id`.
template <typename Record>
class SortedTable {
 public:
  SortedTable() = default;

  size_t GetCount() const noexcept { return _records.size(); }
  bool IsEmpty() const noexcept { return _records.empty(); }
  bool IsSorted() const noexcept { return _sorted; }

  // Storage order: id order when IsSorted().
  const Record* begin() const noexcept { return _records.data(); }
  const Record* end() const noexcept { return _records.data() + _records.size(); }
  const Record& operator[](size_t index) const noexcept { return _records[index]; }

  // The record of `id`, or null. Never sorts.
  const Record* Find(InternedId id) const noexcept {
    if (!_sorted) {
      for (const Record& r : _records) {
        if (r.id == id) return &r;
      }
      return nullptr;
    }
    size_t index = _LowerBound(id);
    return (index < _records.size() && _records[index].id == id) ? &_records[index] : nullptr;
  }

  // The record of `id` for writing, or null. Sorts first; the pointer is valid
  // until the next write.
  Record* FindForWriting(InternedId id) {
    Sort();
    size_t index = _LowerBound(id);
    return (index < _records.size() && _records[index].id == id) ? &_records[index] : nullptr;
  }

  // The record of `id`, inserted at its place with only the id set if there is
  // none. `inserted` (optional) tells which. Throws std::bad_alloc when the
  // table can't grow; the table is then as it was.
  Record& FindOrInsert(InternedId id, bool* inserted = nullptr) {
    Sort();
    size_t index = _LowerBound(id);
    const bool found = index < _records.size() && _records[index].id == id;
    if (inserted) *inserted = !found;
    if (found) return _records[index];
    Record r{};
    r.id = id;
    return *_records.insert(_records.begin() + static_cast<std::ptrdiff_t>(index), std::move(r));
  }

  // Makes room for `extra` more records, so that as many inserts that follow
  // allocate nothing. Throws std::bad_alloc like FindOrInsert.
  void Reserve(size_t extra) { _records.reserve(_records.size() + extra); }

  // Takes away the record of `id`; false if there was none.
  bool Erase(InternedId id) {
    Sort();
    size_t index = _LowerBound(id);
    if (index >= _records.size() || !(_records[index].id == id)) return false;
    _records.erase(_records.begin() + static_cast<std::ptrdiff_t>(index));
    return true;
  }

  // Bulk insertion: appends without searching. The caller promises that the
  // id isn't in the table yet. Throws std::bad_alloc like FindOrInsert.
  void Append(Record record) {
    if (_sorted && !_records.empty() &&
        InternedId::CompareText(_records.back().id, record.id) >= 0) {
      _sorted = false;
    }
    _records.push_back(std::move(record));
  }

  // Puts the records in id order. Only for a table that nobody else reads.
  void Sort() {
    if (_sorted) return;
    std::stable_sort(_records.begin(), _records.end(), [](const Record& a, const Record& b) {
      return InternedId::CompareText(a.id, b.id) < 0;
    });
    _sorted = true;
  }

  void Clear() noexcept {
    _records.clear();
    _sorted = true;
  }
  // Gives back the memory of the records as well.
  void Release() noexcept {
    std::vector<Record>().swap(_records);
    _sorted = true;
  }

  // The bytes held outside the table object itself.
  size_t GetHeapBytes() const noexcept { return _records.capacity() * sizeof(Record); }

 private:
  // The first index whose id doesn't sort before `id`; a pointer-equal id ends
  // the search without reading a string.
  size_t _LowerBound(InternedId id) const noexcept {
    size_t lo = 0;
    size_t hi = _records.size();
    while (lo < hi) {
      const size_t mid = lo + (hi - lo) / 2;
      const InternedId probe = _records[mid].id;
      if (probe == id) return mid;
      if (InternedId::CompareText(probe, id) < 0) {
        lo = mid + 1;
      } else {
        hi = mid;
      }
    }
    return lo;
  }

  std::vector<Record> _records;
  bool _sorted = true;
};

}  // namespace orvix::nodes
