#include "orvix/host/data.h"

#include "orvix/host/hash.h"

#include <array>
#include <cmath>
#include <cstring>
#include <iterator>
#include <optional>
#include <shared_mutex>
#include <unordered_map>

#include <fmt/format.h>

#include "orvix/host/diagnostics.h"
#include "orvix/host/format.h"

namespace orvix {

static_assert(sizeof(Data) == 16, "a Data is a type pointer and eight bytes of value");
static_assert(sizeof(DataArray) == sizeof(void*) && sizeof(DataDictionary) == sizeof(void*));

// Opens the private parts of DataType to the registry below.
struct DataTypeAccess {
  static void MakeBuiltin(DataType& t) { t._builtin = true; }
  static void SetElementType(DataType& t, const DataType* element) { t._elementType = element; }
  static std::atomic<const DataType*>& ArrayTypeSlot(const DataType& t) { return t._arrayType; }
};

namespace detail {
struct DataArrayPayload final : RefCounted {
  const DataType* elementType = nullptr;
  const DataType* arrayType = nullptr;
  std::vector<Data> elements;
};

// Small dictionaries are searched linearly; above this many entries a hash index
// is kept beside the entries.
constexpr size_t DICTIONARY_INDEX_THRESHOLD = 8;

struct DataDictionaryPayload final : RefCounted {
  std::vector<DataDictionary::Entry> entries;
  std::unordered_map<Data, size_t, DataHash> index;
  bool indexed = false;

  std::optional<size_t> FindIndex(const Data& key) const {
    if (indexed) {
      auto it = index.find(key);
      if (it == index.end()) return std::nullopt;
      return it->second;
    }
    for (size_t i = 0; i < entries.size(); ++i)
      if (entries[i].key == key) return i;
    return std::nullopt;
  }

  // The index only speeds up lookups: when memory for it runs out, the
  // dictionary goes on with linear search, and the write itself stands.
  void Add(Data key, Data value) {
    entries.push_back(DataDictionary::Entry{std::move(key), std::move(value)});
    if (indexed) {
      try {
        index.emplace(entries.back().key, entries.size() - 1);
      } catch (const std::bad_alloc&) {
        DropIndex();
      }
    } else if (entries.size() > DICTIONARY_INDEX_THRESHOLD) {
      RebuildIndex();
    }
  }

  void RemoveAt(size_t pos) {
    entries.erase(entries.begin() + std::ptrdiff_t(pos));
    if (entries.size() <= DICTIONARY_INDEX_THRESHOLD) {
      DropIndex();
    } else {
      RebuildIndex();
    }
  }

  void RebuildIndex() {
    DropIndex();
    try {
      index.max_load_factor(0.65f);
      index.reserve(entries.size());
      for (size_t i = 0; i < entries.size(); ++i) index.emplace(entries[i].key, i);
      indexed = true;
    } catch (const std::bad_alloc&) {
      DropIndex();
    }
  }

  void DropIndex() {
    index.clear();
    indexed = false;
  }
};
}  // namespace detail

namespace {

constexpr size_t STORAGE_COUNT = size_t(DATA_STORAGE::OBJECT) + 1;

struct Registry {
  std::shared_mutex mutex;
  std::unordered_map<InternedId, std::unique_ptr<DataType>> types;
  std::array<const DataType*, STORAGE_COUNT> builtins{};

  Registry() {
    const DataTypeInfo infos[] = {
        {DATATYPE_ID_BOOL, DATA_STORAGE::BOOL, VALUEKIND::BOOL, 1},
        {DATATYPE_ID_INT32, DATA_STORAGE::INT32, VALUEKIND::INTEGRAL | VALUEKIND::SIGNED, 4},
        {DATATYPE_ID_INT64, DATA_STORAGE::INT64, VALUEKIND::INTEGRAL | VALUEKIND::SIGNED, 8},
        {DATATYPE_ID_UINT64, DATA_STORAGE::UINT64, VALUEKIND::INTEGRAL, 8},
        {DATATYPE_ID_FLOAT64, DATA_STORAGE::FLOAT64, VALUEKIND::FLOATING_POINT | VALUEKIND::SIGNED,
         8},
        {DATATYPE_ID_INTERNED_ID, DATA_STORAGE::INTERNED_ID, VALUEKIND::ID, 8},
        {DATATYPE_ID_DATATYPE, DATA_STORAGE::DATA_TYPE, VALUEKIND::TYPE, 8},
        {DATATYPE_ID_STRING, DATA_STORAGE::STRING, VALUEKIND::STRING, 8},
        {DATATYPE_ID_ARRAY, DATA_STORAGE::ARRAY, VALUEKIND::ARRAY, 8},
        {DATATYPE_ID_DATA_DICTIONARY, DATA_STORAGE::DICTIONARY, VALUEKIND::DICTIONARY, 8},
    };
    for (const DataTypeInfo& info : infos) {
      auto type = std::make_unique<DataType>(info);
      DataTypeAccess::MakeBuiltin(*type);
      builtins[size_t(info.storage)] = type.get();
      types.emplace(type->GetId(), std::move(type));
    }
  }
};

Registry& TheRegistry() {
  // Never destroyed: types are compared by address for the life of the process,
  // static destructors included.
  static Registry* registry = new Registry();
  return *registry;
}

uint64_t TypeSeed(const DataType* type) {
  return type ? type->GetId().GetHashCode() : 0;
}

// Equal doubles must hash alike: -0 equals 0, and every NaN equals every NaN here.
uint64_t FloatBits(double v) {
  if (std::isnan(v)) return 0x7ff8000000000000ULL;
  if (v == 0) return 0;
  uint64_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return bits;
}

bool FloatEqual(double a, double b) {
  return a == b || (std::isnan(a) && std::isnan(b));
}

void AppendQuoted(std::string& out, std::string_view text, char quote) {
  out.push_back(quote);
  for (char c : text) {
    switch (c) {
      case '\\':
        out.append("\\\\");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      case '\t':
        out.append("\\t");
        break;
      default:
        if (c == quote) {
          out.push_back('\\');
          out.push_back(c);
        } else if (static_cast<unsigned char>(c) < 0x20) {
          fmt::format_to(std::back_inserter(out), "\\u{:04x}", unsigned(c));
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back(quote);
}

// Always with a point or an exponent, so that 2.0 never reads as an integer.
void AppendFloat(std::string& out, double v) {
  size_t start = out.size();
  fmt::format_to(std::back_inserter(out), "{}", v);
  if (out.find_first_of(".en", start) == std::string::npos) out.append(".0");
}

template <typename Index>
Error OutOfRange(Index index, size_t count) {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               FormatMessage("Index @ is out of range for an array of @ elements.", index, count));
}

// The element index that an integer key names.
Result<size_t> ArrayIndex(const Data& key, size_t count) {
  if (const int32_t* v = key.GetPtr<int32_t>()) {
    if (*v < 0 || size_t(*v) >= count) return OutOfRange(int64_t(*v), count);
    return size_t(*v);
  }
  if (const int64_t* v = key.GetPtr<int64_t>()) {
    if (*v < 0 || uint64_t(*v) >= count) return OutOfRange(*v, count);
    return size_t(*v);
  }
  if (const uint64_t* v = key.GetPtr<uint64_t>()) {
    if (*v >= count) return OutOfRange(*v, count);
    return size_t(*v);
  }
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               FormatMessage("An array can't be indexed by @.", key.ToString()));
}

template <typename T>
std::string TextOf(const T& value) {
  std::string out;
  value.AppendTo(out);
  return out;
}

Error MissingKey(const Data& key) {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               FormatMessage("Key @ is not in the dictionary.", key.ToString()));
}

Error NoParts(const Data& d) {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               FormatMessage("Data of type @ has no parts.", DataTypeName(d.GetType())));
}

Error ElementTypeError(const DataType* elementType, const DataType* valueType) {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               FormatMessage("An array of @ can't hold data of type @.", DataTypeName(elementType),
                             DataTypeName(valueType)));
}

// The part of `container` that `key` names, for reading; null for a dictionary
// key that isn't there if `missingAllowed`.
Result<const Data*> FindPart(const Data& container, const Data& key, bool missingAllowed) {
  if (const DataArray* array = container.GetPtr<DataArray>()) {
    ORVIX_TRY_ASSIGN(size_t index, ArrayIndex(key, array->GetCount()));
    return &(*array)[index];
  }
  if (const DataDictionary* dictionary = container.GetPtr<DataDictionary>()) {
    const Data* found = dictionary->Find(key);
    if (!found && !missingAllowed) return MissingKey(key);
    return found;
  }
  return NoParts(container);
}

// The same part, for writing; its container is made unshared first.
Result<Data*> WritablePart(Data& container, const Data& key) {
  switch (container.GetStorage()) {
    case DATA_STORAGE::ARRAY: {
      ORVIX_TRY_ASSIGN(DataArray * array, container.GetWritableArray());
      ORVIX_TRY_ASSIGN(size_t index, ArrayIndex(key, array->GetCount()));
      return array->GetWritable(index);
    }
    case DATA_STORAGE::DICTIONARY: {
      ORVIX_TRY_ASSIGN(DataDictionary * dictionary, container.GetWritableDictionary());
      return dictionary->GetWritable(key);
    }
    default:
      return NoParts(container);
  }
}

}  // namespace

std::string_view ToString(DATA_STORAGE storage) {
  static constexpr std::string_view NAMES[STORAGE_COUNT] = {
      "none",       "bool",     "int32",  "int64", "uint64",     "float64",
      "internedid", "datatype", "string", "array", "dictionary", "object"};
  return size_t(storage) < STORAGE_COUNT ? NAMES[size_t(storage)] : "unknown";
}

// ---- DataType and the registry ----

DataType::DataType(const DataTypeInfo& info)
    : _id(InternedId::Get(info.id)),
      _storage(info.storage),
      _valueKind(info.valueKind),
      _size(info.size),
      _underlyingType(info.underlyingType) {}

DataType::~DataType() = default;

std::string_view DataTypeName(const DataType* type) {
  return type ? type->ToString() : "none";
}

const DataType* FindDataType(InternedId id) {
  if (id.IsNull()) return nullptr;
  Registry& registry = TheRegistry();
  std::shared_lock lock(registry.mutex);
  auto it = registry.types.find(id);
  return it == registry.types.end() ? nullptr : it->second.get();
}

const DataType* FindDataType(std::string_view id) {
  return FindDataType(InternedId::Find(id));
}

Result<const DataType*> RegisterDataType(std::unique_ptr<DataType> type) {
  ORVIX_CHECK_ARGUMENT(type != nullptr);
  ORVIX_CHECK_ARGUMENT(type->GetId().IsPopulated());
  ORVIX_CHECK_ARGUMENT(type->GetStorage() != DATA_STORAGE::ARRAY &&
                       type->GetStorage() != DATA_STORAGE::DICTIONARY);
  try {
    Registry& registry = TheRegistry();
    std::unique_lock lock(registry.mutex);
    InternedId id = type->GetId();
    if (registry.types.contains(id))
      return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                   FormatMessage("Data type @ is already registered.", id));
    const DataType* raw = type.get();
    registry.types.emplace(id, std::move(type));
    return raw;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

Result<const DataType*> RegisterDataType(const DataTypeInfo& info) {
  try {
    return RegisterDataType(std::make_unique<DataType>(info));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

Result<const DataType*> ArrayDataType(const DataType* elementType) {
  if (!elementType) return BuiltinDataType(DATA_STORAGE::ARRAY);
  std::atomic<const DataType*>& slot = DataTypeAccess::ArrayTypeSlot(*elementType);
  if (const DataType* known = slot.load(std::memory_order_acquire)) return known;
  try {
    Registry& registry = TheRegistry();
    std::unique_lock lock(registry.mutex);
    if (const DataType* known = slot.load(std::memory_order_acquire)) return known;
    auto element = registry.types.find(elementType->GetId());
    if (element == registry.types.end() || element->second.get() != elementType)
      return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                   FormatMessage("Data type @ is not registered.", elementType->GetId()));
    std::string id = FormatMessage("@<@>", DATATYPE_ID_ARRAY, elementType->GetId());
    auto type = std::make_unique<DataType>(
        DataTypeInfo{id, DATA_STORAGE::ARRAY, VALUEKIND::ARRAY, uint32_t(sizeof(void*))});
    if (registry.types.contains(type->GetId()))
      return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                   FormatMessage("Data type @ is already registered.", type->GetId()));
    DataTypeAccess::SetElementType(*type, elementType);
    const DataType* raw = type.get();
    registry.types.emplace(type->GetId(), std::move(type));
    slot.store(raw, std::memory_order_release);
    return raw;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

const DataType* BuiltinDataType(DATA_STORAGE storage) {
  static const std::array<const DataType*, STORAGE_COUNT>& builtins = TheRegistry().builtins;
  return builtins[size_t(storage)];
}

// ---- DataObject ----

uint64_t DataObject::GetHashCode() const {
  return 0;
}

Result<Ref<DataObject>> DataObject::Clone() const {
  return Error(ERROR_CLASS::UNSUPPORTED_OPERATION,
               FormatMessage("Data of type @ can't be copied.", DataTypeName(GetType())));
}

// ---- Data ----

Data::Data(const DataType* v) noexcept {
  if (!v) {
    _type = nullptr;
    return;
  }
  _SetScalar(DATA_STORAGE::DATA_TYPE, v);
}

Data::Data(std::string_view v) : Data(std::string(v)) {}

Data::Data(std::string&& v) {
  auto* payload = new detail::StringPayload(std::move(v));
  payload->AddReference();
  _type = BuiltinDataType(DATA_STORAGE::STRING);
  ::new (static_cast<void*>(_storage)) detail::StringPayload*(payload);
}

Data::Data(DataArray v) noexcept : _type(v.GetType()) {
  ::new (static_cast<void*>(_storage)) DataArray(std::move(v));
}

Data::Data(DataDictionary v) noexcept : _type(BuiltinDataType(DATA_STORAGE::DICTIONARY)) {
  ::new (static_cast<void*>(_storage)) DataDictionary(std::move(v));
}

Data::Data(Ref<DataObject> v) noexcept : _type(nullptr) {
  if (!v) return;
  const DataType* type = v->GetType();
  if (!type || type->GetStorage() != DATA_STORAGE::OBJECT) {
    ReportInternalError();
    return;
  }
  _type = type;
  ::new (static_cast<void*>(_storage)) DataObject*(v.Release());
}

void Data::_CopyCounted(const Data& o) {
  switch (_type->GetStorage()) {
    case DATA_STORAGE::STRING:
    case DATA_STORAGE::OBJECT: {
      _CopyBits(o);
      const RefCounted* shared =
          _type->GetStorage() == DATA_STORAGE::STRING
              ? static_cast<const RefCounted*>(*_As<detail::StringPayload*>())
              : *_As<DataObject*>();
      shared->AddReference();
      break;
    }
    case DATA_STORAGE::ARRAY:
      ::new (static_cast<void*>(_storage)) DataArray(*o._As<DataArray>());
      break;
    case DATA_STORAGE::DICTIONARY:
      ::new (static_cast<void*>(_storage)) DataDictionary(*o._As<DataDictionary>());
      break;
    default:
      break;
  }
}

void Data::_MoveCounted(Data& o) noexcept {
  switch (_type->GetStorage()) {
    case DATA_STORAGE::ARRAY:
      ::new (static_cast<void*>(_storage)) DataArray(std::move(*o._As<DataArray>()));
      o._As<DataArray>()->~DataArray();
      break;
    case DATA_STORAGE::DICTIONARY:
      ::new (static_cast<void*>(_storage)) DataDictionary(std::move(*o._As<DataDictionary>()));
      o._As<DataDictionary>()->~DataDictionary();
      break;
    default:
      // STRING and OBJECT: the reference passes with the pointer.
      _CopyBits(o);
      break;
  }
}

void Data::_DestroyCounted() noexcept {
  switch (_type->GetStorage()) {
    case DATA_STORAGE::STRING:
      (*_As<detail::StringPayload*>())->RemoveReference();
      break;
    case DATA_STORAGE::OBJECT:
      (*_As<DataObject*>())->RemoveReference();
      break;
    case DATA_STORAGE::ARRAY:
      _As<DataArray>()->~DataArray();
      break;
    case DATA_STORAGE::DICTIONARY:
      _As<DataDictionary>()->~DataDictionary();
      break;
    default:
      break;
  }
  _type = nullptr;
}

Data& Data::operator=(Data&& o) noexcept {
  if (this != &o) {
    // `o` may live inside this value (an element of its array): take it out
    // before this value goes.
    Data taken(std::move(o));
    this->~Data();
    ::new (static_cast<void*>(this)) Data(std::move(taken));
  }
  return *this;
}

void Data::Swap(Data& o) noexcept {
  Data t(std::move(o));
  o = std::move(*this);
  *this = std::move(t);
}

void swap(Data& a, Data& b) noexcept {
  a.Swap(b);
}

Error Data::_MismatchError(const DataType* wanted, SourceLocation where) const {
  return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
               FormatMessage("Data of type @ can't be read as @.", DataTypeName(_type),
                             DataTypeName(wanted)),
               where);
}

Error Data::_ObjectMismatchError(SourceLocation where) const {
  return Error(
      ERROR_CLASS::ILLEGAL_ARGUMENT,
      FormatMessage("Data of type @ holds no object of the requested class.", DataTypeName(_type)),
      where);
}

Result<DataArray*> Data::GetWritableArray() {
  if (GetStorage() != DATA_STORAGE::ARRAY)
    return _MismatchError(BuiltinDataType(DATA_STORAGE::ARRAY), SourceLocation::current());
  DataArray* array = _As<DataArray>();
  ORVIX_TRY(array->_MakeUnique());
  return array;
}

Result<DataDictionary*> Data::GetWritableDictionary() {
  if (GetStorage() != DATA_STORAGE::DICTIONARY)
    return _MismatchError(BuiltinDataType(DATA_STORAGE::DICTIONARY),
                          SourceLocation::current());
  DataDictionary* dictionary = _As<DataDictionary>();
  ORVIX_TRY(dictionary->_MakeUnique());
  return dictionary;
}

Result<DataObject*> Data::GetWritableObject() {
  if (GetStorage() != DATA_STORAGE::OBJECT)
    return _ObjectMismatchError(SourceLocation::current());
  DataObject*& object = *_As<DataObject*>();
  if (object->HasSingleOwner()) return object;
  ORVIX_TRY_ASSIGN(Ref<DataObject> copy, object->Clone());
  ORVIX_CHECK_ASSERT(copy && copy->GetType() == _type);
  object->RemoveReference();
  object = copy.Release();
  return object;
}

Result<Data> Data::WithType(const DataType* type) const {
  DATA_STORAGE storage = GetStorage();
  bool fits = type && type->GetStorage() == storage && storage != DATA_STORAGE::NONE &&
              storage <= DATA_STORAGE::STRING;
  if (!fits)
    return Error(ERROR_CLASS::ILLEGAL_ARGUMENT,
                 FormatMessage("Data of type @ can't be given the type @.", DataTypeName(_type),
                               DataTypeName(type)));
  Data copy(*this);
  copy._type = type;
  return copy;
}

Result<Data> Data::GetSubData(const Data& key) const {
  ORVIX_TRY_ASSIGN(const Data* part, FindPart(*this, key, false));
  return *part;
}

Result<Data> Data::GetSubData(std::span<const Data> keys) const {
  const Data* part = this;
  for (const Data& key : keys) {
    ORVIX_TRY_ASSIGN(part, FindPart(*part, key, false));
  }
  return *part;
}

Result<bool> Data::SetSubData(std::span<const Data> keys, Data value, Data* previous) {
  if (keys.empty()) {
    bool changed = !(*this == value);
    if (previous) *previous = *this;
    if (changed) *this = std::move(value);
    return changed;
  }
  // Find the part without writing first: a value that is already there must
  // not cost a copy of the shared containers on the way.
  const Data* container = this;
  for (size_t i = 0; i + 1 < keys.size(); ++i) {
    ORVIX_TRY_ASSIGN(container, FindPart(*container, keys[i], false));
  }
  const Data& lastKey = keys.back();
  ORVIX_TRY_ASSIGN(const Data* current, FindPart(*container, lastKey, true));
  if (const DataArray* array = container->GetPtr<DataArray>()) {
    ORVIX_TRY(array->_CheckElement(value));
  }
  if (current && *current == value) {
    if (previous) *previous = *current;
    return false;
  }
  Data old = current ? *current : Data();

  Data* node = this;
  for (size_t i = 0; i + 1 < keys.size(); ++i) {
    ORVIX_TRY_ASSIGN(node, WritablePart(*node, keys[i]));
  }
  if (node->GetStorage() == DATA_STORAGE::ARRAY) {
    ORVIX_TRY_ASSIGN(DataArray * array, node->GetWritableArray());
    ORVIX_TRY_ASSIGN(size_t index, ArrayIndex(lastKey, array->GetCount()));
    ORVIX_TRY(array->Set(index, std::move(value)));
  } else {
    ORVIX_TRY_ASSIGN(DataDictionary * dictionary, node->GetWritableDictionary());
    ORVIX_TRY(dictionary->Set(lastKey, std::move(value)));
  }
  if (previous) *previous = std::move(old);
  return true;
}

bool operator==(const Data& a, const Data& b) {
  if (a._type != b._type) return false;
  switch (a.GetStorage()) {
    case DATA_STORAGE::NONE:
      return true;
    case DATA_STORAGE::FLOAT64:
      return FloatEqual(*a._As<double>(), *b._As<double>());
    case DATA_STORAGE::STRING: {
      const detail::StringPayload* x = *a._As<detail::StringPayload*>();
      const detail::StringPayload* y = *b._As<detail::StringPayload*>();
      return x == y || x->text == y->text;
    }
    case DATA_STORAGE::ARRAY:
      return *a._As<DataArray>() == *b._As<DataArray>();
    case DATA_STORAGE::DICTIONARY:
      return *a._As<DataDictionary>() == *b._As<DataDictionary>();
    case DATA_STORAGE::OBJECT:
      return a._Object() == b._Object() || a._Object()->Equals(*b._Object());
    default:
      // Numbers, ids and types: the same bits (ids and types are interned).
      return a._Bits() == b._Bits();
  }
}

uint64_t Data::GetHashCode() const {
  uint64_t value = 0;
  switch (GetStorage()) {
    case DATA_STORAGE::NONE:
      return 0;
    case DATA_STORAGE::FLOAT64:
      value = FloatBits(*_As<double>());
      break;
    case DATA_STORAGE::STRING:
      value = std::hash<std::string_view>()((*_As<detail::StringPayload*>())->text);
      break;
    case DATA_STORAGE::ARRAY:
      return _As<DataArray>()->GetHashCode();
    case DATA_STORAGE::DICTIONARY:
      return _As<DataDictionary>()->GetHashCode();
    case DATA_STORAGE::OBJECT:
      value = _Object()->GetHashCode();
      break;
    default:
      value = _Bits();
      break;
  }
  return CombineHash(TypeSeed(_type), value);
}

void Data::AppendTo(std::string& out) const {
  switch (GetStorage()) {
    case DATA_STORAGE::NONE:
      out.append("<empty>");
      break;
    case DATA_STORAGE::BOOL:
      out.append(*_As<bool>() ? "true" : "false");
      break;
    case DATA_STORAGE::INT32:
      fmt::format_to(std::back_inserter(out), "{}i32", *_As<int32_t>());
      break;
    case DATA_STORAGE::INT64:
      fmt::format_to(std::back_inserter(out), "{}", *_As<int64_t>());
      break;
    case DATA_STORAGE::UINT64:
      fmt::format_to(std::back_inserter(out), "{}u64", *_As<uint64_t>());
      break;
    case DATA_STORAGE::FLOAT64:
      AppendFloat(out, *_As<double>());
      break;
    case DATA_STORAGE::INTERNED_ID:
      AppendQuoted(out, _As<InternedId>()->GetString(), '\'');
      break;
    case DATA_STORAGE::DATA_TYPE:
      out.append("type(").append(DataTypeName(*_As<const DataType*>())).append(")");
      break;
    case DATA_STORAGE::STRING:
      AppendQuoted(out, (*_As<detail::StringPayload*>())->text, '"');
      break;
    case DATA_STORAGE::ARRAY:
      _As<DataArray>()->AppendTo(out);
      break;
    case DATA_STORAGE::DICTIONARY:
      _As<DataDictionary>()->AppendTo(out);
      break;
    case DATA_STORAGE::OBJECT:
      out.append(_Object()->ToString());
      break;
  }
}

std::string Data::ToString() const {
  return TextOf(*this);
}

// ---- DataArray ----

DataArray::DataArray() noexcept = default;
DataArray::DataArray(const DataArray& o) noexcept = default;
DataArray::DataArray(DataArray&& o) noexcept = default;
DataArray& DataArray::operator=(const DataArray& o) noexcept = default;
DataArray& DataArray::operator=(DataArray&& o) noexcept = default;
DataArray::~DataArray() = default;

DataArray::DataArray(std::initializer_list<Data> elements) {
  if (elements.size() == 0) return;
  _payload = MakeRef<detail::DataArrayPayload>();
  _payload->arrayType = BuiltinDataType(DATA_STORAGE::ARRAY);
  _payload->elements.assign(elements.begin(), elements.end());
}

Result<DataArray> DataArray::Create(const DataType* elementType) {
  return Create(elementType, {});
}

Result<DataArray> DataArray::Create(const DataType* elementType, std::span<const Data> elements) {
  ORVIX_TRY_ASSIGN(const DataType* arrayType, ArrayDataType(elementType));
  if (elementType) {
    for (const Data& element : elements)
      if (element.GetType() != elementType) return ElementTypeError(elementType, element.GetType());
  } else if (elements.empty()) {
    return DataArray();
  }
  try {
    DataArray array;
    array._payload = MakeRef<detail::DataArrayPayload>();
    array._payload->elementType = elementType;
    array._payload->arrayType = arrayType;
    array._payload->elements.assign(elements.begin(), elements.end());
    return array;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

const DataType* DataArray::GetElementType() const {
  return _payload ? _payload->elementType : nullptr;
}

const DataType* DataArray::GetType() const {
  return _payload ? _payload->arrayType : BuiltinDataType(DATA_STORAGE::ARRAY);
}

size_t DataArray::GetCount() const {
  return _payload ? _payload->elements.size() : 0;
}

std::span<const Data> DataArray::GetElements() const {
  if (!_payload) return {};
  return std::span<const Data>(_payload->elements);
}

Result<void> DataArray::_MakeUnique() {
  try {
    if (!_payload) {
      _payload = MakeRef<detail::DataArrayPayload>();
      _payload->arrayType = BuiltinDataType(DATA_STORAGE::ARRAY);
    } else if (!_payload->HasSingleOwner()) {
      _payload = MakeRef<detail::DataArrayPayload>(*_payload);
    }
    return Ok();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

Result<void> DataArray::_CheckElement(const Data& value) const {
  const DataType* elementType = GetElementType();
  if (elementType && value.GetType() != elementType)
    return ElementTypeError(elementType, value.GetType());
  return Ok();
}

Result<Data> DataArray::Get(size_t index) const {
  if (index >= GetCount()) return OutOfRange(uint64_t(index), GetCount());
  return _payload->elements[index];
}

Result<void> DataArray::Set(size_t index, Data value) {
  if (index >= GetCount()) return OutOfRange(uint64_t(index), GetCount());
  ORVIX_TRY(_CheckElement(value));
  ORVIX_TRY(_MakeUnique());
  _payload->elements[index] = std::move(value);
  return Ok();
}

Result<void> DataArray::Insert(size_t index, Data value) {
  if (index > GetCount()) return OutOfRange(uint64_t(index), GetCount());
  ORVIX_TRY(_CheckElement(value));
  ORVIX_TRY(_MakeUnique());
  try {
    auto& elements = _payload->elements;
    elements.insert(elements.begin() + std::ptrdiff_t(index), std::move(value));
    return Ok();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

Result<void> DataArray::Erase(size_t index) {
  if (index >= GetCount()) return OutOfRange(uint64_t(index), GetCount());
  ORVIX_TRY(_MakeUnique());
  auto& elements = _payload->elements;
  elements.erase(elements.begin() + std::ptrdiff_t(index));
  return Ok();
}

Result<Data*> DataArray::GetWritable(size_t index) {
  if (index >= GetCount()) return OutOfRange(uint64_t(index), GetCount());
  ORVIX_TRY(_MakeUnique());
  return &_payload->elements[index];
}

bool operator==(const DataArray& a, const DataArray& b) {
  if (a._payload == b._payload) return true;
  if (a.GetType() != b.GetType() || a.GetCount() != b.GetCount()) return false;
  std::span<const Data> x = a.GetElements(), y = b.GetElements();
  for (size_t i = 0; i < x.size(); ++i)
    if (!(x[i] == y[i])) return false;
  return true;
}

uint64_t DataArray::GetHashCode() const {
  uint64_t h = CombineHash(TypeSeed(GetType()), GetCount());
  for (const Data& element : GetElements()) h = CombineHash(h, element.GetHashCode());
  return h;
}

void DataArray::AppendTo(std::string& out) const {
  out.push_back('[');
  bool first = true;
  for (const Data& element : GetElements()) {
    if (!first) out.append(", ");
    first = false;
    element.AppendTo(out);
  }
  out.push_back(']');
}

std::string DataArray::ToString() const {
  return TextOf(*this);
}

// ---- DataDictionary ----

DataDictionary::DataDictionary() noexcept = default;
DataDictionary::DataDictionary(const DataDictionary& o) noexcept = default;
DataDictionary::DataDictionary(DataDictionary&& o) noexcept = default;
DataDictionary& DataDictionary::operator=(const DataDictionary& o) noexcept = default;
DataDictionary& DataDictionary::operator=(DataDictionary&& o) noexcept = default;
DataDictionary::~DataDictionary() = default;

DataDictionary::DataDictionary(std::initializer_list<std::pair<Data, Data>> entries) {
  for (const auto& [key, value] : entries) {
    Result<void> set = Set(key, value);
    if (!set && set.GetError().GetClass() == ERROR_CLASS::OUT_OF_MEMORY) throw std::bad_alloc();
    // An empty key is a slip in the program's own text; the entry is left out.
    if (!set) ReportInternalError();
  }
}

size_t DataDictionary::GetCount() const {
  return _payload ? _payload->entries.size() : 0;
}

std::span<const DataDictionary::Entry> DataDictionary::GetEntries() const {
  if (!_payload) return {};
  return std::span<const Entry>(_payload->entries);
}

Result<void> DataDictionary::_MakeUnique() {
  try {
    if (!_payload) {
      _payload = MakeRef<detail::DataDictionaryPayload>();
    } else if (!_payload->HasSingleOwner()) {
      _payload = MakeRef<detail::DataDictionaryPayload>(*_payload);
    }
    return Ok();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

const Data* DataDictionary::Find(const Data& key) const {
  if (!_payload) return nullptr;
  std::optional<size_t> at = _payload->FindIndex(key);
  return at ? &_payload->entries[*at].value : nullptr;
}

Result<Data> DataDictionary::Get(const Data& key) const {
  if (const Data* value = Find(key)) return *value;
  return MissingKey(key);
}

Result<void> DataDictionary::Set(Data key, Data value) {
  ORVIX_CHECK_ARGUMENT(!key.IsEmpty());
  const Data* existing = Find(key);
  if (existing && *existing == value) return Ok();
  ORVIX_TRY(_MakeUnique());
  try {
    if (std::optional<size_t> at = _payload->FindIndex(key)) {
      _payload->entries[*at].value = std::move(value);
    } else {
      _payload->Add(std::move(key), std::move(value));
    }
    return Ok();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

Result<bool> DataDictionary::Erase(const Data& key) {
  if (!Find(key)) return false;
  ORVIX_TRY(_MakeUnique());
  try {
    _payload->RemoveAt(*_payload->FindIndex(key));
    return true;
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

Result<void> DataDictionary::Merge(const DataDictionary& other) {
  if (IsSharedWith(other)) return Ok();
  for (const Entry& entry : other.GetEntries()) ORVIX_TRY(Set(entry.key, entry.value));
  return Ok();
}

Result<Data*> DataDictionary::GetWritable(const Data& key) {
  if (!Find(key)) return MissingKey(key);
  ORVIX_TRY(_MakeUnique());
  return &_payload->entries[*_payload->FindIndex(key)].value;
}

bool operator==(const DataDictionary& a, const DataDictionary& b) {
  if (a._payload == b._payload) return true;
  if (a.GetCount() != b.GetCount()) return false;
  for (const DataDictionary::Entry& entry : a.GetEntries()) {
    const Data* other = b.Find(entry.key);
    if (!other || !(*other == entry.value)) return false;
  }
  return true;
}

uint64_t DataDictionary::GetHashCode() const {
  // A sum, so that the order of the entries doesn't matter.
  uint64_t sum = 0;
  for (const Entry& entry : GetEntries())
    sum += CombineHash(entry.key.GetHashCode(), MixHash(entry.value.GetHashCode()));
  return CombineHash(TypeSeed(BuiltinDataType(DATA_STORAGE::DICTIONARY)), sum);
}

void DataDictionary::AppendTo(std::string& out) const {
  out.push_back('{');
  bool first = true;
  for (const Entry& entry : GetEntries()) {
    if (!first) out.append(", ");
    first = false;
    entry.key.AppendTo(out);
    out.append(": ");
    entry.value.AppendTo(out);
  }
  out.push_back('}');
}

std::string DataDictionary::ToString() const {
  return TextOf(*this);
}

// ---- ConstantData ----

const Data& ConstantData::Get() const {
  std::call_once(_once, [this] { _value = new Data(_maker()); });
  return *_value;
}

}  // namespace orvix
