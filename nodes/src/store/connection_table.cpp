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
  try {
    // As many buckets as the source, so that the copy lists alike.
    if (other._bucketCount != 0) {
      _buckets = new Entry*[other._bucketCount]();
      _bucketCount = other._bucketCount;
    }
    other.ForEach([&](const ConnectionKey& key, const ConnectionData& data) {
      Entry* e = new Entry{key.GetHashCode(), key, data, nullptr};
      if (_bucketCount == 0) {
        _single = e;
      } else {
        _Link(e);
      }
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
    : _bucketCount(std::exchange(other._bucketCount, 0)), _count(std::exchange(other._count, 0)) {
  _single = std::exchange(other._single, nullptr);
}

ConnectionTable& ConnectionTable::operator=(ConnectionTable&& other) noexcept {
  if (this != &other) {
    Clear();
    _single = std::exchange(other._single, nullptr);
    _bucketCount = std::exchange(other._bucketCount, 0);
    _count = std::exchange(other._count, 0);
  }
  return *this;
}

ConnectionTable::~ConnectionTable() {
  Clear();
}

size_t ConnectionTable::_BucketOf(uint64_t hash) const noexcept {
  return size_t(MixHash(hash)) & (_bucketCount - 1);
}

const ConnectionTable::Entry* ConnectionTable::_FindEntry(const ConnectionKey& key,
                                                          uint64_t hash) const noexcept {
  if (_bucketCount == 0) {
    return (_single && _single->hash == hash && _single->key == key) ? _single : nullptr;
  }
  for (const Entry* e = _buckets[_BucketOf(hash)]; e; e = e->next) {
    if (e->hash == hash && e->key == key) return e;
  }
  return nullptr;
}

const ConnectionData* ConnectionTable::Find(const ConnectionKey& key) const noexcept {
  if (_count == 0) return nullptr;
  const Entry* e = _FindEntry(key, key.GetHashCode());
  return e ? &e->data : nullptr;
}

ConnectionData* ConnectionTable::Find(const ConnectionKey& key) noexcept {
  return const_cast<ConnectionData*>(std::as_const(*this).Find(key));
}

void ConnectionTable::_Link(Entry* entry) noexcept {
  Entry** link = &_buckets[_BucketOf(entry->hash)];
  while (*link && KeyLess((*link)->hash, (*link)->key, entry->hash, entry->key)) {
    link = &(*link)->next;
  }
  entry->next = *link;
  *link = entry;
}

void ConnectionTable::_Reserve(size_t count) {
  if (count <= 1 && _bucketCount == 0) return;
  // Maximal load factor 0.65.
  size_t size = _bucketCount == 0 ? INITIAL_BUCKETS : _bucketCount;
  while (count * 100 > size * 65) size *= 2;
  if (size == _bucketCount) return;
  Entry** buckets = new Entry*[size]();
  // Nothing below can throw: take the entries over.
  Entry* single = _bucketCount == 0 ? _single : nullptr;
  Entry** old = _bucketCount == 0 ? nullptr : _buckets;
  const uint32_t oldCount = _bucketCount;
  _buckets = buckets;
  _bucketCount = uint32_t(size);
  if (single) _Link(single);
  for (uint32_t bucket = 0; bucket < oldCount; ++bucket) {
    Entry* e = old[bucket];
    while (e) {
      Entry* next = e->next;
      _Link(e);
      e = next;
    }
  }
  delete[] old;
}

Result<ConnectionData*> ConnectionTable::FindOrInsert(const ConnectionKey& key, bool* inserted) {
  const uint64_t hash = key.GetHashCode();
  if (const Entry* e = _count == 0 ? nullptr : _FindEntry(key, hash)) {
    if (inserted) *inserted = false;
    return &const_cast<Entry*>(e)->data;
  }
  try {
    Entry* e = new Entry{hash, key, ConnectionData{}, nullptr};
    try {
      _Reserve(size_t(_count) + 1);
    } catch (...) {
      delete e;
      throw;
    }
    if (_bucketCount == 0) {
      _single = e;
    } else {
      _Link(e);
    }
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
  if (_count == 0) return false;
  const uint64_t hash = key.GetHashCode();
  if (_bucketCount == 0) {
    if (!(_single->hash == hash && _single->key == key)) return false;
    delete std::exchange(_single, nullptr);
    _count = 0;
    return true;
  }
  for (Entry** link = &_buckets[_BucketOf(hash)]; *link; link = &(*link)->next) {
    Entry* e = *link;
    if (e->hash == hash && e->key == key) {
      *link = e->next;
      delete e;
      if (--_count == 0) Clear();
      return true;
    }
  }
  return false;
}

void ConnectionTable::Clear() noexcept {
  if (_bucketCount == 0) {
    delete std::exchange(_single, nullptr);
  } else {
    for (uint32_t bucket = 0; bucket < _bucketCount; ++bucket) {
      Entry* e = _buckets[bucket];
      while (e) {
        Entry* next = e->next;
        delete e;
        e = next;
      }
    }
    delete[] _buckets;
    _single = nullptr;
    _bucketCount = 0;
  }
  _count = 0;
}

size_t ConnectionTable::GetHeapBytes() const noexcept {
  return _bucketCount * sizeof(Entry*) + _count * sizeof(Entry);
}

}  // namespace orvix::nodes
