#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// Walks through the times of some rows of a signal. One block of them is in memory.
class TimeWalk {
 public:
  /// The times of a signal.
  /// \param reader  must outlive the object, and not be refreshed meanwhile
  /// \param rows  ascending ranges of rows that there are, with gaps between them
  /// \param blockRows  times that are read at once at most
  TimeWalk(const recording::RecordingReader& reader, int id, std::vector<recording::RowRange> rows,
           std::size_t blockRows);

  /// The numbers of the rows take the place of times.
  static TimeWalk counting(const recording::RecordingReader& reader,
                           std::vector<recording::RowRange> rows, std::size_t blockRows);

  bool isAtEnd() const { return at_ == block_.size(); }
  double time() const { return block_[at_]; }
  std::uint64_t row() const { return blockRow_ + at_; }
  void next() {
    if (++at_ == block_.size()) readBlock();
  }

 private:
  TimeWalk(const recording::RecordingReader& reader, int id, bool isCounting,
           std::vector<recording::RowRange> rows, std::size_t blockRows);
  void readBlock();

  const recording::RecordingReader* reader_;
  int id_;
  bool isCounting_;
  std::vector<recording::RowRange>
      rows_;  // from the last to the first; those that are not read yet
  std::size_t blockRows_;
  std::vector<double> block_;  // empty at the end
  std::uint64_t blockRow_ = 0;
  std::size_t at_ = 0;
};

/// Merges the times of several walks, from the smallest to the largest. NaN comes last.
///
/// A row holds one time. If a time is repeated, the first ones of all walks are in one row and the
/// second ones in the next. Where the times of a walk do not ascend, they keep their order.
class MergedTimes {
 public:
  explicit MergedTimes(std::vector<TimeWalk> walks);

  /// Goes to the next row, which is the first one at the first call. False behind the last.
  bool next();

  double time() const { return time_; }
  bool isIn(std::size_t walk) const { return isIn_[walk] != 0; }
  /// The row of the signal, if isIn().
  std::uint64_t row(std::size_t walk) const { return walks_[walk].row(); }

 private:
  std::vector<TimeWalk> walks_;
  std::vector<char> isIn_;
  double time_ = 0;
};

}  // namespace kyr::tool
