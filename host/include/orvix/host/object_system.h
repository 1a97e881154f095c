#pragma once
// The object system of the host: classes created by id, the interfaces each
// class declares, and named registries of values that modules fill at load
// and empty at unload. All of it is thread-safe; lookups take a shared lock.

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "orvix/host/data.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"

namespace orvix {

// Makes a new object of a class.
using ObjectFactory = std::function<Result<Ref<RefCounted>>()>;

struct ClassInfo {
  std::string id;
  // The interfaces that objects of the class implement, by id.
  std::vector<std::string> interfaces;
  // Null for a class that is only a base of others and can't be created.
  ObjectFactory factory;
};

//   "Class @ is already registered."
Result<void> RegisterClass(ClassInfo info);
void UnregisterClass(std::string_view id);
bool IsClassRegistered(std::string_view id);
bool ImplementsInterface(std::string_view classId, std::string_view interfaceId);
// A new object of the class.
//   "Class @ is not registered."
//   "Class @ can't be instantiated."
Result<Ref<RefCounted>> CreateObject(std::string_view classId);

// A registry entry that holds an object: registries hold values, and this is
// the value of an object (an attribute, a template).
class ObjectValue final : public DataObject {
 public:
  explicit ObjectValue(Ref<RefCounted> object) : _object(std::move(object)) {}
  const DataType* GetType() const override;
  bool Equals(const DataObject& other) const override;
  std::string ToString() const override;
  const Ref<RefCounted>& GetObject() const { return _object; }

  // The value of `object`; the object of `value`, null if it holds none.
  static Result<Data> Make(Ref<RefCounted> object);
  static Ref<RefCounted> Of(const Data& value);

 private:
  Ref<RefCounted> _object;
};

// Registries by id, each a table from an entry id to a value.
//   "Entry @ is already registered in @."
Result<void> RegisterEntry(std::string_view registry, InternedId id, Data value);
void UnregisterEntry(std::string_view registry, InternedId id);
// The value of the entry; empty if there is none.
Data FindEntryValue(std::string_view registry, InternedId id);
// Calls `callback(id, value)` for each entry, in no particular order, on a
// snapshot taken under the lock; false ends the walk.
void ForEachEntry(std::string_view registry,
                  const std::function<bool(InternedId id, const Data& value)>& callback);

}  // namespace orvix
