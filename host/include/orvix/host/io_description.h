#pragma once
// IoDescription: the named members through which an object of type T is stored.
// A type declares its members once (a static DescribeIO); the document
// serializer then writes each member's text form and, on reading, hands each
// stored text back to the member's reader.

#include <functional>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orvix/host/result.h"

namespace orvix {

template <typename T>
class IoDescription {
 public:
  // The stored text of the member, taken from an object.
  using Writer = std::function<std::string(const T&)>;
  // Sets the member of an object from its stored text. An error ends the read.
  using Reader = std::function<Result<void>(T&, std::string_view)>;

  struct Member {
    std::string name;
    Writer write;
    Reader read;
  };

  // Declares a member. Names are unique within one description.
  Result<void> DeclareMember(std::string_view name, Writer write, Reader read) {
    ORVIX_CHECK_ARGUMENT(FindMember(name) == nullptr);
    try {
      _members.push_back(Member{std::string(name), std::move(write), std::move(read)});
    } catch (const std::bad_alloc&) {
      return OutOfMemoryError();
    }
    return Ok();
  }

  // The members in the order of their declaration.
  std::span<const Member> GetMembers() const { return _members; }

  // The member of that name, or null.
  const Member* FindMember(std::string_view name) const {
    for (const Member& m : _members) {
      if (m.name == name) return &m;
    }
    return nullptr;
  }

 private:
  std::vector<Member> _members;
};

}  // namespace orvix
