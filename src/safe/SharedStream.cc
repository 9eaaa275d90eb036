#include "safe/SharedStream.h"

#include <arrow/api.h>
#include <fmt/format.h>
#include <parquet/exception.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "files/ParquetTail.h"
#include "files/PlainFile.h"
#include "files/growing/BatchRecord.h"
#include "files/pack/PackFile.h"
#include "schema/TypeNames.h"
#include "storage/WriteTrace.h"

namespace kyr::parquet {

namespace {

BatchIndex indexOf(const DiskFile& file) {
  const auto metadata = readSerializedMetadata(file);
  if (!metadata) {
    throw std::runtime_error(file.path().string() + ": is no complete Parquet file");
  }
  try {
    return BatchIndex(*metadata);
  } catch (const ::parquet::ParquetException& error) {
    throw std::runtime_error(file.path().string() + ": " + error.what());
  }
}

// As signals have it; a file's columns may be required ones.
std::shared_ptr<::arrow::Schema> withNulls(const ::arrow::Schema& schema) {
  ::arrow::FieldVector fields;
  for (const auto& field : schema.fields()) fields.push_back(field->WithNullable(true));
  return ::arrow::schema(std::move(fields));
}

// Parquet divides longer row groups.
constexpr std::size_t kMaxRows = 1048576;

}  // namespace

StoredRows::StoredRows(const std::filesystem::path& path)
    : file_(std::make_shared<DiskFile>(path, DiskFile::Mode::readOnly)),
      index_(indexOf(*file_)),
      reader_(file_) {}

::arrow::Compression::type StoredRows::codec() const {
  if (index_.batches() == 0) return ::arrow::Compression::UNCOMPRESSED;
  return parseMetadata(index_.metadata(0, 1))->RowGroup(0)->ColumnChunk(0)->compression();
}

SharedStream::SharedStream(std::shared_ptr<SharedStore> store, int id)
    : store_(std::move(store)), id_(id) {}

std::shared_ptr<SharedStream> SharedStream::create(std::shared_ptr<SharedStore> store,
                                                   const SampleSchema& schema, std::size_t width,
                                                   const SharedStore::Compression& compression) {
  const int id = store->newId();
  std::shared_ptr<SharedStream> stream(new SharedStream(std::move(store), id));
  stream->width_ = width;
  stream->compression_ = compression;
  stream->memory_.emplace(schema, width);
  stream->store_->note(id, stream);
  return stream;
}

std::shared_ptr<SharedStream> SharedStream::adopt(std::shared_ptr<SharedStore> store, int id,
                                                  PackedRows packed) {
  std::shared_ptr<SharedStream> stream(new SharedStream(std::move(store), id));
  stream->sealed_ = true;
  stream->hasFile_ = !packed.pack;
  stream->packed_ = std::move(packed);
  stream->store_->reserve(id);
  stream->store_->note(id, stream);
  return stream;
}

void SharedStream::open() {
  if (memory_) return;
  if (packed_.pack) {
    width_ = packed_.pack->width();
    diskRows_ = memoryStart_ = packed_.count;
    memory_.emplace(packed_.pack->schema(), width_);
    return;
  }
  const auto file = store_->stored(id_);
  const SampleSchema schema(withNulls(*file->read(0, 0)->schema()));
  width_ = elementBytes(schema);
  diskRows_ = memoryStart_ = file->rows();
  memory_.emplace(schema, width_);
}

SharedStream::~SharedStream() {
  takeOut();
  if (file_) store_->countOpen(-1);
  file_.reset();
  store_->forget(id_);
  store_->countWritten(heldBytes_);
  if (hasFile_) store_->removeFile(id_);
}

void SharedStream::hangUnder(Forks& forks, SharedStream* parent, const ForkKey& key) {
  forks[key] = this;
  place_ = &forks;
  parent_ = parent;
  key_ = key;
}

void SharedStream::hangUnderRoot(Forks& roots, const ForkKey& key) {
  hangUnder(roots, nullptr, key);
}

// Of the streams that part from this one, the one that leaves last takes its place; up to where
// they leave, it is equal to this one, so the others part from it.
void SharedStream::takeOut() noexcept {
  if (forks_.empty()) {
    if (place_ != nullptr) place_->erase(key_);
    return;
  }
  const auto last =
      std::max_element(forks_.begin(), forks_.end(),
                       [](const auto& a, const auto& b) { return a.first.row < b.first.row; });
  SharedStream* heir = last->second;
  forks_.erase(last);
  for (const auto& [key, stream] : forks_) stream->hangUnder(heir->forks_, heir, key);
  forks_.clear();
  if (place_ != nullptr) {
    heir->hangUnder(*place_, parent_, key_);
  } else {
    heir->place_ = nullptr;
    heir->parent_ = nullptr;
  }
}

std::size_t SharedStream::batchLength(const RowSlice& rows, std::size_t batchRows) const {
  if (batchRows > 0) return std::min(batchRows, kMaxRows);
  const SafeStorage& options = store_->options();
  const std::size_t perRow = std::max<std::size_t>(1, bytesIn(rows) / rows.rows);
  const std::size_t byBytes = std::max<std::size_t>(1, options.batchBytes / perRow);
  return std::min({options.batchRows, byBytes, kMaxRows});
}

// Rules out without dividing, at each append, what batchLength() tells exactly.
bool SharedStream::mayHaveBatch(std::size_t batchRows) const {
  const SafeStorage& options = store_->options();
  if (unwritten() >= std::min(batchRows > 0 ? batchRows : options.batchRows, kMaxRows)) return true;
  return batchRows == 0 &&
         (schema().kind != ColumnKind::flat || memory_->elementBytes() >= options.batchBytes);
}

// What is written stays in memory until something follows.
void SharedStream::extend(const RowSlice& rows, std::size_t batchRows) {
  if (memory_->rows() > 0) {
    if (mayHaveBatch(batchRows)) writeFullBatches(batchRows);
    if (diskRows_ > memoryStart_) dropFront(static_cast<std::size_t>(diskRows_ - memoryStart_), 1);
  }
  memory_->append(rows);
}

void SharedStream::writeFullBatches(std::size_t batchRows) {
  for (const std::size_t length = batchLength(memory_->slice(), batchRows);
       unwritten() >= length;) {
    writeRows(length);
  }
}

void SharedStream::writeAll() {
  while (unwritten() > 0) writeRows(std::min(unwritten(), batchLength(memory_->slice(), 0)));
}

void SharedStream::writeRows(std::size_t count) {
  const auto span = traceBatch();
  const bool isNew = !file_;
  if (isNew) openFile();
  const std::size_t from = memory_->rows() - unwritten();
  file_->appendBatch(*memory_->table(from, count));
  batches_.push_back({diskRows_, diskRows_ + count, digestOf(memory_->slice(from, count))});
  diskRows_ += count;
  hasUnsynced_ = true;
  spareDescriptor();
  store_->noteWrite(isNew);
}

// Another pool over the same directory may have taken the name.
template <typename Create>
void SharedStream::createFile(Create&& create) {
  for (;;) {
    try {
      create(store_->fileOf(id_));
      hasFile_ = true;
      return;
    } catch (const std::system_error& error) {
      if (error.code() != std::errc::file_exists) throw;
    }
    store_->forget(id_);
    id_ = store_->newId();
    store_->note(id_, shared_from_this());
  }
}

void SharedStream::spareDescriptor() {
  if (file_ && !store_->mayStayOpen()) file_->suspend();
}

void SharedStream::openFile() {
  createFile([&](const std::filesystem::path& path) {
    file_ =
        GrowingFile::create(path, store_->layout(schema().schema, compression_), describedParts());
  });
  store_->countOpen(1);
}

std::shared_ptr<const ::arrow::KeyValueMetadata> SharedStream::describedParts() const {
  nlohmann::json parts = nlohmann::json::array();
  for (const PartLabel* label = labels_; label != nullptr; label = label->after) {
    const SignalLabel& signal = *label->signal;
    parts.push_back({{"signalId", signal.signalId},
                     {"part", label->part == SignalPart::time ? "time" : "data"},
                     {"dataType", dataTypeName(signal.dataType)},
                     {"category", categoryName(signal.category)},
                     {"name", signal.name},
                     {"unit", signal.unit}});
  }
  std::sort(parts.begin(), parts.end());
  return ::arrow::key_value_metadata({"kyr.signals"}, {parts.dump()});
}

void SharedStream::dropFront(std::size_t rows, std::size_t batches) {
  if (rows == 0) return;
  keepHead(memory_->slice(0, rows));
  memory_->dropFront(rows, batches);
  memoryStart_ += rows;
}

void SharedStream::keepHead(const RowSlice& rows) {
  if (head_) return;
  constexpr std::size_t kHeadRows = 64;
  constexpr std::size_t kHeadBytes = 16384;
  std::size_t count = std::min(rows.rows, kHeadRows);
  while (subSlice(rows, 0, count).bytes > kHeadBytes) count /= 2;
  head_.emplace(schema(), width_);
  head_->append(subSlice(rows, 0, count));
}

void SharedStream::flush() {
  flushHeld();
  if (sealed_) return;
  writeAll();
  if (file_) file_->publish();
  spareDescriptor();
}

void SharedStream::seal() {
  if (sealed_) return;
  const bool isNew = !file_;
  if (isNew && store_->mayHold(bytesIn(memory_->slice()))) {
    hold();
    sealed_ = true;
    return;
  }
  if (isNew) {
    writeWhole(memory_->slice());
  } else {
    writeAll();
    if (!file_->isFinished()) {  // it is, if closing it failed before
      file_->publish();
      if (store_->options().sync != SafeStorage::Sync::never) sync();
      file_->finish();
    }
    file_.reset();
    store_->countOpen(-1);
  }
  dropFront(memory_->rows(), 0);
  sealed_ = true;
  if (isNew) store_->noteWrite(/*isNewFile=*/true);
}

void SharedStream::sealWith(const RowSlice& rows) {
  if (store_->mayHold(bytesIn(rows))) {
    memory_->append(rows);
    hold();
    sealed_ = true;
    return;
  }
  writeWhole(rows);
  keepHead(rows);
  memoryStart_ = rows.rows;
  sealed_ = true;
  store_->noteWrite(/*isNewFile=*/true);
}

// Nothing went to disk before, so nothing must be complete in between.
void SharedStream::writeWhole(const RowSlice& rows) {
  const auto span = traceBatch();
  createFile([&](const std::filesystem::path& path) {
    writePlain(path, rows, store_->options().sync != SafeStorage::Sync::never);
  });
  forEachBatch(rows, [&](std::size_t from, const RowSlice& batch) {
    batches_.push_back({from, from + batch.rows, digestOf(batch)});
  });
  diskRows_ = rows.rows;
}

template <typename Visit>
void SharedStream::forEachBatch(const RowSlice& rows, Visit&& visit) const {
  for (std::size_t from = 0; from < rows.rows;) {
    const std::size_t count = std::min(rows.rows - from, batchLength(rows, 0));
    visit(from, subSlice(rows, from, count));
    from += count;
  }
}

void SharedStream::writePlain(const std::filesystem::path& path, const RowSlice& rows,
                              bool sync) const {
  std::vector<std::shared_ptr<::arrow::Table>> tables;
  forEachBatch(rows, [&](std::size_t, const RowSlice& batch) {
    tables.push_back(tableOf(schema(), batch));
  });
  writePlainFile(path, store_->layout(schema().schema, askedCodec()), describedParts(), tables,
                 sync);
}

void SharedStream::hold() {
  heldBytes_ = bytesIn(memory_->slice());
  store_->countHeld(heldBytes_);
}

void SharedStream::writeOut() {
  if (hasFile_ || !sealed_) return;
  open();
  if (packed_.pack) {
    memory_->append(held(0, packed_.count)->rows);
    memoryStart_ = diskRows_ = 0;
    compression_ = askedCodec();
    packed_.pack.reset();
    hold();
  }
  writeWhole(memory_->slice());
  store_->countWritten(std::exchange(heldBytes_, 0));
  dropFront(memory_->rows(), 0);
  store_->noteWrite(/*isNewFile=*/true);
}

void SharedStream::writeCopy(const std::filesystem::path& path, bool sync) {
  open();
  const auto all = held(0, rows());
  writePlain(path, all->rows, sync);
}

::arrow::Compression::type SharedStream::codec() const {
  if (packed_.pack) return packed_.pack->codec();
  if (hasFile_ && sealed_) return store_->stored(id_)->codec();
  if (compression_) return *compression_;
  const FileLayout& layout = store_->layout(schema().schema, compression_);
  return layout.properties().default_column_properties().compression();
}

// A pack without a codec leaves it open which one a file shall have.
SharedStore::Compression SharedStream::askedCodec() const {
  const bool isOpen = !packed_.pack || packed_.pack->codec() == ::arrow::Compression::UNCOMPRESSED;
  return isOpen ? compression_ : packed_.pack->codec();
}

std::optional<HeldRows> SharedStream::held(std::uint64_t from, std::uint64_t to) {
  if (packed_.pack) return packed_.pack->read(id_, packed_.first + from, to - from);
  if (from < memoryStart_) return std::nullopt;
  return HeldRows{inMemory(from, static_cast<std::size_t>(to - from)), nullptr};
}

void SharedStream::sync() {
  if (file_ && hasUnsynced_) file_->sync();
  hasUnsynced_ = false;
  spareDescriptor();
}

const SharedStream::Batch* SharedStream::batchOf(std::uint64_t row) const {
  const auto found =
      std::upper_bound(batches_.begin(), batches_.end(), row,
                       [](std::uint64_t at, const Batch& batch) { return at < batch.end; });
  return found == batches_.end() ? nullptr : &*found;
}

std::vector<std::shared_ptr<::arrow::Table>> SharedStream::read(std::uint64_t from,
                                                                std::uint64_t to) {
  std::vector<std::shared_ptr<::arrow::Table>> tables;
  if (packed_.pack && from < to) {
    const auto keeper = std::make_shared<RowStore>(schema(), width_);
    keeper->append(held(from, to)->rows);
    const auto table = keeper->table(0, keeper->rows());
    // It is over the memory of its keeper.
    tables.emplace_back(table.get(), [keeper, table](::arrow::Table*) {});
    return tables;
  }
  const std::uint64_t diskEnd = std::min(to, memoryStart_);
  if (from < diskEnd) {
    tables.push_back(file_ ? file_->read(from, diskEnd - from)
                           : store_->stored(id_)->read(from, diskEnd - from));
    from = diskEnd;
  }
  if (from < to) {
    tables.push_back(memory_->table(static_cast<std::size_t>(from - memoryStart_),
                                    static_cast<std::size_t>(to - from)));
  }
  return tables;
}

std::shared_ptr<SharedStream> SharedStream::fork(const ForkKey& key,
                                                 const SharedStore::Compression& compression,
                                                 std::size_t batchRows) {
  auto copy = create(store_, schema(), width_, compression);
  // Piece by piece, so that no more than a batch is in memory.
  constexpr std::uint64_t kPieceRows = 65536;
  for (std::uint64_t row = 0; row < key.row;) {
    const std::uint64_t count = std::min(kPieceRows, key.row - row);
    for (const auto& table : read(row, row + count)) {
      RowStore rows(schema(), width_);
      rows.append(*table);
      copy->extend(rows.slice(), batchRows);
    }
    row += count;
  }
  copy->hangUnder(forks_, this, key);
  return copy;
}

}  // namespace kyr::parquet
