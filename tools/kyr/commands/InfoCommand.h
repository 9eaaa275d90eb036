#pragma once

#include <cstddef>

#include "cli/Output.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// Print a table of the signals, of the first \p limit if there are more, and the totals.
void printInfo(Output& out, const recording::RecordingInfo& info, std::size_t limit);

}  // namespace kyr::tool
