#pragma once

#include <arrow/type_fwd.h>

#include <memory>
#include <string>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// The metadata of the field that holds a signal: "unit", "description", "dimensions" as "[2,3]",
/// and "name" if the field has another name. Keys without a value are left out.
std::shared_ptr<const ::arrow::KeyValueMetadata> fieldMetadata(const recording::SignalInfo& signal,
                                                               const std::string& fieldName);

/// The field of the times, in seconds.
std::shared_ptr<::arrow::Field> timeField();

}  // namespace kyr::tool
