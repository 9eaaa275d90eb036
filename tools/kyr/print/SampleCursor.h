#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// Reads the samples of one signal. One block of them is in memory.
class SampleCursor {
 public:
  /// \param reader  must outlive the object, and not be refreshed meanwhile
  /// \param endRow  row behind the last that will be asked for
  /// \param blockRows  numbers that are read at once at most; other samples are read by row group
  SampleCursor(const recording::RecordingReader& reader, const recording::SignalInfo& signal,
               std::uint64_t endRow, std::size_t blockRows);

  /// The block that holds a row, without times. Valid until the next call. Rows that are asked for
  /// in ascending order are read once.
  const recording::SampleBlock& blockOf(std::uint64_t row) {
    if (row < block_.firstRow || row - block_.firstRow >= block_.rows) read(row);
    return block_;
  }

  /// Bytes of an element.
  std::size_t width() const { return width_; }

 private:
  void read(std::uint64_t row);

  const recording::RecordingReader& reader_;
  int id_;
  std::uint64_t endRow_;
  std::size_t blockRows_;
  std::size_t width_;
  bool isFlat_;  // whether each sample is one element
  std::vector<char> bytes_;
  std::optional<recording::SampleBlocks> blocks_;
  recording::SampleBlock block_;
};

/// The elements [begin, end) of a block that belong to one sample.
struct ElementRange {
  std::size_t begin = 0;
  std::size_t end = 0;
};

ElementRange elementsOf(const recording::SampleBlock& block, std::size_t sample);

/// Rows of a block, so that the blocks of so many columns of numbers fit into memory.
std::size_t blockRowsFor(std::size_t columns);

}  // namespace kyr::tool
