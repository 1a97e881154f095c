#include "orvix/host/data.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "orvix/host/diagnostics.h"
#include "orvix/host/format.h"

namespace orvix {
namespace {

// ---- helpers ----

// A text that two values share exactly when they are equal: dictionaries are
// written with their entries sorted, and the two zeros alike. Without
// `arrayTypes`, typed and untyped arrays are written alike, as their text forms
// are.
std::string Canonical(const Data& d, bool arrayTypes = true) {
  std::string out(d.Is<DataArray>() && !arrayTypes ? "array" : DataTypeName(d.GetType()));
  out.push_back(':');
  if (const DataArray* a = d.GetPtr<DataArray>()) {
    out.push_back('[');
    for (const Data& e : *a) out.append(Canonical(e, arrayTypes)).push_back(',');
    out.push_back(']');
  } else if (const DataDictionary* dict = d.GetPtr<DataDictionary>()) {
    std::vector<std::string> entries;
    for (const DataDictionary::Entry& e : *dict)
      entries.push_back(Canonical(e.key, arrayTypes) + "=" + Canonical(e.value, arrayTypes));
    std::sort(entries.begin(), entries.end());
    for (const std::string& e : entries) out.append(e).push_back(',');
  } else if (const double* f = d.GetPtr<double>(); f && *f == 0) {
    out.append("0.0");
  } else {
    out.append(d.ToString());
  }
  return out;
}

// Random values from small pools, so that equal values built apart (other
// allocations, other insertion orders) turn up often, and so do near misses:
// one number under several types, typed and untyped arrays, both zeros, NaN.
class ValueMaker {
 public:
  explicit ValueMaker(uint64_t seed) : _rng(seed) {}

  Data Make(int depth = 0) {
    switch (Pick(depth < 2 ? 11 : 9)) {
      case 0:
        return Data();
      case 1:
        return Data(Pick(2) == 0);
      case 2:
        return Data(int32_t(Pick(3)) - 1);
      case 3:
        return Data(int64_t(Pick(3)) - 1);
      case 4:
        return Data(uint64_t(Pick(3)));
      case 5: {
        const double floats[] = {0.0, -0.0, 1.5, 2.0, std::numeric_limits<double>::quiet_NaN()};
        return Data(floats[Pick(5)]);
      }
      case 6: {
        const char* texts[] = {"", "in", "a\"b", "1"};
        return Data(texts[Pick(4)]);
      }
      case 7:
        return Data(InternedId::Get(Pick(2) ? "in" : "out"));
      case 8:
        return Data(BuiltinDataType(Pick(2) ? DATA_STORAGE::INT64 : DATA_STORAGE::STRING));
      case 9: {
        if (Pick(3) == 0) {
          std::vector<Data> ints;
          for (size_t n = Pick(3); n > 0; --n) ints.emplace_back(int64_t(Pick(2)));
          return Data(*DataArray::Create(GetDataType<int64_t>(), ints));
        }
        DataArray a;
        for (size_t n = Pick(3); n > 0; --n) EXPECT_TRUE(a.Append(Make(depth + 1)));
        return Data(a);
      }
      default: {
        std::vector<std::pair<Data, Data>> entries;
        for (size_t n = Pick(4); n > 0; --n)
          entries.emplace_back(Data(InternedId::Get(Pick(2) ? "k" : "l")), Make(depth + 1));
        std::shuffle(entries.begin(), entries.end(), _rng);
        DataDictionary dict;
        for (auto& [k, v] : entries) EXPECT_TRUE(dict.Set(k, v));
        return Data(dict);
      }
    }
  }

  size_t Pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(_rng); }

 private:
  std::mt19937_64 _rng;
};

Data Ints(std::initializer_list<int64_t> values) {
  DataArray a;
  for (int64_t v : values) EXPECT_TRUE(a.Append(Data(v)));
  return Data(a);
}

// ---- types ----

TEST(DataType, BuiltinsAreRegisteredOnceByTheirIds) {
  EXPECT_EQ(sizeof(Data), 16u);
  EXPECT_EQ(FindDataType(DATATYPE_ID_INT32), GetDataType<int32_t>());
  EXPECT_EQ(FindDataType(DATATYPE_ID_DATATYPE), GetDataType<DataType>());
  EXPECT_EQ(FindDataType(DATATYPE_ID_ARRAY), GetDataType<DataArray>());
  EXPECT_EQ(FindDataType("net.orvix.datatype.nosuchtype"), nullptr);
  EXPECT_EQ(Data(int32_t(1)).GetType()->ToString(), "net.orvix.datatype.int32");
}

TEST(DataType, ArrayTypesAreMadeOnceAndNeedARegisteredElementType) {
  const DataType* ids = GetDataType<ArrayOf<InternedId>>();
  EXPECT_EQ(ids->GetId().GetString(), "net.orvix.datatype.array<net.orvix.datatype.internedid>");
  EXPECT_EQ(ids->GetElementType(), GetDataType<InternedId>());
  EXPECT_EQ(*ArrayDataType(GetDataType<InternedId>()), ids);
  EXPECT_EQ(FindDataType(ids->GetId()), ids);
  EXPECT_EQ(*ArrayDataType(nullptr), GetDataType<DataArray>());

  DataType loose(DataTypeInfo{"net.orvix.test.datatype.loose", DATA_STORAGE::INT64});
  Result<const DataType*> r = ArrayDataType(&loose);
  ASSERT_FALSE(r);
  EXPECT_EQ(r.GetError().GetMessage(),
            "Data type net.orvix.test.datatype.loose is not registered.");
}

TEST(DataType, RegistrationRefusesDuplicatesAndContainers) {
  Result<const DataType*> r = RegisterDataType(DataTypeInfo{"net.orvix.datatype.int64"});
  ASSERT_FALSE(r);
  EXPECT_EQ(r.GetError().GetMessage(), "Data type net.orvix.datatype.int64 is already registered.");
  r = RegisterDataType(DataTypeInfo{"net.orvix.test.datatype.list", DATA_STORAGE::ARRAY});
  ASSERT_FALSE(r);
  EXPECT_EQ(r.GetError().GetMessage(),
            "Illegal argument: Condition type->GetStorage() != DATA_STORAGE::ARRAY && "
            "type->GetStorage() != DATA_STORAGE::DICTIONARY not fulfilled. ");
}

// ---- equality, hash, text ----

TEST(Data, EqualityHashAndTextAgreeOnRandomValues) {
  ValueMaker maker(20240611);
  std::vector<Data> values;
  for (int i = 0; i < 300; ++i) values.push_back(maker.Make());
  size_t equalPairs = 0;
  for (const Data& a : values) {
    Data copy = a;
    EXPECT_EQ(copy, a);
    EXPECT_EQ(copy.GetHashCode(), a.GetHashCode());
    for (const Data& b : values) {
      bool equal = a == b;
      ASSERT_EQ(equal, b == a) << a.ToString() << " vs " << b.ToString();
      ASSERT_EQ(equal, Canonical(a) == Canonical(b)) << a.ToString() << " vs " << b.ToString();
      if (equal) {
        ++equalPairs;
        ASSERT_EQ(a.GetHashCode(), b.GetHashCode()) << a.ToString();
      } else if (a.ToString() == b.ToString()) {
        // Texts tell unequal values apart, but for the element type of arrays.
        ASSERT_EQ(Canonical(a, false), Canonical(b, false)) << a.ToString();
      }
    }
  }
  EXPECT_GT(equalPairs, values.size() * 2);  // the pools really do collide
}

TEST(Data, TextForms) {
  struct Case {
    Data value;
    const char* text;
  };
  const Case cases[] = {
      {Data(), "<empty>"},
      {Data(true), "true"},
      {Data(int64_t(-42)), "-42"},
      {Data(int32_t(42)), "42i32"},
      {Data(uint64_t(42)), "42u64"},
      {Data(1.5), "1.5"},
      {Data(2.0), "2.0"},
      {Data(-0.0), "-0.0"},
      {Data(1e300), "1e+300"},
      {Data("a\"b\\\n"), R"("a\"b\\\n")"},
      {Data(InternedId::Get("it's")), R"('it\'s')"},
      {Data(GetDataType<int32_t>()), "type(net.orvix.datatype.int32)"},
      {Data(DataArray{Data(1L), Data("x"), Data()}), R"([1, "x", <empty>])"},
      {Data(DataDictionary{{Data(InternedId::Get("a")), Data(1L)}, {Data("b"), Ints({2})}}),
       R"({'a': 1, "b": [2]})"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.value.ToString(), c.text);
  EXPECT_EQ(FormatMessage("Got @ of @.", Data(int32_t(3)), GetDataType<bool>()),
            "Got 3i32 of net.orvix.datatype.bool.");
}

// ---- typed reading ----

TEST(Data, TypedReadsAndMismatchErrors) {
  Data i(int32_t(7));
  EXPECT_TRUE(i.Is<int32_t>());
  EXPECT_FALSE(i.Is<int64_t>());
  EXPECT_EQ(*i.Get<int32_t>(), 7);
  Result<int64_t> wrong = i.Get<int64_t>();
  ASSERT_FALSE(wrong);
  EXPECT_EQ(wrong.GetError().GetClass(), ERROR_CLASS::ILLEGAL_ARGUMENT);
  EXPECT_EQ(wrong.GetError().GetMessage(),
            "Data of type net.orvix.datatype.int32 can't be read as net.orvix.datatype.int64.");
  EXPECT_EQ(Data().Get<bool>().GetError().GetMessage(),
            "Data of type none can't be read as net.orvix.datatype.bool.");
  EXPECT_EQ(*Data("text").Get<std::string>(), "text");
  EXPECT_EQ(*Data(GetDataType<bool>()).Get<const DataType*>(), GetDataType<bool>());
  EXPECT_TRUE(Data(*DataArray::Create(GetDataType<int64_t>())).Is<DataArray>());
  EXPECT_EQ(Data(int64_t(1)).GetObject().GetError().GetMessage(),
            "Data of type net.orvix.datatype.int64 holds no object of the requested class.");
}

TEST(Data, ATypeThatStandsForAHostTypeReadsOnlyAsItself) {
  static const DataType* level = *RegisterDataType(DataTypeInfo{
      "net.orvix.test.datatype.level", DATA_STORAGE::INT64,
      VALUEKIND::ENUM | VALUEKIND::INTEGRAL | VALUEKIND::SIGNED, 8, GetDataType<int64_t>()});
  Data two = *Data(int64_t(2)).WithType(level);
  EXPECT_EQ(two.GetType(), level);
  EXPECT_NE(two, Data(int64_t(2)));
  EXPECT_FALSE(two.Is<int64_t>());
  EXPECT_EQ(Data("x").WithType(level).GetError().GetMessage(),
            "Data of type net.orvix.datatype.string can't be given the type "
            "net.orvix.test.datatype.level.");
}

// ---- parts ----

TEST(Data, SubDataErrors) {
  Data doc(DataDictionary{{Data("list"), Ints({1, 2})}, {Data("n"), Data(1L)}});
  auto message = [](const auto& r) {
    return r ? std::string("(no error)") : r.GetError().GetMessage();
  };
  const Data outOfRange[] = {Data("list"), Data(int32_t(2))};
  EXPECT_EQ(message(doc.GetSubData(outOfRange)),
            "Index 2 is out of range for an array of 2 elements.");
  const Data negative[] = {Data("list"), Data(int64_t(-1))};
  EXPECT_EQ(message(doc.GetSubData(negative)),
            "Index -1 is out of range for an array of 2 elements.");
  const Data byText[] = {Data("list"), Data("0")};
  EXPECT_EQ(message(doc.GetSubData(byText)), R"(An array can't be indexed by "0".)");
  EXPECT_EQ(message(doc.GetSubData(Data("none"))), R"(Key "none" is not in the dictionary.)");
  const Data intoNumber[] = {Data("n"), Data(0L)};
  EXPECT_EQ(message(doc.SetSubData(intoNumber, Data(1L))),
            "Data of type net.orvix.datatype.int64 has no parts.");
  Data typed(DataArray::Of<int64_t>({1, 2}));
  const Data first[] = {Data(0L)};
  EXPECT_EQ(message(typed.SetSubData(first, Data("x"))),
            "An array of net.orvix.datatype.int64 can't hold data of type "
            "net.orvix.datatype.string.");
  DataDictionary dict;
  EXPECT_EQ(message(dict.Set(Data(), Data(1L))),
            "Illegal argument: Condition !key.IsEmpty() not fulfilled. ");
}

TEST(Data, SetSubDataReportsPreviousAndChange) {
  Data doc(DataDictionary{{Data("list"), Ints({1, 2})}});
  const Data path[] = {Data("list"), Data(uint64_t(1))};
  Data previous;
  EXPECT_TRUE(*doc.SetSubData(path, Data(5L), &previous));
  EXPECT_EQ(previous, Data(2L));
  EXPECT_EQ(*doc.GetSubData(path), Data(5L));
  EXPECT_FALSE(*doc.SetSubData(path, Data(5L), &previous));
  EXPECT_EQ(previous, Data(5L));
  const Data added[] = {Data("new")};
  EXPECT_TRUE(*doc.SetSubData(added, Data(true), &previous));
  EXPECT_TRUE(previous.IsEmpty());
  EXPECT_EQ(doc.ToString(), R"({"list": [1, 5], "new": true})");
  EXPECT_TRUE(*doc.SetSubData({}, Data(1L), &previous));
  EXPECT_EQ(doc, Data(1L));
}

// ---- copy-on-write ----

TEST(Data, CopiesShareUntilAWriteAndNeverSeeLaterWrites) {
  Data inner = Ints({1, 2});
  Data original(DataDictionary{{Data("a"), inner}, {Data("b"), inner}});
  Data copy = original;
  EXPECT_TRUE(copy.GetPtr<DataDictionary>()->IsSharedWith(*original.GetPtr<DataDictionary>()));

  // Writing the value that is already there copies nothing.
  const Data same[] = {Data("a"), Data(0L)};
  EXPECT_FALSE(*copy.SetSubData(same, Data(1L)));
  EXPECT_TRUE(copy.GetPtr<DataDictionary>()->IsSharedWith(*original.GetPtr<DataDictionary>()));

  const Data path[] = {Data("a"), Data(0L)};
  EXPECT_TRUE(*copy.SetSubData(path, Data(9L)));
  EXPECT_EQ(original.ToString(), R"({"a": [1, 2], "b": [1, 2]})");
  EXPECT_EQ(copy.ToString(), R"({"a": [9, 2], "b": [1, 2]})");
  // Only the path was copied: the untouched entry still shares its array.
  const DataArray* copyB = copy.GetPtr<DataDictionary>()->Find(Data("b"))->GetPtr<DataArray>();
  const DataArray* origB = original.GetPtr<DataDictionary>()->Find(Data("b"))->GetPtr<DataArray>();
  EXPECT_TRUE(copyB->IsSharedWith(*origB));

  // A single owner writes in place.
  Data solo = Ints({1, 2, 3});
  const Data* before = solo.GetPtr<DataArray>()->GetElements().data();
  ASSERT_TRUE((*solo.GetWritableArray())->Set(0, Data(4L)));
  EXPECT_EQ(solo.GetPtr<DataArray>()->GetElements().data(), before);
}

// A random sequence of writes on arrays, with copies taken along the way: every
// copy must keep the content it had when it was taken.
TEST(DataArray, RandomWritesLeaveEarlierCopiesAlone) {
  std::mt19937_64 rng(7);
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
  DataArray array;
  std::vector<Data> model;
  std::vector<std::pair<DataArray, std::vector<Data>>> snapshots;
  for (int step = 0; step < 2000; ++step) {
    Data value(int64_t(pick(100)));
    switch (pick(5)) {
      case 0:
        ASSERT_TRUE(array.Append(value));
        model.push_back(value);
        break;
      case 1: {
        size_t at = pick(model.size() + 1);
        ASSERT_TRUE(array.Insert(at, value));
        model.insert(model.begin() + std::ptrdiff_t(at), value);
        break;
      }
      case 2:
        if (!model.empty()) {
          size_t at = pick(model.size());
          ASSERT_TRUE(array.Erase(at));
          model.erase(model.begin() + std::ptrdiff_t(at));
        }
        break;
      case 3:
        if (!model.empty()) {
          size_t at = pick(model.size());
          ASSERT_TRUE(array.Set(at, value));
          model[at] = value;
        }
        break;
      default:
        snapshots.emplace_back(array, model);
        break;
    }
  }
  EXPECT_TRUE(std::equal(array.begin(), array.end(), model.begin(), model.end()));
  for (const auto& [copy, expected] : snapshots)
    ASSERT_TRUE(std::equal(copy.begin(), copy.end(), expected.begin(), expected.end()));
  EXPECT_EQ(array.Erase(model.size()).GetError().GetMessage(),
            FormatMessage("Index @ is out of range for an array of @ elements.", model.size(),
                          model.size()));
}

// The same for dictionaries, across the size at which they start an index.
TEST(DataDictionary, RandomWritesMatchAModelAndKeepOrder) {
  std::mt19937_64 rng(11);
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
  DataDictionary dict;
  std::vector<std::pair<Data, Data>> model;  // in order of addition
  auto find = [&](const Data& key) {
    return std::find_if(model.begin(), model.end(), [&](const auto& e) { return e.first == key; });
  };
  std::vector<std::pair<DataDictionary, std::vector<std::pair<Data, Data>>>> snapshots;
  for (int step = 0; step < 3000; ++step) {
    Data key = pick(2) ? Data(int64_t(pick(24))) : Data(InternedId::Get(ToText(pick(24))));
    Data value(int64_t(pick(5)));
    switch (pick(4)) {
      case 0:
      case 1: {
        ASSERT_TRUE(dict.Set(key, value));
        auto it = find(key);
        if (it == model.end()) {
          model.emplace_back(key, value);
        } else {
          it->second = value;
        }
        break;
      }
      case 2: {
        auto it = find(key);
        ASSERT_EQ(*dict.Erase(key), it != model.end());
        if (it != model.end()) model.erase(it);
        break;
      }
      default:
        if (pick(4) == 0) snapshots.emplace_back(dict, model);
        const Data* found = dict.Find(key);
        auto it = find(key);
        ASSERT_EQ(found != nullptr, it != model.end());
        if (found) {
          ASSERT_EQ(*found, it->second);
        }
        break;
    }
  }
  auto same = [](const DataDictionary& d, const std::vector<std::pair<Data, Data>>& m) {
    if (d.GetCount() != m.size()) return false;
    for (size_t i = 0; i < m.size(); ++i)
      if (!(d.GetEntries()[i].key == m[i].first) || !(d.GetEntries()[i].value == m[i].second))
        return false;
    return true;
  };
  EXPECT_TRUE(same(dict, model));
  for (const auto& [copy, expected] : snapshots) ASSERT_TRUE(same(copy, expected));
}

TEST(DataDictionary, MergeSetsEveryEntryOfTheOther) {
  DataDictionary a{{Data("x"), Data(1L)}, {Data("y"), Data(2L)}};
  DataDictionary b{{Data("y"), Data(3L)}, {Data("z"), Data(4L)}};
  ASSERT_TRUE(a.Merge(b));
  EXPECT_EQ(a.ToString(), R"({"x": 1, "y": 3, "z": 4})");
  ASSERT_TRUE(a.Merge(a));
  EXPECT_EQ(a.GetCount(), 3u);
}

// ---- objects of other libraries' types ----

const DataType* PointType() {
  static const DataType* type = *RegisterDataType(
      DataTypeInfo{"net.orvix.test.datatype.point", DATA_STORAGE::OBJECT, VALUEKIND::OBJECT});
  return type;
}

struct Point final : DataObject {
  Point(int x, int y, bool copyable = true) : x(x), y(y), copyable(copyable) {}
  const DataType* GetType() const override { return PointType(); }
  bool Equals(const DataObject& o) const override {
    const auto& p = static_cast<const Point&>(o);
    return x == p.x && y == p.y;
  }
  std::string ToString() const override { return FormatMessage("(@,@)", x, y); }
  uint64_t GetHashCode() const override { return uint64_t(x) * 31 + uint64_t(y); }
  Result<Ref<DataObject>> Clone() const override {
    if (!copyable) return DataObject::Clone();
    return Ref<DataObject>(MakeRef<Point>(x, y));
  }
  int x, y;
  bool copyable;
};

struct Typeless final : DataObject {
  const DataType* GetType() const override { return nullptr; }
  bool Equals(const DataObject&) const override { return true; }
  std::string ToString() const override { return "?"; }
};

TEST(Data, ObjectsCompareHashAndCopyThroughTheirType) {
  Data a(MakeRef<Point>(1, 2));
  Data b(MakeRef<Point>(1, 2));
  EXPECT_EQ(a.GetType(), PointType());
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.GetHashCode(), b.GetHashCode());
  EXPECT_NE(a, Data(MakeRef<Point>(2, 1)));
  EXPECT_EQ(Data(DataArray{a}).ToString(), "[(1,2)]");
  EXPECT_EQ((*a.GetObject<Point>())->x, 1);

  Data shared = a;
  Point* writable = static_cast<Point*>(*shared.GetWritableObject());
  writable->x = 5;
  EXPECT_EQ(shared.ToString(), "(5,2)");
  EXPECT_EQ(a.ToString(), "(1,2)");
  EXPECT_EQ(*shared.GetWritableObject(), writable);  // now unshared: no second copy

  Data fixed(MakeRef<Point>(0, 0, false));
  Data other = fixed;
  EXPECT_EQ(other.GetWritableObject().GetError().GetMessage(),
            "Data of type net.orvix.test.datatype.point can't be copied.");

  CapturedOutput output;
  EXPECT_TRUE(Data(MakeRef<Typeless>()).IsEmpty());
  EXPECT_TRUE(output.Contains(INTERNAL_ERROR_TEXT));
}

// ---- shared constants ----

Data MakeInPorts() {
  return Data(DataArray::Of<InternedId>({InternedId::Get("in")}));
}
constinit ConstantData IN_PORTS(MakeInPorts);

TEST(ConstantData, IsMadeOnceAndCopiesCantChangeIt) {
  const Data& in = IN_PORTS.Get();
  EXPECT_EQ(&in, &IN_PORTS.Get());
  EXPECT_EQ(in.ToString(), "['in']");
  EXPECT_EQ(in.GetType(), GetDataType<ArrayOf<InternedId>>());

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) {
        Data copy = IN_PORTS.Get();
        EXPECT_TRUE((*copy.GetWritableArray())->Append(Data(InternedId::Get(ToText(t)))));
        EXPECT_EQ(copy.GetPtr<DataArray>()->GetCount(), 2u);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(in.ToString(), "['in']");
}

}  // namespace
}  // namespace orvix
