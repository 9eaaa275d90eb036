#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/ByteSource.h"

namespace kyr::parquet {

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
/// \return none if it is no such page, or if its numbers are negative
std::optional<PlainPageHeader> readPlainPageHeader(std::string_view bytes);

/// Reads plain numbers from a page to memory.
/// \param width  bytes of a number in memory; small integers take fewer than in the file
/// \param stored  bytes of a number in the file
/// \return false if the file ends before
bool readPlainNumbers(const ByteSource& file, std::uint64_t offset, std::uint64_t count,
                      std::size_t width, std::size_t stored, char* out);

}  // namespace kyr::parquet
