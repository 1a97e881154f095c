#pragma once
// Values of any registered data type: DataType (the registry of types), Data (one
// value, 16 bytes), DataArray and DataDictionary (shared copy-on-write containers)
// and DataObject (the payload of types that other libraries define).

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <new>
#include <source_location>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"

namespace orvix {

// Ids of the types that the host itself registers. Later libraries register
// theirs under ids of their own (net.orvix.node.datatype.*).
inline constexpr std::string_view DATATYPE_ID_BOOL = "net.orvix.datatype.bool";
inline constexpr std::string_view DATATYPE_ID_INT32 = "net.orvix.datatype.int32";
inline constexpr std::string_view DATATYPE_ID_INT64 = "net.orvix.datatype.int64";
inline constexpr std::string_view DATATYPE_ID_UINT64 = "net.orvix.datatype.uint64";
inline constexpr std::string_view DATATYPE_ID_FLOAT64 = "net.orvix.datatype.float64";
inline constexpr std::string_view DATATYPE_ID_STRING = "net.orvix.datatype.string";
inline constexpr std::string_view DATATYPE_ID_INTERNED_ID = "net.orvix.datatype.internedid";
inline constexpr std::string_view DATATYPE_ID_DATATYPE = "net.orvix.datatype.datatype";
inline constexpr std::string_view DATATYPE_ID_ARRAY = "net.orvix.datatype.array";
inline constexpr std::string_view DATATYPE_ID_DATA_DICTIONARY = "net.orvix.datatype.datadictionary";
// An array whose elements all have one type T has the id "net.orvix.datatype.array<T>".

// How a value of a type is held inside a Data. The counted kinds, from STRING on,
// share their payload between copies.
enum class DATA_STORAGE : uint8_t {
  NONE,  // the type has no values (a marker type)
  BOOL,
  INT32,
  INT64,
  UINT64,
  FLOAT64,
  INTERNED_ID,
  DATA_TYPE,  // the value is itself a type
  STRING,
  ARRAY,
  DICTIONARY,
  OBJECT,  // a DataObject of a type that another library defines
};

std::string_view ToString(DATA_STORAGE storage);

// What a type is, for code that reasons about types (merging port types, for
// one). A set of bits.
enum class VALUEKIND : uint32_t {
  NONE = 0,
  BOOL = 1u << 0,
  INTEGRAL = 1u << 1,
  FLOATING_POINT = 1u << 2,
  SIGNED = 1u << 3,
  ENUM = 1u << 4,
  GENERIC = 1u << 5,   // stands for any type
  ABSTRACT = 1u << 6,  // no value can be made of it as it is
  STRING = 1u << 7,
  ID = 1u << 8,
  TYPE = 1u << 9,
  ARRAY = 1u << 10,
  DICTIONARY = 1u << 11,
  OBJECT = 1u << 12,
};

constexpr VALUEKIND operator|(VALUEKIND a, VALUEKIND b) {
  return VALUEKIND(uint32_t(a) | uint32_t(b));
}
constexpr VALUEKIND operator&(VALUEKIND a, VALUEKIND b) {
  return VALUEKIND(uint32_t(a) & uint32_t(b));
}
constexpr VALUEKIND operator~(VALUEKIND a) {
  return VALUEKIND(~uint32_t(a));
}
// So that `!(kind & VALUEKIND::ABSTRACT)` reads as it would for plain bits.
constexpr bool operator!(VALUEKIND a) {
  return uint32_t(a) == 0;
}
constexpr bool HasAny(VALUEKIND a, VALUEKIND b) {
  return (uint32_t(a) & uint32_t(b)) != 0;
}

class DataType;
class Data;
class DataArray;
class DataDictionary;

// What a type is made from; see DataType.
struct DataTypeInfo {
  std::string_view id;
  DATA_STORAGE storage = DATA_STORAGE::NONE;
  VALUEKIND valueKind = VALUEKIND::NONE;
  // Bytes of a value; what makes one number type narrower than another.
  uint32_t size = 0;
  // For a type that stands for another one (an enumeration for its integer).
  const DataType* underlyingType = nullptr;
};

// A data type. Types are compared by identity: one id, one object, for the life
// of the process. A registered type is never freed, so a `const DataType*` may be
// kept anywhere. Libraries may derive from DataType to hang more on a type (the
// enumerators of an enumeration, say).
class DataType {
 public:
  // Interns the id; throws std::bad_alloc when memory runs out.
  explicit DataType(const DataTypeInfo& info);
  virtual ~DataType();
  DataType(const DataType&) = delete;
  DataType& operator=(const DataType&) = delete;

  InternedId GetId() const { return _id; }
  // The id's text: the text form of a type.
  std::string_view ToString() const { return _id.GetString(); }
  DATA_STORAGE GetStorage() const { return _storage; }
  VALUEKIND GetValueKind() const { return _valueKind; }
  uint32_t GetSize() const { return _size; }
  // For an array type whose elements all have one type, that type; else null.
  const DataType* GetElementType() const { return _elementType; }
  const DataType* GetUnderlyingType() const { return _underlyingType; }
  // One of the types the host registers itself (the typed array types aside).
  bool IsBuiltin() const { return _builtin; }

 private:
  friend struct DataTypeAccess;
  InternedId _id;
  DATA_STORAGE _storage;
  VALUEKIND _valueKind;
  uint32_t _size;
  bool _builtin = false;
  const DataType* _elementType = nullptr;
  const DataType* _underlyingType = nullptr;
  // The array type of this element type, made on first demand.
  mutable std::atomic<const DataType*> _arrayType{nullptr};
};

// The text of a type for messages: its id, or "none" for the null type.
std::string_view DataTypeName(const DataType* type);
inline void AppendText(std::string& out, const DataType* type) {
  out.append(DataTypeName(type));
}

// The registry of types. All of it is thread-safe.
//
// The type with this id, or null. Never adds a type.
const DataType* FindDataType(std::string_view id);
const DataType* FindDataType(InternedId id);
// Registers a type that another library defines. Its storage must not be ARRAY
// or DICTIONARY (array types come from ArrayDataType), and its id must be new:
// "Data type @ is already registered." otherwise.
Result<const DataType*> RegisterDataType(std::unique_ptr<DataType> type);
Result<const DataType*> RegisterDataType(const DataTypeInfo& info);
// The type of the arrays whose elements all have `elementType`, registered on
// first demand; the generic array type for null. `elementType` must be
// registered: "Data type @ is not registered." otherwise.
Result<const DataType*> ArrayDataType(const DataType* elementType);
// The host's own type of a storage kind; null for NONE and OBJECT.
const DataType* BuiltinDataType(DATA_STORAGE storage);

// The payload of a value of a type that another library defines. Once inside a
// Data it is shared by the copies of that Data, and so treated as immutable
// while it has more than one owner; see Data::GetWritableObject.
class DataObject : public RefCounted {
 public:
  // A registered type of storage OBJECT.
  virtual const DataType* GetType() const = 0;
  // Called with an object of the same type only.
  virtual bool Equals(const DataObject& other) const = 0;
  virtual std::string ToString() const = 0;
  // Must agree with Equals. The default gives one hash for all objects of a
  // type, which is correct and slow in hash tables.
  virtual uint64_t GetHashCode() const;
  // An unshared copy, for a write to a shared object. The default fails with
  // "Data of type @ can't be copied.".
  virtual Result<Ref<DataObject>> Clone() const;
};

namespace detail {
// The shared text of a string value.
struct StringPayload final : RefCounted {
  explicit StringPayload(std::string t) : text(std::move(t)) {}
  std::string text;
};
struct DataArrayPayload;
struct DataDictionaryPayload;
}  // namespace detail

// Maps a C++ type to the storage of its values. `EXACT` says that reading asks
// for the host's own type of that storage; otherwise any type of the storage
// reads (every array reads as a DataArray, whatever its element type).
template <typename T>
struct DataTraits;
// clang-format off
template <> struct DataTraits<bool> { static constexpr DATA_STORAGE STORAGE = DATA_STORAGE::BOOL; static constexpr bool EXACT = true; };
template <> struct DataTraits<int32_t> { static constexpr DATA_STORAGE STORAGE = DATA_STORAGE::INT32; static constexpr bool EXACT = true; };
template <> struct DataTraits<int64_t> { static constexpr DATA_STORAGE STORAGE = DATA_STORAGE::INT64; static constexpr bool EXACT = true; };
template <> struct DataTraits<uint64_t> { static constexpr DATA_STORAGE STORAGE = DATA_STORAGE::UINT64; static constexpr bool EXACT = true; };
template <> struct DataTraits<double> { static constexpr DATA_STORAGE STORAGE = DATA_STORAGE::FLOAT64; static constexpr bool EXACT = true; };
template <> struct DataTraits<std::string> { static constexpr DATA_STORAGE STORAGE = DATA_STORAGE::STRING; static constexpr bool EXACT = true; };
template <> struct DataTraits<InternedId> { static constexpr DATA_STORAGE STORAGE = DATA_STORAGE::INTERNED_ID; static constexpr bool EXACT = true; };
template <> struct DataTraits<const DataType*> { static constexpr DATA_STORAGE STORAGE = DATA_STORAGE::DATA_TYPE; static constexpr bool EXACT = true; };
template <> struct DataTraits<DataArray> { static constexpr DATA_STORAGE STORAGE = DATA_STORAGE::ARRAY; static constexpr bool EXACT = false; };
template <> struct DataTraits<DataDictionary> { static constexpr DATA_STORAGE STORAGE = DATA_STORAGE::DICTIONARY; static constexpr bool EXACT = true; };
// clang-format on

// Tag for GetDataType: the type of arrays whose elements are all of T's type.
template <typename T>
struct ArrayOf {};

namespace detail {
template <typename T>
struct DataTypeOf {
  static const DataType* Get() { return BuiltinDataType(DataTraits<T>::STORAGE); }
};
template <>
struct DataTypeOf<DataType> : DataTypeOf<const DataType*> {};
template <typename T>
struct DataTypeOf<ArrayOf<T>> {
  // Throws std::bad_alloc when the array type can't be made.
  static const DataType* Get();
};
}  // namespace detail

// The type of T's values: GetDataType<int64_t>(), GetDataType<DataType>() (the
// type of values that are types), GetDataType<ArrayOf<InternedId>>().
template <typename T>
const DataType* GetDataType() {
  return detail::DataTypeOf<T>::Get();
}

// A value of any registered type, or empty (no type). Copies are cheap: numbers,
// ids and types are held inline, strings, arrays, dictionaries and objects are
// shared by reference, and a write to a shared array or dictionary copies it
// first. Equality is exact: the types must be the same (Int32 1 isn't Int64 1),
// containers compare deeply, and the hash agrees with equality.
//
// Constructors that allocate (strings) throw std::bad_alloc when memory runs out,
// as the standard containers do; every operation that returns a Result reports
// that as the out-of-memory error instead.
//
// Like a standard value, one Data may be read from many threads at once, and
// written by one thread that no other thread is reading it on. A Data that was
// moved from is empty.
class Data {
 public:
  Data() noexcept : _type(nullptr) {}
  // clang-format off
  // Exactly bool: a pointer must not turn into a Bool on its way in.
  template <typename B>
    requires std::is_same_v<B, bool>
  Data(B v) noexcept { _SetScalar(DATA_STORAGE::BOOL, v); }
  Data(int32_t v) noexcept { _SetScalar(DATA_STORAGE::INT32, v); }
  Data(int64_t v) noexcept { _SetScalar(DATA_STORAGE::INT64, v); }
  Data(uint64_t v) noexcept { _SetScalar(DATA_STORAGE::UINT64, v); }
  // A 64-bit integer of the other spelling (long long beside long).
  template <typename T>
    requires(std::is_integral_v<T> && sizeof(T) == 8 && !std::is_same_v<T, int64_t> &&
             !std::is_same_v<T, uint64_t>)
  Data(T v) noexcept : Data(std::conditional_t<std::is_signed_v<T>, int64_t, uint64_t>(v)) {}
  // clang-format on
  Data(double v) noexcept { _SetScalar(DATA_STORAGE::FLOAT64, v); }
  Data(InternedId v) noexcept { _SetScalar(DATA_STORAGE::INTERNED_ID, v); }
  // A value that is a type. A null type makes an empty Data.
  Data(const DataType* v) noexcept;
  Data(std::string_view v);
  Data(const std::string& v) : Data(std::string_view(v)) {}
  Data(std::string&& v);
  Data(const char* v) : Data(std::string_view(v ? v : "")) {}
  Data(DataArray v) noexcept;
  Data(DataDictionary v) noexcept;
  // An object of another library's type; a null reference makes an empty Data.
  // An object without a type writes "Stop: Internal error." and makes an empty
  // Data.
  Data(Ref<DataObject> v) noexcept;
  // clang-format off
  template <typename T>
    requires(std::is_base_of_v<DataObject, std::remove_const_t<T>> &&
             !std::is_same_v<T, DataObject>)
  Data(Ref<T> v) noexcept
      : Data(Ref<DataObject>::Adopt(const_cast<std::remove_const_t<T>*>(v.Release()))) {}
  // clang-format on
  // Would silently become Int32, or be taken for a text or a type.
  Data(char) = delete;
  Data(std::nullptr_t) = delete;

  Data(const Data& o) : _type(o._type) {
    if (_IsCounted()) {
      _CopyCounted(o);
    } else {
      _CopyBits(o);
    }
  }
  Data(Data&& o) noexcept : _type(o._type) {
    if (_IsCounted()) {
      _MoveCounted(o);
    } else {
      _CopyBits(o);
    }
    o._type = nullptr;
  }
  ~Data() {
    if (_IsCounted()) _DestroyCounted();
  }
  Data& operator=(const Data& o) {
    if (this != &o) *this = Data(o);
    return *this;
  }
  Data& operator=(Data&& o) noexcept;
  void Swap(Data& o) noexcept;

  // Made empty.
  void Reset() noexcept { *this = Data(); }

  // Null for an empty Data.
  const DataType* GetType() const { return _type; }
  DATA_STORAGE GetStorage() const { return _type ? _type->GetStorage() : DATA_STORAGE::NONE; }
  bool IsEmpty() const { return _type == nullptr; }
  bool IsPopulated() const { return _type != nullptr; }

  // Whether the value reads as T. For numbers, strings, ids, types and
  // dictionaries that means the host's own type (an enumeration that is stored
  // as Int32 is no int32_t); every array reads as a DataArray. For a T derived
  // from DataObject, whether the object is one.
  template <typename T>
  bool Is() const;
  // The value as T where it is held, or null if it doesn't read as T. Valid
  // while this Data is neither changed nor destroyed.
  template <typename T>
  const T* GetPtr() const;
  // A copy of the value, or "Data of type @ can't be read as @." (illegal
  // argument).
  template <typename T>
  Result<T> Get(SourceLocation where = SourceLocation::current()) const;
  // The object of a type that another library defines, as a T; "Data of type @
  // holds no object of the requested class." if it isn't one.
  template <typename T = DataObject>
  Result<Ref<const T>> GetObject(
      SourceLocation where = SourceLocation::current()) const;

  // Writable access to a container or object held here. The container is made
  // unshared first, so a write through the pointer is seen by this Data alone;
  // the pointer is valid while this Data is neither changed nor destroyed.
  // Errors: the type doesn't fit, or memory runs out.
  Result<DataArray*> GetWritableArray();
  Result<DataDictionary*> GetWritableDictionary();
  Result<DataObject*> GetWritableObject();

  // The same value under another type of the same storage, for types that stand
  // for a host type (an enumeration held as Int64). Works for numbers, ids,
  // types and strings; otherwise "Data of type @ can't be given the type @.".
  Result<Data> WithType(const DataType* type) const;

  // Parts of a structured value. A key names an element of an array (an integer
  // Data: Int32, Int64 or UInt64) or an entry of a dictionary (any non-empty
  // Data). A list of keys walks down through nested containers; no key at all
  // names the whole value.
  //   "Index @ is out of range for an array of @ elements."
  //   "An array can't be indexed by @."
  //   "Key @ is not in the dictionary."
  //   "Data of type @ has no parts."
  Result<Data> GetSubData(const Data& key) const;
  Result<Data> GetSubData(std::span<const Data> keys) const;
  // Sets the part that `keys` name to `value`; the last key may add a new
  // dictionary entry, every other one must exist. Hands back what the part held
  // before in `previous` (empty for a new entry) and says whether anything
  // changed. Shared containers on the way are copied first; nothing is copied
  // when the part already holds `value`. A typed array keeps its element type:
  // "An array of @ can't hold data of type @.".
  Result<bool> SetSubData(std::span<const Data> keys, Data value, Data* previous = nullptr);

  friend bool operator==(const Data& a, const Data& b);

  // 64 bits that agree with ==: equal values, equal hashes.
  uint64_t GetHashCode() const;

  // A readable text that tells types apart:
  //   <empty>  true  42 (Int64)  42i32  42u64  1.5  2.0  "text"  'id'
  //   type(net.orvix.datatype.int32)  [1, 2]  {'a': 1}
  // and an object's own text. An array's element type isn't written.
  std::string ToString() const;
  void AppendTo(std::string& out) const;

 private:
  bool _IsCounted() const { return _type && _type->GetStorage() >= DATA_STORAGE::STRING; }
  template <typename T>
  void _SetScalar(DATA_STORAGE storage, T v) {
    _type = BuiltinDataType(storage);
    static_assert(sizeof(T) <= sizeof(_storage) && std::is_trivially_copyable_v<T>);
    // All eight bytes are set, so that plain values compare and hash by _Bits.
    std::memset(_storage, 0, sizeof(_storage));
    ::new (static_cast<void*>(_storage)) T(v);
  }
  uint64_t _Bits() const {
    uint64_t bits;
    std::memcpy(&bits, _storage, sizeof bits);
    return bits;
  }
  void _CopyBits(const Data& o) { std::memcpy(_storage, o._storage, sizeof(_storage)); }
  template <typename T>
  const T* _As() const {
    return std::launder(reinterpret_cast<const T*>(_storage));
  }
  template <typename T>
  T* _As() {
    return std::launder(reinterpret_cast<T*>(_storage));
  }
  void _CopyCounted(const Data& o);
  void _MoveCounted(Data& o) noexcept;
  void _DestroyCounted() noexcept;
  bool _ReadsAs(DATA_STORAGE storage, bool exact) const {
    return _type && _type->GetStorage() == storage && (!exact || _type->IsBuiltin());
  }
  Error _MismatchError(const DataType* wanted, SourceLocation where) const;
  Error _ObjectMismatchError(SourceLocation where) const;
  const DataObject* _Object() const { return *_As<DataObject*>(); }

  const DataType* _type;
  alignas(8) unsigned char _storage[8] = {};
};

void swap(Data& a, Data& b) noexcept;

// A hash functor for Data keys in standard containers.
struct DataHash {
  size_t operator()(const Data& d) const noexcept { return size_t(d.GetHashCode()); }
};

// An array of Data, shared copy-on-write: copies share the elements until one of
// them writes. An array may be typed (every element has one type, which it
// keeps) or untyped (any elements, empty ones too).
class DataArray {
 public:
  // An untyped empty array; allocates nothing.
  DataArray() noexcept;
  // An untyped array of these elements; throws std::bad_alloc.
  DataArray(std::initializer_list<Data> elements);
  // An empty array of `elementType` (null: untyped).
  static Result<DataArray> Create(const DataType* elementType);
  // An array of `elementType` (null: untyped) holding `elements`, which must all
  // have that type: "An array of @ can't hold data of type @.".
  static Result<DataArray> Create(const DataType* elementType, std::span<const Data> elements);
  // A typed array of these values; throws std::bad_alloc.
  template <typename T>
  static DataArray Of(std::initializer_list<T> values);

  DataArray(const DataArray& o) noexcept;
  DataArray(DataArray&& o) noexcept;
  DataArray& operator=(const DataArray& o) noexcept;
  DataArray& operator=(DataArray&& o) noexcept;
  ~DataArray();

  // Null for an untyped array.
  const DataType* GetElementType() const;
  // The array's type: ArrayDataType(GetElementType()).
  const DataType* GetType() const;
  size_t GetCount() const;
  bool IsEmpty() const { return GetCount() == 0; }

  // The elements; valid until the next write.
  std::span<const Data> GetElements() const;
  const Data* begin() const { return GetElements().data(); }
  const Data* end() const { return begin() + GetCount(); }
  // Unchecked: `index` must be below GetCount().
  const Data& operator[](size_t index) const { return GetElements()[index]; }

  // Errors: "Index @ is out of range for an array of @ elements.", a value of
  // the wrong type for a typed array, out of memory.
  Result<Data> Get(size_t index) const;
  Result<void> Set(size_t index, Data value);
  Result<void> Append(Data value) { return Insert(GetCount(), std::move(value)); }
  // At `index` up to GetCount().
  Result<void> Insert(size_t index, Data value);
  Result<void> Erase(size_t index);
  // An element to write in place; the array is made unshared first. The caller
  // keeps the element's type in a typed array. Valid until the next write.
  Result<Data*> GetWritable(size_t index);

  // Whether the two share their elements (a copy that nobody has written yet).
  bool IsSharedWith(const DataArray& o) const { return _payload && _payload == o._payload; }

  friend bool operator==(const DataArray& a, const DataArray& b);
  uint64_t GetHashCode() const;
  std::string ToString() const;
  void AppendTo(std::string& out) const;

 private:
  friend class Data;
  Result<void> _MakeUnique();
  Result<void> _CheckElement(const Data& value) const;
  Ref<detail::DataArrayPayload> _payload;
};

// A dictionary from Data keys to Data values, shared copy-on-write like
// DataArray. Entries keep the order in which they were added; equality and the
// hash don't depend on that order. Keys must not be empty.
class DataDictionary {
 public:
  struct Entry;

  // An empty dictionary; allocates nothing.
  DataDictionary() noexcept;
  // Throws std::bad_alloc; a later entry with an earlier key replaces its value.
  DataDictionary(std::initializer_list<std::pair<Data, Data>> entries);

  DataDictionary(const DataDictionary& o) noexcept;
  DataDictionary(DataDictionary&& o) noexcept;
  DataDictionary& operator=(const DataDictionary& o) noexcept;
  DataDictionary& operator=(DataDictionary&& o) noexcept;
  ~DataDictionary();

  size_t GetCount() const;
  bool IsEmpty() const { return GetCount() == 0; }
  // In the order of addition; valid until the next write.
  std::span<const Entry> GetEntries() const;
  const Entry* begin() const;
  const Entry* end() const;

  // The value of `key`, or null. Valid until the next write.
  const Data* Find(const Data& key) const;
  bool Contains(const Data& key) const { return Find(key) != nullptr; }
  // A copy of the value, or "Key @ is not in the dictionary.".
  Result<Data> Get(const Data& key) const;
  // Adds the entry or replaces its value. "Illegal argument: Condition
  // !key.IsEmpty() not fulfilled. " for an empty key.
  Result<void> Set(Data key, Data value);
  // Whether there was such an entry.
  Result<bool> Erase(const Data& key);
  // Every entry of `other` is set here.
  Result<void> Merge(const DataDictionary& other);
  // The value of an existing key to write in place; the dictionary is made
  // unshared first. Valid until the next write.
  Result<Data*> GetWritable(const Data& key);

  bool IsSharedWith(const DataDictionary& o) const { return _payload && _payload == o._payload; }

  friend bool operator==(const DataDictionary& a, const DataDictionary& b);
  uint64_t GetHashCode() const;
  std::string ToString() const;
  void AppendTo(std::string& out) const;

 private:
  friend class Data;
  Result<void> _MakeUnique();
  Ref<detail::DataDictionaryPayload> _payload;
};

struct DataDictionary::Entry {
  Data key;
  Data value;
};

inline const DataDictionary::Entry* DataDictionary::begin() const {
  return GetEntries().data();
}
inline const DataDictionary::Entry* DataDictionary::end() const {
  return begin() + GetCount();
}

// A value made once, on first use, and kept for the rest of the process: the
// shared constants that readers hand out by reference (a one-element id array,
// for instance). Thread-safe; the value is never destroyed, so it may be read
// from static destructors too. Its counted payload is shared by every copy, and
// a copy that is written to copies it first, so the constant never changes.
class ConstantData {
 public:
  using Maker = Data (*)();
  explicit constexpr ConstantData(Maker maker) : _maker(maker) {}
  ConstantData(const ConstantData&) = delete;
  ConstantData& operator=(const ConstantData&) = delete;

  // Makes the value on the first call; a maker that throws leaves it to be
  // made by a later call.
  const Data& Get() const;

 private:
  Maker _maker;
  mutable std::once_flag _once;
  mutable const Data* _value = nullptr;
};

// ---- inline templates ----

namespace detail {
template <typename T>
const DataType* DataTypeOf<ArrayOf<T>>::Get() {
  Result<const DataType*> type = ArrayDataType(GetDataType<T>());
  if (!type) throw std::bad_alloc();
  return *type;
}
}  // namespace detail

template <typename T>
bool Data::Is() const {
  if constexpr (std::is_base_of_v<DataObject, T>) {
    return GetPtr<T>() != nullptr;
  } else {
    return _ReadsAs(DataTraits<T>::STORAGE, DataTraits<T>::EXACT);
  }
}

template <typename T>
const T* Data::GetPtr() const {
  if constexpr (std::is_base_of_v<DataObject, T>) {
    if (!_ReadsAs(DATA_STORAGE::OBJECT, false)) return nullptr;
    return dynamic_cast<const T*>(_Object());
  } else if constexpr (std::is_same_v<T, std::string>) {
    if (!_ReadsAs(DATA_STORAGE::STRING, true)) return nullptr;
    return &(*_As<detail::StringPayload*>())->text;
  } else {
    if (!_ReadsAs(DataTraits<T>::STORAGE, DataTraits<T>::EXACT)) return nullptr;
    return _As<T>();
  }
}

template <typename T>
Result<T> Data::Get(SourceLocation where) const {
  static_assert(!std::is_base_of_v<DataObject, T>, "objects are read with GetObject");
  if (const T* p = GetPtr<T>()) return *p;
  return _MismatchError(GetDataType<T>(), where);
}

template <typename T>
Result<Ref<const T>> Data::GetObject(SourceLocation where) const {
  if (const T* p = GetPtr<T>()) return Ref<const T>(p);
  return _ObjectMismatchError(where);
}

template <typename T>
DataArray DataArray::Of(std::initializer_list<T> values) {
  std::vector<Data> elements;
  elements.reserve(values.size());
  for (const T& v : values) elements.emplace_back(v);
  Result<DataArray> array = Create(GetDataType<T>(), elements);
  if (!array) throw std::bad_alloc();
  return std::move(array).Value();
}

}  // namespace orvix

template <>
struct std::hash<orvix::Data> {
  size_t operator()(const orvix::Data& d) const noexcept { return size_t(d.GetHashCode()); }
};
