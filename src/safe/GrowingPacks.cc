#include "safe/GrowingPacks.h"

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
#include "safe/Content.h"
#include "safe/GrowingRows.h"
#include "safe/PartNotes.h"
#include "safe/SharedStore.h"

namespace kyr::parquet {

namespace {

// Bytes of a batch at the most, unless a single content has more.
constexpr std::size_t kBatchBytes = std::size_t{16} << 20U;

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

std::shared_ptr<::arrow::Array> storageIds(const std::vector<PackRun>& runs, std::size_t rows) {
  std::vector<std::int32_t> ids;
  ids.reserve(rows);
  for (const PackRun& run : runs) {
    ids.insert(ids.end(), static_cast<std::size_t>(run.count), run.storageId);
  }
  return std::make_shared<::arrow::Int32Array>(static_cast<std::int64_t>(rows),
                                               ::arrow::Buffer::FromVector(std::move(ids)));
}

}  // namespace

void GrowingPacks::forget(const GrowingRows& rows) {
  waiting_.erase(std::remove(waiting_.begin(), waiting_.end(), &rows), waiting_.end());
}

std::unique_ptr<GrowingPacks::Pack>& GrowingPacks::packOf(const GrowingRows& rows) {
  const auto& schema = rows.sampleSchema().schema;
  const auto known = known_.find(schema.get());
  if (known != known_.end()) return *known->second;
  auto& pack = packs_[schema->ToString()];
  schemas_.push_back(schema);
  known_[schema.get()] = &pack;
  return pack;
}

std::unique_ptr<GrowingPacks::Pack> GrowingPacks::create(const SampleSchema& contents,
                                                         std::size_t width) {
  auto pack = std::make_unique<Pack>(contents, width);
  pack->schema = packSchema(*contents.schema);
  const FileLayout layout = layoutOf(*pack->schema);
  while (!pack->file) {
    pack->number = next_++;
    pack->path = store_.fileOf(0).parent_path() / growingPackName(pack->number);
    try {
      pack->file = GrowingFile::create(pack->path, layout);
    } catch (const std::system_error& error) {
      const bool isMissing = error.code() == std::errc::no_such_file_or_directory;
      if (isMissing && store_.makeDirectory()) continue;
      if (error.code() != std::errc::file_exists) throw;
    }
  }
  store_.noteNewFile();
  return pack;
}

void GrowingPacks::write() {
  if (waiting_.empty()) return;
  std::unordered_map<std::unique_ptr<Pack>*, std::vector<Waiting>> byPack;
  for (GrowingRows* rows : waiting_) {
    const PackRun run = rows->unpacked();
    if (run.count > 0) byPack[&packOf(*rows)].push_back({run, rows});
  }
  for (auto& [pack, waiting] : byPack) {
    GrowingRows& first = *waiting.front().rows;
    if (!*pack) *pack = create(first.sampleSchema(), first.width());
    write(**pack, waiting);
    replaceIfMostlyUnneeded(*pack);
  }
  for (GrowingRows* rows : waiting_) rows->noteWaiting(false);
  waiting_.clear();
}

void GrowingPacks::write(Pack& pack, std::vector<Waiting>& waiting) {
  const auto isBefore = [](const Waiting& a, const Waiting& b) {
    return comesBefore(a.run, b.run);
  };
  if (!std::is_sorted(waiting.begin(), waiting.end(), isBefore)) {
    std::sort(waiting.begin(), waiting.end(), isBefore);
  }
  std::vector<Waiting> batch;
  std::size_t bytes = 0;
  std::uint64_t count = 0;
  for (Waiting one : waiting) {
    for (std::uint64_t left = one.run.count; left > 0; left -= one.run.count) {
      one.run.count = std::min<std::uint64_t>(left, kMaxBatchRows);
      const std::size_t more = bytesIn(one.rows->slice(one.run));
      if (count > 0 && (bytes + more > kBatchBytes || count + one.run.count > kMaxBatchRows)) {
        writeBatch(pack, batch);
        batch.clear();
        bytes = 0;
        count = 0;
      }
      batch.push_back(one);
      bytes += more;
      count += one.run.count;
      one.run.first += one.run.count;
    }
  }
  writeBatch(pack, batch);
}

void GrowingPacks::writeBatch(Pack& pack, const std::vector<Waiting>& batch) {
  std::vector<PackRun> runs;
  runs.reserve(batch.size());
  auto pairs = std::make_shared<::arrow::KeyValueMetadata>();
  pack.gathered.truncate(0);
  for (const Waiting& one : batch) {
    runs.push_back(one.run);
    pack.gathered.append(one.rows->slice(one.run));
    if (!one.rows->needsNotes(pack.number)) continue;
    if (const auto notes = one.rows->notes()) {
      pairs->Append(fmt::format("{}.{}", kPackNotesKey, one.run.storageId),
                    notes->Get(kPartNotesKey).ValueOr(""));
    }
  }
  pairs->Append(kPackRunsKey, writeRuns(runs));
  const std::size_t rows = pack.gathered.rows();
  auto columns = pack.gathered.table(0, rows)->columns();
  columns.push_back(std::make_shared<::arrow::ChunkedArray>(storageIds(runs, rows)));
  pack.isSynced = false;
  pack.file->appendBatch(*::arrow::Table::Make(pack.schema, std::move(columns)), /*publish=*/false,
                         pairs);
  pack.bytes += bytesIn(pack.gathered.slice());
  for (const Waiting& one : batch) {
    one.rows->notePacked(one.run.first + one.run.count, pack.number);
  }
}

// What is needed is counted again only when the pack has grown by half since the last time.
void GrowingPacks::replaceIfMostlyUnneeded(std::unique_ptr<Pack>& pack) {
  constexpr std::uint64_t kLeastBatches = 2;  // a smaller pack is never replaced
  const std::uint64_t least = kLeastBatches * store_.options().batchBytes;
  if (pack->bytes < std::max(least, pack->checkedBytes + pack->checkedBytes / 2)) return;
  std::vector<Waiting> needed;
  std::uint64_t bytes = 0;
  store_.forEachContent([&](Content& content) {
    GrowingRows* rows = content.growing();
    if (rows == nullptr || &packOf(*rows) != &pack) return;
    const PackRun run = rows->packed();
    if (run.count == 0) return;
    needed.push_back({run, rows});
    bytes += bytesIn(rows->slice(run));
  });
  pack->checkedBytes = pack->bytes;
  if (bytes > pack->bytes / 2) return;
  auto fresh = create(pack->gathered.schema(), pack->gathered.width());
  try {
    if (!needed.empty()) write(*fresh, needed);
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove(fresh->path, ignored);
    throw;
  }
  // The rows of contents that were forgotten since the last flush are still acknowledged.
  std::swap(pack, fresh);
  store_.removeLater(fresh->path);
}

void GrowingPacks::sync() {
  for (const auto& [schema, pack] : packs_) {
    if (!pack || pack->isSynced) continue;
    pack->file->sync();
    pack->isSynced = true;
  }
}

}  // namespace kyr::parquet
