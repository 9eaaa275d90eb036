#pragma once

#include <arrow/io/interfaces.h>
#include <arrow/util/type_fwd.h>
#include <parquet/metadata.h>
#include <parquet/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "files/ColumnPages.h"
#include "schema/ByteBuffer.h"

namespace kyr::parquet {

/// Writes the pages of one column chunk: their headers, their codec, and the metadata of the chunk.
/// The bytes are those of Parquet's own page writer; values go to the sink from where they lie.
///
/// What the sink says is a ::parquet::ParquetException.
class ChunkPages {
 public:
  /// \param codec  pages that it does not shrink are left uncompressed
  ChunkPages(::arrow::io::OutputStream& sink, ::parquet::ColumnChunkMetaDataBuilder& metadata,
             ::arrow::Compression::type codec);
  ~ChunkPages();
  ChunkPages(const ChunkPages&) = delete;
  ChunkPages& operator=(const ChunkPages&) = delete;

  using Pieces = std::vector<std::string_view>;

  /// Comes before all data pages.
  /// \param values  plain
  void addDictionary(std::string_view values, std::size_t count);
  /// \param page  whose rows and levels are taken
  /// \param values  encoded, one piece after the other
  void addData(const ColumnPage& page, ::parquet::Encoding::type encoding, const Pieces& values);

  /// Writes the metadata that end a chunk.
  /// \return bytes of the pages before compression
  std::int64_t finish();

 private:
  // The values under the codec; empty without one. Valid until the next call.
  std::string_view compressed(const Pieces& values, std::int64_t size);
  // Whether the codec shrinks the middle of values, by which the rest is judged.
  bool shrinksInPart(std::string_view values);
  void put(std::string_view bytes);
  void count(std::string_view header, std::int64_t uncompressed, std::int64_t stored);

  ::arrow::io::OutputStream& sink_;
  ::parquet::ColumnChunkMetaDataBuilder& metadata_;
  std::unique_ptr<::arrow::util::Codec> codec_;
  bool isWorthwhile_ = true;  // whether the codec shrank the data page before
  ByteBuffer compressed_;
  std::string joined_;
  std::int64_t values_ = 0;
  std::int64_t dictionaryOffset_ = 0;
  std::int64_t dataOffset_ = 0;
  std::int64_t uncompressedBytes_ = 0;
  std::int64_t bytes_ = 0;
  std::map<::parquet::Encoding::type, std::int32_t> dictionaryPages_;
  std::map<::parquet::Encoding::type, std::int32_t> dataPages_;
};

}  // namespace kyr::parquet
