#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

/// The samples of one signal, as CSV cells.
///
/// Numbers take their shortest form that reads back exactly. A matrix is a quoted cell of its rows
/// with ";" between them and blanks between elements, a vector one such row, more dimensions follow
/// one another in the columns. Blobs are base64.
class SampleColumn {
 public:
  /// A signal without samples.
  SampleColumn() = default;

  /// Read the samples of \p signal; \p time is replaced by their times, empty if there are none.
  SampleColumn(parquet::ParquetSignal& signal, const recording::SignalInfo& info,
               std::vector<double>& time);

  /// \param bytes, shapes, lengths  as ParquetSignal::getData() gives them
  SampleColumn(const recording::SignalInfo& info, std::vector<char> bytes,
               std::vector<std::vector<std::size_t>> shapes, const std::vector<int>& lengths);

  /// From now on the first \p count samples do not count.
  void dropFirst(std::size_t count);

  std::size_t size() const { return size_; }

  void append(fmt::memory_buffer& out, std::size_t sample) const;

 private:
  using ElementText = void (*)(fmt::memory_buffer& out, const char* element);

  void appendMatrix(fmt::memory_buffer& out, std::size_t sample) const;
  std::size_t rowsOf(std::size_t sample) const;

  void takeLengths(const std::vector<int>& lengths);

  std::size_t first_ = 0;  ///< sample that counts
  std::size_t size_ = 0;
  std::vector<char> bytes_;
  std::size_t width_ = 1;              ///< bytes of an element
  ElementText elementText_ = nullptr;  ///< empty for blobs
  std::vector<std::size_t> begins_;  ///< first element of each sample, and the end; not for scalars
  std::vector<std::vector<std::size_t>> shapes_;
  std::vector<std::size_t> fixedShape_;
};

}  // namespace kyr::tool
