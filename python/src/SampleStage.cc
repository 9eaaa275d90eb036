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

void SampleStage::stage(const double* times, std::size_t count, const char* samples) {
  times_.insert(times_.end(), times, times + count);
  data_.insert(data_.end(), samples, samples + count * sampleBytes_);
}

void SampleStage::add(const double* times, std::size_t count, const char* samples) {
  if (!times_.empty() || count < kRows) {
    stage(times, count, samples);
    return;
  }
  try {
    signal_->appendTime(times, count);
    append(samples, count * sampleBytes_, {}, {});
    written_ += count;
  } catch (...) {
    stage(times, count, samples);
    hasFailed_ = true;
    throw;
  }
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
  std::size_t begin = first * sampleBytes_;
  std::vector<std::vector<unsigned long>> shapes;
  std::vector<int> sizes;
  if (sampleBytes_ == 0 && category_ != FixedDim) {
    const std::size_t width = type_ == Binary ? 1 : parquet::elementWidth(type_);
    for (std::size_t row = 0; row < first; ++row) begin += width * std::size_t(sizes_[row]);
    if (category_ == VarDim) shapes.assign(shapes_.begin() + std::ptrdiff_t(first), shapes_.end());
    sizes.assign(sizes_.begin() + std::ptrdiff_t(first), sizes_.end());
  }
  append(data_.data() + begin, data_.size() - begin, sizes, std::move(shapes));
}

void SampleStage::append(const char* data, std::size_t bytes, const std::vector<int>& sizes,
                         std::vector<std::vector<unsigned long>> shapes) {
  const auto& extents = description_.dimensions;
  if (category_ == FixedDim) shapes.emplace_back(extents.begin(), extents.end());
  // A pointer is expected even where all samples are empty.
  static const char kNothing = 0;
  signal_->appendData(bytes == 0 ? &kNothing : data, bytes, shapes, sizes);
}

}  // namespace kyr::python
