#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "schema/RowStore.h"
#include "schema/SampleLayout.h"

namespace kyr::parquet {

/// The schema of a part of times.
const SampleSchema& timeSchema();

/// The rows of several tables of a signal part, one after the other, in the form that hosts take.
struct PartRows {
  PartRows() = default;
  explicit PartRows(const std::vector<std::shared_ptr<::arrow::Table>>& tables) { append(tables); }
  explicit PartRows(const RowSlice& rows);

  void append(const std::vector<std::shared_ptr<::arrow::Table>>& tables);

  std::vector<char> bytes;
  std::optional<std::vector<std::vector<std::uint64_t>>> dimensions;  ///< if they are stored
  std::vector<int> sizes;  ///< of each row; empty for flat columns
};

}  // namespace kyr::parquet
