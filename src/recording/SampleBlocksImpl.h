#pragma once

#include <cstdint>
#include <vector>

#include "kyr/recording/RecordingReader.h"
#include "recording/SignalRows.h"
#include "schema/RowStore.h"

namespace kyr::recording {

class SampleBlocks::Impl {
 public:
  /// \param rows  with open contents
  /// \param range  within the signal's pairs
  Impl(SignalRows rows, const RowRange& range, std::size_t maxRows);

  const SampleBlock* next();

 private:
  void readSamples();
  // Counts from the first row on, and puts 0 before the ends.
  static const std::uint64_t* offsetsOf(const std::uint64_t* ends, std::uint64_t begin,
                                        std::size_t rows, std::vector<std::uint64_t>& offsets);

  SignalRows rows_;
  std::uint64_t next_;
  std::uint64_t end_;
  std::size_t maxRows_;
  std::vector<double> times_;
  std::vector<char> elements_;
  parquet::HeldRows held_;
  std::vector<std::uint64_t> offsets_;
  std::vector<std::uint64_t> extentOffsets_;
  SampleBlock block_;
};

}  // namespace kyr::recording
