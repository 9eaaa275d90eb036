#pragma once

#include <arrow/type_fwd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// Numbers of any type as doubles.
struct Doubles {
  std::shared_ptr<::arrow::Array> array;
  std::uint64_t inexact = 0;  ///< integers that no double is equal to
};

/// \param numbers  an array of integers, float or double without nulls; the latter is not copied
/// \throws std::invalid_argument for other types
Doubles asDoubles(const std::shared_ptr<::arrow::Array>& numbers);

/// Truth values of a byte each as doubles: 0, and 1 for whatever is not 0.
std::shared_ptr<::arrow::Array> truthValues(const ::arrow::Array& bytes);

/// What is told about a signal of which some values were rounded.
std::string inexactText(const recording::SignalInfo& signal, std::uint64_t values);

}  // namespace kyr::tool
