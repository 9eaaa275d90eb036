#include "safe/PackFile.h"

#include <arrow/api.h>
#include <arrow/util/key_value_metadata.h>
#include <fmt/format.h>
#include <parquet/properties.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "files/FileLayout.h"
#include "files/pack/GrowingPack.h"
#include "files/pack/PackSchema.h"
#include "safe/BatchLength.h"
#include "safe/GrowingRows.h"
#include "safe/PartNotes.h"
#include "safe/SharedStore.h"
#include "schema/ElementTypes.h"

namespace kyr::parquet {

namespace {

// Rows are written again soon, so that the fastest encoding is the best: plain and uncompressed.
FileLayout layoutOf(const ::arrow::Schema& schema) {
  ::parquet::WriterProperties::Builder builder;
  builder.data_page_version(::parquet::ParquetDataPageVersion::V2)
      ->version(::parquet::ParquetVersion::PARQUET_2_6)
      ->compression(::arrow::Compression::UNCOMPRESSED)
      ->disable_dictionary()
      ->disable_statistics()
      ->max_row_group_length(static_cast<std::int64_t>(kMaxBatchRows));
  return {schema, builder.build(), {}};
}

}  // namespace

PackFile::PackFile(SharedStore& store, int& next, const SampleSchema& contents, std::size_t width)
    : schema_(packSchema(*contents.schema)),
      isNumbers_(contents.kind == ColumnKind::flat && isNumber(*schema_->field(0)->type())),
      gathered_(contents, width) {
  const FileLayout layout = layoutOf(*schema_);
  while (!file_) {
    number_ = next++;
    path_ = store.fileOf(0).parent_path() / growingPackName(number_);
    try {
      file_ = GrowingFile::create(path_, layout);
    } catch (const std::system_error& error) {
      const bool isMissing = error.code() == std::errc::no_such_file_or_directory;
      if (isMissing && store.makeDirectory()) continue;
      if (error.code() != std::errc::file_exists) throw;
    }
  }
  store.noteNewFile();
}

void PackFile::write(std::vector<PackEntry> entries, std::size_t batchBytes, const Noted& noted,
                     const LastNote& lastNote) {
  const auto isBefore = [](const PackEntry& a, const PackEntry& b) {
    return comesBefore(a.run, b.run);
  };
  if (!std::is_sorted(entries.begin(), entries.end(), isBefore)) {
    std::sort(entries.begin(), entries.end(), isBefore);
  }
  std::vector<PackEntry> batch;
  gathered_.truncate(0);
  for (PackEntry entry : entries) {
    for (std::uint64_t left = entry.run.count; left > 0; left -= entry.run.count) {
      entry.run.count = std::min<std::uint64_t>(left, kMaxBatchRows);
      const HeldRows rows = entry.rows->held(entry.run);
      const bool isFull = bytesIn(gathered_.slice()) + bytesIn(rows.rows) > batchBytes ||
                          gathered_.rows() + rows.rows.rows > kMaxBatchRows;
      if (isFull && !batch.empty()) {
        writeBatch(batch, noted, "");
        batch.clear();
        gathered_.truncate(0);
      }
      gathered_.append(rows.rows);
      entry.bytes = bytesIn(rows.rows);
      batch.push_back(entry);
      entry.run.first += entry.run.count;
    }
  }
  if (!batch.empty()) writeBatch(batch, noted, lastNote ? lastNote() : "");
}

void PackFile::writeBatch(const std::vector<PackEntry>& batch, const Noted& noted,
                          const std::string& flushNote) {
  std::vector<PackRun> runs;
  std::vector<IdRun> ids;
  runs.reserve(batch.size());
  ids.reserve(batch.size());
  auto pairs = std::make_shared<::arrow::KeyValueMetadata>();
  for (const PackEntry& entry : batch) {
    runs.push_back(entry.run);
    ids.emplace_back(entry.run.storageId, static_cast<std::size_t>(entry.run.count));
    if (!entry.rows->needsNotes(number_)) continue;
    if (const auto notes = entry.rows->notes()) {
      pairs->Append(fmt::format("{}.{}", kPackNotesKey, entry.run.storageId),
                    notes->Get(kPartNotesKey).ValueOr(""));
    }
  }
  pairs->Append(kPackRunsKey, writeRuns(runs));
  if (!flushNote.empty()) pairs->Append(kPackFlushKey, flushNote);
  const std::size_t rows = gathered_.rows();
  auto columns = gathered_.table(0, rows)->columns();
  columns.push_back(std::make_shared<::arrow::ChunkedArray>(storageIdsOf(ids, isNumbers_)));
  isSynced_ = false;
  std::uint64_t row = file_->rowCount();
  file_->appendBatch(*::arrow::Table::Make(schema_, std::move(columns)), /*publish=*/false, pairs);
  bytes_ += bytesIn(gathered_.slice());
  for (const PackEntry& entry : batch) {
    noted(entry, row);
    row += entry.run.count;
  }
}

void PackFile::sync() {
  if (isSynced_) return;
  file_->sync();
  isSynced_ = true;
}

}  // namespace kyr::parquet
