#pragma once

#include <string>
#include <vector>

#include "export/ExportOptions.h"
#include "export/Losses.h"
#include "export/RecordingFiles.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// A signal that will be exported.
struct ExportSignal {
  recording::SignalInfo info;
  StoredColumn time;
  std::string column;  ///< its name in the table, that no other has
};

/// What a CSV header calls it: with its unit, once.
std::string csvHeader(const ExportSignal& signal);

/// Whether each sample is one number (or truth value).
bool isNumber(const recording::SignalInfo& signal);

/// The signals that the options choose and the table can hold. Those it cannot are added to
/// \p losses; names that had to be changed are told.
/// \throws std::runtime_error if nothing is left
std::vector<ExportSignal> exportedSignals(const recording::RecordingInfo& info,
                                          const RecordingFiles& files, const ExportOptions& options,
                                          Losses& losses);

}  // namespace kyr::tool
