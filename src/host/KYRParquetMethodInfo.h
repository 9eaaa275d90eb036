#pragma once

#include <optional>
#include <string>

#include "host/HostAllocated.h"
#include "kyr/host/HostMethodInfo.h"

namespace kyr::host {

/// Base of the library's methods. They publish no signature and listings hide them.
class KYRParquetMethodInfo : public HostMethodInfo, public HostAllocated {
 public:
  /// \param name  null for a method without a name
  explicit KYRParquetMethodInfo(const char* name);

  const char* getName() const override;
  const char* getMethodSignature() const override { return signature_; }
  bool isVisible() const override { return false; }

  /// Appends the type names to the descriptor, inputs first.
  void setInputOutput(const std::string* inputTypes, int inputCount, const std::string* outputTypes,
                      int outputCount);
  void setNumberOfOptionalInputs(int count);

 private:
  std::optional<std::string> name_;
  const char* signature_ = nullptr;
};

}  // namespace kyr::host
