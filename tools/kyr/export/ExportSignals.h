#pragma once

#include <string>
#include <vector>

#include "cli/Losses.h"
#include "export/ExportOptions.h"
#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// A signal that will be exported.
struct ExportSignal {
  recording::SignalInfo info;
  int times = 0;        ///< the first signal of the recording with the same times
  bool isText = false;  ///< whether each sample is a text in UTF-8
  std::string column;   ///< its name in the table, which no other signal has
};

/// Its name and unit for a CSV header.
std::string csvHeader(const ExportSignal& signal);

/// Whether each sample is one number or truth value.
bool isNumber(const recording::SignalInfo& signal);

/// The chosen signals that the table can hold. The others are added to \p losses. Names that had to
/// be changed are told on standard error.
/// \throws std::runtime_error if nothing is left
std::vector<ExportSignal> exportedSignals(const recording::RecordingReader& reader,
                                          const ExportOptions& options, Losses& losses);

}  // namespace kyr::tool
