#pragma once

#include <arrow/type_fwd.h>

#include <optional>

#include "schema/RowStore.h"
#include "schema/SampleLayout.h"

namespace kyr::parquet {

/// Finds the smallest and the largest element of rows of numbers. NaN does not count, and a zero
/// has no sign.
class ValueBounds {
 public:
  explicit ValueBounds(const SampleSchema& schema);

  void add(const RowSlice& rows);

  /// Empty as long as there is no such element. A 64-bit integer is rounded to the nearest double.
  std::optional<double> minimum() const { return least_; }
  std::optional<double> maximum() const { return most_; }

 private:
  ::arrow::Type::type type_;  // NA if the elements are no numbers
  std::optional<double> least_;
  std::optional<double> most_;
};

}  // namespace kyr::parquet
