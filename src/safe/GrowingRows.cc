#include "safe/GrowingRows.h"

#include <arrow/api.h>

#include <algorithm>
#include <utility>

#include "safe/BatchLength.h"
#include "safe/GrowingPacks.h"
#include "safe/MemoryRows.h"
#include "safe/PartNotes.h"
#include "safe/StoredRows.h"
#include "storage/WriteTrace.h"

namespace kyr::parquet {

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
  if (from < diskEnd) {
    tables.push_back(disk_->file->read(from, diskEnd - from));
    from = diskEnd;
  }
  if (from < to) {
    tables.push_back(memory_.table(static_cast<std::size_t>(from - memoryStart_),
                                   static_cast<std::size_t>(to - from)));
  }
  return tables;
}

void GrowingRows::append(const RowSlice& rows, std::size_t batchRows) {
  store_.makeRoomFor(rows.bytes);
  if (memory_.rows() > 0) {
    if (mayHaveBatch(batchRows)) writeFullBatches(batchRows);
    if (diskRows_ > memoryStart_) {
      dropFront(static_cast<std::size_t>(diskRows_ - memoryStart_), 1);
    }
  }
  memory_.append(rows);
  bytes_ += rows.bytes;
  store_.addToGrowing(rows.bytes);
}

// Runs at each append. Rules out without a division what batchLength() tells exactly.
bool GrowingRows::mayHaveBatch(std::size_t batchRows) const {
  if (unwritten() >= std::min(batchRows > 0 ? batchRows : options_.batchRows, kMaxBatchRows)) {
    return true;
  }
  return batchRows == 0 && (memory_.schema().kind != ColumnKind::flat ||
                            memory_.elementBytes() >= options_.batchBytes);
}

void GrowingRows::writeFullBatches(std::size_t batchRows) {
  const std::size_t length =
      batchRows > 0 ? std::min(batchRows, kMaxBatchRows) : batchLength(options_, memory_.slice());
  while (unwritten() >= length) writeRows(length);
}

void GrowingRows::writeAll() {
  while (unwritten() > 0) {
    const std::size_t length = batchLength(options_, memory_.slice());
    writeRows(std::min(unwritten(), length));
  }
}

void GrowingRows::writeRows(std::size_t count) {
  const auto span = traceBatch();
  if (!disk_) createFile();
  const std::size_t from = memory_.rows() - unwritten();
  disk_->file->appendBatch(*memory_.table(from, count));
  const RowSlice batch = memory_.slice(from, count);
  if (!summary_) summary_.emplace(schema());
  summary_->add(batch, nullptr, digests_.add(batch));
  diskRows_ += count;
  store_.noteBatch(*this);
  spareDescriptor();
  store_.syncIfDue();
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
  const RowSlice dropped = memory_.slice(0, rows);
  digests_.keepHead(schema(), width_, dropped);
  bytes_ -= dropped.bytes;
  store_.takeFromGrowing(dropped.bytes);
  memory_.dropFront(rows, batches);
  memoryStart_ += rows;
}

std::unique_ptr<ContentRows> GrowingRows::flush() {
  if (mayGoToPack()) {
    if (!waits_ && unpacked().count > 0) {
      store_.packs()->add(*this);
      waits_ = true;
    }
    if (!disk_ || disk_->file->isPublished()) return nullptr;
  } else {
    writeAll();
  }
  if (disk_) {
    disk_->file->publish();
    spareDescriptor();
  }
  return nullptr;
}

bool GrowingRows::mayGoToPack() const {
  constexpr std::size_t kShare = 4;  // of a batch
  if (store_.packs() == nullptr || memory_.schema().dataIndex != 0 ||
      memory_.schema().kind == ColumnKind::unsupported) {
    return false;
  }
  const PackRun run = unpacked();
  return run.count < std::min(options_.batchRows, kMaxBatchRows) / kShare &&
         bytesIn(slice(run)) < options_.batchBytes / kShare;
}

PackRun GrowingRows::unpacked() const {
  const std::uint64_t first = std::max(diskRows_, packedRows_);
  return {name_.id(), first, memoryStart_ + memory_.rows() - first};
}

PackRun GrowingRows::packed() const {
  return {name_.id(), diskRows_, packedRows_ > diskRows_ ? packedRows_ - diskRows_ : 0};
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
  if (!disk_) {
    if (store_.mayStayInMemory(bytesIn(memory_.slice()))) {
      return std::make_unique<MemoryRows>(name_, std::move(memory_), width_, codec_);
    }
    return StoredRows::write(name_, memory_.slice(), {schema(), width_, count()}, codec_);
  }
  writeAll();
  GrowingFile& file = *disk_->file;
  if (!file.isFinished()) {  // it is, if closing it failed before
    file.publish();
    if (options_.sync != SafeStorage::Sync::never) sync();
    file.finish();
  }
  dropFront(memory_.rows(), 0);
  return std::make_unique<StoredRows>(name_, std::move(disk_->name),
                                      StoredRows::Shape{schema(), width_, count()},
                                      std::move(digests_), summary_->summary());
}

std::unique_ptr<ContentRows> GrowingRows::finishWith(const RowSlice& rows) {
  if (store_.mayStayInMemory(bytesIn(rows))) {
    memory_.append(rows);
    return finish();
  }
  return StoredRows::write(name_, rows, {schema(), width_, rows.rows}, codec_);
}

}  // namespace kyr::parquet
