#pragma once

#include <string>
#include <vector>

#include "kyr/host/HostArray.h"
#include "kyr/host/HostClient.h"

namespace kyr::host {

/// \brief The inputs and outputs of a method, as the host shows them to its users.
struct HostMethodDescriptor {
  std::vector<std::string> inputTypes;
  std::vector<std::string> outputTypes;
  int optionalInputs = 0;  ///< how many of the last inputs may be left out
};

/// \brief A method that a library adds to a namespace of the host.
///
/// Libraries derive from it. The host owns the object from the moment it is added and deletes it
/// through this class.
class HostMethodInfo {
 public:
  HostMethodInfo() = default;
  virtual ~HostMethodInfo() = default;
  HostMethodInfo(const HostMethodInfo&) = delete;
  HostMethodInfo& operator=(const HostMethodInfo&) = delete;

  /// \brief The method's name; null if it has none. Valid as long as the object lives.
  virtual const char* getName() const = 0;

  /// \brief A text that describes the call; null if there is none. Valid as long as the object
  /// lives.
  virtual const char* getMethodSignature() const = 0;

  /// \brief Whether listings show the method. It can be called by name either way.
  virtual bool isVisible() const = 0;

  /// \brief Run the method.
  ///
  /// \param client       the caller; valid during the call
  /// \param outputCount  receives the number of outputs that were set
  /// \param outputs      room for at least max(1, outputCount) values, which the caller owns
  /// \param inputs       \p inputCount values, which the caller owns; some may hold no array
  /// \throws std::exception  on a failure, which the host shows to its user; the outputs are not
  ///                     used then
  virtual void invoke(const HostClient* client, int& outputCount, HostValue* outputs,
                      int inputCount, const HostValue* inputs) const = 0;

  const HostMethodDescriptor& descriptor() const { return descriptor_; }

 protected:
  HostMethodDescriptor descriptor_;
};

}  // namespace kyr::host
