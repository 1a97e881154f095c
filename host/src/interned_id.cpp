#include "orvix/host/interned_id.h"

#include "orvix/host/hash.h"

#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <unordered_map>

namespace orvix {

namespace {

// A string hash that reads eight bytes a step; strings of ids are short.
uint64_t HashText(std::string_view s) {
  uint64_t h = 0x9e3779b97f4a7c15ULL ^ (s.size() * 0xff51afd7ed558ccdULL);
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) {
    uint64_t w;
    std::memcpy(&w, s.data() + i, 8);
    h = MixHash(h ^ w);
  }
  uint64_t tail = 0;
  if (s.size() > i) std::memcpy(&tail, s.data() + i, s.size() - i);
  return MixHash(h ^ tail ^ (uint64_t(s.size() - i) << 56));
}

uint64_t OrderKey(std::string_view s) {
  uint64_t key = 0;
  for (size_t i = 0; i < 8; ++i) {
    key = key << 8 | (i < s.size() ? static_cast<unsigned char>(s[i]) : 0u);
  }
  return key;
}

// Sharded so that threads interning different ids rarely meet on one lock;
// lookups of ids that exist take a shared lock only.
constexpr size_t SHARD_COUNT = 64;

struct Shard {
  std::shared_mutex mutex;
  std::unordered_map<std::string_view, const detail::InternedEntry*> map;
};

struct Pool {
  std::array<Shard, SHARD_COUNT> shards;
  std::atomic<size_t> size{0};
};

Pool& ThePool() {
  // Deliberately never destroyed: ids may be used by static destructors.
  static Pool* pool = new Pool();
  return *pool;
}

}  // namespace

Result<InternedId> InternedId::Create(std::string_view text) {
  const uint64_t h = HashText(text);
  Shard& shard = ThePool().shards[h % SHARD_COUNT];
  {
    std::shared_lock lock(shard.mutex);
    auto it = shard.map.find(text);
    if (it != shard.map.end()) return InternedId(it->second);
  }
  try {
    std::unique_lock lock(shard.mutex);
    auto it = shard.map.find(text);
    if (it != shard.map.end()) return InternedId(it->second);
    auto entry = std::make_unique<detail::InternedEntry>(
        detail::InternedEntry{h | RESERVED_HASH_BIT, OrderKey(text), std::string(text)});
    const detail::InternedEntry* raw = entry.get();
    shard.map.emplace(std::string_view(raw->text), raw);
    entry.release();
    ThePool().size.fetch_add(1, std::memory_order_relaxed);
    return InternedId(raw);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

InternedId InternedId::Get(std::string_view text) {
  Result<InternedId> r = Create(text);
  if (!r) throw std::bad_alloc();
  return *r;
}

InternedId InternedId::Find(std::string_view text) {
  Shard& shard = ThePool().shards[HashText(text) % SHARD_COUNT];
  std::shared_lock lock(shard.mutex);
  auto it = shard.map.find(text);
  return it == shard.map.end() ? InternedId() : InternedId(it->second);
}

int InternedId::CompareWholeText(const detail::InternedEntry* a, const detail::InternedEntry* b) {
  // Bytewise like strcmp, but over the whole text: a part may hold a NUL, and
  // two different ids must never compare equal.
  int c = std::string_view(a->text).compare(b->text);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

size_t InternedId::PoolSize() { return ThePool().size.load(std::memory_order_relaxed); }

}  // namespace orvix
