#pragma once

#include <algorithm>
#include <cstddef>

#include "kyr/parquet/SafeStorage.h"
#include "schema/RowStore.h"

namespace kyr::parquet {

/// Rows of a batch at the most: Parquet divides longer row groups.
constexpr std::size_t kMaxBatchRows = 1048576;

/// Rows of a batch of such rows.
/// \param rows  one or more
inline std::size_t batchLength(const SafeStorage& options, const RowSlice& rows) {
  const std::size_t perRow = std::max<std::size_t>(1, bytesIn(rows) / rows.rows);
  const std::size_t byBytes = std::max<std::size_t>(1, options.batchBytes / perRow);
  return std::min({options.batchRows, byBytes, kMaxBatchRows});
}

}  // namespace kyr::parquet
