#pragma once

#include <optional>

#include "csv/TimeStamps.h"
#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// What has to be added to the times of \p other [s] so that they count from the same moment as
/// those of \p reader. 0 unless both have the attribute "start".
double secondsBetweenStarts(const recording::RecordingReader& reader,
                            const recording::RecordingReader& other);

/// The moment from which the times count; nothing without the attribute "start".
std::optional<TimeStamp> startOf(const recording::Attributes& attributes);

}  // namespace kyr::tool
