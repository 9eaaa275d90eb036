#include "recording/EnvelopeCache.h"

#include <algorithm>

namespace kyr::recording {

Envelope EnvelopeCache::envelope(const Key& key, NumberSource& source, double from, double to,
                                 std::size_t columns) {
  Entry& entry = entries_[key];
  entry.lastUse = ++uses_;
  Envelope envelope = entry.index.envelope(source, from, to, columns);
  shrink();
  return envelope;
}

void EnvelopeCache::shrink() {
  // Indexes without buckets are small, but there may be one for each element of a large matrix.
  constexpr std::size_t kMostEntries = 4'096;
  std::size_t bytes = 0;
  for (const auto& [key, entry] : entries_) bytes += entry.index.bytes();
  while (entries_.size() > 1 && (bytes > maxBytes_ || entries_.size() > kMostEntries)) {
    const auto oldest = std::min_element(
        entries_.begin(), entries_.end(),
        [](const auto& a, const auto& b) { return a.second.lastUse < b.second.lastUse; });
    bytes -= oldest->second.index.bytes();
    entries_.erase(oldest);
  }
}

}  // namespace kyr::recording
