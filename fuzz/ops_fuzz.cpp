// Fuzzes sequences of public operations on node systems: new systems, copies
// and derived systems, edits, reads and the modification bracket, with
// handles kept from step to step (stale ones, ones of other systems and of
// systems since dropped among them). After every step it checks what the
// node core promises whatever the order of calls:
//   - an edit that fails leaves the visible graph of its system as it was
//     (a failed EndModification or Validate keeps the work done before);
//   - a finished system never changes, whatever copies and derived systems
//     of it do (its dump, stamp included, is taken when it is finished);
//   - a copy shows its source, and a new derived system its base;
//   - both ends of every wire of a finished system report it alike
//     (g_testGetConnections makes EndModification check the same);
//   - no "Internal error" line reaches the diagnostic output.
// A broken promise aborts with a message, which libFuzzer reports; the
// sanitizers catch the rest. Set ORVIX_FUZZ_TRACE=1 to print every step.
//
// The visible graph ("dump") is what public reads say: every element the
// child walk reaches from the root, with its kind, GetFlags, its values
// (GetValues with bases) and, for a port, its effective sources and targets
// (GetConnections with every wire, implicit ones included) with wires and
// connection attributes.
//
// Byte encoding. An input is a run of steps, at most kMaxSteps; a missing
// byte reads as 0, and the run ends when the bytes do. Each step is an op
// byte (its low 5 bits pick the op, see the Op table) and its operands:
//   slot    one byte, modulo kSlots: a place that holds nothing, an open
//           system (under modification) or a finished one.
//   handle  one byte: below 0xa0 an element of the handle pool (handles kept
//           from earlier steps, whatever system made them); 0xa0..0xdf a path
//           (below) looked up with FindByPath in the step's system; from 0xe0
//           by the low 3 bits: the root, an empty handle, MakeHandle of a
//           path, a bare handle of a path (no record), the newest pool handle.
//   path    one byte b: with bit 7 set, (b & 3) + 1 text tokens (kTexts)
//           joined and parsed, escapes and non-ASCII bytes included; else
//           b % 8 parts (kParts) given to NodePath::Create.
//   id      one byte: an entry of kIds, the names given to AddPort, AddChild,
//           ResetChild and GetChild ("", "<", "#", escapes, non-ASCII...).
//   attr    one byte: an entry of kAttributes (null id and reserved ids too).
//   value   one byte for its type (empty, int64, int32, bool, string, double,
//           id, a constant) and one for its content.
//   wires   one byte w: below 0xc0 channel w & 7 gets the next byte, the
//           rest stay 0; from 0xc0 the next 8 bytes are the channels 0..7.
//           Every byte 0..0xff reaches Connect.
//   mask    one byte: 0x3f in every channel, 0x7f in every channel, 0, one
//           channel, or 8 raw bytes.
// Element counts are bounded (kMaxElements per system): an add that would
// pass the bound is skipped, so that dumps stay cheap.

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ops_dump.h"
#include "orvix/graph/connection.h"
#include "orvix/graph/node_kind.h"
#include "orvix/graph/node_path.h"
#include "orvix/graph/wires.h"
#include "orvix/host/config.h"
#include "orvix/host/data.h"
#include "orvix/host/diagnostics.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/config_variables.h"
#include "orvix/nodes/gnode.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/module.h"
#include "orvix/nodes/node_system.h"
#include "orvix/nodes/node_system_class.h"
// Derived systems have no published constructor yet (instances come with the
// base operations); NodeSystemImpl::CreateDerived is the only way to make
// one, as the edit tests do.
#include "store/node_system_impl.h"

namespace orvix::nodes {
namespace {

constexpr size_t kMaxSteps = 64;
constexpr size_t kSlots = 6;
constexpr size_t kMaxElements = 40;
constexpr size_t kHandles = 32;
constexpr size_t kIterators = 4;
constexpr size_t kFinishedCheckEvery = 8;

bool g_trace = false;
// Compare finished systems after every step (implied by tracing).
bool g_strict = false;

using fuzz::AttributesText;
using fuzz::Dump;
using fuzz::Fail;
using fuzz::FirstDifference;
using fuzz::TakeDump;
using fuzz::WireEndsDisagree;
using fuzz::WithoutStamp;

#define FUZZ_CHECK(cond, what)                             \
  do {                                                     \
    if (!(cond)) Fail(std::string(#cond) + ": " + (what)); \
  } while (0)

void Trace(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Trace(const char* format, ...) {
  if (!g_trace) return;
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
}

template <typename T>
std::string Message(const Result<T>& r) {
  return r ? std::string("ok") : r.GetError().GetMessage();
}

bool StartsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

// --- Vocabularies -------------------------------------------------------

// Names of new children.
constexpr std::array<std::string_view, 16> kIds = {
    "a", "b", "c", "n0", "n1",       "n2",  "x",    ".h",
    "#", "",  "<", ">",  "\xc3\xa9", "a/b", "x\\y", "net.orvix.node.port.nodesystem"};
// Parts of paths made with NodePath::Create.
constexpr std::array<std::string_view, 16> kParts = {
    "<",  ">",  "<", ">",  "a", "b",        "c",   "n0",
    "n1", "n2", "x", ".h", "#", "\xc3\xa9", "a/b", "net.orvix.node.port.nodesystem"};
// Pieces of path texts.
constexpr std::array<std::string_view, 16> kTexts = {"<", ">",  "a",  "b",   "n0",       "n1",
                                                     "/", "#",  "\\", "\\<", "\xc3\xa9", "\xff",
                                                     "",  "<a", ">b", "n0<a"};
// Attribute ids; the empty entry stands for the null id.
constexpr std::array<std::string_view, 8> kAttributes = {"v",
                                                         "w",
                                                         "",
                                                         "isshortcutstop",
                                                         "net.orvix.node.ionodes",
                                                         "inheritnestedports",
                                                         "net.orvix.node.base.updatepolicy",
                                                         "checkuniquenumber"};

// --- Input ----------------------------------------------------------------

class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : _data(data), _size(size) {}
  bool AtEnd() const { return _next >= _size; }
  uint8_t Next() { return _next < _size ? _data[_next++] : 0; }
  uint64_t Next64() {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v |= uint64_t(Next()) << (8 * i);
    return v;
  }

 private:
  const uint8_t* _data;
  size_t _size;
  size_t _next = 0;
};

// --- The run of one input -------------------------------------------------

struct Slot {
  enum class State { EMPTY, OPEN, FINISHED } state = State::EMPTY;
  MutableRoot open;
  Ref<NodeSystem> finished;
  // OPEN: the dump since the last edit that succeeded (or none yet).
  std::optional<Dump> openDump;
  // FINISHED: the dump taken when the system was finished.
  Dump finishedDump;

  NodeSystem* System() const {
    switch (state) {
      case State::OPEN:
        return open._system.Get();
      case State::FINISHED:
        return finished.Get();
      case State::EMPTY:
        break;
    }
    return nullptr;
  }
};

const char* StateName(Slot::State s) {
  switch (s) {
    case Slot::State::OPEN:
      return "open";
    case Slot::State::FINISHED:
      return "finished";
    case Slot::State::EMPTY:
      break;
  }
  return "empty";
}

enum class Op : uint8_t {
  NEW,
  FINISH,
  FINISH_FLAGS,
  COPY,
  DERIVE,
  BEGIN_IN_PLACE,
  BEGIN_ON_OBJECT,
  DROP,
  ADD_PORT,
  ADD_CHILD,
  REMOVE,
  RESET_CHILD,
  CONNECT,
  SET_CONNECTION_VALUE,
  SET_VALUE,
  ERASE_VALUE,
  RESET_VALUE,
  TOUCH_VALUE,
  READ_VALUES,
  READ_CONNECTIONS,
  READ_TREE,
  READ_STAMPS,
  FIND,
  WALK,
  VALIDATE,
  COMPACT,
};

// The low 5 bits of an op byte; the frequent edits have more than one entry.
constexpr std::array<Op, 32> kOps = {
    Op::NEW,
    Op::NEW,
    Op::FINISH,
    Op::FINISH_FLAGS,
    Op::COPY,
    Op::DERIVE,
    Op::BEGIN_IN_PLACE,
    Op::DROP,
    Op::ADD_PORT,
    Op::ADD_PORT,
    Op::ADD_CHILD,
    Op::REMOVE,
    Op::RESET_CHILD,
    Op::CONNECT,
    Op::CONNECT,
    Op::SET_CONNECTION_VALUE,
    Op::SET_VALUE,
    Op::SET_VALUE,
    Op::ERASE_VALUE,
    Op::RESET_VALUE,
    Op::TOUCH_VALUE,
    Op::READ_VALUES,
    Op::READ_CONNECTIONS,
    Op::READ_TREE,
    Op::FIND,
    Op::FIND,
    Op::WALK,
    Op::VALIDATE,
    Op::COMPACT,
    Op::BEGIN_ON_OBJECT,
    Op::READ_STAMPS,
    Op::ADD_PORT,
};

class Run {
 public:
  Run(Ref<NodeSystemClass> cls, const uint8_t* data, size_t size)
      : _class(std::move(cls)), _in(data, size) {}

  void Go() {
    for (_step = 0; _step < kMaxSteps && !_in.AtEnd(); ++_step) {
      const uint8_t opByte = _in.Next();
      const Op op = kOps[opByte & 31];
      Trace("#%zu op %u:", _step, unsigned(opByte & 31));
      Do(op);
      Trace("\n");
      CheckAfterStep();
    }
    // Drop the systems in an order of the input's choosing: the last of a
    // chain of bases to go may be a base or a derived system.
    const size_t first = _in.Next();
    for (size_t i = 0; i < kSlots; ++i) Drop(_slots[(first + i) % kSlots]);
    CheckOutput();
  }

 private:
  // --- Operands

  Slot& PickSlot() { return _slots[_in.Next() % kSlots]; }

  std::string_view PickId() { return kIds[_in.Next() % kIds.size()]; }

  InternedId PickAttribute() {
    const std::string_view text = kAttributes[_in.Next() % kAttributes.size()];
    return text.empty() ? InternedId() : InternedId::Get(text);
  }

  Data PickValue() {
    const uint8_t type = _in.Next();
    const uint8_t v = _in.Next();
    switch (type % 8) {
      case 0:
        return Data();
      case 1:
        return Data(int64_t(v));
      case 2:
        return Data(int32_t(v % 3));
      case 3:
        return Data(bool(v & 1));
      case 4:
        return Data(std::string("s") + std::to_string(v));
      case 5:
        return Data(double(v) / 4);
      case 6:
        return Data(InternedId::Get(kIds[v % kIds.size()].empty() ? "e" : kIds[v % kIds.size()]));
      default:
        return Data(int64_t(7));
    }
  }

  std::optional<NodePath> PickPath() {
    const uint8_t b = _in.Next();
    if (b & 0x80) {
      std::string text;
      for (int i = 0, n = (b & 3) + 1; i < n; ++i) text += kTexts[_in.Next() % kTexts.size()];
      Result<NodePath> parsed = NodePath::Parse(text, true);
      if (!parsed) return std::nullopt;
      return std::move(parsed).Value();
    }
    std::vector<InternedId> parts;
    for (int i = 0, n = b % 8; i < n; ++i) {
      parts.push_back(InternedId::Get(kParts[_in.Next() % kParts.size()]));
    }
    Result<NodePath> made = NodePath::Create(parts);
    if (!made) return std::nullopt;
    return std::move(made).Value();
  }

  GNode PickHandle(const NodeSystem* system) {
    const uint8_t b = _in.Next();
    if (b < 0xa0) {
      if (_handles.empty()) return system ? system->GetRoot() : GNode();
      return _handles[b % _handles.size()];
    }
    if (b < 0xe0) {
      const std::optional<NodePath> path = PickPath();
      if (!path || !system) return GNode();
      return system->FindByPath(*path);
    }
    switch (b & 7) {
      case 0:
        return system ? system->GetRoot() : GNode();
      case 1:
        return GNode();
      case 2: {
        const std::optional<NodePath> path = PickPath();
        if (!path || !system) return GNode();
        return system->MakeHandle(*path);
      }
      case 3: {
        const std::optional<NodePath> path = PickPath();
        return path ? GNode(*path) : GNode();
      }
      default:
        return _handles.empty() ? GNode() : _handles.back();
    }
  }

  Wires PickWires() {
    const uint8_t w = _in.Next();
    if (w < 0xc0) return Wires().With(w & 7, WIRE_MODE(_in.Next()));
    return Wires(_in.Next64());
  }

  Wires PickMask() {
    switch (_in.Next() % 5) {
      case 0:
        return WIRES_FILTER_ALL_EXPLICIT;
      case 1:
        return WIRES_FILTER_ALL_INCLUDING_IMPLICIT;
      case 2:
        return Wires();
      case 3:
        return Wires().With(_in.Next() & 7, WIRE_MODE::ALL_INCLUDING_IMPLICIT);
      default:
        return Wires(_in.Next64());
    }
  }

  void Keep(const GNode& node) {
    if (node.path.IsNull() && !node.info) return;
    if (_handles.size() < kHandles) {
      _handles.push_back(node);
    } else {
      _handles[_nextHandle++ % kHandles] = node;
    }
  }

  // --- Slots

  // Gives the slot up. A finished system is checked one last time first.
  void Drop(Slot& slot) {
    if (slot.state == Slot::State::FINISHED) CheckFinished(slot);
    slot.open = MutableRoot();
    slot.finished.Reset();
    slot.openDump.reset();
    slot.state = Slot::State::EMPTY;
  }

  void SetOpen(Slot& slot, MutableRoot root) {
    Drop(slot);
    slot.open = std::move(root);
    slot.state = Slot::State::OPEN;
  }

  // Puts a finished system in the pool, after the checks of a new one.
  void SetFinished(Slot& slot, Ref<NodeSystem> system, const char* how) {
    Dump dump = TakeDump(*system, true);
    FUZZ_CHECK(system->IsFinalized(), std::string("a system ") + how + " is not finalized");
    const std::string disagreement = WireEndsDisagree(dump);
    if (!disagreement.empty()) {
      Fail(std::string("both ends of a wire of a system ") + how + " must agree: " + disagreement +
           "\n" + dump.text);
    }
    Drop(slot);
    slot.finished = std::move(system);
    slot.finishedDump = std::move(dump);
    slot.state = Slot::State::FINISHED;
  }

  const Dump& OpenDump(Slot& slot) {
    if (!slot.openDump) slot.openDump = TakeDump(*slot.open._system, false);
    return *slot.openDump;
  }

  size_t ElementCount(Slot& slot) {
    switch (slot.state) {
      case Slot::State::OPEN:
        return OpenDump(slot).elements;
      case Slot::State::FINISHED:
        return slot.finishedDump.elements;
      case Slot::State::EMPTY:
        break;
    }
    return 0;
  }

  // --- Checks

  void CheckFinished(Slot& slot) {
    const Dump now = TakeDump(*slot.finished, true);
    if (now.text != slot.finishedDump.text) {
      Fail("a finished system changed at step " + std::to_string(_step) +
           FirstDifference(slot.finishedDump.text, now.text) + "\nwas:\n" + slot.finishedDump.text +
           "is:\n" + now.text);
    }
  }

  void CheckOutput() {
    for (const CapturedOutput::Line& line : _output.Lines()) {
      if (line.text.find("Internal error") != std::string::npos) {
        std::string all;
        for (const CapturedOutput::Line& l : _output.Lines()) all += "\n  " + l.text;
        Fail("\"Internal error\" in the diagnostic output at step " + std::to_string(_step) + ":" +
             all);
      }
    }
    _output.Clear();
  }

  // Finished systems are compared every kFinishedCheckEvery steps, before
  // one is dropped, reopened or copied or serves as a base, and at the end of
  // the input. A finished system that changed stays changed, so this finds
  // what a comparison after every step finds, at a fraction of the dumps;
  // tracing (or ORVIX_FUZZ_STRICT=1) compares after every step, so that a
  // reproducer names the step that did it.
  void CheckAfterStep() {
    CheckOutput();
    if (!g_strict && (_step + 1) % kFinishedCheckEvery != 0) return;
    std::unordered_set<const NodeSystem*> checked;
    for (Slot& slot : _slots) {
      if (slot.state != Slot::State::FINISHED) continue;
      if (!checked.insert(slot.finished.Get()).second) continue;
      CheckFinished(slot);
    }
  }

  // Runs an edit on the slot's system. An edit that fails must leave the
  // visible graph as it was; one that succeeds makes the kept dump stale.
  template <typename T, typename F>
  void Edit(Slot& slot, const char* name, F&& edit) {
    NodeSystem* system = slot.System();
    if (!system) {
      Trace(" %s: no system", name);
      return;
    }
    const std::string* before = nullptr;
    if (slot.state == Slot::State::OPEN) before = &OpenDump(slot).text;
    const Result<T> result = edit(*system);
    Trace(" %s on %s: %s", name, StateName(slot.state), Message(result).c_str());
    if (result && slot.state == Slot::State::OPEN) {
      slot.openDump.reset();
      return;
    }
    // An edit aimed at a finished system must be refused and leave it as it
    // was when it was finished.
    if (slot.state == Slot::State::FINISHED) {
      FUZZ_CHECK(!result, std::string(name) + " succeeded on a finished system");
      return CheckFinished(slot);
    }
    const Dump after = TakeDump(*system, false);
    if (after.text != *before) {
      Fail(std::string(name) + " failed with \"" + Message(result) +
           "\" and still changed the system at step " + std::to_string(_step) +
           FirstDifference(*before, after.text) + "\nbefore:\n" + *before + "after:\n" +
           after.text);
    }
  }

  // --- Operations

  void Do(Op op) {
    switch (op) {
      case Op::NEW: {
        Slot& slot = PickSlot();
        Result<MutableRoot> root = _class->CreateNodeSystem();
        Trace(" new: %s", Message(root).c_str());
        FUZZ_CHECK(root, "a class makes a new system: " + Message(root));
        SetOpen(slot, std::move(root).Value());
        return;
      }
      case Op::FINISH:
        return Finish(PickSlot(), FINALIZE_FLAGS::CLEANUP);
      case Op::FINISH_FLAGS: {
        Slot& slot = PickSlot();
        return Finish(slot, FINALIZE_FLAGS(_in.Next() % 3));
      }
      case Op::COPY:
        return Copy();
      case Op::DERIVE:
        return Derive();
      case Op::BEGIN_IN_PLACE:
        return BeginInPlace(PickSlot());
      case Op::BEGIN_ON_OBJECT:
        return BeginOnObject(PickSlot());
      case Op::DROP: {
        Slot& slot = PickSlot();
        Trace(" drop %s", StateName(slot.state));
        return Drop(slot);
      }
      case Op::ADD_PORT:
        return AddPort();
      case Op::ADD_CHILD:
        return AddChild();
      case Op::REMOVE: {
        Slot& slot = PickSlot();
        const GNode node = PickHandle(slot.System());
        Trace(" [%s]", node.ToString().c_str());
        return Edit<void>(slot, "Remove", [&](NodeSystem& s) { return s.Remove(node, nullptr); });
      }
      case Op::RESET_CHILD: {
        Slot& slot = PickSlot();
        const GNode parent = PickHandle(slot.System());
        const std::string_view id = PickId();
        const InternedId childId = id.empty() ? InternedId() : InternedId::Get(id);
        Trace(" [%s %s]", parent.ToString().c_str(), std::string(id).c_str());
        return Edit<void>(slot, "ResetChild",
                          [&](NodeSystem& s) { return s.ResetChild(parent, childId, nullptr); });
      }
      case Op::CONNECT: {
        Slot& slot = PickSlot();
        const GNode source = PickHandle(slot.System());
        const GNode target = PickHandle(slot.System());
        const Wires wires = PickWires();
        Trace(" [%s -> %s %016llx]", source.ToString().c_str(), target.ToString().c_str(),
              static_cast<unsigned long long>(wires.GetValue()));
        return Edit<void>(slot, "Connect",
                          [&](NodeSystem& s) { return s.Connect(source, target, wires, nullptr); });
      }
      case Op::SET_CONNECTION_VALUE: {
        Slot& slot = PickSlot();
        const GNode source = PickHandle(slot.System());
        const GNode target = PickHandle(slot.System());
        const uint32_t kind = _in.Next() % 4;
        const InternedId id = PickAttribute();
        const Data value = PickValue();
        Trace(" [%s -> %s %u %s=%s]", source.ToString().c_str(), target.ToString().c_str(), kind,
              id.GetCString(), value.ToString().c_str());
        return Edit<bool>(slot, "SetConnectionValue", [&](NodeSystem& s) {
          return s.SetConnectionValue(source, target, kind, id, value, nullptr);
        });
      }
      case Op::SET_VALUE: {
        Slot& slot = PickSlot();
        const GNode node = PickHandle(slot.System());
        const InternedId id = PickAttribute();
        Data value = PickValue();
        Trace(" [%s %s=%s]", node.ToString().c_str(), id.GetCString(), value.ToString().c_str());
        return Edit<bool>(slot, "SetValue", [&](NodeSystem& s) {
          return s.SetValue(node, id, std::move(value), nullptr, true);
        });
      }
      case Op::ERASE_VALUE:
      case Op::RESET_VALUE:
      case Op::TOUCH_VALUE: {
        Slot& slot = PickSlot();
        const GNode node = PickHandle(slot.System());
        const InternedId id = PickAttribute();
        Trace(" [%s %s]", node.ToString().c_str(), id.GetCString());
        if (op == Op::ERASE_VALUE) {
          return Edit<bool>(slot, "EraseValue",
                            [&](NodeSystem& s) { return s.EraseValue(node, id, nullptr); });
        }
        if (op == Op::RESET_VALUE) {
          return Edit<bool>(slot, "ResetValue",
                            [&](NodeSystem& s) { return s.ResetValue(node, id, nullptr); });
        }
        return Edit<void>(slot, "TouchValue",
                          [&](NodeSystem& s) { return s.TouchValue(node, id, nullptr); });
      }
      case Op::READ_VALUES:
        return ReadValues();
      case Op::READ_CONNECTIONS:
        return ReadConnections();
      case Op::READ_TREE:
        return ReadTree();
      case Op::READ_STAMPS:
        return ReadStamps();
      case Op::FIND:
        return Find();
      case Op::WALK:
        return Walk();
      case Op::VALIDATE:
        return Validate();
      case Op::COMPACT:
        return Compact();
    }
  }

  void Finish(Slot& slot, FINALIZE_FLAGS flags) {
    if (slot.state != Slot::State::OPEN) {
      // Ending what isn't open must be refused; the finished check after the
      // step sees that nothing moved.
      if (NodeSystem* system = slot.System()) {
        const Result<void> ended = system->EndModification(nullptr, flags);
        Trace(" end on %s: %s", StateName(slot.state), Message(ended).c_str());
        FUZZ_CHECK(!ended, "EndModification of a finished system succeeded");
        if (slot.state == Slot::State::FINISHED) CheckFinished(slot);
      }
      return;
    }
    Result<Ref<NodeSystem>> ended = slot.open.EndModification(nullptr, flags);
    Trace(" end(%u): %s", unsigned(flags), Message(ended).c_str());
    if (!ended) {
      const std::string m = Message(ended);
      FUZZ_CHECK(!StartsWith(m, "Reverse connection from ") &&
                     !StartsWith(m, "Inconsistent result for wires "),
                 "EndModification found a wire whose ends disagree: " + m);
      // The system stays under modification with what the edits did.
      slot.openDump.reset();
      return;
    }
    Ref<NodeSystem> done = std::move(ended).Value();
    slot.open._system.Reset();
    SetFinished(slot, std::move(done), "ended");
  }

  void Copy() {
    Slot& from = PickSlot();
    Slot& to = PickSlot();
    if (from.state == Slot::State::EMPTY) return;
    // A second reference: BeginModification must copy, and leave `from` be.
    Ref<NodeSystem> system(from.System());
    const bool fromFinished = from.state == Slot::State::FINISHED;
    if (fromFinished) CheckFinished(from);
    const std::string source =
        fromFinished ? WithoutStamp(from.finishedDump.text) : OpenDump(from).text;
    Result<MutableRoot> root = BeginModification(system, false);
    Trace(" copy of %s: %s", StateName(from.state), Message(root).c_str());
    if (!root) {
      FUZZ_CHECK(system.Get() == from.System(), "a failed BeginModification puts the old back");
      return;
    }
    FUZZ_CHECK(!fromFinished || root->_system.Get() != from.System(),
               "BeginModification of a shared system copies it");
    system.Reset();
    SetOpen(to, std::move(root).Value());
    const Dump& copy = OpenDump(to);
    const std::string copyText = copy.text;
    FUZZ_CHECK(copyText == source, "a copy shows its source" + FirstDifference(source, copyText));
  }

  void Derive() {
    Slot& from = PickSlot();
    Slot& to = PickSlot();
    const bool open = _in.Next() & 1;
    NodeSystem* base = from.System();
    if (!base) return;
    Result<Ref<NodeSystemImpl>> made =
        NodeSystemImpl::CreateDerived(Ref<NodeSystemImpl>(static_cast<NodeSystemImpl*>(base)));
    Trace(" derive from %s: %s", StateName(from.state), Message(made).c_str());
    if (!made) {
      FUZZ_CHECK(from.state != Slot::State::FINISHED,
                 "a finished system can be a base: " + Message(made));
      return;
    }
    FUZZ_CHECK(from.state == Slot::State::FINISHED, "a system under modification is no base");
    CheckFinished(from);
    Ref<NodeSystem> derived(std::move(made).Value());
    const std::string baseText = WithoutStamp(from.finishedDump.text);
    const Dump dump = TakeDump(*derived, false);
    FUZZ_CHECK(dump.text == baseText,
               "a new derived system shows its base" + FirstDifference(baseText, dump.text));
    if (!open) return SetFinished(to, std::move(derived), "derived");
    Result<MutableRoot> root = BeginModification(derived, false);
    FUZZ_CHECK(root, "a new derived system opens: " + Message(root));
    SetOpen(to, std::move(root).Value());
  }

  // BeginModification on the slot's own reference: in place if nobody else
  // holds the system.
  void BeginInPlace(Slot& slot) {
    if (slot.state == Slot::State::EMPTY) return;
    if (slot.state == Slot::State::OPEN) {
      Ref<NodeSystem> system = std::move(slot.open._system);
      Result<MutableRoot> again = BeginModification(system, false);
      Trace(" begin again: %s", Message(again).c_str());
      FUZZ_CHECK(!again, "BeginModification twice succeeded");
      slot.open._system = std::move(system);
      FUZZ_CHECK(slot.open._system, "a failed BeginModification puts the old back");
      return;
    }
    CheckFinished(slot);
    Ref<NodeSystem> system = std::move(slot.finished);
    slot.state = Slot::State::EMPTY;
    Result<MutableRoot> root = BeginModification(system, false);
    Trace(" begin: %s", Message(root).c_str());
    FUZZ_CHECK(root, "BeginModification of a finished system: " + Message(root));
    SetOpen(slot, std::move(root).Value());
  }

  // The object's own BeginModification: refused while others hold it.
  void BeginOnObject(Slot& slot) {
    NodeSystem* system = slot.System();
    if (!system) return;
    const Result<void> begun = system->BeginModification();
    Trace(" object begin on %s: %s", StateName(slot.state), Message(begun).c_str());
    if (!begun) {
      if (slot.state == Slot::State::FINISHED) CheckFinished(slot);
      return;
    }
    FUZZ_CHECK(slot.state == Slot::State::FINISHED, "BeginModification twice succeeded");
    FUZZ_CHECK(slot.finished->HasSingleOwner(), "a shared system began a modification");
    // It is open now, in place: the slot follows.
    Ref<NodeSystem> own = std::move(slot.finished);
    slot.state = Slot::State::EMPTY;
    MutableRoot root;
    root._root = own->GetRoot();
    root._system = std::move(own);
    SetOpen(slot, std::move(root));
  }

  void AddPort() {
    Slot& slot = PickSlot();
    const GNode parent = PickHandle(slot.System());
    const std::string_view id = PickId();
    const uint8_t f = _in.Next();
    GNODE_FLAGS flags = GNODE_FLAGS::NONE;
    if (f & 0x80) {
      constexpr GNODE_FLAGS bits[] = {GNODE_FLAGS::DIRECT_PORT,
                                      GNODE_FLAGS::DERIVED_PORT_INHERITED,
                                      GNODE_FLAGS::DERIVED_PORT_SYNTHESIZED,
                                      GNODE_FLAGS::CONTEXT_SOURCE,
                                      GNODE_FLAGS::TAPPING_PORT,
                                      GNODE_FLAGS::FILTER_SHORTCUT_SOURCE,
                                      GNODE_FLAGS::FILTER_SHORTCUT_TARGET};
      for (int i = 0; i < 7; ++i) {
        if (f & (1 << i)) flags = flags | bits[i];
      }
    }
    Trace(" [%s + %s flags %s]", parent.ToString().c_str(), std::string(id).c_str(),
          ToString(flags).c_str());
    if (slot.state == Slot::State::OPEN && ElementCount(slot) >= kMaxElements) {
      Trace(" skipped: %zu elements", ElementCount(slot));
      return;
    }
    Edit<GNode>(slot, "AddPort", [&](NodeSystem& s) -> Result<GNode> {
      Result<GNode> port = s.AddPort(parent, id, flags, nullptr);
      if (port) Keep(*port);
      return port;
    });
  }

  void AddChild() {
    Slot& slot = PickSlot();
    const std::string_view id = PickId();
    Slot& content = PickSlot();
    Ref<NodeSystem> system(content.System());
    Trace(" [%s = %s]", std::string(id).c_str(), StateName(content.state));
    if (slot.state == Slot::State::OPEN && &slot != &content &&
        ElementCount(slot) + ElementCount(content) + 1 > kMaxElements) {
      Trace(" skipped: %zu + %zu elements", ElementCount(slot), ElementCount(content));
      return;
    }
    Edit<GNode>(slot, "AddChild", [&](NodeSystem& s) -> Result<GNode> {
      Result<GNode> node = s.AddChild(id, system, nullptr);
      if (node) Keep(*node);
      return node;
    });
  }

  // The reads. They must not change anything; the checks after the step
  // see to finished systems, and open ones are compared at their next
  // failed edit.
  void ReadValues() {
    Slot& slot = PickSlot();
    NodeSystem* s = slot.System();
    const GNode node = PickHandle(s);
    const InternedId id = PickAttribute();
    const uint8_t how = _in.Next();
    if (!s) return;
    Trace(" read values [%s %s] %u", node.ToString().c_str(), id.GetCString(), how % 5);
    switch (how % 5) {
      case 0: {
        const Result<const Data*> v = s->GetValue(node, id);
        if (v && *v) Trace(" = %s", (*v)->ToString().c_str());
        return;
      }
      case 1: {
        int64_t prefix = 0;
        const Result<const Data*> v = s->GetValue(node, id, &prefix, how & 0x80);
        if (v && *v) Trace(" = %s prefix %lld", (*v)->ToString().c_str(), (long long)prefix);
        return;
      }
      case 2: {
        size_t calls = 0;
        const Result<bool> r = s->GetValueWithCallback(
            node, id, [&](const Data& value, int64_t prefix) -> Result<bool> {
              Trace(" (%s %lld)", value.ToString().c_str(), (long long)prefix);
              return ++calls < size_t(1 + (how >> 5));
            });
        Trace(" %s", Message(r).c_str());
        return;
      }
      case 3: {
        ValueMap map;
        const uint32_t mask = (how >> 3) & 0x1f;
        const Result<void> r = s->GetValues(node, mask, map, how & 0x40, how & 0x80);
        Trace(" %zu values %s", map.size(), Message(r).c_str());
        for (const auto& entry : map) static_cast<void>(entry.second.ToString());
        return;
      }
      default: {
        const Result<uint64_t> stamp = s->GetValueStamp(node, id);
        const Result<bool> changed = s->EnumerateChangedValues(
            node, how >> 3, [&](InternedId changedId, const Data& value) -> Result<bool> {
              static_cast<void>(changedId.GetString());
              static_cast<void>(value.ToString());
              return true;
            });
        Trace(" %s %s", Message(stamp).c_str(), Message(changed).c_str());
        return;
      }
    }
  }

  void ReadConnections() {
    Slot& slot = PickSlot();
    NodeSystem* s = slot.System();
    const GNode port = PickHandle(s);
    const GNode other = PickHandle(s);
    const uint8_t how = _in.Next();
    const Wires mask = PickMask();
    if (!s) return;
    Trace(" read connections [%s %s] %u", port.ToString().c_str(), other.ToString().c_str(),
          how % 4);
    switch (how % 4) {
      case 0:
      case 1: {
        const PORT_DIR dir = how & 1 ? PORT_DIR::OUTPUT : PORT_DIR::INPUT;
        const GET_CONNECTIONS_MODE mode = GET_CONNECTIONS_MODE((how >> 2) & 0x3f);
        size_t reports = 0;
        const size_t stopAfter = how & 0x80 ? 1 : SIZE_MAX;
        const Result<bool> r = s->GetConnections(
            port, dir, mask, mode,
            [&](const GNode& o, Wires w, const Ref<ConnectionAttributes>& a) -> Result<bool> {
              Trace(" (%s %s%s)", o.ToString().c_str(), w.ToString().c_str(),
                    AttributesText(a).c_str());
              Keep(o);
              return ++reports < stopAfter;
            });
        Trace(" %s", Message(r).c_str());
        return;
      }
      case 2: {
        const Result<Wires> w = s->GetConnection(port, other);
        Trace(" wires %s", w ? w->ToString().c_str() : Message(w).c_str());
        const Result<bool> r = s->GetConnectionValues(
            port, other, [&](CONNECTION_ATTRIBUTE_KIND, InternedId id, const Data& value) {
              static_cast<void>(id.GetString());
              static_cast<void>(value.ToString());
              return !(how & 0x80);
            });
        Trace(" %s", Message(r).c_str());
        return;
      }
      default: {
        const InternedId id = PickAttribute();
        const Result<Data> v = s->GetConnectionValue(port, other, (how >> 2) % 4, id);
        Trace(" value %s", v ? v->ToString().c_str() : Message(v).c_str());
        const Result<uint64_t> stamp =
            s->GetConnectionStamp(port, how & 0x80 ? PORT_DIR::OUTPUT : PORT_DIR::INPUT);
        Trace(" stamp %s", Message(stamp).c_str());
        return;
      }
    }
  }

  void ReadTree() {
    Slot& slot = PickSlot();
    NodeSystem* s = slot.System();
    const GNode node = PickHandle(s);
    const uint8_t how = _in.Next();
    if (!s) return;
    Trace(" read tree [%s] %u", node.ToString().c_str(), how % 8);
    auto keep = [&](const Result<GNode>& r) {
      Trace(" -> %s", r ? r->ToString().c_str() : Message(r).c_str());
      if (r) Keep(*r);
    };
    switch (how % 8) {
      case 0:
        return keep(s->GetParent(node));
      case 1:
        return keep(s->GetAncestor(node, NODE_KIND((how >> 3) & 0x1f)));
      case 2:
        return keep(s->GetPortList(node, how & 0x80 ? PORT_DIR::OUTPUT : PORT_DIR::INPUT));
      case 3: {
        const std::string_view id = PickId();
        const InternedId childId = (how & 0x80) || id.empty() ? InternedId() : InternedId::Get(id);
        return keep(s->GetChild(node, childId, NODE_KIND((how >> 3) & 0x1f)));
      }
      case 4: {
        const std::optional<NodePath> path = PickPath();
        if (!path) return;
        return keep(s->FindDescendant(node, path->ToBlock()));
      }
      case 5: {
        size_t visits = 0;
        const Result<bool> r = s->VisitNodes(node, [&](const GNode& n) -> Result<bool> {
          Keep(n);
          return ++visits < size_t(1 + (how >> 4));
        });
        Trace(" %s", Message(r).c_str());
        return;
      }
      case 6: {
        const Result<Ref<NodeSystem>> nested = s->GetNestedSystem(node);
        Trace(" nested %s", Message(nested).c_str());
        const Result<size_t> records = s->GetChildRecordCount(node);
        Trace(" records %s", Message(records).c_str());
        return;
      }
      default: {
        const Result<GNODE_FLAGS> flags = s->GetFlags(node);
        Trace(" valid %d flags %s", int(s->IsValid(node)),
              flags ? ToString(*flags).c_str() : Message(flags).c_str());
        return;
      }
    }
  }

  void ReadStamps() {
    Slot& slot = PickSlot();
    NodeSystem* s = slot.System();
    const uint8_t stamp = _in.Next();
    if (!s) return;
    const MODIFIED what = s->GetModifications(stamp);
    size_t calls = 0;
    const Result<bool> r =
        s->EnumerateChanges(stamp, [&](const GNode& n, MODIFIED) -> Result<bool> {
          Keep(n);
          return ++calls < 16;
        });
    Trace(" changes since %u: %llx %s", unsigned(stamp), (unsigned long long)what,
          Message(r).c_str());
  }

  void Find() {
    Slot& slot = PickSlot();
    NodeSystem* s = slot.System();
    const uint8_t how = _in.Next();
    if (how & 1) {
      // The path of a kept handle, in this system: a handle of the same
      // element made here.
      if (_handles.empty() || !s) return;
      const GNode& kept = _handles[(how >> 1) % _handles.size()];
      const GNode found = s->FindByPath(kept.path);
      Trace(" find %s: %d", kept.ToString().c_str(), int(found.IsPopulated()));
      if (found) Keep(found);
      return;
    }
    const std::optional<NodePath> path = PickPath();
    if (!path || !s) return;
    const GNode found = how & 2 ? s->MakeHandle(*path) : s->FindByPath(*path);
    Trace(" find %s: %d", path->ToString().c_str(), int(found.IsPopulated()));
    Keep(found);
  }

  // Child walks run over several steps, edits in between; an iterator may
  // be moved on by any system, also after its own was dropped.
  void Walk() {
    Slot& slot = PickSlot();
    NodeSystem* s = slot.System();
    const uint8_t how = _in.Next();
    ChildIterator& it = _iterators[how % kIterators];
    const GNode parent = how & 0x80 ? PickHandle(s) : GNode();
    if (!s) return;
    Result<GNode> child = how & 0x80 ? s->GetFirstChild(parent, it) : s->GetNextChild(it);
    for (size_t more = (how >> 2) & 7; child && *child; --more) {
      Trace(" child %s", child->ToString().c_str());
      Keep(*child);
      if (more == 0) break;
      child = s->GetNextChild(it);
    }
    Trace(" walk: %s", Message(child).c_str());
  }

  void Validate() {
    Slot& slot = PickSlot();
    NodeSystem* s = slot.System();
    const uint8_t how = _in.Next();
    if (!s) return;
    Result<void> r = how % 3 == 0   ? s->Validate(nullptr)
                     : how % 3 == 1 ? s->ValidateTopology()
                                    : s->ValidatePorts(nullptr);
    Trace(" validate %u on %s: %s", how % 3, StateName(slot.state), Message(r).c_str());
    // Validation may derive; what it does is no edit to compare.
    slot.openDump.reset();
    if (r) CheckOrder(*s);
    // Any handle may be asked for its index; one without a place gets the
    // lowest index, not an error or a crash.
    const GNode any = PickHandle(s);
    Trace(" index of %s: %s", any.ToString().c_str(), Message(s->GetTopologicalIndex(any)).c_str());
    if (slot.state == Slot::State::FINISHED) CheckFinished(slot);
  }

  // A sorted system visits its ports in strictly ascending indices, each
  // with a place.
  void CheckOrder(const NodeSystem& s) {
    int64_t last = NO_TOPOLOGICAL_INDEX;
    std::string fault;
    const Result<bool> walked =
        s.VisitInTopologicalOrder(false, [&](const GNode& port) -> Result<bool> {
          ORVIX_TRY_ASSIGN(const int64_t index, s.GetTopologicalIndex(port));
          if (index == NO_TOPOLOGICAL_INDEX || index <= last) {
            fault = port.ToString() + " at " + std::to_string(index);
            return false;
          }
          last = index;
          return true;
        });
    FUZZ_CHECK(walked && fault.empty(),
               "the order visits ports in ascending indices: " + Message(walked) + " " + fault);
  }

  void Compact() {
    Slot& slot = PickSlot();
    NodeSystem* s = slot.System();
    if (!s) return;
    std::string before;
    if (slot.state == Slot::State::OPEN) before = OpenDump(slot).text;
    const Result<void> r = s->Compact();
    Trace(" compact on %s: %s", StateName(slot.state), Message(r).c_str());
    if (slot.state == Slot::State::FINISHED) return CheckFinished(slot);
    if (slot.state != Slot::State::OPEN) return;
    slot.openDump.reset();
    const std::string& after = OpenDump(slot).text;
    FUZZ_CHECK(after == before,
               "Compact keeps what the system shows" + FirstDifference(before, after));
  }

  Ref<NodeSystemClass> _class;
  Bytes _in;
  size_t _step = 0;
  CapturedOutput _output;
  std::array<Slot, kSlots> _slots;
  std::vector<GNode> _handles;
  size_t _nextHandle = 0;
  std::array<ChildIterator, kIterators> _iterators;
};

Ref<NodeSystemClass> g_class;

}  // namespace
}  // namespace orvix::nodes

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  using namespace orvix::nodes;
  RegisterConfigVariables();
  const orvix::Result<void> loaded = LoadNodesModule();
  if (!loaded) Fail("LoadNodesModule: " + loaded.GetError().GetMessage());
  // Every EndModification then asks both ends of every wire.
  const orvix::Result<void> set = orvix::SetConfigVariable("g_testGetConnections", "true");
  if (!set) Fail("g_testGetConnections: " + set.GetError().GetMessage());
  orvix::Result<orvix::Ref<NodeSystemClass>> cls = CreateDefaultNodeSystemClass();
  if (!cls) Fail("CreateDefaultNodeSystemClass: " + cls.GetError().GetMessage());
  g_class = std::move(cls).Value();
  const char* trace = std::getenv("ORVIX_FUZZ_TRACE");
  g_trace = trace && *trace && *trace != '0';
  const char* strict = std::getenv("ORVIX_FUZZ_STRICT");
  g_strict = g_trace || (strict && *strict && *strict != '0');
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orvix::nodes;
  {
    Run run(g_class, data, size);
    run.Go();
  }
  return 0;
}
