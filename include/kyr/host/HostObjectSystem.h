#pragma once

#include <memory>
#include <string>

#include "kyr/host/HostAllocator.h"
#include "kyr/host/HostNamespaceInfo.h"

namespace kyr::host {

/// \brief The part of a host that a library registers its methods with.
///
/// A host implements it and installs it before it calls the library's entry point; see
/// Registration.h.
class HostObjectSystem {
 public:
  virtual ~HostObjectSystem() = default;

  /// \brief The namespace of a dotted name such as "A.B", or null if there is none.
  ///
  /// The namespaces that it lies in are populated by that, the namespace itself is not.
  virtual HostNamespace* findNamespace(const std::string& dottedName) = 0;

  /// \brief Add a namespace at the top level. It is populated when it is first opened.
  virtual void addNamespace(std::unique_ptr<HostNamespaceInfo> info) = 0;

  /// \brief The memory for objects that are added. It outlives all that was allocated from it.
  virtual HostAllocator& allocator() = 0;
};

}  // namespace kyr::host
