#include "safe/SafeStreamableSignal.h"

#include <arrow/api.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "safe/GrowingPacks.h"
#include "storage/ParquetStorageRecord.h"

namespace kyr::parquet {

namespace {

// Reads rows in slices that stay in the processor's cache until they are copied.
// \param reused  its memory is taken for the rows
PartRows readRows(Part& part, const SampleSchema& schema, std::uint64_t from, std::uint64_t to,
                  std::vector<char>& reused) {
  constexpr std::uint64_t kSlice = 131'072;
  if (const auto there = part.inMemory(from, to)) return PartRows(there->rows);
  PartRows rows;
  const bool isSingleColumn = schema.kind != ColumnKind::blob && schema.dimensionIndex < 0;
  if (from == 0 && isSingleColumn && to >= part.rows()) {
    if (part.readElements(*schema.elementType, reused, rows.sizes)) {
      rows.bytes.swap(reused);
      return rows;
    }
  }
  const bool isLong = from < to && to - from > kSlice;
  const std::uint64_t end = isLong ? std::min(to, part.rows()) : to;
  const auto sliceEnd = [end](std::uint64_t at) {
    return at < end && end - at > kSlice ? at + kSlice : end;
  };
  auto tables = part.read(from, sliceEnd(from));
  rows.bytes.swap(reused);
  rows.bytes.clear();
  rows.append(tables);
  for (std::uint64_t at = sliceEnd(from); at < end; at = sliceEnd(at)) {
    if (at == from + kSlice) rows.bytes.reserve(rows.bytes.size() / kSlice * (end - from));
    tables = part.read(at, sliceEnd(at));
    rows.append(tables);
  }
  return rows;
}

RowSlice rowsOf(const void* elements, std::size_t bytes, std::size_t width) {
  RowSlice rows;
  rows.rows = bytes >> static_cast<unsigned>(__builtin_ctzll(width));  // each is a power of two
  rows.elements = static_cast<const char*>(elements);
  rows.bytes = rows.rows * width;
  return rows;
}

void unstageTo(Part& part, StagedRows& staged, std::size_t width) {
  if (!staged.empty()) part.take(rowsOf(staged.data(), staged.size(), width));
  staged.clear();
}

void appendTo(Part& part, StagedRows& staged, const SampleSchema& schema, const RowSlice& rows,
              std::size_t width) {
  const bool isOne = rows.rows == 1;
  if (isOne && staged.empty() && part.appendRepeated(schema, rows.elements, width)) return;
  unstageTo(part, staged, width);
  if (isOne) {
    staged.allow(part.spareRows(schema), width);
    if (staged.add(rows.elements, rows.bytes)) return;
  }
  part.append(schema, rows, width);
}

}  // namespace

SafeStreamableSignal::SafeStreamableSignal(std::shared_ptr<SharedStore> store,
                                           std::shared_ptr<SignalLabel> label, int timeId,
                                           int dataId)
    : time_(store, {label, parquet::SignalPart::time}),
      data_(store, {label, parquet::SignalPart::data}),
      label_(std::move(label)),
      store_(std::move(store)) {
  if (timeId != kNoStorage) time_.takeOver(timeId);
  if (dataId != kNoStorage) data_.takeOver(dataId);
}

void SafeStreamableSignal::setBufferSize(unsigned long rows) {
  if (rows == 0) throw std::invalid_argument("a batch of 0 rows: the buffer size must be positive");
  unstage();
  time_.setBatchRows(rows);
  data_.setBatchRows(rows);
}

void SafeStreamableSignal::setParquetCompressionType(const ::arrow::Compression::type& type) {
  requireWritable(type);
  time_.setCodec(type);
  data_.setCodec(type);
}

const SampleSchema& SafeStreamableSignal::dataSchema() {
  if (!schema_.schema || schemaType_ != label_->dataType || schemaCategory_ != label_->category) {
    schema_ = store_->layouts().sampleSchema(label_->category, label_->dataType);
    schemaType_ = label_->dataType;
    schemaCategory_ = label_->category;
    width_ = elementWidth(schemaType_);
  }
  return schema_;
}

void SafeStreamableSignal::setDataType(KYRSignalDataType type) {
  unstage();
  label_->dataType = type;
}

void SafeStreamableSignal::setCategory(KYRSignalCategory category) {
  unstage();
  label_->category = category;
}

void SafeStreamableSignal::appendTimes(const double* time, unsigned long count) {
  if (time == nullptr) throw std::invalid_argument("Time is empty");
  const RowSlice rows = rowsOf(time, count * sizeof(double), sizeof(double));
  appendTo(time_, stagedTimes_, timeSchema(), rows, sizeof(double));
}

void SafeStreamableSignal::appendSamples(const void* data, unsigned long size,
                                         const std::vector<std::vector<unsigned long>>& dimensions,
                                         const std::vector<int>& extra) {
  if (data == nullptr) throw std::invalid_argument("Data is empty");
  const SampleSchema& schema = dataSchema();
  if (schema.kind == ColumnKind::flat && dimensions.empty()) {
    const RowSlice rows = rowsOf(data, size, width_);
    if (rows.bytes == size) return appendTo(data_, stagedData_, schema, rows, width_);
  }
  data_.append(schema, measureExactly(schema, data, size, width_, dimensions, extra), width_);
}

void SafeStreamableSignal::unstage() {
  unstageTo(time_, stagedTimes_, sizeof(double));
  unstageTo(data_, stagedData_, width_);
}

void SafeStreamableSignal::finish(SignalPart part) {
  unstage();
  if (part == SignalPart::time) time_.finish();
  if (part == SignalPart::data) data_.finish();
}

void SafeStreamableSignal::finish() {
  unstage();
  time_.finish();
  data_.finish();
}

unsigned long SafeStreamableSignal::rowCount(SignalPart part) {
  if (part == SignalPart::time) return time_.rows() + stagedTimes_.size() / sizeof(double);
  return part == SignalPart::data ? data_.rows() + stagedData_.size() / width_ : 0;
}

void SafeStreamableSignal::write() {
  unstage();
  time_.flush();
  data_.flush();
}

void SafeStreamableSignal::flush() {
  write();
  if (store_->packs() != nullptr) store_->packs()->write();
  if (store_->options().sync != SafeStorage::Sync::never) store_->sync();
}

std::pair<Part::Uncut, Part::Uncut> SafeStreamableSignal::cut(std::uint64_t rows) {
  unstage();
  auto times = time_.cut(rows);
  return {std::move(times), data_.cut(rows)};
}

void SafeStreamableSignal::restore(std::pair<Part::Uncut, Part::Uncut> before) {
  unstage();
  time_.restore(std::move(before.first));
  data_.restore(std::move(before.second));
}

void SafeStreamableSignal::resetData() {
  stagedTimes_.clear();
  stagedData_.clear();
  time_.reset();
  data_.reset();
}

bool SafeStreamableSignal::hasData() const { return time_.id() || data_.id(); }

int SafeStreamableSignal::getStorageId(SignalPart part) const {
  if (part != SignalPart::time && part != SignalPart::data) return -1;
  return (part == SignalPart::time ? time_ : data_).id().value_or(kNoStorage);
}

void SafeStreamableSignal::getTime(unsigned long from, unsigned long to, std::vector<char>& out) {
  unstage();
  out = std::move(readRows(time_, timeSchema(), from, to, out).bytes);
}

void SafeStreamableSignal::getData(unsigned long from, unsigned long to, std::vector<char>& out,
                                   std::vector<std::vector<unsigned long>>& dimensions) {
  std::vector<int> sizes;
  getData(from, to, out, dimensions, sizes);
}

void SafeStreamableSignal::getData(unsigned long from, unsigned long to, std::vector<char>& out,
                                   std::vector<std::vector<unsigned long>>& dimensions,
                                   std::vector<int>& sizes) {
  unstage();
  PartRows rows = readRows(data_, dataSchema(), from, to, out);
  out = std::move(rows.bytes);
  if (rows.dimensions) dimensions = *std::move(rows.dimensions);
  sizes = std::move(rows.sizes);
}

// Every failure was thrown.
::arrow::Status SafeStreamableSignal::writeStatus() const { return ::arrow::Status::OK(); }

}  // namespace kyr::parquet
