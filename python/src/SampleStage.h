#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::python {

/// \brief Rows of a signal that is being written, before the library gets them.
///
/// Single values gather here, because a call of the library costs as much for one as for many. Rows
/// that are here count as appended: if they cannot be written, they stay, for the next try.
class SampleStage {
 public:
  SampleStage(std::shared_ptr<parquet::StreamableSignal> signal,
              recording::SignalDescription description, KYRSignalDataType type,
              KYRSignalCategory category);

  const recording::SignalDescription& description() const { return description_; }
  KYRSignalDataType type() const { return type_; }
  KYRSignalCategory category() const { return category_; }
  /// Bytes of a sample, 0 if samples differ.
  std::size_t sampleBytes() const { return sampleBytes_; }
  std::uint64_t rows() const { return written_ + times_.size(); }

  /// Whether the next row should find the stage written.
  bool isFull() const { return times_.size() >= kRows || data_.size() >= kBytes; }

  void add(double time, const char* sample) {
    times_.push_back(time);
    data_.insert(data_.end(), sample, sample + sampleBytes_);
  }
  /// Rows of which many are handed to the library at once.
  void add(const double* times, std::size_t count, const char* samples);
  /// A sample of its own size: its shape, if it is a matrix, and the number of its elements.
  void add(double time, const char* sample, std::size_t bytes, std::vector<unsigned long> shape,
           int elements);

  /// Hands all rows to the library.
  void write();
  /// Completes the signal's files.
  void finish() { signal_->finish(); }

 private:
  static constexpr std::size_t kRows = 256;
  static constexpr std::size_t kBytes = std::size_t{1} << 20;

  void stage(const double* times, std::size_t count, const char* samples);
  /// From the staged row `first` on.
  void writeSamples(std::size_t first);
  void append(const char* data, std::size_t bytes, const std::vector<int>& sizes,
              std::vector<std::vector<unsigned long>> shapes);

  std::shared_ptr<parquet::StreamableSignal> signal_;
  recording::SignalDescription description_;
  KYRSignalDataType type_;
  KYRSignalCategory category_;
  std::size_t sampleBytes_ = 0;

  std::vector<double> times_;
  std::vector<char> data_;
  std::vector<std::vector<unsigned long>> shapes_;
  std::vector<int> sizes_;
  std::uint64_t written_ = 0;  // rows that the library has
  bool hasFailed_ = false;
};

}  // namespace kyr::python
