#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/Output.h"
#include "cli/RowWindow.h"
#include "csv/TimeStamps.h"
#include "kyr/recording/RecordingReader.h"
#include "print/MergedTimes.h"
#include "print/RowFormat.h"
#include "print/RowTexts.h"
#include "print/SampleColumn.h"

namespace kyr::tool {

/// Signals side by side over their times, which are merged as MergedTimes does. Signals without
/// times have row numbers instead. A block of each signal is in memory.
class SampleTable {
 public:
  /// \param reader  must outlive the object
  SampleTable(const recording::RecordingReader& reader, std::vector<recording::SignalInfo> signals);

  /// Prints in another form than CSV.
  void setFormat(std::unique_ptr<RowFormat> format) { format_ = std::move(format); }

  /// Prints moments in place of times, which count from \p start on.
  void setStart(const TimeStamp& start) { start_ = start; }

  /// Prints the rows that the reader shows beyond those that were printed before; before the first
  /// ones a header.
  /// \throws std::runtime_error if some signals have times and some have none
  void print(Output& out, const Window& window);

  /// Prints what comes behind the last row.
  void end(Output& out);

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
  std::vector<std::string> headerNames() const;
  void printHeader(Output& out) const;
  std::uint64_t countRows(const Window& window, std::size_t blockRows) const;
  void appendTime(fmt::memory_buffer& buffer, double time) const;
  std::optional<std::vector<SampleColumn::ElementText>> numberTexts() const;
  void addRow(RowTexts& rows, const MergedTimes& times);
  void printRow(Output& out, const MergedTimes& times);
  void printFormatted(Output& out, const MergedTimes& times);

  const recording::RecordingReader& reader_;
  std::vector<recording::SignalInfo> signals_;
  std::map<int, std::uint64_t> printed_;  // rows by signal
  std::vector<Group> groups_;
  std::vector<Column> columns_;
  std::unique_ptr<RowFormat> format_;  // null for CSV
  std::optional<TimeStamp> start_;
  bool hasTime_ = false;
  bool hasCounts_ = false;
  bool hasHeader_ = false;
};

}  // namespace kyr::tool
