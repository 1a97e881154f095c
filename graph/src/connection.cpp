#include "orvix/graph/connection.h"

#include <new>
#include <type_traits>

#include "orvix/host/format.h"

namespace orvix {

std::string_view ToString(CONNECTION_TYPE type) {
  switch (type) {
    case CONNECTION_TYPE::NORMAL:
      return "NORMAL";
    case CONNECTION_TYPE::SHORTCUT:
      return "SHORTCUT";
  }
  return "UNKNOWN";
}

std::string_view ToString(CONNECTION_DIRECTION direction) {
  return direction == CONNECTION_DIRECTION::TARGET ? "target" : "source";
}

std::string_view ToString(CONNECTION_ATTRIBUTE_KIND kind) {
  switch (kind) {
    case CONNECTION_ATTRIBUTE_KIND::SOURCE:
      return "source";
    case CONNECTION_ATTRIBUTE_KIND::CONNECTION:
      return "connection";
    case CONNECTION_ATTRIBUTE_KIND::TARGET:
      return "target";
  }
  return "unknown";
}

// ---------------------------------------------------------------------------
// ConnectionKey

std::string ConnectionKey::ToString() const {
  std::string out(orvix::ToString(GetDirection()));
  out.push_back(' ');
  out.append(other.ToString());
  const CONNECTION_TYPE type = GetType();
  if (type != CONNECTION_TYPE::NORMAL) {
    out.append(" (");
    if (type == CONNECTION_TYPE::SHORTCUT) {
      out.append(orvix::ToString(type));
    } else {
      AppendText(out, uint32_t(type));
    }
    out.push_back(')');
  }
  return out;
}

// ---------------------------------------------------------------------------
// ConnectionAttributeKey

static_assert(InternedId::POINTER_ALIGNMENT > ConnectionAttributeKey::KIND_MASK,
              "the kind needs the low bits of the id's pointer");

ConnectionAttributeKey::ConnectionAttributeKey(InternedId id, CONNECTION_ATTRIBUTE_KIND kind)
    : _word(reinterpret_cast<uintptr_t>(id.GetPointer()) | (uintptr_t(kind) & KIND_MASK)) {}

Result<ConnectionAttributeKey> ConnectionAttributeKey::Create(InternedId id, uint32_t kind) {
  ORVIX_CHECK_ARGUMENT(id.IsPopulated());
  ORVIX_CHECK_ARGUMENT(kind <= 2);  // SOURCE, CONNECTION or TARGET
  return ConnectionAttributeKey(id, CONNECTION_ATTRIBUTE_KIND(kind));
}

InternedId ConnectionAttributeKey::GetId() const {
  return InternedId::FromPointer(reinterpret_cast<const void*>(_word & ~KIND_MASK));
}

std::string ConnectionAttributeKey::ToString() const {
  std::string out(orvix::ToString(GetKind()));
  out.push_back(':');
  out.append(GetId().GetString());
  return out;
}

// ---------------------------------------------------------------------------
// ConnectionAttributes

Result<Ref<ConnectionAttributes>> ConnectionAttributes::Create(std::vector<Element> elements) {
  return NewRef<ConnectionAttributes>(std::move(elements));
}

const ConnectionAttributes::Element* ConnectionAttributes::_FindElement(
    ConnectionAttributeKey key) const {
  for (const Element& e : _elements) {
    if (e.key == key) return &e;
  }
  return nullptr;
}

const Data* ConnectionAttributes::Find(ConnectionAttributeKey key) const {
  const Element* e = _FindElement(key);
  return e ? &e->value : nullptr;
}

bool ConnectionAttributes::Equals(const ConnectionAttributes& other) const {
  if (this == &other) return true;
  // Each side's elements must all be found on the other side. The arrays are
  // a handful of elements, so walking is cheaper than building sets, and the
  // check in both directions keeps it right even for a repeated key.
  auto contained = [](const ConnectionAttributes& a, const ConnectionAttributes& b) {
    for (const Element& e : a._elements) {
      bool found = false;
      for (const Element& f : b._elements) {
        if (e.key == f.key && e.value == f.value) {
          found = true;
          break;
        }
      }
      if (!found) return false;
    }
    return true;
  };
  return contained(*this, other) && contained(other, *this);
}

bool ConnectionAttributes::Equal(const ConnectionAttributes* a, const ConnectionAttributes* b) {
  if (a == b) return true;
  if (!a) return b->IsEmpty();
  if (!b) return a->IsEmpty();
  return a->Equals(*b);
}

Result<Ref<ConnectionAttributes>> ConnectionAttributes::WithValue(
    const ConnectionAttributes* original, ConnectionAttributeKey key, Data value) {
  if (value.IsEmpty()) return WithoutValue(original, key);
  try {
    std::vector<Element> elements;
    if (original) {
      elements.reserve(original->_elements.size() + 1);
      elements = original->_elements;
    }
    bool replaced = false;
    for (Element& e : elements) {
      if (e.key == key) {
        e.value = std::move(value);
        replaced = true;
        break;
      }
    }
    if (!replaced) elements.push_back(Element{key, std::move(value)});
    return Create(std::move(elements));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

Result<Ref<ConnectionAttributes>> ConnectionAttributes::WithoutValue(
    const ConnectionAttributes* original, ConnectionAttributeKey key) {
  try {
    std::vector<Element> elements;
    if (original) {
      elements.reserve(original->_elements.size());
      bool removed = false;
      for (const Element& e : original->_elements) {
        if (!removed && e.key == key) {
          removed = true;
          continue;
        }
        elements.push_back(e);
      }
    }
    return Create(std::move(elements));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

Result<Ref<ConnectionAttributes>> ConnectionAttributes::WithoutKind(
    const ConnectionAttributes* original, CONNECTION_ATTRIBUTE_KIND kind) {
  try {
    std::vector<Element> elements;
    if (original) {
      elements.reserve(original->_elements.size());
      for (const Element& e : original->_elements) {
        if (e.key.GetKind() != kind) elements.push_back(e);
      }
    }
    return Create(std::move(elements));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
}

std::string ConnectionAttributes::ToString() const {
  std::string out = "{";
  bool first = true;
  for (const Element& e : _elements) {
    if (!first) out.append(", ");
    first = false;
    out.append(e.key.ToString());
    out.push_back('=');
    e.value.AppendTo(out);
  }
  out.push_back('}');
  return out;
}

// ---------------------------------------------------------------------------
// ConnectionData

std::string ConnectionData::ToString() const {
  std::string out = wires.ToString();
  if (attributes && !attributes->IsEmpty()) {
    out.push_back(' ');
    out.append(attributes->ToString());
  }
  return out;
}

}  // namespace orvix
