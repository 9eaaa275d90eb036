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

/// The rows to print: those whose time is in [from, to] and whose number is in [firstRow, endRow).
struct Window {
  double from = -std::numeric_limits<double>::infinity();
  double to = std::numeric_limits<double>::infinity();
  std::size_t firstRow = 0;
  std::size_t endRow = std::numeric_limits<std::size_t>::max();
};

/// Signals side by side over their times, merged where the times differ.
///
/// A row holds the samples of one time. Where signals have a time repeatedly, the first samples
/// stand in one row, the second ones in the next. Signals without time count their samples instead.
class SampleTable {
 public:
  /// Gives the samples of a signal, and their times, which are empty if there are none.
  using Load =
      std::function<SampleColumn(const recording::SignalInfo& signal, std::vector<double>& time)>;

  /// \throws std::runtime_error if some of the signals have times and some have none
  SampleTable(std::vector<recording::SignalInfo> signals, const Load& load);

  void printHeader(Output& out) const;
  void printRows(Output& out, const Window& window) const;

 private:
  struct Column {
    SampleColumn samples;
    std::size_t times = 0;  ///< place in times_; unused for a signal without samples
  };

  std::size_t placeOf(const recording::SignalInfo& signal, std::vector<double>& time);
  void checkSize(const recording::SignalInfo& signal, const Column& column) const;

  std::vector<recording::SignalInfo> signals_;
  std::vector<Column> columns_;
  std::vector<std::vector<double>> times_;
  std::map<int, std::size_t> timeFiles_;  ///< place in times_ by storage id
  bool hasTime_ = false;
  bool hasCounts_ = false;
};

}  // namespace kyr::tool
