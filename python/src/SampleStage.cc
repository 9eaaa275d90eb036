#include "SampleStage.h"

#include <utility>

namespace kyr::python {

using Part = parquet::StreamableSignal::SignalPart;

SampleStage::SampleStage(std::shared_ptr<parquet::StreamableSignal> signal,
                         recording::SignalDescription description, KYRSignalDataType type,
                         KYRSignalCategory category)
    : signal_(std::move(signal)),
      description_(std::move(description)),
      type_(type),
      category_(category) {
  if (type == Binary || category == VarDim) return;
  sampleBytes_ = parquet::elementWidth(type);
  for (const std::size_t extent : description_.dimensions) sampleBytes_ *= extent;
}

void SampleStage::add(double time, const char* sample, std::size_t bytes,
                      std::vector<unsigned long> shape, int elements) {
  times_.push_back(time);
  data_.insert(data_.end(), sample, sample + bytes);
  if (category_ == VarDim) shapes_.push_back(std::move(shape));
  sizes_.push_back(elements);
}

void SampleStage::write() {
  if (times_.empty()) return;
  std::size_t times = 0;
  std::size_t samples = 0;
  if (hasFailed_) {
    // A write that failed may have handed over some rows, or times without their samples.
    times = signal_->rowCount(Part::time) - written_;
    samples = signal_->rowCount(Part::data) - written_;
  }
  hasFailed_ = true;
  if (times < times_.size()) signal_->appendTime(times_.data() + times, times_.size() - times);
  if (samples < times_.size()) writeSamples(samples);
  hasFailed_ = false;
  written_ += times_.size();
  times_.clear();
  data_.clear();
  shapes_.clear();
  sizes_.clear();
}

void SampleStage::writeSamples(std::size_t first) {
  std::vector<std::vector<unsigned long>> shapes;
  std::vector<int> sizes;
  std::size_t begin = first * sampleBytes_;
  if (category_ == FixedDim) {
    const auto& extents = description_.dimensions;
    shapes.emplace_back(extents.begin(), extents.end());
  } else if (sampleBytes_ == 0) {
    const std::size_t width = type_ == Binary ? 1 : parquet::elementWidth(type_);
    for (std::size_t row = 0; row < first; ++row) begin += width * std::size_t(sizes_[row]);
    if (category_ == VarDim) shapes.assign(shapes_.begin() + std::ptrdiff_t(first), shapes_.end());
    sizes.assign(sizes_.begin() + std::ptrdiff_t(first), sizes_.end());
  }
  // A pointer is expected even where all samples are empty.
  static const char kNothing = 0;
  signal_->appendData(data_.empty() ? &kNothing : data_.data() + begin, data_.size() - begin,
                      shapes, sizes);
}

}  // namespace kyr::python
