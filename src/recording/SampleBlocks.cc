#include <algorithm>
#include <utility>

#include "recording/SampleBlocksImpl.h"

namespace kyr::recording {

SampleBlocks::Impl::Impl(SignalRows rows, const RowRange& range, std::size_t maxRows)
    : rows_(std::move(rows)),
      next_(range.from),
      end_(range.to),
      maxRows_(std::max<std::size_t>(1, maxRows)) {}

const SampleBlock* SampleBlocks::Impl::next() {
  if (next_ >= end_) return nullptr;
  const bool isNumber = rows_.kind() == SampleKind::number;
  std::uint64_t count = std::min<std::uint64_t>(end_ - next_, maxRows_);
  // Rows of two row groups would have to be copied together.
  if (rows_.hasSamples() && !isNumber) count = std::min(count, rows_.endOfPart(next_) - next_);
  block_ = SampleBlock();
  block_.firstRow = next_;
  block_.rows = static_cast<std::size_t>(count);
  if (rows_.hasTimes()) {
    times_.resize(block_.rows);
    rows_.readTimes(next_, count, times_.data());
    block_.times = times_.data();
  }
  if (rows_.hasSamples()) readSamples();
  next_ += count;
  return &block_;
}

void SampleBlocks::Impl::readSamples() {
  if (rows_.kind() == SampleKind::number) {
    elements_.resize(block_.rows * rows_.elementBytes());
    rows_.readElements(next_, block_.rows, elements_.data());
    block_.elements = elements_.data();
    block_.elementsPerSample = 1;
    return;
  }
  held_ = {};  // its memory can be used again
  const bool isFixed = rows_.kind() == SampleKind::fixed;
  held_ = isFixed ? rows_.readFixed(next_, block_.rows) : rows_.readSamples(next_, block_.rows);
  const parquet::RowSlice& slice = held_.rows;
  block_.elements = slice.elements;
  if (isFixed) {
    block_.elementsPerSample = static_cast<std::size_t>(rows_.elementsPerSample());
    return;
  }
  block_.offsets = offsetsOf(slice.ends, slice.begin, slice.rows, offsets_);
  if (slice.extentEnds == nullptr) return;
  block_.extents = slice.extents;
  block_.extentOffsets = offsetsOf(slice.extentEnds, slice.extentBegin, slice.rows, extentOffsets_);
}

const std::uint64_t* SampleBlocks::Impl::offsetsOf(const std::uint64_t* ends, std::uint64_t begin,
                                                   std::size_t rows,
                                                   std::vector<std::uint64_t>& offsets) {
  offsets.resize(rows + 1);
  offsets[0] = 0;
  std::transform(ends, ends + rows, offsets.begin() + 1,
                 [begin](std::uint64_t end) { return end - begin; });
  return offsets.data();
}

SampleBlocks::SampleBlocks(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
SampleBlocks::~SampleBlocks() = default;
SampleBlocks::SampleBlocks(SampleBlocks&&) noexcept = default;
SampleBlocks& SampleBlocks::operator=(SampleBlocks&&) noexcept = default;

const SampleBlock* SampleBlocks::next() { return impl_->next(); }

}  // namespace kyr::recording
