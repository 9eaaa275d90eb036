#pragma once

#include <parquet/metadata.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/ByteSource.h"

namespace kyr::parquet {

/// The bytes of a file that hold the pages of a column in a row group.
struct PlainChunk {
  std::uint64_t offset = 0;  ///< of the first page
  std::uint64_t bytes = 0;
  bool hasCodec = false;  ///< whether its pages may be compressed
};

/// \param stored  bytes of a number in the file
/// \return none if the chunk has a dictionary, holds other numbers, or does not lie
///         in the file with all its values
std::optional<PlainChunk> plainChunk(const ::parquet::ColumnChunkMetaData& chunk,
                                     std::size_t stored, std::uint64_t fileSize);

/// Bytes that are read at once where a page begins: its header, short levels and more.
constexpr std::size_t kPageStartBytes = 256;

/// The fields of the header of a data page of version 2 whose values are plain and not compressed.
struct PlainPageHeader {
  std::size_t headerBytes = 0;
  std::int64_t entries = 0;  ///< nulls and empty lists included
  std::int64_t nulls = 0;
  std::int64_t rows = 0;
  std::int64_t definitionBytes = 0;
  std::int64_t repetitionBytes = 0;
  std::int64_t pageBytes = 0;  ///< levels and values
};

/// \param bytes  from the beginning of a page on
/// \param hasCodec  whether the column has one, which single pages need not use
/// \return none if it is no such page, or if its numbers are negative
std::optional<PlainPageHeader> readPlainPageHeader(std::string_view bytes, bool hasCodec);

/// Reads plain numbers from a page to memory.
/// \param width  bytes of a number in memory; small integers take fewer than in the file
/// \param stored  bytes of a number in the file
/// \return false if the file ends before
bool readPlainNumbers(const ByteSource& file, std::uint64_t offset, std::uint64_t count,
                      std::size_t width, std::size_t stored, char* out);

}  // namespace kyr::parquet
