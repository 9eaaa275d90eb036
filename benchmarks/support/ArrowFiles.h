#pragma once

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <parquet/arrow/reader.h>
#include <parquet/arrow/writer.h>
#include <parquet/exception.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <vector>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/ParquetWriterOptions.h"
#include "kyr/parquet/SchemaBuilder.h"

/// Makes and reads the same files with Arrow alone, to tell which part of the time is ours.
namespace kyr::bench {

inline std::shared_ptr<::arrow::Schema> scalarSchema() {
  return parquet::schemaBuilder::getSchema(Scalar, Double, /*includeTime=*/false,
                                           parquet::columnNames::data);
}

/// A table over the first \p count values. It does not copy them.
inline std::shared_ptr<::arrow::Table> tableOver(const double* values, std::size_t count) {
  auto buffer =
      std::make_shared<::arrow::Buffer>(reinterpret_cast<const std::uint8_t*>(values),
                                        static_cast<std::int64_t>(count * sizeof(double)));
  auto array = std::make_shared<::arrow::DoubleArray>(static_cast<std::int64_t>(count),
                                                      std::move(buffer), nullptr, /*null_count=*/0);
  return ::arrow::Table::Make(scalarSchema(), {std::move(array)});
}

/// The properties that our files are written with, except for the codec.
inline std::shared_ptr<::parquet::WriterProperties> writerProperties() {
  return parquet::ParquetWriterOptions().buildWriterProperties(::arrow::Compression::UNCOMPRESSED);
}

inline void writeFile(const ::arrow::Table& table, const std::filesystem::path& file) {
  PARQUET_ASSIGN_OR_THROW(const auto stream, ::arrow::io::FileOutputStream::Open(file.string()));
  PARQUET_THROW_NOT_OK(::parquet::arrow::WriteTable(table, ::arrow::default_memory_pool(), stream,
                                                    table.num_rows(), writerProperties()));
  PARQUET_THROW_NOT_OK(stream->Close());
}

/// A reader that does not read ahead, because that only costs time with local files.
inline std::unique_ptr<::parquet::arrow::FileReader> openFile(const std::filesystem::path& file) {
  PARQUET_ASSIGN_OR_THROW(const auto stream, ::arrow::io::ReadableFile::Open(file.string()));
  ::parquet::arrow::FileReaderBuilder builder;
  PARQUET_THROW_NOT_OK(builder.Open(stream));
  ::parquet::ArrowReaderProperties properties;
  properties.set_pre_buffer(false);
  std::unique_ptr<::parquet::arrow::FileReader> reader;
  PARQUET_THROW_NOT_OK(builder.properties(properties)->Build(&reader));
  return reader;
}

/// A copy of the values of a flat column.
inline void copyValues(const ::arrow::Table& table, std::vector<double>& values) {
  values.clear();
  values.reserve(static_cast<std::size_t>(table.num_rows()));
  for (const auto& chunk : table.column(0)->chunks()) {
    const auto& array = static_cast<const ::arrow::DoubleArray&>(*chunk);
    values.insert(values.end(), array.raw_values(), array.raw_values() + array.length());
  }
}

inline void readFile(const std::filesystem::path& file, std::vector<double>& values) {
  std::shared_ptr<::arrow::Table> table;
  PARQUET_THROW_NOT_OK(openFile(file)->ReadTable(&table));
  copyValues(*table, values);
}

}  // namespace kyr::bench
