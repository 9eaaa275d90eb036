#include "recording/SignalRows.h"

#include <arrow/type.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "kyr/parquet/ColumnNames.h"
#include "kyr/parquet/SchemaBuilder.h"
#include "recording/ContentChecks.h"

namespace kyr::recording {

namespace columnNames = parquet::columnNames;

namespace {

parquet::SampleSchema schemaOf(const SignalInfo& signal) {
  return parquet::SampleSchema(parquet::schemaBuilder::getSchema(
      signal.category, signal.dataType, /*includeTime=*/false, columnNames::data));
}

SampleKind kindOf(const SignalInfo& signal, const parquet::SampleSchema& schema) {
  if (schema.kind == parquet::ColumnKind::blob) return SampleKind::blob;
  if (schema.kind == parquet::ColumnKind::flat) return SampleKind::number;
  if (schema.kind == parquet::ColumnKind::unsupported) return SampleKind::unsupported;
  return signal.category == FixedDim ? SampleKind::fixed : SampleKind::variable;
}

}  // namespace

SignalRows::SignalRows(std::shared_ptr<ContentFiles> files,
                       std::shared_ptr<const SignalInfo> signal, const SignalCounts* counts)
    : files_(std::move(files)),
      signal_(std::move(signal)),
      isLive_(counts != nullptr),
      schema_(schemaOf(*signal_)),
      kind_(kindOf(*signal_, schema_)),
      width_(parquet::elementBytes(schema_)) {
  if (counts) {
    counts_ = *counts;
    return;
  }
  const auto& [time, data] = std::pair(signal_->timeStorageId, signal_->dataStorageId);
  if (time) counts_.times = files_->fileInfo(*time).rowCount;
  if (data) counts_.samples = files_->fileInfo(*data).rowCount;
  const std::string fault = countFault(*signal_, data ? counts_.samples : counts_.times);
  if (fault.empty()) return;
  throw DamagedError(fmt::format("{}: signal {} \"{}\": {}: its rows cannot be read",
                                 files_->folder().path().string(), signal_->signalId, signal_->name,
                                 fault));
}

void SignalRows::open() {
  if (hasTimes()) times();
  if (hasSamples()) samples();
}

template <typename Work>
auto SignalRows::reading(parquet::ContentReader& content, std::uint64_t end, Work&& work) {
  if (end > content.rows()) {
    throw DamagedError(fmt::format("{}: holds {} rows: row {} and those behind it are missing",
                                   content.file().path().string(), content.rows(), content.rows()));
  }
  return readingContent(content.rows(), &content, std::forward<Work>(work));
}

parquet::ContentReader& SignalRows::samples() {
  if (!samples_) {
    if (kind_ == SampleKind::unsupported) {
      throw std::runtime_error(
          fmt::format("signal {} \"{}\": samples of its type and category are "
                      "not stored by any recorder",
                      signal_->signalId, signal_->name));
    }
    samples_ = files_->open(*signal_->dataStorageId, {*signal_, /*isTime=*/false});
  }
  return *samples_;
}

parquet::ContentReader& SignalRows::times() {
  if (!signal_->timeStorageId) return samples();
  if (!times_) times_ = files_->open(*signal_->timeStorageId, {*signal_, /*isTime=*/true});
  return *times_;
}

bool SignalRows::hasTimes() {
  if (signal_->timeStorageId) return true;
  if (!signal_->dataStorageId || isLive_) return false;
  if (!hasTimes_) {
    // Packs have no column of times.
    const bool isPacked = files_->fileInfo(*signal_->dataStorageId).pack.has_value();
    hasTimes_ = !isPacked && samples().hasTimes();
  }
  return *hasTimes_;
}

std::uint64_t SignalRows::timeCount() {
  if (signal_->timeStorageId) return counts_.times;
  return hasTimes() ? counts_.samples : 0;
}

std::uint64_t SignalRows::pairCount() {
  if (!hasSamples()) return timeCount();
  return hasTimes() ? std::min(timeCount(), sampleCount()) : sampleCount();
}

void SignalRows::extend(TimeIndex& index, const TimeIndex::Read& read) {
  parquet::ContentReader& content = times();
  const std::uint64_t rows = timeCount();
  reading(content, rows, [&] {
    index.extend(content, /*hasMarks=*/signal_->timeStorageId.has_value(), rows, read);
  });
}

void SignalRows::requireTimes(std::uint64_t end) {
  reading(times(), end, [] {});
}

void SignalRows::requireSamples(std::uint64_t end) {
  reading(samples(), end, [] {});
}

void SignalRows::readTimes(std::uint64_t first, std::uint64_t count, double* out) {
  parquet::ContentReader& content = times();
  reading(content, first + count, [&] {
    content.readNumbers(signal_->timeStorageId ? columnNames::data : columnNames::time, first,
                        count, reinterpret_cast<char*>(out));
  });
}

std::uint64_t SignalRows::elementsPerSample() {
  if (kind_ == SampleKind::number) return 1;
  if (kind_ != SampleKind::fixed) return 0;
  if (elements_) return *elements_;
  if (!signal_->dimensions.empty()) {
    const std::vector<std::uint64_t> extents(signal_->dimensions.begin(),
                                             signal_->dimensions.end());
    elements_ = parquet::shapeElements(extents);
  } else if (sampleCount() == 0) {
    return 0;
  } else {
    elements_ = readSamples(0, 1).rows.bytes / width_;
  }
  return *elements_;
}

void SignalRows::readElements(std::uint64_t first, std::uint64_t count, char* out) {
  if (kind_ == SampleKind::number) {
    parquet::ContentReader& content = samples();
    return reading(content, first + count,
                   [&] { content.readNumbers(columnNames::data, first, count, out); });
  }
  while (count > 0) {
    const std::uint64_t rows = std::min(count, endOfPart(first) - first);
    const parquet::HeldRows held = readFixed(first, rows);
    std::memcpy(out, held.rows.elements, held.rows.bytes);
    out += held.rows.bytes;
    first += rows;
    count -= rows;
  }
}

parquet::HeldRows SignalRows::readSamples(std::uint64_t first, std::uint64_t count) {
  parquet::ContentReader& content = samples();
  return reading(content, first + count, [&] {
    parquet::HeldRows held = content.read(first, count);
    const std::string fault = sampleFault(*signal_, content.schema(), held.rows, first);
    if (fault.empty()) return held;
    throw std::runtime_error(fmt::format("{}: signal {} \"{}\": {}", content.file().path().string(),
                                         signal_->signalId, signal_->name, fault));
  });
}

parquet::HeldRows SignalRows::readFixed(std::uint64_t first, std::uint64_t count) {
  const std::uint64_t elements = elementsPerSample();
  parquet::HeldRows held = readSamples(first, count);
  std::uint64_t begin = held.rows.begin;
  for (std::size_t row = 0; row < held.rows.rows; ++row) {
    const std::uint64_t found = held.rows.ends[row] - std::exchange(begin, held.rows.ends[row]);
    if (found == elements) continue;
    throw DamagedError(
        fmt::format("{}: signal {} \"{}\": sample {} has {} elements, others {}: it "
                    "cannot be read",
                    samples().file().path().string(), signal_->signalId, signal_->name, first + row,
                    found, elements));
  }
  return held;
}

std::uint64_t SignalRows::endOfPart(std::uint64_t first) {
  parquet::ContentReader& content = samples();
  if (first >= content.rows()) return first + 1;
  return content.partStart(content.partOfRow(first) + 1);
}

}  // namespace kyr::recording
