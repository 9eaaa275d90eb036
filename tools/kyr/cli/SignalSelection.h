#pragma once

#include <string>
#include <vector>

#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// The signal that the user calls \p name: by its name, by the header that `kyr cat` prints, or by
/// its number.
/// \throws std::runtime_error naming \p folder if there is none, or more than one
const recording::SignalInfo& signalCalled(const std::vector<recording::SignalInfo>& signals,
                                          const std::string& name, const std::string& folder);

/// The signals with these names, in this order; all signals if there are no names. A name that no
/// signal has may be a pattern, which stands for all signals that match it.
/// \throws std::runtime_error naming \p folder if there is no such signal
std::vector<recording::SignalInfo> chosenSignals(const recording::RecordingReader& reader,
                                                 const std::vector<std::string>& names,
                                                 const std::string& folder);

/// Each signal once, however often it was named.
std::vector<recording::SignalInfo> distinctSignals(std::vector<recording::SignalInfo> signals);

}  // namespace kyr::tool
