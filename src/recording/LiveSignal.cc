#include "recording/LiveSignal.h"

#include <arrow/status.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <stdexcept>
#include <utility>

namespace kyr::recording {

LiveSignal::LiveSignal(std::shared_ptr<parquet::SafeStreamableSignal> signal,
                       const SignalDescription& description, std::shared_ptr<const bool> isClosed)
    : signal_(std::move(signal)),
      isClosed_(std::move(isClosed)),
      hasDimensions_(!description.dimensions.empty()),
      description_(description) {}

std::string LiveSignal::name() const {
  return fmt::format("signal {} \"{}\"", description_.signalId, description_.name);
}

void LiveSignal::refuseClosed() const {
  throw std::logic_error(name() + ": its recording is closed, so nothing can be stored any more");
}

void LiveSignal::appendTime(const double* time, unsigned long count) {
  requireOpen();
  signal_->appendTime(time, count);
}

void LiveSignal::appendData(const void* data, unsigned long size,
                            const std::vector<std::vector<unsigned long>>& dimensions,
                            const std::vector<int>& extra) {
  requireOpen();
  if (hasDimensions_) requireShape(dimensions);
  signal_->appendData(data, size, dimensions, extra);
}

// The shape is written once, in the description, so no sample may have another.
void LiveSignal::requireShape(const std::vector<std::vector<unsigned long>>& dimensions) const {
  if (signal_->getCategory() != FixedDim) return;
  const auto refuse = [this](const std::string& found) {
    throw std::invalid_argument(fmt::format("{}: a sample {}, declared are [{}]", name(), found,
                                            fmt::join(description_.dimensions, ", ")));
  };
  if (dimensions.empty()) refuse("without dimensions");
  for (const auto& sample : dimensions) {
    if (sample != description_.dimensions) {
      refuse(fmt::format("of the dimensions [{}]", fmt::join(sample, ", ")));
    }
  }
}

void LiveSignal::requireNoSamples(const char* what) const {
  if (signal_->rowCount(SignalPart::data) == 0) return;
  throw std::logic_error(
      fmt::format("{}: its {} cannot change, because it has samples", name(), what));
}

void LiveSignal::setDataType(KYRSignalDataType type) {
  requireOpen();
  if (type == getDataType()) return;
  requireNoSamples("data type");
  signal_->setDataType(type);
}

void LiveSignal::setCategory(KYRSignalCategory category) {
  requireOpen();
  if (category == getCategory()) return;
  requireNoSamples("category");
  signal_->setCategory(category);
}

void LiveSignal::resetData() {
  requireOpen();
  signal_->resetData();
}

void LiveSignal::flush() {
  requireOpen();
  signal_->flush();
}

::arrow::Status LiveSignal::writeStatus() const { return signal_->writeStatus(); }

}  // namespace kyr::recording
