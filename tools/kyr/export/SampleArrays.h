#pragma once

#include <arrow/buffer_builder.h>
#include <arrow/type_fwd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "kyr/recording/RecordingReader.h"

namespace kyr::tool {

/// Makes Arrow arrays of the samples of one signal: numbers, bool, binary for blobs, string for
/// texts, lists of the elements for other samples.
class SampleArrays {
 public:
  using ArrayPtr = std::shared_ptr<::arrow::Array>;

  /// \param isText  whether the samples are texts in UTF-8
  SampleArrays(const recording::SignalInfo& signal, bool isText);

  const std::shared_ptr<::arrow::DataType>& type() const { return type_; }
  /// Whether each sample is one element.
  bool isFlat() const { return isFlat_; }
  /// Whether the signal has an array of shapes, lists of uint64, beside that of the samples.
  bool hasShapes() const { return hasShapes_; }
  static std::shared_ptr<::arrow::DataType> shapeType();

  /// To be called first: at most so many samples and nulls will be appended until finish().
  void reserve(std::size_t rows);
  /// Appends samples [first, first + count) of a block.
  /// \throws std::runtime_error if the array gets more elements than Arrow can count
  void append(const recording::SampleBlock& block, std::size_t first, std::size_t count);
  void appendNull();

  /// The samples since the last call, and their shapes if it hasShapes().
  std::vector<ArrayPtr> finish();

 private:
  void start();
  void appendSample(const recording::SampleBlock& block, std::size_t sample);
  ArrayPtr finishElements();

  std::shared_ptr<::arrow::DataType> type_;
  std::shared_ptr<::arrow::DataType> elementType_;
  bool isFlat_;
  std::size_t width_;  // bytes of an element in a block
  bool hasShapes_;
  std::int64_t rows_ = 0;
  std::int64_t elements_ = 0;
  std::int64_t extents_ = 0;
  ::arrow::BufferBuilder bytes_;
  ::arrow::TypedBufferBuilder<bool> isValid_;
  ::arrow::TypedBufferBuilder<std::int32_t> ends_;  // of lists and blobs
  ::arrow::TypedBufferBuilder<std::uint64_t> shapes_;
  ::arrow::TypedBufferBuilder<std::int32_t> shapeEnds_;
};

}  // namespace kyr::tool
