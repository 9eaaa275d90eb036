#include "safe/GrowingRows.h"

#include <arrow/api.h>

#include <algorithm>
#include <utility>

#include "safe/BatchLength.h"
#include "safe/GrowingPacks.h"
#include "safe/MemoryRows.h"
#include "safe/PartNotes.h"
#include "safe/SpilledRows.h"
#include "safe/StoredRows.h"
#include "storage/WriteTrace.h"

namespace kyr::parquet {

namespace {

std::size_t longestBatch(std::size_t batchRows, const SafeStorage& options) {
  return std::min(batchRows > 0 ? batchRows : options.batchRows, kMaxBatchRows);
}

}  // namespace

GrowingRows::GrowingRows(ContentName& name, const SampleSchema& schema, std::size_t width,
                         const AskedCodec& codec)
    : store_(name.store()),
      options_(store_.options()),
      memory_(schema, width),
      name_(name),
      width_(width),
      codec_(codec) {}

GrowingRows::~GrowingRows() {
  store_.forgetBatches(*this);
  if (waits_) store_.packs()->forget(*this);
  store_.takeFromGrowing(bytes_);
}

::arrow::Compression::type GrowingRows::codec() {
  return store_.layouts().codec(schema().schema, codec_);
}

std::optional<HeldRows> GrowingRows::inMemory(std::uint64_t from, std::uint64_t to) {
  to = std::min(to, count());
  if (from >= to || from < memoryStart_) return std::nullopt;
  return HeldRows{slice(from, static_cast<std::size_t>(to - from)), nullptr};
}

Tables GrowingRows::read(std::uint64_t from, std::uint64_t to) {
  Tables tables;
  const std::uint64_t diskEnd = std::min(to, memoryStart_);
  if (const std::uint64_t fileEnd = std::min(diskEnd, fileRows_); from < fileEnd) {
    tables.push_back(disk_->file->read(from, fileEnd - from));
    from = fileEnd;
  }
  if (from < diskEnd) {
    tables.push_back(tableOfHeld(schema(), runs_.read(from, diskEnd)));
    from = diskEnd;
  }
  if (from < to) {
    tables.push_back(memory_.table(static_cast<std::size_t>(from - memoryStart_),
                                   static_cast<std::size_t>(to - from)));
  }
  return tables;
}

HeldRows GrowingRows::held(const PackRun& run) const {
  if (run.first >= memoryStart_) return {slice(run), nullptr};
  const std::uint64_t end = run.first + run.count;
  if (end <= memoryStart_) return runs_.read(run.first, end);
  const auto joined = std::make_shared<RowStore>(memory_.schema(), width_);
  joined->append(runs_.read(run.first, memoryStart_).rows);
  joined->append(slice(memoryStart_, static_cast<std::size_t>(end - memoryStart_)));
  return {joined->slice(), joined};
}

void GrowingRows::append(const RowSlice& rows, std::size_t batchRows) {
  // Shapes take memory even where there are no elements.
  const std::size_t growth = memory_.growthFor(rows);
  if (growth > 0 || rows.ends != nullptr) store_.makeRoomFor(growth);
  if (memory_.rows() > 0) {
    if (mayHaveBatch(batchRows)) writeFullBatches(batchRows);
    if (safeRows_ > memoryStart_) {
      dropFront(static_cast<std::size_t>(safeRows_ - memoryStart_), 1);
    }
  }
  const bool grows = memory_.growthFor(rows) > 0 || rows.ends != nullptr;
  memory_.append(rows);
  if (grows) countMemory();
}

std::size_t GrowingRows::spareRows(std::size_t batchRows) const {
  const std::size_t longest = longestBatch(batchRows, options_);
  if (memory_.schema().kind != ColumnKind::flat || safeRows_ > memoryStart_ ||
      unwritten() >= longest) {
    return 0;
  }
  std::size_t bytes = memory_.spareBytes();
  if (batchRows == 0) {
    const std::size_t there = memory_.elementBytes();
    bytes = std::min(bytes, options_.batchBytes - std::min(there, options_.batchBytes));
  }
  return std::min(bytes / width_, longest - unwritten());
}

void GrowingRows::countMemory() {
  store_.takeFromGrowing(bytes_);
  bytes_ = memory_.memoryBytes();
  store_.addToGrowing(bytes_);
}

// Runs at each append. Rules out without a division what batchLength() tells exactly.
bool GrowingRows::mayHaveBatch(std::size_t batchRows) const {
  if (unwritten() >= longestBatch(batchRows, options_)) return true;
  return batchRows == 0 && (memory_.schema().kind != ColumnKind::flat ||
                            memory_.elementBytes() >= options_.batchBytes);
}

void GrowingRows::writeFullBatches(std::size_t batchRows) {
  const std::size_t length =
      batchRows > 0 ? std::min(batchRows, kMaxBatchRows) : batchLength(options_, memory_.slice());
  while (unwritten() >= length) writeRows(length);
}

std::size_t GrowingRows::lengthOfBatch() const {
  if (runs_.empty()) return batchLength(options_, memory_.slice());
  RowSlice rows;
  rows.rows = static_cast<std::size_t>(runs_.rows());
  rows.bytes = runs_.bytes();
  return batchLength(options_, rows);
}

void GrowingRows::writeAll() {
  while (fileRows_ < end()) {
    writeRows(std::min(static_cast<std::size_t>(end() - fileRows_), lengthOfBatch()));
  }
}

std::size_t GrowingRows::writeSpilledBatches() {
  const std::size_t before = runs_.bytes();
  while (!runs_.empty() && runs_.rows() >= lengthOfBatch()) writeRows(lengthOfBatch());
  return before - runs_.bytes();
}

void GrowingRows::writeRows(std::size_t count) {
  const auto span = traceBatch();
  store_.requireOpen();
  if (!disk_) createFile();
  const HeldRows batch = held({name_.id(), fileRows_, count});
  disk_->file->appendBatch(*tableOf(schema(), batch.rows));
  fileRows_ += count;
  if (fileRows_ > safeRows_) {
    const auto fresh = static_cast<std::size_t>(fileRows_ - safeRows_);
    noteSafe(subSlice(batch.rows, count - fresh, fresh));
  }
  runs_.dropBefore(fileRows_);
  store_.noteBatch(*this);
  spareDescriptor();
  // If making the file gave the content another id, nobody would find its rows in packs, which are
  // there under the old one. They follow into the file.
  while (!runs_.empty() && runs_.storageId() != name_.id()) {
    writeRows(std::min(static_cast<std::size_t>(runs_.rows()), lengthOfBatch()));
  }
  store_.syncIfDue();
}

void GrowingRows::noteSafe(const RowSlice& rows) {
  if (!summary_) summary_.emplace(schema());
  summary_->add(rows, nullptr, digests_.add(rows));
  safeRows_ += rows.rows;
}

void GrowingRows::noteSpilled(SpilledRun run) {
  if (run.end() > safeRows_) {
    const RowSlice rows = slice(safeRows_, static_cast<std::size_t>(run.end() - safeRows_));
    noteSafe(rows);
    runs_.add(std::move(run));
    dropSpilled();
  } else {
    runs_.add(std::move(run));
  }
}

void GrowingRows::dropSpilled() {
  dropFront(static_cast<std::size_t>(safeRows_ - memoryStart_), 0);
}

void GrowingRows::createFile() {
  const FileLayout& layout = store_.layouts().layout(schema().schema, codec_);
  std::unique_ptr<GrowingFile> file;
  const int id = name_.id();
  OwnedFile name = name_.createFile([&](const std::filesystem::path& path) {
    file = GrowingFile::create(path, layout, name_.labels().metadata(kPartsOfGrowing));
  });
  if (name_.id() != id) packedRows_ = 0;  // they are there under the other id
  if (!options_.publishesBatches) file->publishOnlyWhenAsked();
  disk_.emplace(std::move(name), std::move(file));
  store_.noteNewFile();
}

void GrowingRows::spareDescriptor() {
  if (!store_.openFiles().mayGrowingStayOpen()) disk_->file->suspend();
}

void GrowingRows::dropFront(std::size_t rows, std::size_t batches) {
  if (rows == 0) return;
  digests_.keepHead(schema(), width_, memory_.slice(0, rows));
  memory_.dropFront(rows, batches);
  memoryStart_ += rows;
  countMemory();
}

std::unique_ptr<ContentRows> GrowingRows::flush() {
  if (isSmall(unpacked())) {
    if (!waits_ && unpacked().count > 0) {
      store_.packs()->add(*this);
      waits_ = true;
    }
    if (!disk_ || disk_->file->isPublished()) return nullptr;
  } else {
    writeAll();
  }
  if (disk_) {
    store_.requireOpen();
    disk_->file->publish();
    spareDescriptor();
  }
  return nullptr;
}

bool GrowingRows::isSmall(const PackRun& run) const {
  constexpr std::size_t kShare = 4;  // of a batch
  if (store_.packs() == nullptr || memory_.schema().dataIndex != 0 ||
      memory_.schema().kind == ColumnKind::unsupported) {
    return false;
  }
  return run.count < std::min(options_.batchRows, kMaxBatchRows) / kShare &&
         bytesIn(slice(run)) < options_.batchBytes / kShare;
}

PackRun GrowingRows::unpacked() const {
  const std::uint64_t first = std::max(safeRows_, packedRows_);
  return {name_.id(), first, end() - first};
}

PackRun GrowingRows::packed() const {
  return {name_.id(), safeRows_, packedRows_ > safeRows_ ? packedRows_ - safeRows_ : 0};
}

void GrowingRows::notePacked(std::uint64_t end, int number) {
  packedRows_ = end;
  packNumber_ = number;
}

std::shared_ptr<const ::arrow::KeyValueMetadata> GrowingRows::notes() const {
  return name_.labels().metadata(kPartsOfGrowing);
}

void GrowingRows::spill() {
  writeAll();
  dropFront(memory_.rows(), 0);
}

void GrowingRows::sync() {
  disk_->file->sync();
  spareDescriptor();
}

std::unique_ptr<ContentRows> GrowingRows::finish() {
  store_.requireOpen();
  if (!disk_ && !runs_.empty() && end() < lengthOfBatch() &&
      store_.mayStayInMemory(bytesIn(memory_.slice()))) {
    if (unwritten() > 0) noteSafe(slice(unspilled()));
    return std::make_unique<SpilledRows>(name_, std::move(runs_), std::move(memory_), codec_,
                                         std::move(digests_), summary_->summary());
  }
  if (!disk_ && runs_.empty()) {
    if (store_.mayStayInMemory(bytesIn(memory_.slice()))) {
      return MemoryRows::of(name_, std::move(memory_), width_, codec_);
    }
    return StoredRows::write(name_, memory_.slice(), {schema(), width_, count()}, codec_);
  }
  writeAll();
  dropFront(memory_.rows(), 0);
  GrowingFile& file = *disk_->file;
  file.publish();
  if (options_.sync != SafeStorage::Sync::never) sync();
  file.finish();
  return std::make_unique<StoredRows>(name_, std::move(disk_->name),
                                      StoredRows::Shape{schema(), width_, count()},
                                      std::move(digests_), summary_->summary());
}

std::unique_ptr<ContentRows> GrowingRows::finishWith(const RowSlice& rows) {
  if (store_.mayStayInMemory(bytesIn(rows))) {
    return MemoryRows::of(name_, schema(), rows, width_, codec_);
  }
  return StoredRows::write(name_, rows, {schema(), width_, rows.rows}, codec_);
}

}  // namespace kyr::parquet
