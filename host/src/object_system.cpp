#include "orvix/host/object_system.h"

#include <map>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <unordered_map>
#include <utility>

#include "orvix/host/error.h"
#include "orvix/host/format.h"

namespace orvix {

namespace {
struct ObjectSystem {
  std::shared_mutex mutex;
  std::map<std::string, ClassInfo, std::less<>> classes;
  std::map<std::string, std::unordered_map<InternedId, Data>, std::less<>> registries;
};

ObjectSystem& TheObjectSystem() {
  static ObjectSystem* system = new ObjectSystem;  // lives until exit, used by static teardown
  return *system;
}

const DataType* ObjectValueType() {
  static const DataType* type = [] {
    DataTypeInfo info;
    info.id = "net.orvix.datatype.object";
    info.storage = DATA_STORAGE::OBJECT;
    Result<const DataType*> registered = RegisterDataType(info);
    return registered ? *registered : FindDataType(std::string_view("net.orvix.datatype.object"));
  }();
  return type;
}
}  // namespace

Result<void> RegisterClass(ClassInfo info) {
  ObjectSystem& system = TheObjectSystem();
  std::unique_lock lock(system.mutex);
  try {
    if (system.classes.contains(info.id)) {
      return Error(ERROR_CLASS::ILLEGAL_STATE, FormatMessage("Class @ is already registered.",
                                                             std::string_view(info.id)));
    }
    std::string id = info.id;
    system.classes.emplace(std::move(id), std::move(info));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

void UnregisterClass(std::string_view id) {
  ObjectSystem& system = TheObjectSystem();
  ClassInfo gone;  // destroyed after the lock is released
  std::unique_lock lock(system.mutex);
  if (auto it = system.classes.find(id); it != system.classes.end()) {
    gone = std::move(it->second);
    system.classes.erase(it);
  }
}

bool IsClassRegistered(std::string_view id) {
  ObjectSystem& system = TheObjectSystem();
  std::shared_lock lock(system.mutex);
  return system.classes.find(id) != system.classes.end();
}

bool ImplementsInterface(std::string_view classId, std::string_view interfaceId) {
  ObjectSystem& system = TheObjectSystem();
  std::shared_lock lock(system.mutex);
  const auto it = system.classes.find(classId);
  if (it == system.classes.end()) return false;
  for (const std::string& i : it->second.interfaces) {
    if (i == interfaceId) return true;
  }
  return false;
}

Result<Ref<RefCounted>> CreateObject(std::string_view classId) {
  ObjectFactory factory;
  {
    ObjectSystem& system = TheObjectSystem();
    std::shared_lock lock(system.mutex);
    const auto it = system.classes.find(classId);
    if (it == system.classes.end()) {
      return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                   FormatMessage("Class @ is not registered.", classId));
    }
    if (!it->second.factory) {
      return Error(ERROR_CLASS::UNSUPPORTED_OPERATION,
                   FormatMessage("Class @ can't be instantiated.", classId));
    }
    try {
      factory = it->second.factory;
    } catch (const std::bad_alloc&) {
      return OutOfMemoryError();
    }
  }
  // Outside the lock: a factory may create other objects.
  return factory();
}

const DataType* ObjectValue::GetType() const {
  return ObjectValueType();
}

bool ObjectValue::Equals(const DataObject& other) const {
  return _object.Get() == static_cast<const ObjectValue&>(other)._object.Get();
}

std::string ObjectValue::ToString() const {
  return _object ? "object" : "null object";
}

Result<Data> ObjectValue::Make(Ref<RefCounted> object) {
  if (!ObjectValueType()) return Error(ERROR_CLASS::ILLEGAL_STATE, "The object data type is missing.");
  ORVIX_TRY_ASSIGN(Ref<ObjectValue> value, NewRef<ObjectValue>(std::move(object)));
  return Data(std::move(value));
}

Ref<RefCounted> ObjectValue::Of(const Data& value) {
  if (value.GetType() != ObjectValueType()) return Ref<RefCounted>();
  const ObjectValue* object = value.GetPtr<ObjectValue>();
  return object ? object->_object : Ref<RefCounted>();
}

Result<void> RegisterEntry(std::string_view registry, InternedId id, Data value) {
  ObjectSystem& system = TheObjectSystem();
  std::unique_lock lock(system.mutex);
  try {
    auto it = system.registries.find(registry);
    if (it == system.registries.end()) {
      it = system.registries.emplace(std::string(registry), std::unordered_map<InternedId, Data>())
               .first;
    }
    if (!it->second.emplace(id, std::move(value)).second) {
      return Error(ERROR_CLASS::ILLEGAL_STATE,
                   FormatMessage("Entry @ is already registered in @.", id, registry));
    }
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

void UnregisterEntry(std::string_view registry, InternedId id) {
  ObjectSystem& system = TheObjectSystem();
  Data gone;  // destroyed after the lock is released: it may hold an object
  std::unique_lock lock(system.mutex);
  const auto it = system.registries.find(registry);
  if (it == system.registries.end()) return;
  if (auto entry = it->second.find(id); entry != it->second.end()) {
    gone = std::move(entry->second);
    it->second.erase(entry);
  }
  if (it->second.empty()) system.registries.erase(it);
}

Data FindEntryValue(std::string_view registry, InternedId id) {
  ObjectSystem& system = TheObjectSystem();
  std::shared_lock lock(system.mutex);
  const auto it = system.registries.find(registry);
  if (it == system.registries.end()) return Data();
  const auto entry = it->second.find(id);
  return entry == it->second.end() ? Data() : entry->second;
}

void ForEachEntry(std::string_view registry,
                  const std::function<bool(InternedId id, const Data& value)>& callback) {
  std::vector<std::pair<InternedId, Data>> snapshot;
  {
    ObjectSystem& system = TheObjectSystem();
    std::shared_lock lock(system.mutex);
    const auto it = system.registries.find(registry);
    if (it == system.registries.end()) return;
    try {
      snapshot.assign(it->second.begin(), it->second.end());
    } catch (const std::bad_alloc&) {
      return;
    }
  }
  for (const auto& [id, value] : snapshot) {
    if (!callback(id, value)) return;
  }
}

}  // namespace orvix
