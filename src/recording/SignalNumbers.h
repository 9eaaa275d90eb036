#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "recording/EnvelopeIndex.h"
#include "recording/SignalRows.h"
#include "recording/TimeIndex.h"

namespace kyr::recording {

/// One element of the samples of a signal as numbers.
///
/// Integers beyond 2^53 are rounded. Samples that have no such element are NaN, and so are those of
/// a signal with times alone. Blobs become a number that depends on all their bytes, so that equal
/// blobs are equal numbers. The times of a signal without times are its row numbers.
class SignalNumbers : public NumberSource {
 public:
  /// Makes the rows anew, with files of their own, for another thread.
  using MakeRows = std::function<SignalRows()>;

  /// \param rows  with open contents
  /// \param times  up to date; null if the signal has no times. It must outlive the object.
  /// \throws std::invalid_argument if no sample of the signal has such an element
  SignalNumbers(SignalRows rows, const TimeIndex* times, std::uint64_t element, MakeRows makeRows);

  std::uint64_t rows() override { return rows_.pairCount(); }
  std::vector<RowRange> rowsBetween(double from, double to) override;
  void read(const RowRange& rows, const Visit& visit) override;
  std::unique_ptr<NumberSource> copy() override;

 private:
  // Points \p block to times and values.
  void fillTimes(const SampleBlock& samples, NumberBlock& block);
  void fillValues(const SampleBlock& samples, NumberBlock& block);
  void hashBlobs(const SampleBlock& samples);
  void pickElements(const SampleBlock& samples);

  SignalRows rows_;
  const TimeIndex* times_;
  std::uint64_t element_;
  MakeRows makeRows_;
  std::vector<double> timeNumbers_;
  std::vector<double> values_;
};

}  // namespace kyr::recording
