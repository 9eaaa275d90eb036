#include "print/SampleColumn.h"

#include <arrow/util/base64.h>
#include <fmt/compile.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <numeric>
#include <string_view>
#include <type_traits>
#include <utility>

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

}  // namespace

SampleColumn::SampleColumn(parquet::ParquetSignal& signal, const recording::SignalInfo& info,
                           std::vector<double>& time)
    : elementText_(functionFor(info.dataType, ElementTexts())), fixedShape_(info.dimensions) {
  std::vector<int> lengths;
  time.clear();
  signal.getData(time, bytes_, shapes_, lengths);
  if (elementText_) width_ = parquet::elementWidth(info.dataType);
  takeLengths(lengths);
}

SampleColumn::SampleColumn(const recording::SignalInfo& info, std::vector<char> bytes,
                           std::vector<std::vector<std::size_t>> shapes,
                           const std::vector<int>& lengths)
    : bytes_(std::move(bytes)),
      elementText_(functionFor(info.dataType, ElementTexts())),
      shapes_(std::move(shapes)),
      fixedShape_(info.dimensions) {
  if (elementText_) width_ = parquet::elementWidth(info.dataType);
  takeLengths(lengths);
}

void SampleColumn::takeLengths(const std::vector<int>& lengths) {
  size_ = bytes_.size() / width_;
  if (lengths.empty()) return;
  size_ = lengths.size();
  begins_.assign(1, 0);
  for (const int length : lengths) {
    begins_.push_back(begins_.back() + static_cast<std::size_t>(length));
  }
}

void SampleColumn::append(fmt::memory_buffer& out, std::size_t sample) const {
  if (begins_.empty() && elementText_) return elementText_(out, bytes_.data() + sample * width_);
  if (elementText_) return appendMatrix(out, sample);
  const std::size_t begin = begins_[sample];
  out.append(::arrow::util::base64_encode({bytes_.data() + begin, begins_[sample + 1] - begin}));
}

std::size_t SampleColumn::rowsOf(std::size_t sample) const {
  const auto& shape = sample < shapes_.size() ? shapes_[sample] : fixedShape_;
  const std::size_t elements = begins_[sample + 1] - begins_[sample];
  const std::size_t product =
      std::accumulate(shape.begin(), shape.end(), std::size_t{1}, std::multiplies<>());
  return shape.size() < 2 || shape[0] == 0 || product != elements ? 1 : shape[0];
}

// Elements are stored column by column and written row by row.
void SampleColumn::appendMatrix(fmt::memory_buffer& out, std::size_t sample) const {
  const std::size_t end = begins_[sample + 1];
  const std::size_t rows = rowsOf(sample);
  out.push_back('"');
  for (std::size_t row = 0; row < rows; ++row) {
    if (row > 0) out.push_back(';');
    for (std::size_t i = begins_[sample] + row; i < end; i += rows) {
      if (i >= begins_[sample] + rows) out.push_back(' ');
      elementText_(out, bytes_.data() + i * width_);
    }
  }
  out.push_back('"');
}

}  // namespace kyr::tool
