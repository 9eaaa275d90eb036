#include "safe/FileLayouts.h"

#include <arrow/api.h>
#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <cstddef>
#include <stdexcept>
#include <utility>

#include "files/BatchSize.h"
#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"

namespace kyr::parquet {

void requireWritable(::arrow::Compression::type codec) {
  switch (codec) {
    case ::arrow::Compression::UNCOMPRESSED:
    case ::arrow::Compression::SNAPPY:
    case ::arrow::Compression::GZIP:
    case ::arrow::Compression::BROTLI:
    case ::arrow::Compression::ZSTD:
    case ::arrow::Compression::LZ4:
    case ::arrow::Compression::LZ4_HADOOP:
      return;
    default:
      throw std::invalid_argument(fmt::format("Parquet files cannot be written with codec {} ({})",
                                              static_cast<int>(codec),
                                              ::arrow::util::Codec::GetCodecAsString(codec)));
  }
}

const SampleSchema& FileLayouts::sampleSchema(KYRSignalCategory category, KYRSignalDataType type) {
  const auto key = std::make_pair(category, type);
  const auto known = sampleSchemas_.find(key);
  if (known != sampleSchemas_.end()) return known->second;
  SampleSchema made(
      schemaBuilder::getSchema(category, type, /*includeTime=*/false, columnNames::data));
  return sampleSchemas_.emplace(key, std::move(made)).first->second;
}

std::shared_ptr<::parquet::WriterProperties> FileLayouts::properties(
    const AskedCodec& codec) const {
  auto properties =
      codec ? writerOptions_.buildWriterProperties(*codec) : writerOptions_.buildWriterProperties();
  requireWritable(properties->default_column_properties().compression());
  const ::arrow::Status status = checkBatchSize(*properties);
  if (!status.ok()) throw std::invalid_argument(status.message());
  return properties;
}

EncodingChoice FileLayouts::choice(const AskedCodec& codec) const {
  if (encodings_ == SafeStorage::Encodings::options) return {};
  const bool isCodecOpen =
      !codec && writerOptions_.buildWriterProperties()->default_column_properties().compression() ==
                    ::arrow::Compression::UNCOMPRESSED;
  return {true, isCodecOpen, encodings_ == SafeStorage::Encodings::smallest};
}

const FileLayout& FileLayouts::layout(const std::shared_ptr<::arrow::Schema>& schema,
                                      const AskedCodec& codec) {
  constexpr std::size_t kMost = 32;
  for (const KnownLayout& known : layouts_) {
    if (known.schema == schema && known.codec == codec) return known.layout;
  }
  layouts_.push_front({schema, codec, FileLayout(*schema, properties(codec), choice(codec))});
  if (layouts_.size() > kMost) layouts_.pop_back();
  return layouts_.front().layout;
}

::arrow::Compression::type FileLayouts::codec(const std::shared_ptr<::arrow::Schema>& schema,
                                              const AskedCodec& codec) {
  if (codec) return *codec;
  return layout(schema, codec).properties().default_column_properties().compression();
}

}  // namespace kyr::parquet
