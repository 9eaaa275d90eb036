#include "files/growing/FileRecovery.h"

#include <arrow/util/key_value_metadata.h>
#include <parquet/exception.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "files/growing/BatchRecord.h"

namespace kyr::parquet {

namespace {

constexpr int kAttempts = 4;
constexpr std::uint64_t kAllRows = std::numeric_limits<std::uint64_t>::max();

// The whole batch records from the start of a file.
struct Records {
  BatchIndex index;
  RecordHeader last;

  std::string footer() const {
    RecordHeader header = last;
    header.offset = last.end();
    header.index = last.index + 1;
    header.rows = index.rows();
    return encodeFooter(header, index.metadata());
  }
};

bool liesWithin(const ::parquet::ColumnChunkMetaData& chunk, const RecordHeader& record) {
  std::int64_t start = chunk.data_page_offset();
  if (chunk.has_dictionary_page() && chunk.dictionary_page_offset() > 0) {
    start = std::min(start, chunk.dictionary_page_offset());
  }
  const std::int64_t size = chunk.total_compressed_size();
  if (start < 0 || size < 0) return false;
  const auto from = static_cast<std::uint64_t>(start);
  const std::uint64_t end = record.dataOffset() + record.rowGroupBytes;
  return from >= record.dataOffset() && from <= end &&
         static_cast<std::uint64_t>(size) <= end - from;
}

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
    if (group->num_rows() != metadata->num_rows()) return false;
    for (int column = 0; column < schema.num_columns(); ++column) {
      if (!liesWithin(*group->ColumnChunk(column), record.header)) return false;
    }
    return true;
  } catch (const ::parquet::ParquetException&) {
    return false;
  }
}

std::optional<Records> readRecords(const DiskFile& file, std::uint64_t end,
                                   std::uint64_t maxRows = kAllRows) {
  auto first = readRecord(file, RecordKind::batch, kParquetMagic.size(), end);
  std::optional<Records> records;
  std::shared_ptr<::parquet::FileMetaData> opening;
  try {
    if (!first || first->header.index != 0) return std::nullopt;
    opening = parseMetadata(first->metadata);
    if (!metadataFit(*first, *opening->schema())) return std::nullopt;
    records = Records{BatchIndex(first->metadata), first->header};
    for (;;) {
      const auto next = readRecord(file, RecordKind::batch, records->last.end(), end);
      if (!next || next->header.fileId != records->last.fileId ||
          next->header.index != records->last.index + 1 ||
          next->header.rows > maxRows - records->index.rows() ||
          !metadataFit(*next, *opening->schema())) {
        return records;
      }
      records->index.append(next->metadata);
      records->last = next->header;
    }
  } catch (const ::parquet::ParquetException&) {
    return records;
  }
}

bool holds(const DiskFile& file, std::uint64_t offset, std::string_view bytes) {
  std::string there(bytes.size(), '\0');
  there.resize(file.readAt(offset, there.data(), there.size()));
  return there == bytes;
}

// Whether a batch begins behind \p from, other than right there, where a torn one may.
bool holdsRecordsBehind(const std::filesystem::path& path, std::uint64_t from, std::uint64_t size) {
  constexpr std::string_view kRecordMagic = "\x8FKYRBAT\n";
  constexpr std::size_t kPieceBytes = std::size_t{1} << 20U;
  const DiskFile file(path, DiskFile::Mode::readOnly);
  std::string piece;
  for (std::uint64_t at = from + 1; at + kRecordMagic.size() <= size; at += kPieceBytes) {
    piece.resize(kPieceBytes + kRecordMagic.size() - 1);
    piece.resize(file.readAt(at, piece.data(), piece.size()));
    for (std::size_t found = piece.find(kRecordMagic); found != std::string::npos;
         found = piece.find(kRecordMagic, found + 1)) {
      // A footer has the same magic.
      std::uint32_t kind = 0;
      file.readAt(at + found + 12, &kind, sizeof(kind));
      if (kind == static_cast<std::uint32_t>(RecordKind::batch)) return true;
    }
  }
  return false;
}

std::optional<BatchIndex> indexFromFooter(const DiskFile& file, std::uint64_t end) {
  const auto footer = readFooter(file, end);
  if (!footer) return std::nullopt;
  try {
    BatchIndex index(footer->metadata);
    if (index.batches() + 1 == footer->header.index && index.rows() == footer->header.rows) {
      return index;
    }
  } catch (const ::parquet::ParquetException&) {
    return std::nullopt;
  }
  return std::nullopt;
}

}  // namespace

RecoveryReport recoverFile(const std::filesystem::path& path, std::uint64_t maxRows,
                           const std::filesystem::path& aside) {
  RecoveryReport report;
  std::uint64_t size = 0;
  std::optional<Records> records;
  std::string footer;
  {
    const DiskFile file(path, DiskFile::Mode::readOnly);
    size = file.size();
    records = readRecords(file, size, maxRows);
    if (!records) return report;
    footer = records->footer();
    const std::uint64_t end = records->last.end();
    report.wasComplete =
        size - end == footer.size() && holds(file, end, footer) && holds(file, 0, kParquetMagic);
  }
  report.isComplete = true;
  report.rowsKept = records->index.rows();
  report.batchesKept = records->index.batches();
  if (report.wasComplete) return report;
  if (!aside.empty() && holdsRecordsBehind(path, records->last.end(), size)) {
    std::filesystem::create_directories(aside.parent_path());
    std::filesystem::copy_file(path, aside, std::filesystem::copy_options::overwrite_existing);
  }
  DiskFile file(path, DiskFile::Mode::readWrite);
  file.truncate(records->last.end());
  file.writeAt(0, {kParquetMagic});
  file.writeAt(records->last.end(), {footer});
  file.syncAll();
  file.close();
  report.bytesCut = size - records->last.end();
  return report;
}

GrowingFileView::GrowingFileView(std::shared_ptr<const DiskFile> file, BatchIndex index,
                                 bool complete)
    : index_(std::move(index)), complete_(complete), reader_(std::move(file)) {}

std::shared_ptr<const ::arrow::KeyValueMetadata> GrowingFileView::keyValueMetadata() const {
  return parseMetadata(index_.metadata(0, 0))->key_value_metadata();
}

std::shared_ptr<::arrow::Table> GrowingFileView::read(
    std::uint64_t first, std::uint64_t count, const std::optional<std::vector<int>>& columns) {
  return reader_.read(index_, first, count, columns);
}

GrowingFileView openGrowingFile(const std::filesystem::path& path) {
  auto file = std::make_shared<const DiskFile>(path, DiskFile::Mode::readOnly);
  // A file that is being written may get another end between two looks at it.
  std::uint64_t size = 0;
  for (int attempt = 0; attempt < kAttempts && file->size() != size; ++attempt) {
    size = file->size();
    if (auto index = indexFromFooter(*file, size)) {
      return {std::move(file), *std::move(index), /*complete=*/true};
    }
  }
  // Batch records never change, so that those that are whole can be relied on.
  auto records = readRecords(*file, file->size());
  if (!records) throw std::runtime_error(path.string() + ": no growing file");
  return {std::move(file), std::move(records->index), /*complete=*/false};
}

}  // namespace kyr::parquet
