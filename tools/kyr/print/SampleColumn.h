#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// The samples of one signal, as CSV cells.
///
/// Numbers have the shortest form that reads back exactly. A matrix is a quoted cell with ";"
/// between rows and blanks between elements. A vector is one such row. Further dimensions continue
/// the columns. Blobs are base64.
class SampleColumn {
 public:
  /// A signal without samples.
  SampleColumn() = default;

  /// Reads the samples of \p signal and replaces \p time by their times, if there are any.
  SampleColumn(parquet::ParquetSignal& signal, const recording::SignalInfo& info,
               std::vector<double>& time);

  /// \param bytes, shapes, lengths  as ParquetSignal::getData() gives them
  SampleColumn(const recording::SignalInfo& info, std::vector<char> bytes,
               std::vector<std::vector<std::size_t>> shapes, const std::vector<int>& lengths);

  std::size_t size() const { return size_; }

  void append(fmt::memory_buffer& out, std::size_t sample) const;

 private:
  using ElementText = void (*)(fmt::memory_buffer& out, const char* element);

  void appendMatrix(fmt::memory_buffer& out, std::size_t sample) const;
  std::size_t rowsOf(std::size_t sample) const;

  void takeLengths(const std::vector<int>& lengths);

  std::size_t size_ = 0;
  std::vector<char> bytes_;
  std::size_t width_ = 1;              ///< bytes of an element
  ElementText elementText_ = nullptr;  ///< null for blobs
  std::vector<std::size_t>
      begins_;  ///< first element of each sample, and the end; empty for scalars
  std::vector<std::vector<std::size_t>> shapes_;
  std::vector<std::size_t> fixedShape_;
};

}  // namespace kyr::tool
