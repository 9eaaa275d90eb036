#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kyr/parquet/SignalTypes.h"

namespace kyr::tool {

/// "int16"; "unknown" for a value outside the enumeration.
std::string_view typeName(KYRSignalDataType type);

std::string_view categoryName(KYRSignalCategory category);

/// The type with that name, if a CSV column can have it.
std::optional<KYRSignalDataType> columnType(std::string_view name);

/// The names that columnType() knows, as a list for a sentence.
std::string columnTypeNames();

}  // namespace kyr::tool
