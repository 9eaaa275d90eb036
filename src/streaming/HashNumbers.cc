#include "streaming/HashNumbers.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace kyr::parquet::RedundancyChecker {

HashNumbers::HashNumbers(const HashNumbers& other)
    : inserted_(other.inserted_),
      capacity_(other.capacity_),
      slotCount_(other.slotCount_),
      filterWords_(other.filterWords_),
      slots_(other.slots_),
      filter_(other.filter_),
      jumps_(other.jumps_) {
  hashes_.append(other.hashes_.data(), other.hashes_.size());
}

HashNumbers& HashNumbers::operator=(const HashNumbers& other) {
  HashNumbers copy(other);
  std::swap(hashes_, copy.hashes_);
  std::swap(inserted_, copy.inserted_);
  std::swap(capacity_, copy.capacity_);
  std::swap(slotCount_, copy.slotCount_);
  std::swap(filterWords_, copy.filterWords_);
  std::swap(slots_, copy.slots_);
  std::swap(filter_, copy.filter_);
  std::swap(jumps_, copy.jumps_);
  return *this;
}

std::uint64_t HashNumbers::at(std::uint64_t hash) const {
  const auto index = find(hash, placeOf(hash));
  if (!index) throw std::out_of_range("the hash has no number");
  return numberAt(*index);
}

std::optional<std::size_t> HashNumbers::find(std::uint64_t hash, std::uint32_t place) const {
  for (std::size_t index = inserted_; index < size(); ++index) {
    if (hashAt(index) == hash) return index;
  }
  if (slotCount_ == 0) return std::nullopt;
  for (std::size_t at = slotOf(place);; at = at + 1 == slotCount_ ? 0 : at + 1) {
    const Slot& slot = slots()[at];
    if (slot.end == 0) return std::nullopt;
    if (slot.place == place && hashAt(slot.end - 1) == hash) return slot.end - 1;
  }
}

void HashNumbers::put(Slot slot) {
  std::size_t at = slotOf(slot.place);
  while (slots()[at].end != 0) at = at + 1 == slotCount_ ? 0 : at + 1;
  slots()[at] = slot;
}

void HashNumbers::insertNext() {
  const std::uint32_t place = placeOf(hashAt(inserted_));
  put({place, static_cast<std::uint32_t>(++inserted_)});
}

// Goes through the old table and the new one in the order of their memory.
void HashNumbers::grow() {
  constexpr std::size_t kFirst = 96;  // hashes in the smallest table
  if (size() > UINT32_MAX / 2) throw std::length_error("too many different chunks");
  const std::size_t capacity = std::max(kFirst, capacity_ / 2 * 3);
  const std::uint64_t slotCount = capacity / 3 * 4 + 1;
  const std::uint64_t filterWords = capacity / 8 + 1;
  platform::ZeroedMemory slots(slotCount * sizeof(Slot));
  platform::ZeroedMemory filter(filterWords * sizeof(std::uint64_t));
  while (inserted_ < size()) insertNext();
  std::swap(slots_, slots);
  std::swap(filter_, filter);
  const auto* const old = reinterpret_cast<const Slot*>(slots.data());
  const std::uint64_t oldCount = std::exchange(slotCount_, slotCount);
  filterWords_ = filterWords;
  for (std::size_t at = 0; at < oldCount; ++at) {
    if (old[at].end == 0) continue;
    put(old[at]);
    filterWord(old[at].place) |= filterBits(old[at].place);
  }
  capacity_ = capacity;
}

}  // namespace kyr::parquet::RedundancyChecker
