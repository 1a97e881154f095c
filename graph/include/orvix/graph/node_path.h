#pragma once
// NodePath: the immutable name of an element of the node tree (a node, a port
// list or a port), and the key of every lookup in a node system.
//
// A path is a handle to a shared, reference-counted object that holds the parts
// (interned ids), the kind and the hash; kind and hash are worked out once, when
// the path is made. Copies of a handle share the object. A null handle is the
// empty path, which names the root node.
//
// A path has three sections: node parts, at most one port-list part ("<" for
// the inputs, ">" for the outputs), and port parts. `a/b<c/d` is the port `d`
// nested in the top-level input port `c` of the node `b` below the node `a`.
//
// String form: a port-list part is written as its character, with no separator
// before or after it; an ordinary part follows a "/" only if the part before it
// is ordinary too. Inside an ordinary part the characters `/`, `<`, `>` and `\`
// (and NUL, which would end the text) are escaped with `\`.
//
// Paths are not interned, only their parts are: two equal paths may be two
// objects. Equality tests the hash first and then compares the parts by
// pointer; order compares the parts' strings.
//
// Any thread may read a path; the reference count is atomic.
//
// The operations are declared in the order of the published interface; the
// number before each is its slot there (slot 0, freeing, is the destructor).

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "orvix/graph/node_kind.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/io_description.h"
#include "orvix/host/result.h"

namespace orvix {

class NodePath {
 public:
  // A run of parts: what a path is made from, and what a lookup may hash
  // without making a path.
  using Block = std::span<const InternedId>;

  // The null handle: the empty path.
  NodePath() noexcept = default;
  NodePath(std::nullptr_t) noexcept {}
  NodePath(const NodePath& other) noexcept : _object(other._object) { _AddReference(); }
  NodePath(NodePath&& other) noexcept : _object(other._object) { other._object = nullptr; }
  NodePath& operator=(NodePath other) noexcept {
    Swap(other);
    return *this;
  }
  // Gives up this handle's reference; the last one frees the path object and
  // its parts.
  ~NodePath() { _RemoveReference(); }

  void Swap(NodePath& other) noexcept {
    Object* o = _object;
    _object = other._object;
    other._object = o;
  }

  // --- The reserved port-list parts, the hash and the kind of a block.

  // The part "<", which opens the input port list.
  static InternedId GetInputsId() { return _Reserved().inputs; }
  // The part ">", which opens the output port list.
  static InternedId GetOutputsId() { return _Reserved().outputs; }
  // True for "<" and ">"; two pointer comparisons.
  static bool IsPortListPart(InternedId part) {
    const ReservedIds& r = _Reserved();
    return part == r.inputs || part == r.outputs;
  }

  // One step of the hash: hash * 0xbf58476d1ce4e5b9 + value + 1 (wrapping),
  // where value is the part's hash without the reserved bit, 0 for null.
  static uint64_t HashStep(uint64_t hash, InternedId part) noexcept {
    return hash * 0xbf58476d1ce4e5b9ULL + part.GetHashCode() + 1;
  }
  // The hash of a path with these parts; 0 for no parts.
  static uint64_t HashBlock(Block parts) noexcept;

  // One step of the kind: "<" makes INPUTS, ">" OUTPUTS; any other part turns
  // INPUTS into INPORT and OUTPUTS into OUTPORT and leaves other kinds alone.
  static NODE_KIND KindStep(NODE_KIND kind, InternedId part);
  // The kind of a path with these parts; NODE for no parts.
  static NODE_KIND KindOfBlock(Block parts);

  // --- Creation and text forms.

  // 1: a new, empty path object: no parts, kind NODE, hash 0.
  static Result<NodePath> Alloc();
  // 2: a path of these parts, without checking them. Null parts, or a part
  // that is the empty id, make a path whose string form doesn't parse back.
  static Result<NodePath> CreateUnchecked(Block parts);
  // 3: a path of these parts; "The path contains an empty part." if one is null.
  static Result<NodePath> Create(Block parts);
  // 4: as Create, consuming `parts`. The parts are kept inline in the path
  // object, so they are moved in and the vector is left empty.
  static Result<NodePath> CreateFromArray(std::vector<InternedId>&& parts);
  // 5: the path of a string form. With `allowPortLists` false, a port-list part
  // is an error. Errors name the whole input:
  //   "Path @ contains an empty part."
  //   "Path @ contains port list identifier."
  //   "Path @ contains more than one port list identifier."
  //   "Path @ contains escape character at the end."
  // A part that is "<" or ">" after unescaping is the reserved id itself, so it
  // counts as a port-list part for the two port-list rules.
  static Result<NodePath> Parse(std::string_view text, bool allowPortLists = true);
  // 6: the string form, as a narrow string.
  Result<std::string> ToCString() const;
  // 7: appends the string form to `out`; on failure `out` is as before.
  Result<void> AppendToCString(std::string& out) const;
  // 8: as Create.
  static Result<NodePath> CreateChecked(Block parts);
  // 9: "<" followed by the parts: an input port of the root.
  static Result<NodePath> CreateInputPort(Block parts);
  // 10: ">" followed by the parts: an output port of the root.
  static Result<NodePath> CreateOutputPort(Block parts);
  // 11: parses `text` and appends its parts to `parts`, which may already hold
  // some; a port-list part already there counts for the one-marker rule. On
  // failure `parts` is as before.
  static Result<void> ParseToArray(std::string_view text, std::vector<InternedId>& parts,
                                   bool allowPortLists = true);

  // --- Parts.

  // 12: the parts, without a copy. Valid while this handle holds the path.
  Block ToBlock() const noexcept { return Block(_Data().Parts(), _Data().count); }
  // 13: the last part; the null id if there is none.
  InternedId GetLastPart() const noexcept {
    const Object& o = _Data();
    return o.count ? o.Parts()[o.count - 1] : InternedId();
  }
  // 14: the number of parts.
  size_t GetCount() const noexcept { return _Data().count; }
  // 15: the part at `index`; the null id if the index is out of range.
  InternedId GetPart(size_t index) const noexcept {
    const Object& o = _Data();
    return index < o.count ? o.Parts()[index] : InternedId();
  }

  // --- New paths from this one.

  // 16: this path plus one part. A null part is
  //   "Illegal argument: Condition node.IsPopulated() not fulfilled. "
  Result<NodePath> Append(InternedId node) const;
  // 17: this path plus the parts; an empty block hands back this path.
  // "The path contains an empty part." if one is null.
  Result<NodePath> AppendBlock(Block parts) const;
  // 18: this path plus the other's parts. An empty side hands back the other.
  Result<NodePath> AppendPath(const NodePath& other) const;
  // 19: the parts followed by this path's; an empty block hands back this path.
  // "The path contains an empty part." if one is null.
  Result<NodePath> Prepend(Block parts) const;

  // 20: a sub-path. A negative `start` counts from the end (start = count +
  // start + 1). `packed` is a count (SliceCount) or an end position (SliceEnd,
  // negative counting from the end like the start). The whole range hands back
  // this object, an empty range a null path. Errors:
  //   "Start position @ out of bounds."  (@: the start as given)
  //   "Count @ out of bounds for start position @."  (the resolved count and start)
  Result<NodePath> Slice(int64_t start, int64_t packed) const;
  // The packed second argument of Slice: a count (bit 0 set) ...
  static constexpr int64_t SliceCount(int64_t count) noexcept { return count * 2 + 1; }
  // ... or an end position (bit 0 clear).
  static constexpr int64_t SliceEnd(int64_t end) noexcept { return end * 2; }

  // 21: the parts from the port-list part to the end; a null path if there is
  // no port-list part.
  Result<NodePath> GetPortPart() const;
  // 22: true if `prefix` is a prefix of the parts; an empty block always is.
  bool StartsWith(Block prefix) const noexcept;
  bool StartsWith(const NodePath& prefix) const noexcept { return StartsWith(prefix.ToBlock()); }

  // --- Kind and sections.

  // 23: the stored kind; NODE for the empty path.
  NODE_KIND GetKindRaw() const noexcept { return _Data().kind; }
  // 24: the stored kind, except that the empty path is NONE unless
  // `populatedRoot` is true (a populated handle to the root passes true).
  NODE_KIND GetKind(bool populatedRoot = false) const noexcept {
    const Object& o = _Data();
    return (o.count == 0 && !populatedRoot) ? NODE_KIND::NONE : o.kind;
  }
  // 25: the number of parts before the port-list part; all if there is none.
  size_t GetNodeCount() const noexcept;
  // 26: the prefix that ends at the top-level port: for a port-list part at
  // index k (searched from the second-to-last part down), the first k + 2
  // parts. "Path @ doesn't point to a port." if there is none.
  Result<NodePath> GetTopLevelPort() const;
  // 27: the parts before the port-list part; this object if there is none.
  Result<NodePath> GetNodePart() const;
  // 28: true if the second part from the end is a port-list part.
  bool IsTopLevelPort() const noexcept;
  // 29: true if there are at least two parts and the first is a port-list part.
  bool IsRootPort() const noexcept;

  // --- Text, equality, order and hash.

  // 30: the string form.
  std::string ToString() const;
  // 31: same hash and same object, or same count and pointer-equal parts. The
  // null handle equals exactly the paths with no parts.
  bool Equals(const NodePath& other) const noexcept {
    if (_object == other._object) return true;
    const Object& a = _Data();
    const Object& b = other._Data();
    if (a.hash != b.hash || a.count != b.count) return false;
    const InternedId* pa = a.Parts();
    const InternedId* pb = b.Parts();
    for (size_t i = 0; i < a.count; ++i) {
      if (!(pa[i] == pb[i])) return false;
    }
    return true;
  }
  // 32: -1, 0 or 1. Part by part: pointer-equal parts are equal, a null part
  // sorts first, otherwise the strings decide bytewise; then the shorter path
  // sorts first. Never looks at the hash.
  int Compare(const NodePath& other) const noexcept;
  // 33: the stored hash; 0 for the empty path.
  uint64_t GetHashCode() const noexcept { return _Data().hash; }
  // 34: true if the parts are `first` followed by `second`. With
  // `emptyMatchesEmptySecond`, the empty path equals an empty `second`
  // whatever `first` is.
  bool EqualsConcatenation(Block first, Block second,
                           bool emptyMatchesEmptySecond = false) const noexcept;
  // 35: Compare(other) < 0.
  bool LessThan(const NodePath& other) const noexcept { return Compare(other) < 0; }
  // 36: Compare(other) <= 0.
  bool LessThanOrEqual(const NodePath& other) const noexcept { return Compare(other) <= 0; }

  // --- Stored form.

  // 37: declares the one stored member, "path", which holds the string form.
  // Reading it parses the text (port lists allowed); a parse error ends the read.
  static Result<void> DescribeIO(IoDescription<NodePath>& description);
  // The text of the member "path".
  std::string WriteSerialized() const { return ToString(); }
  // The path of a stored "path" text; kind and hash are rebuilt.
  static Result<NodePath> ReadSerialized(std::string_view text) { return Parse(text, true); }

  // --- The handle.

  // True for the null handle (which is the empty path, as is an Alloc'ed one).
  bool IsNull() const noexcept { return _object == nullptr; }
  // True for a path without parts.
  bool IsEmpty() const noexcept { return GetCount() == 0; }
  // True if both handles hold the same object (two nulls included).
  bool IsSameObject(const NodePath& other) const noexcept { return _object == other._object; }
  // The number of handles on the object; 0 for the null handle.
  uint32_t GetReferenceCount() const noexcept {
    return _object ? _object->refCount.load(std::memory_order_acquire) : 0;
  }

  friend bool operator==(const NodePath& a, const NodePath& b) noexcept { return a.Equals(b); }
  friend std::strong_ordering operator<=>(const NodePath& a, const NodePath& b) noexcept {
    return a.Compare(b) <=> 0;
  }

 private:
  // Header of the single allocation; `count` parts follow it inline. A bare
  // count rather than RefCounted: paths need no weak references nor virtual
  // destruction, and the header is 24 bytes instead of 48.
  struct Object {
    std::atomic<uint32_t> refCount{1};
    NODE_KIND kind = NODE_KIND::NODE;
    size_t count = 0;
    uint64_t hash = 0;

    const InternedId* Parts() const noexcept {
      return reinterpret_cast<const InternedId*>(this + 1);
    }
    InternedId* Parts() noexcept { return reinterpret_cast<InternedId*>(this + 1); }
  };
  static_assert(sizeof(Object) % alignof(InternedId) == 0);

  struct ReservedIds {
    InternedId inputs;
    InternedId outputs;
  };
  // Interned once; afterwards the port-list test is a pointer comparison.
  static const ReservedIds& _Reserved() {
    static const ReservedIds ids{InternedId::Get("<"), InternedId::Get(">")};
    return ids;
  }

  // Stands in for the null handle wherever fields are read.
  static const Object _empty;

  explicit NodePath(Object* adopted) noexcept : _object(adopted) {}

  const Object& _Data() const noexcept { return _object ? *_object : _empty; }
  void _AddReference() const noexcept {
    if (_object) _object->refCount.fetch_add(1, std::memory_order_relaxed);
  }
  void _RemoveReference() noexcept {
    if (_object && _object->refCount.fetch_sub(1, std::memory_order_acq_rel) == 1) _Free(_object);
  }

  static void _Free(Object* object) noexcept;
  // An object for `count` parts with uninitialised parts; null if out of memory.
  static Object* _Allocate(size_t count) noexcept;
  // A path of the concatenated blocks with the given kind and hash; a null path
  // for no parts.
  static Result<NodePath> _Make(Block first, Block second, NODE_KIND kind, uint64_t hash);
  static Result<NodePath> _MakeFromBlock(Block parts);
  static Result<NodePath> _MakeConcatenation(Block first, Block second);
  // The index of the port-list part, or the count if there is none.
  size_t _FindPortList() const noexcept;

  Object* _object = nullptr;
};

}  // namespace orvix

template <>
struct std::hash<orvix::NodePath> {
  size_t operator()(const orvix::NodePath& path) const noexcept { return path.GetHashCode(); }
};
