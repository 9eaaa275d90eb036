#pragma once

#include <cstddef>

#include "kyr/host/HostAllocator.h"

namespace kyr::host {

/// Base of objects that the host will own. `new (allocator) T(...)` allocates from the host's
/// memory and fills it with zeros before the constructor runs. `delete` gives it back to the same
/// allocator, whoever calls it.
class HostAllocated {
 public:
  /// \throws what HostAllocator::throwOutOfMemory() throws, if there is no memory
  static void* operator new(std::size_t size, HostAllocator& allocator);
  static void operator delete(void* object) noexcept;
  // Called when a constructor throws.
  static void operator delete(void* object, HostAllocator& allocator) noexcept;
};

}  // namespace kyr::host
