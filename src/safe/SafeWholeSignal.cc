#include "safe/SafeWholeSignal.h"

#include <arrow/api.h>
#include <fmt/format.h>

#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "schema/PartTables.h"

namespace kyr::parquet {

namespace {

constexpr std::uint64_t kAll = std::numeric_limits<std::uint64_t>::max();

// One shape for each sample, also where a single one is given for all.
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
  if (timeId != kNoStorage) time_.takeOver(timeId);
  if (dataId != kNoStorage) data_.takeOver(dataId);
}

Part SafeWholeSignal::storedPart(SignalPart name, const SampleSchema& schema,
                                 const SampleChunk& chunk, std::size_t width) const {
  Part part(store_, {label_, name});
  part.setCodec(compression_);
  part.store(schema, chunk, width);
  return part;
}

void SafeWholeSignal::setData(const std::vector<double>& time, const std::vector<char>& data,
                              const Dims& dims, const std::vector<int>& lengths) {
  const SampleSchema& schema = store_->layouts().sampleSchema(label_->category, label_->dataType);
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

  Part timePart = storedPart(SignalPart::time, timeSchema(), times, sizeof(double));
  Part dataPart = storedPart(SignalPart::data, schema, samples, width);
  if (timePart.id()) time_ = std::move(timePart);
  data_ = std::move(dataPart);
}

void SafeWholeSignal::getData(std::vector<double>& time, std::vector<char>& data, Dims& dims,
                              std::vector<int>& lengths) {
  if (time_.id()) readTimes(time);
  if (!data_.id()) return;
  const auto there = data_.inMemory(0, kAll);
  const SampleSchema& schema = store_->layouts().sampleSchema(label_->category, label_->dataType);
  const bool isSingleColumn = schema.kind != ColumnKind::blob && schema.dimensionIndex < 0;
  if (!there && isSingleColumn && data_.readElements(*schema.elementType, data, lengths)) return;
  PartRows rows;
  if (there) {
    rows = PartRows(there->rows);
  } else {
    const auto tables = data_.read(0, kAll);
    if (!time_.id()) takeTimeColumn(tables, time);
    rows.append(tables);
  }
  data = std::move(rows.bytes);
  if (rows.dimensions) dims.assign(rows.dimensions->begin(), rows.dimensions->end());
  lengths = std::move(rows.sizes);
}

// Files that others made can be of any type.
void SafeWholeSignal::requireTimes(bool areTimes) const {
  if (areTimes) return;
  throw std::runtime_error(fmt::format("{}: its times are not a single column of float64",
                                       store_->fileOf(time_.id().value_or(kNoStorage)).string()));
}

void SafeWholeSignal::readTimes(std::vector<double>& time) {
  if (const auto there = time_.inMemory(0, kAll)) {
    requireTimes(there->rows.bytes == there->rows.rows * sizeof(double));
    const auto* first = reinterpret_cast<const double*>(there->rows.elements);
    time.assign(first, first + there->rows.rows);
    return;
  }
  if (time_.readTimes(time)) return;
  const auto tables = time_.read(0, kAll);
  for (const auto& table : tables) {
    const auto column = table->GetColumnByName(columnNames::data);
    requireTimes(column && column->type()->id() == ::arrow::Type::DOUBLE);
  }
  const PartRows rows(tables);
  time.resize(rows.bytes.size() / sizeof(double));
  if (!time.empty()) std::memcpy(time.data(), rows.bytes.data(), rows.bytes.size());
}

void SafeWholeSignal::resetData() {
  time_.reset();
  data_.reset();
}

int SafeWholeSignal::getStorageId(SignalPart part) const {
  if (part != SignalPart::time && part != SignalPart::data) return kNoStorage;
  return (part == SignalPart::time ? time_ : data_).id().value_or(kNoStorage);
}

// Every failure was thrown.
::arrow::Status SafeWholeSignal::writeStatus() const { return ::arrow::Status::OK(); }

}  // namespace kyr::parquet
