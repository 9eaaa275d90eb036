#include "safe/SafeWholeSignal.h"

#include <arrow/api.h>

#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "schema/PartTables.h"

namespace kyr::parquet {

namespace {

constexpr std::uint64_t kAll = std::numeric_limits<std::uint64_t>::max();

// One shape for each of the samples where one stands for all.
std::vector<std::vector<std::uint64_t>> shapesOf(const WholeSignal::Dims& dims,
                                                 const SampleSchema& schema, std::size_t size,
                                                 std::size_t width, const std::vector<int>& sizes) {
  std::vector<std::vector<std::uint64_t>> shapes(dims.begin(), dims.end());
  if (schema.dimensionIndex < 0 || shapes.size() != 1) return shapes;
  const std::size_t perSample = shapeElements(shapes.front());
  const std::size_t elements = schema.kind == ColumnKind::blob ? size : size / width;
  std::size_t samples = sizes.size();
  if (sizes.empty()) samples = perSample == 0 ? 1 : elements / perSample;
  shapes.resize(samples, shapes.front());
  return shapes;
}

// Files that others made may have the times beside the samples.
void takeTimeColumn(const std::vector<std::shared_ptr<::arrow::Table>>& tables,
                    std::vector<double>& time) {
  bool isFirst = true;
  for (const auto& table : tables) {
    const auto column = table->GetColumnByName(columnNames::time);
    if (!column || column->type()->id() != ::arrow::Type::DOUBLE) return;
    if (std::exchange(isFirst, false)) time.clear();
    for (const auto& chunk : column->chunks()) {
      const auto& values = static_cast<const ::arrow::DoubleArray&>(*chunk);
      time.insert(time.end(), values.raw_values(), values.raw_values() + values.length());
    }
  }
}

}  // namespace

SafeWholeSignal::SafeWholeSignal(std::shared_ptr<SharedStore> store,
                                 std::shared_ptr<SignalLabel> label, int timeId, int dataId)
    : store_(std::move(store)),
      label_(std::move(label)),
      time_(store_, {label_, parquet::SignalPart::time}),
      data_(store_, {label_, parquet::SignalPart::data}) {
  if (timeId != kNoStorage) time_.adopt(timeId);
  if (dataId != kNoStorage) data_.adopt(dataId);
}

SharedPart SafeWholeSignal::partOf(SignalPart name, const SampleSchema& schema,
                                   const SampleChunk& chunk, std::size_t width) const {
  SharedPart part(store_, {label_, name});
  part.setCompression(compression_);
  part.store(schema, chunk, width);
  return part;
}

void SafeWholeSignal::setData(const std::vector<double>& time, const std::vector<char>& data,
                              const Dims& dims, const std::vector<int>& lengths) {
  const SampleSchema& schema = store_->sampleSchema(label_->category, label_->dataType);
  const std::size_t width = elementWidth(label_->dataType);
  if (data.empty()) return;
  if (time_.id() && !time.empty()) {
    throw std::runtime_error("Signal already has a time storage associated.");
  }
  if (data_.id()) throw std::runtime_error("Signal already has a data storage associated.");
  const std::vector<int> sizes = label_->dataType == Binary ? lengths : std::vector<int>();
  const auto shapes = shapesOf(dims, schema, data.size(), width, sizes);
  const SampleChunk samples = measureChunk(schema, data.data(), data.size(), width, shapes, sizes);
  SampleChunk times;
  times.data = reinterpret_cast<const char*>(time.data());
  times.elements = times.rows = time.size();

  SharedPart timePart = partOf(SignalPart::time, timeSchema(), times, sizeof(double));
  SharedPart dataPart = partOf(SignalPart::data, schema, samples, width);
  if (timePart.id()) time_ = std::move(timePart);
  data_ = std::move(dataPart);
}

void SafeWholeSignal::getData(std::vector<double>& time, std::vector<char>& data, Dims& dims,
                              std::vector<int>& lengths) {
  if (time_.id()) readTimes(time);
  if (!data_.id()) return;
  const auto held = data_.held(0, kAll);
  const SampleSchema& schema = store_->sampleSchema(label_->category, label_->dataType);
  if (!held && schema.kind == ColumnKind::flat && data_.readNumbers(*schema.elementType, data)) {
    lengths.clear();
    return;
  }
  PartRows rows;
  if (held) {
    rows = PartRows(held->rows);
  } else {
    const auto tables = data_.read(0, kAll);
    if (!time_.id()) takeTimeColumn(tables, time);
    rows.append(tables);
  }
  data = std::move(rows.bytes);
  if (rows.dimensions) dims.assign(rows.dimensions->begin(), rows.dimensions->end());
  lengths = std::move(rows.sizes);
}

void SafeWholeSignal::readTimes(std::vector<double>& time) {
  if (const auto held = time_.held(0, kAll)) {
    const auto* first = reinterpret_cast<const double*>(held->rows.elements);
    time.assign(first, first + held->rows.rows);
    return;
  }
  store_->recentTimes().read(store_->fileOf(*time_.id()), time, [&](std::vector<double>& read) {
    if (time_.readNumbers(*timeSchema().elementType, read)) return true;
    const PartRows rows(time_.read(0, kAll));
    read.resize(rows.bytes.size() / sizeof(double));
    if (!read.empty()) std::memcpy(read.data(), rows.bytes.data(), rows.bytes.size());
    return true;
  });
}

void SafeWholeSignal::resetData() {
  time_.reset();
  data_.reset();
}

int SafeWholeSignal::getStorageId(SignalPart part) const {
  if (part != SignalPart::time && part != SignalPart::data) return kNoStorage;
  return (part == SignalPart::time ? time_ : data_).id().value_or(kNoStorage);
}

// Failures were thrown.
::arrow::Status SafeWholeSignal::writeStatus() const { return ::arrow::Status::OK(); }

}  // namespace kyr::parquet
