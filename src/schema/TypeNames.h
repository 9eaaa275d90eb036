#pragma once

#include <string>

#include "kyr/parquet/SignalTypes.h"

namespace kyr {

/// The names of types and categories in files; empty for values outside of the enumerations.
std::string dataTypeName(KYRSignalDataType type);
std::string categoryName(KYRSignalCategory category);

/// The type or category of a name in a file.
/// \throws std::runtime_error naming an unknown one
KYRSignalDataType dataTypeCalled(const std::string& name);
KYRSignalCategory categoryCalled(const std::string& name);

}  // namespace kyr
