#include "print/SampleColumn.h"

#include <arrow/util/base64.h>
#include <fmt/compile.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <string_view>
#include <type_traits>

#include "print/TypeFunctions.h"

namespace kyr::tool {

namespace {

template <typename T>
void appendNumber(fmt::memory_buffer& out, const char* element) {
  T value;
  std::memcpy(&value, element, sizeof(T));
  if constexpr (std::is_floating_point_v<T>) {
    // "-0" would be read back as an integer without sign if all other numbers are whole.
    if (value == 0 && std::signbit(value)) return out.append(std::string_view("-0.0"));
  }
  // Writing in place checks the room in the buffer once per number.
  constexpr std::size_t kLongest = 32;
  const std::size_t size = out.size();
  out.resize(size + kLongest);
  const char* const end = fmt::format_to(out.data() + size, FMT_COMPILE("{}"), value);
  out.resize(static_cast<std::size_t>(end - out.data()));
}

void appendBoolean(fmt::memory_buffer& out, const char* element) {
  out.append(std::string_view(*element == 0 ? "false" : "true"));
}

struct ElementTexts {
  template <typename T>
  auto number() const {
    return appendNumber<T>;
  }
  auto boolean() const { return appendBoolean; }
};

auto elementTextOf(const recording::SignalInfo& signal) {
  const bool isBlob = signal.category == Bus || signal.category == VarDimBus;
  return isBlob ? decltype(ElementTexts().boolean())()
                : functionFor(signal.dataType, ElementTexts());
}

}  // namespace

SampleColumn::SampleColumn(const recording::RecordingReader& reader,
                           const recording::SignalInfo& signal, std::uint64_t endRow,
                           std::size_t blockRows)
    : reader_(reader),
      id_(signal.signalId),
      endRow_(endRow),
      blockRows_(blockRows),
      width_(reader.elementBytes(signal.signalId)),
      elementText_(elementTextOf(signal)),
      isNumber_(signal.category == Scalar && elementText_ != nullptr),
      fixedShape_(signal.dimensions.begin(), signal.dimensions.end()) {}

void SampleColumn::readNumbers(std::uint64_t row) {
  rows_ = static_cast<std::size_t>(std::min<std::uint64_t>(endRow_ - row, blockRows_));
  firstRow_ = row;
  bytes_.resize(rows_ * width_);
  reader_.readElements(id_, {row, row + rows_}, bytes_.data(), bytes_.size());
}

// A block ends with its row group, which is decoded as a whole. Smaller blocks of several signals
// would have it decoded again and again.
void SampleColumn::findBlock(std::uint64_t row) {
  if (!blocks_ || row != firstRow_ + rows_) {
    blocks_.emplace(reader_.blocks(id_, {row, endRow_}, std::numeric_limits<std::size_t>::max()));
  }
  block_ = blocks_->next();
  if (block_ == nullptr) throw std::logic_error("a row behind the last is printed");
  firstRow_ = block_->firstRow;
  rows_ = block_->rows;
}

void SampleColumn::append(fmt::memory_buffer& out, std::uint64_t row) {
  if (row < firstRow_ || row - firstRow_ >= rows_) isNumber_ ? readNumbers(row) : findBlock(row);
  const auto sample = static_cast<std::size_t>(row - firstRow_);
  if (isNumber_) return elementText_(out, bytes_.data() + sample * width_);
  if (elementText_) return appendMatrix(out, sample);
  const auto begin = static_cast<std::size_t>(block_->offsets[sample]);
  const auto end = static_cast<std::size_t>(block_->offsets[sample + 1]);
  out.append(::arrow::util::base64_encode(
      {static_cast<const char*>(block_->elements) + begin, end - begin}));
}

// Samples without elements may claim any number of rows.
std::size_t SampleColumn::rowsOf(std::size_t sample, std::size_t elements) const {
  const std::uint64_t* begin = fixedShape_.data();
  const std::uint64_t* end = begin + fixedShape_.size();
  if (block_->extents) {
    begin = block_->extents + block_->extentOffsets[sample];
    end = block_->extents + block_->extentOffsets[sample + 1];
  }
  const std::uint64_t product = std::accumulate(begin, end, std::uint64_t{1}, std::multiplies<>());
  if (end - begin < 2 || *begin == 0 || *begin > elements || product != elements) return 1;
  return static_cast<std::size_t>(*begin);
}

// Elements are stored column by column and written row by row.
void SampleColumn::appendMatrix(fmt::memory_buffer& out, std::size_t sample) const {
  const std::size_t fixed = block_->elementsPerSample;
  const std::size_t begin = block_->offsets ? block_->offsets[sample] : sample * fixed;
  const std::size_t end = block_->offsets ? block_->offsets[sample + 1] : begin + fixed;
  const std::size_t rows = rowsOf(sample, end - begin);
  const char* const elements = static_cast<const char*>(block_->elements);
  out.push_back('"');
  for (std::size_t row = 0; row < rows; ++row) {
    if (row > 0) out.push_back(';');
    for (std::size_t i = begin + row; i < end; i += rows) {
      if (i >= begin + rows) out.push_back(' ');
      elementText_(out, elements + i * width_);
    }
  }
  out.push_back('"');
}

}  // namespace kyr::tool
