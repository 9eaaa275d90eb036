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

#include "cli/Output.h"
#include "cli/Text.h"
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

bool isText(const recording::SignalInfo& signal) {
  return signal.category == Scalar && signal.dataType == ByteString;
}

auto elementTextOf(const recording::SignalInfo& signal) {
  const bool isBlob = signal.category == Bus || signal.category == VarDimBus;
  return isBlob ? decltype(ElementTexts().boolean())()
                : functionFor(signal.dataType, ElementTexts());
}

}  // namespace

SampleColumn::SampleColumn(const recording::RecordingReader& reader,
                           const recording::SignalInfo& signal, std::uint64_t endRow,
                           std::size_t blockRows)
    : samples_(reader, signal, endRow, blockRows),
      elementText_(elementTextOf(signal)),
      isText_(isText(signal)),
      isNumber_(signal.category == Scalar && elementText_ != nullptr),
      fixedShape_(signal.dimensions.begin(), signal.dimensions.end()) {}

CellType SampleColumn::typeOf(const recording::SignalInfo& signal) {
  if (signal.category != Scalar || elementTextOf(signal) == nullptr) return CellType::text;
  return signal.dataType == Boolean ? CellType::truth : CellType::number;
}

void SampleColumn::append(fmt::memory_buffer& out, std::uint64_t row, bool isQuoted) {
  if (isNumber_) return elementText_(out, number(row));
  const recording::SampleBlock& block = samples_.blockOf(row);
  const auto sample = static_cast<std::size_t>(row - block.firstRow);
  const char* const elements = static_cast<const char*>(block.elements);
  if (elementText_) return appendMatrix(out, block, sample, isQuoted);
  const auto [begin, end] = elementsOf(block, sample);
  const std::size_t width = samples_.width();
  if (isText_) {
    const std::string_view bytes(elements + begin * width, (end - begin) * width);
    const std::string text = isTerminal() ? singleLine(bytes) : std::string(bytes);
    return out.append(isQuoted ? csvCell(text) : text);
  }
  out.append(::arrow::util::base64_encode({elements + begin * width, (end - begin) * width}));
}

// Samples without elements may claim any number of rows.
std::size_t SampleColumn::rowsOf(const recording::SampleBlock& block, std::size_t sample,
                                 std::size_t elements) const {
  const std::uint64_t* begin = fixedShape_.data();
  const std::uint64_t* end = begin + fixedShape_.size();
  if (block.extents) {
    begin = block.extents + block.extentOffsets[sample];
    end = block.extents + block.extentOffsets[sample + 1];
  }
  const std::uint64_t product = std::accumulate(begin, end, std::uint64_t{1}, std::multiplies<>());
  if (end - begin < 2 || *begin == 0 || *begin > elements || product != elements) return 1;
  return static_cast<std::size_t>(*begin);
}

// Elements are stored column by column and written row by row.
void SampleColumn::appendMatrix(fmt::memory_buffer& out, const recording::SampleBlock& block,
                                std::size_t sample, bool isQuoted) const {
  const auto [begin, end] = elementsOf(block, sample);
  const std::size_t rows = rowsOf(block, sample, end - begin);
  const char* const elements = static_cast<const char*>(block.elements);
  if (isQuoted) out.push_back('"');
  for (std::size_t row = 0; row < rows; ++row) {
    if (row > 0) out.push_back(';');
    for (std::size_t i = begin + row; i < end; i += rows) {
      if (i >= begin + rows) out.push_back(' ');
      elementText_(out, elements + i * samples_.width());
    }
  }
  if (isQuoted) out.push_back('"');
}

}  // namespace kyr::tool
