#pragma once

#include <arrow/type_fwd.h>
#include <parquet/properties.h>
#include <parquet/schema.h>

#include <memory>
#include <optional>
#include <vector>

#include "files/ColumnEncoding.h"

namespace arrow::io {
class OutputStream;
}

namespace kyr::parquet {

/// Row groups that an encoding is used for before it is chosen anew: signals change, but not with
/// every batch.
constexpr std::size_t kEncodingUses = 4;

/// How files of one schema are written.
///
/// No sample is missing, ever. Where encodings are chosen, a single column of numbers is therefore
/// written as a required one, which all readers read several times as fast as one that may have
/// nulls.
class FileLayout {
 public:
  /// \throws ::parquet::ParquetException if Parquet has no such schema
  FileLayout(const ::arrow::Schema& schema, std::shared_ptr<::parquet::WriterProperties> properties,
             EncodingChoice choice);

  const std::shared_ptr<::arrow::Schema>& schema() const { return schema_; }
  const ::parquet::WriterProperties& properties() const { return *properties_; }

  /// What the samples in \p rows ask for, as far as it is to be chosen.
  ColumnEncoding encodingFor(const ::arrow::Table& rows) const;

  /// Writes a whole Parquet file to \p sink, which stands at its beginning.
  /// \param rowGroups  each a row group
  /// \param encoding  of the samples; chosen for every few row groups if none is given
  /// \throws ::parquet::ParquetException if they cannot be encoded, or the sink says so
  void write(const std::shared_ptr<::arrow::io::OutputStream>& sink,
             const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues,
             const std::vector<const ::arrow::Table*>& rowGroups,
             std::optional<ColumnEncoding> encoding = std::nullopt) const;

 private:
  using RowGroups = std::vector<const ::arrow::Table*>;

  void writeNumbers(const std::shared_ptr<::arrow::io::OutputStream>& sink,
                    const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues,
                    const RowGroups& rowGroups, const std::vector<ColumnEncoding>& encodings) const;
  void writeAny(const std::shared_ptr<::arrow::io::OutputStream>& sink,
                const std::shared_ptr<const ::arrow::KeyValueMetadata>& keyValues,
                const RowGroups& rowGroups, const ColumnEncoding& encoding) const;
  std::shared_ptr<::parquet::WriterProperties> propertiesFor(const ColumnEncoding& encoding) const;

  std::shared_ptr<::arrow::Schema> schema_;
  bool isFlat_;  // one column of numbers, whose chunks are written without Arrow's table writer
  std::shared_ptr<::parquet::WriterProperties> properties_;
  std::shared_ptr<::parquet::SchemaDescriptor> columns_;
  EncodingChoice choice_;
};

}  // namespace kyr::parquet
