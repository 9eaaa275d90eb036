#include "recording/StoredFile.h"

#include <arrow/api.h>
#include <arrow/io/file.h>
#include <arrow/util/compression.h>
#include <arrow/util/key_value_metadata.h>
#include <fmt/format.h>
#include <parquet/file_reader.h>
#include <parquet/metadata.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace kyr::recording {

StoredFile::StoredFile(std::filesystem::path path) : path_(std::move(path)) {
  auto file = ::arrow::io::ReadableFile::Open(path_.string());
  check(file.status());
  check(::parquet::arrow::OpenFile(*file, ::arrow::default_memory_pool(), &reader_));
  check(reader_->GetSchema(&schema_));
}

void StoredFile::check(const ::arrow::Status& status) const {
  if (!status.ok()) {
    throw std::runtime_error(
        fmt::format("{}: cannot be read as a Parquet file: {}", path_.string(), status.message()));
  }
}

std::uint64_t StoredFile::rowCount() const {
  return static_cast<std::uint64_t>(reader_->parquet_reader()->metadata()->num_rows());
}

bool StoredFile::hasColumn(const std::string& name) const {
  return schema_->GetFieldIndex(name) >= 0;
}

std::optional<std::string> StoredFile::metadata(const std::string& key) const {
  const auto pairs = reader_->parquet_reader()->metadata()->key_value_metadata();
  if (!pairs || !pairs->Contains(key)) return std::nullopt;
  return pairs->Get(key).ValueOr("");
}

std::string StoredFile::compression(const std::string& column) const {
  const auto metadata = reader_->parquet_reader()->metadata();
  if (metadata->num_row_groups() == 0) return "uncompressed";
  const auto rowGroup = metadata->RowGroup(0);
  for (int i = 0; i < rowGroup->num_columns(); ++i) {
    const auto chunk = rowGroup->ColumnChunk(i);
    if (chunk->path_in_schema()->ToDotVector().front() == column) {
      return ::arrow::util::Codec::GetCodecAsString(chunk->compression());
    }
  }
  return "uncompressed";
}

std::optional<TimeSpan> StoredFile::span(const std::string& column) const {
  std::optional<TimeSpan> span;
  forEachRowGroup({column}, [&](const auto& columns) {
    if (columns[0]->type()->id() != ::arrow::Type::DOUBLE) return;
    for (const auto& chunk : columns[0]->chunks()) {
      const auto& times = static_cast<const ::arrow::DoubleArray&>(*chunk);
      for (const auto& time : times) {
        if (!time || *time != *time) continue;
        if (!span) span = TimeSpan{*time, *time};
        span->from = std::min(span->from, *time);
        span->to = std::max(span->to, *time);
      }
    }
  });
  return span;
}

void StoredFile::forEachRowGroup(
    const std::vector<std::string>& columns,
    const std::function<void(const std::vector<std::shared_ptr<::arrow::ChunkedArray>>&)>& visit)
    const {
  std::vector<int> fields;
  for (const std::string& name : columns) fields.push_back(schema_->GetFieldIndex(name));
  for (int group = 0; group < reader_->num_row_groups(); ++group) {
    std::vector<std::shared_ptr<::arrow::ChunkedArray>> read(fields.size());
    for (std::size_t i = 0; i < fields.size(); ++i) {
      check(reader_->RowGroup(group)->Column(fields[i])->Read(&read[i]));
    }
    visit(read);
  }
}

}  // namespace kyr::recording
