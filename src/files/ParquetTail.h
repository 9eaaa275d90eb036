#pragma once

#include <parquet/metadata.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/ByteSource.h"

/// How a Parquet file begins and ends: "PAR1", ..., metadata, their length in 4 bytes, "PAR1".
namespace kyr::parquet {

constexpr std::string_view kParquetMagic = "PAR1";
/// The length of the metadata and "PAR1".
constexpr std::size_t kParquetTailBytes = 8;

/// The length of the metadata, from the last kParquetTailBytes of a file.
std::uint32_t metadataLength(std::string_view tail);

/// The serialized metadata at the end of a file; none if it is no complete Parquet file.
/// \param whole  receives all bytes of a file that is so small that it was read as a whole
/// \throws std::system_error naming the file if it cannot be read
std::optional<std::string> readSerializedMetadata(const ByteSource& file,
                                                  std::optional<std::string>& whole);

/// Parses serialized metadata. Lists may have more elements than Parquet's readers accept by
/// default.
/// \throws ::parquet::ParquetException if they are none
std::shared_ptr<::parquet::FileMetaData> parseMetadata(std::string_view metadata);

}  // namespace kyr::parquet
