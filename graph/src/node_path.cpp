#include "orvix/graph/node_path.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>

#include "orvix/host/format.h"

namespace orvix {

namespace {
// Intern "<" and ">" while the library loads, so that the queries that test for
// a port-list part never allocate, and can't fail, on first use.
[[maybe_unused]] const bool g_portListIdsReady = NodePath::GetInputsId().IsPopulated();
}  // namespace

namespace {

constexpr char ESCAPE = '\\';

// Ordinary parts of a parse collect here; most paths are short, so the first
// parts stay on the stack and a parse costs one allocation, the path's own.
class PartBuffer {
 public:
  void push_back(InternedId part) {
    if (_size < _inline.size()) {
      _inline[_size++] = part;
      return;
    }
    if (_heap.empty()) _heap.assign(_inline.begin(), _inline.end());
    _heap.push_back(part);
    ++_size;
  }
  NodePath::Block Get() const {
    return _size <= _inline.size() ? NodePath::Block(_inline.data(), _size)
                                   : NodePath::Block(_heap);
  }

 private:
  std::array<InternedId, 16> _inline;
  std::vector<InternedId> _heap;
  size_t _size = 0;
};

Error PathError(std::string_view pattern, std::string_view text) {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, FormatMessage(pattern, text));
}

Error EmptyPartError() {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, "The path contains an empty part.");
}

bool HasNullPart(NodePath::Block parts) {
  return std::any_of(parts.begin(), parts.end(), [](InternedId p) { return p.IsNull(); });
}

// The scanner of the string form: appends the parts of `text` to `parts`.
// `hasPortList` says whether `parts` already holds a port-list part.
template <typename Sink>
Result<void> ScanParts(std::string_view text, bool allowPortLists, bool hasPortList, Sink& parts) {
  if (text.empty()) return Ok();

  // Adds one part, applying the port-list rules to the reserved ids however
  // they were spelled: an escaped "<" interns to the same id as the marker.
  auto addPart = [&](std::string_view partText) -> Result<void> {
    ORVIX_TRY_ASSIGN(InternedId id, InternedId::Create(partText));
    if (NodePath::IsPortListPart(id)) {
      if (!allowPortLists) return PathError("Path @ contains port list identifier.", text);
      if (hasPortList)
        return PathError("Path @ contains more than one port list identifier.", text);
      hasPortList = true;
    }
    parts.push_back(id);
    return Ok();
  };

  // The current part is the view text[start, i) until an escape is met; from
  // then on it is copied into `unescaped`.
  std::string unescaped;
  bool copying = false;
  size_t start = 0;
  bool afterMarker = false;
  const size_t n = text.size();
  size_t i = 0;
  for (;;) {
    const bool atEnd = i >= n;
    const char c = atEnd ? '/' : text[i];
    if (c == '/' || c == '\0') {
      const bool empty = copying ? unescaped.empty() : i == start;
      if (empty) {
        if (!afterMarker) return PathError("Path @ contains an empty part.", text);
      } else {
        ORVIX_TRY(addPart(copying ? std::string_view(unescaped) : text.substr(start, i - start)));
      }
      if (atEnd || c == '\0') break;
      afterMarker = false;
      start = ++i;
      copying = false;
      unescaped.clear();
    } else if (c == '<' || c == '>') {
      if (copying || i != start) {
        ORVIX_TRY(addPart(copying ? std::string_view(unescaped) : text.substr(start, i - start)));
      }
      if (!allowPortLists) return PathError("Path @ contains port list identifier.", text);
      if (hasPortList)
        return PathError("Path @ contains more than one port list identifier.", text);
      hasPortList = true;
      parts.push_back(c == '<' ? NodePath::GetInputsId() : NodePath::GetOutputsId());
      afterMarker = true;
      start = ++i;
      copying = false;
      unescaped.clear();
    } else if (c == ESCAPE) {
      if (i + 1 >= n) return PathError("Path @ contains escape character at the end.", text);
      if (!copying) {
        unescaped.assign(text.substr(start, i - start));
        copying = true;
      }
      unescaped.push_back(text[i + 1]);
      afterMarker = false;
      i += 2;
    } else {
      if (copying) unescaped.push_back(c);
      afterMarker = false;
      ++i;
    }
  }
  return Ok();
}

void AppendEscaped(std::string& out, std::string_view part) {
  for (char c : part) {
    if (c == '/' || c == '<' || c == '>' || c == ESCAPE || c == '\0') out.push_back(ESCAPE);
    out.push_back(c);
  }
}

void AppendStringForm(std::string& out, NodePath::Block parts) {
  bool previousOrdinary = false;
  for (InternedId part : parts) {
    if (NodePath::IsPortListPart(part)) {
      out.append(part.GetString());
      previousOrdinary = false;
    } else {
      if (previousOrdinary) out.push_back('/');
      AppendEscaped(out, part.GetString());
      previousOrdinary = true;
    }
  }
}

}  // namespace

const NodePath::Object NodePath::_empty{};

// --- Hash and kind.

uint64_t NodePath::HashBlock(Block parts) noexcept {
  uint64_t hash = 0;
  for (InternedId part : parts) hash = HashStep(hash, part);
  return hash;
}

NODE_KIND NodePath::KindStep(NODE_KIND kind, InternedId part) {
  const ReservedIds& r = _Reserved();
  if (part == r.inputs) return NODE_KIND::INPUTS;
  if (part == r.outputs) return NODE_KIND::OUTPUTS;
  if (kind == NODE_KIND::INPUTS) return NODE_KIND::INPORT;
  if (kind == NODE_KIND::OUTPUTS) return NODE_KIND::OUTPORT;
  return kind;
}

NODE_KIND NodePath::KindOfBlock(Block parts) {
  NODE_KIND kind = NODE_KIND::NODE;
  for (InternedId part : parts) kind = KindStep(kind, part);
  return kind;
}

// --- The object.

NodePath::Object* NodePath::_Allocate(size_t count) noexcept {
  if (count > (SIZE_MAX - sizeof(Object)) / sizeof(InternedId)) return nullptr;
  void* memory = ::operator new(sizeof(Object) + count * sizeof(InternedId), std::nothrow);
  if (!memory) return nullptr;
  Object* object = new (memory) Object();
  object->count = count;
  return object;
}

void NodePath::_Free(Object* object) noexcept {
  // Interned ids are trivially destructible; only the header needs ending.
  static_assert(std::is_trivially_destructible_v<InternedId>);
  object->~Object();
  ::operator delete(object);
}

Result<NodePath> NodePath::_Make(Block first, Block second, NODE_KIND kind, uint64_t hash) {
  const size_t count = first.size() + second.size();
  if (count == 0) return NodePath();
  Object* object = _Allocate(count);
  if (!object) return OutOfMemoryError();
  InternedId* parts = object->Parts();
  std::uninitialized_copy(first.begin(), first.end(), parts);
  std::uninitialized_copy(second.begin(), second.end(), parts + first.size());
  object->kind = kind;
  object->hash = hash;
  return NodePath(object);
}

Result<NodePath> NodePath::_MakeFromBlock(Block parts) {
  return _Make(parts, {}, KindOfBlock(parts), HashBlock(parts));
}

Result<NodePath> NodePath::_MakeConcatenation(Block first, Block second) {
  NODE_KIND kind = KindOfBlock(first);
  uint64_t hash = HashBlock(first);
  for (InternedId part : second) {
    kind = KindStep(kind, part);
    hash = HashStep(hash, part);
  }
  return _Make(first, second, kind, hash);
}

// --- Creation and text forms.

Result<NodePath> NodePath::Alloc() {
  Object* object = _Allocate(0);
  if (!object) return OutOfMemoryError();
  return NodePath(object);
}

Result<NodePath> NodePath::CreateUnchecked(Block parts) {
  return _MakeFromBlock(parts);
}

Result<NodePath> NodePath::Create(Block parts) {
  if (HasNullPart(parts)) return EmptyPartError();
  return _MakeFromBlock(parts);
}

Result<NodePath> NodePath::CreateFromArray(std::vector<InternedId>&& parts) {
  std::vector<InternedId> taken = std::move(parts);
  parts.clear();
  return Create(taken);
}

Result<NodePath> NodePath::Parse(std::string_view text, bool allowPortLists) {
  try {
    PartBuffer parts;
    ORVIX_TRY(ScanParts(text, allowPortLists, false, parts));
    return _MakeFromBlock(parts.Get());
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

Result<std::string> NodePath::ToCString() const {
  std::string out;
  ORVIX_TRY(AppendToCString(out));
  return out;
}

Result<void> NodePath::AppendToCString(std::string& out) const {
  const size_t before = out.size();
  try {
    AppendStringForm(out, ToBlock());
  } catch (const std::bad_alloc&) {
    out.resize(before);
    return OutOfMemoryError();
  }
  return Ok();
}

Result<NodePath> NodePath::CreateChecked(Block parts) {
  return Create(parts);
}

Result<NodePath> NodePath::CreateInputPort(Block parts) {
  if (HasNullPart(parts)) return EmptyPartError();
  const InternedId marker[] = {GetInputsId()};
  return _MakeConcatenation(marker, parts);
}

Result<NodePath> NodePath::CreateOutputPort(Block parts) {
  if (HasNullPart(parts)) return EmptyPartError();
  const InternedId marker[] = {GetOutputsId()};
  return _MakeConcatenation(marker, parts);
}

Result<void> NodePath::ParseToArray(std::string_view text, std::vector<InternedId>& parts,
                                    bool allowPortLists) {
  const size_t before = parts.size();
  const bool hasPortList = std::any_of(parts.begin(), parts.end(), IsPortListPart);
  Result<void> result = Ok();
  try {
    result = ScanParts(text, allowPortLists, hasPortList, parts);
  } catch (const std::bad_alloc&) {
    result = OutOfMemoryError();
  }
  if (!result) parts.resize(before);
  return result;
}

// --- New paths from this one.

Result<NodePath> NodePath::Append(InternedId node) const {
  ORVIX_CHECK_ARGUMENT(node.IsPopulated());
  const Object& o = _Data();
  const InternedId added[] = {node};
  return _Make(ToBlock(), added, KindStep(o.kind, node), HashStep(o.hash, node));
}

Result<NodePath> NodePath::AppendBlock(Block parts) const {
  if (parts.empty()) return *this;
  if (HasNullPart(parts)) return EmptyPartError();
  // Kind and hash go on from the stored ones; this path's parts aren't read.
  const Object& o = _Data();
  NODE_KIND kind = o.kind;
  uint64_t hash = o.hash;
  for (InternedId part : parts) {
    kind = KindStep(kind, part);
    hash = HashStep(hash, part);
  }
  return _Make(ToBlock(), parts, kind, hash);
}

Result<NodePath> NodePath::AppendPath(const NodePath& other) const {
  if (IsEmpty()) return other;
  return AppendBlock(other.ToBlock());
}

Result<NodePath> NodePath::Prepend(Block parts) const {
  if (parts.empty()) return *this;
  if (HasNullPart(parts)) return EmptyPartError();
  return _MakeConcatenation(parts, ToBlock());
}

Result<NodePath> NodePath::Slice(int64_t start, int64_t packed) const {
  const int64_t count = static_cast<int64_t>(GetCount());
  const int64_t givenStart = start;
  if (start < 0) start = count + start + 1;
  if (start < 0 || start > count) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("Start position @ out of bounds.", givenStart));
  }
  // C++20 defines >> of a negative value as an arithmetic shift.
  int64_t value = packed >> 1;
  int64_t sliceCount;
  if (packed & 1) {
    sliceCount = value;
  } else {
    if (value < 0) value = count + value + 1;
    sliceCount = value - start;
  }
  if (sliceCount < 0 || sliceCount > count - start) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("Count @ out of bounds for start position @.", sliceCount, start));
  }
  if (sliceCount == count) return *this;
  if (sliceCount == 0) return NodePath();
  return _MakeFromBlock(
      ToBlock().subspan(static_cast<size_t>(start), static_cast<size_t>(sliceCount)));
}

Result<NodePath> NodePath::GetPortPart() const {
  const size_t k = _FindPortList();
  const size_t count = GetCount();
  if (k == count) return NodePath();
  if (k == 0) return *this;
  return _MakeFromBlock(ToBlock().subspan(k));
}

bool NodePath::StartsWith(Block prefix) const noexcept {
  const Block parts = ToBlock();
  if (prefix.size() > parts.size()) return false;
  return std::equal(prefix.begin(), prefix.end(), parts.begin());
}

// --- Kind and sections.

size_t NodePath::_FindPortList() const noexcept {
  const Object& o = _Data();
  // A path whose kind is still NODE has met no port-list part.
  if (o.kind == NODE_KIND::NODE) return o.count;
  const InternedId* parts = o.Parts();
  for (size_t i = 0; i < o.count; ++i) {
    if (IsPortListPart(parts[i])) return i;
  }
  return o.count;
}

size_t NodePath::GetNodeCount() const noexcept {
  return _FindPortList();
}

Result<NodePath> NodePath::GetTopLevelPort() const {
  const Object& o = _Data();
  const InternedId* parts = o.Parts();
  for (size_t k = o.count >= 2 ? o.count - 1 : 0; k-- > 0;) {
    if (IsPortListPart(parts[k])) {
      if (k + 2 == o.count) return *this;
      return _MakeFromBlock(Block(parts, k + 2));
    }
  }
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               FormatMessage("Path @ doesn't point to a port.", *this));
}

Result<NodePath> NodePath::GetNodePart() const {
  const size_t k = _FindPortList();
  if (k == GetCount()) return *this;
  if (k == 0) return NodePath();
  return _MakeFromBlock(ToBlock().first(k));
}

bool NodePath::IsTopLevelPort() const noexcept {
  const Object& o = _Data();
  return o.count >= 2 && IsPortListPart(o.Parts()[o.count - 2]);
}

bool NodePath::IsRootPort() const noexcept {
  const Object& o = _Data();
  return o.count >= 2 && IsPortListPart(o.Parts()[0]);
}

// --- Text, equality, order and hash.

std::string NodePath::ToString() const {
  std::string out;
  AppendStringForm(out, ToBlock());
  return out;
}

int NodePath::Compare(const NodePath& other) const noexcept {
  if (_object == other._object) return 0;
  const Block a = ToBlock();
  const Block b = other.ToBlock();
  const size_t common = std::min(a.size(), b.size());
  for (size_t i = 0; i < common; ++i) {
    if (a[i] == b[i]) continue;  // the common case, without reading strings
    const int c = InternedId::CompareText(a[i], b[i]);
    if (c != 0) return c;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

bool NodePath::EqualsConcatenation(Block first, Block second,
                                   bool emptyMatchesEmptySecond) const noexcept {
  const Block parts = ToBlock();
  if (emptyMatchesEmptySecond && parts.empty() && second.empty()) return true;
  if (parts.size() != first.size() + second.size()) return false;
  return std::equal(first.begin(), first.end(), parts.begin()) &&
         std::equal(second.begin(), second.end(), parts.begin() + first.size());
}

// --- Stored form.

Result<void> NodePath::DescribeIO(IoDescription<NodePath>& description) {
  return description.DeclareMember(
      "path", [](const NodePath& path) { return path.WriteSerialized(); },
      [](NodePath& path, std::string_view text) -> Result<void> {
        ORVIX_TRY_ASSIGN(path, ReadSerialized(text));
        return Ok();
      });
}

}  // namespace orvix
