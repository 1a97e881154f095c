#include "orvix/nodes/template_arguments.h"

#include <new>

namespace orvix::nodes {

using KIND = TEMPLATE_ARGUMENT_KIND;

const Data* TemplateArguments::Find(InternedId portId, KIND kind) const {
  const auto it = _entries.find(Key{portId, kind});
  return it == _entries.end() ? nullptr : &it->second;
}

const Data* TemplateArguments::Get(InternedId portId, KIND kind) const {
  if (const Data* deduced = Find(portId, kind | KIND::DEDUCED)) return deduced;
  return Find(portId, kind | KIND::EXPLICIT);
}

const DataType* TemplateArguments::GetType(InternedId portId) const {
  const Data* value = Get(portId, KIND::TYPE);
  if (!value) return nullptr;
  const Result<const DataType*> type = value->Get<const DataType*>();
  return type ? *type : nullptr;
}

std::optional<DataArray> TemplateArguments::GetBundle(InternedId portId) const {
  const Data* value = Get(portId, KIND::BUNDLE);
  if (!value) return std::nullopt;
  Result<DataArray> array = value->Get<DataArray>();
  if (!array) return std::nullopt;
  return std::move(array).Value();
}

bool TemplateArguments::HasDeduced(InternedId portId, KIND kind) const {
  return Find(portId, kind | KIND::DEDUCED) != nullptr;
}

Result<void> TemplateArguments::Set(InternedId portId, KIND kind, Data value) {
  try {
    if (value.IsEmpty()) {
      _entries.erase(Key{portId, kind});
    } else {
      _entries[Key{portId, kind}] = std::move(value);
    }
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

Result<void> TemplateArguments::Merge(const TemplateArguments& other) {
  for (const auto& [key, value] : other._entries) ORVIX_TRY(Set(key.first, key.second, value));
  return Ok();
}

Result<Ref<TemplateArguments>> TemplateArguments::Clone() const {
  ORVIX_TRY_ASSIGN(Ref<TemplateArguments> copy, NewRef<TemplateArguments>());
  try {
    copy->_entries = _entries;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return copy;
}

bool TemplateArguments::ForEach(
    const std::function<bool(InternedId, KIND, const Data&)>& callback) const {
  for (const auto& [key, value] : _entries) {
    if (!callback(key.first, key.second, value)) return false;
  }
  return true;
}

}  // namespace orvix::nodes
