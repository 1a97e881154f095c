#pragma once
// The callbacks that the walks of NodeSystem call, and the map that GetValues
// fills. The element, value and connection types are only declared here: a
// callback's signature names them, and the code that writes a callback
// includes what it reads.

#include <cstdint>
#include <functional>
#include <unordered_map>

#include "orvix/host/interned_id.h"
#include "orvix/host/ref.h"
#include "orvix/host/result.h"
#include "orvix/nodes/node_system_types.h"

namespace orvix {

class ConnectionAttributes;
class Data;
class Wires;
// Declared with the type it has in orvix/graph/connection.h, which defines it.
enum class CONNECTION_ATTRIBUTE_KIND : uint32_t;

}  // namespace orvix

namespace orvix::nodes {

struct GNode;

// Called with each changed element and what changed at it; false ends the walk.
using ChangeCallback = std::function<Result<bool>(const GNode& node, MODIFIED what)>;
// Called with each effective connection of a port: the port at the other end,
// the wires (IMPLICIT set in each used channel for a wire of an ancestor port)
// and the connection's attributes (null for none); false ends the walk.
using ConnectionCallback = std::function<Result<bool>(
    const GNode& other, Wires wires, const Ref<ConnectionAttributes>& attributes)>;
// Called with each attribute of a connection in array order; false ends the
// walk.
using ConnectionValueCallback =
    std::function<bool(CONNECTION_ATTRIBUTE_KIND kind, InternedId id, const Data& value)>;
// Called with each value of an attribute along an element's base chain,
// nearest first, with its prefix (see GetValueWithCallback); false ends the
// walk.
using ValueCallback = std::function<Result<bool>(const Data& value, int64_t prefix)>;
// Called with each value of an element that changed after a stamp (empty for
// a value that was erased); false ends the walk.
using ChangedValueCallback = std::function<Result<bool>(InternedId id, const Data& value)>;
// The values of an element by attribute id, as GetValues fills them.
using ValueMap = std::unordered_map<InternedId, Data>;

// Called with each node of a subtree; false ends the walk.
using NodeVisitor = std::function<Result<bool>(const GNode& node)>;

}  // namespace orvix::nodes
