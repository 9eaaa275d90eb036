#include "safe/GrowingRows.h"

#include <arrow/api.h>

#include <algorithm>
#include <utility>

#include "safe/BatchLength.h"
#include "safe/MemoryRows.h"
#include "safe/StoredRows.h"
#include "storage/WriteTrace.h"

namespace kyr::parquet {

GrowingRows::GrowingRows(ContentName& name, const SampleSchema& schema, std::size_t width,
                         const AskedCodec& codec)
    : name_(name),
      options_(name.store().options()),
      width_(width),
      codec_(codec),
      memory_(schema, width) {}

::arrow::Compression::type GrowingRows::codec() {
  return name_.store().layouts().codec(schema().schema, codec_);
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
  if (memory_.rows() > 0) {
    if (mayHaveBatch(batchRows)) writeFullBatches(batchRows);
    if (diskRows_ > memoryStart_) {
      dropFront(static_cast<std::size_t>(diskRows_ - memoryStart_), 1);
    }
  }
  memory_.append(rows);
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
  digests_.add(memory_.slice(from, count));
  diskRows_ += count;
  name_.store().noteBatch(*this);
  spareDescriptor();
  name_.store().syncIfDue();
}

void GrowingRows::createFile() {
  const FileLayout& layout = name_.store().layouts().layout(schema().schema, codec_);
  std::unique_ptr<GrowingFile> file;
  OwnedFile name = name_.createFile([&](const std::filesystem::path& path) {
    file = GrowingFile::create(path, layout, name_.labels().metadata());
  });
  if (!options_.publishesBatches) file->publishOnlyWhenAsked();
  disk_.emplace(std::move(name), std::move(file));
  name_.store().noteNewFile();
}

void GrowingRows::spareDescriptor() {
  if (!name_.store().openFiles().mayGrowingStayOpen()) disk_->file->suspend();
}

void GrowingRows::dropFront(std::size_t rows, std::size_t batches) {
  if (rows == 0) return;
  digests_.keepHead(schema(), width_, memory_.slice(0, rows));
  memory_.dropFront(rows, batches);
  memoryStart_ += rows;
}

std::unique_ptr<ContentRows> GrowingRows::flush() {
  writeAll();
  if (disk_) {
    disk_->file->publish();
    spareDescriptor();
  }
  return nullptr;
}

void GrowingRows::sync() {
  disk_->file->sync();
  spareDescriptor();
}

std::unique_ptr<ContentRows> GrowingRows::finish() {
  SharedStore& store = name_.store();
  if (!disk_) {
    if (store.mayStayInMemory(bytesIn(memory_.slice()))) {
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
                                      std::move(digests_));
}

std::unique_ptr<ContentRows> GrowingRows::finishWith(const RowSlice& rows) {
  SharedStore& store = name_.store();
  if (store.mayStayInMemory(bytesIn(rows))) {
    memory_.append(rows);
    return finish();
  }
  return StoredRows::write(name_, rows, {schema(), width_, rows.rows}, codec_);
}

}  // namespace kyr::parquet
