#include "kyr/arrow/ArrayHelpers.h"

#include <arrow/api.h>
#include <fmt/format.h>
#include <parquet/exception.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <utility>

#include "schema/ArrayMemory.h"

namespace kyr::arrow {

namespace {

template <typename Builder>
std::shared_ptr<::arrow::Array> copiedArray(const std::vector<char>& values) {
  Builder builder;
  if (!values.empty()) {
    PARQUET_THROW_NOT_OK(
        builder.AppendValues(reinterpret_cast<const typename Builder::value_type*>(values.data()),
                             static_cast<std::int64_t>(values.size())));
  }
  PARQUET_ASSIGN_OR_THROW(auto array, builder.Finish());
  return array;
}

// Gives the boolean builder the value type that it takes: bytes.
struct BooleanBytesBuilder : ::arrow::BooleanBuilder {
  using value_type = std::uint8_t;
};

}  // namespace

template <>
std::shared_ptr<::arrow::Array> getArrowArray<bool>(const std::vector<char>& values) {
  return copiedArray<BooleanBytesBuilder>(values);
}

template <>
std::shared_ptr<::arrow::Array> getArrowArray<char>(const std::vector<char>& values) {
  return copiedArray<::arrow::Int8Builder>(values);
}

template <>
std::shared_ptr<::arrow::Array> getArrowArrayZeroCopy<char>(const unsigned char* data,
                                                            unsigned long length) {
  return makeArrayZeroCopy(borrowBuffer(data, length), ::arrow::int8());
}

template <>
char getScalarValue<char>(std::shared_ptr<::arrow::Scalar> scalar) {
  if (!scalar || !scalar->is_valid || scalar->type->id() != ::arrow::Type::INT8) {
    throw std::invalid_argument(
        fmt::format("the scalar is {}, expected an int8 value",
                    scalar ? scalar->type->ToString() + " " + scalar->ToString() : "missing"));
  }
  return static_cast<char>(static_cast<const ::arrow::Int8Scalar&>(*scalar).value);
}

template <>
char getScalarValueAtIndex<char>(std::shared_ptr<::arrow::Array> array, unsigned long index) {
  if (!array) throw std::invalid_argument("no array to take a value from");
  // Arrow refuses an index beyond the end, but accepts a negative one.
  constexpr auto kMax = static_cast<unsigned long>(std::numeric_limits<std::int64_t>::max());
  PARQUET_ASSIGN_OR_THROW(auto scalar,
                          array->GetScalar(static_cast<std::int64_t>(std::min(index, kMax))));
  return getScalarValue<char>(std::move(scalar));
}

}  // namespace kyr::arrow
