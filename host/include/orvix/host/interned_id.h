#pragma once
// InternedId: an interned identifier string. Equal strings yield the same
// pointer, so ids compare for equality by pointer and hash without reading text.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "orvix/host/result.h"

namespace orvix {

namespace detail {
// One pooled id. Entries are never freed: an id stays valid for the life of the
// process, which is what lets a bare pointer stand for it.
struct InternedEntry {
  uint64_t hashWord;
  // The first eight bytes of the text as a big-endian number, zero-padded.
  // Where two keys differ, the texts differ the same way: the first byte that
  // differs decides both, read as unsigned char as char_traits<char> reads it,
  // and where one text has ended, its padding 0 is below any other byte, as a
  // prefix sorts before the longer text. A NUL there matches the padding, so
  // "a" and "a\0" have equal keys: equal keys decide nothing, and the whole
  // texts are compared.
  uint64_t orderKey;
  std::string text;
};
}  // namespace detail

class InternedId {
 public:
  // Bit 43 of the hash word belongs to the pool (it marks an id that lives in
  // the pool for good); users of the hash mask it out with HASH_MASK.
  static constexpr uint64_t RESERVED_HASH_BIT = uint64_t(1) << 43;
  static constexpr uint64_t HASH_MASK = ~RESERVED_HASH_BIT;

  // The null id.
  constexpr InternedId() = default;

  // Interns `text`. Fails only when memory runs out.
  static Result<InternedId> Create(std::string_view text);
  // Interns `text`; for ids the program itself spells (constants, tests), where
  // running out of memory is not an outcome worth a result.
  static InternedId Get(std::string_view text);
  // An id already in the pool, or the null id; never adds one.
  static InternedId Find(std::string_view text);

  bool IsPopulated() const { return _entry != nullptr; }
  bool IsNull() const { return _entry == nullptr; }
  explicit operator bool() const { return IsPopulated(); }

  // The text; empty for the null id.
  std::string_view GetString() const {
    return _entry ? std::string_view(_entry->text) : std::string_view();
  }
  // NUL-terminated text; "" for the null id.
  const char* GetCString() const { return _entry ? _entry->text.c_str() : ""; }
  std::string_view ToString() const { return GetString(); }

  // The whole hash word, reserved bit included; 0 for the null id.
  uint64_t GetHashWord() const { return _entry ? _entry->hashWord : 0; }
  // The hash with the reserved bit cleared.
  uint64_t GetHashCode() const { return GetHashWord() & HASH_MASK; }

  // The pointer that stands for the id; equal for equal ids.
  const void* GetPointer() const { return _entry; }
  // The id a pointer from GetPointer stands for. Lets compact keys keep an id
  // as a bare word (with flags in its low bits, which the entry's alignment
  // leaves free) and turn it back.
  static InternedId FromPointer(const void* p) {
    return InternedId(static_cast<const detail::InternedEntry*>(p));
  }
  static constexpr size_t POINTER_ALIGNMENT = alignof(detail::InternedEntry);

  friend bool operator==(InternedId a, InternedId b) { return a._entry == b._entry; }

  // Order by text, bytewise; the null id sorts first. Sorted tables call this
  // at every step of their searches, and most ids part within their first
  // eight bytes: the order keys settle those without reading either text.
  static int CompareText(InternedId a, InternedId b) {
    if (a._entry == b._entry) return 0;
    if (!a._entry) return -1;
    if (!b._entry) return 1;
    const uint64_t ka = a._entry->orderKey;
    const uint64_t kb = b._entry->orderKey;
    if (ka != kb) return ka < kb ? -1 : 1;
    return CompareWholeText(a._entry, b._entry);
  }

  // Number of ids in the pool.
  static size_t PoolSize();

 private:
  explicit InternedId(const detail::InternedEntry* entry) : _entry(entry) {}
  static int CompareWholeText(const detail::InternedEntry* a, const detail::InternedEntry* b);
  const detail::InternedEntry* _entry = nullptr;
};

}  // namespace orvix

template <>
struct std::hash<orvix::InternedId> {
  size_t operator()(orvix::InternedId id) const noexcept { return id.GetHashCode(); }
};
