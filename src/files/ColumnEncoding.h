#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>
#include <parquet/types.h>

namespace kyr::parquet {

/// What is chosen from the data; the rest is as the writer properties say.
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

/// The encoding that a sample of the values asks for. Those are looked for that save a good part of
/// the plain bytes, because plain ones are by far the fastest to write and to read:
///
/// - a dictionary where values repeat,
/// - delta-coded integers where neighbours are close,
/// - for floating-point numbers that take steps of one size, as clocks do, or whose bytes are far
///   from evenly spread, byte-stream split with a codec.
///
/// Costs about as much as copying a few ten thousand values, whatever their number.
/// \param values  numbers, or lists of them, however deep; all else is stored plain
/// \param codec  what to use where choice.codec is off
/// \param mayUseDictionary  as the user says
ColumnEncoding chooseEncoding(const ::arrow::Array& values, const EncodingChoice& choice,
                              ::arrow::Compression::type codec, bool mayUseDictionary);

}  // namespace kyr::parquet
