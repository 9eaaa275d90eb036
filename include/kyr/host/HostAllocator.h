#pragma once

#include <cstddef>

namespace kyr::host {

/// \brief The host's memory. Everything that the host will own comes from it.
///
/// A host implements it. The library allocates its method and namespace objects here and releases
/// them here, so that the host may delete them at any time by its own means.
class HostAllocator {
 public:
  virtual ~HostAllocator() = default;

  /// \brief \p size bytes of zeros, aligned for any type.
  /// \return null if there is no memory; the library then calls throwOutOfMemory()
  virtual void* allocateZeroed(std::size_t size) = 0;

  /// \brief Take back what allocateZeroed() gave. Null is allowed and does nothing.
  virtual void release(void* memory) noexcept = 0;

  /// \brief Throw the host's own exception for an allocation that failed.
  [[noreturn]] virtual void throwOutOfMemory(std::size_t size) = 0;
};

}  // namespace kyr::host
