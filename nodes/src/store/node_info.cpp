#include "store/node_info.h"

#include <new>

#include "store/node_system_impl.h"

namespace orvix::nodes {

NodeSystemImpl* NodeRecord::GetNestedSystemImpl() const noexcept {
  // NodeSystemImpl is the one implementation of the published interface.
  return static_cast<NodeSystemImpl*>(_nestedSystem.Get());
}

NodeInfo* NodeInfo::Allocate(NODE_KIND kind, const NodePath& path) noexcept {
  NodeInfo* info = nullptr;
  switch (kind) {
    case NODE_KIND::NODE:
      info = new (std::nothrow) NodeRecord();
      break;
    case NODE_KIND::INPORT:
    case NODE_KIND::OUTPORT:
      info = new (std::nothrow) PortRecord();
      break;
    case NODE_KIND::INPUTS:
    case NODE_KIND::OUTPUTS:
      info = new (std::nothrow) PlainRecord();
      break;
    default:
      return nullptr;
  }
  if (info) {
    info->flags = WithKind(info->flags, kind);
    info->_path = path;
  }
  return info;
}

NodeInfo* NodeInfo::Clone(const NodeInfo& source) noexcept {
  try {
    NodeInfo* copy = nullptr;
    if (const NodeRecord* node = source.AsNode()) {
      copy = new NodeRecord(*node);
    } else if (const PortRecord* port = source.AsPort()) {
      copy = new PortRecord(*port);
    } else {
      copy = new PlainRecord(static_cast<const PlainRecord&>(source));
    }
    if (source.attributes) {
      try {
        Ref<AttributeTable> table = MakeRef<AttributeTable>();
        table->records = source.attributes->records;
        copy->attributes = std::move(table);
      } catch (...) {
        Free(copy);
        throw;
      }
    }
    return copy;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void NodeInfo::Free(NodeInfo* info) noexcept {
  if (!info) return;
  if (NodeRecord* node = info->AsNode()) {
    delete node;
  } else if (PortRecord* port = info->AsPort()) {
    delete port;
  } else {
    delete static_cast<PlainRecord*>(info);
  }
}

bool NodeInfo::IsClean() const noexcept {
  if (_nextModified != nullptr || HasAny(flags, GNODE_FLAGS_IMPL::MODIFIED_MASK)) return false;
  const PortRecord* port = AsPort();
  return !port || port->_firstNestedModified == g_modifiedListEnd;
}

void NodeInfo::ClearContent() noexcept {
  children.Release();
  attributes.Reset();
  if (NodeRecord* node = AsNode()) {
    node->_nestedSystem.Reset();
    node->_nestedData.Reset();
  } else if (PortRecord* port = AsPort()) {
    port->connections.Clear();
  }
}

size_t NodeInfo::GetRecordSize(NODE_KIND kind) noexcept {
  switch (kind) {
    case NODE_KIND::NODE:
      return sizeof(NodeRecord);
    case NODE_KIND::INPORT:
    case NODE_KIND::OUTPORT:
      return sizeof(PortRecord);
    default:
      return sizeof(PlainRecord);
  }
}

}  // namespace orvix::nodes
