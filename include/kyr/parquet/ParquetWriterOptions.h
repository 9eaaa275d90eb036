#pragma once

#include <arrow/util/type_fwd.h>
#include <parquet/properties.h>

#include <cstdint>
#include <memory>

#include "kyr/platform/export.h"

namespace kyr::parquet {

/// \brief A snapshot of the serialization options, as Parquet writer properties.
///
/// Taken when the object is made: later changes of the process-wide options do not reach it.
class KYR_PARQUET_EXPORT ParquetWriterOptions {
 public:
  ParquetWriterOptions();

  /// \brief Properties with the codec of the snapshot.
  std::shared_ptr<::parquet::WriterProperties> buildWriterProperties() const;

  /// \brief The same properties with \p compression for all columns.
  std::shared_ptr<::parquet::WriterProperties> buildWriterProperties(
      const ::arrow::Compression::type& compression) const;

 private:
  ::parquet::ParquetVersion::type version = ::parquet::ParquetVersion::PARQUET_2_6;
  ::parquet::ParquetDataPageVersion dataPageVersion = ::parquet::ParquetDataPageVersion::V2;
  ::arrow::Compression::type compression;
  bool dictionary;
  bool statistics = false;
  std::int64_t dictionaryPageSizeLimit;
  std::int64_t writeBatchSize;
};

}  // namespace kyr::parquet
