// NodeSystemClassImpl: making, copying and finishing plain node systems, the
// class's side of template instantiation, and attributes as the registry
// declares them.

#include "orvix/nodes/node_system_class_impl.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

#include "orvix/host/diagnostics.h"
#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "orvix/host/object_system.h"
#include "orvix/nodes/module.h"
#include "store/node_system_impl.h"

namespace orvix::nodes {

namespace {
Error NullObject() {
  return Error(ERROR_CLASS::NULL_OBJECT, "Null object.");
}

bool IsNumber(DATA_STORAGE storage) {
  switch (storage) {
    case DATA_STORAGE::BOOL:
    case DATA_STORAGE::INT32:
    case DATA_STORAGE::INT64:
    case DATA_STORAGE::UINT64:
    case DATA_STORAGE::FLOAT64:
      return true;
    default:
      return false;
  }
}

// The number in `value` as a double and as an integer (clamped, NaN as 0);
// nothing for other storages.
std::optional<std::pair<double, int64_t>> NumberOf(const Data& value) {
  if (auto b = value.Get<bool>()) return std::pair{*b ? 1.0 : 0.0, int64_t(*b)};
  if (auto i = value.Get<int32_t>()) return std::pair{double(*i), int64_t(*i)};
  if (auto i = value.Get<int64_t>()) return std::pair{double(*i), *i};
  if (auto u = value.Get<uint64_t>()) {
    return std::pair{double(*u), int64_t(std::min<uint64_t>(*u, INT64_MAX))};
  }
  if (auto d = value.Get<double>()) {
    const double x = *d;
    int64_t i = 0;
    if (x >= 9.2e18) {
      i = INT64_MAX;
    } else if (x <= -9.2e18) {
      i = INT64_MIN;
    } else if (x == x) {
      i = int64_t(x);
    }
    return std::pair{x, i};
  }
  return std::nullopt;
}

// A number of the host's own type for `storage`.
Data NumberAs(DATA_STORAGE storage, const std::pair<double, int64_t>& number) {
  switch (storage) {
    case DATA_STORAGE::BOOL:
      return Data(number.first != 0.0);
    case DATA_STORAGE::INT32:
      return Data(int32_t(std::clamp<int64_t>(number.second, INT32_MIN, INT32_MAX)));
    case DATA_STORAGE::INT64:
      return Data(number.second);
    case DATA_STORAGE::UINT64:
      return Data(uint64_t(std::max<int64_t>(number.second, 0)));
    default:
      return Data(number.first);
  }
}
}  // namespace

Result<MutableRoot> NodeSystemClassImpl::CreateNodeSystem() {
  // Through the object system when the module is loaded, so that a host can
  // put its own implementation under the class id; directly otherwise.
  Ref<NodeSystemImpl> system;
  if (IsClassRegistered(NODE_SYSTEM_CLASS_ID)) {
    ORVIX_TRY_ASSIGN(Ref<RefCounted> object, CreateObject(NODE_SYSTEM_CLASS_ID));
    system = Ref<NodeSystemImpl>(dynamic_cast<NodeSystemImpl*>(object.Get()));
    if (!system) return NullObject();
  } else {
    ORVIX_TRY_ASSIGN(system, NewRef<NodeSystemImpl>());
  }
  ORVIX_TRY(system->Init(Ref<NodeSystemClass>(this)));
  ORVIX_TRY(system->BeginModification());
  MutableRoot root;
  root._root = system->GetRoot();
  root._system = std::move(system);
  return root;
}

Result<void> NodeSystemClassImpl::FinalizeModification(const MutableRoot& root,
                                                       uint64_t beginStamp, FINALIZE_FLAGS flags,
                                                       ChangeList* changeList) {
  static_cast<void>(root);
  static_cast<void>(beginStamp);
  static_cast<void>(flags);
  static_cast<void>(changeList);
  return Ok();
}

Ref<GraphAttribute> NodeSystemClassImpl::GetDerivedAttribute(InternedId id) const {
  const Data entry = FindEntryValue(ATTRIBUTE_REGISTRY_ID, id);
  const Ref<RefCounted> object = ObjectValue::Of(entry);
  return Ref<GraphAttribute>(dynamic_cast<GraphAttribute*>(object.Get()));
}

ATTRIBUTE_FLAGS NodeSystemClassImpl::GetAttributeFlags(InternedId id) const {
  const Ref<GraphAttribute> attribute = GetDerivedAttribute(id);
  return attribute ? attribute->GetFlags() : ATTRIBUTE_FLAGS::DIRECT;
}

bool NodeSystemClassImpl::SupportsAttribute(const GraphAttribute* attribute) const {
  if (!attribute) return false;
  const auto* derived = dynamic_cast<const DerivedAttribute*>(attribute);
  return derived ? derived->IsSupportedBy(*this) : true;
}

Result<uint32_t> NodeSystemClassImpl::GetTypeConversionFlags(const DataType* from,
                                                             const DataType* to) const {
  return from == to ? uint32_t{0} : uint32_t{0x400};
}

Result<Data> NodeSystemClassImpl::ConvertValue(const DataType* type, const Data& value) const {
  if (!type) return NullObject();
  if (value.GetType() == type) return value;
  // Numbers convert among themselves; a type that stands for a host type (an
  // enumeration over an integer) takes the converted value under its own name.
  std::optional<std::pair<double, int64_t>> number = NumberOf(value);
  if (value.IsEmpty() && IsNumber(type->GetStorage())) number.emplace(0.0, 0);
  if (number && IsNumber(type->GetStorage())) {
    const Data converted = NumberAs(type->GetStorage(), *number);
    if (converted.GetType() == type) return converted;
    return converted.WithType(type);
  }
  if (value.IsEmpty()) return Data();
  if (value.GetType() && value.GetType()->GetStorage() == type->GetStorage()) {
    return value.WithType(type);
  }
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               FormatMessage("Can't convert a value of type @ to @.", value.GetType(), type));
}

Result<bool> NodeSystemClassImpl::SupportsTemplate(const NodeTemplate& nodeTemplate) const {
  return nodeTemplate.SupportsImpl(*this);
}

Result<bool> NodeSystemClassImpl::CheckSelectors(const NodeTemplate& nodeTemplate,
                                                 std::span<const InternedId> chosen) const {
  static_cast<void>(nodeTemplate);
  static_cast<void>(chosen);
  return true;
}

Result<InternedId> NodeSystemClassImpl::ResolveSelectors(const NodeTemplate& nodeTemplate,
                                                         std::span<const InternedId> chosen,
                                                         std::span<const InternedId> offered) const {
  static_cast<void>(nodeTemplate);
  static_cast<void>(chosen);
  static_cast<void>(offered);
  return InternedId();
}

Result<Ref<NodeSystem>> NodeSystemClassImpl::InstantiateImpl(
    const InstantiationContext& context, const NodeTemplate* nodeTemplate,
    const Ref<TemplateArguments>& arguments) {
  if (!nodeTemplate) return Error(ERROR_CLASS::NULL_OBJECT, "Node template is nullptr.");
  Result<Ref<NodeSystem>> made = nodeTemplate->InstantiateImpl(context, arguments);
  if (made) return made;
  // A failed instantiation is a normal outcome for the caller; the lines are
  // for whoever reads the log.
  const std::string identity =
      std::string(nodeTemplate->GetId()) + " " + std::string(nodeTemplate->GetVersion());
  DiagnosticOutput("NodeSystemClassImpl call to InstantiateImpl failed for (@, @)",
                   std::string_view(identity), nodeTemplate->GetClassId());
  Output(OUTPUT_LEVEL::DIAGNOSTIC, made.GetError().GetMessage());
  return made;
}

Result<uint64_t> NodeSystemClassImpl::AttributeChanged(NodeSystem& system, const GNode& node,
                                                       InternedId id, ATTRIBUTE_FLAGS flags,
                                                       const Data& newValue,
                                                       const Data& oldValue) {
  static_cast<void>(system);
  static_cast<void>(node);
  static_cast<void>(id);
  static_cast<void>(flags);
  static_cast<void>(newValue);
  static_cast<void>(oldValue);
  return uint64_t{0};
}

Result<Ref<NodeSystem>> NodeSystemClassImpl::CopyNodeSystem(const NodeSystem& source) {
  const auto* impl = dynamic_cast<const NodeSystemImpl*>(&source);
  if (!impl) {
    return ConditionError(CONDITION_KIND::ILLEGAL_ARGUMENT, "source is a NodeSystemImpl");
  }
  ORVIX_TRY_ASSIGN(Ref<NodeSystemImpl> copy, NewRef<NodeSystemImpl>());
  ORVIX_TRY(copy->CopyFrom(*impl));
  return Ref<NodeSystem>(std::move(copy));
}

Result<Ref<NodeSystemClass>> CreateDefaultNodeSystemClass() {
  ORVIX_TRY_ASSIGN(Ref<NodeSystemClassImpl> cls, NewRef<NodeSystemClassImpl>());
  return Ref<NodeSystemClass>(std::move(cls));
}

}  // namespace orvix::nodes
