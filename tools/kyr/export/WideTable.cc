#include "export/WideTable.h"

#include <arrow/api.h>
#include <fmt/format.h>
#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <stdexcept>
#include <utility>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Span.h"
#include "cli/Text.h"
#include "export/FieldMetadata.h"
#include "kyr/parquet/ColumnNames.h"
#include "print/SampleNumbers.h"

namespace kyr::tool {

using recording::RecordingReader;
using recording::RowRange;

namespace {

// Calls take(first row, times) for the times of a signal, block by block, until it returns false.
template <typename Take>
void forEachTime(const RecordingReader& reader, int id, const Take& take) {
  const std::size_t block = blockRowsFor(1);
  const std::uint64_t end = reader.timeCount(id);
  for (std::uint64_t row = 0; row < end; row += block) {
    stopIfInterrupted();
    if (!take(row, reader.times(id, {row, row + block}))) return;
  }
}

bool haveSameTimes(const RecordingReader& reader, int a, int b) {
  bool areSame = reader.timeCount(a) == reader.timeCount(b);
  if (!areSame) return false;
  forEachTime(reader, a, [&](std::uint64_t row, const std::vector<double>& times) {
    const std::vector<double> others = reader.times(b, {row, row + times.size()});
    areSame = std::memcmp(times.data(), others.data(), times.size() * sizeof(double)) == 0;
    return areSame;
  });
  return areSame;
}

std::pair<std::uint64_t, std::uint64_t> hashOfTimes(const RecordingReader& reader, int id) {
  XXH3_state_t state;
  XXH3_128bits_reset(&state);
  forEachTime(reader, id, [&state](std::uint64_t, const std::vector<double>& times) {
    XXH3_128bits_update(&state, times.data(), times.size() * sizeof(double));
    return true;
  });
  const XXH128_hash_t hash = XXH3_128bits_digest(&state);
  return {hash.high64, hash.low64};
}

void requireSameTimes(const RecordingReader& reader, const std::vector<ExportSignal>& signals) {
  const Span span("compare times");
  std::set<int> times;
  for (const ExportSignal& signal : signals) times.insert(signal.times);
  const auto isLikeFirst = [&](int id) { return haveSameTimes(reader, *times.begin(), id); };
  if (std::all_of(std::next(times.begin()), times.end(), isLikeFirst)) return;
  std::set<std::pair<std::uint64_t, std::uint64_t>> different;
  for (const int id : times) different.insert(hashOfTimes(reader, id));
  throw std::runtime_error(fmt::format(
      "the {} have {} different time vectors, so they cannot stand side by side: export them one "
      "below the other with --long, bring them to the same times with --resample, or name signals "
      "that share their times",
      counted(signals.size(), "signal"), different.size()));
}

recording::Resampling resamplingOf(const RecordingReader& reader,
                                   const std::vector<ExportSignal>& signals,
                                   const ResampleOptions& options) {
  const Span span("resample: grid");
  std::vector<int> ids;
  ids.reserve(signals.size());
  for (const ExportSignal& signal : signals) ids.push_back(signal.info.signalId);
  recording::ResampleOptions asked;
  asked.step = options.step;
  try {
    return {reader, std::move(ids), asked};
  } catch (const std::invalid_argument& error) {
    throw std::runtime_error(
        fmt::format("--resample: {}: name other signals, or export with --long", error.what()));
  }
}

}  // namespace

WideTable::WideTable(const RecordingReader& reader, const std::vector<ExportSignal>& signals,
                     const ExportOptions& options, Losses& losses)
    : reader_(reader), signals_(signals) {
  if (options.resample) {
    resampling_.emplace(resamplingOf(reader, signals, *options.resample));
    rows_ = resampling_->rows();
  } else {
    requireSameTimes(reader, signals);
    rows_ = reader.timeCount(signals.front().times);
  }
  findWindow(options.window);
  fields_.push_back(timeField());
  csvHeader_.push_back(parquet::columnNames::time);
  columns_.reserve(signals.size());
  for (const ExportSignal& signal : signals) {
    addColumn(signal, options.resample && options.resample->isLinear, losses);
  }
  schema_ = ::arrow::schema(fields_);
}

double WideTable::timeOf(std::uint64_t row) const {
  const RowRange one{row, row + 1};
  return resampling_->times(one).front();
}

// Times of a grid ascend, so that the window is found by bisection.
void WideTable::findWindow(const Window& window) {
  rows_ = std::min(rows_, window.endRow);
  row_ = std::min(rows_, window.firstRow);
  if (window.hasAllTimes()) return;
  if (!resampling_) {
    const auto ranges = reader_.rowsBetween(signals_.front().times, window.from, window.to);
    if (ranges.size() > 1) {
      throw std::runtime_error(
          "--from and --to: the times do not ascend, so the rows between them are no part of the "
          "table (--long sorts them)");
    }
    row_ = ranges.empty() ? rows_ : ranges.front().from;
    rows_ = ranges.empty() ? rows_ : ranges.front().to;
    return;
  }
  const auto firstRowWhere = [&](const auto& isBehind) {
    std::uint64_t from = 0;
    std::uint64_t to = rows_;
    while (from < to) {
      const std::uint64_t middle = from + (to - from) / 2;
      isBehind(timeOf(middle)) ? to = middle : from = middle + 1;
    }
    return from;
  };
  row_ = firstRowWhere([&](double time) { return time >= window.from; });
  rows_ = firstRowWhere([&](double time) { return time > window.to; });
}

void WideTable::addColumn(const ExportSignal& signal, bool isLinear, Losses& losses) {
  const recording::SignalInfo& info = signal.info;
  const bool isInterpolated = isLinear && isNumber(info) && info.dataType != Boolean;
  columns_.push_back({info.signalId, signal.times, isInterpolated, toDoublesFor(info.dataType),
                      SampleCursor(reader_, info, info.rowCount, blockRowsFor(2 * signals_.size())),
                      SampleArrays(info, signal.isText)});
  const SampleArrays& arrays = columns_.back().arrays;
  fields_.push_back(::arrow::field(signal.column,
                                   isInterpolated ? ::arrow::float64() : arrays.type(),
                                   fieldMetadata(info, signal.column)));
  csvHeader_.push_back(tool::csvHeader(signal));
  if (arrays.hasShapes()) {  // a reader needs the shapes of samples whose shape changes
    const std::string name = freeName(signal.column + ".dimension");
    fields_.push_back(::arrow::field(name, SampleArrays::shapeType()));
    csvHeader_.push_back(name);
  }
  if (isInterpolated) {
    const std::uint64_t rounded = roundedSamples(reader_, info);
    if (rounded > 0) losses.add(roundedText(info, rounded));
  } else if (isLinear) {
    losses.add(fmt::format(
        "signal {}, {}, is held and not interpolated: its samples are no numbers to interpolate",
        info.signalId, inQuotes(info.name)));
  }
}

std::string WideTable::freeName(std::string name) const {
  const auto isTaken = [&name, this] {
    return std::any_of(signals_.begin(), signals_.end(),
                       [&name](const ExportSignal& signal) { return signal.column == name; }) ||
           std::any_of(fields_.begin(), fields_.end(),
                       [&name](const auto& field) { return field->name() == name; });
  };
  while (isTaken()) name += "_";
  return name;
}

void WideTable::write(const TableWriter::Target& target, const Progress& progress) {
  TableWriter writer(target, schema_, csvHeader_);
  const std::uint64_t first = row_;
  while (row_ < rows_) {
    writer.write(*nextPiece());
    progress(static_cast<double>(row_ - first) / static_cast<double>(rows_ - first));
  }
  writer.close();
}

void WideTable::findPlaces(std::size_t count) {
  places_.clear();
  if (!resampling_) return;
  for (const Column& column : columns_) {
    if (places_.count(column.times) > 0) continue;
    places_[column.times] = resampling_->places(column.signal, {row_, row_ + count});
  }
}

// The sample that stands in a row of the piece; -1 if there is none.
std::int64_t WideTable::sampleAt(const Column& column, std::size_t row) const {
  return resampling_ ? places_.at(column.times)[row].before : static_cast<std::int64_t>(row_ + row);
}

// Rows of a piece whose samples come from one block and are not too large, of samples that may be
// large.
std::size_t WideTable::fittingRows(Column& column, std::size_t count) {
  constexpr std::size_t kBytes = std::size_t{16} << 20;
  if (column.arrays.isFlat()) return count;
  const recording::SampleBlock* block = nullptr;
  std::size_t bytes = 0;
  for (std::size_t row = 0; row < count; ++row) {
    const std::int64_t sample = sampleAt(column, row);
    if (sample < 0) continue;
    const auto at = static_cast<std::uint64_t>(sample);
    if (!block) block = &column.samples.blockOf(at);
    if (at < block->firstRow || at - block->firstRow >= block->rows) return row;
    const auto [begin, end] = elementsOf(*block, static_cast<std::size_t>(at - block->firstRow));
    bytes += (end - begin) * column.samples.width();
    if (bytes > kBytes && row > 0) return row;
  }
  return count;
}

std::shared_ptr<::arrow::RecordBatch> WideTable::nextPiece() {
  stopIfInterrupted();
  auto count = static_cast<std::size_t>(
      std::min<std::uint64_t>(rows_ - row_, blockRowsFor(2 * columns_.size())));
  findPlaces(count);
  for (Column& column : columns_) count = fittingRows(column, count);
  const RowRange rows{row_, row_ + count};
  std::vector<double> times =
      resampling_ ? resampling_->times(rows) : reader_.times(signals_.front().times, rows);
  const auto length = static_cast<std::int64_t>(count);
  std::vector<ArrayPtr> arrays{std::make_shared<::arrow::DoubleArray>(
      length, ::arrow::Buffer::FromVector(std::move(times)))};
  for (Column& column : columns_) {
    if (column.isInterpolated) {
      arrays.push_back(interpolated(column, count));
      continue;
    }
    addSamples(column, count);
    for (ArrayPtr& array : column.arrays.finish()) arrays.push_back(std::move(array));
  }
  row_ += count;
  return ::arrow::RecordBatch::Make(schema_, length, std::move(arrays));
}

void WideTable::addSamples(Column& column, std::size_t count) {
  column.arrays.reserve(count);
  std::size_t rows = 0;
  for (std::size_t row = 0; row < count; row += rows) {
    const std::int64_t sample = sampleAt(column, row);
    rows = 1;
    if (sample < 0) {
      column.arrays.appendNull();
      continue;
    }
    const recording::SampleBlock& block =
        column.samples.blockOf(static_cast<std::uint64_t>(sample));
    const auto first =
        static_cast<std::size_t>(static_cast<std::uint64_t>(sample) - block.firstRow);
    // Without resampling, the samples that follow stand in the rows that follow.
    if (!resampling_) rows = std::min(count - row, block.rows - first);
    column.arrays.append(block, first, rows);
  }
}

double WideTable::numberAt(Column& column, std::int64_t sample) {
  for (const Number& known : column.known) {
    if (known.sample == sample) return known.number;
  }
  const recording::SampleBlock& block = column.samples.blockOf(static_cast<std::uint64_t>(sample));
  const auto at = static_cast<std::size_t>(static_cast<std::uint64_t>(sample) - block.firstRow);
  Number read{sample, 0};
  column.toDoubles(static_cast<const char*>(block.elements) + at * column.samples.width(), 1,
                   &read.number);
  column.known = {read, column.known[0]};
  return read.number;
}

WideTable::ArrayPtr WideTable::interpolated(Column& column, std::size_t count) const {
  ::arrow::DoubleBuilder builder;
  check(builder.Reserve(static_cast<std::int64_t>(count)));
  const std::vector<recording::SamplePlace>& places = places_.at(column.times);
  for (std::size_t row = 0; row < count; ++row) {
    const recording::SamplePlace& place = places[row];
    if (place.before < 0 || (!place.isAtBefore && place.after < 0)) {
      builder.UnsafeAppendNull();
    } else if (place.isAtBefore) {
      builder.UnsafeAppend(numberAt(column, place.before));
    } else {
      const double before = numberAt(column, place.before);
      const double after = numberAt(column, place.after);
      builder.UnsafeAppend(recording::Resampling::between(before, after, place.part));
    }
  }
  return check(builder.Finish());
}

}  // namespace kyr::tool
