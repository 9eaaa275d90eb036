#pragma once

#include <cstddef>

#include "csv/CsvLayout.h"
#include "kyr/parquet/SignalTypes.h"

namespace kyr::tool {

/// The type that holds what the first rows have in a column.
///
/// ByteString if the first value is a text; later texts would not fit. Boolean if all values are
/// true, false, 0 or 1, and not all of them numbers. Int64 or UInt64 if all are integers, and one
/// is hexadecimal or so large, 2^53 or more, that a double may round it. Else double, also for a
/// column without values.
KYRSignalDataType sampledType(const CsvLayout& layout, std::size_t place);

/// Whether the last column has no name, and nothing in the first rows, as a delimiter at the end of
/// every line makes it.
bool isLastColumnNothing(const CsvLayout& layout);

}  // namespace kyr::tool
