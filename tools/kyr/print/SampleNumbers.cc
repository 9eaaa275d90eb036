#include "print/SampleNumbers.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <limits>
#include <stdexcept>
#include <type_traits>

#include "cli/Errors.h"
#include "cli/Text.h"

namespace kyr::tool {

namespace {

// Whether the nearest double is another number than \p value.
template <typename T>
bool isInexact(T value, double nearest) {
  if constexpr (sizeof(T) < sizeof(double) || !std::is_integral_v<T>) {
    return false;
  } else {
    // From 2^63 or 2^64 on, the double is larger than every T, and a cast back is undefined.
    constexpr double kEnd = 2.0 * static_cast<double>(T{1} << (std::numeric_limits<T>::digits - 1));
    return nearest >= kEnd || static_cast<T>(nearest) != value;
  }
}

template <typename ArrowType>
Doubles converted(const ::arrow::Array& numbers) {
  using Value = typename ArrowType::c_type;
  const auto& values = static_cast<const ::arrow::NumericArray<ArrowType>&>(numbers);
  ::arrow::DoubleBuilder builder;
  check(builder.Reserve(values.length()));
  Doubles result;
  for (std::int64_t i = 0; i < values.length(); ++i) {
    const Value value = values.Value(i);
    const auto nearest = static_cast<double>(value);
    if (isInexact(value, nearest)) ++result.inexact;
    builder.UnsafeAppend(nearest);
  }
  result.array = check(builder.Finish());
  return result;
}

}  // namespace

Doubles asDoubles(const std::shared_ptr<::arrow::Array>& numbers) {
  switch (numbers->type_id()) {
    case ::arrow::Type::DOUBLE:
      return {numbers, 0};
    case ::arrow::Type::FLOAT:
      return converted<::arrow::FloatType>(*numbers);
    case ::arrow::Type::INT8:
      return converted<::arrow::Int8Type>(*numbers);
    case ::arrow::Type::UINT8:
      return converted<::arrow::UInt8Type>(*numbers);
    case ::arrow::Type::INT16:
      return converted<::arrow::Int16Type>(*numbers);
    case ::arrow::Type::UINT16:
      return converted<::arrow::UInt16Type>(*numbers);
    case ::arrow::Type::INT32:
      return converted<::arrow::Int32Type>(*numbers);
    case ::arrow::Type::UINT32:
      return converted<::arrow::UInt32Type>(*numbers);
    case ::arrow::Type::INT64:
      return converted<::arrow::Int64Type>(*numbers);
    case ::arrow::Type::UINT64:
      return converted<::arrow::UInt64Type>(*numbers);
    default:
      throw std::invalid_argument("samples of type " + numbers->type()->ToString() +
                                  " are no numbers");
  }
}

std::shared_ptr<::arrow::Array> truthValues(const ::arrow::Array& bytes) {
  const auto& values = static_cast<const ::arrow::Int8Array&>(bytes);
  ::arrow::DoubleBuilder builder;
  check(builder.Reserve(values.length()));
  for (std::int64_t i = 0; i < values.length(); ++i) {
    builder.UnsafeAppend(values.Value(i) == 0 ? 0.0 : 1.0);
  }
  return check(builder.Finish());
}

std::string inexactText(const recording::SignalInfo& signal, std::uint64_t values) {
  return fmt::format("signal {}, {}, has {} beyond 2^53 that float64 cannot hold exactly",
                     signal.signalId, inQuotes(signal.name), counted(values, "value"));
}

}  // namespace kyr::tool
