// NodeSystemImpl: the edits that add elements. Every add ends in
// AddChildRecord; AddPort and AddNode put their rules and marks around it.

#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "orvix/nodes/modification.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

namespace {
using GFI = GNODE_FLAGS_IMPL;

// The marks of a new element: its children, both port derivations and both
// attribute rounds.
constexpr GFI NEW_ELEMENT_BITS = GFI::MODIFIED_PV_CHILDREN | GFI::MODIFIED_PV_SOURCES |
                                 GFI::MODIFIED_PV_TARGETS | GFI::MODIFIED_AV_ATTRIBUTES |
                                 GFI::MODIFIED_SAV_ATTRIBUTES;
static_assert(ToBits(NEW_ELEMENT_BITS) == 0x411c000000);
// The marks of each port of a new node: what flows in, and its attributes.
constexpr GFI NEW_NODE_PORT_BITS = GFI::MODIFIED_PV_SOURCES | GFI::MODIFIED_SAV_ATTRIBUTES;
static_assert(ToBits(NEW_NODE_PORT_BITS) == 0x4008000000);

// The mark that a public add leaves on a new node until its unique number has
// been checked.
constexpr std::string_view CHECK_UNIQUE_NUMBER_ID = "checkuniquenumber";
constexpr int64_t CHECK_UNIQUE_NUMBER_PENDING = -2;

// An empty text names no element: it becomes the null id, which the add
// refuses with its own message.
Result<InternedId> InternIdOrNull(std::string_view text) {
  if (text.empty()) return InternedId();
  return InternedId::Create(text);
}

bool IsPortListPart(InternedId id) {
  return id == NodePath::GetInputsId() || id == NodePath::GetOutputsId();
}

// Interned once: every add of a node asks for them.
InternedId NodeSystemPortId() {
  static const InternedId id = InternedId::Get(NODE_SYSTEM_PORT_ID);
  return id;
}
InternedId CheckUniqueNumberId() {
  static const InternedId id = InternedId::Get(CHECK_UNIQUE_NUMBER_ID);
  return id;
}
}  // namespace

Result<GNode> NodeSystemImpl::AddChildRecord(GNode& parent, NODE_KIND kind, InternedId id,
                                             const GNode& base, GNODE_FLAGS_IMPL flags,
                                             bool* inserted) {
  // A null id may later be taken from the template of the base's system;
  // until templates exist there is nothing to take it from.
  if (id.IsNull()) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 "You have to provide a valid id for the node if no base data is given.");
  }
  ORVIX_TRY_ASSIGN(NodePath path, parent.path.Append(id));
  auto exists = [&] {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("There already exists a node with id @ in @.", id, parent.path));
  };
  if (FindNode(path)) return exists();
  ORVIX_TRY_ASSIGN(NodeInfo * parentInfo, GetMutable(parent, NODE_KIND::NONE));
  bool isNew = false;
  ChildRecord* record = nullptr;
  try {
    // A large table takes the child at its end; the end of the modification
    // sorts it, or the table is sorted at once if it can't be listed for that.
    const bool wasSorted = parentInfo->children.IsSorted();
    record = &parentInfo->children.FindOrInsert(id, &isNew, true);
    if (wasSorted && !parentInfo->children.IsSorted()) {
      try {
        if (!_store._unsortedChildTables)
          _store._unsortedChildTables = std::make_unique<std::vector<NodePath>>();
        _store._unsortedChildTables->push_back(parent.path);
      } catch (const std::bad_alloc&) {
        parentInfo->children.Sort();
        record = parentInfo->children.FindForWriting(id);
      }
    }
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  if (HasAny(record->flags, CHILD_FLAGS::ADDED)) return exists();
  const CHILD_FLAGS oldFlags = record->flags;
  // Puts the child table back as it was if a later step fails.
  auto undo = [&] {
    if (isNew) {
      parentInfo->children.Erase(id);
    } else if (ChildRecord* r = parentInfo->children.FindForWriting(id)) {
      r->flags = oldFlags;
    }
  };
  if (Result<void> marked = SetModified(parent, GFI::MODIFIED_PV_CHILDREN); !marked) {
    undo();
    return std::move(marked).GetError();
  }
  CHILD_FLAGS childFlags = CHILD_FLAGS::ADDED;
  if (HasAny(flags, GFI::DERIVED_PORT_MASK) || HasAny(kind, NODE_KIND::PORTLIST_MASK) ||
      id == NodeSystemPortId()) {
    childFlags |= CHILD_FLAGS::SYNTHETIC;
  }
  // SetModified may have moved nothing, but the table is the parent's own:
  // look the record up again rather than trust the reference across a call.
  record = parentInfo->children.FindForWriting(id);
  record->flags = childFlags;
  // Over a record that hid a base's child, the add takes the child back.
  if (!isNew) _NoteHidingChildRecord();

  GNode child(std::move(path), base.info, base.system, base.stamp);
  Result<NodeInfo*> made = GetMutable(child, kind);
  if (!made) {
    undo();
    return std::move(made).GetError();
  }
  NodeInfo* info = *made;
  info->_addedStamp = _stamps._modificationStamp;
  _stamps._structureStamp = _stamps._modificationStamp;
  info->flags |= (parentInfo->flags & GFI::INHERIT_FROM_PARENT_MASK) | flags;
  // Marking a nested port fetches its top-level port for writing, which may
  // fail; an element that validation would never visit must not stay.
  if (Result<void> marked = SetModified(child, NEW_ELEMENT_BITS); !marked) {
    DropAddedRecord(child.path);
    undo();
    return std::move(marked).GetError();
  }
  if (inserted) *inserted = isNew;
  return child;
}

void NodeSystemImpl::DropAddedRecord(const NodePath& path) noexcept {
  // The record was made in the top layer of a writable map by this edit, so
  // removing it allocates nothing: it leaves the chain, or stays behind as
  // the tombstone it replaced, or waits for the garbage pass if listed.
  static_cast<void>(RemoveEntry(path));
}

void NodeSystemImpl::TakeBackAdd(GNode& parent, InternedId id, bool inserted) noexcept {
  if (NodeInfo* parentInfo = parent.info) {
    if (inserted) {
      parentInfo->children.Erase(id);
    } else if (ChildRecord* r = parentInfo->children.FindForWriting(id)) {
      // The child record was one that hid a base's child; it hides it again.
      r->flags = CHILD_FLAGS::NONE;
      _NoteHidingChildRecord();
    }
  }
  NoteRemoval();
}

// ---------------------------------------------------------------------------
// Ports

Result<GNode> NodeSystemImpl::AddPort(const GNode& parent, std::string_view id, GNODE_FLAGS flags,
                                      ChangeList* changeList) {
  ORVIX_TRY_ASSIGN(InternedId portId, InternIdOrNull(id));
  return AddPortImpl(parent, portId, ToImplFlags(flags), changeList);
}

Result<GNode> NodeSystemImpl::AddPortImpl(const GNode& parent, InternedId id,
                                          GNODE_FLAGS_IMPL flags, ChangeList* changeList) {
  static_cast<void>(changeList);
  ORVIX_TRY(CheckModification(true));
  GNode owner = parent;
  ORVIX_TRY(Resolve(owner));
  const NODE_KIND kind = owner.GetKind();
  if (!HasAny(kind, NODE_KIND::PORTLIST_MASK | NODE_KIND::PORT_MASK)) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("You can't add a port directly to node @.", owner.path));
  }
  // The ports of a child node are its nested system's; only nested ports can
  // be added there, below an existing port.
  if (HasAny(kind, NODE_KIND::PORTLIST_MASK) && !IsPortListPart(owner.path.GetPart(0))) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("You can't add the top-level port @ to @: This points to a "
                               "nested node.",
                               id, owner.path));
  }
  const NODE_KIND portKind =
      HasAny(kind, NODE_KIND::IN_MASK) ? NODE_KIND::INPORT : NODE_KIND::OUTPORT;
  ORVIX_TRY_ASSIGN(GNode port,
                   AddChildRecord(owner, portKind, id, GNode(), flags | GFI::DIRECT_PORT));
  if (port.path.IsTopLevelPort()) ORVIX_TRY(SetModified(port, GFI::MODIFIED_TOPOLOGY));
  return port;
}

// ---------------------------------------------------------------------------
// Nodes

Result<GNode> NodeSystemImpl::AddChild(std::string_view id, Ref<NodeSystem> system,
                                       ChangeList* changeList) {
  ORVIX_TRY_ASSIGN(InternedId nodeId, InternIdOrNull(id));
  return AddNode(nodeId, std::move(system), Ref<BaseReference>(), changeList, true);
}

Result<GNode> NodeSystemImpl::AddNode(InternedId id, Ref<NodeSystem> system,
                                      Ref<BaseReference> companion, ChangeList* changeList,
                                      bool publicCall) {
  static_cast<void>(changeList);
  if (!system) return Error(ERROR_CLASS::NULL_OBJECT, "Null object.");
  auto notValidated = [] {
    return Error(ERROR_CLASS::ILLEGAL_STATE, "Node system to add hasn't been validated.");
  };
  auto* content = dynamic_cast<NodeSystemImpl*>(system.Get());
  if (!content) {
    return ConditionError(CONDITION_KIND::ILLEGAL_ARGUMENT, "system is a NodeSystemImpl");
  }
  // Asking a system under modification to end as a group would close the
  // bracket of whoever edits it, even one opened but not edited yet.
  if (!content->IsFinalized() || content->_store._mutable) return notValidated();
  // A system that no template made becomes the node's own: a private copy
  // that its class may finish as a group.
  if (!content->_classState._template) {
    ORVIX_TRY_ASSIGN(MutableRoot privateRoot, nodes::BeginModification(system, false));
    ORVIX_TRY_ASSIGN(system, privateRoot.EndModification(nullptr, FINALIZE_FLAGS::FOR_GROUP));
    content = static_cast<NodeSystemImpl*>(system.Get());
  }

  ORVIX_TRY(CheckModification(true));
  if (!content->IsFinalized()) return notValidated();
  const std::string_view expected =
      _classState._class ? _classState._class->GetClassId() : std::string_view();
  const std::string_view given =
      content->_classState._class ? content->_classState._class->GetClassId() : std::string_view();
  if (given != expected) {
    return Error(
        ERROR_CLASS::ILLEGAL_ARGUMENT,
        FormatMessage("Node system to add has node system class @, expected @.", given, expected));
  }
  // Sorts that enter the node closed read which of its inputs reach which
  // outputs; the content works that out once, for all nodes made on it.
  ORVIX_TRY(content->BuildPortDependencyMap());

  GNode root = GetRoot();
  const GNode contentRoot = content->GetRoot();
  bool inserted = false;
  ORVIX_TRY_ASSIGN(GNode node,
                   AddChildRecord(root, NODE_KIND::NODE, id, contentRoot, GFI::NONE, &inserted));
  // From here on the node is in the tree. Each later step may run out of
  // memory; the node then goes again with every record the add made, so that
  // the edit is all or nothing.
  std::vector<NodePath> made;
  std::vector<NodePath> loopKeys;
  const uint64_t oldLevel = _store._level;
  auto takeBack = [&](Error error) -> Error {
    if (LoopTables* loops = _attributes._loops.get()) {
      for (const NodePath& key : loopKeys) loops->_loopDependencies.erase(key);
    }
    for (auto it = made.rbegin(); it != made.rend(); ++it) DropAddedRecord(*it);
    DropAddedRecord(node.path);
    TakeBackAdd(root, id, inserted);
    _store._level = oldLevel;
    return error;
  };
  if (_store._level <= content->_store._level) _store._level = content->_store._level + 1;
  if (Result<void> marked = SetModified(node, GFI::MODIFIED_TOPOLOGY); !marked) {
    return takeBack(std::move(marked).GetError());
  }
  NodeRecord* record = node.info->AsNode();
  record->_nestedSystem = system;
  _store._mayHideBelow = _store._mayHideBelow || content->_store._mayHideBelow;
  record->_nestedData = std::move(companion);
  record->flags |= GFI::DIRECT_INSTANCE;

  Result<void> rest = _MarkNewNodeAndTakeItsLoops(node, *content, publicCall, made, loopKeys);
  if (!rest) return takeBack(std::move(rest).GetError());
  Refresh(node);
  return node;
}

Result<void> NodeSystemImpl::_MarkNewNodeAndTakeItsLoops(GNode& node, const NodeSystemImpl& content,
                                                         bool publicCall,
                                                         std::vector<NodePath>& made,
                                                         std::vector<NodePath>& loopKeys) {
  try {
    // The new node's ports are its content's: walk the content's port lists
    // and mark each port here, with the content's record as its base, as a
    // lookup of the port's path here would find it (the node is new, so this
    // system holds nothing below it).
    std::vector<InternedId> ports;
    for (const InternedId listId : {NodePath::GetInputsId(), NodePath::GetOutputsId()}) {
      const FoundNode list = content.FindNode(NodePath::Block(&listId, 1));
      if (!list) continue;
      ChildIterator it;
      StartChildren(it, GNode(NodePath(), list.info, list.system));
      ports.clear();
      for (InternedId port = NextChildId(it); port.IsPopulated(); port = NextChildId(it)) {
        if (!(port == NodeSystemPortId())) ports.push_back(port);
      }
      made.reserve(made.size() + ports.size());
      for (const InternedId port : ports) {
        const InternedId inContent[] = {listId, port};
        const FoundNode found = content.FindNode(NodePath::Block(inContent));
        if (!found) continue;
        ORVIX_TRY_ASSIGN(NodePath portPath, node.path.AppendBlock(inContent));
        GNode handle(portPath, found.info, found.system);
        made.push_back(std::move(portPath));
        ORVIX_TRY(SetModified(handle, NEW_NODE_PORT_BITS));
      }
    }
    if (publicCall) {
      ORVIX_TRY(SetValue(node, CheckUniqueNumberId(), Data(CHECK_UNIQUE_NUMBER_PENDING), nullptr));
    }
    // The loop records of the content now live below the node.
    const LoopTables* contentLoops = content.GetLoopTables();
    if (contentLoops && !contentLoops->_loopDependencies.empty()) {
      ORVIX_TRY_ASSIGN(LoopTables * loops, _WritableLoopTables());
      const InternedId prefix[] = {node.path.GetLastPart()};
      loopKeys.reserve(contentLoops->_loopDependencies.size());
      for (const auto& [path, loop] : contentLoops->_loopDependencies) {
        ORVIX_TRY_ASSIGN(NodePath key, path.Prepend(prefix));
        loopKeys.push_back(key);
        LoopRecord& taken = loops->_loopDependencies[std::move(key)];
        taken = loop;
        taken.validationCount = _attributes._attribValidationCount;
      }
      _validation._systemFlags |= GFI::MODIFIED_SAV_LOOP_DEPENDENCIES_CHANGE;
    }
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

}  // namespace orvix::nodes
