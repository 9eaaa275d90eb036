#pragma once

#include <string>
#include <vector>

#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// The signal that the user calls \p name: by its name, by the header that `kyr cat` prints, or by
/// its number.
/// \throws std::runtime_error naming \p folder if there is none, or several
const recording::SignalInfo& signalCalled(const recording::RecordingInfo& info,
                                          const std::string& name, const std::string& folder);

}  // namespace kyr::tool
