#include "safe/GrowingPacks.h"

#include <arrow/type.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "safe/BatchLength.h"
#include "safe/Content.h"
#include "safe/GrowingRows.h"
#include "safe/SharedStore.h"
#include "safe/SpilledRuns.h"

namespace kyr::parquet {

namespace {

// Bytes of a batch at the most, unless a single content has more.
constexpr std::size_t kBatchBytes = std::size_t{16} << 20U;
// The same where rows are read from row groups that are decoded as a whole.
constexpr std::size_t kListBatchBytes = std::size_t{512} << 10U;

}  // namespace

void GrowingPacks::forget(const GrowingRows& rows) {
  waiting_.erase(std::remove(waiting_.begin(), waiting_.end(), &rows), waiting_.end());
}

GrowingPacks::Pack& GrowingPacks::packOf(const GrowingRows& rows) {
  const auto& schema = rows.sampleSchema().schema;
  const auto known = known_.find(schema.get());
  if (known != known_.end()) return *known->second;
  Pack& pack = packs_[schema->ToString()];
  schemas_.push_back(schema);
  known_[schema.get()] = &pack;
  return pack;
}

void GrowingPacks::write(const PackFile::LastNote& flushNote) {
  if (waiting_.empty()) return;
  store_.requireOpen();
  std::unordered_map<Pack*, std::vector<PackEntry>> byPack;
  for (GrowingRows* rows : waiting_) {
    const PackRun run = rows->unpacked();
    if (run.count > 0) byPack[&packOf(*rows)].push_back({run, rows});
  }
  const PackFile::LastNote noteLast = [&] {
    store_.sync();
    return flushNote();
  };
  std::size_t left = byPack.size();
  for (auto& [pack, entries] : byPack) {
    GrowingRows& first = *entries.front().rows;
    if (!pack->file) {
      pack->file = std::make_unique<PackFile>(store_, next_, first.sampleSchema(), first.width());
    }
    const bool isNoted = --left == 0 && flushNote;
    write(*pack, std::move(entries), isNoted ? noteLast : PackFile::LastNote());
    if (isNoted) pack->file->sync();  // it may be replaced, and the note is not repeated
    replaceIfMostlyUnneeded(*pack);
  }
  for (GrowingRows* rows : waiting_) rows->noteWaiting(false);
  waiting_.clear();
}

void GrowingPacks::write(Pack& pack, std::vector<PackEntry> entries,
                         const PackFile::LastNote& flushNote) {
  const auto noted = [number = pack.file->number()](const PackEntry& entry, std::uint64_t) {
    entry.rows->notePacked(entry.run.first + entry.run.count, number);
  };
  pack.file->write(std::move(entries), kBatchBytes, noted, flushNote);
}

// What is needed is counted again only when the pack has grown by half since the last time, or rows
// have left memory.
void GrowingPacks::replaceIfMostlyUnneeded(Pack& pack) {
  constexpr std::uint64_t kLeastBatches = 2;  // a smaller pack is never replaced
  const std::uint64_t bytes = pack.file->bytes();
  const std::uint64_t least = kLeastBatches * store_.options().batchBytes;
  if (bytes < std::max(least, pack.checkedBytes + pack.checkedBytes / 2)) return;
  std::vector<PackEntry> needed;
  std::uint64_t neededBytes = 0;
  store_.forEachContent([&](Content& content) {
    GrowingRows* rows = content.growing();
    if (rows == nullptr || &packOf(*rows) != &pack) return;
    const PackRun run = rows->packed();
    if (run.count == 0) return;
    needed.push_back({run, rows});
    neededBytes += bytesIn(rows->slice(run));
  });
  pack.checkedBytes = bytes;
  if (neededBytes > bytes / 2) return;
  Pack fresh;
  fresh.file = std::make_unique<PackFile>(store_, next_, pack.file->contents(), pack.file->width());
  try {
    write(fresh, std::move(needed), {});
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove(fresh.file->path(), ignored);
    throw;
  }
  // The rows of contents that were forgotten since the last flush are still acknowledged.
  std::swap(pack, fresh);
  store_.removeLater(fresh.file->path());
}

void GrowingPacks::sync() {
  for (const auto& [schema, pack] : packs_) {
    if (pack.file) pack.file->sync();
  }
}

void GrowingPacks::spill(const std::vector<GrowingRows*>& contents) {
  store_.requireOpen();
  std::unordered_map<Pack*, std::vector<PackEntry>> byPack;
  for (GrowingRows* rows : contents) {
    const PackRun run = rows->unspilled();
    if (run.count > 0) {
      byPack[&packOf(*rows)].push_back({run, rows});
    } else {
      rows->dropSpilled();
    }
  }
  for (auto& [pack, entries] : byPack) {
    writeSpilled(std::move(entries), 0);
    pack->checkedBytes = 0;
  }
}

void GrowingPacks::writeSpilled(std::vector<PackEntry> entries, int level) {
  GrowingRows& any = *entries.front().rows;
  const bool isFlat = any.sampleSchema().kind == ColumnKind::flat;
  PackFile pack(store_, next_, any.sampleSchema(), any.width());
  std::vector<std::pair<GrowingRows*, SpilledRun>> written;
  std::shared_ptr<SpilledFile> file;
  try {
    pack.write(std::move(entries), isFlat ? kBatchBytes : kListBatchBytes,
               [&](const PackEntry& entry, std::uint64_t row) {
                 const PackRun& run = entry.run;
                 written.emplace_back(entry.rows, SpilledRun{nullptr, run.storageId, run.first,
                                                             run.count, row, entry.bytes});
               });
    // Rows that are in no other place must not be lost by a sync that fails later.
    if (store_.options().sync != SafeStorage::Sync::never) pack.sync();
    pack.finish();
    file = std::make_shared<SpilledFile>(store_, pack.path(), pack.bytes(), level);
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove(pack.path(), ignored);
    throw;
  }
  for (auto& [rows, run] : written) {
    run.file = file;
    rows->noteSpilled(std::move(run));
  }
}

// By their ids, because the packs have them in this order, too.
std::vector<GrowingRows*> GrowingPacks::spilledContents() const {
  std::vector<std::pair<int, GrowingRows*>> found;
  store_.forEachContent([&](Content& content) {
    GrowingRows* rows = content.growing();
    if (rows == nullptr || rows->spilledRuns().empty()) return;
    found.emplace_back(content.id(), rows);
  });
  std::sort(found.begin(), found.end());
  std::vector<GrowingRows*> contents;
  contents.reserve(found.size());
  for (const auto& [id, rows] : found) contents.push_back(rows);
  return contents;
}

void GrowingPacks::mergeSpilled(std::size_t bytes) {
  std::size_t copied = 0;
  for (GrowingRows* rows : spilledContents()) {
    if (copied >= bytes) break;
    copied += rows->writeSpilledBatches();
  }
  std::map<Pack*, std::vector<GrowingRows*>> byPack;
  for (GrowingRows* rows : spilledContents()) byPack[&packOf(*rows)].push_back(rows);
  for (const auto& [pack, contents] : byPack) mergePacks(contents);
  for (const GrowingRows* rows : spilledContents()) {
    for (const SpilledRun& run : rows->spilledRuns().runs()) run.file->release();
  }
}

void GrowingPacks::mergePacks(const std::vector<GrowingRows*>& contents) {
  constexpr std::size_t kFan = 32;
  std::unordered_map<const SpilledFile*, std::uint64_t> neededBytes;
  for (const GrowingRows* rows : contents) {
    for (const SpilledRun& run : rows->spilledRuns().runs()) {
      neededBytes[run.file.get()] += run.bytes;
    }
  }
  std::map<int, std::size_t> packs;  // by level
  for (const auto& [file, needed] : neededBytes) ++packs[file->level()];
  int level = 0;
  const auto isDue = [&](const SpilledFile& file) {
    return packs[file.level()] >= kFan || neededBytes[&file] < file.bytes() / 2;
  };
  std::vector<PackEntry> entries;
  for (GrowingRows* rows : contents) {
    bool goesOn = false;
    for (const SpilledRun& run : rows->spilledRuns().runs()) {
      const bool wasDue = std::exchange(goesOn, isDue(*run.file));
      if (!goesOn) continue;
      level = std::max(level, run.file->level() + (packs[run.file->level()] >= kFan ? 1 : 0));
      // The pack divides longer runs, whose parts would not take the place of whole runs.
      if (wasDue && entries.back().run.count + run.count <= kMaxBatchRows) {
        entries.back().run.count += run.count;
      } else {
        entries.push_back({{rows->unspilled().storageId, run.first, run.count}, rows});
      }
    }
  }
  if (!entries.empty()) writeSpilled(std::move(entries), level);
}

}  // namespace kyr::parquet
