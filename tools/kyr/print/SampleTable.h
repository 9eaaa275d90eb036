#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <vector>

#include "cli/Output.h"
#include "kyr/recording/RecordingReader.h"
#include "print/MergedTimes.h"
#include "print/SampleColumn.h"

namespace kyr::tool {

/// The rows to print have times in [from, to] and numbers in [firstRow, endRow).
struct Window {
  double from = -std::numeric_limits<double>::infinity();
  double to = std::numeric_limits<double>::infinity();
  std::uint64_t firstRow = 0;
  std::uint64_t endRow = std::numeric_limits<std::uint64_t>::max();

  bool hasAllTimes() const;
};

/// Signals side by side over their times, which are merged as MergedTimes does. Signals without
/// times have row numbers instead. A block of each signal is in memory.
class SampleTable {
 public:
  /// \param reader  must outlive the object
  SampleTable(const recording::RecordingReader& reader, std::vector<recording::SignalInfo> signals);

  /// Prints the rows that the reader shows beyond those that were printed before; before the first
  /// ones a header.
  /// \throws std::runtime_error if some signals have times and some have none
  void print(Output& out, const Window& window);

 private:
  // Signals with the same times.
  struct Group {
    int signal = 0;  // one of them
    bool isCounted = false;
    recording::RowRange rows;
  };
  struct Column {
    std::optional<SampleColumn> samples;  // none if there are no rows to print
    std::size_t group = 0;
  };

  void refreshSignals();
  void findRows(std::size_t blockRows);
  bool isCounted(const recording::SignalInfo& signal) const;
  void noteKind(const recording::SignalInfo& signal, bool isCounted);
  bool canLeaveOut(const Group& group, double to) const;
  std::vector<recording::RowRange> rowsIn(const Group& group, const Window& window) const;
  std::vector<TimeWalk> walks(const Window& window, std::size_t blockRows) const;
  void printHeader(Output& out) const;

  const recording::RecordingReader& reader_;
  std::vector<recording::SignalInfo> signals_;
  std::map<int, std::uint64_t> printed_;  // rows by signal
  std::vector<Group> groups_;
  std::vector<Column> columns_;
  bool hasTime_ = false;
  bool hasCounts_ = false;
  bool hasHeader_ = false;
};

}  // namespace kyr::tool
