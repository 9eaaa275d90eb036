#include "recording/ComparisonRows.h"

#include <xxhash.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "schema/ElementTypes.h"

namespace kyr::recording {

namespace {

constexpr std::uint64_t kBlockElements = 65'536;

template <typename Number>
void convert(KYRSignalDataType type, const char* elements, std::size_t count, Number* out) {
  if (type == Boolean) {
    std::transform(elements, elements + count, out,
                   [](char truth) { return static_cast<Number>(truth != 0); });
    return;
  }
  parquet::visitNumber(parquet::elementTypeId(type), [&](auto number) {
    using Value = typename decltype(number)::Value;
    for (std::size_t i = 0; i < count; ++i) {
      Value value;
      std::memcpy(&value, elements + i * sizeof(Value), sizeof(Value));
      out[i] = static_cast<Number>(value);
    }
  });
}

}  // namespace

ComparedKind comparedKindOf(const SignalInfo& signal) {
  if (!signal.dataStorageId) return ComparedKind::none;
  const bool areNumbers = parquet::isNumber(parquet::elementTypeId(signal.dataType));
  if (areNumbers && signal.category == VarDim) return ComparedKind::shapes;
  const bool isMatrix = signal.category == Scalar || signal.category == FixedDim;
  return areNumbers && isMatrix ? ComparedKind::numbers : ComparedKind::blobs;
}

bool needsLongDouble(const SignalInfo& signal) {
  const KYRSignalDataType type = signal.dataType;
  return comparedKindOf(signal) == ComparedKind::blobs || type == Int64 || type == UInt64 ||
         type == UInt64Alt;
}

template <typename Number>
ComparisonRows<Number>::ComparisonRows(const RecordingReader& reader, int id, bool hasTimes,
                                       const std::function<void()>& checkpoint)
    : reader_(reader),
      checkpoint_(&checkpoint),
      id_(id),
      kind_(comparedKindOf(reader.signal(id))),
      hasTimes_(hasTimes),
      elements_(kind_ == ComparedKind::numbers
                    ? static_cast<std::size_t>(reader.elementsPerSample(id))
                    : kind_ == ComparedKind::blobs),
      count_(reader.pairCount(id)),
      blockRows_(std::max<std::uint64_t>(1, kBlockElements / std::max<std::size_t>(1, elements_))) {
  if (kind_ != ComparedKind::shapes && kind_ != ComparedKind::blobs) return;
  constexpr std::size_t kRowsOfAnySize = 1024;
  blocks_.emplace(reader.blocks(id, {}, kRowsOfAnySize));
}

template <typename Number>
bool ComparisonRows<Number>::load() {
  if (end_ >= count_) return false;
  if (*checkpoint_) (*checkpoint_)();
  const std::size_t known = times_.size();
  if (blocks_) {
    const SampleBlock* const block = blocks_->next();
    if (block == nullptr) return false;
    loadBlock(*block);
  } else {
    loadNumbers(std::min(blockRows_, count_ - end_));
  }
  noteTimes(known);
  return true;
}

template <typename Number>
void ComparisonRows<Number>::loadNumbers(std::uint64_t rows) {
  const RowRange range{end_, end_ + rows};
  if (hasTimes_) {
    times_.resize(times_.size() + static_cast<std::size_t>(rows));
    reader_.readTimes(id_, range, times_.data() + times_.size() - rows);
  }
  end_ += rows;
  const std::size_t numbers = static_cast<std::size_t>(rows) * elements_;
  if (numbers == 0) return;
  values_.resize(values_.size() + numbers);
  Number* const out = values_.data() + values_.size() - numbers;
  const KYRSignalDataType type = reader_.signal(id_).dataType;
  if (std::is_same_v<Number, double> && type == Double) {
    reader_.readElements(id_, range, out, numbers * sizeof(double));
    return;
  }
  bytes_.resize(numbers * reader_.elementBytes(id_));
  reader_.readElements(id_, range, bytes_.data(), bytes_.size());
  convert(type, bytes_.data(), numbers, out);
}

template <typename Number>
void ComparisonRows<Number>::loadBlock(const SampleBlock& block) {
  if (hasTimes_ && block.times) times_.insert(times_.end(), block.times, block.times + block.rows);
  const auto* const bytes = static_cast<const char*>(block.elements);
  const SignalInfo& signal = reader_.signal(id_);
  const std::size_t width = reader_.elementBytes(id_);
  for (std::size_t i = 0; i < block.rows; ++i) {
    const auto begin = static_cast<std::size_t>(block.offsets[i]);
    const std::size_t size = static_cast<std::size_t>(block.offsets[i + 1]) - begin;
    if (kind_ == ComparedKind::blobs) {
      values_.push_back(static_cast<Number>(XXH3_64bits(bytes + begin, size)));
      continue;
    }
    const std::uint64_t firstExtent = block.extents ? block.extentOffsets[i] : 0;
    const std::uint64_t endOfExtents = block.extents ? block.extentOffsets[i + 1] : 0;
    values_.push_back(static_cast<Number>(endOfExtents - firstExtent));
    for (std::uint64_t k = firstExtent; k < endOfExtents; ++k) {
      values_.push_back(static_cast<Number>(block.extents[k]));
    }
    values_.resize(values_.size() + size);
    convert(signal.dataType, bytes + begin * width, size, values_.data() + values_.size() - size);
    offsets_.push_back(values_.size());
  }
  end_ += block.rows;
}

template <typename Number>
void ComparisonRows<Number>::noteTimes(std::size_t from) {
  if (!hasTimes_ || !ascends_) return;
  const bool areFinite = std::all_of(times_.begin() + static_cast<std::ptrdiff_t>(from),
                                     times_.end(), [](double time) { return std::isfinite(time); });
  const std::size_t before = from > 0 ? from - 1 : 0;
  ascends_ = areFinite &&
             std::is_sorted(times_.begin() + static_cast<std::ptrdiff_t>(before), times_.end());
}

template <typename Number>
void ComparisonRows<Number>::drop(std::uint64_t row) {
  if (row <= begin_) return;
  const std::uint64_t rows = row - begin_;
  // What stays is moved, so that there must be something to win.
  if (rows * 2 < end_ - begin_) return;
  const std::size_t values = offsetOf(row);
  const auto cut = [](auto& items, std::size_t count) {
    items.erase(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(count));
  };
  cut(values_, values);
  if (hasTimes_) cut(times_, static_cast<std::size_t>(rows));
  if (hasShapes()) {
    cut(offsets_, static_cast<std::size_t>(rows));
    for (std::size_t& offset : offsets_) offset -= values;
  }
  begin_ = row;
}

template class ComparisonRows<double>;
template class ComparisonRows<long double>;

}  // namespace kyr::recording
