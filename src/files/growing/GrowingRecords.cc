#include "files/growing/GrowingRecords.h"

#include <parquet/exception.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "files/ParquetTail.h"

namespace kyr::parquet {

namespace {

// Whether the metadata are those of such a record; a checksum can be made to fit.
bool metadataFit(const WholeRecord& record, const ::parquet::SchemaDescriptor& schema) {
  try {
    const auto metadata = parseMetadata(record.metadata);
    const int groups = record.header.index == 0 ? 0 : 1;
    if (metadata->num_row_groups() != groups || !metadata->schema()->Equals(schema) ||
        static_cast<std::uint64_t>(metadata->num_rows()) != record.header.rows) {
      return false;
    }
    if (groups == 0) return true;
    const auto group = metadata->RowGroup(0);
    const ByteSpan bytes = bytesOf(*group);
    return group->num_rows() == metadata->num_rows() && bytes.from >= record.header.dataOffset() &&
           bytes.to <= record.header.dataOffset() + record.header.rowGroupBytes;
  } catch (const ::parquet::ParquetException&) {
    return false;
  }
}

std::optional<WholeRecord> batchRecord(const ByteSource& file, std::uint64_t offset,
                                       const RecordLimits& limits) {
  return limits.checks ? readRecord(file, RecordKind::batch, offset, limits.end)
                       : readRecordUnchecked(file, RecordKind::batch, offset, limits.end);
}

}  // namespace

std::string footerOf(const BatchIndex& index, std::uint64_t fileId, std::uint64_t offset,
                     std::uint64_t records) {
  RecordHeader header;
  header.fileId = fileId;
  header.offset = offset;
  header.index = records;
  header.rows = index.rows();
  return encodeFooter(header, index.metadata());
}

std::string GrowingRecords::footer() const { return footerOf(index, fileId, end, count); }

ByteSpan bytesOf(const ::parquet::RowGroupMetaData& group) {
  ByteSpan all{std::numeric_limits<std::uint64_t>::max(), 0};
  for (int column = 0; column < group.num_columns(); ++column) {
    const auto chunk = group.ColumnChunk(column);
    std::int64_t start = chunk->data_page_offset();
    if (chunk->has_dictionary_page() && chunk->dictionary_page_offset() > 0) {
      start = std::min(start, chunk->dictionary_page_offset());
    }
    const std::int64_t size = chunk->total_compressed_size();
    if (start < 0 || size < 0) throw ::parquet::ParquetException("a chunk at a negative place");
    all.from = std::min(all.from, static_cast<std::uint64_t>(start));
    all.to = std::max(all.to, static_cast<std::uint64_t>(start) + static_cast<std::uint64_t>(size));
  }
  all.from = std::min(all.from, all.to);
  return all;
}

std::optional<GrowingRecords> recordsFromFooter(const ByteSource& file, std::uint64_t end) {
  const auto footer = readFooter(file, end);
  if (!footer) return std::nullopt;
  try {
    GrowingRecords records{BatchIndex(footer->metadata), footer->header.fileId,
                           footer->header.index, footer->header.offset, /*isPublished=*/true};
    if (records.index.batches() + 1 == records.count &&
        records.index.rows() == footer->header.rows) {
      return records;
    }
  } catch (const ::parquet::ParquetException&) {
    return std::nullopt;
  }
  return std::nullopt;
}

std::optional<GrowingRecords> recordsFromStart(const ByteSource& file, const RecordLimits& limits) {
  const auto first = batchRecord(file, kParquetMagic.size(), limits);
  if (!first || first->header.index != 0) return std::nullopt;
  std::optional<GrowingRecords> records;
  try {
    const auto opening = parseMetadata(first->metadata);
    if (!metadataFit(*first, *opening->schema())) return std::nullopt;
    records = GrowingRecords{BatchIndex(first->metadata), first->header.fileId, 1,
                             first->header.end(), /*isPublished=*/false};
  } catch (const ::parquet::ParquetException&) {
    return std::nullopt;
  }
  readOn(*records, file, limits);
  return records;
}

void readOn(GrowingRecords& records, const ByteSource& file, const RecordLimits& limits) {
  std::shared_ptr<::parquet::FileMetaData> opening;
  while (records.index.rows() < limits.wantedRows) {
    const auto next = batchRecord(file, records.end, limits);
    if (!next || next->header.fileId != records.fileId || next->header.index != records.count ||
        next->header.rows > limits.maxRows - records.index.rows()) {
      return;
    }
    try {
      if (!opening) opening = parseMetadata(records.index.metadata(0, 0));
      if (!metadataFit(*next, *opening->schema())) return;
      records.index.append(next->metadata);
    } catch (const ::parquet::ParquetException&) {
      return;
    }
    ++records.count;
    records.end = next->header.end();
    records.isPublished = false;
    if (limits.taken) limits.taken(*next);
  }
}

}  // namespace kyr::parquet
