#include "files/RowGroupCache.h"

#include <utility>

namespace kyr::parquet {

std::shared_ptr<const DecodedGroup> RowGroupCache::find(const InputFile& file, std::size_t group) {
  const auto found = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
    return entry.file == &file && entry.group == group;
  });
  if (found == entries_.end()) return nullptr;
  entries_.splice(entries_.begin(), entries_, found);
  return found->rows;
}

void RowGroupCache::put(const InputFile& file, std::size_t group,
                        std::shared_ptr<DecodedGroup> rows) {
  if (entries_.size() >= kGroups) entries_.pop_back();
  entries_.push_front({&file, group, std::move(rows)});
}

std::shared_ptr<DecodedGroup> RowGroupCache::takeSpare(const InputFile& file) {
  if (entries_.size() < kGroups) return nullptr;
  const Entry last = entries_.back();
  entries_.pop_back();
  return last.file == &file && last.rows.use_count() == 1 ? last.rows : nullptr;
}

void RowGroupCache::forget(const InputFile& file) {
  entries_.remove_if([&file](const Entry& entry) { return entry.file == &file; });
}

}  // namespace kyr::parquet
