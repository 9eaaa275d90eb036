#pragma once

#include <arrow/type_fwd.h>

#include <memory>

#include "kyr/parquet/SignalTypes.h"

namespace kyr::parquet {

/// Arrow type of one element of \p type; empty for a value outside the enumeration.
std::shared_ptr<::arrow::DataType> elementArrowType(KYRSignalDataType type);

}  // namespace kyr::parquet
