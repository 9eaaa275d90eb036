#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>
#include <parquet/types.h>

namespace kyr::parquet {

/// What is chosen for each batch from its data. The writer properties decide the rest.
struct EncodingChoice {
  bool encoding = false;
  bool codec = false;            ///< Zstandard or none
  bool byteStreamSplit = false;  ///< whether that is among the encodings
};

/// How the values of a column chunk are stored.
struct ColumnEncoding {
  ::parquet::Encoding::type encoding = ::parquet::Encoding::PLAIN;
  ::arrow::Compression::type codec = ::arrow::Compression::UNCOMPRESSED;
};

/// Chooses an encoding by a sample of the values. Plain values are by far the fastest to write and
/// to read, so another encoding has to save a quarter of their bytes:
///
/// - a dictionary if values repeat,
/// - differences of integers if neighbours are close,
/// - byte-stream split with a codec for floating-point numbers that take steps of one size, as
///   clocks do, or whose bytes are far from evenly distributed.
///
/// The cost does not depend on the number of values. It is that of copying a few ten thousand
/// values.
/// \param values  numbers, or lists of them to any depth; all others are stored plain
/// \param codec  the codec if choice.codec is off
/// \param mayUseDictionary  whether the user's options allow dictionaries
ColumnEncoding chooseEncoding(const ::arrow::Array& values, const EncodingChoice& choice,
                              ::arrow::Compression::type codec, bool mayUseDictionary);

}  // namespace kyr::parquet
