#pragma once

#include <cstddef>

#include "cli/Output.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// Prints a table of the first \p limit signals, and the totals.
void printInfo(Output& out, const recording::RecordingInfo& info, std::size_t limit);

}  // namespace kyr::tool
