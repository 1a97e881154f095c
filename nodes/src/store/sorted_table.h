#pragma once
// SortedTable: a table of records keyed by an InternedId, kept in the order of
// the ids' strings (a null id first), that may be left unsorted for a while.
//
// A large child table (a graph of many nodes has a root with as many
// children) would pay for an insert in the middle with a move of its whole
// tail, so that building it costs the square of its size. An insert that asks
// for it (`allowUnsorted`) therefore appends to a table of UNSORTED_MIN
// records or more, and from then on the table finds its records through an
// index from id to position (a hash of the id's pointer, no text read) until
// something sorts it again. Only the records' owner may leave a table
// unsorted, and it must sort it before anyone else can read it: a frozen
// record is read by many threads, and the child walk reports children in
// storage order, which is id order only for a sorted table.
//
// A search of a sorted table is a binary search that takes a pointer-equal id
// as a hit before it compares any text.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "orvix/host/debug_assert.h"
#include "orvix/host/interned_id.h"

namespace orvix::nodes {

// Record: any type with a member `InternedId id`.
template <typename Record>
class SortedTable {
 public:
  // The size from which an insert may leave the table unsorted.
  static constexpr size_t UNSORTED_MIN = 64;

  SortedTable() = default;
  // Copies throw std::bad_alloc when memory runs out.
  SortedTable(const SortedTable& other)
      : _records(other._records),
        _index(other._index ? std::make_unique<Index>(*other._index) : nullptr) {}
  SortedTable& operator=(const SortedTable& other) {
    if (this != &other) *this = SortedTable(other);
    return *this;
  }
  SortedTable(SortedTable&&) noexcept = default;
  SortedTable& operator=(SortedTable&&) noexcept = default;
  ~SortedTable() = default;

  size_t GetCount() const noexcept { return _records.size(); }
  bool IsEmpty() const noexcept { return _records.empty(); }
  bool IsSorted() const noexcept { return !_index; }

  // Storage order: id order when IsSorted().
  const Record* begin() const noexcept { return _records.data(); }
  const Record* end() const noexcept { return _records.data() + _records.size(); }
  const Record& operator[](size_t index) const noexcept { return _records[index]; }

  // The record of `id`, or null. Never sorts.
  const Record* Find(InternedId id) const noexcept {
    const size_t at = _Find(id);
    return at == NONE ? nullptr : &_records[at];
  }

  // The record of `id` for writing, or null. Never sorts; the pointer is
  // valid until the next write.
  Record* FindForWriting(InternedId id) noexcept {
    const size_t at = _Find(id);
    return at == NONE ? nullptr : &_records[at];
  }

  // The record of `id`, inserted with only the id set if there is none.
  // `inserted` (optional) tells which. Without `allowUnsorted` the table is
  // sorted first and the record goes to its place; with it, a table of
  // UNSORTED_MIN records or more takes a new record at its end. Throws
  // std::bad_alloc when the table can't grow; the table is then as it was.
  Record& FindOrInsert(InternedId id, bool* inserted = nullptr, bool allowUnsorted = false) {
    if (_index && !allowUnsorted) Sort();
    size_t at = NONE;
    size_t place = _records.size();
    if (_index) {
      at = _Probe(id);
    } else {
      place = _LowerBound(id);
      if (place < _records.size() && _records[place].id == id) at = place;
    }
    if (inserted) *inserted = at == NONE;
    if (at != NONE) return _records[at];
    Record r{};
    r.id = id;
    if (place < _records.size() && !_index &&
        !(allowUnsorted && _records.size() >= UNSORTED_MIN)) {
      return *_records.insert(_records.begin() + static_cast<std::ptrdiff_t>(place),
                              std::move(r));
    }
    return _Append(std::move(r), !_index && place == _records.size());
  }

  // Makes room for `extra` more records, so that as many inserts that follow
  // without `allowUnsorted` allocate nothing. Throws std::bad_alloc like
  // FindOrInsert.
  void Reserve(size_t extra) { _records.reserve(_records.size() + extra); }

  // Takes away the record of `id`; false if there was none. Sorts first.
  bool Erase(InternedId id) noexcept {
    Sort();
    const size_t at = _Find(id);
    if (at == NONE) return false;
    _records.erase(_records.begin() + static_cast<std::ptrdiff_t>(at));
    return true;
  }

  // Bulk insertion: appends without searching. The caller promises that the
  // id isn't in the table yet. Throws std::bad_alloc like FindOrInsert.
  void Append(Record record) {
    const bool inOrder =
        !_index && (_records.empty() || InternedId::CompareText(_records.back().id, record.id) < 0);
    // A record in order is new; any other costs a lookup here, and the index
    // that the append builds costs more.
    ORVIX_DEBUG_ASSERT(inOrder || _Find(record.id) == NONE, "an appended id is new to the table");
    _Append(std::move(record), inOrder);
  }

  // Puts the records in id order. Allocates nothing. Only for a table that
  // nobody else reads.
  void Sort() noexcept {
    if (!_index) return;
    std::sort(_records.begin(), _records.end(), [](const Record& a, const Record& b) {
      return InternedId::CompareText(a.id, b.id) < 0;
    });
    _index.reset();
    // One record per id: the index found every id it was asked for.
    ORVIX_DEBUG_ASSERT(std::adjacent_find(_records.begin(), _records.end(),
                                          [](const Record& a, const Record& b) {
                                            return InternedId::CompareText(a.id, b.id) >= 0;
                                          }) == _records.end(),
                       "a sorted table holds its ids in strictly ascending order");
  }

  void Clear() noexcept {
    _records.clear();
    _index.reset();
  }
  // Gives back the memory of the records as well.
  void Release() noexcept {
    std::vector<Record>().swap(_records);
    _index.reset();
  }

  // The bytes held outside the table object itself.
  size_t GetHeapBytes() const noexcept {
    return _records.capacity() * sizeof(Record) +
           (_index ? sizeof(Index) + _index->slots.capacity() * sizeof(uint32_t) : 0);
  }

 private:
  static constexpr size_t NONE = ~size_t{0};

  // Open addressing from id to position + 1 (0 is an empty slot); at most
  // half full, so that a probe ends soon.
  struct Index {
    std::vector<uint32_t> slots;
  };

  static size_t _Slot(InternedId id, size_t mask) noexcept {
    const uint64_t p = reinterpret_cast<uintptr_t>(id.GetPointer());
    return size_t((p * 0x9e3779b97f4a7c15ULL) >> 32) & mask;
  }

  size_t _Find(InternedId id) const noexcept {
    if (_index) return _Probe(id);
    const size_t at = _LowerBound(id);
    return (at < _records.size() && _records[at].id == id) ? at : NONE;
  }

  size_t _Probe(InternedId id) const noexcept {
    const std::vector<uint32_t>& slots = _index->slots;
    const size_t mask = slots.size() - 1;
    for (size_t i = _Slot(id, mask);; i = (i + 1) & mask) {
      const uint32_t s = slots[i];
      if (s == 0) return NONE;
      if (_records[s - 1].id == id) return s - 1;
    }
  }

  static void _Place(std::vector<uint32_t>& slots, InternedId id, uint32_t position) noexcept {
    const size_t mask = slots.size() - 1;
    size_t i = _Slot(id, mask);
    while (slots[i] != 0) i = (i + 1) & mask;
    slots[i] = position + 1;
  }

  // Appends `record`; `inOrder` says that it sorts after every record of a
  // sorted table, which then stays sorted. Everything that may throw comes
  // before the table changes.
  Record& _Append(Record record, bool inOrder) {
    inOrder = inOrder && !_index;
    const size_t count = _records.size() + 1;
    std::unique_ptr<Index> rebuilt;
    if (!inOrder && (!_index || count * 2 > _index->slots.size())) {
      size_t size = 2 * UNSORTED_MIN;
      while (size < count * 2) size *= 2;
      rebuilt = std::make_unique<Index>();
      rebuilt->slots.assign(size, 0);
      for (size_t i = 0; i < _records.size(); ++i) {
        _Place(rebuilt->slots, _records[i].id, uint32_t(i));
      }
    }
    // May throw; nothing has changed yet. Geometric, as push_back grows.
    if (_records.capacity() < count) _records.reserve(std::max(count, 2 * _records.capacity()));
    if (rebuilt) _index = std::move(rebuilt);
    _records.push_back(std::move(record));
    if (_index) _Place(_index->slots, _records.back().id, uint32_t(count - 1));
    return _records.back();
  }

  // The first index whose id doesn't sort before `id`; a pointer-equal id ends
  // the search without reading a string. Sorted tables only.
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
  // Set while the table is unsorted.
  std::unique_ptr<Index> _index;
};

}  // namespace orvix::nodes
