#include "print/SampleCursor.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "cli/Interrupt.h"
#include "cli/Span.h"

namespace kyr::tool {

using recording::RecordingReader;
using recording::SampleBlock;
using recording::SignalInfo;

SampleCursor::SampleCursor(const RecordingReader& reader, const SignalInfo& signal,
                           std::uint64_t endRow, std::size_t blockRows)
    : reader_(reader),
      id_(signal.signalId),
      endRow_(endRow),
      blockRows_(blockRows),
      width_(reader.elementBytes(signal.signalId)),
      isFlat_(signal.category == Scalar && reader.elementsPerSample(signal.signalId) == 1) {}

// Numbers are read through the reader, which limits the number of open files. Other samples come by
// row group, because a row group is decoded as a whole.
void SampleCursor::read(std::uint64_t row) {
  stopIfInterrupted();
  const Span span("read");
  if (row >= endRow_) throw std::logic_error("a row behind the last is read");
  if (isFlat_) {
    const auto rows = static_cast<std::size_t>(std::min<std::uint64_t>(endRow_ - row, blockRows_));
    block_ = SampleBlock();
    bytes_.resize(rows * width_);
    reader_.readElements(id_, {row, row + rows}, bytes_.data(), bytes_.size());
    block_.firstRow = row;
    block_.rows = rows;
    block_.elements = bytes_.data();
    block_.elementsPerSample = 1;
    return;
  }
  if (!blocks_ || row != block_.firstRow + block_.rows) {
    blocks_.emplace(reader_.blocks(id_, {row, endRow_}, std::numeric_limits<std::size_t>::max()));
  }
  block_ = SampleBlock();
  const SampleBlock* const next = blocks_->next();
  if (next == nullptr) throw std::logic_error("a row behind the last is read");
  block_ = *next;
}

ElementRange elementsOf(const SampleBlock& block, std::size_t sample) {
  if (block.offsets) {
    return {static_cast<std::size_t>(block.offsets[sample]),
            static_cast<std::size_t>(block.offsets[sample + 1])};
  }
  return {sample * block.elementsPerSample, (sample + 1) * block.elementsPerSample};
}

std::size_t blockRowsFor(std::size_t columns) {
  constexpr std::size_t kBytes = std::size_t{1} << 25;
  constexpr std::size_t kLeast = 1024;
  constexpr std::size_t kMost = 65'536;
  return std::clamp(kBytes / (sizeof(double) * std::max<std::size_t>(1, columns)), kLeast, kMost);
}

}  // namespace kyr::tool
