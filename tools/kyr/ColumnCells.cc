#include "ColumnCells.h"

#include <algorithm>
#include <cmath>

#include "Errors.h"

namespace kyr::tool {

namespace {

template <typename ArrayType>
void appendNumbers(const ::arrow::ChunkedArray& cells, std::vector<char>& bytes) {
  using Value = typename ArrayType::value_type;
  bytes.reserve(static_cast<std::size_t>(cells.length() - cells.null_count()) * sizeof(Value));
  const auto append = [&bytes](const Value* values, std::int64_t count) {
    const auto* begin = reinterpret_cast<const char*>(values);
    bytes.insert(bytes.end(), begin, begin + static_cast<std::size_t>(count) * sizeof(Value));
  };
  for (const auto& chunk : cells.chunks()) {
    const auto& array = static_cast<const ArrayType&>(*chunk);
    if (array.null_count() == 0) {
      append(array.raw_values(), array.length());
      continue;
    }
    for (std::int64_t i = 0; i < array.length(); ++i) {
      if (array.IsValid(i)) append(array.raw_values() + i, 1);
    }
  }
}

// NaN left out.
double largestMagnitude(const ::arrow::ChunkedArray& cells) {
  double largest = 0;
  forEachValue<::arrow::DoubleArray>(cells, [&largest](double value) {
    if (!std::isnan(value)) largest = std::max(largest, std::abs(value));
  });
  return largest;
}

}  // namespace

std::string cellText(const ::arrow::ChunkedArray& cells, std::int64_t row) {
  const auto cell = check(cells.GetScalar(row));
  return static_cast<const ::arrow::BaseBinaryScalar&>(*cell).value->ToString();
}

std::optional<std::int64_t> firstMissing(const ::arrow::ChunkedArray& cells) {
  std::int64_t row = 0;
  for (const auto& chunk : cells.chunks()) {
    for (std::int64_t i = 0; i < chunk->length(); ++i, ++row) {
      if (chunk->IsNull(i)) return row;
    }
  }
  return std::nullopt;
}

bool hidesText(const ::arrow::ChunkedArray& cells) {
  const auto type = cells.type()->id();
  if (type == ::arrow::Type::DOUBLE) return largestMagnitude(cells) >= 9223372036854775808.0;
  return type != ::arrow::Type::NA && type != ::arrow::Type::INT64 && type != ::arrow::Type::BOOL &&
         !::arrow::is_base_binary_like(type);
}

void appendCells(const ::arrow::ChunkedArray& cells, std::vector<char>& bytes) {
  switch (cells.type()->id()) {
    case ::arrow::Type::INT64:
      return appendNumbers<::arrow::Int64Array>(cells, bytes);
    case ::arrow::Type::DOUBLE:
      return appendNumbers<::arrow::DoubleArray>(cells, bytes);
    case ::arrow::Type::BOOL:
      return forEachValue<::arrow::BooleanArray>(
          cells, [&bytes](bool value) { bytes.push_back(value ? 1 : 0); });
    default:
      return;  // a column without any value
  }
}

}  // namespace kyr::tool
