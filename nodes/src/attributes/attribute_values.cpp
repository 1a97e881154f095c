// NodeSystemImpl: attribute values. A read walks the element's record and
// its base chain, nearest first, and falls back on fixed defaults; a write
// stores the value in the element's own record of this system and tells the
// class and validation.

#include <algorithm>
#include <new>
#include <unordered_set>
#include <utility>
#include <vector>

#include "orvix/host/data_accessor.h"
#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "orvix/nodes/node_system_class.h"
#include "store/node_system_impl.h"
#include "validation/validation_stages.h"

namespace orvix::nodes {

namespace {
using GFI = GNODE_FLAGS_IMPL;

// The ids that the attribute code treats specially, interned once.
struct SpecialIds {
  InternedId isShortcutStop = InternedId::Get("isshortcutstop");
  InternedId updatePolicy = InternedId::Get("net.orvix.node.base.updatepolicy");
  InternedId ioNodes = InternedId::Get("net.orvix.node.ionodes");
  InternedId loopDependencyTargets = InternedId::Get("loopdependencytargets");
  // The attributes that read true where nobody set them.
  InternedId trueByDefault[10] = {
      InternedId::Get("inheritnestedports"),
      InternedId::Get("synthesizenestedports"),
      InternedId::Get("inheritnestedportssource"),
      InternedId::Get("synthesizenestedportssource"),
      InternedId::Get("inheritportsource"),
      InternedId::Get("synthesizeportsource"),
      InternedId::Get("synthesizetypesource"),
      InternedId::Get("synthesizevalue"),
      InternedId::Get("inheritinterface"),
      InternedId::Get("stickyporttypetemplateparameter"),
  };
};

const SpecialIds& Ids() {
  static const SpecialIds ids;
  return ids;
}

const Data& TrueData() {
  static const Data value(true);
  return value;
}
const Data& FalseData() {
  static const Data value(false);
  return value;
}
const Data& EmptyData() {
  static const Data value;
  return value;
}

Error ReadOnly(InternedId id) {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT, FormatMessage("Attribute @ is read-only.", id));
}
Error ChangeListWithDerived() {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               "A changelist must not be given when a derived attribute is modified.");
}

// How many leading parts of `node`'s path a read crossed to reach `holder`;
// -1 with `ownOnly` for the element's own record in `self`, the system read.
int64_t PrefixOf(const NodeSystemImpl& self, const GNode& node,
                 const NodeSystemImpl::ValueHolder& holder, bool ownOnly) {
  if (!holder.record) return 0;
  if (ownOnly && holder.record == node.info && holder.system == &self) return -1;
  return int64_t(node.path.GetCount()) - int64_t(holder.record->_path.GetCount());
}

bool HasDirectAndTransient(ATTRIBUTE_FLAGS flags) {
  return HasAll(flags, ATTRIBUTE_FLAGS::DIRECT | ATTRIBUTE_FLAGS::TRANSIENT);
}

AttributeRecord* FindOwn(NodeInfo* info, InternedId id) {
  return info->attributes ? info->attributes->records.FindForWriting(id) : nullptr;
}
}  // namespace

// ---------------------------------------------------------------------------
// Reads

const Data* NodeSystemImpl::GetStoredValue(const NodeInfo* record, const NodeSystemImpl* system,
                                           InternedId id, bool includeErased, ValueHolder* holder) {
  const SpecialIds& ids = Ids();
  if (id == ids.isShortcutStop) {
    if (holder) *holder = {record, system};
    return record->HasFlags(GFI::SHORTCUT_STOP_MASK) ? &TrueData() : &FalseData();
  }
  const NODE_KIND kind = record->GetKind();
  for (; record; system = record->baseSystem, record = record->base) {
    if (!record->attributes) continue;
    const AttributeRecord* found = record->attributes->records.Find(id);
    if (!found) continue;
    if (holder) *holder = {record, system};
    if (includeErased || !found->value.IsEmpty()) return &found->value;
    return nullptr;
  }
  if (holder) *holder = {};
  for (const InternedId t : ids.trueByDefault) {
    if (t == id) return &TrueData();
  }
  if (id == ids.ioNodes && HasAny(kind, NODE_KIND::PORTLIST_MASK | NODE_KIND::PORT_MASK)) {
    return &IoNodesDefault(HasAny(kind, NODE_KIND::OUT_MASK));
  }
  return nullptr;
}

Result<const Data*> NodeSystemImpl::GetValue(const GNode& node, InternedId id, int64_t* prefixCount,
                                             bool ownOnly) const {
  GNode scratch;
  ORVIX_TRY_ASSIGN(const GNode* current, Current(node, scratch));
  const GNode& handle = *current;
  if (_attributes._attribSetup && _validation._stages && _validation._stages->readRule) {
    ORVIX_TRY_ASSIGN(std::optional<const Data*> ruled,
                     _validation._stages->readRule(*this, handle, id));
    if (ruled) {
      if (prefixCount) *prefixCount = 0;
      return *ruled ? *ruled : &EmptyData();
    }
  }
  ValueHolder holder;
  const Data* value = GetStoredValue(handle.info, handle.system, id, false, &holder);
  if (prefixCount) *prefixCount = PrefixOf(*this, handle, holder, ownOnly);
  if (!value) return &EmptyData();

  // A value handed out during a modification must outlive later writes of
  // its table: the record says so, and the next write copies the table.
  if (_store._mutable && !_attributes._attribSetup && !_store._loadContext &&
      holder.system == this && holder.record && _store._nodes->HasSingleOwner() &&
      !holder.record->HasFlags(GFI::MODIFIED_G_VALUES_MIGHT_BE_REFERENCED)) {
    const NodePath& path = holder.record->_path;
    const NodeMap::Entry* entry = _store._nodes->FindInLayer(path.GetHashCode(), path.ToBlock());
    if (entry && entry->IsPublished()) {
      if (entry->info != holder.record) {
        return ConditionError(CONDITION_KIND::ASSERTION, "d == data.ptr");
      }
      // The bracket's single owner is the caller: marking is part of the
      // modification it runs, not a change of what readers see.
      auto* self = const_cast<NodeSystemImpl*>(this);
      GNode marked(path, entry->info, self, _stamps._movedStamp);
      ORVIX_TRY(self->SetModified(marked, GFI::MODIFIED_G_VALUES_MIGHT_BE_REFERENCED));
    }
  }
  return value;
}

Result<bool> NodeSystemImpl::GetValueWithCallback(const GNode& node, InternedId id,
                                                  const ValueCallback& callback) const {
  ORVIX_CHECK_ARGUMENT(callback);
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  const NodeSystemImpl* system = handle.system;
  for (const NodeInfo* record = handle.info; record;
       system = record->baseSystem, record = record->base) {
    if (!record->attributes) continue;
    const AttributeRecord* found = record->attributes->records.Find(id);
    if (!found) continue;
    const int64_t prefix = PrefixOf(*this, handle, {record, system}, true);
    ORVIX_TRY_ASSIGN(bool goOn, callback(found->value, prefix));
    if (!goOn) return false;
  }
  return true;
}

Result<void> NodeSystemImpl::GetValues(const GNode& node, uint32_t mask, ValueMap& map,
                                       bool includeBases, bool keepErased) const {
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  if (!includeBases && handle.system != this) return Ok();
  const uint32_t flagMask = mask & ~uint32_t{0x7};
  std::vector<const NodeInfo*> chain;
  try {
    for (const NodeInfo* r = handle.info; r; r = includeBases ? r->base : nullptr) {
      chain.push_back(r);
    }
    if (handle.info->HasFlags(GFI::SHORTCUT_STOP_MASK) && (mask & VALUES_DERIVED) &&
        flagMask == 0) {
      map[Ids().isShortcutStop] = TrueData();
    }
    // The farthest base first, so that what is nearer overrides.
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
      if (!(*it)->attributes) continue;
      for (const AttributeRecord& r : (*it)->attributes->records) {
        const uint32_t kind = r.IsDerived() ? VALUES_DERIVED : VALUES_DIRECT;
        if (!(mask & kind)) continue;
        if (flagMask && !(ToBits(_AttributeFlags(r.id)) & flagMask)) continue;
        if (r.value.IsEmpty() && !keepErased) {
          map.erase(r.id);
        } else {
          map[r.id] = r.value;
        }
      }
    }
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

Result<bool> NodeSystemImpl::EnumerateChangedValues(const GNode& node, uint64_t stamp,
                                                    const ChangedValueCallback& callback) const {
  ORVIX_CHECK_ARGUMENT(callback);
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  std::unordered_set<InternedId> seen;
  const NodeSystemImpl* system = handle.system;
  try {
    for (const NodeInfo* record = handle.info; record;
         system = record->baseSystem, record = record->base) {
      if (!record->attributes) continue;
      for (const AttributeRecord& r : record->attributes->records) {
        if (!seen.insert(r.id).second) continue;
        const bool changed = system == this ? r.stamp > stamp : _stamps._completeStamp > stamp;
        if (!changed) continue;
        ORVIX_TRY_ASSIGN(bool goOn, callback(r.id, r.value));
        if (!goOn) return false;
      }
    }
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return true;
}

Result<uint64_t> NodeSystemImpl::GetValueStamp(const GNode& node, InternedId id) const {
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  ValueHolder holder;
  GetStoredValue(handle.info, handle.system, id, true, &holder);
  uint64_t stamp = 0;
  if (holder.record && holder.system == this && holder.record->attributes) {
    if (const AttributeRecord* r = holder.record->attributes->records.Find(id)) stamp = r->stamp;
  }
  return std::max(stamp, _stamps._completeStamp);
}

Result<uint64_t> NodeSystemImpl::GetConnectionStamp(const GNode& node, PORT_DIR direction) const {
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  uint64_t stamp = 0;
  if (handle.system == this) {
    if (const PortRecord* port = handle.info->AsPort()) {
      stamp = direction == PORT_DIR::INPUT ? port->_sourcesStamp : port->_targetsStamp;
    }
  }
  return std::max(stamp, _stamps._completeStamp);
}

// ---------------------------------------------------------------------------
// Writes

ATTRIBUTE_FLAGS NodeSystemImpl::_AttributeFlags(InternedId id) const {
  return _classState._class ? _classState._class->GetAttributeFlags(id) : ATTRIBUTE_FLAGS::DIRECT;
}

Ref<DerivedAttribute> NodeSystemImpl::_DerivedAttribute(InternedId id) const {
  if (!_classState._class) return Ref<DerivedAttribute>();
  // Registered attributes that validation doesn't derive are plain ones.
  const Ref<GraphAttribute> attribute = _classState._class->GetDerivedAttribute(id);
  return Ref<DerivedAttribute>(dynamic_cast<DerivedAttribute*>(attribute.Get()));
}

Result<AttributeRecord*> NodeSystemImpl::_FindOrInsertRecord(NodeInfo* info, InternedId id,
                                                             ATTRIBUTE_FLAGS flags,
                                                             bool* inserted) {
  bool isNew = false;
  AttributeRecord* record = nullptr;
  try {
    record = &info->attributes->records.FindOrInsert(id, &isNew);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  // A new record isn't derived until derivation writes it.
  if (isNew) {
    record->derivedStamp = HasDirectAndTransient(flags) ? AttributeRecord::NOT_DERIVED_ALT
                                                        : AttributeRecord::NOT_DERIVED;
  }
  if (inserted) *inserted = isNew;
  return record;
}

Result<AttributeRecord*> NodeSystemImpl::_RefindRecord(NodeInfo* info, InternedId id,
                                                       ATTRIBUTE_FLAGS flags) {
  ORVIX_TRY(_PrepareTable(info));
  return _FindOrInsertRecord(info, id, flags, nullptr);
}

Result<void> NodeSystemImpl::_TellClass(const GNode& node, InternedId id, ATTRIBUTE_FLAGS flags,
                                        const Data& newValue, const Data& oldValue) {
  if (!_classState._class) return Ok();
  ORVIX_TRY_ASSIGN(uint64_t told, _classState._class->AttributeChanged(*this, node, id, flags,
                                                                       newValue, oldValue));
  if (told & ToBits(MODIFIED::SPECIAL0)) _stamps._special0Stamp = _stamps._modificationStamp;
  if (told & ToBits(MODIFIED::SPECIAL1)) _stamps._special1Stamp = _stamps._modificationStamp;
  return Ok();
}

Result<AttributeTable*> NodeSystemImpl::_PrepareTable(NodeInfo* info) {
  try {
    if (!info->attributes) {
      info->attributes = MakeRef<AttributeTable>();
    } else if (info->HasFlags(GFI::MODIFIED_G_VALUES_MIGHT_BE_REFERENCED)) {
      // Readers hold references into the old table: it stays alive, as it
      // is, until the modification ends.
      Ref<AttributeTable> fresh = MakeRef<AttributeTable>();
      fresh->records = info->attributes->records;
      _attributes._retiredTables.push_back(info->attributes);
      info->attributes = std::move(fresh);
      info->flags &= ~GFI::MODIFIED_G_VALUES_MIGHT_BE_REFERENCED;
    }
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return info->attributes.Get();
}

Result<void> NodeSystemImpl::_ApplyWriteRule(const GNode& node, InternedId id) {
  if (_attributes._attribSetup && _validation._stages && _validation._stages->writeRule)
    return _validation._stages->writeRule(*this, node, id);
  return Ok();
}

Result<GNode> NodeSystemImpl::_BeginWrite(const GNode& node, InternedId id) {
  ORVIX_TRY(CheckModification(true));
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  ORVIX_TRY(_ApplyWriteRule(handle, id));
  return handle;
}

Result<void> NodeSystemImpl::NoteValueChanged(GNode& node, InternedId id, ATTRIBUTE_FLAGS flags,
                                              NodeInfo* info, AttributeRecord* attribute) {
  ORVIX_TRY(_ApplyWriteRule(node, id));
  const bool meta = HasAny(flags, ATTRIBUTE_FLAGS::META);
  (meta ? _stamps._metaAttributeStamp : _stamps._attributeStamp) = _stamps._modificationStamp;
  if (attribute) attribute->stamp = _stamps._modificationStamp;
  if (!_attributes._attribSetup) {
    if (attribute && attribute->IsDerived()) {
      return ConditionError(CONDITION_KIND::ASSERTION, "!(d && d->IsDerived())");
    }
    (meta ? info->_metaAttributeStamp : info->_directAttributeStamp) = _stamps._modificationStamp;
    const GFI bits =
        _attributes._derivedAttributes ? _attributes._derivedAttributes->GetBits(id) : GFI::NONE;
    if (bits != GFI::NONE) ORVIX_TRY(SetModified(node, bits));
    return Ok();
  }
  const bool synthesized = _attributes._attribSetup->deriving == DERIVATION_DIRECTION::SYNTHESIZED;
  (synthesized ? info->_synthesizedAttributeStamp : info->_inheritedAttributeStamp) =
      _stamps._modificationStamp;
  if (attribute) attribute->derivedStamp = _stamps._modificationStamp;
  const GFI watched = GFI(_validation._validationMask) &
                      (GFI::MODIFIED_AV_ATTRIBUTES | GFI::MODIFIED_SAV_ATTRIBUTES);
  ORVIX_TRY(SetModified(node, GFI::MODIFIED_SAV_ATTRIBUTES | watched));
  return Ok();
}

Result<bool> NodeSystemImpl::SetValue(const GNode& node, InternedId id, Data value,
                                      ChangeList* changeList, bool direct) {
  const SpecialIds& ids = Ids();
  if (id == ids.isShortcutStop) return ReadOnly(id);
  if (value.IsEmpty()) return EraseValue(node, id, changeList);
  ORVIX_TRY(CheckModification(direct));
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  const Ref<DerivedAttribute> derived = _DerivedAttribute(id);
  const ATTRIBUTE_FLAGS flags = _AttributeFlags(id);

  if (id == ids.updatePolicy) {
    if (handle.GetKind() != NODE_KIND::NODE) {
      return ConditionError(CONDITION_KIND::ILLEGAL_ARGUMENT, "p.GetKind() == NODE_KIND::NODE");
    }
    const Result<int32_t> policy = value.Get<int32_t>();
    if (!policy || *policy < 0 || *policy > int32_t(ASSET_UPDATE_POLICY::IMPLICIT)) {
      return ConditionError(CONDITION_KIND::ILLEGAL_ARGUMENT, "value is an ASSET_UPDATE_POLICY");
    }
    ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(handle, NODE_KIND::NODE));
    NodeRecord* record = info->AsNode();
    const ASSET_UPDATE_POLICY wanted = ASSET_UPDATE_POLICY(*policy);
    const ASSET_UPDATE_POLICY held =
        record->_nestedData ? record->_nestedData->updatePolicy : ASSET_UPDATE_POLICY::IMPLICIT;
    if (wanted == held && record->_nestedData) return false;
    // The reference is shared with the base's record and with copies.
    Ref<BaseReference> own;
    if (record->_nestedData) {
      ORVIX_TRY_ASSIGN(own, record->_nestedData->Clone());
    } else {
      ORVIX_TRY_ASSIGN(own, NewRef<BaseReference>());
    }
    own->updatePolicy = wanted;
    record->_nestedData = std::move(own);
    return true;
  }

  ORVIX_TRY(_ApplyWriteRule(handle, id));

  // Does anything change? A derived value that the chain below already
  // yields isn't stored; a value equal to the element's own record is no
  // change, except as a confirmation by derivation.
  const bool ownRecord = handle.system == this && handle.info->attributes &&
                         handle.info->attributes->records.Find(id) != nullptr;
  const Data* below = nullptr;
  if (derived && HasAny(derived->GetKind(), DERIVED_ATTRIBUTE_KIND::DERIVED_MASK) && !ownRecord) {
    const bool here = handle.system == this;
    const NodeInfo* start = here ? handle.info->base : handle.info;
    const NodeSystemImpl* startSystem = here ? handle.info->baseSystem : handle.system;
    ValueHolder holder;
    below = start ? GetStoredValue(start, startSystem, id, false, &holder) : nullptr;
    bool same = false;
    if (below && holder.record && handle.path.GetCount() != holder.record->_path.GetCount()) {
      same = derived->IsEqual(value, handle, *below, PrefixOf(*this, handle, holder, false));
    } else {
      same = below && *below == value;
    }
    if (same) return false;
  }
  bool equal = false;
  if (ownRecord) {
    equal = handle.info->attributes->records.Find(id)->value == value;
    if (equal && !_attributes._attribSetup) return false;
  }

  ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(handle, NODE_KIND::NONE));
  if (!equal) ORVIX_TRY(_PrepareTable(info));
  bool inserted = false;
  ORVIX_TRY_ASSIGN(AttributeRecord * attribute, _FindOrInsertRecord(info, id, flags, &inserted));
  if (equal) {
    if (direct && _attributes._attribSetup) attribute->stamp = _stamps._modificationStamp;
    return false;
  }

  auto takeBack = [&] {
    if (inserted) info->attributes->records.Erase(id);
  };
  // A copy: the class may write values of this element, which can move the
  // table that the record lives in.
  const Data old = below ? *below : attribute->value;
  if (Result<void> told = _TellClass(handle, id, flags, value, old); !told) {
    takeBack();
    return std::move(told).GetError();
  }
  if (changeList && derived) {
    takeBack();
    return ChangeListWithDerived();
  }
  // The class may have written values of this element, even this one: find
  // the record again, or make it again.
  ORVIX_TRY_ASSIGN(attribute, _RefindRecord(info, id, flags));
  attribute->value = std::move(value);
  if (direct) ORVIX_TRY(NoteValueChanged(handle, id, flags, info, attribute));
  return true;
}

Result<void> NodeSystemImpl::TouchValue(const GNode& node, InternedId id, ChangeList* changeList) {
  static_cast<void>(changeList);
  if (id == Ids().isShortcutStop) return ReadOnly(id);
  ORVIX_TRY(CheckModification(true));
  GNode handle = node;
  ORVIX_TRY(Resolve(handle));
  if (_attributes._attribSetup) {
    return Error(ERROR_CLASS::ILLEGAL_STATE,
                 "TouchValue must not be called for a derived attribute.");
  }
  const Data* value = GetStoredValue(handle.info, handle.system, id, false, nullptr);
  if (!value) {
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("There is no value for attribute @ at @.", id, handle.path));
  }
  // The value may live in a record that GetMutable replaces: copy it first.
  Data copy = *value;
  const ATTRIBUTE_FLAGS flags = _AttributeFlags(id);
  ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(handle, NODE_KIND::NONE));
  AttributeRecord* attribute = FindOwn(info, id);
  if (!attribute) {
    // A touch of a base's value makes it the element's own.
    ORVIX_TRY_ASSIGN(attribute, _RefindRecord(info, id, flags));
    attribute->value = std::move(copy);
  }
  return NoteValueChanged(handle, id, flags, info, attribute);
}

Result<bool> NodeSystemImpl::ResetValue(const GNode& node, InternedId id, ChangeList* changeList) {
  ORVIX_TRY_ASSIGN(GNode handle, _BeginWrite(node, id));
  if (handle.system != this || !handle.info->attributes) return false;
  const AttributeRecord* own = handle.info->attributes->records.Find(id);
  if (!own || own->IsDerived()) return false;
  const Ref<DerivedAttribute> derived = _DerivedAttribute(id);
  const ATTRIBUTE_FLAGS flags = _AttributeFlags(id);
  ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(handle, NODE_KIND::NONE));
  ORVIX_TRY(_PrepareTable(info));
  const Data old = info->attributes->records.Find(id)->value;
  ORVIX_TRY(_TellClass(handle, id, flags, Data(), old));
  if (changeList && derived) return ChangeListWithDerived();
  info->attributes->records.Erase(id);
  ORVIX_TRY(NoteValueChanged(handle, id, flags, info, nullptr));
  return true;
}

Result<bool> NodeSystemImpl::EraseValue(const GNode& node, InternedId id, ChangeList* changeList) {
  if (id == Ids().isShortcutStop) return ReadOnly(id);
  ORVIX_TRY_ASSIGN(GNode handle, _BeginWrite(node, id));
  ValueHolder holder;
  const Data* found = GetStoredValue(handle.info, handle.system, id, true, &holder);
  if (!found || !holder.record) return false;
  // An element whose own tombstone is found only needs its stamp confirmed by
  // derivation; any other tombstone means the value is hidden already.
  bool onlyTouchNeeded = false;
  if (found->IsEmpty()) {
    const bool own = holder.record == handle.info && holder.system == this;
    if (!(_attributes._attribSetup && own)) return false;
    onlyTouchNeeded = true;
  }
  Data old = *found;
  const Ref<DerivedAttribute> derived = _DerivedAttribute(id);
  const ATTRIBUTE_FLAGS flags = _AttributeFlags(id);
  ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(handle, NODE_KIND::NONE));
  ORVIX_TRY(_PrepareTable(info));
  bool inserted = false;
  ORVIX_TRY_ASSIGN(AttributeRecord * attribute, _FindOrInsertRecord(info, id, flags, &inserted));
  if (!inserted && attribute->value.IsEmpty()) {
    if (!_attributes._attribSetup)
      return ConditionError(CONDITION_KIND::ASSERTION, "!onlyTouchNeeded");
    attribute->stamp = _stamps._modificationStamp;
    return true;
  }
  if (onlyTouchNeeded) return ConditionError(CONDITION_KIND::ASSERTION, "!onlyTouchNeeded");
  auto takeBack = [&] {
    if (inserted) info->attributes->records.Erase(id);
  };
  if (changeList && derived) {
    takeBack();
    return ChangeListWithDerived();
  }
  if (Result<void> told = _TellClass(handle, id, flags, Data(), old); !told) {
    takeBack();
    return std::move(told).GetError();
  }
  ORVIX_TRY_ASSIGN(attribute, _RefindRecord(info, id, flags));
  attribute->value = Data();
  ORVIX_TRY(NoteValueChanged(handle, id, flags, info, attribute));
  return true;
}

Result<void> NodeSystemImpl::SetSubData(const GNode& node, InternedId id,
                                        const DataAccessor& accessor, std::span<const Data> keys,
                                        Data value, ChangeList* changeList) {
  if (keys.empty() && accessor.IsWholeValue()) {
    ORVIX_TRY(SetValue(node, id, std::move(value), changeList, true));
    return Ok();
  }
  if (id == Ids().isShortcutStop) return ReadOnly(id);
  ORVIX_TRY_ASSIGN(GNode handle, _BeginWrite(node, id));
  const Ref<DerivedAttribute> derived = _DerivedAttribute(id);
  const ATTRIBUTE_FLAGS flags = _AttributeFlags(id);
  if (changeList && derived) return ChangeListWithDerived();
  ORVIX_TRY_ASSIGN(NodeInfo * info, GetMutable(handle, NODE_KIND::NONE));
  ORVIX_TRY(_PrepareTable(info));
  bool inserted = false;
  ORVIX_TRY_ASSIGN(AttributeRecord * attribute, _FindOrInsertRecord(info, id, flags, &inserted));
  Result<bool> changed = accessor.SetPart(attribute->value, keys, value, nullptr);
  if (!changed) {
    if (inserted) info->attributes->records.Erase(id);
    return std::move(changed).GetError();
  }
  if (!inserted && !*changed) {
    if (_attributes._attribSetup) attribute->stamp = _stamps._modificationStamp;
    return Ok();
  }
  return NoteValueChanged(handle, id, flags, info, attribute);
}

}  // namespace orvix::nodes
