#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <tuple>

#include "recording/EnvelopeIndex.h"

namespace kyr::recording {

/// The envelope indexes of the signals that were looked at last, up to a number of bytes. Signals
/// with the same times and samples share one.
class EnvelopeCache {
 public:
  /// Contents of times and samples, if there are any, and the element of the samples.
  using Key = std::tuple<std::optional<std::int64_t>, std::optional<int>, std::uint64_t>;

  explicit EnvelopeCache(std::size_t maxBytes) : maxBytes_(maxBytes) {}

  /// Makes an envelope, and then drops indexes that were not used for longest while all have too
  /// many bytes together. The one that was just used stays.
  Envelope envelope(const Key& key, NumberSource& source, double from, double to,
                    std::size_t columns);
  void clear() { entries_.clear(); }

 private:
  struct Entry {
    EnvelopeIndex index;
    std::uint64_t lastUse = 0;
  };

  void shrink();

  std::size_t maxBytes_;
  std::uint64_t uses_ = 0;
  std::map<Key, Entry> entries_;
};

}  // namespace kyr::recording
