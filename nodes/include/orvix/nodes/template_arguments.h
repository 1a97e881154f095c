#pragma once
// TemplateArguments: what a template instance was made with, per port: a
// value, a port type, or the nested ports of a bundle, each either given by
// the user (EXPLICIT) or deduced from the graph around the node (DEDUCED).
// Held by a node system beside its template; shared, and copied before a
// write.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <utility>

#include "orvix/graph/flags.h"
#include "orvix/host/data.h"
#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"

namespace orvix::nodes {

enum class TEMPLATE_ARGUMENT_KIND : uint8_t {
  NONE = 0x0,
  DEDUCED = 0x1,   // deduced from the graph
  VALUE = 0x2,     // a value
  TYPE = 0x4,      // the type of a port
  BUNDLE = 0x8,    // the nested port ids of a bundle
  MASK = 0xe,
  EXPLICIT = 0x10, // given by the user
};
ORVIX_FLAG_SET_OPERATORS(TEMPLATE_ARGUMENT_KIND)

class TemplateArguments : public RefCounted {
 public:
  using Key = std::pair<InternedId, TEMPLATE_ARGUMENT_KIND>;

  // The deduced argument of the port and kind if there is one, else the
  // explicit one; null if neither exists. A deduced argument wins.
  const Data* Get(InternedId portId, TEMPLATE_ARGUMENT_KIND kind) const;
  // The type argument of the port; null if it isn't a type.
  const DataType* GetType(InternedId portId) const;
  // The bundle argument: the nested port ids; nothing if it isn't an array.
  std::optional<DataArray> GetBundle(InternedId portId) const;
  bool HasDeduced(InternedId portId, TEMPLATE_ARGUMENT_KIND kind) const;
  // The entry of exactly this key; null if none.
  const Data* Find(InternedId portId, TEMPLATE_ARGUMENT_KIND kind) const;

  // Sets the entry; an empty value erases it.
  Result<void> Set(InternedId portId, TEMPLATE_ARGUMENT_KIND kind, Data value);
  // Sets every entry of `other` here.
  Result<void> Merge(const TemplateArguments& other);
  // A copy to write to.
  Result<Ref<TemplateArguments>> Clone() const;

  size_t GetCount() const { return _entries.size(); }
  // Calls `callback(portId, kind, value)` in key order; false stops.
  bool ForEach(const std::function<bool(InternedId, TEMPLATE_ARGUMENT_KIND, const Data&)>&
                   callback) const;
  friend bool operator==(const TemplateArguments& a, const TemplateArguments& b) {
    return a._entries == b._entries;
  }

 private:
  struct KeyLess {
    bool operator()(const Key& a, const Key& b) const {
      const int byId = InternedId::CompareText(a.first, b.first);
      if (byId != 0) return byId < 0;
      return uint8_t(a.second) < uint8_t(b.second);
    }
  };
  std::map<Key, Data, KeyLess> _entries;
};

}  // namespace orvix::nodes
