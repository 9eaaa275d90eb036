#include "recording/SignalGroup.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kyr::recording {

namespace {

// Bytes of a block at the most, unless a step has more.
constexpr std::size_t kBlockBytes = std::size_t{4} << 20U;
constexpr std::size_t kMostSteps = 256;
// Columns that are taken out of the steps together: those that share lines of the cache.
constexpr std::size_t kLineBytes = 64;

template <std::size_t kWidth>
void takeColumns(const char* from, std::size_t stride, std::size_t steps, std::size_t columns,
                 char* to) {
  for (std::size_t step = 0; step < steps; ++step, from += stride) {
    for (std::size_t column = 0; column < columns; ++column) {
      std::memcpy(to + (column * steps + step) * kWidth, from + column * kWidth, kWidth);
    }
  }
}

}  // namespace

SignalGroup::Impl::Impl(std::vector<std::shared_ptr<parquet::SafeStreamableSignal>> signals,
                        std::size_t width, std::shared_ptr<const bool> isClosed)
    : signals_(std::move(signals)), width_(width), isClosed_(std::move(isClosed)) {
  const std::size_t step = std::max<std::size_t>(1, signals_.size() * width_);
  steps_ = std::clamp<std::size_t>(kBlockBytes / step, 1, kMostSteps);
}

void SignalGroup::Impl::append(const double* times, std::size_t steps, const char* samples,
                               std::size_t bytes) {
  const std::size_t step = signals_.size() * width_;
  if (*isClosed_) throw std::logic_error("a group of signals: its recording is closed");
  if (steps == 0 && bytes == 0) return;
  if (times == nullptr || (samples == nullptr && bytes > 0)) {
    throw std::invalid_argument("a group of signals: times or samples are a null pointer");
  }
  if (bytes / std::max<std::size_t>(1, step) != steps || bytes % std::max<std::size_t>(1, step)) {
    throw std::invalid_argument(
        fmt::format("a group of {} signals: {} bytes of samples for {} steps of {} bytes each",
                    signals_.size(), bytes, steps, step));
  }
  // All that is there is stored before anything is added, so that a failure changes nothing.
  if (times_.size() + steps > steps_) store();
  times_.insert(times_.end(), times, times + steps);
  samples_.insert(samples_.end(), samples, samples + bytes);
}

// Goes on where a call before failed.
void SignalGroup::Impl::store() {
  const std::size_t steps = times_.size();
  const std::size_t step = signals_.size() * width_;
  const std::size_t together = kLineBytes / width_;
  while (steps > 0 && stored_ < signals_.size()) {
    const std::size_t first = stored_ / together * together;
    const std::size_t count = std::min(together, signals_.size() - first);
    columns_.resize(count * steps * width_);
    const char* const from = samples_.data() + first * width_;
    for (std::size_t i = 0; i < count; ++i) signals_[first + i]->prefetchForAppend(0);
    switch (width_) {
      case 1:
        takeColumns<1>(from, step, steps, count, columns_.data());
        break;
      case 2:
        takeColumns<2>(from, step, steps, count, columns_.data());
        break;
      case 4:
        takeColumns<4>(from, step, steps, count, columns_.data());
        break;
      default:
        takeColumns<8>(from, step, steps, count, columns_.data());
        break;
    }
    for (const int next : {1, 2}) {
      for (std::size_t i = 0; i < count; ++i) signals_[first + i]->prefetchForAppend(next);
    }
    for (; stored_ < first + count; ++stored_) {
      parquet::SafeStreamableSignal& signal = *signals_[stored_];
      if (!areTimesStored_) signal.appendTime(times_.data(), steps);
      areTimesStored_ = true;
      const std::size_t bytes = steps * width_;
      signal.appendData(columns_.data() + (stored_ - first) * bytes, bytes, {}, {});
      areTimesStored_ = false;
    }
  }
  times_.clear();
  samples_.clear();
  stored_ = 0;
}

SignalGroup::SignalGroup(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}
SignalGroup::~SignalGroup() = default;

std::size_t SignalGroup::signals() const { return impl_->signals(); }

void SignalGroup::append(const double* times, std::size_t steps, const void* samples,
                         std::size_t bytes) {
  impl_->append(times, steps, static_cast<const char*>(samples), bytes);
}

}  // namespace kyr::recording
