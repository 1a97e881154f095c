#pragma once
// How a connection is held at each of its two ports.
//
// A connection from S to T lives twice: in the connection table of S under
// the key (T, other is a target) and in the table of T under the key (S,
// other is a source), with equal ConnectionData at both ends. The attribute
// array of the data is shared by both ends, and by base and derived systems,
// so it never changes once made: every change goes through a helper that
// hands back a new array, and the holders swap their reference.

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "orvix/graph/flags.h"
#include "orvix/graph/node_path.h"
#include "orvix/graph/wires.h"
#include "orvix/host/data.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"

namespace orvix {

// What made a connection record.
enum class CONNECTION_TYPE : uint32_t {
  NORMAL = 0,    // a connection that somebody made
  SHORTCUT = 1,  // a connection that topology validation worked out
};

// Where the other end of a record lies, seen from the port that holds it.
enum class CONNECTION_DIRECTION : uint32_t {
  SOURCE = 0,  // the other end is a source of this port
  TARGET = 1,  // the other end is a target of this port
};

// What a reader of a port's connections asks for, as the graph model hands
// it on.
enum class GET_CONNECTIONS_MODE : uint32_t {
  NONE = 0x0,
  CONNECTIONS = 0x1,           // the normal connections (the default)
  SHORTCUTS = 0x2,             // the shortcut connections, filter shortcuts confirmed
  EXTERNAL_CONNECTIONS = 0x4,  // only connections that leave the port's node
  WITHOUT_INHIBITED = 0x8,     // skip connections with a wire on the inhibit channel
  INDUCED_DEPENDENCIES = 0x10, // induced dependencies too (with SHORTCUTS)
  WITH_IMPLICIT_FLAG = 0x20,   // read by the graph model: mark implicit wires
};
ORVIX_FLAG_SET_OPERATORS(GET_CONNECTIONS_MODE)

std::string_view ToString(CONNECTION_TYPE type);
std::string_view ToString(CONNECTION_DIRECTION direction);

// The key of a connection record in the table of one port.
struct ConnectionKey {
  // Bit 0 of the selector: the direction. The bits above it: the type.
  static constexpr uint64_t DIRECTION_BIT = 1;
  static constexpr int TYPE_SHIFT = 1;

  // The port at the other end, relative to the system that stores the record.
  NodePath other;
  // Direction in bit 0, CONNECTION_TYPE above it. The record types 0..3 of
  // connection queries are exactly the selectors of both types and directions.
  uint64_t selector = 0;

  static constexpr uint64_t MakeSelector(CONNECTION_TYPE type, CONNECTION_DIRECTION direction) {
    return (uint64_t(type) << TYPE_SHIFT) | uint64_t(direction);
  }
  static constexpr CONNECTION_DIRECTION DirectionOf(uint64_t selector) {
    return CONNECTION_DIRECTION(selector & DIRECTION_BIT);
  }
  static constexpr CONNECTION_TYPE TypeOf(uint64_t selector) {
    return CONNECTION_TYPE(uint32_t(selector >> TYPE_SHIFT));
  }

  // The key of a record of `type` whose other end is `other`, in `direction`.
  static ConnectionKey Make(NodePath other, CONNECTION_TYPE type, CONNECTION_DIRECTION direction) {
    return ConnectionKey{std::move(other), MakeSelector(type, direction)};
  }

  CONNECTION_DIRECTION GetDirection() const { return DirectionOf(selector); }
  CONNECTION_TYPE GetType() const { return TypeOf(selector); }
  // True if `other` is a target of the port that holds the record.
  bool IsOtherTarget() const { return (selector & DIRECTION_BIT) != 0; }
  // The key of the same connection as the port `self` at the other end holds it.
  ConnectionKey Reversed(NodePath self) const {
    return ConnectionKey{std::move(self), selector ^ DIRECTION_BIT};
  }

  // The selector folded so that its low bits depend on all of it; the term
  // that the key's hash adds to the path's.
  static constexpr uint64_t MixSelector(uint64_t x) {
    const uint64_t y = x ^ (x >> 32);
    const uint64_t z = y ^ (y >> 20) ^ (y >> 12);
    return z ^ (z >> 7) ^ (z >> 4);
  }
  // hash(other) * 0xbf58476d1ce4e5b9 + MixSelector(selector) + 1, wrapping.
  uint64_t GetHashCode() const {
    return other.GetHashCode() * 0xbf58476d1ce4e5b9ULL + MixSelector(selector) + 1;
  }

  // Equal selectors and equal paths (the same object, or equal part by part).
  friend bool operator==(const ConnectionKey& a, const ConnectionKey& b) {
    return a.selector == b.selector && a.other.Equals(b.other);
  }

  // "target a>out", "source <in (SHORTCUT)".
  std::string ToString() const;
};

// Whom an attribute of a connection belongs to.
enum class CONNECTION_ATTRIBUTE_KIND : uint32_t {
  SOURCE = 0,      // the source end of the connection
  CONNECTION = 1,  // the connection as a whole
  TARGET = 2,      // the target end
};

std::string_view ToString(CONNECTION_ATTRIBUTE_KIND kind);

// The key of an attribute element: the pointer of an InternedId with the kind
// in its two low bits. Pooled ids are aligned to at least 8 bytes, so the bits
// are free. Keys are equal exactly when id and kind are.
class ConnectionAttributeKey {
 public:
  static constexpr uintptr_t KIND_MASK = 0x3;

  // The null key: no id, kind SOURCE.
  constexpr ConnectionAttributeKey() = default;
  ConnectionAttributeKey(InternedId id, CONNECTION_ATTRIBUTE_KIND kind);

  // The key of `id` and a kind given as a number, as callers outside the
  // graph hand it in. A kind above 2, or a null id, is an illegal argument.
  static Result<ConnectionAttributeKey> Create(InternedId id, uint32_t kind);
  // The key whose word is `word`, as read back from its word form.
  static constexpr ConnectionAttributeKey FromWord(uintptr_t word) {
    ConnectionAttributeKey key;
    key._word = word;
    return key;
  }

  constexpr uintptr_t GetWord() const { return _word; }
  InternedId GetId() const;
  constexpr CONNECTION_ATTRIBUTE_KIND GetKind() const {
    return CONNECTION_ATTRIBUTE_KIND(uint32_t(_word & KIND_MASK));
  }
  constexpr bool IsNull() const { return (_word & ~KIND_MASK) == 0; }

  friend constexpr bool operator==(ConnectionAttributeKey a, ConnectionAttributeKey b) = default;

  // "connection:net.orvix.example".
  std::string ToString() const;

 private:
  uintptr_t _word = 0;
};

// The attributes of one connection: an unsorted array of (key, value). It is
// shared by reference between both ends of the connection and between base
// and derived systems, and it is immutable: the static helpers below make the
// changed copy.
class ConnectionAttributes : public RefCounted {
 public:
  struct Element {
    ConnectionAttributeKey key;
    Data value;
  };

  ConnectionAttributes() = default;
  explicit ConnectionAttributes(std::vector<Element> elements) : _elements(std::move(elements)) {}

  // A new array of these elements. The helpers keep keys unique; an array
  // made here with a repeated key answers lookups with the first element.
  static Result<Ref<ConnectionAttributes>> Create(std::vector<Element> elements = {});

  size_t GetCount() const { return _elements.size(); }
  bool IsEmpty() const { return _elements.empty(); }
  std::span<const Element> GetElements() const { return _elements; }
  const Element* begin() const { return _elements.data(); }
  const Element* end() const { return _elements.data() + _elements.size(); }

  // The value under `key`, found by walking the array; null if there is none.
  const Data* Find(ConnectionAttributeKey key) const;
  const Data* Find(InternedId id, CONNECTION_ATTRIBUTE_KIND kind) const {
    return Find(ConnectionAttributeKey(id, kind));
  }

  // Calls `callback(kind, id, value)` for each element in array order while it
  // returns true. Returns false if the callback stopped the walk.
  template <typename Callback>
  bool ForEach(Callback&& callback) const {
    for (const Element& e : _elements) {
      if (!callback(e.key.GetKind(), e.key.GetId(), e.value)) return false;
    }
    return true;
  }

  // The same elements, as sets: the order doesn't count.
  bool Equals(const ConnectionAttributes& other) const;
  // As Equals, where null stands for an array without elements.
  static bool Equal(const ConnectionAttributes* a, const ConnectionAttributes* b);

  // --- Copy before write. None of these touch `original`, which may be null.

  // A new array: `original` with the element of `key` holding `value`. An
  // element that exists keeps its place; a new one is appended. An empty
  // `value` takes the element away instead (WithoutValue), so that no array
  // holds an empty value.
  static Result<Ref<ConnectionAttributes>> WithValue(const ConnectionAttributes* original,
                                                     ConnectionAttributeKey key, Data value);
  // A new array: `original` without the element of `key`, the others in their
  // order.
  static Result<Ref<ConnectionAttributes>> WithoutValue(const ConnectionAttributes* original,
                                                        ConnectionAttributeKey key);
  // A new array: `original` without the elements of one kind, as when a
  // connection's attributes are handed on to a wire that has a new end there.
  static Result<Ref<ConnectionAttributes>> WithoutKind(const ConnectionAttributes* original,
                                                       CONNECTION_ATTRIBUTE_KIND kind);

  // "{kind:id=value, ...}" in array order.
  std::string ToString() const;

 private:
  const Element* _FindElement(ConnectionAttributeKey key) const;

  std::vector<Element> _elements;
};

// The value of a connection at one of its ports.
struct ConnectionData {
  Wires wires;
  // Shared with the other end; null for none.
  Ref<ConnectionAttributes> attributes;

  // No wire and no attribute element.
  bool IsEmpty() const { return wires.IsEmpty() && (!attributes || attributes->IsEmpty()); }

  // Equal wires, and attributes that hold equal element sets; null and an
  // array without elements hold the same (empty) set.
  friend bool operator==(const ConnectionData& a, const ConnectionData& b) {
    return a.wires == b.wires &&
           ConnectionAttributes::Equal(a.attributes.Get(), b.attributes.Get());
  }

  // The wires, followed by the attributes if there are any.
  std::string ToString() const;
};

}  // namespace orvix

template <>
struct std::hash<orvix::ConnectionKey> {
  size_t operator()(const orvix::ConnectionKey& key) const noexcept {
    return size_t(key.GetHashCode());
  }
};

template <>
struct std::hash<orvix::ConnectionAttributeKey> {
  size_t operator()(orvix::ConnectionAttributeKey key) const noexcept {
    return std::hash<uintptr_t>()(key.GetWord());
  }
};
