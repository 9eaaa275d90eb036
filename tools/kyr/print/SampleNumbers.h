#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// Numbers that were converted to doubles.
struct Doubles {
  std::shared_ptr<::arrow::Array> array;
  std::uint64_t inexact = 0;  ///< number of integers to which no double is equal
};

/// \param numbers  integers, floats or doubles without nulls; doubles are not copied
/// \throws std::invalid_argument for other types
Doubles asDoubles(const std::shared_ptr<::arrow::Array>& numbers);

/// Converts truth values of a byte each to doubles, 0 for 0 and else 1.
std::shared_ptr<::arrow::Array> truthValues(const ::arrow::Array& bytes);

/// One sentence on a signal of which some values were rounded.
std::string inexactText(const recording::SignalInfo& signal, std::uint64_t values);

}  // namespace kyr::tool
