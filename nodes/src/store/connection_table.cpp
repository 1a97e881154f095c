#include "store/connection_table.h"

#include <algorithm>
#include <new>
#include <utility>

#include "orvix/host/hash.h"

namespace orvix::nodes {

namespace {
// The order of keys within one chain: hash, then selector, then path. Any
// total order does; this one reads strings only for a full hash collision.
bool KeyLess(uint64_t hashA, const ConnectionKey& a, uint64_t hashB, const ConnectionKey& b) {
  if (hashA != hashB) return hashA < hashB;
  if (a.selector != b.selector) return a.selector < b.selector;
  return a.other.Compare(b.other) < 0;
}
}  // namespace

ConnectionTable::ConnectionTable(const ConnectionTable& other) {
  if (other._count == 0) return;
  _buckets.assign(other._buckets.size(), nullptr);
  _usedBuckets.reserve(other._usedBuckets.size());
  try {
    other.ForEach([&](const ConnectionKey& key, const ConnectionData& data) {
      Entry* e = new Entry{key.GetHashCode(), key, data, nullptr};
      _Link(e);
      ++_count;
      return true;
    });
  } catch (...) {
    Clear();
    throw;
  }
}

ConnectionTable& ConnectionTable::operator=(const ConnectionTable& other) {
  if (this != &other) {
    ConnectionTable copy(other);
    *this = std::move(copy);
  }
  return *this;
}

ConnectionTable::ConnectionTable(ConnectionTable&& other) noexcept
    : _buckets(std::move(other._buckets)),
      _usedBuckets(std::move(other._usedBuckets)),
      _count(std::exchange(other._count, 0)) {
  other._buckets.clear();
  other._usedBuckets.clear();
}

ConnectionTable& ConnectionTable::operator=(ConnectionTable&& other) noexcept {
  if (this != &other) {
    Clear();
    _buckets = std::move(other._buckets);
    _usedBuckets = std::move(other._usedBuckets);
    _count = std::exchange(other._count, 0);
    other._buckets.clear();
    other._usedBuckets.clear();
  }
  return *this;
}

ConnectionTable::~ConnectionTable() {
  Clear();
}

size_t ConnectionTable::_BucketOf(uint64_t hash) const noexcept {
  return size_t(MixHash(hash)) & (_buckets.size() - 1);
}

const ConnectionTable::Entry* ConnectionTable::_FindEntry(const ConnectionKey& key,
                                                          uint64_t hash) const noexcept {
  if (_buckets.empty()) return nullptr;
  for (const Entry* e = _buckets[_BucketOf(hash)]; e; e = e->next) {
    if (e->hash == hash && e->key == key) return e;
  }
  return nullptr;
}

const ConnectionData* ConnectionTable::Find(const ConnectionKey& key) const noexcept {
  const Entry* e = _FindEntry(key, key.GetHashCode());
  return e ? &e->data : nullptr;
}

ConnectionData* ConnectionTable::Find(const ConnectionKey& key) noexcept {
  return const_cast<ConnectionData*>(std::as_const(*this).Find(key));
}

void ConnectionTable::_AddUsedBucket(uint32_t bucket) {
  auto at = std::lower_bound(_usedBuckets.begin(), _usedBuckets.end(), bucket);
  if (at == _usedBuckets.end() || *at != bucket) _usedBuckets.insert(at, bucket);
}

void ConnectionTable::_RemoveUsedBucket(uint32_t bucket) noexcept {
  auto at = std::lower_bound(_usedBuckets.begin(), _usedBuckets.end(), bucket);
  if (at != _usedBuckets.end() && *at == bucket) _usedBuckets.erase(at);
}

void ConnectionTable::_Link(Entry* entry) {
  const uint32_t bucket = uint32_t(_BucketOf(entry->hash));
  Entry** link = &_buckets[bucket];
  while (*link && KeyLess((*link)->hash, (*link)->key, entry->hash, entry->key)) {
    link = &(*link)->next;
  }
  if (!_buckets[bucket]) {
    // Capacity for every bucket was reserved, so this insert can't throw.
    _AddUsedBucket(bucket);
  }
  entry->next = *link;
  *link = entry;
}

void ConnectionTable::_Reserve(size_t count) {
  // Maximal load factor 0.65.
  size_t size = _buckets.empty() ? INITIAL_BUCKETS : _buckets.size();
  while (count * 100 > size * 65) size *= 2;
  if (size == _buckets.size()) return;
  std::vector<Entry*> buckets(size, nullptr);
  std::vector<uint32_t> used;
  used.reserve(size);
  // Nothing below can throw: take the chains over.
  std::vector<Entry*> old;
  old.swap(_buckets);
  _buckets.swap(buckets);
  _usedBuckets.swap(used);
  for (uint32_t bucket : used) {
    Entry* e = old[bucket];
    while (e) {
      Entry* next = e->next;
      _Link(e);
      e = next;
    }
  }
}

Result<ConnectionData*> ConnectionTable::FindOrInsert(const ConnectionKey& key, bool* inserted) {
  const uint64_t hash = key.GetHashCode();
  if (const Entry* e = _FindEntry(key, hash)) {
    if (inserted) *inserted = false;
    return &const_cast<Entry*>(e)->data;
  }
  try {
    _Reserve(_count + 1);
    if (_usedBuckets.capacity() < _buckets.size()) _usedBuckets.reserve(_buckets.size());
    Entry* e = new Entry{hash, key, ConnectionData{}, nullptr};
    _Link(e);
    ++_count;
    if (inserted) *inserted = true;
    return &e->data;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

Result<void> ConnectionTable::Set(const ConnectionKey& key, ConnectionData data) {
  ORVIX_TRY_ASSIGN(ConnectionData * slot, FindOrInsert(key));
  *slot = std::move(data);
  return Ok();
}

bool ConnectionTable::Erase(const ConnectionKey& key) noexcept {
  if (_buckets.empty()) return false;
  const uint64_t hash = key.GetHashCode();
  const uint32_t bucket = uint32_t(_BucketOf(hash));
  for (Entry** link = &_buckets[bucket]; *link; link = &(*link)->next) {
    Entry* e = *link;
    if (e->hash == hash && e->key == key) {
      *link = e->next;
      delete e;
      --_count;
      if (!_buckets[bucket]) _RemoveUsedBucket(bucket);
      return true;
    }
  }
  return false;
}

void ConnectionTable::Clear() noexcept {
  for (uint32_t bucket : _usedBuckets) {
    Entry* e = _buckets[bucket];
    while (e) {
      Entry* next = e->next;
      delete e;
      e = next;
    }
  }
  _buckets.clear();
  _usedBuckets.clear();
  _count = 0;
}

size_t ConnectionTable::GetHeapBytes() const noexcept {
  return _buckets.capacity() * sizeof(Entry*) + _usedBuckets.capacity() * sizeof(uint32_t) +
         _count * sizeof(Entry);
}

}  // namespace orvix::nodes
