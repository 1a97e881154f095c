#include "orvix/host/interned_id.h"

#include "orvix/host/hash.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>

namespace orvix {

namespace {

uint64_t Read8(const char* p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  return w;
}

// The n < 8 bytes at `p`, zero-padded, in a word; the word a memcpy into a
// zeroed one gives on a little-endian machine, without the call to memcpy that
// a variable length costs, which was a good part of the cost of a lookup.
uint64_t ReadShort(const char* p, size_t n) {
  if (n >= 4) {
    // Two loads that overlap in the middle: the bytes they share are equal,
    // so or-ing them in twice does no harm.
    uint32_t lo;
    uint32_t hi;
    std::memcpy(&lo, p, 4);
    std::memcpy(&hi, p + n - 4, 4);
    return uint64_t(lo) | uint64_t(hi) << (8 * (n - 4));
  }
  if (n == 0) return 0;
  auto byte = [p](size_t i) { return uint64_t(static_cast<unsigned char>(p[i])) << (8 * i); };
  return byte(0) | byte(n / 2) | byte(n - 1);
}

// A string hash that reads eight bytes a step; strings of ids are short.
[[gnu::always_inline]] inline uint64_t HashText(std::string_view s) {
  uint64_t h = 0x9e3779b97f4a7c15ULL ^ (s.size() * 0xff51afd7ed558ccdULL);
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) h = MixHash(h ^ Read8(s.data() + i));
  const uint64_t tail = ReadShort(s.data() + i, s.size() - i);
  return MixHash(h ^ tail ^ (uint64_t(s.size() - i) << 56));
}

// Whether two texts of the same size `n` are equal. Ids are short, and after
// the hash words agreed this is almost always a match being confirmed, which
// a few word compares do for less than a call to memcmp.
bool SameBytes(const char* a, const char* b, size_t n) {
  if (n < 8) return ReadShort(a, n) == ReadShort(b, n);
  if (n > 32) return std::memcmp(a, b, n) == 0;
  for (size_t i = 0; i + 8 < n; i += 8) {
    if (Read8(a + i) != Read8(b + i)) return false;
  }
  // The last eight bytes, overlapping what the loop compared.
  return Read8(a + n - 8) == Read8(b + n - 8);
}

uint64_t OrderKey(std::string_view s) {
  uint64_t key = 0;
  for (size_t i = 0; i < 8; ++i) {
    key = key << 8 | (i < s.size() ? static_cast<unsigned char>(s[i]) : 0u);
  }
  return key;
}

// Sharded so that threads adding different ids rarely meet on one lock. The low
// bits of the hash pick the shard; the bits above them pick the slot.
constexpr size_t SHARD_BITS = 6;
constexpr size_t SHARD_COUNT = size_t(1) << SHARD_BITS;
// The first real table of a shard; below this, growing would only churn.
constexpr size_t MIN_CAPACITY = 16;

using Slot = std::atomic<const detail::InternedEntry*>;

// A shard's open-addressed table, probed linearly. Readers walk it without a
// lock, which holds because nothing in it ever moves: a slot, once filled,
// keeps its entry, and growth publishes a bigger copy instead of rehashing in
// place. The table it replaced stays allocated, since a reader may still be
// probing it; a reader that misses there falls back to the lock and sees the
// new one. Capacities double, so the old tables together never outweigh the
// current one, and ids live for the whole process anyway.
struct Table {
  size_t mask;  // capacity - 1; the capacity is a power of two
  Slot* slots;
  const Table* older;  // kept reachable, so that leak checkers see it as owned
};

// Every shard starts with this table of one empty slot: a reader needn't test
// for a missing table, and the first insert grows past it.
constinit Slot g_noSlot{nullptr};
constinit const Table g_emptyTable{0, &g_noSlot, nullptr};

struct Shard {
  // What readers load, on a line of its own: an insert into this shard writes
  // the lock's line, which readers of the shard then needn't fetch again.
  alignas(64) std::atomic<const Table*> table{&g_emptyTable};
  alignas(64) std::mutex mutex;
  size_t count = 0;  // entries in `table`, under `mutex`
};

struct Pool {
  std::array<Shard, SHARD_COUNT> shards;
  std::atomic<size_t> size{0};
};

// Never destroyed: ids may be used by static destructors. Constant-initialised,
// so it is there before any dynamic initialiser interns an id, and a lookup
// passes no guard of a function-local static.
union PoolStorage {
  constexpr PoolStorage() : pool() {}
  ~PoolStorage() {}
  Pool pool;
};
constinit PoolStorage g_storage;

// The slot where a probe for `hashWord` starts.
size_t Home(const Table* table, uint64_t hashWord) {
  return (hashWord >> SHARD_BITS) & table->mask;
}

// The entry of `text` in `table`, or null. Tables stay at most half full, so a
// probe always reaches an empty slot. The acquire load pairs with the release
// store that published the entry, so its text is complete when read here.
[[gnu::always_inline]] inline const detail::InternedEntry* Lookup(const Table* table,
                                                                  uint64_t hashWord,
                                                                  std::string_view text) {
  for (size_t i = Home(table, hashWord);; i = (i + 1) & table->mask) {
    const detail::InternedEntry* entry = table->slots[i].load(std::memory_order_acquire);
    if (!entry) return nullptr;
    if (entry->hashWord == hashWord && entry->text.size() == text.size() &&
        SameBytes(entry->text.data(), text.data(), text.size())) {
      return entry;
    }
  }
}

// Under the shard's lock, the only place that writes a table.
void Place(const Table* table, const detail::InternedEntry* entry, std::memory_order order) {
  size_t i = Home(table, entry->hashWord);
  while (table->slots[i].load(std::memory_order_relaxed)) i = (i + 1) & table->mask;
  table->slots[i].store(entry, order);
}

// A table twice the size of `old` holding its entries, or null when memory has
// run out. Nobody sees it before it is published, so its slots fill relaxed.
const Table* Grow(const Table* old) {
  const size_t capacity = std::max(MIN_CAPACITY, (old->mask + 1) * 2);
  void* block = ::operator new(sizeof(Table) + capacity * sizeof(Slot), std::nothrow);
  if (!block) return nullptr;
  Slot* slots = reinterpret_cast<Slot*>(static_cast<Table*>(block) + 1);
  for (size_t i = 0; i < capacity; ++i) new (&slots[i]) Slot(nullptr);
  const Table* table = new (block) Table{capacity - 1, slots, old};
  for (size_t i = 0; i <= old->mask; ++i) {
    if (const detail::InternedEntry* entry = old->slots[i].load(std::memory_order_relaxed)) {
      Place(table, entry, std::memory_order_relaxed);
    }
  }
  return table;
}

// The slow path of Create: the id was not seen without the lock. Another
// thread may have added it meanwhile, so look again under the lock first.
// Nothing is published before every allocation has succeeded, so running out
// of memory leaves the pool as it was.
[[gnu::noinline]] Result<InternedId> Insert(Shard& shard, uint64_t hashWord,
                                            std::string_view text) {
  std::lock_guard lock(shard.mutex);
  const Table* table = shard.table.load(std::memory_order_relaxed);
  if (const detail::InternedEntry* found = Lookup(table, hashWord, text)) {
    return InternedId::FromPointer(found);
  }
  const detail::InternedEntry* entry;
  try {
    entry = new detail::InternedEntry{hashWord, OrderKey(text), std::string(text)};
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  if ((shard.count + 1) * 2 > table->mask + 1) {
    const Table* bigger = Grow(table);
    if (!bigger) {
      delete entry;
      return OutOfMemoryError();
    }
    shard.table.store(bigger, std::memory_order_release);
    table = bigger;
  }
  Place(table, entry, std::memory_order_release);
  ++shard.count;
  g_storage.pool.size.fetch_add(1, std::memory_order_relaxed);
  return InternedId::FromPointer(entry);
}

Shard& ShardOf(uint64_t hashWord) {
  return g_storage.pool.shards[hashWord % SHARD_COUNT];
}

}  // namespace

Result<InternedId> InternedId::Create(std::string_view text) {
  const uint64_t hashWord = HashText(text) | RESERVED_HASH_BIT;
  Shard& shard = ShardOf(hashWord);
  // Ids that exist are the common case (every add of a node, every parsed
  // path): they take no lock and write nothing shared.
  if (const detail::InternedEntry* entry =
          Lookup(shard.table.load(std::memory_order_acquire), hashWord, text)) {
    return InternedId(entry);
  }
  return Insert(shard, hashWord, text);
}

InternedId InternedId::Get(std::string_view text) {
  Result<InternedId> r = Create(text);
  if (!r) throw std::bad_alloc();
  return *r;
}

InternedId InternedId::Find(std::string_view text) {
  // No lock even on a miss: an id whose Create finished before this call began
  // is in the table this load sees, or in one published later.
  const uint64_t hashWord = HashText(text) | RESERVED_HASH_BIT;
  return InternedId(
      Lookup(ShardOf(hashWord).table.load(std::memory_order_acquire), hashWord, text));
}

int InternedId::CompareWholeText(const detail::InternedEntry* a, const detail::InternedEntry* b) {
  // Bytewise like strcmp, but over the whole text: a part may hold a NUL, and
  // two different ids must never compare equal.
  int c = std::string_view(a->text).compare(b->text);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

size_t InternedId::PoolSize() {
  return g_storage.pool.size.load(std::memory_order_relaxed);
}

}  // namespace orvix
