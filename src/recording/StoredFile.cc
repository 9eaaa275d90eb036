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

#include "files/pack/PackFile.h"

namespace kyr::recording {

void noteTime(std::optional<TimeSpan>& span, double time) {
  if (time != time) return;
  if (!span) span = TimeSpan{time, time};
  span->from = std::min(span->from, time);
  span->to = std::max(span->to, time);
}

StoredFile::StoredFile(std::filesystem::path path) : path_(std::move(path)) {
  auto file = ::arrow::io::ReadableFile::Open(path_.string());
  check(file.status());
  check(::parquet::arrow::OpenFile(*file, ::arrow::default_memory_pool(), &reader_));
  check(reader_->GetSchema(&schema_));
  count_ = static_cast<std::uint64_t>(reader_->parquet_reader()->metadata()->num_rows());
}

StoredFile::StoredFile(std::filesystem::path pack, std::uint64_t first, std::uint64_t count)
    : StoredFile(std::move(pack)) {
  first_ = first;
  count_ = count;
  const int ids = schema_->GetFieldIndex(parquet::kPackColumn);
  if (ids >= 0) schema_ = schema_->RemoveField(ids).ValueOr(schema_);
}

void StoredFile::check(const ::arrow::Status& status) const {
  if (!status.ok()) {
    throw std::runtime_error(
        fmt::format("{}: cannot be read as a Parquet file: {}", path_.string(), status.message()));
  }
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
        if (time) noteTime(span, *time);
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
  const auto metadata = reader_->parquet_reader()->metadata();
  std::uint64_t end = 0;  // of the row group
  for (int group = 0; group < reader_->num_row_groups(); ++group) {
    const std::uint64_t start = end;
    end += static_cast<std::uint64_t>(metadata->RowGroup(group)->num_rows());
    const std::uint64_t from = std::max(start, first_);
    const std::uint64_t to = std::min(end, first_ + count_);
    if (from >= to && start != end) continue;
    std::vector<std::shared_ptr<::arrow::ChunkedArray>> read(fields.size());
    for (std::size_t i = 0; i < fields.size(); ++i) {
      check(reader_->RowGroup(group)->Column(fields[i])->Read(&read[i]));
      read[i] = read[i]->Slice(static_cast<std::int64_t>(from - start),
                               static_cast<std::int64_t>(to - from));
    }
    visit(read);
  }
}

}  // namespace kyr::recording
