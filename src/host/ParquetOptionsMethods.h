#pragma once

#include "host/KYRParquetMethodInfo.h"

namespace kyr::host {

/// "setParquetOptions" takes a struct, sets the options that it has fields for, and returns whether
/// there was an input. Registration.h has the rules.
class ParquetOptionsSetter final : public KYRParquetMethodInfo {
 public:
  ParquetOptionsSetter();
  void invoke(const HostClient* client, int& outputCount, HostValue* outputs, int inputCount,
              const HostValue* inputs) const override;
};

/// "getParquetOptions" returns a struct of all options.
class ParquetOptionsGetter final : public KYRParquetMethodInfo {
 public:
  ParquetOptionsGetter();
  void invoke(const HostClient* client, int& outputCount, HostValue* outputs, int inputCount,
              const HostValue* inputs) const override;
};

}  // namespace kyr::host
