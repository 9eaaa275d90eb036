#pragma once

#include <arrow/type_fwd.h>
#include <arrow/util/type_fwd.h>
#include <parquet/properties.h>

#include <list>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "files/ColumnEncoding.h"
#include "files/FileLayout.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalTypes.h"
#include "schema/SampleLayout.h"

namespace kyr::parquet {

/// The codec that a signal asks for; empty if it does not.
using AskedCodec = std::optional<::arrow::Compression::type>;

/// \throws std::invalid_argument naming a codec that Parquet files cannot be written with
void requireWritable(::arrow::Compression::type codec);

/// The schemas of samples, and how files of a schema are written. Both are made once and kept.
class FileLayouts {
 public:
  explicit FileLayouts(SafeStorage::Encodings encodings) : encodings_(encodings) {}

  /// The schema of samples. The same object for the same arguments.
  /// \throws std::invalid_argument if there is none
  const SampleSchema& sampleSchema(KYRSignalCategory category, KYRSignalDataType type);

  /// How files of the schema are written. Valid until the next call.
  /// \throws std::invalid_argument if no file can be written with the codec
  const FileLayout& layout(const std::shared_ptr<::arrow::Schema>& schema, const AskedCodec& codec);

  /// The codec that files of the schema have if their rows do not choose one.
  ::arrow::Compression::type codec(const std::shared_ptr<::arrow::Schema>& schema,
                                   const AskedCodec& codec);

 private:
  struct KnownLayout {
    std::shared_ptr<::arrow::Schema> schema;
    AskedCodec codec;
    FileLayout layout;
  };

  std::shared_ptr<::parquet::WriterProperties> properties(const AskedCodec& codec) const;
  // What the rows of a file may choose.
  EncodingChoice choice(const AskedCodec& codec) const;

  SafeStorage::Encodings encodings_;
  ParquetWriterOptions writerOptions_;
  std::map<std::pair<KYRSignalCategory, KYRSignalDataType>, SampleSchema> sampleSchemas_;
  std::list<KnownLayout> layouts_;
};

}  // namespace kyr::parquet
