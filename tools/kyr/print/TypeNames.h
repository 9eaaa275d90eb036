#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kyr/parquet/SignalTypes.h"

namespace kyr::tool {

/// "int16"; "unknown" for a value outside of the enumeration.
std::string_view typeName(KYRSignalDataType type);

std::string_view categoryName(KYRSignalCategory category);

/// The type of that name if a CSV column can have it.
std::optional<KYRSignalDataType> columnType(std::string_view name);

/// The names that columnType() knows, as a list to read.
std::string columnTypeNames();

}  // namespace kyr::tool
