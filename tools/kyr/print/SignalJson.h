#pragma once

#include <nlohmann/json.hpp>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// What a recording says of a signal and its type, as the first members of its JSON object.
nlohmann::ordered_json signalJson(const recording::SignalInfo& signal);

}  // namespace kyr::tool
