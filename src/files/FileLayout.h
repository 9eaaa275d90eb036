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

/// The number of row groups that use an encoding before it is chosen again. Signals change, but not
/// with every batch.
constexpr std::size_t kEncodingUses = 4;

/// How files of one schema are written.
///
/// Samples are never null. So where encodings are chosen, and in packs (files/pack/PackSchema.h), a
/// single column of numbers is written as a required column, which all readers read several times
/// as fast as one that may have nulls. Row groups of a float64 column whose values ascend are
/// marked then; see NumberFile::Options.
class FileLayout {
 public:
  /// \throws ::parquet::ParquetException if Parquet has no such schema
  FileLayout(const ::arrow::Schema& schema, std::shared_ptr<::parquet::WriterProperties> properties,
             EncodingChoice choice);

  const std::shared_ptr<::arrow::Schema>& schema() const { return schema_; }
  const ::parquet::WriterProperties& properties() const { return *properties_; }

  /// The encoding for the samples in \p rows: chosen from them, or as the properties say.
  ColumnEncoding encodingFor(const ::arrow::Table& rows) const;

  /// Writes a whole Parquet file to \p sink, which stands at its beginning.
  /// \param rowGroups  a table for each row group
  /// \param encoding  for the samples of all row groups; if none is given, it is chosen for every
  ///         few row groups
  /// \throws ::parquet::ParquetException if the rows cannot be encoded, or if the sink says so
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
  bool isPack_;
  bool isFlat_;  // whether samples are numbers
  std::shared_ptr<::parquet::WriterProperties> properties_;
  std::shared_ptr<::parquet::SchemaDescriptor> columns_;
  bool areNumbers_;  // whether samples are numbers or lists of them, which NumberFile writes
  EncodingChoice choice_;
};

}  // namespace kyr::parquet
