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

}  // namespace

SafeStreamableSignal::SafeStreamableSignal(std::shared_ptr<SharedStore> store,
                                           std::shared_ptr<SignalLabel> label, int timeId,
                                           int dataId)
    : label_(std::move(label)),
      store_(std::move(store)),
      data_(store_, {label_, parquet::SignalPart::data}),
      time_(store_, {label_, parquet::SignalPart::time}) {
  if (timeId != kNoStorage) time_.takeOver(timeId);
  if (dataId != kNoStorage) data_.takeOver(dataId);
}

void SafeStreamableSignal::setBufferSize(unsigned long rows) {
  if (rows == 0) throw std::invalid_argument("a batch of 0 rows: the buffer size must be positive");
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

void SafeStreamableSignal::appendTime(const double* time, unsigned long count) {
  if (time == nullptr) throw std::invalid_argument("Time is empty");
  RowSlice rows;
  rows.rows = count;
  rows.elements = reinterpret_cast<const char*>(time);
  rows.bytes = count * sizeof(double);
  time_.append(timeSchema(), rows, sizeof(double));
}

void SafeStreamableSignal::appendData(const void* data, unsigned long size,
                                      const std::vector<std::vector<unsigned long>>& dimensions,
                                      const std::vector<int>& extra) {
  if (data == nullptr) throw std::invalid_argument("Data is empty");
  const SampleSchema& schema = dataSchema();
  if (schema.kind == ColumnKind::flat && dimensions.empty()) {
    // This runs once per sample where samples come one by one. Every width is a power of two.
    RowSlice rows;
    rows.rows = size >> static_cast<unsigned>(__builtin_ctzll(width_));
    rows.elements = static_cast<const char*>(data);
    rows.bytes = rows.rows * width_;
    if (rows.bytes == size) {
      data_.append(schema, rows, width_);
      return;
    }
  }
  data_.append(schema, measureExactly(schema, data, size, width_, dimensions, extra), width_);
}

void SafeStreamableSignal::finish(SignalPart part) {
  if (part == SignalPart::time) time_.finish();
  if (part == SignalPart::data) data_.finish();
}

void SafeStreamableSignal::finish() {
  time_.finish();
  data_.finish();
}

unsigned long SafeStreamableSignal::rowCount(SignalPart part) {
  if (part == SignalPart::time) return time_.rows();
  return part == SignalPart::data ? data_.rows() : 0;
}

void SafeStreamableSignal::write() {
  time_.flush();
  data_.flush();
}

void SafeStreamableSignal::flush() {
  write();
  if (store_->packs() != nullptr) store_->packs()->write();
  if (store_->options().sync != SafeStorage::Sync::never) store_->sync();
}

void SafeStreamableSignal::cut(std::uint64_t rows) {
  time_.cut(rows);
  data_.cut(rows);
}

void SafeStreamableSignal::resetData() {
  time_.reset();
  data_.reset();
}

bool SafeStreamableSignal::hasData() const { return time_.id() || data_.id(); }

int SafeStreamableSignal::getStorageId(SignalPart part) const {
  if (part != SignalPart::time && part != SignalPart::data) return -1;
  return (part == SignalPart::time ? time_ : data_).id().value_or(kNoStorage);
}

void SafeStreamableSignal::getTime(unsigned long from, unsigned long to, std::vector<char>& out) {
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
  PartRows rows = readRows(data_, dataSchema(), from, to, out);
  out = std::move(rows.bytes);
  if (rows.dimensions) dimensions = *std::move(rows.dimensions);
  sizes = std::move(rows.sizes);
}

// Every failure was thrown.
::arrow::Status SafeStreamableSignal::writeStatus() const { return ::arrow::Status::OK(); }

}  // namespace kyr::parquet
