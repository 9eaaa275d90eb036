#pragma once

#include <cstddef>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "cli/Output.h"
#include "kyr/recording/RecordingInfo.h"
#include "print/SampleColumn.h"

namespace kyr::tool {

/// The rows to print have times in [from, to] and numbers in [firstRow, endRow).
struct Window {
  double from = -std::numeric_limits<double>::infinity();
  double to = std::numeric_limits<double>::infinity();
  std::size_t firstRow = 0;
  std::size_t endRow = std::numeric_limits<std::size_t>::max();
};

/// Signals side by side over their times. Rows of different times are merged.
///
/// A row holds the samples of one time. If a time is repeated, the first samples of all signals
/// stand in one row and the second ones in the next. Signals without times have sample numbers
/// instead.
class SampleTable {
 public:
  /// Returns the samples of a signal and replaces `time` by their times, if there are any.
  using Load =
      std::function<SampleColumn(const recording::SignalInfo& signal, std::vector<double>& time)>;

  /// \throws std::runtime_error if some signals have times and some have none
  SampleTable(std::vector<recording::SignalInfo> signals, const Load& load);

  void printHeader(Output& out) const;
  void printRows(Output& out, const Window& window) const;

 private:
  struct Column {
    SampleColumn samples;
    std::size_t times = 0;  ///< position in times_; unused for a signal without samples
  };

  std::size_t placeOf(const recording::SignalInfo& signal, std::vector<double>& time);
  void checkSize(const recording::SignalInfo& signal, const Column& column) const;

  std::vector<recording::SignalInfo> signals_;
  std::vector<Column> columns_;
  std::vector<std::vector<double>> times_;
  std::map<int, std::size_t> timeFiles_;  ///< position in times_ by storage id
  bool hasTime_ = false;
  bool hasCounts_ = false;
};

}  // namespace kyr::tool
