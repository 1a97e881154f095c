#pragma once
// ConnectionTable: a port's connections, from ConnectionKey to ConnectionData.
//
// A chained hash table whose iteration order depends only on the keys it
// holds, not on the order in which they came: iteration goes through the
// buckets in index order, and each chain is kept in key order. Two ports that
// hold the same connections therefore list them alike, which keeps dumps,
// change lists and tests deterministic. Entries don't move when the table
// grows.
//
// Most ports have no connection or one, so the table object is two words: a
// table of one entry points at it directly, and only a second entry brings the
// bucket array.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "orvix/graph/connection.h"
#include "orvix/host/result.h"

namespace orvix::nodes {

class ConnectionTable {
 public:
  ConnectionTable() = default;
  // A deep copy of the entries; the attribute arrays are shared, as always.
  // Throws std::bad_alloc when memory runs out.
  ConnectionTable(const ConnectionTable& other);
  ConnectionTable& operator=(const ConnectionTable& other);
  ConnectionTable(ConnectionTable&& other) noexcept;
  ConnectionTable& operator=(ConnectionTable&& other) noexcept;
  ~ConnectionTable();

  size_t GetCount() const noexcept { return _count; }
  bool IsEmpty() const noexcept { return _count == 0; }

  // The data under `key`, or null.
  const ConnectionData* Find(const ConnectionKey& key) const noexcept;
  ConnectionData* Find(const ConnectionKey& key) noexcept;

  // The data under `key`, inserted empty if there is none. The pointer stays
  // valid until the entry is erased. Out of memory leaves the table as it was.
  Result<ConnectionData*> FindOrInsert(const ConnectionKey& key, bool* inserted = nullptr);
  // Stores `data` under `key`.
  Result<void> Set(const ConnectionKey& key, ConnectionData data);
  // Takes the entry of `key` away; false if there was none.
  bool Erase(const ConnectionKey& key) noexcept;
  void Clear() noexcept;

  // Calls `callback(key, data)` for each entry while it returns true, in the
  // table's own order. Returns false if the callback stopped the walk. The
  // table must not change during the walk.
  template <typename Callback>
  bool ForEach(Callback&& callback) const {
    if (_bucketCount == 0) {
      return !_single || callback(static_cast<const ConnectionKey&>(_single->key),
                                  static_cast<const ConnectionData&>(_single->data));
    }
    for (uint32_t bucket = 0; bucket < _bucketCount; ++bucket) {
      for (const Entry* e = _buckets[bucket]; e; e = e->next) {
        if (!callback(static_cast<const ConnectionKey&>(e->key),
                      static_cast<const ConnectionData&>(e->data))) {
          return false;
        }
      }
    }
    return true;
  }

  // The bytes held outside the table object itself.
  size_t GetHeapBytes() const noexcept;

 private:
  struct Entry {
    uint64_t hash;
    ConnectionKey key;
    ConnectionData data;
    Entry* next = nullptr;
  };

  static constexpr uint32_t INITIAL_BUCKETS = 8;

  size_t _BucketOf(uint64_t hash) const noexcept;
  const Entry* _FindEntry(const ConnectionKey& key, uint64_t hash) const noexcept;
  // Links `entry` into its chain at its ordered place; the table has buckets.
  void _Link(Entry* entry) noexcept;
  // Makes room for `count` entries; throws std::bad_alloc before changing
  // anything.
  void _Reserve(size_t count);

  // With no bucket array (`_bucketCount` 0) the one entry, or null; otherwise
  // the bucket array.
  union {
    Entry* _single = nullptr;
    Entry** _buckets;
  };
  uint32_t _bucketCount = 0;
  uint32_t _count = 0;
};

}  // namespace orvix::nodes
