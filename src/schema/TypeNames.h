#pragma once

#include <string>

#include "kyr/parquet/SignalTypes.h"

namespace kyr {

/// Names of the enumerations as files have them; empty for values outside of them.
std::string dataTypeName(KYRSignalDataType type);
std::string categoryName(KYRSignalCategory category);

/// The values of such names.
/// \throws std::runtime_error naming an unknown one
KYRSignalDataType dataTypeCalled(const std::string& name);
KYRSignalCategory categoryCalled(const std::string& name);

}  // namespace kyr
