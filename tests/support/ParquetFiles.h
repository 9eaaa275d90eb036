#pragma once

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <arrow/ipc/json_simple.h>
#include <parquet/arrow/writer.h>
#include <parquet/file_reader.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kyr::test {

inline void must(const ::arrow::Status& status) {
  if (!status.ok()) throw std::runtime_error(status.ToString());
}

using Columns = std::vector<std::pair<std::string, std::shared_ptr<::arrow::ChunkedArray>>>;

/// A column with a chunk for each text, for example
/// column(arrow::list(arrow::int8()), {"[[1, 2], null]"}).
inline std::shared_ptr<::arrow::ChunkedArray> column(const std::shared_ptr<::arrow::DataType>& type,
                                                     const std::vector<std::string>& chunks) {
  std::shared_ptr<::arrow::ChunkedArray> result;
  must(::arrow::ipc::internal::json::ChunkedArrayFromJSON(type, chunks, &result));
  return result;
}

inline std::shared_ptr<::arrow::Table> tableOf(const Columns& columns) {
  ::arrow::FieldVector fields;
  ::arrow::ChunkedArrayVector arrays;
  fields.reserve(columns.size());
  arrays.reserve(columns.size());
  for (const auto& [name, values] : columns) {
    fields.push_back(::arrow::field(name, values->type()));
    arrays.push_back(values);
  }
  return ::arrow::Table::Make(::arrow::schema(fields), arrays);
}

/// Writes a file as other programs do, with Arrow's own type information.
inline void writeForeignFile(const std::filesystem::path& path, const ::arrow::Table& table,
                             std::int64_t rowsPerGroup = 1024) {
  const auto stream = ::arrow::io::FileOutputStream::Open(path).ValueOrDie();
  must(::parquet::arrow::WriteTable(
      table, ::arrow::default_memory_pool(), stream, rowsPerGroup,
      ::parquet::default_writer_properties(),
      ::parquet::ArrowWriterProperties::Builder().store_schema()->build()));
}

inline std::shared_ptr<::parquet::FileMetaData> metadataOf(const std::filesystem::path& path) {
  return ::parquet::ReadMetaData(::arrow::io::ReadableFile::Open(path).ValueOrDie());
}

/// The number of rows of each row group.
inline std::vector<std::int64_t> rowGroupsOf(const std::filesystem::path& path) {
  const auto metadata = metadataOf(path);
  std::vector<std::int64_t> sizes(static_cast<std::size_t>(metadata->num_row_groups()));
  int group = 0;
  for (std::int64_t& size : sizes) size = metadata->RowGroup(group++)->num_rows();
  return sizes;
}

/// \p rows rows of a column "data" of doubles that count up.
inline std::shared_ptr<::arrow::Table> countingTable(std::int64_t rows, double first = 0) {
  ::arrow::DoubleBuilder builder;
  for (std::int64_t i = 0; i < rows; ++i) must(builder.Append(first + static_cast<double>(i)));
  return ::arrow::Table::Make(::arrow::schema({::arrow::field("data", ::arrow::float64())}),
                              {builder.Finish().ValueOrDie()});
}

/// Writes rows that count up from 0, in row groups of the given sizes.
inline void writeRowGroups(const std::shared_ptr<::arrow::io::OutputStream>& out,
                           const std::vector<int>& sizes) {
  const auto schema = countingTable(0)->schema();
  auto writer = ::parquet::arrow::FileWriter::Open(*schema, ::arrow::default_memory_pool(), out,
                                                   ::parquet::default_writer_properties())
                    .ValueOrDie();
  double first = 0;
  for (const int size : sizes) {
    must(writer->WriteTable(*countingTable(size, first)));
    first += size;
  }
  must(writer->Close());
}

/// The values of the column "data" of doubles.
inline std::vector<double> numbersOf(const ::arrow::Table& table) {
  std::vector<double> result;
  for (const auto& chunk : table.GetColumnByName("data")->chunks()) {
    const auto& values = static_cast<const ::arrow::DoubleArray&>(*chunk);
    result.insert(result.end(), values.raw_values(), values.raw_values() + values.length());
  }
  return result;
}

}  // namespace kyr::test
