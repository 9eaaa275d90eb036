#pragma once

#include <string>

#include "kyr/platform/export.h"

namespace kyr::parquet {

/// \brief Names of the columns of every stored file. Stored in files: never rename.
namespace columnNames {
KYR_PARQUET_EXPORT extern const std::string time;
KYR_PARQUET_EXPORT extern const std::string data;
KYR_PARQUET_EXPORT extern const std::string dimension;
}  // namespace columnNames

/// \brief Name of the child field of every list column. Stored in files: never rename.
KYR_PARQUET_EXPORT extern const std::string innerItemName;

}  // namespace kyr::parquet
