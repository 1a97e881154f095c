#include "orvix/host/data.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "must.h"
#include "orvix/host/diagnostics.h"
#include "orvix/host/format.h"

namespace orvix {
namespace {

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

const DataType* PointType() {
  static const DataType* type = Must(RegisterDataType(
      DataTypeInfo{"net.orvix.test.datatype.point", DATA_STORAGE::OBJECT, VALUEKIND::OBJECT}));
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

// Random values from small pools, so that equal values built apart (other
// allocations, other insertion orders) turn up often, and so do near misses:
// one number under several types, typed and untyped arrays, both zeros, NaN,
// objects that compare through their own type.
class ValueMaker {
 public:
  explicit ValueMaker(uint64_t seed) : _rng(seed) {}

  Data Make(int depth = 0) {
    // Built afresh on every call, so that no two strings share their storage.
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const InternedId in = InternedId::Get("in"), out = InternedId::Get("out");
    // clang-format off
    const Data scalars[] = {
        Data(),     Data(false), Data(true), Data(int32_t(-1)), Data(int32_t(1)),
        Data(-1L),  Data(1L),    Data(0UL),  Data(1UL),         Data(0.0),
        Data(-0.0), Data(1.5),   Data(nan),  Data(""),          Data("a\"b"),
        Data("1"),  Data(in),    Data(out),  Data(GetDataType<int64_t>()),
        Data(GetDataType<std::string>()), Data(MakeRef<Point>(1, 2)), Data(MakeRef<Point>(2, 1))};
    // clang-format on
    const size_t pick = Pick(std::size(scalars) + (depth < 2 ? 3 : 0));
    if (pick < std::size(scalars)) return scalars[pick];
    if (pick == std::size(scalars)) {
      std::vector<Data> ints;
      for (size_t n = Pick(3); n > 0; --n) ints.emplace_back(int64_t(Pick(2)));
      return Data(Must(DataArray::Create(GetDataType<int64_t>(), ints)));
    }
    if (pick == std::size(scalars) + 1) {
      DataArray a;
      for (size_t n = Pick(3); n > 0; --n) EXPECT_TRUE(a.Append(Make(depth + 1)));
      return Data(a);
    }
    std::vector<std::pair<Data, Data>> entries;
    for (size_t n = Pick(4); n > 0; --n)
      entries.emplace_back(Data(InternedId::Get(Pick(2) ? "k" : "l")), Make(depth + 1));
    std::shuffle(entries.begin(), entries.end(), _rng);
    DataDictionary dict;
    for (auto& [k, v] : entries) EXPECT_TRUE(dict.Set(k, v));
    return Data(dict);
  }

  size_t Pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(_rng); }

 private:
  std::mt19937_64 _rng;
};

template <typename R>
std::string ErrorOf(const R& r) {
  return r ? std::string("(no error)") : r.GetError().GetMessage();
}

TEST(Data, EqualityHashAndTextAgreeOnRandomValues) {
  ValueMaker maker(20240611);
  std::vector<Data> values;
  for (int i = 0; i < 300; ++i) values.push_back(maker.Make());
  size_t equalPairs = 0;
  for (const Data& a : values) {
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
  const std::pair<Data, const char*> cases[] = {
      {Data(), "<empty>"},
      {Data(int32_t(42)), "42i32"},
      {Data(uint64_t(42)), "42u64"},
      {Data(-0.0), "-0.0"},
      {Data(1e300), "1e+300"},
      {Data("a\"b\\\n"), R"("a\"b\\\n")"},
      {Data(InternedId::Get("it's")), R"('it\'s')"},
      {Data(GetDataType<ArrayOf<InternedId>>()),
       "type(net.orvix.datatype.array<net.orvix.datatype.internedid>)"},
      {Data(DataDictionary{{Data(InternedId::Get("a")), Data(1L)},
                           {Data("b"), Data(DataArray{Data(2L)})}}),
       R"({'a': 1, "b": [2]})"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(value.ToString(), text);
}

TEST(Data, EveryMessage) {
  static const DataType* level = Must(RegisterDataType(DataTypeInfo{
      "net.orvix.test.datatype.level", DATA_STORAGE::INT64,
      VALUEKIND::ENUM | VALUEKIND::INTEGRAL | VALUEKIND::SIGNED, 8, GetDataType<int64_t>()}));
  DataType loose(DataTypeInfo{"net.orvix.test.datatype.loose", DATA_STORAGE::INT64});
  Data doc(
      DataDictionary{{Data("list"), Data(DataArray{Data(1L), Data(2L)})}, {Data("n"), Data(1L)}});
  Data fixed(MakeRef<Point>(0, 0, false));
  Data fixedCopy = fixed;
  using Keys = std::vector<Data>;
  const std::pair<std::string, const char*> cases[] = {
      {ErrorOf(Data(int32_t(7)).Get<int64_t>()),
       "Data of type net.orvix.datatype.int32 can't be read as net.orvix.datatype.int64."},
      {ErrorOf(Data().Get<bool>()), "Data of type none can't be read as net.orvix.datatype.bool."},
      {ErrorOf(Data(int64_t(1)).GetObject()),
       "Data of type net.orvix.datatype.int64 holds no object of the requested class."},
      {ErrorOf(Data("x").WithType(level)),
       "Data of type net.orvix.datatype.string can't be given the type "
       "net.orvix.test.datatype.level."},
      {ErrorOf(fixedCopy.GetWritableObject()),
       "Data of type net.orvix.test.datatype.point can't be copied."},
      {ErrorOf(doc.GetSubData(Keys{Data("list"), Data(int32_t(2))})),
       "Index 2 is out of range for an array of 2 elements."},
      {ErrorOf(DataArray().Erase(0)), "Index 0 is out of range for an array of 0 elements."},
      {ErrorOf(doc.GetSubData(Keys{Data("list"), Data(int64_t(-1))})),
       "Index -1 is out of range for an array of 2 elements."},
      {ErrorOf(doc.GetSubData(Keys{Data("list"), Data("0")})),
       R"(An array can't be indexed by "0".)"},
      {ErrorOf(doc.GetSubData(Data("none"))), R"(Key "none" is not in the dictionary.)"},
      {ErrorOf(doc.SetSubData(Keys{Data("n"), Data(0L)}, Data(1L))),
       "Data of type net.orvix.datatype.int64 has no parts."},
      {ErrorOf(Data(DataArray::Of<int64_t>({1, 2})).SetSubData(Keys{Data(0L)}, Data("x"))),
       "An array of net.orvix.datatype.int64 can't hold data of type net.orvix.datatype.string."},
      {ErrorOf(DataDictionary().Set(Data(), Data(1L))),
       "Illegal argument: Condition !key.IsEmpty() not fulfilled. "},
      {ErrorOf(ArrayDataType(&loose)),
       "Data type net.orvix.test.datatype.loose is not registered."},
      {ErrorOf(RegisterDataType(DataTypeInfo{"net.orvix.datatype.int64"})),
       "Data type net.orvix.datatype.int64 is already registered."},
      {ErrorOf(RegisterDataType(DataTypeInfo{"net.orvix.test.datatype.list", DATA_STORAGE::ARRAY})),
       "Illegal argument: Condition type->GetStorage() != DATA_STORAGE::ARRAY && "
       "type->GetStorage() != DATA_STORAGE::DICTIONARY not fulfilled. "},
  };
  for (const auto& [message, expected] : cases) EXPECT_EQ(message, expected);
  // A type that stands for a host type reads only as itself.
  Data two = Must(Data(int64_t(2)).WithType(level));
  EXPECT_NE(two, Data(int64_t(2)));
  EXPECT_FALSE(two.Is<int64_t>());
}

TEST(Data, CopiesShareUntilAWriteAndNeverSeeLaterWrites) {
  Data original(DataDictionary{{Data("a"), Data(DataArray{Data(1L), Data(2L)})},
                               {Data("b"), Data(DataArray{Data(3L)})}});
  Data copy = original;
  const Data path[] = {Data("a"), Data(0L)};
  Data previous;
  // Writing the value that is already there copies nothing.
  EXPECT_FALSE(Must(copy.SetSubData(path, Data(1L), &previous)));
  EXPECT_TRUE(copy.GetPtr<DataDictionary>()->IsSharedWith(*original.GetPtr<DataDictionary>()));
  EXPECT_TRUE(Must(copy.SetSubData(path, Data(9L), &previous)));
  EXPECT_EQ(previous, Data(1L));
  EXPECT_EQ(original.ToString(), R"({"a": [1, 2], "b": [3]})");
  EXPECT_EQ(copy.ToString(), R"({"a": [9, 2], "b": [3]})");
  // Only the path was copied: the untouched entry still shares its array.
  auto b = [](const Data& d) {
    return d.GetPtr<DataDictionary>()->Find(Data("b"))->GetPtr<DataArray>();
  };
  EXPECT_TRUE(b(copy)->IsSharedWith(*b(original)));
  // A new entry has no previous value; no keys at all name the whole value.
  EXPECT_TRUE(Must(copy.SetSubData(std::vector<Data>{Data("new")}, Data(true), &previous)));
  EXPECT_TRUE(previous.IsEmpty());
  EXPECT_TRUE(Must(copy.SetSubData({}, Data(1L))));
  EXPECT_EQ(copy, Data(1L));
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
    const size_t op = pick(5);
    if (op < 2) {  // Append, or Insert anywhere
      const size_t at = op == 0 ? model.size() : pick(model.size() + 1);
      ASSERT_TRUE(op == 0 ? array.Append(value) : array.Insert(at, value));
      model.insert(model.begin() + std::ptrdiff_t(at), value);
    } else if (op < 4 && !model.empty()) {  // Erase or Set
      const size_t at = pick(model.size());
      ASSERT_TRUE(op == 2 ? array.Erase(at) : array.Set(at, value));
      if (op == 2) {
        model.erase(model.begin() + std::ptrdiff_t(at));
      } else {
        model[at] = value;
      }
    } else if (op == 4) {
      snapshots.emplace_back(array, model);
    }
  }
  snapshots.emplace_back(array, model);
  for (const auto& [copy, expected] : snapshots)
    ASSERT_TRUE(std::equal(copy.begin(), copy.end(), expected.begin(), expected.end()));
}

// The same for dictionaries, across the size at which they start an index.
TEST(DataDictionary, RandomWritesMatchAModelAndKeepOrder) {
  std::mt19937_64 rng(11);
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
  using Model = std::vector<std::pair<Data, Data>>;  // in order of addition
  DataDictionary dict;
  Model model;
  std::vector<std::pair<DataDictionary, Model>> snapshots;
  for (int step = 0; step < 3000; ++step) {
    Data key = pick(2) ? Data(int64_t(pick(24))) : Data(InternedId::Get(ToText(pick(24))));
    Data value(int64_t(pick(5)));
    auto it =
        std::find_if(model.begin(), model.end(), [&](const auto& e) { return e.first == key; });
    const size_t op = pick(4);
    if (op < 2) {
      ASSERT_TRUE(dict.Set(key, value));
      if (it == model.end()) {
        model.emplace_back(key, value);
      } else {
        it->second = value;
      }
    } else if (op == 2) {
      ASSERT_EQ(Must(dict.Erase(key)), it != model.end());
      if (it != model.end()) model.erase(it);
    } else {
      if (pick(4) == 0) snapshots.emplace_back(dict, model);
      const Data* found = dict.Find(key);
      ASSERT_EQ(found != nullptr, it != model.end());
      ASSERT_EQ(found ? *found : Data(), found ? it->second : Data());
    }
  }
  snapshots.emplace_back(dict, model);
  for (const auto& [copy, expected] : snapshots) {
    ASSERT_TRUE(std::equal(
        copy.begin(), copy.end(), expected.begin(), expected.end(),
        [](const auto& e, const auto& m) { return e.key == m.first && e.value == m.second; }));
  }
}

TEST(DataDictionary, MergeSetsEveryEntryOfTheOther) {
  DataDictionary a{{Data("x"), Data(1L)}, {Data("y"), Data(2L)}};
  ASSERT_TRUE(a.Merge(DataDictionary{{Data("y"), Data(3L)}, {Data("z"), Data(4L)}}));
  ASSERT_TRUE(a.Merge(a));
  EXPECT_EQ(a.ToString(), R"({"x": 1, "y": 3, "z": 4})");
}

struct Typeless final : DataObject {
  const DataType* GetType() const override { return nullptr; }
  bool Equals(const DataObject&) const override { return true; }
  std::string ToString() const override { return "?"; }
};

TEST(Data, ObjectsAreCopiedOnWriteThroughTheirType) {
  Data a(MakeRef<Point>(1, 2));
  Data shared = a;
  Point* writable = static_cast<Point*>(Must(shared.GetWritableObject()));
  writable->x = 5;
  EXPECT_EQ(Data(DataArray{a, shared}).ToString(), "[(1,2), (5,2)]");
  EXPECT_EQ(Must(a.GetObject<Point>())->x, 1);
  EXPECT_EQ(Must(shared.GetWritableObject()), writable);  // now unshared: no second copy

  CapturedOutput output;
  EXPECT_TRUE(Data(MakeRef<Typeless>()).IsEmpty());
  EXPECT_TRUE(output.Contains(INTERNAL_ERROR_TEXT));
}

Data MakeInPorts() {
  return Data(DataArray::Of<InternedId>({InternedId::Get("in")}));
}
constinit ConstantData IN_PORTS(MakeInPorts);

// Run under the thread sanitizer: copies written on many threads never reach
// the constant.
TEST(ConstantData, IsMadeOnceAndCopiesCantChangeIt) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i) {
        Data copy = IN_PORTS.Get();
        EXPECT_TRUE(Must(copy.GetWritableArray())->Append(Data(InternedId::Get(ToText(t)))));
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(IN_PORTS.Get().GetType(), GetDataType<ArrayOf<InternedId>>());
  EXPECT_EQ(IN_PORTS.Get().ToString(), "['in']");
}

}  // namespace
}  // namespace orvix
