#pragma once

#include <arrow/io/file.h>
#include <fcntl.h>
#include <parquet/arrow/schema.h>
#include <parquet/column_reader.h>
#include <parquet/column_writer.h>
#include <parquet/exception.h>
#include <parquet/file_reader.h>
#include <parquet/file_writer.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/ArrowFiles.h"
#include "support/Bench.h"

/// The same files hashed, written and read in a few lines, without our library.
namespace kyr::bench {

/// A serial 64-bit hash that takes one word in each step, like both of our content hashes.
inline std::uint64_t bareHash(const void* data, std::size_t bytes) {
  std::uint64_t hash = 1;
  for (std::size_t at = 0; at + 8 <= bytes; at += 8) {
    std::uint64_t word;
    std::memcpy(&word, static_cast<const char*>(data) + at, 8);
    hash ^= (hash >> 2) + (hash << 6) + 0x9e3779b9 + word;
  }
  return hash;
}

/// Writes the file that writeFile() makes of a scalar signal, with Parquet's own column writer.
inline void writeLowLevel(const double* values, std::size_t count, const fs::path& file) {
  static const auto properties = writerProperties();
  static const auto schema = [] {
    std::shared_ptr<::parquet::SchemaDescriptor> descriptor;
    PARQUET_THROW_NOT_OK(
        ::parquet::arrow::ToParquetSchema(scalarSchema().get(), *properties, &descriptor));
    return descriptor;
  }();
  const std::vector<std::int16_t> levels(count, 1);
  PARQUET_ASSIGN_OR_THROW(const auto stream, ::arrow::io::FileOutputStream::Open(file.string()));
  const auto writer = ::parquet::ParquetFileWriter::Open(
      stream, std::static_pointer_cast<::parquet::schema::GroupNode>(schema->schema_root()),
      properties);
  auto* column = writer->AppendRowGroup()->NextColumn();
  static_cast<::parquet::DoubleWriter*>(column)->WriteBatch(static_cast<std::int64_t>(count),
                                                            levels.data(), nullptr, values);
  writer->Close();
  PARQUET_THROW_NOT_OK(stream->Close());
}

/// Reads the values of such a file with Parquet's own column reader.
inline void readLowLevel(const fs::path& file, std::vector<double>& values) {
  const auto reader = ::parquet::ParquetFileReader::OpenFile(file.string());
  values.resize(static_cast<std::size_t>(reader->metadata()->num_rows()));
  std::vector<std::int16_t> levels(values.size());
  std::size_t at = 0;
  for (int group = 0; group < reader->metadata()->num_row_groups(); ++group) {
    const auto column = reader->RowGroup(group)->Column(0);
    auto& doubles = static_cast<::parquet::DoubleReader&>(*column);
    for (std::int64_t got = 1; got > 0 && doubles.HasNext(); at += static_cast<std::size_t>(got)) {
      doubles.ReadBatch(static_cast<std::int64_t>(values.size() - at), levels.data(), nullptr,
                        &values[at], &got);
    }
  }
}

/// Reads bytes [from, from + bytes.size()) of a file with the system's own call.
inline void readBytes(const fs::path& file, std::size_t from, std::vector<char>& bytes) {
  const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  const auto got = pread(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(from));
  close(descriptor);
  if (got != static_cast<ssize_t>(bytes.size())) throw std::runtime_error("a short read");
}

}  // namespace kyr::bench
