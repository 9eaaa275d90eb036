#include "host/KYRParquetMethodInfo.h"

namespace kyr::host {

KYRParquetMethodInfo::KYRParquetMethodInfo(const char* name) {
  if (name != nullptr) name_ = name;
}

const char* KYRParquetMethodInfo::getName() const { return name_ ? name_->c_str() : nullptr; }

void KYRParquetMethodInfo::setInputOutput(const std::string* inputTypes, int inputCount,
                                          const std::string* outputTypes, int outputCount) {
  descriptor_.inputTypes.insert(descriptor_.inputTypes.end(), inputTypes, inputTypes + inputCount);
  descriptor_.outputTypes.insert(descriptor_.outputTypes.end(), outputTypes,
                                 outputTypes + outputCount);
}

void KYRParquetMethodInfo::setNumberOfOptionalInputs(int count) {
  descriptor_.optionalInputs = count;
}

}  // namespace kyr::host
