#pragma once

#include <memory>

#include "kyr/host/HostMethodInfo.h"

namespace kyr::host {

class HostNamespace;

/// \brief Describes a namespace whose content is made when the namespace is first opened.
///
/// Libraries derive from it. The host owns the object from the moment it is added and deletes it
/// through this class.
class HostNamespaceInfo {
 public:
  HostNamespaceInfo() = default;
  virtual ~HostNamespaceInfo() = default;
  HostNamespaceInfo(const HostNamespaceInfo&) = delete;
  HostNamespaceInfo& operator=(const HostNamespaceInfo&) = delete;

  /// \brief The last part of the dotted name. Valid as long as the object lives.
  virtual const char* getName() const = 0;

  /// \brief Fill \p self, the namespace that this object describes. Called once, by the host.
  virtual void populate(HostNamespace& self) = 0;
};

/// \brief A namespace of the host that takes sub-namespaces and methods. A host implements it.
class HostNamespace {
 public:
  /// \brief Add a sub-namespace that will be populated when it is first opened.
  virtual void addNamespace(std::unique_ptr<HostNamespaceInfo> info) = 0;

  /// \brief Add a method.
  /// \param first, second  numbers that mean something to the host only
  virtual void addMethod(std::unique_ptr<HostMethodInfo> method, int first, int second) = 0;

 protected:
  virtual ~HostNamespace() = default;
};

}  // namespace kyr::host
