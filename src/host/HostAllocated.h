#pragma once

#include <cstddef>

#include "kyr/host/HostAllocator.h"

namespace kyr::host {

/// Base of objects that the host will own: `new (allocator) T(...)` takes them from its memory,
/// filled with zeros before the constructor runs, and deleting them gives them back to the same
/// allocator, whoever deletes them.
class HostAllocated {
 public:
  /// \throws whatever HostAllocator::throwOutOfMemory() throws, if there is no memory
  static void* operator new(std::size_t size, HostAllocator& allocator);
  static void operator delete(void* object) noexcept;
  // Called when a constructor throws.
  static void operator delete(void* object, HostAllocator& allocator) noexcept;
};

}  // namespace kyr::host
