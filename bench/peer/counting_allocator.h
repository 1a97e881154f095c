// The bytes that the program holds from the heap, as the replaced global
// operator new and delete of the peer benchmark count them: the usable size of
// every block, so that both sides pay for what the allocator rounds up.

#pragma once

#include <cstddef>

namespace orvix::nodes::peer {

size_t LiveHeapBytes() noexcept;

}  // namespace orvix::nodes::peer
